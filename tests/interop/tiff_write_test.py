"""TIFF writing against independent tools: every writer's output is listed by
tiffinfo, copied by tiffcp, and decoded by Pillow to the same pixels; raw
Group 3 output decodes with g3topbm, raw Group 4 wrapped in a TIFF with
Pillow; two saves into one file give a two-page TIFF."""
import os
import struct
import subprocess
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(__file__))
import brivanta as b  # noqa: E402

b.require("tiffinfo", "tiffcp", "g3topbm")
path = b.tmp


page, rgb = b.test_page, lambda: b.test_rgb(83, 57)


SOURCES = {
    "1": page(),
    "4": rgb().quantize(16),
    "8g": rgb().convert("L"),
    "8": rgb().quantize(200),
    "24": rgb(),
}
for key, im in SOURCES.items():
    im.save(path("src_%s.bmp" % key))

# Types and the sources they accept; the fax types code index 0 as white.
TYPES = {0: "1 4 8g 8 24", 7: "1", 8: "1", 9: "1 4 8g 8 24", 10: "1", 16: "1 4 8g 8 24"}
FAX = {7: 2, 8: 3, 10: 4}


def save(src, dst, type_code):
    if os.path.exists(dst):
        os.remove(dst)
    rc = b.convert(src, dst, type_code)
    assert rc == 0, "save %s as %d gave %d" % (src, type_code, rc)


def tags(file):
    return b.run(["tiffinfo", file]).decode(errors="replace")


def case_every_writer_decodes_in_pillow_and_libtiff():
    for type_code, keys in TYPES.items():
        for key in keys.split():
            src, out = path("src_%s.bmp" % key), path("t%d_%s.tif" % (type_code, key))
            save(src, out, type_code)
            info = tags(out)
            for needed in ("Image Width", "Bits/Sample", "Compression Scheme", "Photometric", "Resolution",
                           "DateTime", "Artist", "Rows/Strip", "Planar Configuration"):
                assert needed in info, "%s: tiffinfo lacks %s" % (out, needed)
            r = subprocess.run(["tiffcp", out, path("copy.tif")], capture_output=True)
            assert r.returncode == 0, "tiffcp %s: %s" % (out, r.stderr[:300])
            assert b"rror" not in r.stderr, "tiffcp %s: %s" % (out, r.stderr[:300])
            want = np.asarray(SOURCES[key].convert("RGB"))
            if type_code in FAX:  # written white-is-zero: index 1 (white in the source) shows black
                want = 255 - want
            b.assert_same(b.pillow_rgb(out), want, "Pillow on type %d %s" % (type_code, key))
            b.assert_same(b.pillow_rgb(path("copy.tif")), want, "tiffcp copy of type %d %s" % (type_code, key))


def case_fax_types_refuse_deeper_pictures():
    for type_code in (7, 8, 10, 34):
        for key in ("4", "8", "24"):
            rc = b.convert(path("src_%s.bmp" % key), path("refused.tif"), type_code)
            assert rc == -21, "type %d on %s gave %d" % (type_code, key, rc)


def case_raw_group3_decodes_with_g3topbm():
    out = path("raw.g3")
    save(path("src_1.bmp"), out, 33)
    got = b.tool_rgb(["g3topbm", out])
    want = np.asarray(SOURCES["1"].convert("RGB"))
    assert got.shape[0] == want.shape[0], "g3topbm rows %d" % got.shape[0]
    b.assert_same(got[:, : want.shape[1]], want, "g3topbm")


def case_raw_group4_wrapped_decodes_in_libtiff():
    out = path("raw.g4")
    save(path("src_1.bmp"), out, 34)
    data = open(out, "rb").read()
    w, h = SOURCES["1"].size
    # Eight entries: the data follows the 2 + 8 * 12 + 4 bytes of the IFD.
    entries = [(256, 3, 1, w), (257, 3, 1, h), (258, 3, 1, 1), (259, 3, 1, 4), (262, 3, 1, 0),
               (273, 4, 1, 8 + 102), (278, 4, 1, h), (279, 4, 1, len(data))]
    ifd = struct.pack("<H", len(entries)) + b"".join(struct.pack("<HHII", *e) for e in entries) + b"\0" * 4
    wrapped = path("wrapped.tif")
    open(wrapped, "wb").write(b"II*\0" + struct.pack("<I", 8) + ifd + data)
    # Raw fax rows are coded with the source's white as white.
    want = np.asarray(SOURCES["1"].convert("RGB"))
    b.assert_same(b.pillow_rgb(wrapped), want, "Pillow on wrapped Group 4")
    ours = b.load(wrapped)
    assert not isinstance(ours, int), "our reader gave %d" % ours
    b.assert_same(ours.rgb(), want, "our reader on wrapped Group 4")


def case_two_saves_give_two_pages():
    out = path("two.tif")
    save(path("src_1.bmp"), out, 10)
    assert b.convert(path("src_24.bmp"), out, 9) == 0
    assert tags(out).count("TIFF Directory") == 2
    info = b.run([b.TOOL, "info", out]).decode()
    assert "pages=2" in info, info
    b.assert_same(b.pillow_rgb(out, 1), np.asarray(SOURCES["24"]), "second page in Pillow")
    with open(out, "r+b") as f:  # a big-endian file is overwritten, not appended to
        f.write(b"MM\0*")
    assert b.convert(path("src_8.bmp"), out, 16) == 0
    assert tags(out).count("TIFF Directory") == 1
    b.assert_same(b.pillow_rgb(out), np.asarray(SOURCES["8"].convert("RGB")), "overwritten file")


b.main([(n, f) for n, f in sorted(globals().items()) if n.startswith("case_")])
