"""CUT interop: no tool writes CUT files, so they are coded here from small
recipes (runs and literals, lines ending in a zero item) and must load as
ImageMagick reads them: grey levels equal to the stored values."""
import struct

import numpy as np

import brivanta as B

B.require("convert")


def code_line(row):
    """Runs of three or more (at most 127) and literals (at most 127), then
    the zero item that ends a line."""
    out, i, lit = bytearray(), 0, bytearray()
    while i < len(row):
        n = 1
        while i + n < len(row) and n < 127 and row[i + n] == row[i]:
            n += 1
        if n >= 3 or len(lit) == 127:
            if lit:
                out += bytes([len(lit)]) + lit
                lit = bytearray()
        if n >= 3:
            out += bytes([0x80 | n, row[i]])
            i += n
        else:
            lit.append(row[i])
            i += 1
    if lit:
        out += bytes([len(lit)]) + lit
    out.append(0)
    return struct.pack("<H", len(out)) + bytes(out)


def check(w, h):
    y, x = np.mgrid[0:h, 0:w]
    a = np.where(x < w // 2, (x * 7 + y * 3) % 256, (y * 40 + 15) % 256).astype(np.uint8)
    a[0, 0], a[-1, -1] = 0, 255  # the full range, so the levels are not rescaled
    path = B.tmp("p%dx%d.cut" % (w, h))
    with open(path, "wb") as f:
        f.write(struct.pack("<HHH", w, h, 0) + b"".join(code_line(bytes(r)) for r in a))
    B.decodes_like(path, "ImageMagick")


# Sizes the earlier probes leave alone: a second width byte of 2 is taken
# for a metafile, a narrow picture 1, 2, 3, 9, 10 or 11 rows high for Targa.
B.main([("%dx%d" % (w, h), lambda w=w, h=h: check(w, h)) for w, h in ((37, 23), (1000, 4), (5, 5))])
