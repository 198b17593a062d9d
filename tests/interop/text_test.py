"""Text import interop: pages rendered here against Pillow's rasteriser of
the same font file at the same size (the face that fontconfig gives for
"Courier New"), compared line by line by where the ink lies and how much
of it there is, and by how nearly each one's ink lies next to the other's,
not glyph pixel by pixel."""
import ctypes
import struct
import subprocess

import numpy as np
from PIL import Image, ImageDraw, ImageFont

import brivanta as B

B.require("fc-match")


class Attributes(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("mask", ctypes.c_ushort), ("reserved", ctypes.c_ushort), ("x_dpi", ctypes.c_short),
                ("y_dpi", ctypes.c_short), ("margins", ctypes.c_int * 4), ("tab", ctypes.c_short),
                ("page_width", ctypes.c_int), ("page_height", ctypes.c_int), ("font_height", ctypes.c_int),
                ("line_chars", ctypes.c_short), ("page_lines", ctypes.c_short), ("bold", ctypes.c_int),
                ("italic", ctypes.c_int), ("face", ctypes.c_char * 32)]


assert ctypes.sizeof(Attributes) == 82
B.LIB.IMG_import_ascii.argtypes = [ctypes.c_char_p, ctypes.c_int]

DPI, MARGIN = 100, 500          # a 50-pixel margin
PAGE_W, PAGE_H = 8000, 6000     # 800 x 600 pixels
LINES = ["Row one: the quick brown fox", "Row two: jumps over", "", "Row four: 0123456789 {}[]<>",
         "Row five: MWMW iiii ...."]


def face_file(style):
    return subprocess.check_output(["fc-match", "-f", "%{file}", "Courier New:" + style]).decode()


def cell_units(path):
    """unitsPerEm and the Windows ascent and descent, from the font's own tables."""
    data = open(path, "rb").read()
    tables = {}
    for i in range(struct.unpack(">H", data[4:6])[0]):
        tag, _, offset, _ = struct.unpack(">4sIII", data[12 + 16 * i: 28 + 16 * i])
        tables[tag] = offset
    upem = struct.unpack(">H", data[tables[b"head"] + 18: tables[b"head"] + 20])[0]
    win_ascent, win_descent = struct.unpack(">HH", data[tables[b"OS/2"] + 74: tables[b"OS/2"] + 78])
    return upem, win_ascent, win_descent


def ours(cell, style):
    a = Attributes(mask=0x0001 | 0x0002 | 0x0004 | 0x0010 | 0x0020 | 0x0040 | 0x0200 | 0x0400 | 0x0800,
                   x_dpi=DPI, y_dpi=DPI, page_width=PAGE_W, page_height=PAGE_H, font_height=cell,
                   bold=int(style == "bold"), italic=int(style == "italic"), face=b"Courier New")
    a.margins[:] = [MARGIN] * 4
    B.LIB.IMGLOW_set_ascii_attributes(ctypes.byref(a))
    path = B.tmp("lines.txt")
    with open(path, "w") as f:
        f.write("\n".join(LINES) + "\n")
    return B.take_picture(B.LIB.IMG_import_ascii(path.encode(), 0)).indices() == 0  # ink is index 0


def pillows(em, pitch, style):
    font = ImageFont.truetype(face_file(style), em)
    page = Image.new("L", (PAGE_W * DPI // 1000, PAGE_H * DPI // 1000), 255)
    draw = ImageDraw.Draw(page)
    draw.fontmode = "1"
    top = MARGIN * DPI // 1000
    for i, line in enumerate(LINES):
        draw.text((top, top + i * pitch), line, font=font, fill=0, anchor="la")
    return np.array(page) < 128


def line_ink(ink, top, pitch):
    """Per text line: first and last inked row and column, and the ink count."""
    out = []
    for i in range(len(LINES)):
        band = ink[top + i * pitch: top + (i + 1) * pitch]
        rows, cols = np.nonzero(band.any(axis=1))[0], np.nonzero(band.any(axis=0))[0]
        out.append(None if not len(rows) else (rows[0], rows[-1], cols[0], cols[-1], int(band.sum())))
    return out


def near(a, b):
    """The share of a's ink that lies within one pixel of b's."""
    grown = b.copy()
    for dy in (-1, 0, 1):
        for dx in (-1, 0, 1):
            grown |= np.roll(np.roll(b, dy, axis=0), dx, axis=1)
    return (a & grown).sum() / max(1, a.sum())


def same_lines(style):
    def case():
        upem, asc, desc = cell_units(face_file(style))
        em = 40
        cell = round(em * (asc + desc) / upem)
        got = ours(cell, style)
        assert got.shape == (600, 800), got.shape
        # The pitch between lines is the cell height, give or take rounding.
        row_ink = np.nonzero(got.any(axis=1))[0]
        starts = [row_ink[0]] + [r for p, r in zip(row_ink, row_ink[1:]) if r > p + 1]
        pitch = starts[1] - starts[0]
        assert abs(pitch - cell) <= 1, (pitch, cell)
        want = pillows(em, pitch, style)
        top = MARGIN * DPI // 1000
        assert not got[:top].any() and not got[:, :top].any(), "ink in the top or left margin"
        for i, (g, w) in enumerate(zip(line_ink(got, top, pitch), line_ink(want, top, pitch))):
            assert (g is None) == (w is None), "line %d: ink here %s, Pillow %s" % (i, g, w)
            if g is None:
                continue
            assert all(abs(a - b) <= 2 for a, b in zip(g[:4], w[:4])), "line %d extent %s, Pillow %s" % (i, g, w)
            assert abs(g[4] - w[4]) <= 0.1 * w[4], "line %d ink %d, Pillow %d" % (i, g[4], w[4])
        # The glyphs' shapes: nearly all ink of either lies next to ink of the other
        # (an upright face against the italic one comes to 0.93).
        assert min(near(got, want), near(want, got)) >= 0.97, (near(got, want), near(want, got))
    return case


B.main([
    ("regular lines as Pillow draws them", same_lines("regular")),
    ("bold lines as Pillow draws the bold face", same_lines("bold")),
    ("italic lines as Pillow draws the italic face", same_lines("italic")),
])
