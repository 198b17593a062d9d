"""IFF pictures from netpbm's ppmtoilbm (palette planes packed and plain, one
and four planes, deep 24-plane, mask planes, hold-and-modify of six and
eight planes) load as the picture they were made from, or for
hold-and-modify, as ilbmtoppm shows them (it widens a changed channel's
bits by shifting, 15 to 240 in six planes, where we repeat them as its own
colour map does, 15 to 255: the tolerances are those differences).
Extra-half-brite and chunky PBM files, which netpbm does not write, are
built here by the published layout."""
import struct

import numpy as np
from PIL import Image

import brivanta as B

B.require("ppmtoilbm", "ilbmtoppm", "pbmmake")

RGB = np.asarray(B.test_rgb(83, 57))
PAL = np.asarray(Image.fromarray(RGB).quantize(200).convert("RGB"))
SIXTEEN = np.asarray(Image.fromarray(RGB).quantize(16).convert("RGB"))
BILEVEL = np.asarray(B.test_page(403, 300).convert("RGB"))


def ppm(a, name):
    path = B.tmp(name + ".ppm")
    Image.fromarray(a).save(path)
    return path


def made_by(options, picture, name):
    return B.make("ppmtoilbm %s %s" % (options, ppm(picture, name)), name + ".iff")


def with_mask(picture, name):
    mask = B.make("pbmmake -gray %d %d" % (picture.shape[1], picture.shape[0]), name + ".pbm")
    return made_by("-maxplanes 8 -maskfile " + mask, picture, name)


def chunk(tag, data):
    return tag + struct.pack(">I", len(data)) + data + b"\0" * (len(data) & 1)


def form(kind, width, height, planes, cmap, body, camg=None):
    bmhd = struct.pack(">HHhhBBBBHBBhh", width, height, 0, 0, planes, 0, 0, 0, 0, 1, 1, width, height)
    data = kind + chunk(b"BMHD", bmhd) + chunk(b"CMAP", bytes(np.asarray(cmap, np.uint8).ravel()))
    data += chunk(b"CAMG", struct.pack(">I", camg)) if camg is not None else b""
    return b"FORM" + struct.pack(">I", len(data + chunk(b"BODY", body))) + data + chunk(b"BODY", body)


def planar(indices, planes):
    h, w = indices.shape
    padded = np.zeros((h, -(-w // 16) * 16), np.uint8)
    padded[:, :w] = indices
    return b"".join(np.packbits((padded[y] >> p) & 1).tobytes() for y in range(h) for p in range(planes))


RNG = np.random.default_rng(3)
CMAP32 = RNG.integers(0, 256, (32, 3))
IDX64 = (np.add.outer(np.arange(21), np.arange(37)) * 5 % 64).astype(np.uint8)
IDX256 = (np.add.outer(np.arange(21), np.arange(37) * 3) % 256).astype(np.uint8)
CMAP256 = RNG.integers(0, 256, (256, 3))


def built(data, name):
    path = B.tmp(name + ".iff")
    open(path, "wb").write(data)
    return path


EHB = lambda: built(form(b"ILBM", 37, 21, 6, CMAP32, planar(IDX64, 6), camg=0x80), "ehb")
PBM = lambda: built(form(b"PBM ", 37, 21, 8, CMAP256, b"".join(r.tobytes() + b"\0" for r in IDX256)), "pbm")


def expect(make, source, bits, tolerance=0, netpbm=True):
    def check():
        path = make()
        ours = B.loaded(path)
        assert ours.bits == bits, "%d bits, not %d" % (ours.bits, bits)
        if source is not None:
            B.compare(ours.rgb(), source, "against the source")
        if netpbm:
            B.compare(ours.rgb(), B.REFERENCES["ilbmtoppm"](path), "against ilbmtoppm", tolerance)
    return check


CASES = [
    ("200 colours, 8 planes, ByteRun1", expect(lambda: made_by("-maxplanes 8", PAL, "pal8"), PAL, 8)),
    ("200 colours, 8 planes, plain", expect(lambda: made_by("-maxplanes 8 -nocompress", PAL, "pal8n"), PAL, 8)),
    ("16 colours, 4 planes", expect(lambda: made_by("-maxplanes 4", SIXTEEN, "pal4"), SIXTEEN, 4)),
    ("bilevel, 1 plane", expect(lambda: made_by("", BILEVEL, "bw"), BILEVEL, 1)),
    ("deep, 24 planes", expect(lambda: made_by("-24force", RGB, "deep"), RGB, 24)),
    ("mask plane passed over", expect(lambda: with_mask(PAL, "masked"), PAL, 8)),
    ("hold-and-modify, 6 planes", expect(lambda: made_by("-hamforce", RGB, "ham6"), None, 24, 15)),
    ("hold-and-modify, 8 planes", expect(lambda: made_by("-hamforce -ham8", RGB, "ham8"), None, 24, 3)),
    # Pixels 32-63 take the first 32 colours at half brightness; PBM rows are padded to even length.
    ("extra-half-brite", expect(EHB, np.concatenate([CMAP32, CMAP32 // 2]).astype(np.uint8)[IDX64], 8)),
    # ilbmtoppm shows these chunky files otherwise: against the picture built only.
    ("chunky PBM", expect(PBM, CMAP256.astype(np.uint8)[IDX256], 8, netpbm=False)),
]

if __name__ == "__main__":
    B.main(CASES)
