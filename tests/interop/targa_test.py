"""Targa interop: files from ImageMagick and netpbm (mapped, grey, 16, 24 and
32 bits, raw and run-length, both origins) decode as Pillow decodes them."""
import struct

import numpy as np

import brivanta as B

B.require("convert", "ppmtotga", "tgatoppm", "ppmquant", "ppmtopgm")
SRC, RUNS = B.tmp("src.ppm"), B.tmp("runs.ppm")
B.run("convert -size 61x37 -seed 5 plasma:fractal -depth 8 %s" % SRC)
B.run("convert -size 200x3 gradient:red-blue -depth 8 %s" % RUNS)

TOOL_FILES = [
    ("ImageMagick 24 raw", "convert %s TGA:{out}" % SRC),
    ("ImageMagick 24 RLE", "convert %s -compress RLE TGA:{out}" % SRC),
    ("ImageMagick 24 RLE runs", "convert %s -compress RLE TGA:{out}" % RUNS),
    ("ImageMagick 32 raw", "convert %s -alpha set -channel A -evaluate set 50%% TGA:{out}" % SRC),
    ("ImageMagick 32 RLE", "convert %s -alpha set -compress RLE TGA:{out}" % SRC),
    ("ImageMagick mapped raw", "convert %s -colors 100 -type Palette TGA:{out}" % SRC),
    ("ImageMagick mapped RLE", "convert %s -colors 100 -type Palette -compress RLE TGA:{out}" % SRC),
    ("ImageMagick grey raw", "convert %s -colorspace gray TGA:{out}" % SRC),
    ("ImageMagick grey RLE", "convert %s -colorspace gray -compress RLE TGA:{out}" % SRC),
    ("ImageMagick top-left origin", "convert %s -flip -orient TopLeft TGA:{out}" % SRC),
    ("netpbm 24 RLE", "ppmtotga " + SRC),
    ("netpbm 24 raw", "ppmtotga -norle " + SRC),
    ("netpbm mapped RLE", "ppmquant 100 %s | ppmtotga -cmap" % SRC),
    ("netpbm mapped raw", "ppmquant 100 %s | ppmtotga -cmap -norle" % SRC),
    ("netpbm grey RLE", "ppmtopgm %s | ppmtotga -mono" % SRC),
    ("netpbm grey raw", "ppmtopgm %s | ppmtotga -mono -norle" % SRC),
]


def sixteen_bit(name, top, rle):
    """A 16-bit file written here: neither tool writes one.  Run-length
    files hold raw packets of up to 128 pixels, crossing row ends."""
    pic = B.pillow_rgb(SRC).astype(np.uint16)
    words = (pic[:, :, 0] >> 3) << 10 | (pic[:, :, 1] >> 3) << 5 | (pic[:, :, 2] >> 3) | 0x8000
    data = (words if top else words[::-1]).astype("<u2").tobytes()
    if rle:
        data = b"".join(bytes([len(data[i:i + 256]) // 2 - 1]) + data[i:i + 256] for i in range(0, len(data), 256))
    h, w = words.shape
    header = struct.pack("<BBBHHBHHHHBB", 0, 0, 10 if rle else 2, 0, 0, 0, 0, 0, w, h, 16, 0x20 if top else 0)
    with open(B.tmp(name), "wb") as f:
        f.write(header + data)
    return B.tmp(name)


cases = [(n, lambda n=n, c=c: B.decodes_like(B.make(c, n.replace(" ", "_") + ".tga"))) for n, c in TOOL_FILES]
for top in (False, True):
    for rle in (False, True):
        n = "16-bit %s %s" % ("top-left" if top else "bottom-left", "RLE" if rle else "raw")
        cases.append((n, lambda t=top, r=rle, n=n: B.decodes_like(sixteen_bit(n.replace(" ", "_") + ".tga", t, r), "Pillow", 7)))
B.main(cases)
