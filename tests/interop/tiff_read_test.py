"""TIFF reading against independent tools: files written by tiffcp, fax2tiff,
pbmtog3, ImageMagick, netpbm and Pillow decode as Pillow or libtiff's
tiff2rgba decode them.  Each case names the command that made its file."""
import os
import re

import numpy as np

import brivanta as B

B.require("tiffcp", "fax2tiff", "pbmtog3", "tiff2rgba", "convert", "pnmtotiff")
# Planar loads go through a fixed-name temporary file: keep ours apart.
os.environ["TMPDIR"] = os.path.dirname(B.tmp("x"))

RGB, GRAY, PAGE = B.tmp("src.ppm"), B.tmp("src.pgm"), B.tmp("page.pbm")
B.test_rgb(61, 37).save(RGB)
B.test_rgb(61, 37).convert("L").save(GRAY)
B.test_page().save(PAGE)
SRC = {"rgb": "pnmtotiff -none -truecolor " + RGB, "gray": "pnmtotiff -none " + GRAY, "page": "pnmtotiff -none " + PAGE}


def tiffcp(src, opts):
    return "%s > {out}.src && tiffcp %s {out}.src {out}" % (SRC[src], opts)


def pil(im, **kw):
    return lambda n: im.save(B.tmp(n), **kw) or B.tmp(n)


def rgba():
    im = B.test_rgb(61, 37).convert("RGBA")
    im.putalpha(128)
    return im


# Files that must decode exactly as Pillow decodes them: (name, command or maker).
SAME_AS_PILLOW = [
    ("gray 1-bit netpbm (MinIsWhite)", SRC["page"]),
    ("gray 1-bit Pillow (MinIsBlack)", pil(B.test_page())),
    ("gray 8-bit", SRC["gray"]),
    ("palette 8-bit", pil(B.test_rgb(61, 37).quantize(200))),
    ("palette 4-bit", "convert %s -colors 16 -type Palette -depth 4 -compress none {out}" % RGB),
    ("RGB", SRC["rgb"]),
    ("RGBA drops the alpha", pil(rgba())),
    ("CMYK", pil(B.test_rgb(61, 37).convert("CMYK"))),
    ("RGB big-endian", tiffcp("rgb", "-B")),
    ("gray big-endian", tiffcp("gray", "-B")),
    ("PackBits RGB", tiffcp("rgb", "-c packbits")),
    ("PackBits bilevel, strips", tiffcp("page", "-c packbits -r 7")),
    ("LZW RGB", tiffcp("rgb", "-c lzw")),
    ("LZW RGB predictor 2", tiffcp("rgb", "-c lzw:2")),
    ("LZW gray predictor 2 MM", tiffcp("gray", "-c lzw:2 -B")),
    ("LZW several strips", tiffcp("rgb", "-c lzw -r 5")),
    ("LZW bilevel", tiffcp("page", "-c lzw")),
    ("several strips", tiffcp("rgb", "-r 3")),
    ("planar RGB", tiffcp("rgb", "-p separate")),
    ("planar RGB LZW strips", tiffcp("rgb", "-p separate -c lzw:2 -r 4")),
    ("planar RGB PackBits", tiffcp("rgb", "-p separate -c packbits")),
    ("CCITT modified Huffman (Pillow)", pil(B.test_page(), compression="tiff_ccitt")),
    ("Group 3 1-D (Pillow)", pil(B.test_page(), compression="group3")),
    ("Group 4 (Pillow)", pil(B.test_page(), compression="group4")),
    ("Group 3 1-D", tiffcp("page", "-c g3:1d")),
    ("Group 3 1-D fill bits", tiffcp("page", "-c g3:1d:fill")),
    ("Group 3 1-D fill order 2", tiffcp("page", "-c g3:1d -f lsb2msb")),
    ("Group 3 2-D", tiffcp("page", "-c g3:2d")),
    ("Group 3 2-D strips", tiffcp("page", "-c g3:2d -r 16")),
    ("Group 4", tiffcp("page", "-c g4")),
    ("Group 4 fill order 2", tiffcp("page", "-c g4 -f lsb2msb")),
    ("Group 4 strips big-endian", tiffcp("page", "-c g4 -r 10 -B")),
    ("fax2tiff from pbmtog3", "pbmtog3 %s > {out}.g3 && fax2tiff -M -X 400 -o {out} {out}.g3" % PAGE),
    ("fax2tiff strips", "pbmtog3 %s > {out}.g3 && fax2tiff -M -X 400 -r 32 -o {out} {out}.g3" % PAGE),
    ("YCbCr 2x1 (libtiff, within 6)", "convert %s -colorspace YCbCr -sampling-factor 2x1 -compress none {out}" % RGB),
]


def made(name, maker):
    leaf = re.sub(r"\W+", "_", name) + ".tif"
    return maker(leaf) if callable(maker) else B.make(maker, leaf)


def same_case(name, maker):
    if "libtiff" in name:
        return lambda: B.decodes_like(made(name, maker), "libtiff", tolerance=6)
    return lambda: B.decodes_like(made(name, maker))


# ---- Deliberate differences and other comparisons ---------------------------------
def gray_depths():
    # Deliberate: the 2-bit value v arrives as the index 4v of a 16-step
    # ramp, so the grey levels are 0, 64, 128, 192 (Pillow stretches to 255);
    # pixels of a last partial byte stay raw, also deliberately.
    p2 = made("g2", "convert %s -depth 2 -compress none {out}" % GRAY)
    ours = B.loaded(p2)
    w4 = ours.width // 4 * 4
    B.compare(ours.rgb()[:, :w4, 0], (B.pillow_rgb(p2)[:, :w4, 0].astype(int) // 85 * 64).astype(np.uint8), "2-bit")
    # The 4-bit ramp steps by 16 (0..240): index i is grey 16i.
    p4 = made("g4bit", "convert %s -depth 4 -compress none {out}" % GRAY)
    B.compare(B.loaded(p4).indices().astype(int) * 17, B.pillow_rgb(p4)[:, :, 0].astype(int), "4-bit index")
    # Deliberate: the first byte of each 16-bit sample is taken, the high
    # byte in MM files and the low byte in II files.
    for endian in ("LSB", "MSB"):
        f = made("g16" + endian, "convert %s -depth 16 -endian %s -compress none {out}" % (GRAY, endian))
        with B.Image.open(f) as im:
            v = np.asarray(im).astype(np.uint16)
        B.compare(B.loaded(f).indices(), ((v >> 8) if endian == "MSB" else (v & 255)).astype(np.uint8), "16-bit " + endian)
    im = B.test_rgb(61, 37).convert("LA")
    B.compare(B.loaded(pil(im)("la.tif")).rgb()[:, :, 0], np.asarray(im)[:, :, 0], "gray+alpha")


def cielab():
    f = made("lab", "convert %s -colorspace Lab -compress none {out}" % RGB)
    # ImageMagick writes CIELab from the sRGB source.  8-bit Lab loses a
    # little on the way, so the decode must come back close to the source on
    # average, and no further from it than libtiff's own decode.
    src = B.pillow_rgb(RGB).astype(int)
    got = np.abs(B.loaded(f).rgb().astype(int) - src)
    ref = np.abs(B.libtiff_rgb(f).astype(int) - src)
    assert got.mean() < 2.5 and got.max() <= ref.max(), (got.mean(), got.max(), ref.max())
    assert got.mean() <= ref.mean(), (got.mean(), ref.mean())


def multipage():
    f = made("mp", "{a} > {out}.a && {c} > {out}.c && tiffcp {out}.a {out}.c {out}.a {out}".replace(
        "{a}", SRC["rgb"]).replace("{c}", SRC["page"]))
    assert B.LIB.IMGLOW_get_pages(f.encode()) == 3
    for page in range(3):
        B.decodes_like(f, page=page)
    assert B.load(f, 3) == -11, "one past the last page"


def tiled():
    f = made("tiled", tiffcp("rgb", "-t -w 16 -l 16"))
    full = B.pillow_rgb(f)
    # Deliberate: a tiled image is read as one tile, the page number picking it.
    for page, (ty, tx) in [(0, (0, 0)), (1, (0, 16)), (5, (16, 16))]:
        p = B.loaded(f, page)
        assert (p.width, p.height) == (16, 16)
        tile = full[ty:ty + 16, tx:tx + 16]
        B.compare(p.rgb()[: tile.shape[0], : tile.shape[1]], tile, "tile %d" % page)


def tool_fax_and_info():
    # Raw Group 3 with EOLs and RTC, through the tool's fax conversion.
    raw, out = B.make("pbmtog3 " + PAGE, "raw.g3"), B.tmp("raw_out.bmp")
    B.run([B.TOOL, "convert", "--fax", "3:400:0", raw, out])
    B.compare(B.pillow_rgb(out), B.pillow_rgb(PAGE), "raw Group 3 via the tool")
    # The refined type of each compression.
    for opts, code in [("-c none", 0), ("-c g3:1d", 8), ("-c g3:2d", 17), ("-c g4", 10), ("-c lzw", 9),
                       ("-c packbits", 16)]:
        info = B.run([B.TOOL, "info", made("info%d" % code, tiffcp("page", opts))]).decode()
        assert ("type=%d " % code) in info and "pages=1" in info, (opts, info)


CASES = [(name, same_case(name, maker)) for name, maker in SAME_AS_PILLOW] + [
    ("gray 2, 4 and 16 bits, gray with alpha", gray_depths),
    ("CIELab", cielab),
    ("multi-page", multipage),
    ("tiled", tiled),
    ("raw Group 3 and type info through the tool", tool_fax_and_info),
]

if __name__ == "__main__":
    B.main(CASES)
