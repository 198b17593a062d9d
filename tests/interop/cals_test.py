"""CALS interop: Type 1 files from ImageMagick load as ImageMagick decodes
them, and as the picture they were made from."""
import brivanta as B

B.require("convert")


def loads_as(name, source):
    def check():
        ours = B.decodes_like(B.fixture("cals", name), "ImageMagick")
        if source:
            B.compare(ours.rgb(), B.pillow_rgb(B.fixture("cals", source)), "%s against %s" % (name, source))
    return check


B.main([("ImageMagick page", loads_as("im.cal", "src.pbm")),
        ("ImageMagick fax-wide page", loads_as("im_wide.cal", None))])
