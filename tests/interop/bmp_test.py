"""BMP interoperability: files written by ImageMagick and netpbm decode to the
same pixels as Pillow and ImageMagick read from them; hostile files give
their codes.  (Our writers are checked in writers_test.py.)"""
import ctypes
import os
import struct

import numpy as np

import brivanta as B

B.require("convert")
LIB = B.LIB

# What the reader's result must equal, given a reference decode of the file:
#   same     identical RGB
#   low5     16-bit 5-5-5: the reader keeps the low three bits of each component
#            zero, where the references scale them up
#   bilevel  a 1-bit file with a coloured palette: index 0 black, 1 white
# The detected type code is None for OS/2 files: detection reads their colour
# table or pixels where the compression field would be, deliberately.
# (file, how to compare, stored bits, detected type code)
READ_CASES = [
    ("im_1.bmp", "same", 1, 1), ("im_4.bmp", "same", 4, 1), ("im_8.bmp", "same", 8, 1),
    ("im_24.bmp", "same", 24, 1), ("im_rle8.bmp", "same", 8, 12), ("im_os2_4.bmp", "same", 4, None),
    ("im_os2_24.bmp", "same", 24, None), ("im_v5_4.bmp", "same", 4, 1), ("im_v5_8.bmp", "same", 8, 1),
    ("im_v5_24.bmp", "same", 24, 1),
    ("im_v5_32.bmp", "same", 24, 12),  # bit fields count as compressed for detection
    ("im_v5_16.bmp", "low5", 24, 12), ("nb_1.bmp", "same", 1, 1), ("nb_4.bmp", "same", 4, 1),
    ("nb_8.bmp", "same", 8, 1), ("nb_24.bmp", "same", 24, 1), ("nb_os2_1.bmp", "same", 1, None),
    ("nb_os2_4.bmp", "same", 4, None), ("nb_os2_8.bmp", "same", 8, None), ("nb_os2_24.bmp", "same", 24, None),
    ("nb_1_white_first.bmp", "same", 1, 1), ("nb_os2_1_white_first.bmp", "same", 1, None),
    ("nb_1_red_blue.bmp", "bilevel", 1, 1), ("td_8.bmp", "same", 8, 1), ("td_24.bmp", "same", 24, 1),
    ("cr_rle4.bmp", "same", 4, 12),
]


def references(path):
    """ImageMagick, and Pillow but for RLE4 files: some Pillow versions read
    an odd-length RLE4 absolute block one pixel short."""
    with open(path, "rb") as f:
        head = f.read(34)
    rle4 = struct.unpack_from("<I", head, 14)[0] >= 40 and struct.unpack_from("<I", head, 30)[0] == 2
    return ["ImageMagick"] + ([] if rle4 else ["Pillow"])


def read_case(name, how, bits, code):
    def check():
        path = B.fixture("bmp", name)
        pic = B.loaded(path)
        assert pic.bits == bits, "stored %d bits, expected %d" % (pic.bits, bits)
        if bits == 1:
            assert pic.palette[:8] == b"\0\0\0\0\xff\xff\xff\0", "bilevel palette not black, white"
        for who in references(path):
            ref = B.REFERENCES[who](path)
            if how == "low5":
                ref = ref & 0xF8
            elif how == "bilevel":
                with B.Image.open(path) as im:
                    ref = np.where(np.asarray(im)[..., None] == 0, 0, 255).astype(np.uint8).repeat(3, axis=2)
            B.compare(pic.rgb(), ref, "%s against %s" % (name, who))
        if code is not None:
            got = LIB.IMGLOW_get_filetype(path.encode())
            assert got == code, "detected type %d, expected %d" % (got, code)
        with open(path, "rb") as f:
            data = f.read()
        for what, other in (("memory", B.load_mem(data)), ("offset 517", B.load_at_offset(path, 517))):
            assert not isinstance(other, int), "%s load failed with %d" % (what, other)
            assert (other.bits, other.palette) == (pic.bits, pic.palette), what + ": header differs"
            B.compare(other.rgb(), pic.rgb(), name + " from " + what)
    return check


# ---- Hostile files ---------------------------------------------------------------
# Crash files kept for the fuzz replays, with the codes they must give through
# the handle-level load and through the low-level load with accepting callbacks
# (which allocates no bitmap, so the reader's own size checks must hold).
CRASHERS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "fuzz", "crashers", "bmp")
HOSTILE = [("empty_block", -7, -7), ("huge_24bit.bmp", -1, -3), ("wide_32bit_row.bmp", -1, -3),
           ("wide_16bit_row.bmp", -1, -3), ("rle4_row_size_overflow.bmp", -1, -1),
           ("offbits_wraps_negative.bmp", -12, -12)]
ROW_FN = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int)
HEADER_FN = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)
ACCEPT_ROW, ACCEPT_HEADER = ROW_FN(lambda row, context, r, n: 0), HEADER_FN(lambda header, context: 0)
LIB.IMGLOW_decompress_bitmap_mem.argtypes = [ctypes.c_void_p, ctypes.c_int, ROW_FN, ctypes.c_void_p, HEADER_FN]


def hostile_case(name, handle_code, low_code):
    def check():
        with open(os.path.join(CRASHERS, name), "rb") as f:
            data = f.read()
        got = B.load_mem(data)
        assert got == handle_code, "handle-level load gave %r, expected %d" % (got, handle_code)
        got = B.in_block(data, lambda a: LIB.IMGLOW_decompress_bitmap_mem(a, 0, ACCEPT_ROW, None, ACCEPT_HEADER))
        assert got == low_code, "low-level load gave %d, expected %d" % (got, low_code)
    return check


cases = [("read " + c[0], read_case(*c)) for c in READ_CASES]
cases += [("hostile " + c[0], hostile_case(*c)) for c in HOSTILE]

if __name__ == "__main__":
    B.main(cases)
