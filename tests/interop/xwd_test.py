"""X window dump interop: dumps from netpbm and from a real X server (Z and
XY pixmaps, 1, 8 and 24 bits, both byte orders) decode as xwdtopnm
decodes them.  xwdtopnm reads no 8-plane XY pixmap, so the XY dump is held
against its decode of the Z dump of the same screen."""
import os

import brivanta as B

B.require("xwdtopnm", "pamdepth")


def check(name):
    path = B.fixture("xwd", name)
    ref = B.fixture("xwd", name.replace("_xy", ""))
    want = B.image_rgb(B.run("xwdtopnm %s 2>/dev/null | pamdepth 255" % ref))
    B.compare(B.loaded(path).rgb(), want, name + " against xwdtopnm")


names = sorted(n for n in os.listdir(B.fixture("xwd")) if n.endswith(".xwd"))
B.main([(n, lambda n=n: check(n)) for n in names])
