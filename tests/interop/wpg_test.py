"""WordPerfect graphics interop: no tool at hand writes WPG bitmaps, so the
files are built here from the format's published record layout (runs,
literal blocks, row repeats, record heads of 2, 4 and 6 bytes, vector
records around the bitmap) and must load as ImageMagick reads them."""
import struct

import numpy as np

import brivanta as B

B.require("convert")
RNG = np.random.default_rng(11)


def record(kind, data):
    n = len(data)
    if n < 255:
        head = bytes([kind, n])
    elif n < 0x8000:
        head = bytes([kind, 255]) + struct.pack("<H", n)
    else:
        head = bytes([kind, 255]) + struct.pack("<HH", 0x8000 | n >> 16, n & 0xFFFF)
    return head + data


def pack_row(row):
    """Runs of three or more as (0x80 | n, value), the rest as literal blocks."""
    out, i = bytearray(), 0
    while i < len(row):
        j = i
        while j < len(row) and j - i < 127 and row[j] == row[i]:
            j += 1
        if j - i >= 3:
            out += bytes([0x80 | (j - i), row[i]])
            i = j
            continue
        k = i
        while k < len(row) and k - i < 127 and not (k + 2 < len(row) and row[k] == row[k + 1] == row[k + 2]):
            k += 1
        out += bytes([k - i]) + row[i:k]
        i = k
    return bytes(out)


def pack_rows(rows):
    """Each row packed, a row equal to the one before as a repeat (0, n)."""
    out, y = b"", 0
    while y < len(rows):
        out += pack_row(rows[y])
        n = 1
        while y + n < len(rows) and n < 255 and rows[y + n] == rows[y]:
            n += 1
        if n > 1:
            out += bytes([0, n - 1])
        y += n
    return out


def packed_rows(values, depth):
    per = 8 // depth
    h, w = values.shape
    padded = np.zeros((h, -(-w // per) * per), np.int64)
    padded[:, :w] = values
    shifts = (per - 1 - np.arange(per)) * depth
    return [bytes((padded[y].reshape(-1, per) << shifts).sum(axis=1).astype(np.uint8)) for y in range(h)]


VECTORS = (record(0x02, struct.pack("<4H", 0, 0, 100, 100)) +  # a line
           record(0x05, struct.pack("<H", 3) + struct.pack("<6H", 0, 0, 50, 0, 0, 50)))  # a polygon


def wpg_file(values, depth, kind=1, vectors=False):
    h, w = values.shape
    palette = RNG.integers(0, 256, (1 << depth, 3), dtype=np.uint8)
    body = record(0x0F, bytes([1, 0]) + struct.pack("<HH", w, h))
    body += record(0x0E, struct.pack("<HH", 0, 1 << depth) + palette.tobytes())
    if vectors:
        body += VECTORS
    head = struct.pack("<5H", w, h, depth, 75, 75)
    if kind == 2:
        head = struct.pack("<5H", 0, 0, 0, w, h) + head
    body += record(0x0B if kind == 1 else 0x14, head + pack_rows(packed_rows(values, depth)))
    if vectors:
        body += VECTORS
    body += record(0x10, b"")
    return b"\xffWPC" + struct.pack("<IBBBBHH", 16, 1, 0x16, 1, 0, 0, 0) + body


def picture(w, h, depth):
    """Noise with flat bands and repeated rows, so every control byte occurs."""
    v = RNG.integers(0, 1 << depth, (h, w))
    v[h // 3: h // 2] = (1 << depth) - 1
    v[h // 2: h // 2 + 4] = v[h // 2]
    return v


# name, width, height, depth, bitmap record kind, vector records around it
SOURCES = [
    ("1 bit", 37, 11, 1, 1, False),
    ("4 bits", 30, 20, 4, 1, False),
    ("8 bits", 41, 17, 8, 1, True),
    ("1 bit, second bitmap kind", 100, 9, 1, 2, True),
    ("8 bits, second bitmap kind", 19, 23, 8, 2, False),
    ("8 bits in a record of a 4-byte head", 120, 90, 8, 1, False),
    ("8 bits in a record of a 6-byte head", 300, 200, 8, 1, True),
]


def loads_like_magick(name, w, h, depth, kind, vectors):
    def check():
        path = B.tmp(name.replace(" ", "_").replace(",", "") + ".wpg")
        data = wpg_file(picture(w, h, depth), depth, kind, vectors)
        open(path, "wb").write(data)
        if "6-byte" in name:
            assert len(data) > 0x8000, "the bitmap record must need the long head"
        ours = B.decodes_like(path, "ImageMagick")
        assert (ours.width, ours.height, ours.bits) == (w, h, depth)
    return check


def vectors_only_is_refused():
    path = B.tmp("vectors.wpg")
    open(path, "wb").write(b"\xffWPC" + struct.pack("<IBBBBHH", 16, 1, 0x16, 1, 0, 0, 0) +
                           record(0x0F, bytes([1, 0, 100, 0, 100, 0])) + VECTORS + record(0x10, b""))
    assert B.load(path) == -8


CASES = [("loads like ImageMagick: " + s[0], loads_like_magick(*s)) for s in SOURCES]
CASES.append(("a file of vector records only is refused with -8", vectors_only_is_refused))

if __name__ == "__main__":
    B.main(CASES)
