"""MSP: version 1 files that Pillow writes, and version 2 files coded here
(no tool writes them; runs and literals in turn), load as Pillow reads them."""
import struct

import numpy as np
from PIL import Image

import brivanta as B


def check(w, h, version):
    y, x = np.mgrid[0:h, 0:w]
    im = Image.fromarray(((x // 8 + y // 5) % 3 == 0) | (x == y))
    path = B.tmp("v%d_%d.msp" % (version, w))
    if version == 1:
        im.save(path, "MSP")
    else:
        raw, stride = im.tobytes(), (w + 7) // 8
        rows = [b"".join(bytes([0, 1, v]) if i % 2 else bytes([1, v]) for i, v in enumerate(raw[r * stride:(r + 1) * stride]))
                for r in range(h)]
        header = bytearray(b"LinS" + struct.pack("<HH", w, h) + bytes(24))
        header[24:26] = struct.pack("<H", np.bitwise_xor.reduce(struct.unpack("<12H", header[:24])))  # checksum
        with open(path, "wb") as f:
            f.write(header + b"".join(struct.pack("<H", len(r)) for r in rows) + b"".join(rows))
    B.decodes_like(path, "Pillow")


B.main([("version %d, %d wide" % (v, w), lambda v=v, w=w: check(w, 23, v)) for v in (1, 2) for w in (37, 640)])
