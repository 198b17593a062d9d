"""PCX and DCX interop: files made by ImageMagick and netpbm decode here as
Pillow (or pcxtoppm, for layouts Pillow lacks) decodes them; our PCX output
decodes identically in Pillow and pcxtoppm; DCX files of several pages made
by repeated saves read page by page here and in ImageMagick.  Pillow is not
used for DCX pages: it reads 8-bit pages from the wrong offsets and takes
their palette from the end of the file, which belongs to the last page."""
import os

import numpy as np

import brivanta as B

B.require("convert", "ppmtopcx", "pcxtoppm", "pnmquant", "pbmmake")
PLASMA = "-size 67x43 plasma:fractal"
path, shell, pnm_rgb = B.tmp, B.make, B.image_rgb


def pcx_fields(p):
    with open(p, "rb") as f:
        h = f.read(128)
    return {"version": h[1], "bpp": h[3], "planes": h[65]}


# name, command, expected (bits per plane, planes), the reference decoder
SOURCES = [
    ("magick 1-bit", "convert -size 41x13 xc:white -fill black -draw 'line 0,0 40,12' -monochrome -colors 2 "
                     "-type palettematte pcx:-", (1, 1), "pillow"),
    ("magick 8-bit", "convert %s -colors 200 pcx:-" % PLASMA, (8, 1), "pillow"),
    ("magick 24-bit planar", "convert %s -type truecolor pcx:-" % PLASMA, (8, 3), "pillow"),
    ("netpbm 1-bit", "pbmmake -g 37 11 | ppmtopcx 2>/dev/null", (1, 1), "pillow"),
    ("netpbm 4-bit planar", "convert %s ppm:- | pnmquant 16 2>/dev/null | ppmtopcx 2>/dev/null" % PLASMA, (1, 4), "pillow"),
    ("netpbm 3 planes of 1 bit", "convert %s ppm:- | pnmquant 8 2>/dev/null | ppmtopcx -planes=3 2>/dev/null" % PLASMA,
     (1, 3), "pcxtoppm"),
    ("netpbm 4-bit packed", "convert %s ppm:- | pnmquant 16 2>/dev/null | ppmtopcx -packed 2>/dev/null" % PLASMA, (4, 1),
     "pcxtoppm"),
    ("netpbm 8-bit", "convert %s ppm:- | pnmquant 200 2>/dev/null | ppmtopcx 2>/dev/null" % PLASMA, (8, 1), "pillow"),
    ("netpbm 24-bit planar", "convert %s ppm:- | ppmtopcx -24bit 2>/dev/null" % PLASMA, (8, 3), "pillow"),
]


def decodes_like_reference(name, cmd, layout, reference):
    def check():
        p = shell(cmd, name.replace(" ", "_") + ".pcx")
        f = pcx_fields(p)
        assert (f["bpp"], f["planes"]) == layout, "%s made %s" % (name, f)
        ours = B.loaded(p)
        want = B.pillow_rgb(p) if reference == "pillow" else pnm_rgb(B.run(["pcxtoppm", p]))
        B.assert_same(ours.rgb(), want, name)
    return check


def written_sources():
    """Pictures of every depth the PCX writer takes, loaded from files whose
    pixels the tools agree on."""
    return [
        (1, shell("pbmmake -g 53 7 | convert pbm:- -type bilevel bmp3:-", "w1.bmp")),
        (1, shell("convert -size 9x3 xc:black -fill white -draw 'point 4,1' -type bilevel bmp3:-", "w1b.bmp")),
        (4, shell("convert -size 61x17 plasma:fractal -colors 16 gif:-", "w4.gif")),
        (4, shell("convert -size 7x5 plasma:fractal -colors 16 gif:-", "w4s.gif")),
        (8, shell("convert -size 301x77 plasma:fractal -colors 256 gif:-", "w8.gif")),
        (24, shell("convert -size 99x33 plasma:fractal -type truecolor bmp3:-", "w24.bmp")),
    ]


def our_pcx_decodes_everywhere():
    for bits, src in written_sources():
        h = B.load_handle(src)
        assert h >= 0, "load %s: %d" % (src, h)
        try:
            ours = B.picture_of(h)
            if ours.bits != bits:
                raise AssertionError("%s loaded as %d bits" % (src, ours.bits))
            out = src + ".pcx"
            assert B.LIB.IMG_save_bitmap(h, out.encode(), 2) == 0, src
        finally:
            B.LIB.IMG_delete_bitmap(h)
        want = ours.rgb()
        B.assert_same(B.pillow_rgb(out), want, "%d bits in Pillow" % bits)
        B.assert_same(pnm_rgb(B.run(["pcxtoppm", out])), want, "%d bits in pcxtoppm" % bits)
        B.assert_same(B.load(out).rgb(), want, "%d bits read back" % bits)


def magick_view(bits):
    """How ImageMagick's reading of a PCX of this depth relates to Pillow's,
    learnt from netpbm's file of that depth: as it is, inverted, or not at
    all.  (ImageMagick 6 reads a set bit of a 1-bit PCX as black whatever the
    palette says, where Pillow and pcxtoppm read white, and it shows 4-plane
    files as black.)"""
    ref = {1: "pbmmake -g 13 5 | ppmtopcx 2>/dev/null",
           4: "convert -size 13x5 plasma:fractal ppm:- | pnmquant 16 2>/dev/null | ppmtopcx 2>/dev/null"}.get(bits)
    if ref is None:
        return lambda a: a
    p = shell(ref, "ref%d.pcx" % bits)
    magick, pillow = pnm_rgb(B.run(["convert", p, "ppm:-"])), B.pillow_rgb(p)
    for view in (lambda a: a, lambda a: 255 - a):
        if (view(magick) == pillow).all():
            return view
    print("note: ImageMagick misreads %d-bit PCX files, not compared there" % bits)
    return None


def repeated_saves_make_pages():
    name = path("pages.dcx")
    sources = [shell("convert -size 40x30 plasma:fractal -colors 256 gif:-", "p0.gif"),
               shell("pbmmake -g 17 9 | convert pbm:- -type bilevel bmp3:-", "p1.bmp"),
               shell("convert -size 23x19 plasma:fractal -type truecolor bmp3:-", "p2.bmp"),
               shell("convert -size 31x7 plasma:fractal -colors 16 gif:-", "p3.gif"),
               shell("convert -size 40x30 gradient:red-blue -colors 200 gif:-", "p4.gif")]
    wants = []
    for src in sources:
        h = B.load_handle(src)
        try:
            wants.append(B.picture_of(h))
            assert B.LIB.IMG_save_bitmap(h, name.encode(), -1) == 0, src
        finally:
            B.LIB.IMG_delete_bitmap(h)
    assert B.LIB.IMGLOW_get_pages(name.encode()) == len(sources)
    for i, want in enumerate(wants):
        B.assert_same(B.load(name, page=i).rgb(), want.rgb(), "page %d here" % i)
        view = magick_view(want.bits)
        if view:
            magick = pnm_rgb(B.run(["convert", "%s[%d]" % (name, i), "ppm:-"]))
            B.assert_same(view(magick), want.rgb(), "page %d in ImageMagick" % i)
    assert B.load(name, len(sources)) == -11, "one past the last page"


def imagemagick_dcx_reads_page_by_page():
    name = path("magick.dcx")
    B.run("convert -size 30x20 plasma:fractal -type truecolor -size 25x15 gradient:red-blue -colors 100 "
          "-size 19x9 plasma:fractal -colors 150 " + name)
    assert B.LIB.IMGLOW_get_pages(name.encode()) == 3
    for i in range(3):
        want = pnm_rgb(B.run(["convert", "%s[%d]" % (name, i), "ppm:-"]))
        B.assert_same(B.load(name, page=i).rgb(), want, "ImageMagick page %d" % i)


CASES = [("decodes like its reference: " + s[0], decodes_like_reference(*s)) for s in SOURCES]
CASES += [
    ("our PCX decodes in Pillow and pcxtoppm", our_pcx_decodes_everywhere),
    ("repeated DCX saves read page by page here and in ImageMagick", repeated_saves_make_pages),
    ("ImageMagick DCX reads page by page", imagemagick_dcx_reads_page_by_page),
]

if __name__ == "__main__":
    # DCX saves use the library's fixed temporary file name: keep ours apart.
    os.environ["TMPDIR"] = os.path.dirname(path("x"))
    B.main(CASES)
