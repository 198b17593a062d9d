"""PCX and DCX interop: files made by ImageMagick and netpbm decode here as
Pillow (or pcxtoppm, for layouts Pillow lacks) decodes them; DCX files of
several pages made by repeated saves read page by page here and, each page
cut out, in Pillow; ImageMagick's DCX files read page by page here."""
import os

import brivanta as B

B.require("convert", "ppmtopcx", "pcxtoppm", "pnmquant", "pbmmake")
PLASMA = "convert -size 67x43 plasma:fractal"

# name, command, expected (bits per plane, planes), the reference decoder
SOURCES = [
    ("magick 1-bit", "convert -size 41x13 xc:white -fill black -draw 'line 0,0 40,12' -monochrome -colors 2 "
                     "-type palettematte pcx:-", (1, 1), "Pillow"),
    ("magick 8-bit", PLASMA + " -colors 200 pcx:-", (8, 1), "Pillow"),
    ("magick 24-bit planar", PLASMA + " -type truecolor pcx:-", (8, 3), "Pillow"),
    ("netpbm 1-bit", "pbmmake -g 37 11 | ppmtopcx 2>/dev/null", (1, 1), "Pillow"),
    ("netpbm 4-bit planar", PLASMA + " ppm:- | pnmquant 16 2>/dev/null | ppmtopcx 2>/dev/null", (1, 4), "Pillow"),
    ("netpbm 3 planes of 1 bit", PLASMA + " ppm:- | pnmquant 8 2>/dev/null | ppmtopcx -planes=3 2>/dev/null",
     (1, 3), "pcxtoppm"),
    ("netpbm 4-bit packed", PLASMA + " ppm:- | pnmquant 16 2>/dev/null | ppmtopcx -packed 2>/dev/null", (4, 1),
     "pcxtoppm"),
    ("netpbm 8-bit", PLASMA + " ppm:- | pnmquant 200 2>/dev/null | ppmtopcx 2>/dev/null", (8, 1), "Pillow"),
    ("netpbm 24-bit planar", PLASMA + " ppm:- | ppmtopcx -24bit 2>/dev/null", (8, 3), "Pillow"),
]


def decodes_like_reference(name, cmd, layout, reference):
    def check():
        p = B.make(cmd, name.replace(" ", "_") + ".pcx")
        with open(p, "rb") as f:
            h = f.read(128)
        assert (h[3], h[65]) == layout, "%s made %d bits in %d planes" % (name, h[3], h[65])
        B.decodes_like(p, reference)
    return check


def repeated_saves_make_pages():
    name = B.tmp("pages.dcx")
    wants = []
    # Pages of every depth for the DCX writer.
    for cmd, src in [("pbmmake -g 53 7 | convert pbm:- -type bilevel bmp3:-", "w1.bmp"),
                     ("convert -size 61x17 plasma:fractal -colors 16 gif:-", "w4.gif"),
                     ("convert -size 301x77 plasma:fractal -colors 256 gif:-", "w8.gif"),
                     ("convert -size 99x33 plasma:fractal -type truecolor bmp3:-", "w24.bmp"),
                     ("convert -size 40x30 gradient:red-blue -colors 200 gif:-", "p4.gif")]:
        h = B.LIB.IMG_decompress_bitmap(B.make(cmd, src).encode())
        try:
            wants.append(B.picture_of(h))
            assert B.LIB.IMG_save_bitmap(h, name.encode(), -1) == 0, src
        finally:
            B.LIB.IMG_delete_bitmap(h)
    assert B.LIB.IMGLOW_get_pages(name.encode()) == len(wants)
    for i, want in enumerate(wants):
        B.compare(B.loaded(name, i).rgb(), want.rgb(), "page %d here" % i)
        B.compare(B.dcx_page_rgb(name, i), want.rgb(), "page %d in Pillow" % i)
    assert B.load(name, len(wants)) == -11, "one past the last page"


def imagemagick_dcx_reads_page_by_page():
    name = B.tmp("magick.dcx")
    B.run("convert -size 30x20 plasma:fractal -type truecolor -size 25x15 gradient:red-blue -colors 100 "
          "-size 19x9 plasma:fractal -colors 150 " + name)
    assert B.LIB.IMGLOW_get_pages(name.encode()) == 3
    for i in range(3):
        B.decodes_like(name, "ImageMagick", page=i)


CASES = [("decodes like its reference: " + s[0], decodes_like_reference(*s)) for s in SOURCES]
CASES += [
    ("repeated DCX saves read page by page here and in ImageMagick", repeated_saves_make_pages),
    ("ImageMagick DCX reads page by page", imagemagick_dcx_reads_page_by_page),
]

if __name__ == "__main__":
    # DCX saves use the library's fixed temporary file name: keep ours apart.
    os.environ["TMPDIR"] = os.path.dirname(B.tmp("x"))
    B.main(CASES)
