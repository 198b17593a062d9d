"""Reading files that independent tools write (ImageMagick, netpbm, the giflib
tools, Pillow), or that are built here from a format's published layout
where no tool writes them: each loads as a reference decoder shows it.
One row a file: how it is made, the reference, a tolerance, the depth it
must load at and any further check.  Last, the cases of a shape of their
own.  (Our writers are checked in writers_test.py.)"""
import os
import re
import struct

import numpy as np
from PIL import Image

import brivanta as B

B.require("convert", "ppmtopcx", "pcxtoppm", "pnmquant", "pbmmake", "ppmtotga", "tgatoppm", "ppmquant", "ppmtopgm",
          "gifbuild", "pamtogif", "giftopnm", "pamtowinicon", "ppmtoilbm", "ilbmtoppm")
# DCX saves use the library's fixed temporary file name: keep ours apart.
os.environ["TMPDIR"] = os.path.dirname(B.tmp("x"))
LIB = B.LIB
PLASMA = "convert -size 67x43 plasma:fractal"
SRC, RUNS = B.tmp("src.ppm"), B.tmp("runs.ppm")
B.run("convert -size 61x37 -seed 5 plasma:fractal -depth 8 %s" % SRC)
B.run("convert -size 200x3 gradient:red-blue -depth 8 %s" % RUNS)
# Pillow's seek counts a document's layers: the composite is what opens.
B.REFERENCES["Pillow composite"] = lambda path, page=0: np.asarray(Image.open(path).convert("RGB"))


def built(leaf, data):
    with open(B.tmp(leaf), "wb") as f:
        f.write(data)
    return B.tmp(leaf)


# ---- PCX: the layout each tool wrote is the one the row is about -----------------
def pcx_layout(bits, planes):
    def check(path, ours):
        with open(path, "rb") as f:
            h = f.read(128)
        assert (h[3], h[65]) == (bits, planes), "made %d bits in %d planes" % (h[3], h[65])
    return check


# ---- Targa: 16-bit files, which neither tool writes ----------------------------
def sixteen_bit(top, rle):
    """Run-length files hold raw packets of up to 128 pixels, crossing row ends."""
    def make(leaf):
        pic = B.pillow_rgb(SRC).astype(np.uint16)
        words = (pic[:, :, 0] >> 3) << 10 | (pic[:, :, 1] >> 3) << 5 | (pic[:, :, 2] >> 3) | 0x8000
        data = (words if top else words[::-1]).astype("<u2").tobytes()
        if rle:
            data = b"".join(bytes([len(data[i:i + 256]) // 2 - 1]) + data[i:i + 256] for i in range(0, len(data), 256))
        h, w = words.shape
        header = struct.pack("<BBBHHBHHHHBB", 0, 0, 10 if rle else 2, 0, 0, 0, 0, 0, w, h, 16, 0x20 if top else 0)
        return built(leaf, header + data)
    return make


# ---- GIF: files from gifbuild's text form ---------------------------------------
def colour_map(colours):
    return "\tsort flag off\n" + "".join("\trgb %03d %03d %03d is %d\n" % (c + (i,)) for i, c in enumerate(colours))


def giflib(w, h, colours, rows, extras="", interlaced=False, local=None):
    """Rows of hex indices, or of digits when they hold no spaces."""
    def make(leaf):
        text = "screen width %d\nscreen height %d\nscreen colors %d\nscreen background 0\npixel aspect byte 0\n" % (
            w, h, len(colours))
        text += "screen map\n" + colour_map(colours) + "end\n" + extras + "image # 1\nimage left 0\nimage top 0\n"
        text += "image interlaced\n" if interlaced else ""
        text += "image map\n" + colour_map(local) + "end\n" if local else ""
        text += "image bits %d by %d%s\n" % (w, h, " hex" if " " in rows[0] else "") + "\n".join(rows) + "\n"
        with open(B.tmp(leaf + ".txt"), "w") as f:
            f.write(text)
        return B.make("gifbuild " + B.tmp(leaf + ".txt"), leaf)
    return make


def gif_transparency(path, ours):
    # Deliberate: a two-colour GIF is held as an 8-bit bitmap.
    assert ours.bits in (4, 8), ours.bits
    h = LIB.IMG_decompress_bitmap(path.encode())
    try:
        t = LIB.IMGLOW_get_transp_color(h)
    finally:
        LIB.IMG_delete_bitmap(h)
    with Image.open(path) as im:
        want = im.info.get("transparency")
    # A transparent index of 0 cannot be told apart from none.
    assert t == (want or -26), "transparent index %d, Pillow says %s" % (t, want)


# ---- Icons: colours only (the AND mask is not ours to read) ----------------------
def first_icon(path, page=0):
    """Pillow's image of an icon's first entry, whatever the entries' order."""
    data = open(path, "rb").read()
    with Image.open(path) as im:
        return np.asarray(im.ico.getimage((data[6] or 256,) * 2).convert("RGB"))


def icon_depth(depth):
    def check(path, ours):
        data = open(path, "rb").read()
        assert data[int.from_bytes(data[18:22], "little") + 14] == depth, "the tool wrote another depth"
    return check


def pillow_icon(mode, size):
    def make(leaf):
        src = B.make("convert -size {0}x{0} plasma:fractal ppm:-".format(size), leaf + ".ppm")
        Image.open(src).convert(mode).save(B.tmp(leaf), format="ICO", bitmap_format="bmp", sizes=[(size, size)])
        return B.tmp(leaf)
    return make


# ---- Photoshop bitmap mode, which ImageMagick does not write ----------------------
def psd_bitmap(leaf):
    """0 bits black, as Pillow shows them (ImageMagick shows set bits black)."""
    bits = np.packbits(np.asarray(Image.open(SRC).convert("L")) > 128, axis=1)
    return built(leaf, b"8BPS" + struct.pack(">H6xHIIHHIIIH", 1, 1, 37, 61, 1, 0, 0, 0, 0, 0) + bits.tobytes())


# ---- MSP version 2 and CUT: runs and literals in turn ------------------------------
def msp(w, version):
    def make(leaf):
        y, x = np.mgrid[0:23, 0:w]
        im = Image.fromarray(((x // 8 + y // 5) % 3 == 0) | (x == y))
        if version == 1:
            im.save(B.tmp(leaf), "MSP")
            return B.tmp(leaf)
        raw, stride = im.tobytes(), (w + 7) // 8
        rows = [b"".join(bytes([0, 1, v]) if i % 2 else bytes([1, v])
                         for i, v in enumerate(raw[r * stride:(r + 1) * stride])) for r in range(23)]
        header = bytearray(b"LinS" + struct.pack("<HH", w, 23) + bytes(24))
        header[24:26] = struct.pack("<H", np.bitwise_xor.reduce(struct.unpack("<12H", header[:24])))  # checksum
        return built(leaf, header + b"".join(struct.pack("<H", len(r)) for r in rows) + b"".join(rows))
    return make


def cut(w, h):
    """Each line ends in a zero item; grey levels are the stored values."""
    def make(leaf):
        y, x = np.mgrid[0:h, 0:w]
        a = np.where(x < w // 2, (x * 7 + y * 3) % 256, (y * 40 + 15) % 256).astype(np.uint8)
        a[0, 0], a[-1, -1] = 0, 255  # the full range, so the levels are not rescaled
        lines = [b"".join(bytes([0x81, v]) if i % 2 else bytes([1, v]) for i, v in enumerate(r)) + b"\0"
                 for r in a.tolist()]
        return built(leaf, struct.pack("<HHH", w, h, 0) + b"".join(struct.pack("<H", len(l)) + l for l in lines))
    return make


# ---- WordPerfect graphics: runs, literal bytes, row repeats, record heads of 2, 4
# and 6 bytes, vector records around the bitmap ---------------------------------------
RNG = np.random.default_rng(11)
WPG_HEAD = b"\xffWPC" + struct.pack("<IBBBBHH", 16, 1, 0x16, 1, 0, 0, 0)
VECTORS = b"\x02\x08" + struct.pack("<4H", 0, 0, 99, 99) + b"\x05\x0e" + struct.pack("<7H", 3, 0, 0, 50, 0, 0, 50)


def record(kind, data):
    n = len(data)
    if n < 255:
        return bytes([kind, n]) + data
    long = struct.pack("<HH", 0x8000 | n >> 16, n & 0xFFFF) if n >= 0x8000 else struct.pack("<H", n)
    return bytes([kind, 255]) + long + data


def wpg_pack(rows):
    """Runs as (0x80 | n, value), runs of 255 as (0x80, n), single bytes as
    (1, value), a row equal to the one before as a repeat (0, 1)."""
    out = b""
    for y, row in enumerate(rows):
        if y and row == rows[y - 1]:
            out += b"\x00\x01"
            continue
        i = 0
        while i < len(row):
            n = 1
            while i + n < len(row) and n < 127 and row[i + n] == row[i]:
                n += 1
            out += bytes([0x80, n]) if n > 1 and row[i] == 255 else bytes([0x80 | n if n > 1 else 1, row[i]])
            i += n
    return out


def wpg_file(values, depth, kind=1, vectors=False):
    """The file of a picture's values (fixtures/wpg/README.md makes one so)."""
    h, w = values.shape
    per = 8 // depth
    v = np.zeros((h, -(-w // per) * per), np.int64)
    v[:, :w] = values
    rows = [bytes((v[y].reshape(-1, per) << (per - 1 - np.arange(per)) * depth).sum(axis=1).astype(np.uint8))
            for y in range(h)]
    head = struct.pack("<5H", w, h, depth, 75, 75)
    placed = struct.pack("<5H", 0, 0, 0, w, h) if kind == 2 else b""  # the second kind's placement
    bitmap = record(11 if kind == 1 else 20, placed + head + wpg_pack(rows))
    colours = record(14, struct.pack("<HH", 0, 1 << depth) + RNG.integers(0, 256, 3 << depth, np.uint8).tobytes())
    return WPG_HEAD + record(15, struct.pack("<BBHH", 1, 0, w, h)) + colours + VECTORS * vectors + bitmap + \
        VECTORS * vectors + record(16, b"")


def wpg(w, h, depth, kind, vectors):
    def make(leaf):
        values = RNG.integers(0, 1 << depth, (h, w))  # noise, a flat band, repeated rows
        values[h // 3: h // 2], values[h // 2: h // 2 + 4] = (1 << depth) - 1, values[h // 2]
        return built(leaf, wpg_file(values, depth, kind, vectors))
    return make


# ---- IFF: ppmtoilbm's files, and extra-half-brite and chunky PBM ones, which
# netpbm does not write, built here -------------------------------------------------
RGB = np.asarray(B.test_rgb(83, 57))
PAL = np.asarray(Image.fromarray(RGB).quantize(200).convert("RGB"))
SIXTEEN = np.asarray(Image.fromarray(RGB).quantize(16).convert("RGB"))
BILEVEL = np.asarray(B.test_page(403, 300).convert("RGB"))
IFF_RNG = np.random.default_rng(3)
CMAP32 = IFF_RNG.integers(0, 256, (32, 3))
IDX64 = (np.add.outer(np.arange(21), np.arange(37)) * 5 % 64).astype(np.uint8)
IDX256 = (np.add.outer(np.arange(21), np.arange(37) * 3) % 256).astype(np.uint8)
CMAP256 = IFF_RNG.integers(0, 256, (256, 3))


def ilbm(options, picture, mask=False):
    def make(leaf):
        Image.fromarray(picture).save(B.tmp(leaf + ".ppm"))
        more = " -maskfile " + B.make("pbmmake -gray %d %d" % picture.shape[1::-1], leaf + ".pbm") if mask else ""
        return B.make("ppmtoilbm %s%s %s" % (options, more, B.tmp(leaf + ".ppm")), leaf)
    return make


def chunk(tag, data):
    return tag + struct.pack(">I", len(data)) + data + b"\0" * (len(data) & 1)


def form(kind, width, height, planes, cmap, body, camg=None):
    bmhd = struct.pack(">HHhhBBBBHBBhh", width, height, 0, 0, planes, 0, 0, 0, 0, 1, 1, width, height)
    data = kind + chunk(b"BMHD", bmhd) + chunk(b"CMAP", bytes(np.asarray(cmap, np.uint8).ravel()))
    data += chunk(b"CAMG", struct.pack(">I", camg)) if camg is not None else b""
    return b"FORM" + struct.pack(">I", len(data + chunk(b"BODY", body))) + data + chunk(b"BODY", body)


def planar(indices, planes):
    h, w = indices.shape
    padded = np.zeros((h, -(-w // 16) * 16), np.uint8)
    padded[:, :w] = indices
    return b"".join(np.packbits((padded[y] >> p) & 1).tobytes() for y in range(h) for p in range(planes))


def against(source):
    """Our load is also the picture the file was made from."""
    return lambda path, ours: B.compare(ours.rgb(), source, "against the source")


def row(name, make, ref="Pillow", tolerance=0, bits=None, check=None):
    return name, make, ref, tolerance, bits, check


PLASMA_AT = "convert -size {}x{} -seed 3 plasma:fractal"
# By extension: files that load as their reference decodes them.  A command
# writes {out}, or the file is its output.
FILES = {
    "pcx": [
        row("magick 1-bit", "convert -size 41x13 xc:white -fill black -draw 'line 0,0 40,12' -monochrome -colors 2 "
                            "-type palettematte pcx:-", check=pcx_layout(1, 1)),
        row("magick 8-bit", PLASMA + " -colors 200 pcx:-", check=pcx_layout(8, 1)),
        row("magick 24-bit planar", PLASMA + " -type truecolor pcx:-", check=pcx_layout(8, 3)),
        row("netpbm 1-bit", "pbmmake -g 37 11 | ppmtopcx 2>/dev/null", check=pcx_layout(1, 1)),
        row("netpbm 4-bit planar", PLASMA + " ppm:- | pnmquant 16 2>/dev/null | ppmtopcx 2>/dev/null",
            check=pcx_layout(1, 4)),
        row("netpbm 3 planes of 1 bit", PLASMA + " ppm:- | pnmquant 8 2>/dev/null | ppmtopcx -planes=3 2>/dev/null",
            "pcxtoppm", check=pcx_layout(1, 3)),
        row("netpbm 4-bit packed", PLASMA + " ppm:- | pnmquant 16 2>/dev/null | ppmtopcx -packed 2>/dev/null",
            "pcxtoppm", check=pcx_layout(4, 1)),
        row("netpbm 8-bit", PLASMA + " ppm:- | pnmquant 200 2>/dev/null | ppmtopcx 2>/dev/null", check=pcx_layout(8, 1)),
        row("netpbm 24-bit planar", PLASMA + " ppm:- | ppmtopcx -24bit 2>/dev/null", check=pcx_layout(8, 3)),
    ],
    "tga": [
        row("ImageMagick 24 raw", "convert %s TGA:{out}" % SRC),
        row("ImageMagick 24 RLE", "convert %s -compress RLE TGA:{out}" % SRC),
        row("ImageMagick 24 RLE runs", "convert %s -compress RLE TGA:{out}" % RUNS),
        row("ImageMagick 32 raw", "convert %s -alpha set -channel A -evaluate set 50%% TGA:{out}" % SRC),
        row("ImageMagick 32 RLE", "convert %s -alpha set -compress RLE TGA:{out}" % SRC),
        row("ImageMagick mapped raw", "convert %s -colors 100 -type Palette TGA:{out}" % SRC),
        row("ImageMagick mapped RLE", "convert %s -colors 100 -type Palette -compress RLE TGA:{out}" % SRC),
        row("ImageMagick grey raw", "convert %s -colorspace gray TGA:{out}" % SRC),
        row("ImageMagick grey RLE", "convert %s -colorspace gray -compress RLE TGA:{out}" % SRC),
        row("ImageMagick top-left origin", "convert %s -flip -orient TopLeft TGA:{out}" % SRC),
        row("netpbm 24 RLE", "ppmtotga " + SRC),
        row("netpbm 24 raw", "ppmtotga -norle " + SRC),
        row("netpbm mapped RLE", "ppmquant 100 %s | ppmtotga -cmap" % SRC),
        row("netpbm mapped raw", "ppmquant 100 %s | ppmtotga -cmap -norle" % SRC),
        row("netpbm grey RLE", "ppmtopgm %s | ppmtotga -mono" % SRC),
        row("netpbm grey raw", "ppmtopgm %s | ppmtotga -mono -norle" % SRC),
    ] + [row("16-bit %s %s" % ("top-left" if top else "bottom-left", "RLE" if rle else "raw"), sixteen_bit(top, rle),
             tolerance=7) for top in (False, True) for rle in (False, True)],
    # Each also keeps the transparent index Pillow reports.
    "gif": [
        row("magick 87a 256", PLASMA + " -colors 256 GIF87:{out}"),
        row("magick 89a 256", PLASMA + " -colors 256 {out}"),
        row("magick 16", PLASMA + " -colors 16 {out}"),
        row("magick 2", "convert -size 37x21 pattern:checkerboard -colors 2 {out}"),
        row("magick interlaced", PLASMA + " -colors 100 -interlace GIF {out}"),
        row("magick transparent", "convert -size 40x30 xc:white -fill red -draw 'circle 20,15 20,5' -fill blue "
                                  "-draw 'rectangle 0,0 5,5' -transparent white {out}"),
        row("magick several images", "convert -size 30x20 gradient:red-blue -size 30x20 gradient:green-yellow "
                                     "-colors 64 {out}"),
        row("netpbm 256", PLASMA + " ppm:- | pnmquant 256 2>/dev/null | pamtogif 2>/dev/null"),
        row("netpbm 16 interlaced", PLASMA + " ppm:- | pnmquant 16 2>/dev/null | pamtogif -interlace 2>/dev/null"),
        row("netpbm 2", "pbmmake -g 31 9 | pamtogif 2>/dev/null"),
        row("netpbm transparent", PLASMA + " ppm:- | pnmquant 32 2>/dev/null | pamtogif -transparent=#000000 2>/dev/null"),
        row("giflib interlaced with comment",
            giflib(5, 9, [(i * 16, 255 - i * 16, i * 3) for i in range(16)], interlaced=True,
                   rows=[" ".join("%02x" % (y + x) for x in range(5)) for y in range(9)],
                   extras="comment\nmade by gifbuild, with, commas\nend\n")),
        row("giflib 89a 256",
            giflib(4, 3, [(i, (i * 7) % 256, 255 - i) for i in range(256)],
                   rows=["00 07 fe ff", "10 20 30 40", "7f 80 81 07"],
                   extras="graphics control\n\tdisposal mode 0\n\tuser input flag off\n\tdelay 0\n"
                          "\ttransparent index 7\nend\n")),
    ],
    # Colour tables at any colour count, direct planes with and without alpha,
    # rows short enough to go unpacked.
    "pct": [row(name, PLASMA_AT.format(w, h) + " %s PICT:{out}" % options, "ImageMagick") for name, w, h, options in (
        ("two colours", 61, 17, "-monochrome"), ("twelve colours", 40, 30, "-colors 12"),
        ("200 colours, wide rows", 300, 20, "-colors 200"), ("true colour", 83, 57, ""),
        ("true colour with alpha", 33, 9, "-alpha set -channel A -evaluate set 40% +channel"),
        ("one pixel wide", 1, 5, "-colors 3"), ("true colour, rows under 8 bytes", 1, 4, ""))],
    # The composite of RGB with alpha is matted, which ImageMagick's reading
    # of the layer is not; Pillow turns CMYK to RGB by subtraction,
    # ImageMagick by product as we do.
    "psd": [row("ImageMagick %s %s" % (name, c), "convert %s %s -compress %s {out}" % (SRC, args, c), ref, tolerance)
            for name, args, ref, tolerance in (
                ("grey", "-colorspace gray", "Pillow composite", 0),
                ("indexed", "-colors 100 -type Palette", "Pillow composite", 0), ("RGB", "", "Pillow composite", 0),
                ("RGB with alpha", "-alpha set -channel A -evaluate set 50% +channel", "Pillow composite", 0),
                ("CMYK", "-colorspace CMYK", "ImageMagick", 1))
            for c in ("None", "RLE")] + [row("bitmap by hand", psd_bitmap, "Pillow composite", bits=1)],
    "ico": [
        row("magick 4 bits", "convert -size 16x16 plasma:fractal -colors 16 {out}", first_icon, check=icon_depth(4)),
        row("magick 8 bits", "convert -size 32x32 plasma:fractal -colors 200 {out}", first_icon, check=icon_depth(8)),
        row("magick 32 bits, several sizes", "convert -size 64x64 plasma:fractal -define icon:auto-resize=32,16,64 {out}",
            first_icon, check=icon_depth(32)),
        row("Pillow 1 bit", pillow_icon("1", 32), first_icon, check=icon_depth(1)),
        row("Pillow 8 bits", pillow_icon("P", 16), first_icon, check=icon_depth(8)),
        row("Pillow 24 bits", pillow_icon("RGB", 64), first_icon, check=icon_depth(24)),
        row("netpbm 32 bits", "convert -size 32x32 plasma:fractal ppm:- | pamtowinicon 2>/dev/null > {out}", first_icon,
            check=icon_depth(32)),
    ],
    "msp": [row("version %d, %d wide" % (v, w), msp(w, v)) for v in (1, 2) for w in (37, 640)],
    # Sizes the earlier probes leave alone: a second width byte of 2 is taken
    # for a metafile, a narrow picture 1, 2, 3, 9, 10 or 11 rows high for Targa.
    "cut": [row("%dx%d" % s, cut(*s), "ImageMagick") for s in ((37, 23), (1000, 4), (5, 5))],
    "wpg": [row(name, wpg(w, h, depth, kind, vectors), "ImageMagick", bits=depth)
            for name, w, h, depth, kind, vectors in (
                ("1 bit", 37, 11, 1, 1, False), ("4 bits", 30, 20, 4, 1, True),
                ("8 bits, 4-byte head", 120, 90, 8, 1, True),
                ("1 bit, second kind", 100, 9, 1, 2, True), ("8 bits, second kind, 6-byte head", 300, 200, 8, 2, False))],
    # ilbmtoppm widens a changed hold-and-modify channel's bits by shifting,
    # 15 to 240 in six planes, where we repeat them as its own colour map
    # does, 15 to 255: the tolerances are those differences.
    "iff": [
        row("200 colours, 8 planes, ByteRun1", ilbm("-maxplanes 8", PAL), "ilbmtoppm", bits=8, check=against(PAL)),
        row("200 colours, 8 planes, plain", ilbm("-maxplanes 8 -nocompress", PAL), "ilbmtoppm", bits=8,
            check=against(PAL)),
        row("16 colours, 4 planes", ilbm("-maxplanes 4", SIXTEEN), "ilbmtoppm", bits=4, check=against(SIXTEEN)),
        row("bilevel, 1 plane", ilbm("", BILEVEL), "ilbmtoppm", bits=1, check=against(BILEVEL)),
        row("deep, 24 planes", ilbm("-24force", RGB), "ilbmtoppm", bits=24, check=against(RGB)),
        row("mask plane passed over", ilbm("-maxplanes 8", PAL, mask=True), "ilbmtoppm", bits=8, check=against(PAL)),
        row("hold-and-modify, 6 planes", ilbm("-hamforce", RGB), "ilbmtoppm", 15, 24),
        row("hold-and-modify, 8 planes", ilbm("-hamforce -ham8", RGB), "ilbmtoppm", 3, 24),
        # Pixels 32-63 take the first 32 colours at half brightness.
        row("extra-half-brite", lambda leaf: built(leaf, form(b"ILBM", 37, 21, 6, CMAP32, planar(IDX64, 6), camg=0x80)),
            "ilbmtoppm", bits=8, check=against(np.concatenate([CMAP32, CMAP32 // 2]).astype(np.uint8)[IDX64])),
        # PBM rows are padded to even length; ilbmtoppm shows these chunky
        # files otherwise: against the picture built only.
        row("chunky PBM",
            lambda leaf: built(leaf, form(b"PBM ", 37, 21, 8, CMAP256, b"".join(r.tobytes() + b"\0" for r in IDX256))),
            None, bits=8, check=against(CMAP256.astype(np.uint8)[IDX256])),
    ],
}


def file_case(ext, name, make, ref, tolerance, bits, check):
    def run():
        leaf = "%s_%s.%s" % (ext, re.sub(r"\W+", "_", name), ext)
        path = make(leaf) if callable(make) else B.make(make, leaf)
        ours = B.decodes_like(path, ref, tolerance) if ref else B.loaded(path)
        assert bits is None or ours.bits == bits, "%d bits, not %d" % (ours.bits, bits)
        if check:
            check(path, ours)
        if ext == "gif":
            gif_transparency(path, ours)
    return run


# ---- Cases of their own -------------------------------------------------------------
def dcx_saves_make_pages():
    """Repeated saves of pages of every depth make a DCX file read page by
    page here and, each page cut out, in Pillow."""
    name = B.tmp("pages.dcx")
    wants = []
    for cmd, src in [("pbmmake -g 53 7 | convert pbm:- -type bilevel bmp3:-", "w1.bmp"),
                     ("convert -size 61x17 plasma:fractal -colors 16 gif:-", "w4.gif"),
                     ("convert -size 301x77 plasma:fractal -colors 256 gif:-", "w8.gif"),
                     ("convert -size 99x33 plasma:fractal -type truecolor bmp3:-", "w24.bmp"),
                     ("convert -size 40x30 gradient:red-blue -colors 200 gif:-", "p4.gif")]:
        h = LIB.IMG_decompress_bitmap(B.make(cmd, src).encode())
        try:
            wants.append(B.picture_of(h))
            assert LIB.IMG_save_bitmap(h, name.encode(), -1) == 0, src
        finally:
            LIB.IMG_delete_bitmap(h)
    assert LIB.IMGLOW_get_pages(name.encode()) == len(wants)
    for i, want in enumerate(wants):
        B.compare(B.loaded(name, i).rgb(), want.rgb(), "page %d here" % i)
        B.compare(B.dcx_page_rgb(name, i), want.rgb(), "page %d in Pillow" % i)
    assert B.load(name, len(wants)) == -11, "one past the last page"


def imagemagick_dcx_reads_page_by_page():
    name = B.tmp("magick.dcx")
    B.run("convert -size 30x20 plasma:fractal -type truecolor -size 25x15 gradient:red-blue -colors 100 "
          "-size 19x9 plasma:fractal -colors 150 " + name)
    assert LIB.IMGLOW_get_pages(name.encode()) == 3
    for i in range(3):
        B.decodes_like(name, "ImageMagick", page=i)


def gif_global_table_wins_over_local():
    """Deliberate difference: Pillow uses the local table, we the global one."""
    p = giflib(4, 2, [(i * 60, 0, 0) for i in range(4)], rows=["0123", "3210"],
               local=[(0, i * 60, 200) for i in range(4)])("gl.gif")
    ours = B.loaded(p)
    with Image.open(p) as im:
        idx = np.asarray(im)
        local_rgb = np.asarray(im.convert("RGB"))
    assert (ours.indices() == idx).all(), "indices agree"
    B.compare(ours.rgb(), np.stack([idx * 60, idx * 0, idx * 0], axis=-1).astype(np.uint8), "global colours")
    assert (local_rgb[..., 2] == 200).all(), "Pillow shows the local table"


def icon_transparent_index_makes_the_mask():
    """A GIF's transparent index 5: our icon hides exactly those pixels in
    Pillow and ImageMagick, and Pillow shows the others in their colours."""
    idx = (np.arange(32)[:, None] * 3 + np.arange(32)[None, :]) % 9
    gif = Image.fromarray(idx.astype(np.uint8), "P")
    gif.putpalette([v for i in range(256) for v in ((i * 40) % 256, (i * 90) % 256, 255 - i)])
    gif.save(B.tmp("t.gif"), transparency=5)
    h = LIB.IMG_decompress_bitmap(B.tmp("t.gif").encode())
    want, hidden = B.picture_of(h).rgb(), idx == 5
    assert LIB.IMG_save_bitmap(h, B.tmp("t.ico").encode(), 25) == 0 and LIB.IMG_delete_bitmap(h) == 0
    rgba = np.asarray(Image.open(B.tmp("t.ico")).convert("RGBA"))
    magick = B.run(["convert", B.tmp("t.ico"), "-alpha", "extract", "-depth", "8", "gray:-"])
    assert ((rgba[:, :, 3] == 0) == hidden).all() and ((np.frombuffer(magick, np.uint8) == 0) == hidden.ravel()).all()
    B.compare(rgba[:, :, :3][~hidden], want[~hidden], "Pillow on the opaque pixels")


def refused():
    """A PNG icon gives -7; a WPG file of vector records only, -8."""
    Image.new("RGB", (32, 32)).save(B.tmp("png.ico"), sizes=[(32, 32)])
    assert B.load(B.tmp("png.ico")) == -7
    path = built("v.wpg", WPG_HEAD + record(15, bytes(6)) + VECTORS + record(16, b""))
    assert B.load(path) == -8


CASES = [("%s %s" % (ext, r[0]), file_case(ext, *r)) for ext, rows in FILES.items() for r in rows]
CASES += [
    ("repeated DCX saves read page by page here and in Pillow", dcx_saves_make_pages),
    ("ImageMagick DCX reads page by page", imagemagick_dcx_reads_page_by_page),
    ("GIF global table wins over local", gif_global_table_wins_over_local),
    ("icon: transparent index makes the mask", icon_transparent_index_makes_the_mask),
    ("PNG icon and vector-only WPG refused", refused),
]

if __name__ == "__main__":
    B.main(CASES)
