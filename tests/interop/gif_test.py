"""GIF interop: files made by ImageMagick, the giflib tools and netpbm decode
here as Pillow decodes them (with the two deliberate differences stated
below).  (Our writer is checked in writers_test.py.)"""
import numpy as np

import brivanta as B

B.require("convert", "gifbuild", "pamtogif", "giftopnm", "pnmquant")
PLASMA = "convert -size 67x43 plasma:fractal"


def colour_map(colours):
    return "\tsort flag off\n" + "".join("\trgb %03d %03d %03d is %d\n" % (c + (i,)) for i, c in enumerate(colours))


def giflib(name, w, h, colours, rows, extras="", interlaced=False, local=None):
    """A file made by gifbuild from its text form: rows of hex indices, or
    of digits when they hold no spaces."""
    text = "screen width %d\nscreen height %d\nscreen colors %d\nscreen background 0\npixel aspect byte 0\n" % (
        w, h, len(colours))
    text += "screen map\n" + colour_map(colours) + "end\n" + extras + "image # 1\nimage left 0\nimage top 0\n"
    text += "image interlaced\n" if interlaced else ""
    text += "image map\n" + colour_map(local) + "end\n" if local else ""
    text += "image bits %d by %d%s\n" % (w, h, " hex" if " " in rows[0] else "") + "\n".join(rows) + "\n"
    with open(B.tmp(name + ".txt"), "w") as f:
        f.write(text)
    return B.make("gifbuild " + B.tmp(name + ".txt"), name)


# Files from independent tools: (name, maker).
SOURCES = [
    ("magick 87a 256", lambda: B.make(PLASMA + " -colors 256 GIF87:{out}", "m87.gif")),
    ("magick 89a 256", lambda: B.make(PLASMA + " -colors 256 {out}", "m256.gif")),
    ("magick 16", lambda: B.make(PLASMA + " -colors 16 {out}", "m16.gif")),
    ("magick 2", lambda: B.make("convert -size 37x21 pattern:checkerboard -colors 2 {out}", "m2.gif")),
    ("magick interlaced", lambda: B.make(PLASMA + " -colors 100 -interlace GIF {out}", "mi.gif")),
    ("magick transparent", lambda: B.make("convert -size 40x30 xc:white -fill red -draw 'circle 20,15 20,5' -fill blue "
                                          "-draw 'rectangle 0,0 5,5' -transparent white {out}", "mt.gif")),
    ("magick several images", lambda: B.make("convert -size 30x20 gradient:red-blue -size 30x20 gradient:green-yellow "
                                             "-colors 64 {out}", "ms.gif")),
    ("netpbm 256", lambda: B.make(PLASMA + " ppm:- | pnmquant 256 2>/dev/null | pamtogif 2>/dev/null", "n256.gif")),
    ("netpbm 16 interlaced",
     lambda: B.make(PLASMA + " ppm:- | pnmquant 16 2>/dev/null | pamtogif -interlace 2>/dev/null", "n16i.gif")),
    ("netpbm 2", lambda: B.make("pbmmake -g 31 9 | pamtogif 2>/dev/null", "n2.gif")),
    ("netpbm transparent", lambda: B.make(PLASMA + " ppm:- | pnmquant 32 2>/dev/null | pamtogif -transparent=#000000 "
                                          "2>/dev/null", "nt.gif")),
    ("giflib interlaced with comment",
     lambda: giflib("g16.gif", 5, 9, [(i * 16, 255 - i * 16, i * 3) for i in range(16)], interlaced=True,
                    rows=[" ".join("%02x" % (y + x) for x in range(5)) for y in range(9)],
                    extras="comment\nmade by gifbuild, with, commas\nend\n")),
    ("giflib 89a 256",
     lambda: giflib("g256.gif", 4, 3, [(i, (i * 7) % 256, 255 - i) for i in range(256)],
                    rows=["00 07 fe ff", "10 20 30 40", "7f 80 81 07"],
                    extras="graphics control\n\tdisposal mode 0\n\tuser input flag off\n\tdelay 0\n"
                           "\ttransparent index 7\nend\n")),
]


def decodes_like_pillow(make):
    def check():
        p = make()
        ours = B.decodes_like(p)
        # Deliberate: a two-colour GIF is held as an 8-bit bitmap.
        assert ours.bits in (4, 8), ours.bits
        h = B.LIB.IMG_decompress_bitmap(p.encode())
        try:
            t = B.LIB.IMGLOW_get_transp_color(h)
        finally:
            B.LIB.IMG_delete_bitmap(h)
        with B.Image.open(p) as im:
            want = im.info.get("transparency")
        # A transparent index of 0 cannot be told apart from none.
        assert t == (want or -26), "transparent index %d, Pillow says %s" % (t, want)
    return check


def global_table_wins_over_local():
    """Deliberate difference: Pillow uses the local table, we the global one."""
    p = giflib("gl.gif", 4, 2, [(i * 60, 0, 0) for i in range(4)], rows=["0123", "3210"],
               local=[(0, i * 60, 200) for i in range(4)])
    ours = B.loaded(p)
    with B.Image.open(p) as im:
        idx = np.asarray(im)
        local_rgb = np.asarray(im.convert("RGB"))
    assert (ours.indices() == idx).all(), "indices agree"
    B.compare(ours.rgb(), np.stack([idx * 60, idx * 0, idx * 0], axis=-1).astype(np.uint8), "global colours")
    assert (local_rgb[..., 2] == 200).all(), "Pillow shows the local table"


CASES = [("decodes like Pillow: " + name, decodes_like_pillow(make)) for name, make in SOURCES]
CASES += [("global table wins over local", global_table_wins_over_local)]

if __name__ == "__main__":
    B.main(CASES)
