"""X window dumps from netpbm and from an X server (Z and XY pixmaps, 1, 8
and 24 bits, both byte orders) load as xwdtopnm reads them; it reads no
8-plane XY pixmap, so that dump is held against the Z dump of its screen."""
import os

import brivanta as B

B.require("xwdtopnm", "pamdepth")


def check(name):
    ref = B.fixture("xwd", name.replace("_xy", ""))
    want = B.image_rgb(B.run("xwdtopnm %s 2>/dev/null | pamdepth 255" % ref))
    B.compare(B.loaded(B.fixture("xwd", name)).rgb(), want, name + " against xwdtopnm")


B.main([(n, lambda n=n: check(n)) for n in sorted(os.listdir(B.fixture("xwd"))) if n.endswith(".xwd")])
