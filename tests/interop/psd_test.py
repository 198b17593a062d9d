"""Photoshop interop: files written by ImageMagick in each mode, raw and
run-length, decode as Pillow (for CMYK, ImageMagick) decodes them; a bitmap
document written here decodes as Pillow shows it; our 24-bit output opens in
ImageMagick (Pillow opens ours at every depth in writers_test.py)."""
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


def bitmap_file():
    """Bitmap mode, which ImageMagick does not write: 0 bits black, as Pillow
    shows them (ImageMagick shows set bits black)."""
    bits = np.packbits(np.asarray(Image.open(SRC).convert("L")) > 128, axis=1)
    with open(B.tmp("bitmap.psd"), "wb") as f:
        f.write(b"8BPS" + struct.pack(">H6xHIIHHIIIH", 1, 1, 37, 61, 1, 0, 0, 0, 0, 0) + bits.tobytes())
    assert B.decodes_like(B.tmp("bitmap.psd"), "Pillow").bits == 1


cases = [("ImageMagick %s %s" % (name, c), lambda a=args, c=c, r=ref, t=tol: tool_file(a, c, r, t))
         for name, args, ref, tol in MODES for c in ("None", "RLE")]
cases += [
    ("bitmap by hand", bitmap_file),
    ("our 24-bit file in ImageMagick", lambda: B.writes_like(
        B.make("convert %s -type TrueColor BMP3:{out}" % SRC, "o24.bmp"), B.tmp("o24.psd"), 41, ["ImageMagick"])),
]
B.main(cases)
