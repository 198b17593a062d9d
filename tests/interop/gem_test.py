"""GEM image interop: netpbm's file loads as its source picture and as
netpbm's own gemtopnm decodes it."""
import brivanta as B

B.require("pbmtogem", "gemtopnm")
B.REFERENCES["gemtopnm"] = lambda p, page=0: B.image_rgb(B.run(["gemtopnm", p]))


def netpbm_file():
    path = B.fixture("gem", "netpbm.img")
    ours = B.decodes_like(path, "gemtopnm")
    B.compare(ours.rgb(), B.pillow_rgb(B.fixture("gem", "src.pbm")), "netpbm.img against src.pbm")
    assert ours.bits == 1


B.main([("netpbm", netpbm_file)])
