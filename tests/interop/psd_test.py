"""Photoshop interop: files written by ImageMagick in each mode, raw and
run-length, decode as Pillow (or, for CMYK, ImageMagick) decodes them; files
written here by hand hold the modes ImageMagick does not write (bitmap, Lab);
our own output opens in Pillow and ImageMagick as the picture that was saved."""
import struct

import numpy as np
from PIL import Image

import brivanta as B

B.require("convert")
# Pillow's seek counts layers: the composite is what opens.
B.REFERENCES["Pillow"] = lambda path, page=0: np.asarray(Image.open(path).convert("RGB"))
SRC = B.make("convert -size 61x37 -seed 5 plasma:fractal -depth 8 {out}", "src.png")

MODES = [
    ("grey", "-colorspace gray", "Pillow", 0),
    ("indexed", "-colors 100 -type Palette", "Pillow", 0),
    ("RGB", "", "Pillow", 0),
    # The composite is matted, which ImageMagick's reading of the layer is not.
    ("RGB with alpha", "-alpha set -channel A -evaluate set 50% +channel", "Pillow", 0),
    # Pillow turns CMYK to RGB by subtraction, ImageMagick by product as we do.
    ("CMYK", "-colorspace CMYK", "ImageMagick", 1),
]


def tool_file(args, compress, ref, tolerance):
    f = B.make("convert %s %s -compress %s {out}" % (SRC, args, compress), "m%d.psd" % abs(hash(args + compress)))
    B.decodes_like(f, ref, tolerance)


def psd_by_hand(name, mode, depth, planes, rows_of_planes):
    """A raw document: header, no colour data, resources or layers."""
    h, w = rows_of_planes[0].shape
    data = b"8BPS" + struct.pack(">H6xHIIHH", 1, planes, h, w, depth, mode) + struct.pack(">IIIH", 0, 0, 0, 0)
    data += b"".join(np.packbits(p, axis=1).tobytes() if depth == 1 else p.tobytes() for p in rows_of_planes)
    with open(B.tmp(name), "wb") as f:
        f.write(data)
    return B.tmp(name)


def bitmap_file():
    """Bitmap mode: a 1-bit picture whose 0 bits are black, as Pillow shows
    it (ImageMagick shows set bits black)."""
    bits = (np.asarray(Image.open(SRC).convert("L")) > 128).astype(np.uint8)
    f = psd_by_hand("bitmap.psd", 0, 1, 1, [bits])
    ours = B.loaded(f)
    assert ours.bits == 1
    B.compare(ours.rgb(), B.REFERENCES["Pillow"](f), "bitmap mode against Pillow")


def ours_opens(args, name, refs):
    """Our type 41 file of a picture opens in Pillow and ImageMagick as it
    was saved."""
    src = B.make("convert %s %s BMP3:{out}" % (SRC, args), name + ".bmp")
    B.writes_like(src, B.tmp(name + ".psd"), 41, refs)


cases = []
for name, args, ref, tol in MODES:
    for compress in ("None", "RLE"):
        cases.append(("ImageMagick %s %s" % (name, compress),
                      lambda a=args, c=compress, r=ref, t=tol: tool_file(a, c, r, t)))
cases += [
    ("bitmap by hand", bitmap_file),
    # ImageMagick reads no indexed document without layers, its own included.
    ("our 8-bit palette file", lambda: ours_opens("-colors 200 -type Palette", "o8", ["Pillow"])),
    ("our 24-bit file", lambda: ours_opens("-type TrueColor", "o24", ["Pillow", "ImageMagick"])),
    ("our grey file", lambda: ours_opens("-colorspace gray -type Grayscale", "og", ["Pillow", "ImageMagick"])),
    ("our 1-bit file", lambda: ours_opens("-monochrome", "o1", ["Pillow"])),
]
B.main(cases)
