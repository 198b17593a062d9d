"""Icon interop: icons written by ImageMagick, Pillow and netpbm at every
depth they make load here as Pillow shows their first image (colours; the
AND mask is not ours to read, so Pillow's alpha is dropped)."""
import numpy as np
from PIL import Image

import brivanta as B

B.require("convert", "pamtowinicon")
PLASMA = "convert -size {s}x{s} plasma:fractal"


def pillow_save(mode, size, **kw):
    """A Pillow icon of a plasma picture in this mode, as an uncompressed DIB."""
    def make(out):
        im = Image.open(B.make(PLASMA.format(s=size) + " ppm:-", "src%d.ppm" % size)).convert("RGB")
        im = im.quantize(256) if mode == "P" else im.convert(mode)
        im.save(out, format="ICO", bitmap_format="bmp", sizes=[(size, size)], **kw)
    return make


# name, command or function making {out}, depth of the first image
SOURCES = [
    ("magick 4-bit", PLASMA.format(s=16) + " -colors 16 {out}", 4),
    ("magick 8-bit", PLASMA.format(s=32) + " -colors 200 {out}", 8),
    ("magick 32-bit", PLASMA.format(s=64) + " {out}", 32),
    ("magick bilevel", "convert -size 32x32 xc:white -fill black -draw 'circle 16,16 4,4' -type bilevel {out}", 32),
    ("magick several sizes, the first one", PLASMA.format(s=64) + " -define icon:auto-resize=32,16,64 {out}", 32),
    ("Pillow 1-bit", pillow_save("1", 32), 1),
    ("Pillow 8-bit", pillow_save("P", 32), 8),
    ("Pillow 24-bit", pillow_save("RGB", 64), 24),
    ("netpbm 32-bit", PLASMA.format(s=32) + " ppm:- | pamtowinicon 2>/dev/null", 32),
]


def first_image_rgb(path):
    """Pillow's decode of the first directory entry (it sorts them by size)."""
    size = open(path, "rb").read()[6] or 256
    with Image.open(path) as im:
        return np.asarray(im.ico.getimage((size, size)).convert("RGB"))


def loads_like_pillow(name, make, depth):
    def check():
        out = B.tmp(name.replace(" ", "_") + ".ico")
        if callable(make):
            make(out)
        else:
            B.make(make, out.rsplit("/", 1)[1])
        data = open(out, "rb").read()
        at = int.from_bytes(data[18:22], "little")
        assert int.from_bytes(data[at + 14: at + 16], "little") == depth, "%s made another depth" % name
        ours = B.loaded(out)
        assert ours.bits == (depth if depth <= 8 else 24)
        B.compare(ours.rgb(), first_image_rgb(out), name)
    return check


def png_icon_is_refused():
    out = B.tmp("png.ico")
    Image.new("RGB", (32, 32), (9, 99, 199)).save(out, format="ICO", sizes=[(32, 32)])
    assert B.load(out) == -7, "an icon holding a compressed stream"


CASES = [("loads like Pillow: " + s[0], loads_like_pillow(*s)) for s in SOURCES]
CASES.append(("an icon of PNG data is refused", png_icon_is_refused))

if __name__ == "__main__":
    B.main(CASES)
