"""JPEG inside TIFF against libtiff: the stored old-style compression 6
files of tests/data/tiff_jpeg (tables in tags 519-521, strips of entropy-coded
data; the unit tests hold their decode to our decode of the baseline file
each was taken from) load close to libtiff's decode through Pillow, or through
tiffcp for grey, which Pillow does not map.  (Type 40 output is checked in
writers_test.py.)"""
import os

import brivanta as b

b.require("tiffcp")
DATA = os.path.join(b.FIXTURES, "..", "data", "tiff_jpeg")
# Measured: old-style files at 42-49 dB of libtiff's decode.
OLD_STYLE_FLOOR = 40.0
# libtiff reads the strips as one stream with its own restart markers
# between them, so it takes only strips of one restart segment each.
FILES = ["c420_whole.tif", "c422_whole.tif", "c444_whole_mm.tif", "crestart_whole_mm.tif", "rows420_16_rows.tif",
         "rows444_whole.tif", "rowsgrey_8_rows.tif"]


def libtiff_decode(f):
    for src in (f, b.tmp(os.path.basename(f))):
        if src != f:
            b.run(["tiffcp", "-c", "none", f, src])
        try:
            return b.pillow_rgb(src)
        except Exception:
            pass
    raise AssertionError("libtiff refused " + f)


def case(name):
    path = os.path.join(DATA, name)
    return lambda: b.compare(b.loaded(path).rgb(), libtiff_decode(path), name + " against libtiff", floor=OLD_STYLE_FLOOR)


b.main([(n, case(n)) for n in FILES])
