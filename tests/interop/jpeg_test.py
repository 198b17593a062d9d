"""JPEG interop: baseline files from cjpeg and ImageMagick decode close to
djpeg -nosmooth -dct int; progressive and arithmetic files are refused with
-7; our default tables are the base tables cjpeg writes.  (Our output in
djpeg and Pillow is checked in writers_test.py.)"""
import ctypes
import struct

import numpy as np

import brivanta as B

B.require("cjpeg", "djpeg", "convert")
path = B.tmp

# Measured on these pictures: the fixed-point transforms and truncated
# colour tables keep our decode at 41-49 dB of djpeg's integer decode.
DECODE_FLOOR_COLOUR, DECODE_FLOOR_GREY = 38.0, 44.0

B.run("convert -size 317x213 -seed 11 plasma:fractal -blur 0x1 -depth 8 %s" % path("src.ppm"))
B.run("convert -size 1000x15 -seed 3 plasma:fractal -depth 8 %s" % path("wide.ppm"))
B.run("convert -size 9x9 xc:orange %s" % path("tiny.ppm"))
SRC = path("src.ppm")

# (name, command writing the file on stdout, dots per inch it must report)
TOOL_FILES = [
    ("cjpeg 4:2:0", "cjpeg -quality 75 " + SRC, None),
    ("cjpeg 4:2:2", "cjpeg -sample 2x1 " + SRC, None),
    ("cjpeg 4:4:4", "cjpeg -quality 92 -sample 1x1 " + SRC, None),
    ("cjpeg grey", "cjpeg -grayscale " + SRC, None),
    ("cjpeg restart 1 row", "cjpeg -restart 1 " + SRC, None),
    ("cjpeg restart 3 blocks", "cjpeg -restart 3B -sample 1x1 " + SRC, None),
    ("cjpeg wide strip", "cjpeg -quality 60 " + path("wide.ppm"), None),
    ("cjpeg 9x9", "cjpeg " + path("tiny.ppm"), None),
    ("cjpeg 12-bit quantisers", "cjpeg -quality 3 -sample 1x1 " + SRC, None),
    ("ImageMagick 4:2:0 72 dpi", "convert %s -quality 85 -density 72 -units PixelsPerInch jpg:-" % SRC, 72),
    ("ImageMagick 4:2:2 300 dpi",
     "convert %s -quality 70 -sampling-factor 2x1 -density 300 -units PixelsPerInch jpg:-" % SRC, 300),
    ("ImageMagick grey", "convert %s -colorspace gray -quality 80 jpg:-" % SRC, None),
]


def check_tool_file(name, cmd, dpi):
    def run():
        f = B.make(cmd, name.replace(" ", "_") + ".jpg")
        grey = B.loaded(f).bits == 8
        B.decodes_like(f, "djpeg", floor=DECODE_FLOOR_GREY if grey else DECODE_FLOOR_COLOUR)
        if dpi:
            buf = ctypes.create_string_buffer(40)
            assert B.LIB.IMGLOW_get_fileinfo(f.encode(), buf) == 0
            assert struct.unpack_from("<ii", buf.raw, 24) == (dpi, dpi), buf.raw[24:32]
    return run


def check_refused(name, cmd):
    def run():
        f = B.make(cmd, name.replace(" ", "_") + ".jpg")
        assert B.load(f) == -7, B.load(f)
    return run


def garbage_before_soi():
    # The JPEG decoder searches 1,000 bytes for the SOI: reachable from a
    # file through JPEG-in-Targa, whose ID field comes first.
    jpg = B.run("cjpeg -quality 80 " + SRC)
    with open(path("wrapped.tga"), "wb") as out:
        out.write(bytes([60, 0, 0x9C]) + bytes(15) + bytes((i * 37 + 11) & 0x7F for i in range(60)) + jpg)
    with open(path("plain.jpg"), "wb") as out:
        out.write(jpg)
    assert np.array_equal(B.loaded(path("wrapped.tga")).rgb(), B.loaded(path("plain.jpg")).rgb())


def dqt_tables(data):
    """Quantisation tables by number, as the file stores them (zigzag order)."""
    tables, i = {}, 2
    while i + 4 <= len(data) and data[i] == 0xFF and data[i + 1] != 0xDA:
        n = struct.unpack_from(">H", data, i + 2)[0]
        if data[i + 1] == 0xDB:
            for j in range(i + 4, i + 2 + n, 65):
                tables[data[j] & 15] = data[j + 1:j + 65]
        i += 2 + n
    return tables


def default_quality_is_the_base_tables():
    # A fresh process saves with the base tables, which cjpeg writes unscaled
    # at quality 50, but for our chrominance table's two own entries (46, 66 in
    # the first row: zigzag places 6 and 14).
    src, dst = path("default.bmp"), path("default.jpg")
    B.make("convert %s BMP3:-" % SRC, src)
    B.run([B.TOOL, "convert", src, dst])
    ours, theirs = dqt_tables(open(dst, "rb").read()), dqt_tables(B.run("cjpeg -quality 50 " + SRC))
    theirs[1] = bytearray(theirs[1])
    theirs[1][6], theirs[1][14] = 46, 66
    assert ours == {0: theirs[0], 1: bytes(theirs[1])}, ours


cases = [(n, check_tool_file(n, c, d)) for n, c, d in TOOL_FILES]
cases += [
    ("progressive refused", check_refused("progressive", "cjpeg -progressive " + SRC)),
    ("arithmetic refused", check_refused("arithmetic", "cjpeg -arithmetic " + SRC)),
    ("ImageMagick progressive refused", check_refused("improgressive", "convert %s -interlace JPEG jpg:-" % SRC)),
    ("garbage before the SOI", garbage_before_soi),
    ("default quality is the base tables", default_quality_is_the_base_tables),
]
B.main(cases)
