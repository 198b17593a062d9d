"""WordPerfect graphics interop: no tool at hand writes WPG bitmaps, so the
files are built from the format's published record layout (runs, literal
bytes, row repeats, record heads of 2, 4 and 6 bytes, vector records around
the bitmap) and must load as ImageMagick reads them."""
import struct

import numpy as np

import brivanta as B

B.require("convert")
RNG = np.random.default_rng(11)
HEAD = b"\xffWPC" + struct.pack("<IBBBBHH", 16, 1, 0x16, 1, 0, 0, 0)
VECTORS = b"\x02\x08" + struct.pack("<4H", 0, 0, 99, 99) + b"\x05\x0e" + struct.pack("<7H", 3, 0, 0, 50, 0, 0, 50)


def record(kind, data):
    n = len(data)
    if n < 255:
        return bytes([kind, n]) + data
    long = struct.pack("<HH", 0x8000 | n >> 16, n & 0xFFFF) if n >= 0x8000 else struct.pack("<H", n)
    return bytes([kind, 255]) + long + data


def pack(rows):
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
    h, w = values.shape
    per = 8 // depth
    v = np.zeros((h, -(-w // per) * per), np.int64)
    v[:, :w] = values
    rows = [bytes((v[y].reshape(-1, per) << (per - 1 - np.arange(per)) * depth).sum(axis=1).astype(np.uint8))
            for y in range(h)]
    head = struct.pack("<5H", w, h, depth, 75, 75)
    placed = struct.pack("<5H", 0, 0, 0, w, h) if kind == 2 else b""  # the second kind's placement
    bitmap = record(11 if kind == 1 else 20, placed + head + pack(rows))
    colours = record(14, struct.pack("<HH", 0, 1 << depth) + RNG.integers(0, 256, 3 << depth, np.uint8).tobytes())
    return HEAD + record(15, struct.pack("<BBHH", 1, 0, w, h)) + colours + VECTORS * vectors + bitmap + \
        VECTORS * vectors + record(16, b"")


# name, width, height, depth, bitmap record kind, vector records around it
SOURCES = [("1 bit", 37, 11, 1, 1, False), ("4 bits", 30, 20, 4, 1, True), ("8 bits, 4-byte head", 120, 90, 8, 1, True),
           ("1 bit, second kind", 100, 9, 1, 2, True), ("8 bits, second kind, 6-byte head", 300, 200, 8, 2, False)]


def loads_like_magick(name, w, h, depth, kind, vectors):
    def check():
        path = B.tmp(name.replace(" ", "_").replace(",", "") + ".wpg")
        v = RNG.integers(0, 1 << depth, (h, w))  # noise, a flat band, repeated rows
        v[h // 3: h // 2], v[h // 2: h // 2 + 4] = (1 << depth) - 1, v[h // 2]
        open(path, "wb").write(wpg_file(v, depth, kind, vectors))
        assert B.decodes_like(path, "ImageMagick").bits == depth
    return check


def vectors_only_is_refused():
    open(B.tmp("v.wpg"), "wb").write(HEAD + record(15, bytes(6)) + VECTORS + record(16, b""))
    assert B.load(B.tmp("v.wpg")) == -8


CASES = [(s[0], loads_like_magick(*s)) for s in SOURCES] + [("vectors only give -8", vectors_only_is_refused)]

if __name__ == "__main__":
    B.main(CASES)
