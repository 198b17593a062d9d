"""TIFF reading against independent tools: files written by tiffcp, fax2tiff,
pbmtog3, ImageMagick, netpbm and Pillow decode as Pillow or libtiff's
tiff2rgba decode them.  Each case names the command that made its file."""
import os
import subprocess
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(__file__))
import brivanta as b  # noqa: E402
from PIL import Image, ImageDraw  # noqa: E402

b.require("tiffcp", "fax2tiff", "pbmtog3", "tiff2rgba", "convert", "pnmtotiff")
TMP = b.tempdir()
# Planar loads go through a fixed-name temporary file: keep ours apart.
os.environ["TMPDIR"] = TMP


def path(name):
    return os.path.join(TMP, name)


def rgb_picture(w=61, h=37):
    y, x = np.mgrid[0:h, 0:w]
    a = np.stack([(x * 255 // (w - 1)), (y * 255 // (h - 1)), ((x * 7 + y * 13) % 256)], axis=-1).astype(np.uint8)
    a[h // 3: h // 2, :] = [200, 30, 90]
    return Image.fromarray(a, "RGB")


def page_picture(w=400, h=300):
    """A bilevel page: text, rules, boxes and a dither patch."""
    im = Image.new("1", (w, h), 1)
    d = ImageDraw.Draw(im)
    for i in range(12):
        d.text((10, 10 + 22 * i), "Brivanta fax line %02d: The quick brown fox jumps" % i, fill=0)
    d.rectangle((300, 40, 380, 120), outline=0)
    d.line((0, h - 5, w - 1, h - 5), fill=0, width=3)
    d.ellipse((250, 180, 390, 290), fill=0)
    for yy in range(150, 175):
        for xx in range(300, 390):
            if (xx + yy) % 3 == 0:
                im.putpixel((xx, yy), 0)
    return im


SRC_RGB = path("src.ppm")
SRC_GRAY = path("src.pgm")
SRC_PAGE = path("page.pbm")
rgb_picture().save(SRC_RGB)
rgb_picture().convert("L").save(SRC_GRAY)
page_picture().save(SRC_PAGE)


def ours(file, page=0):
    p = b.load(file, page)
    assert not isinstance(p, int), "load failed with %d" % p
    return p


def libtiff_rgb(file):
    """libtiff's own decode through tiff2rgba, as RGB."""
    out = file + ".rgba.tif"
    b.run(["tiff2rgba", "-c", "none", file, out])
    with Image.open(out) as im:
        return np.asarray(im.convert("RGB"))


def same_as_pillow(file, tolerance=0, frame=0):
    b.assert_same(ours(file, frame).rgb(), b.pillow_rgb(file, frame), os.path.basename(file), tolerance)


def sh(cmd):
    b.run(cmd)


# ---- depths and photometrics ---------------------------------------------------------------
def gray1():
    f = path("g1.tif")
    sh("pnmtotiff -none %s > %s" % (SRC_PAGE, f))  # netpbm: 1-bit, MinIsWhite
    same_as_pillow(f)
    assert ours(f).bits == 1


def gray1_pillow():
    f = path("g1p.tif")
    page_picture().save(f)  # Pillow: 1-bit, MinIsBlack
    same_as_pillow(f)


def gray2():
    f = path("g2.tif")
    sh("convert %s -depth 2 -compress none %s" % (SRC_GRAY, f))
    p = ours(f)
    assert p.bits == 4
    # Deliberate: the 2-bit value v arrives as the index 4v of a 16-step
    # ramp, so the grey levels are 0, 64, 128, 192 (Pillow stretches to 255).
    expect = (b.pillow_rgb(f)[:, :, 0].astype(int) // 85) * 64
    got = p.rgb()[:, :, 0].astype(int)
    w4 = p.width // 4 * 4  # pixels of a last partial byte stay raw, also deliberately
    b.assert_same(got[:, :w4], expect[:, :w4], "2-bit gray")


def gray4():
    f = path("g4bit.tif")
    sh("convert %s -depth 4 -compress none %s" % (SRC_GRAY, f))
    p = ours(f)
    assert p.bits == 4
    # The 4-bit ramp steps by 16 (0..240): index i is grey 16i.
    b.assert_same(p.indices().astype(int) * 17, b.pillow_rgb(f)[:, :, 0].astype(int), "4-bit index")


def gray8():
    f = path("g8.tif")
    sh("pnmtotiff -none %s > %s" % (SRC_GRAY, f))
    same_as_pillow(f)


def gray16(endian):
    def case():
        f = path("g16%s.tif" % endian)
        sh("convert %s -depth 16 -endian %s -compress none %s" % (SRC_GRAY, endian, f))
        p = ours(f)
        # Deliberate: the first byte of each sample is taken, the high byte in
        # MM files and the low byte in II files.
        raw = np.frombuffer(open(f, "rb").read(), dtype=np.uint8)
        with Image.open(f) as im:
            v = np.asarray(im).astype(np.uint16)
        expect = (v >> 8) if endian == "MSB" else (v & 255)
        b.assert_same(p.indices(), expect.astype(np.uint8), "16-bit " + endian)
        del raw
    return case


def palette8():
    f = path("pal8.tif")
    rgb_picture().quantize(200).save(f)  # Pillow: palette with a ColorMap
    same_as_pillow(f)
    assert ours(f).bits == 8


def palette4():
    f = path("pal4.tif")
    rgb_picture().quantize(16).save(f, bits=4) if False else sh(
        "convert %s -colors 16 -type Palette -depth 4 -compress none %s" % (SRC_RGB, f))
    same_as_pillow(f)


def rgb():
    f = path("rgb.tif")
    sh("pnmtotiff -none -truecolor %s > %s" % (SRC_RGB, f))
    same_as_pillow(f)


def rgba():
    f = path("rgba.tif")
    im = rgb_picture().convert("RGBA")
    im.putalpha(128)
    im.save(f)  # Pillow: RGBA with extra sample
    b.assert_same(ours(f).rgb(), np.asarray(im)[:, :, :3], "RGBA")


def gray_alpha():
    f = path("la.tif")
    im = rgb_picture().convert("LA")
    im.save(f)  # Pillow: gray with alpha
    b.assert_same(ours(f).rgb()[:, :, 0], np.asarray(im)[:, :, 0], "gray+alpha")


def cmyk():
    f = path("cmyk.tif")
    rgb_picture().convert("CMYK").save(f)  # Pillow: separated
    same_as_pillow(f)


def cielab():
    f = path("lab.tif")
    sh("convert %s -colorspace Lab -compress none %s" % (SRC_RGB, f))
    # ImageMagick writes CIELab from the sRGB source.  8-bit Lab loses a
    # little on the way, so the decode must come back close to the source on
    # average, and no further from it than libtiff's own decode.
    with Image.open(SRC_RGB) as im:
        src = np.asarray(im).astype(int)
    got = np.abs(ours(f).rgb().astype(int) - src)
    ref = np.abs(libtiff_rgb(f).astype(int) - src)
    assert got.mean() < 2.5 and got.max() <= ref.max(), (got.mean(), got.max(), ref.max())
    assert got.mean() <= ref.mean(), (got.mean(), ref.mean())


def ycbcr():
    f = path("ycbcr.tif")
    sh("convert %s -colorspace YCbCr -sampling-factor 2x1 -compress none %s" % (SRC_RGB, f))
    info = b.run(["tiffinfo", f]).decode()
    if "YCbCr" not in info:
        raise AssertionError("the tool did not write YCbCr: " + info)
    b.assert_same(ours(f).rgb(), libtiff_rgb(f), "YCbCr", tolerance=6)


# ---- byte orders, compressions, layouts ---------------------------------------------------------
def tiffcp_case(src_maker, opts, name, tolerance=0):
    def case():
        src = path(name + ".src.tif")
        sh(src_maker(src))
        f = path(name + ".tif")
        sh("tiffcp %s %s %s" % (opts, src, f))
        same_as_pillow(f, tolerance)
    return case


def rgb_src(f):
    return "pnmtotiff -none -truecolor %s > %s" % (SRC_RGB, f)


def gray_src(f):
    return "pnmtotiff -none %s > %s" % (SRC_GRAY, f)


def page_src(f):
    return "pnmtotiff -none %s > %s" % (SRC_PAGE, f)


def multipage():
    a, c, f = path("mp_a.tif"), path("mp_b.tif"), path("mp.tif")
    sh(rgb_src(a))
    sh(page_src(c))
    sh("tiffcp %s %s %s %s" % (a, c, a, f))
    assert b.LIB.IMGLOW_get_pages(f.encode()) == 3
    same_as_pillow(f, frame=0)
    same_as_pillow(f, frame=1)
    same_as_pillow(f, frame=2)
    fd = os.open(f, os.O_RDONLY)
    try:
        assert b.LIB.IMG_decompress_bitmap_fd(fd, 0, 3) == -11
    finally:
        os.close(fd)


def tiled():
    src, f = path("tile_src.tif"), path("tiled.tif")
    sh(rgb_src(src))
    sh("tiffcp -t -w 16 -l 16 %s %s" % (src, f))
    full = b.pillow_rgb(f)
    # Deliberate: a tiled image is read as one tile, the page number picking it.
    for page, (ty, tx) in [(0, (0, 0)), (1, (0, 16)), (5, (16, 16))]:
        p = ours(f, page)
        assert (p.width, p.height) == (16, 16)
        tile = full[ty:ty + 16, tx:tx + 16]
        b.assert_same(p.rgb()[: tile.shape[0], : tile.shape[1]], tile, "tile %d" % page)


# ---- fax ------------------------------------------------------------------------------------------
def fax_tiffcp(opts, name):
    return tiffcp_case(page_src, opts, name)


def pillow_fax(compression):
    def case():
        f = path("pil_%s.tif" % compression)
        page_picture().save(f, compression=compression)
        same_as_pillow(f)
    return case


def fax2tiff_case(g3opts, name, rows=None):
    def case():
        raw = path(name + ".g3")
        sh("pbmtog3 %s %s > %s" % (g3opts, SRC_PAGE, raw))
        f = path(name + ".tif")
        sh("fax2tiff -M -X 400 %s -o %s %s" % (("-r %d" % rows) if rows else "", f, raw))
        same_as_pillow(f)
    return case


def raw_fax_tool():
    raw, out = path("raw.g3"), path("raw_out.bmp")
    sh("pbmtog3 %s > %s" % (SRC_PAGE, raw))  # Group 3 with EOLs, RTC at the end
    r = subprocess.run([b.TOOL, "convert", "--fax", "3:400:0", raw, out], capture_output=True)
    assert r.returncode == 0, r.stderr
    with Image.open(SRC_PAGE) as im:
        expect = np.asarray(im.convert("RGB"))
    b.assert_same(b.pillow_rgb(out), expect, "raw Group 3 via the tool")


def info_reports_type():
    cases = [("-c none", 0), ("-c g3:1d", 8), ("-c g3:2d", 17), ("-c g4", 10), ("-c lzw", 9), ("-c packbits", 16)]
    src = path("info_src.tif")
    sh(page_src(src))
    for opts, code in cases:
        f = path("info%d.tif" % code)
        sh("tiffcp %s %s %s" % (opts, src, f))
        out = b.run([b.TOOL, "info", f]).decode()
        assert ("type=%d " % code) in out and "pages=1" in out, (opts, out)


CASES = [
    ("gray 1-bit netpbm", gray1),
    ("gray 1-bit Pillow", gray1_pillow),
    ("gray 2-bit", gray2),
    ("gray 4-bit", gray4),
    ("gray 8-bit", gray8),
    ("gray 16-bit II", gray16("LSB")),
    ("gray 16-bit MM", gray16("MSB")),
    ("palette 8-bit", palette8),
    ("palette 4-bit", palette4),
    ("RGB", rgb),
    ("RGBA", rgba),
    ("gray with alpha", gray_alpha),
    ("CMYK", cmyk),
    ("CIELab", cielab),
    ("YCbCr 2x1", ycbcr),
    ("RGB big-endian", tiffcp_case(rgb_src, "-B", "rgb_mm")),
    ("gray big-endian", tiffcp_case(gray_src, "-B", "gray_mm")),
    ("PackBits RGB", tiffcp_case(rgb_src, "-c packbits", "pb_rgb")),
    ("PackBits bilevel, strips", tiffcp_case(page_src, "-c packbits -r 7", "pb_page")),
    ("LZW RGB", tiffcp_case(rgb_src, "-c lzw", "lzw_rgb")),
    ("LZW RGB predictor 2", tiffcp_case(rgb_src, "-c lzw:2", "lzw2_rgb")),
    ("LZW gray predictor 2 MM", tiffcp_case(gray_src, "-c lzw:2 -B", "lzw2_gray")),
    ("LZW several strips", tiffcp_case(rgb_src, "-c lzw -r 5", "lzw_strips")),
    ("LZW bilevel", tiffcp_case(page_src, "-c lzw", "lzw_page")),
    ("several strips", tiffcp_case(rgb_src, "-r 3", "strips")),
    ("planar RGB", tiffcp_case(rgb_src, "-p separate", "planar")),
    ("planar RGB LZW strips", tiffcp_case(rgb_src, "-p separate -c lzw:2 -r 4", "planar_lzw")),
    ("planar RGB PackBits", tiffcp_case(rgb_src, "-p separate -c packbits", "planar_pb")),
    ("multi-page", multipage),
    ("tiled", tiled),
    ("CCITT modified Huffman (Pillow)", pillow_fax("tiff_ccitt")),
    ("Group 3 1-D (Pillow)", pillow_fax("group3")),
    ("Group 4 (Pillow)", pillow_fax("group4")),
    ("Group 3 1-D", fax_tiffcp("-c g3:1d", "g3_1d")),
    ("Group 3 1-D fill bits", fax_tiffcp("-c g3:1d:fill", "g3_fill")),
    ("Group 3 2-D", fax_tiffcp("-c g3:2d", "g3_2d")),
    ("Group 3 2-D strips", fax_tiffcp("-c g3:2d -r 16", "g3_2d_strips")),
    ("Group 4", fax_tiffcp("-c g4", "g4")),
    ("Group 4 fill order 2", fax_tiffcp("-c g4 -f lsb2msb", "g4_lsb")),
    ("Group 4 strips big-endian", fax_tiffcp("-c g4 -r 10 -B", "g4_strips")),
    ("Group 3 1-D fill order 2", fax_tiffcp("-c g3:1d -f lsb2msb", "g3_lsb")),
    ("fax2tiff from pbmtog3", fax2tiff_case("", "fax2tiff_g3")),
    ("fax2tiff strips", fax2tiff_case("", "fax2tiff_strips", rows=32)),
    ("raw Group 3 through the tool", raw_fax_tool),
    ("info reports the refined type", info_reports_type),
]

if __name__ == "__main__":
    b.main(CASES)
