"""TIFF writing against independent tools: every writer's output is listed by
tiffinfo, copied by tiffcp, and decoded by Pillow to the same pixels; raw
Group 3 output decodes with g3topbm, raw Group 4 wrapped in a TIFF with
Pillow; two saves into one file give a two-page TIFF."""
import struct
import subprocess

import numpy as np

import brivanta as B

B.require("tiffinfo", "tiffcp", "g3topbm")
SOURCES = {"1": B.test_page(), "4": B.test_rgb(83, 57).quantize(16), "8g": B.test_rgb(83, 57).convert("L"),
           "8": B.test_rgb(83, 57).quantize(200), "24": B.test_rgb(83, 57)}
for key, im in SOURCES.items():
    im.save(B.tmp("src_%s.bmp" % key))
# Types and the sources they accept; the fax types code index 0 as white.
TYPES = {0: "1 4 8g 8 24", 7: "1", 8: "1", 9: "1 4 8g 8 24", 10: "1", 16: "1 4 8g 8 24"}
FAX = {7, 8, 10}


def tags(file):
    return B.run(["tiffinfo", file]).decode(errors="replace")


def writer_case(type_code, key):
    def check():
        out = B.tmp("t%d_%s.tif" % (type_code, key))
        # Written white-is-zero: index 1 (white in the source) shows black.
        B.writes_like(B.tmp("src_%s.bmp" % key), out, type_code, ["Pillow"],
                      view=(lambda a: 255 - a) if type_code in FAX else (lambda a: a))
        info = tags(out)
        for needed in ("Image Width", "Bits/Sample", "Compression Scheme", "Photometric", "Resolution",
                       "DateTime", "Artist", "Rows/Strip", "Planar Configuration"):
            assert needed in info, "tiffinfo lacks " + needed
        r = subprocess.run(["tiffcp", out, B.tmp("copy.tif")], capture_output=True)
        assert r.returncode == 0 and b"rror" not in r.stderr, "tiffcp: %s" % r.stderr[:300]
        B.compare(B.pillow_rgb(B.tmp("copy.tif")), B.pillow_rgb(out), "tiffcp copy")
    return check


def raw_fax():
    want = np.asarray(SOURCES["1"].convert("RGB"))
    g3 = B.tmp("raw.g3")
    assert not isinstance(B.save(B.tmp("src_1.bmp"), g3, 33), int)
    got = B.REFERENCES["g3topbm"](g3)
    assert got.shape[0] == want.shape[0], "g3topbm rows %d" % got.shape[0]
    B.compare(got[:, : want.shape[1]], want, "g3topbm")
    # Raw Group 4 rows (the source's white as white) wrapped in a TIFF of
    # eight entries: the data follows the 2 + 8 * 12 + 4 bytes of the IFD.
    g4 = B.tmp("raw.g4")
    assert not isinstance(B.save(B.tmp("src_1.bmp"), g4, 34), int)
    data = open(g4, "rb").read()
    w, h = SOURCES["1"].size
    entries = [(256, 3, 1, w), (257, 3, 1, h), (258, 3, 1, 1), (259, 3, 1, 4), (262, 3, 1, 0),
               (273, 4, 1, 8 + 102), (278, 4, 1, h), (279, 4, 1, len(data))]
    ifd = struct.pack("<H", len(entries)) + b"".join(struct.pack("<HHII", *e) for e in entries) + b"\0" * 4
    with open(B.tmp("wrapped.tif"), "wb") as f:
        f.write(b"II*\0" + struct.pack("<I", 8) + ifd + data)
    B.compare(B.pillow_rgb(B.tmp("wrapped.tif")), want, "Pillow on wrapped Group 4")
    B.compare(B.loaded(B.tmp("wrapped.tif")).rgb(), want, "our reader on wrapped Group 4")


def two_saves_give_two_pages():
    out = B.tmp("two.tif")
    assert not isinstance(B.save(B.tmp("src_1.bmp"), out, 10), int)
    h = B.LIB.IMG_decompress_bitmap(B.tmp("src_24.bmp").encode())
    assert B.LIB.IMG_save_bitmap(h, out.encode(), 9) == 0
    B.LIB.IMG_delete_bitmap(h)
    assert tags(out).count("TIFF Directory") == 2
    assert "pages=2" in B.run([B.TOOL, "info", out]).decode()
    B.compare(B.pillow_rgb(out, 1), np.asarray(SOURCES["24"]), "second page in Pillow")
    with open(out, "r+b") as f:  # a big-endian file is overwritten, not appended to
        f.write(b"MM\0*")
    h = B.LIB.IMG_decompress_bitmap(B.tmp("src_8.bmp").encode())
    assert B.LIB.IMG_save_bitmap(h, out.encode(), 16) == 0
    B.LIB.IMG_delete_bitmap(h)
    assert tags(out).count("TIFF Directory") == 1
    B.compare(B.pillow_rgb(out), np.asarray(SOURCES["8"].convert("RGB")), "overwritten file")


CASES = [("type %d from %s" % (t, k), writer_case(t, k)) for t, keys in TYPES.items() for k in keys.split()]
CASES += [("raw Group 3 in g3topbm, raw Group 4 in Pillow", raw_fax), ("two saves give two pages", two_saves_give_two_pages)]
B.main(CASES)
