"""TIFF writing against libtiff's tools: two saves into one file give a
two-page TIFF, and an LZW strip ends where its codes do.  (Every writer's
pixels and tags are checked by the writer matrix.)"""
import numpy as np

import brivanta as B

B.require("tiffinfo", "tiffcp")
SOURCES = {"1": B.test_page(), "8": B.test_rgb(83, 57).quantize(200), "24": B.test_rgb(83, 57)}
for key, im in SOURCES.items():
    im.save(B.tmp("src_%s.bmp" % key))


def tags(file):
    return B.run(["tiffinfo", file]).decode(errors="replace")


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


def lzw_strip_ends_with_its_end_code():
    # 45 bytes of noise take fewer than 254 codes, so every code is 9 bits:
    # Clear first, End last, and not a byte more than the codes need.
    B.Image.fromarray(np.random.default_rng(5).integers(0, 256, (3, 5, 3), np.uint8)).save(B.tmp("tiny.bmp"))
    out = B.tmp("tiny_lzw.tif")
    assert not isinstance(B.save(B.tmp("tiny.bmp"), out, 9), int)
    with B.Image.open(out) as im:
        at, n = im.tag_v2[273][0], im.tag_v2[279][0]
    strip = int.from_bytes(open(out, "rb").read()[at:at + n], "big")
    codes = [(strip >> (8 * n - 9 * (i + 1))) & 511 for i in range(8 * n // 9)]
    assert codes[0] == 256 and 257 in codes and n == (9 * (codes.index(257) + 1) + 7) // 8, (n, codes)


CASES = [("two saves give two pages", two_saves_give_two_pages),
          ("an LZW strip ends with its end code", lzw_strip_ends_with_its_end_code)]
B.main(CASES)
