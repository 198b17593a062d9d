"""Stored files from independent tools (tests/fixtures/<format>, each folder's
README says how they were made) load as a tool that is not ours decodes
them, and where one was made from a source picture, as that picture."""
import os

import numpy as np

import brivanta as B

B.require("convert", "xbmtopbm", "rasttopnm", "xwdtopnm", "pamdepth", "gemtopnm", "macptopbm")
fx = B.fixture


def xwdtopnm(path):
    # xwdtopnm reads no 8-plane XY pixmap: that dump is held against the Z dump of its screen.
    return B.REFERENCES["xwdtopnm"](path.replace("_xy", ""))


def sunras(path, ours):
    # Type 3 files load with red and blue exchanged: samples are kept in file order, as designed.
    head = open(path, "rb").read(32)
    flipped = ours[:, :, ::-1] if head[23] == 3 else ours
    B.compare(flipped, B.image_rgb(B.run(["rasttopnm", path])), "against rasttopnm")
    if head[23] != 2 and head[15] != 32:  # Pillow reads raw files of up to 24 bits
        B.compare(flipped, B.pillow_rgb(path), "against Pillow")


def macbinary(path):
    """The MacPaint file in a MacBinary wrapper ("PNTG"), which holds the
    packed rows without the 512-byte header."""
    header = bytearray(128)
    header[1:12], header[65:73] = b"\x0apicture.mp", b"PNTGMPNT"
    out = B.tmp(os.path.basename(path))
    with open(out, "wb") as f:
        f.write(bytes(header) + open(path, "rb").read()[512:])
    return out


def transparent_red(ours):
    # ImageMagick's None pixels were the source's red box: everything else is the source.
    want = B.pillow_rgb(fx("xpm", "src4.ppm"))
    opaque = np.any(want != [255, 0, 0], axis=-1)
    B.compare(ours[opaque], want[opaque], "opaque pixels")
    assert (~opaque).sum() > 0


def source(folder, name, negative=False, tolerance=0):
    def check(ours):
        want = B.pillow_rgb(fx(folder, name))
        B.compare(ours, 255 - want if negative else want, "against " + name, tolerance)
    return check


magick, xbm = B.REFERENCES["ImageMagick"], B.REFERENCES["xbmtopbm"]
# folder, file, reference decoder (or None), a further check of our pixels (or None), bits (or None)
CASES = [
    ("cals", "im.cal", magick, source("cals", "src.pbm"), None),
    ("cals", "im_wide.cal", magick, None, None),
    ("gem", "netpbm.img", B.REFERENCES["gemtopnm"], source("gem", "src.pbm"), 1),
    ("xbm", "netpbm_char.xbm", xbm, source("xbm", "src.pbm"), 1),
    ("xbm", "netpbm_short.xbm", xbm, source("xbm", "src.pbm"), 1),
    ("xbm", "im.xbm", xbm, source("xbm", "src.pbm"), 1),
    # Pillow writes its white pixels as the foreground bits.
    ("xbm", "pillow.xbm", xbm, source("xbm", "src.pbm", True), 1),
    ("xpm", "netpbm_4.xpm", None, source("xpm", "src4.ppm"), 4),
    ("xpm", "netpbm_8.xpm", None, source("xpm", "src8.ppm"), 8),
    ("xpm", "netpbm_24.xpm", None, source("xpm", "src24.ppm"), 24),
    # ImageMagick keys two of its 204, 0, 0 pixels to its 205, 0, 0 line.
    ("xpm", "im_8.xpm", None, source("xpm", "src8.ppm", tolerance=1), 8),
    # ImageMagick quantises src24.ppm before writing: its own decode is the picture.
    ("xpm", "im_24.xpm", magick, None, None),
    ("xpm", "im_transp.xpm", None, transparent_red, None),
] + [("sunras", n, None, lambda ours, n=n: sunras(fx("sunras", n), ours), None)
     for n in sorted(os.listdir(fx("sunras"))) if n.endswith(".ras")] + \
    [("xwd", n, xwdtopnm, None, None) for n in sorted(os.listdir(fx("xwd"))) if n.endswith(".xwd")] + \
    [("macpaint", n, B.REFERENCES["macptopbm"], lambda ours, n=n: B.compare(B.loaded(macbinary(fx("macpaint", n))).rgb(), ours,
                                                                   "in a MacBinary wrapper"), None)
     for n in ("nb_plasma.mac", "nb_shapes.mac")]


def case(folder, name, reference, check, bits):
    def run():
        ours = B.loaded(fx(folder, name))
        if reference:
            B.compare(ours.rgb(), reference(fx(folder, name)), "against its reference")
        if check:
            check(ours.rgb())
        assert bits is None or ours.bits == bits, "%d bits" % ours.bits
    return run


B.main([("%s/%s" % c[:2], case(*c)) for c in CASES])
