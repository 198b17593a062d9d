"""TIFF reading against independent tools: files written by tiffcp, fax2tiff,
pbmtog3, ImageMagick, netpbm and Pillow decode as Pillow or libtiff's
tiff2rgba decode them.  Each case names the command that made its file."""
import os
import re
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(__file__))
import brivanta as b  # noqa: E402
from PIL import Image  # noqa: E402

b.require("tiffcp", "fax2tiff", "pbmtog3", "tiff2rgba", "convert", "pnmtotiff")
path = b.tmp
# Planar loads go through a fixed-name temporary file: keep ours apart.
os.environ["TMPDIR"] = os.path.dirname(path("x"))


page_picture, rgb_picture = b.test_page, lambda: b.test_rgb(61, 37)


RGB, GRAY, PAGE = path("src.ppm"), path("src.pgm"), path("page.pbm")
rgb_picture().save(RGB)
rgb_picture().convert("L").save(GRAY)
page_picture().save(PAGE)
SRC = {"rgb": "pnmtotiff -none -truecolor %s" % RGB, "gray": "pnmtotiff -none %s" % GRAY,
       "page": "pnmtotiff -none %s" % PAGE}


def libtiff_rgb(file):
    """libtiff's own decode through tiff2rgba, as RGB."""
    b.run(["tiff2rgba", "-c", "none", file, file + ".rgba.tif"])
    with Image.open(file + ".rgba.tif") as im:
        return np.asarray(im.convert("RGB"))


def same_as_pillow(file, frame=0):
    b.assert_same(b.loaded(file, frame).rgb(), b.pillow_rgb(file, frame), os.path.basename(file))


def sh(name, cmd):
    """Makes tmp(name) with a command whose {out} is the file (or its stdout)."""
    f = path(name)
    b.run(cmd.format(out=f) if "{out}" in cmd else cmd + " > " + f)
    return f


def pil(name, im, **kw):
    im.save(path(name), **kw)
    return path(name)


# Files that must decode exactly as Pillow decodes them: (name, maker).
def tiffcp(src, opts):
    return lambda n: sh(n, "%s > {out}.src && tiffcp %s {out}.src {out}" % (SRC[src], opts))


def rgba_picture():
    im = rgb_picture().convert("RGBA")
    im.putalpha(128)
    return im


SAME_AS_PILLOW = [
    ("gray 1-bit netpbm (MinIsWhite)", lambda n: sh(n, SRC["page"])),
    ("gray 1-bit Pillow (MinIsBlack)", lambda n: pil(n, page_picture())),
    ("gray 8-bit", lambda n: sh(n, SRC["gray"])),
    ("palette 8-bit", lambda n: pil(n, rgb_picture().quantize(200))),
    ("palette 4-bit", lambda n: sh(n, "convert %s -colors 16 -type Palette -depth 4 -compress none {out}" % RGB)),
    ("RGB", lambda n: sh(n, SRC["rgb"])),
    ("RGBA drops the alpha", lambda n: pil(n, rgba_picture())),
    ("CMYK", lambda n: pil(n, rgb_picture().convert("CMYK"))),
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
    ("CCITT modified Huffman (Pillow)", lambda n: pil(n, page_picture(), compression="tiff_ccitt")),
    ("Group 3 1-D (Pillow)", lambda n: pil(n, page_picture(), compression="group3")),
    ("Group 4 (Pillow)", lambda n: pil(n, page_picture(), compression="group4")),
    ("Group 3 1-D", tiffcp("page", "-c g3:1d")),
    ("Group 3 1-D fill bits", tiffcp("page", "-c g3:1d:fill")),
    ("Group 3 1-D fill order 2", tiffcp("page", "-c g3:1d -f lsb2msb")),
    ("Group 3 2-D", tiffcp("page", "-c g3:2d")),
    ("Group 3 2-D strips", tiffcp("page", "-c g3:2d -r 16")),
    ("Group 4", tiffcp("page", "-c g4")),
    ("Group 4 fill order 2", tiffcp("page", "-c g4 -f lsb2msb")),
    ("Group 4 strips big-endian", tiffcp("page", "-c g4 -r 10 -B")),
    ("fax2tiff from pbmtog3", lambda n: sh(n, "pbmtog3 %s > {out}.g3 && fax2tiff -M -X 400 -o {out} {out}.g3" % PAGE)),
    ("fax2tiff strips", lambda n: sh(n, "pbmtog3 %s > {out}.g3 && fax2tiff -M -X 400 -r 32 -o {out} {out}.g3" % PAGE)),
]


def same_case(name, maker):
    return lambda: same_as_pillow(maker(re.sub(r"\W+", "_", name) + ".tif"))


# ---- Deliberate differences and other comparisons ---------------------------------
def gray2():
    f = sh("g2.tif", "convert %s -depth 2 -compress none {out}" % GRAY)
    p = b.loaded(f)
    assert p.bits == 4
    # Deliberate: the 2-bit value v arrives as the index 4v of a 16-step
    # ramp, so the grey levels are 0, 64, 128, 192 (Pillow stretches to 255).
    expect = (b.pillow_rgb(f)[:, :, 0].astype(int) // 85) * 64
    w4 = p.width // 4 * 4  # pixels of a last partial byte stay raw, also deliberately
    b.assert_same(p.rgb()[:, :w4, 0].astype(int), expect[:, :w4], "2-bit gray")


def gray4():
    f = sh("g4bit.tif", "convert %s -depth 4 -compress none {out}" % GRAY)
    p = b.loaded(f)
    assert p.bits == 4
    # The 4-bit ramp steps by 16 (0..240): index i is grey 16i.
    b.assert_same(p.indices().astype(int) * 17, b.pillow_rgb(f)[:, :, 0].astype(int), "4-bit index")


def gray16(endian):
    def case():
        f = sh("g16%s.tif" % endian, "convert %s -depth 16 -endian %s -compress none {out}" % (GRAY, endian))
        # Deliberate: the first byte of each sample is taken, the high byte in
        # MM files and the low byte in II files.
        with Image.open(f) as im:
            v = np.asarray(im).astype(np.uint16)
        expect = (v >> 8) if endian == "MSB" else (v & 255)
        b.assert_same(b.loaded(f).indices(), expect.astype(np.uint8), "16-bit " + endian)
    return case


def gray_alpha():
    im = rgb_picture().convert("LA")
    f = pil("la.tif", im)
    b.assert_same(b.loaded(f).rgb()[:, :, 0], np.asarray(im)[:, :, 0], "gray+alpha")


def cielab():
    f = sh("lab.tif", "convert %s -colorspace Lab -compress none {out}" % RGB)
    # ImageMagick writes CIELab from the sRGB source.  8-bit Lab loses a
    # little on the way, so the decode must come back close to the source on
    # average, and no further from it than libtiff's own decode.
    with Image.open(RGB) as im:
        src = np.asarray(im).astype(int)
    got = np.abs(b.loaded(f).rgb().astype(int) - src)
    ref = np.abs(libtiff_rgb(f).astype(int) - src)
    assert got.mean() < 2.5 and got.max() <= ref.max(), (got.mean(), got.max(), ref.max())
    assert got.mean() <= ref.mean(), (got.mean(), ref.mean())


def ycbcr():
    f = sh("ycbcr.tif", "convert %s -colorspace YCbCr -sampling-factor 2x1 -compress none {out}" % RGB)
    assert "YCbCr" in b.run(["tiffinfo", f]).decode(), "the tool did not write YCbCr"
    b.assert_same(b.loaded(f).rgb(), libtiff_rgb(f), "YCbCr", tolerance=6)


def multipage():
    f = sh("mp.tif", "{a} > {out}.a && {c} > {out}.c && tiffcp {out}.a {out}.c {out}.a {out}".replace(
        "{a}", SRC["rgb"]).replace("{c}", SRC["page"]))
    assert b.LIB.IMGLOW_get_pages(f.encode()) == 3
    for frame in range(3):
        same_as_pillow(f, frame)
    assert b.load(f, 3) == -11, "one past the last page"


def tiled():
    f = sh("tiled.tif", "%s > {out}.src && tiffcp -t -w 16 -l 16 {out}.src {out}" % SRC["rgb"])
    full = b.pillow_rgb(f)
    # Deliberate: a tiled image is read as one tile, the page number picking it.
    for page, (ty, tx) in [(0, (0, 0)), (1, (0, 16)), (5, (16, 16))]:
        p = b.loaded(f, page)
        assert (p.width, p.height) == (16, 16)
        tile = full[ty:ty + 16, tx:tx + 16]
        b.assert_same(p.rgb()[: tile.shape[0], : tile.shape[1]], tile, "tile %d" % page)


def raw_fax_tool():
    raw = sh("raw.g3", "pbmtog3 %s" % PAGE)  # Group 3 with EOLs, RTC at the end
    out = path("raw_out.bmp")
    b.run([b.TOOL, "convert", "--fax", "3:400:0", raw, out])
    with Image.open(PAGE) as im:
        b.assert_same(b.pillow_rgb(out), np.asarray(im.convert("RGB")), "raw Group 3 via the tool")


def info_reports_type():
    for opts, code in [("-c none", 0), ("-c g3:1d", 8), ("-c g3:2d", 17), ("-c g4", 10), ("-c lzw", 9),
                       ("-c packbits", 16)]:
        f = tiffcp("page", opts)("info%d.tif" % code)
        out = b.run([b.TOOL, "info", f]).decode()
        assert ("type=%d " % code) in out and "pages=1" in out, (opts, out)


CASES = [(name, same_case(name, maker)) for name, maker in SAME_AS_PILLOW] + [
    ("gray 2-bit", gray2),
    ("gray 4-bit", gray4),
    ("gray 16-bit II", gray16("LSB")),
    ("gray 16-bit MM", gray16("MSB")),
    ("gray with alpha", gray_alpha),
    ("CIELab", cielab),
    ("YCbCr 2x1", ycbcr),
    ("multi-page", multipage),
    ("tiled", tiled),
    ("raw Group 3 through the tool", raw_fax_tool),
    ("info reports the refined type", info_reports_type),
]

if __name__ == "__main__":
    b.main(CASES)
