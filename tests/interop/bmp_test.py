"""BMP interoperability: files written by ImageMagick and netpbm decode to the
same pixels as Pillow reads from them, and what our writers produce (type 1
at 1, 4, 8 and 24 bits, type 12 at 4 and 8 bits) decodes the same in Pillow,
in ImageMagick and in our own reader."""
import ctypes
import os
import struct
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import brivanta as B  # noqa: E402

B.require("convert")
CONVERT = "/usr/bin/convert" if os.path.exists("/usr/bin/convert") else "convert"
LIB = B.LIB

# What the reader's result must equal, given a reference decode of the file
# (Pillow's and ImageMagick's, each compared in turn):
#   same     identical RGB
#   low5     16-bit 5-5-5: the reader keeps the low three bits of each component
#            zero, where the references scale them up
#   bilevel  a 1-bit file with a coloured palette: index 0 black, 1 white
# The detected type code is None for OS/2 files: detection reads their colour
# table or pixels where the compression field would be, deliberately.
# (file, how to compare, stored bits, detected type code)
READ_CASES = [
    ("im_1.bmp", "same", 1, 1),
    ("im_4.bmp", "same", 4, 1),
    ("im_8.bmp", "same", 8, 1),
    ("im_24.bmp", "same", 24, 1),
    ("im_rle8.bmp", "same", 8, 12),
    ("im_os2_4.bmp", "same", 4, None),
    ("im_os2_24.bmp", "same", 24, None),
    ("im_v5_4.bmp", "same", 4, 1),
    ("im_v5_8.bmp", "same", 8, 1),
    ("im_v5_24.bmp", "same", 24, 1),
    ("im_v5_32.bmp", "same", 24, 12),  # bit fields count as compressed for detection
    ("im_v5_16.bmp", "low5", 24, 12),
    ("nb_1.bmp", "same", 1, 1),
    ("nb_4.bmp", "same", 4, 1),
    ("nb_8.bmp", "same", 8, 1),
    ("nb_24.bmp", "same", 24, 1),
    ("nb_os2_1.bmp", "same", 1, None),
    ("nb_os2_4.bmp", "same", 4, None),
    ("nb_os2_8.bmp", "same", 8, None),
    ("nb_os2_24.bmp", "same", 24, None),
    ("nb_1_white_first.bmp", "same", 1, 1),
    ("nb_os2_1_white_first.bmp", "same", 1, None),
    ("nb_1_red_blue.bmp", "bilevel", 1, 1),
    ("td_8.bmp", "same", 8, 1),
    ("td_24.bmp", "same", 24, 1),
    ("cr_rle4.bmp", "same", 4, 12),
]


def pillow_indices(path):
    from PIL import Image
    with Image.open(path) as im:
        assert im.mode == "P", "expected a palette image from Pillow"
        return np.asarray(im)


def rle4_file(width, pixels):
    """One-row 4-bit RLE file holding a single absolute block of the pixels."""
    n = len(pixels)
    p = list(pixels) + [0] * (n & 1)
    body = bytes([0, n]) + bytes(p[k] << 4 | p[k + 1] for k in range(0, len(p), 2))
    body += b"\0" * (len(body) & 1) + b"\0\0\0\1"
    pal = b"".join(struct.pack("<I", 0x111111 * i) for i in range(16))
    head = struct.pack("<IiiHHIIiiII", 40, width, 1, 1, 4, 2, len(body), 0, 0, 16, 0)
    return b"BM" + struct.pack("<IHHI", 14 + 40 + 64 + len(body), 0, 0, 14 + 40 + 64) + head + pal + body


def pillow_reads_odd_rle4():
    """Some Pillow versions read an odd-length RLE4 absolute block one pixel
    short; such a Pillow cannot referee RLE4 files that have one."""
    from PIL import Image
    import io
    with Image.open(io.BytesIO(rle4_file(3, [1, 2, 3]))) as im:
        return list(np.asarray(im)[0]) == [1, 2, 3]


PILLOW_RLE4 = pillow_reads_odd_rle4()


def references(path):
    """(name, RGB) of each independent decoder that can judge the file."""
    refs = [("ImageMagick", B.tool_rgb([CONVERT, path, "-depth", "8", "ppm:-"]))]
    with open(path, "rb") as f:
        head = f.read(34)
    if PILLOW_RLE4 or not (struct.unpack_from("<I", head, 14)[0] >= 40 and struct.unpack_from("<I", head, 30)[0] == 2):
        refs.append(("Pillow", B.pillow_rgb(path)))
    return refs


def expected(path, how, ref):
    if how == "low5":
        return ref & 0xF8
    if how == "bilevel":
        return np.where(pillow_indices(path)[..., None] == 0, 0, 255).astype(np.uint8).repeat(3, axis=2)
    return ref


def read_case(name, how, bits, code):
    def check():
        path = B.fixture("bmp", name)
        pic = B.load(path)
        assert not isinstance(pic, int), "load failed with %d" % pic
        assert pic.bits == bits, "stored %d bits, expected %d" % (pic.bits, bits)
        if bits == 1:
            assert pic.palette[:8] == b"\0\0\0\0\xff\xff\xff\0", "bilevel palette not black, white"
        for who, ref in references(path):
            B.assert_same(pic.rgb(), expected(path, how, ref), "%s against %s" % (name, who))
        if code is not None:
            got = LIB.IMGLOW_get_filetype(path.encode())
            assert got == code, "detected type %d, expected %d" % (got, code)
        with open(path, "rb") as f:
            data = f.read()
        for what, other in (("memory", B.load_mem(data)), ("offset 517", B.load_at_offset(path, 517))):
            assert not isinstance(other, int), "%s load failed with %d" % (what, other)
            assert (other.bits, other.palette) == (pic.bits, pic.palette), what + ": header differs"
            B.assert_same(other.rgb(), pic.rgb(), name + " from " + what)
    return check


# ---- Our writers ----------------------------------------------------------------

def dib_bytes(indices_or_rgb, bits, palette):
    """A bare DIB (40-byte header, full colour table, bottom-up rows)."""
    h, w = indices_or_rgb.shape[:2]
    s = B.stride(w, bits)
    rows = []
    for y in range(h - 1, -1, -1):
        px = indices_or_rgb[y]
        if bits == 24:
            raw = px[:, ::-1].astype(np.uint8).tobytes()
        elif bits == 8:
            raw = px.astype(np.uint8).tobytes()
        elif bits == 4:
            p = np.append(px, 0) if w & 1 else px
            raw = (p[0::2] << 4 | p[1::2]).astype(np.uint8).tobytes()
        else:
            raw = np.packbits(px.astype(np.uint8)).tobytes()
        rows.append(raw.ljust(s, b"\0"))
    header = struct.pack("<IiiHHIIiiII", 40, w, h, 1, bits, 0, s * h, 0, 0, 0, 0)
    return header + palette + b"".join(rows)


def handle_from(indices_or_rgb, bits, palette):
    data = dib_bytes(indices_or_rgb, bits, palette)
    block = LIB.IMG_mem_alloc(len(data))
    addr = LIB.IMG_mem_lock(block)
    ctypes.memmove(addr, data, len(data))
    h = LIB.IMG_create_handle(addr)
    LIB.IMG_mem_unlock(block)
    LIB.IMG_mem_free(block)
    assert h >= 0, "IMG_create_handle failed with %d" % h
    return h


def synthetic(bits, width, height, seed):
    """Rows that stress run-length coding: long runs past 255, alternation,
    noise, growing runs and repeated pairs; plus a palette of distinct colours."""
    rng = np.random.default_rng(seed)
    top = {1: 2, 4: 16, 8: 256, 24: 256}[bits]
    shape = (height, width, 3) if bits == 24 else (height, width)
    px = rng.integers(0, top, size=shape)
    kinds = ["constant", "alternate", "noise", "growing", "pairs", "few"]
    for y in range(height):
        kind = kinds[y % len(kinds)]
        a, b = rng.integers(0, top, size=2)
        x = np.arange(width)
        if kind == "constant":
            px[y] = a
        elif kind == "alternate":
            px[y] = np.where(x & 1, a, b)[..., None] if bits == 24 else np.where(x & 1, a, b)
        elif kind == "growing":
            runs = np.repeat(np.arange(width), np.arange(1, width + 1))[:width]
            px[y] = (runs * 7 % top)[..., None] if bits == 24 else runs * 7 % top
        elif kind == "pairs":
            v = np.where((x // 2) & 1, a, b)
            px[y] = v[..., None] if bits == 24 else v
        elif kind == "few":
            v = rng.integers(0, 2, size=width) * (b - a) + a
            px[y] = v[..., None] if bits == 24 else v
    if bits == 24:
        return px.astype(np.uint8), b""
    if bits == 1:
        return px, b"\0\0\0\0\xff\xff\xff\0"
    colours = rng.permutation(1 << 24)[:top]  # distinct, so a wrong index shows
    pal = b"".join(struct.pack("<I", int(c)) for c in colours) + b"\0" * (4 * (256 - top) if bits == 8 else 0)
    return px, pal[: 4 << bits]


def save_case(type_code, bits, source):
    """source: a fixture name, or (width, height, seed) for a synthetic picture."""
    def check():
        if isinstance(source, str):
            h = B.load_handle(B.fixture("bmp", source))
            assert h >= 0, "fixture load failed with %d" % h
        else:
            px, pal = synthetic(bits, *source)
            h = handle_from(px, bits, pal)
        try:
            pic = B.picture_of(h)
            assert pic.bits == bits
            if not isinstance(source, str):  # the bare DIB load must give back what was built
                if bits == 24:
                    B.assert_same(pic.rgb(), px, "synthetic picture as loaded")
                else:
                    assert (pic.indices() == px).all() and pic.palette == pal, "synthetic picture as loaded"
            out = B.tmp("out.bmp")
            rc = LIB.IMG_save_bitmap(h, out.encode(), type_code)
            assert rc == 0, "save returned %d" % rc
        finally:
            LIB.IMG_delete_bitmap(h)
        with open(out, "rb") as f:
            data = f.read()
        compression = struct.unpack_from("<I", data, 30)[0]
        want = 0 if type_code == 1 else {4: 2, 8: 1}[bits]
        assert compression == want, "compression %d, expected %d" % (compression, want)
        ours = pic.rgb()
        back = B.load(out)
        assert not isinstance(back, int), "reload failed with %d" % back
        assert (back.bits, back.palette) == (pic.bits, pic.palette), "reloaded header differs"
        B.assert_same(back.rgb(), ours, "our reload")
        if type_code == 12:
            # bfSize holds the uncompressed size, deliberately; ImageMagick
            # refuses a size that is not the file's, so the references get a
            # copy with the true size.
            fixed = bytearray(data)
            struct.pack_into("<I", fixed, 2, len(fixed))
            out = B.tmp("sized.bmp")
            with open(out, "wb") as f:
                f.write(fixed)
        for who, ref in references(out):
            B.assert_same(ref, ours, who + "'s decode")
        if source == "im_24.bmp":  # 3780 pixels per metre loads as 96 dpi and saves as 3780 again
            assert struct.unpack_from("<ii", data, 38) == (3780, 3780), "resolution not kept"
    return check


# ---- Hostile files ---------------------------------------------------------------
# Crash files kept for the fuzz replays, with the codes they must give through
# the handle-level load and through the low-level load with accepting callbacks
# (which allocates no bitmap, so the reader's own size checks must hold).
# The fuzz replays run the same files under the sanitizers and count blocks.
CRASHERS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "fuzz", "crashers", "bmp")
HOSTILE = [
    ("empty_block", -7, -7),
    ("huge_24bit.bmp", -1, -3),
    ("wide_32bit_row.bmp", -1, -3),
    ("wide_16bit_row.bmp", -1, -3),
    ("rle4_row_size_overflow.bmp", -1, -1),
    ("offbits_wraps_negative.bmp", -12, -12),
]

ROW_FN = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int)
HEADER_FN = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)
ACCEPT_ROW = ROW_FN(lambda row, context, r, n: 0)
ACCEPT_HEADER = HEADER_FN(lambda header, context: 0)
LIB.IMGLOW_decompress_bitmap_mem.argtypes = [ctypes.c_void_p, ctypes.c_int, ROW_FN, ctypes.c_void_p, HEADER_FN]


def hostile_case(name, handle_code, low_code):
    def check():
        with open(os.path.join(CRASHERS, name), "rb") as f:
            data = f.read()
        got = B.load_mem(data)
        assert got == handle_code, "handle-level load gave %r, expected %d" % (got, handle_code)
        block = LIB.IMG_mem_alloc(len(data))
        addr = LIB.IMG_mem_lock(block)
        ctypes.memmove(addr, data, len(data))
        try:
            got = LIB.IMGLOW_decompress_bitmap_mem(addr, 0, ACCEPT_ROW, None, ACCEPT_HEADER)
        finally:
            LIB.IMG_mem_unlock(block)
            LIB.IMG_mem_free(block)
        assert got == low_code, "low-level load gave %d, expected %d" % (got, low_code)
    return check


WRITER_DEPTHS = {1: (1, 4, 8, 24), 12: (4, 8)}
FIXTURE_OF = {1: "nb_1.bmp", 4: "nb_4.bmp", 8: "nb_8.bmp", 24: "im_24.bmp"}
# Odd widths for half-byte runs, and lengths either side of the longest run.
SHAPES = [(601, 12, 1), (1, 3, 3), (3, 5, 5), (255, 6, 7), (257, 6, 9)]

cases = [("read " + c[0], read_case(*c)) for c in READ_CASES]
cases += [("hostile " + c[0], hostile_case(*c)) for c in HOSTILE]
for t, depths in WRITER_DEPTHS.items():
    for bits in depths:
        cases.append(("type %d, %d bits, %s" % (t, bits, FIXTURE_OF[bits]), save_case(t, bits, FIXTURE_OF[bits])))
        for shape in SHAPES:
            cases.append(("type %d, %d bits, synthetic %dx%d" % (t, bits, shape[0], shape[1]), save_case(t, bits, shape)))

if __name__ == "__main__":
    B.main(cases)
