"""PICT interop: pictures ImageMagick writes (PackBitsRect with its colour
table at any colour count, DirectBitsRect planes with and without alpha,
rows short enough to go unpacked) load here as ImageMagick reads them."""
import brivanta as B

B.require("convert")
PLASMA = "convert -size {}x{} -seed 3 plasma:fractal"

# name, width, height, ImageMagick options
SOURCES = [
    ("two colours", 61, 17, "-monochrome"),
    ("twelve colours", 40, 30, "-colors 12"),
    ("200 colours, wide rows", 300, 20, "-colors 200"),
    ("true colour", 83, 57, ""),
    ("true colour with alpha", 33, 9, "-alpha set -channel A -evaluate set 40% +channel"),
    ("one pixel wide", 1, 5, "-colors 3"),
    ("true colour, rows under 8 bytes", 1, 4, ""),
]


def loads_like_magick(name, w, h, options):
    def check():
        out = B.make(PLASMA.format(w, h) + " %s PICT:{out}" % options, name.replace(" ", "_").replace(",", "") + ".pct")
        B.decodes_like(out, "ImageMagick")
    return check


CASES = [(s[0], loads_like_magick(*s)) for s in SOURCES]

if __name__ == "__main__":
    B.main(CASES)
