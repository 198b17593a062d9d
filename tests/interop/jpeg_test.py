"""JPEG interop: baseline files from cjpeg and ImageMagick decode close to
djpeg -nosmooth -dct int; progressive and arithmetic files are refused with
-7; our output decodes in djpeg and Pillow close to its source."""
import ctypes
import os
import struct

import numpy as np

import brivanta as b

b.require("cjpeg", "djpeg", "convert")
from PIL import Image  # noqa: E402

# Measured on these pictures: the fixed-point transforms and truncated
# colour tables keep our decode at 41-49 dB of djpeg's integer decode.
DECODE_FLOOR_COLOUR = 38.0
DECODE_FLOOR_GREY = 44.0
# Our encoder through djpeg and Pillow, against the source picture.
ENCODE_FLOOR = {25: 29.0, 75: 33.5, 95: 36.5}
ENCODE_FLOOR_GREY = {25: 34.0, 75: 40.0, 95: 42.0}

path, psnr = b.tmp, b.psnr


def djpeg_rgb(f):
    return b.tool_rgb(["djpeg", "-nosmooth", "-dct", "int", "-pnm", f])


def make_sources():
    b.run("convert -size 317x213 -seed 11 plasma:fractal -blur 0x1 -depth 8 %s" % path("src.ppm"))
    b.run("convert -size 1000x15 -seed 3 plasma:fractal -depth 8 %s" % path("wide.ppm"))
    b.run("convert -size 9x9 xc:orange %s" % path("tiny.ppm"))


def tool_cases():
    src, wide, tiny = path("src.ppm"), path("wide.ppm"), path("tiny.ppm")
    return [
        ("cjpeg 4:2:0", "cjpeg -quality 75 %s" % src),
        ("cjpeg 4:2:2", "cjpeg -sample 2x1 %s" % src),
        ("cjpeg 4:4:4", "cjpeg -quality 92 -sample 1x1 %s" % src),
        ("cjpeg grey", "cjpeg -grayscale %s" % src),
        ("cjpeg restart 1 row", "cjpeg -restart 1 %s" % src),
        ("cjpeg restart 3 blocks", "cjpeg -restart 3B -sample 1x1 %s" % src),
        ("cjpeg wide strip", "cjpeg -quality 60 %s" % wide),
        ("cjpeg 9x9", "cjpeg %s" % tiny),
        ("cjpeg 12-bit quantisers", "cjpeg -quality 3 -sample 1x1 %s" % src),
        ("ImageMagick 4:2:0 72 dpi", "convert %s -quality 85 -density 72 -units PixelsPerInch jpg:-" % src),
        ("ImageMagick 4:2:2 300 dpi",
         "convert %s -quality 70 -sampling-factor 2x1 -density 300 -units PixelsPerInch jpg:-" % src),
        ("ImageMagick grey", "convert %s -colorspace gray -quality 80 jpg:-" % src),
    ]


def check_tool_file(name, cmd):
    def run():
        f = path(name.replace(" ", "_") + ".jpg")
        with open(f, "wb") as out:
            out.write(b.run(cmd))
        pic = b.loaded(f)
        ref = djpeg_rgb(f)
        floor = DECODE_FLOOR_GREY if pic.bits == 8 else DECODE_FLOOR_COLOUR
        value = psnr(ref, pic.rgb())
        print("     %s: %.2f dB against djpeg" % (name, value))
        assert value >= floor, "%.2f dB < %.1f" % (value, floor)
        if "dpi" in name:
            buf = ctypes.create_string_buffer(40)
            assert b.LIB.IMGLOW_get_fileinfo(f.encode(), buf) == 0
            want = 72 if "72" in name else 300
            assert struct.unpack_from("<ii", buf.raw, 24) == (want, want), buf.raw[24:32]
    return run


def check_refused(name, cmd):
    def run():
        f = path(name + ".jpg")
        with open(f, "wb") as out:
            out.write(b.run(cmd))
        assert b.load(f) == -7, b.load(f)
    return run


def garbage_before_soi():
    # The JPEG decoder searches 1,000 bytes for the SOI: reachable from a
    # file through JPEG-in-Targa, whose ID field comes first.
    jpg = b.run("cjpeg -quality 80 %s" % path("src.ppm"))
    header = bytes([60, 0, 0x9C]) + bytes(15)
    f = path("wrapped.tga")
    with open(f, "wb") as out:
        out.write(header + bytes((i * 37 + 11) & 0x7F for i in range(60)) + jpg)
    g = path("plain.jpg")
    with open(g, "wb") as out:
        out.write(jpg)
    a, c = b.load(f), b.load(g)
    assert not isinstance(a, int) and not isinstance(c, int), (a, c)
    assert np.array_equal(a.rgb(), c.rgb())


def our_output(quality, grey):
    def run():
        # Grey images are coded by palette index, so the grey source is one
        # whose palette is the identity ramp: our own decode of a grey file.
        src = path("src_grey.jpg" if grey else "src.bmp")
        if not os.path.exists(src):
            if grey:
                with open(src, "wb") as out:
                    out.write(b.run("cjpeg -grayscale -quality 100 %s" % path("src.ppm")))
            else:
                b.run("convert %s BMP3:%s" % (path("src.ppm"), src))
        b.LIB.IMGLOW_set_comp_quality(quality)
        dst = path("ours_%d_%d.jpg" % (quality, grey))
        rc = b.convert(src, dst, 13)
        b.LIB.IMGLOW_set_comp_quality(75)
        assert rc == 0, rc
        ref = b.load(src).rgb() if grey else b.pillow_rgb(src)
        floor = (ENCODE_FLOOR_GREY if grey else ENCODE_FLOOR)[quality]
        for tool, got in (("djpeg", djpeg_rgb(dst)), ("Pillow", b.pillow_rgb(dst))):
            value = psnr(ref, got)
            print("     q%d %s via %s: %.2f dB" % (quality, "grey" if grey else "colour", tool, value))
            assert value >= floor, "%s: %.2f dB < %.1f" % (tool, value, floor)
        with Image.open(dst) as im:
            assert im.mode == ("L" if grey else "RGB"), im.mode
    return run


make_sources()
cases = [(n, check_tool_file(n, c)) for n, c in tool_cases()]
cases += [
    ("progressive refused", check_refused("progressive", "cjpeg -progressive %s" % path("src.ppm"))),
    ("arithmetic refused", check_refused("arithmetic", "cjpeg -arithmetic %s" % path("src.ppm"))),
    ("ImageMagick progressive refused",
     check_refused("improgressive", "convert %s -interlace JPEG jpg:-" % path("src.ppm"))),
    ("garbage before the SOI", garbage_before_soi),
]
cases += [("our q%d %s" % (q, "grey" if g else "colour"), our_output(q, g)) for q in (25, 75, 95) for g in (False, True)]
b.main(cases)
