"""X bitmap interop: files from netpbm (byte and 16-bit word forms),
ImageMagick and Pillow, all made from one picture, load as netpbm's
xbmtopbm decodes them, and so as that picture (Pillow's as its negative:
it writes its white pixels as the foreground bits)."""
import brivanta as B

B.require("xbmtopbm")
SOURCE = B.pillow_rgb(B.fixture("xbm", "src.pbm"))


def loads_as_source(name, negative=False):
    def check():
        path = B.fixture("xbm", name)
        ours = B.decodes_like(path, "xbmtopbm")
        B.compare(ours.rgb(), 255 - SOURCE if negative else SOURCE, "%s against the source picture" % name)
        assert ours.bits == 1
    return check


B.main([(n, loads_as_source(n, n == "pillow.xbm")) for n in ("netpbm_char.xbm", "netpbm_short.xbm", "im.xbm", "pillow.xbm")])
