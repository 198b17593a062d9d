"""X pixmap interop: files from netpbm (colour names, one and two key
characters, more than 256 colours) and ImageMagick (hexadecimal, names, None)
load as the source picture each was made from; ImageMagick's quantised file
as ImageMagick decodes it."""
import numpy as np

import brivanta as B

B.require("ppmtoxpm", "convert")


def source(name):
    return B.pillow_rgb(B.fixture("xpm", name))


def loads_as(name, src, bits, tolerance=0):
    def check():
        ours = B.loaded(B.fixture("xpm", name))
        B.compare(ours.rgb(), source(src), "%s against %s" % (name, src), tolerance)
        assert ours.bits == bits, "%s: %d bits" % (name, ours.bits)
    return check


def quantised_by_imagemagick():
    # ImageMagick cuts the colours of src24.ppm before writing: its own decode is the picture.
    B.decodes_like(B.fixture("xpm", "im_24.xpm"), "ImageMagick")


def transparent_red():
    # The red box became None: everything else is the source.
    ours = B.loaded(B.fixture("xpm", "im_transp.xpm")).rgb()
    want = source("src4.ppm")
    opaque = np.any(want != [255, 0, 0], axis=-1)
    B.compare(ours[opaque], want[opaque], "opaque pixels of im_transp.xpm")
    assert (~opaque).sum() > 0


B.main([
    ("netpbm 4 colours", loads_as("netpbm_4.xpm", "src4.ppm", 4)),
    ("netpbm 178 colours, names", loads_as("netpbm_8.xpm", "src8.ppm", 8)),
    ("netpbm 851 colours", loads_as("netpbm_24.xpm", "src24.ppm", 24)),
    # ImageMagick keys two of its 204, 0, 0 pixels to its 205, 0, 0 line.
    ("ImageMagick 178 colours", loads_as("im_8.xpm", "src8.ppm", 8, 1)),
    ("ImageMagick quantised", quantised_by_imagemagick),
    ("ImageMagick None", transparent_red),
])
