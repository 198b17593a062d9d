"""Every writer at every depth, against independent decoders: each file we
write is decoded by tools that are not ours and compared with the picture
the user saw before saving (the handle's pixels through its palette), never
with our own reading of the file; libtiff's tools list every TIFF's tags and
copy it.  Depths a writer does not take must be refused.  Last, the demo's
round trip: every lossless row comes back identical."""
import os
import struct
import subprocess

import numpy as np

import brivanta as B

B.require("tiffcp", "tiffinfo", "tiff2rgba", "g3topbm", "pcxtoppm", "giftopnm", "tgatoppm", "djpeg", "convert",
          "xbmtopbm", "xpmtoppm", "rasttopnm", "xwdtopnm", "ilbmtoppm")
LIB = B.LIB


def handle_of(px, bits, palette, put_palette=None):
    """A new handle holding the picture; put_palette replaces its colour
    table after the load (the BMP reader makes every bilevel table black
    and white, so other two-colour tables are set this way)."""
    h = B.in_block(B.bmp_file(px, bits, palette), lambda a: LIB.IMG_decompress_bitmap_mem(a, 0))
    assert h >= 0, "source load gave %d" % h
    if put_palette:
        table = b"".join(bytes((b, g, r, 0)) for r, g, b in put_palette)
        assert LIB.IMGLOW_put_palette(h, table) == 0
    return h


RNG = np.random.default_rng(7)
PAGE = np.asarray(B.test_page(403, 300)).astype(np.uint8)  # 1 = white
RGB = np.asarray(B.test_rgb(83, 57))
GREYS = [(i, i, i) for i in range(256)]
BW = [(0, 0, 0), (255, 255, 255)]
# Pictures the writers get; each is (pixels, bits, palette, palette set after the load).
SOURCES = {
    "1": (PAGE, 1, BW, None),
    # Two colours that are not black and white, the darker one either way round.
    "1 dark first": (PAGE, 1, BW, [(20, 30, 90), (250, 240, 200)]),
    "1 light first": (1 - PAGE, 1, BW, [(250, 240, 200), (20, 30, 90)]),
    "4": ((RGB[:, :, 0] // 16 ^ RGB[:, :, 2] // 32) & 15, 4, [tuple(c) for c in RNG.integers(0, 256, (16, 3))], None),
    "8": ((RGB[:, :, 0].astype(int) + RGB[:, :, 1] // 2) % 256, 8, [tuple(c) for c in RNG.integers(0, 256, (256, 3))],
          None),
    "8 grey": (RGB[:, :, 1], 8, GREYS, None),
    "24": (RGB, 24, [], None),
    # Icons hold at most 256 × 256.
    "1 icon": (PAGE[:64, :80], 1, BW, None),
}


def raw_g4_in_tiff(path, width, height):
    """Raw Group 4 data wrapped in a minimal white-is-zero TIFF for Pillow."""
    data = open(path, "rb").read()
    entries = [(256, 3, 1, width), (257, 3, 1, height), (258, 3, 1, 1), (259, 3, 1, 4), (262, 3, 1, 0),
               (273, 4, 1, 8 + 2 + 8 * 12 + 4), (278, 4, 1, height), (279, 4, 1, len(data))]
    ifd = struct.pack("<H", len(entries)) + b"".join(struct.pack("<HHII", *e) for e in entries) + b"\0" * 4
    with open(path + ".tif", "wb") as f:
        f.write(b"II*\0" + struct.pack("<I", 8) + ifd + data)
    return B.pillow_rgb(path + ".tif")


def bmp_true_size(path):
    """ImageMagick on our RLE BMP, whose bfSize holds the unpacked size (a
    kept quirk it refuses), so it gets the true size.  (Some Pillow versions
    misread odd RLE4 blocks.)"""
    data = bytearray(open(path, "rb").read())
    struct.pack_into("<I", data, 2, len(data))
    open(path + ".bmp", "wb").write(data)
    return B.REFERENCES["ImageMagick"](path + ".bmp")


def cals_standard_density(path):
    """ImageMagick on our CALS file, whose density record is spelled
    "rdensity" (the library's own text, kept), which it refuses: it gets a
    copy with the standard "rdensty" record."""
    data = bytearray(open(path, "rb").read())
    assert data[9 * 128: 9 * 128 + 22] == b"rdensity: 200         "
    data[9 * 128: 9 * 128 + 22] = b"rdensty: 200".ljust(22)
    open(path + ".cal", "wb").write(data)
    return B.REFERENCES["ImageMagick"](path + ".cal")


def clipboard_dib_in_pillow(path):
    """The CF_DIB entry, found by the file's published layout (89-byte
    entries), behind a BMP file header for Pillow."""
    data = open(path, "rb").read()
    entries = [struct.unpack_from("<HII", data, 4 + 89 * i) for i in range(struct.unpack_from("<H", data, 2)[0])]
    dib = next(data[at: at + n] for kind, n, at in entries if kind == 8)
    bits = dib[14]
    with open(path + ".bmp", "wb") as f:
        f.write(b"BM" + struct.pack("<IHHI", 14 + len(dib), 0, 0, 54 + (0 if bits == 24 else 4 << bits)) + dib)
    return B.pillow_rgb(path + ".bmp")


def metafile_in_magick(path):
    """ImageMagick's metafile delegate, playing our file at its 96 units per inch."""
    return B.image_rgb(B.run(["convert", "-density", "96", path, "-depth", "8", "ppm:-"]))


PILLOW, MAGICK, libtiff, xwdtopnm = (B.REFERENCES[r] for r in ("Pillow", "ImageMagick", "libtiff", "xwdtopnm"))
TOOL = lambda name: B.REFERENCES[name]
ALL = "1 4 8 24"
# type: (depths taken, extension, decoders, tolerance or PSNR floor)
EXACT = 0
WRITERS = {
    0: (ALL, "tif", [PILLOW, libtiff], EXACT),
    1: (ALL, "bmp", [PILLOW, MAGICK], EXACT),
    2: (ALL, "pcx", [PILLOW, TOOL("pcxtoppm")], EXACT),
    3: ("8 24", "tga", [PILLOW, TOOL("tgatoppm")], EXACT),
    4: ("4 8", "gif", [PILLOW, TOOL("giftopnm")], EXACT),
    5: ("1 4 8", "wpg", [MAGICK], EXACT),
    6: (ALL, "wmf", [metafile_in_magick], EXACT),
    7: ("1", "tif", [PILLOW, libtiff, MAGICK], EXACT),
    8: ("1", "tif", [PILLOW, libtiff, MAGICK], EXACT),
    9: (ALL, "tif", [PILLOW, libtiff], EXACT),
    10: ("1", "tif", [PILLOW, libtiff, MAGICK], EXACT),
    11: (ALL, "dcx", [B.dcx_page_rgb], EXACT),
    12: ("4 8", "bmp", [bmp_true_size], EXACT),
    # A loose floor: a swapped channel or a shifted row falls far below it.
    13: ("8 24", "jpg", [TOOL("djpeg"), PILLOW], ("floor", 20.0)),
    15: (ALL, "pct", [MAGICK], EXACT),
    16: (ALL, "tif", [PILLOW, libtiff], EXACT),
    18: ("1", "cal", [cals_standard_density], EXACT),
    20: ("1", "xbm", [TOOL("xbmtopbm"), MAGICK], EXACT),
    25: (ALL, "ico", [PILLOW, MAGICK], EXACT),
    26: (ALL, "iff", [TOOL("ilbmtoppm")], EXACT),
    27: (ALL, "clp", [clipboard_dib_in_pillow], EXACT),
    # netpbm fills the low three bits of each five-bit channel.
    32: ("24", "tga", [TOOL("tgatoppm")], 7),
    33: ("1", "g3", [TOOL("g3topbm")], EXACT),
    34: ("1", "g4", [lambda p: raw_g4_in_tiff(p, PAGE.shape[1], PAGE.shape[0])], EXACT),
    35: ("1 4 8", "xpm", [TOOL("xpmtoppm"), MAGICK], EXACT),
    36: (ALL, "xwd", [xwdtopnm, MAGICK], EXACT),
    37: (ALL, "ras", [TOOL("rasttopnm"), PILLOW, MAGICK], EXACT),
    40: ("8 24", "tif", [libtiff], ("floor", 20.0)),
    # Pillow's composite (ImageMagick reads no layerless indexed document: it reads the 24-bit one below).
    41: ("1 8 24", "psd", [lambda p: B.image_rgb(open(p, "rb").read())], EXACT),
    43: (ALL, "png", [PILLOW, MAGICK], EXACT),
}
# Bilevel formats without a colour table (and Sun raster, whose readers
# disagree on bilevel maps): the darker colour is black.
FAX = {7, 8, 10, 18, 20, 33, 34, 37}
# An 8-bit type 40 file points its interchange offset into the stream, as
# the layout requires; no reader takes it, so only its writing is checked.
UNDECODED = {(40, 8)}


def as_fax(pic):
    """A bilevel picture as a fax shows it: the darker colour black, the
    other white."""
    pal = np.frombuffer(pic.palette, np.uint8).reshape(-1, 4)[:2, :3].astype(int) @ [114, 587, 299]
    black = 1 if pal[1] < pal[0] else 0
    return np.where((pic.indices() == black)[:, :, None], 0, 255).astype(np.uint8).repeat(3, axis=2)


TIFF_TAGS = ("Image Width", "Bits/Sample", "Compression Scheme", "Photometric", "Resolution", "DateTime", "Artist",
             "Rows/Strip", "Planar Configuration")
# JPEG codes palette pictures by index: only an identity grey ramp is a picture it can keep.
SOURCE_FOR = {13: {"8": "8 grey"}, 40: {"8": "8 grey"}, 25: {"1": "1 icon"}}


def writer_case(type_code, source, decoders=None):
    depths, ext, all_decoders, accuracy = WRITERS[type_code]
    decoders = decoders or all_decoders
    px, bits, palette, put = SOURCES[source]

    def check():
        out = B.tmp("w%d_%s.%s" % (type_code, source.replace(" ", "_"), ext))
        if os.path.exists(out):
            os.remove(out)
        h = handle_of(px, bits, palette, put)
        try:
            pic = B.picture_of(h)
            want = as_fax(pic) if type_code in FAX and bits == 1 else pic.rgb()
            rc = LIB.IMG_save_bitmap(h, out.encode(), type_code)
        finally:
            LIB.IMG_delete_bitmap(h)
        if str(bits) not in depths.split():
            assert rc < 0, "type %d took a %d-bit picture" % (type_code, bits)
            return
        assert rc == 0, "type %d from %s gave %d" % (type_code, source, rc)
        for decode in decoders if (type_code, bits) not in UNDECODED else []:
            got = decode(out)[: want.shape[0], : want.shape[1]]
            if isinstance(accuracy, tuple):
                B.compare(got, want, "%s on type %d" % (getattr(decode, "__name__", "?"), type_code), floor=accuracy[1])
            else:
                B.compare(got, want, "%s on type %d" % (getattr(decode, "__name__", "?"), type_code), accuracy)
        if type_code in (7, 8, 10, 18, 20):  # and our reader shows the same page, whichever palette it had
            B.compare(B.loaded(out).rgb(), want, "our reader on type %d" % type_code)
        if ext == "tif" and type_code != 40:  # libtiff lists the tags and copies the file without complaint
            info = B.run(["tiffinfo", out]).decode(errors="replace")
            assert all(t in info for t in TIFF_TAGS), "tiffinfo lacks some of %s:\n%s" % (TIFF_TAGS, info)
            r = subprocess.run(["tiffcp", out, out + ".copy.tif"], capture_output=True)
            assert r.returncode == 0 and b"rror" not in r.stderr, "tiffcp: %s" % r.stderr[:300]
        if type_code in (13, 43):  # grey pictures stay grey; PNG keeps the source's 96 dots per inch
            with B.Image.open(out) as im:
                assert (im.mode in ("1", "L")) == (source in ("1", "8 grey")), im.mode
                assert type_code == 13 or round(im.info["dpi"][0]) == 96, im.info
    return check


def demo_round_trip():
    """The demo's table: every lossless writer's file reads back identical,
    or with the same colours at another depth or table (or is marked as a
    type the library writes but does not read)."""
    lossy = {13, 32, 40}
    text_only = {14}  # EPS we write is PostScript text, which Ghostscript reads (eps_test.py)
    lines = B.run([B.TOOL, "demo", B.tmp("demo")]).decode().splitlines()
    # The round-trip table ends at its summary line; the colour operations follow.
    table = lines[1:next(i for i, line in enumerate(lines) if "files written" in line)]
    bad = [line for line in table
           if int(line.split()[0]) not in lossy | text_only and not any(v in line for v in ("identical", "same colours", "refused", "write only"))]
    assert not bad, "\n".join(bad)


def sunras_rle(source):
    """Type 37 with run-length output: the same pictures in the readers, and
    a header whose type and length fields say what follows.  netpbm only:
    Pillow and ImageMagick size run-length data without the rows' padding
    to 16 bits, which odd widths have, and ImageMagick takes such 24-bit
    rows as red, green, blue."""
    check = writer_case(37, source, [TOOL("rasttopnm")])

    def run():
        assert LIB.IMGLOW_set_sunras_rle(1) == 0
        try:
            check()
        finally:
            assert LIB.IMGLOW_set_sunras_rle(0) == 1
        data = open(B.tmp("w37_%s.ras" % source.replace(" ", "_")), "rb").read()
        kind, _, map_length = struct.unpack_from(">III", data, 20)
        assert kind == 2 and struct.unpack_from(">I", data, 16)[0] == len(data) - 32 - map_length
    return run


CASES = [("type 37 run-length from %s" % s, sunras_rle(s)) for s in ("1", "8", "24")]
for t in WRITERS:
    for s in SOURCES:
        if s == "1 icon" or s.startswith("1 ") and WRITERS[t][0] != "1":
            continue  # the coloured bilevel tables matter to the fax coders
        s = SOURCE_FOR.get(t, {}).get(s, s)
        if ("type %d from %s" % (t, s), t) not in [(n, t) for n, _ in CASES]:
            CASES.append(("type %d from %s" % (t, s), writer_case(t, s)))
CASES.append(("type 41 from 24 in ImageMagick", writer_case(41, "24", [MAGICK])))
CASES.append(("demo round trip", demo_round_trip))

if __name__ == "__main__":
    # DCX saves use a temporary file: keep ours apart.
    os.environ["TMPDIR"] = os.path.dirname(B.tmp("x"))
    B.main(CASES)
