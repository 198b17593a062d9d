"""GIF interop: files made by ImageMagick, the giflib tools and netpbm decode
here as Pillow decodes them (with the two deliberate differences stated
below), and our GIF output decodes identically in Pillow, giftopnm and
ImageMagick."""
import os

import numpy as np

import brivanta as B

B.require("convert", "gifbuild", "pamtogif", "giftopnm", "pnmquant")
path, netpbm = B.tmp, B.make


def magick(args, name, prefix=""):
    B.run(["convert"] + args + [prefix + path(name)])
    return path(name)


def gifbuild(text, name):
    src = path(name + ".txt")
    with open(src, "w") as f:
        f.write(text)
    B.run("gifbuild %s > %s" % (src, path(name)))
    return path(name)


PLASMA = ["-size", "67x43", "plasma:fractal"]


def colour_map(colours):
    return "\tsort flag off\n" + "".join("\trgb %03d %03d %03d is %d\n" % (c + (i,)) for i, c in enumerate(colours))


def giflib(w, h, colours, name, rows, extras="", interlaced=False, local=None):
    """A file made by gifbuild from its text form: rows of hex indices (or
    of digits, when rows are plain strings without spaces)."""
    text = "screen width %d\nscreen height %d\nscreen colors %d\nscreen background 0\npixel aspect byte 0\n" % (
        w, h, len(colours))
    text += "screen map\n" + colour_map(colours) + "end\n" + extras + "image # 1\nimage left 0\nimage top 0\n"
    if interlaced:
        text += "image interlaced\n"
    if local:
        text += "image map\n" + colour_map(local) + "end\n"
    hexed = " " in rows[0]
    text += "image bits %d by %d%s\n" % (w, h, " hex" if hexed else "") + "\n".join(rows) + "\n"
    return gifbuild(text, name)


def pillow_info(p):
    from PIL import Image
    with Image.open(p) as im:
        return dict(im.info), im.n_frames


# ---- Files from independent tools decode as Pillow decodes them ----------------

SOURCES = [
    ("magick 87a 256", lambda: magick(PLASMA + ["-colors", "256"], "m87.gif", "GIF87:")),
    ("magick 89a 256", lambda: magick(PLASMA + ["-colors", "256"], "m256.gif")),
    ("magick 16", lambda: magick(PLASMA + ["-colors", "16"], "m16.gif")),
    ("magick 2", lambda: magick(["-size", "37x21", "pattern:checkerboard", "-colors", "2"], "m2.gif")),
    ("magick interlaced", lambda: magick(PLASMA + ["-colors", "100", "-interlace", "GIF"], "mi.gif")),
    ("magick transparent", lambda: magick(["-size", "40x30", "xc:white", "-fill", "red", "-draw", "circle 20,15 20,5",
                                           "-fill", "blue", "-draw", "rectangle 0,0 5,5", "-transparent", "white"],
                                          "mt.gif")),
    ("magick several images", lambda: magick(["-size", "30x20", "gradient:red-blue", "-size", "30x20",
                                              "gradient:green-yellow", "-colors", "64"], "ms.gif")),
    ("netpbm 256", lambda: netpbm("convert %s ppm:- | pnmquant 256 2>/dev/null | pamtogif 2>/dev/null" % " ".join(PLASMA),
                                 "n256.gif")),
    ("netpbm 16 interlaced", lambda: netpbm("convert %s ppm:- | pnmquant 16 2>/dev/null | pamtogif -interlace 2>/dev/null"
                                           % " ".join(PLASMA), "n16i.gif")),
    ("netpbm 2", lambda: netpbm("pbmmake -g 31 9 | pamtogif 2>/dev/null", "n2.gif")),
    ("netpbm transparent", lambda: netpbm("convert %s ppm:- | pnmquant 32 2>/dev/null | pamtogif -transparent=#000000 "
                                         "2>/dev/null" % " ".join(PLASMA), "nt.gif")),
    ("giflib interlaced with comment",
     lambda: giflib(5, 9, [(i * 16, 255 - i * 16, i * 3) for i in range(16)], "g16.gif", interlaced=True,
                    rows=[" ".join("%02x" % (y + x) for x in range(5)) for y in range(9)],
                    extras="comment\nmade by gifbuild, with, commas\nend\n")),
    ("giflib 89a 256",
     lambda: giflib(4, 3, [(i, (i * 7) % 256, 255 - i) for i in range(256)], "g256.gif",
                    rows=["00 07 fe ff", "10 20 30 40", "7f 80 81 07"],
                    extras="graphics control\n\tdisposal mode 0\n\tuser input flag off\n\tdelay 0\n"
                           "\ttransparent index 7\nend\n")),
]


def decodes_like_pillow(make):
    def check():
        p = make()
        ours = B.loaded(p)
        # Deliberate: a two-colour GIF is held as an 8-bit bitmap.
        want_bits = 4 if ours.bits == 4 else 8
        assert ours.bits == want_bits
        B.assert_same(ours.rgb(), B.pillow_rgb(p), p)
        info, frames = pillow_info(p)
        h = B.load_handle(p)
        try:
            t = B.LIB.IMGLOW_get_transp_color(h)
        finally:
            B.LIB.IMG_delete_bitmap(h)
        want = info.get("transparency")
        # A transparent index of 0 cannot be told apart from none.
        if want:
            assert t == want, "transparent index %d, Pillow says %s" % (t, want)
        else:
            assert t == -26, "no transparency expected, got %d" % t
    return check


def two_colours_become_eight_bits():
    p = magick(["-size", "16x8", "pattern:checkerboard", "-colors", "2"], "two.gif")
    ours = B.load(p)
    assert ours.bits == 8, "deliberate: two colours are held in 8 bits, got %d" % ours.bits
    assert set(np.unique(ours.indices())) <= {0, 1}
    B.assert_same(ours.rgb(), B.pillow_rgb(p), "two colours")


def global_table_wins_over_local():
    """Deliberate difference: Pillow uses the local table, we the global one."""
    p = giflib(4, 2, [(i * 60, 0, 0) for i in range(4)], "gl.gif", rows=["0123", "3210"],
               local=[(0, i * 60, 200) for i in range(4)])
    ours = B.load(p)
    from PIL import Image
    with Image.open(p) as im:
        idx = np.asarray(im)
        local_rgb = np.asarray(im.convert("RGB"))
    assert (ours.indices() == idx).all(), "indices agree"
    want = np.stack([idx * 60, idx * 0, idx * 0], axis=-1).astype(np.uint8)
    B.assert_same(ours.rgb(), want, "global colours")
    assert (local_rgb[..., 2] == 200).all(), "Pillow shows the local table"


# ---- Our output decodes identically elsewhere ----------------------------------

def written_sources():
    return [
        ("8-bit plasma", magick(["-size", "301x77", "plasma:fractal", "-colors", "256"], "w8.gif")),
        ("8-bit noise", magick(["-size", "400x300", "xc:", "+noise", "Random", "-colors", "256"], "wn.gif")),
        ("4-bit", magick(["-size", "123x45", "plasma:fractal", "-colors", "16"], "w4.gif")),
        ("4-bit odd width", magick(["-size", "1x9", "gradient:", "-colors", "16"], "w4n.gif")),
        ("flat 8-bit", magick(["-size", "500x100", "xc:orange", "-fill", "navy", "-draw", "point 250,50",
                               "-colors", "256", "-type", "palette", "-define", "gif:bits=8"], "wf.gif")),
    ]


def our_gif_decodes_everywhere():
    for what, src in written_sources():
        ours = B.load(src)
        assert ours.bits in (4, 8), what
        out = path("out_" + os.path.basename(src))
        assert B.convert(src, out, 4) == 0, what
        with open(out, "rb") as f:
            data = f.read()
        assert data[:6] == b"GIF87a" and data[-1:] == b";", what
        want = ours.rgb()
        B.assert_same(B.pillow_rgb(out), want, what + " in Pillow")
        B.assert_same(B.tool_rgb(["giftopnm", out]), want, what + " in giftopnm")
        B.assert_same(B.tool_rgb(["convert", out, "ppm:-"]), want, what + " in ImageMagick")
        back = B.load(out)
        assert (back.indices() == ours.indices()).all(), what + " reads back"


CASES = [("decodes like Pillow: " + name, decodes_like_pillow(make)) for name, make in SOURCES]
CASES += [
    ("two colours become 8 bits", two_colours_become_eight_bits),
    ("global table wins over local", global_table_wins_over_local),
    ("our GIF decodes in Pillow, giftopnm, ImageMagick", our_gif_decodes_everywhere),
]

if __name__ == "__main__":
    B.main(CASES)
