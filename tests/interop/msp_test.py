"""MSP interop: version 1 files that Pillow writes, and version 2 files coded
here (no tool writes them: runs and literals from a small recipe), load as
Pillow reads them."""
import struct

import numpy as np
from PIL import Image

import brivanta as B


def picture(w, h):
    """Bilevel: bands, a diagonal and noise, so rows hold runs and literals."""
    y, x = np.mgrid[0:h, 0:w]
    a = ((x // 8 + y // 5) % 3 == 0) | (x == y) | (np.random.RandomState(w).rand(h, w) < 0.1) & (x > w // 2)
    return Image.fromarray(~a)


def code_row(row):
    """Run items for repeats of three or more bytes, literal items between."""
    out, i, lit = bytearray(), 0, bytearray()
    while i < len(row):
        n = 1
        while i + n < len(row) and n < 255 and row[i + n] == row[i]:
            n += 1
        if n >= 3:
            if lit:
                out += bytes([len(lit)]) + lit
                lit = bytearray()
            out += bytes([0, n, row[i]])
            i += n
        else:
            lit.append(row[i])
            i += 1
            if len(lit) == 255:
                out += bytes([255]) + lit
                lit = bytearray()
    if lit:
        out += bytes([len(lit)]) + lit
    return bytes(out)


def version2(im, path):
    w, h = im.size
    stride = (w + 7) // 8
    raw = im.tobytes()
    rows = [code_row(raw[i * stride:(i + 1) * stride]) for i in range(h)]
    header = bytearray(b"LinS" + struct.pack("<HH", w, h) + bytes(24))
    words = struct.unpack("<12H", header[:24])
    header[24:26] = struct.pack("<H", np.bitwise_xor.reduce(words))  # the header checksum
    with open(path, "wb") as f:
        f.write(header + b"".join(struct.pack("<H", len(r)) for r in rows) + b"".join(rows))


def check(w, h, version):
    path = B.tmp("v%d_%dx%d.msp" % (version, w, h))
    im = picture(w, h)
    if version == 1:
        im.save(path, "MSP")
    else:
        version2(im, path)
    B.decodes_like(path, "Pillow")


B.main([("version %d, %dx%d" % (v, w, h), lambda v=v, w=w, h=h: check(w, h, v))
        for v in (1, 2) for w, h in ((37, 23), (8, 1), (640, 200))])
