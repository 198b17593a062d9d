"""CUT files coded here (no tool writes them; runs and literals in turn,
each line ending in a zero item) load as ImageMagick reads them: grey levels
equal to the stored values."""
import struct

import numpy as np

import brivanta as B

B.require("convert")


def check(w, h):
    y, x = np.mgrid[0:h, 0:w]
    a = np.where(x < w // 2, (x * 7 + y * 3) % 256, (y * 40 + 15) % 256).astype(np.uint8)
    a[0, 0], a[-1, -1] = 0, 255  # the full range, so the levels are not rescaled
    lines = [b"".join(bytes([0x81, v]) if i % 2 else bytes([1, v]) for i, v in enumerate(r)) + b"\0" for r in a.tolist()]
    with open(B.tmp("p.cut"), "wb") as f:
        f.write(struct.pack("<HHH", w, h, 0) + b"".join(struct.pack("<H", len(l)) + l for l in lines))
    B.decodes_like(B.tmp("p.cut"), "ImageMagick")


# Sizes the earlier probes leave alone: a second width byte of 2 is taken
# for a metafile, a narrow picture 1, 2, 3, 9, 10 or 11 rows high for Targa.
B.main([("%dx%d" % (w, h), lambda w=w, h=h: check(w, h)) for w, h in ((37, 23), (1000, 4), (5, 5))])
