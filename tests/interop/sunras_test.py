"""Sun raster: netpbm and ImageMagick files load as rasttopnm reads them, and
raw ones of up to 24 bits as Pillow reads them.  Type 3 files load with red
and blue exchanged: samples are kept in file order, as designed."""
import os

import brivanta as B

B.require("rasttopnm")


def check(name):
    path = B.fixture("sunras", name)
    head = open(path, "rb").read(32)
    ours = B.loaded(path).rgb()
    ours = ours[:, :, ::-1] if head[23] == 3 else ours
    B.compare(ours, B.image_rgb(B.run(["rasttopnm", path])), name + " against rasttopnm")
    if head[23] != 2 and head[15] != 32:
        B.compare(ours, B.pillow_rgb(path), name + " against Pillow")


B.main([(n, lambda n=n: check(n)) for n in sorted(os.listdir(B.fixture("sunras"))) if n.endswith(".ras")])
