"""Icon interop: icons from ImageMagick, Pillow and netpbm at every depth
they write load here as Pillow shows their first image (colours only: the
AND mask is not ours to read); ours carry a GIF's transparent index into
the AND mask as Pillow and ImageMagick read it (writers_test.py has the
colours at every depth)."""
import numpy as np
from PIL import Image

import brivanta as B

LIB = B.LIB

B.require("convert", "pamtowinicon")
PLASMA = "convert -size {0}x{0} plasma:fractal"


def pillow(mode, size):
    return lambda out: Image.open(B.make(PLASMA.format(size) + " ppm:-", "p.ppm")).convert(mode).save(
        out, format="ICO", bitmap_format="bmp", sizes=[(size, size)])


# name, command writing {out} (or a function of it), depth of the first image
SOURCES = [
    ("magick 4 bits", PLASMA.format(16) + " -colors 16 {out}", 4),
    ("magick 8 bits", PLASMA.format(32) + " -colors 200 {out}", 8),
    ("magick 32 bits, several sizes", PLASMA.format(64) + " -define icon:auto-resize=32,16,64 {out}", 32),
    ("Pillow 1 bit", pillow("1", 32), 1),
    ("Pillow 8 bits", pillow("P", 16), 8),
    ("Pillow 24 bits", pillow("RGB", 64), 24),
    ("netpbm 32 bits", PLASMA.format(32) + " ppm:- | pamtowinicon 2>/dev/null > {out}", 32),
]


def loads_like_pillow(name, make, depth):
    def check():
        out = B.tmp(name.replace(" ", "_").replace(",", "") + ".ico")
        make(out) if callable(make) else B.run(make.format(out=out))
        data = open(out, "rb").read()
        assert data[int.from_bytes(data[18:22], "little") + 14] == depth, "the tool wrote another depth"
        with Image.open(out) as im:  # Pillow's image of the first entry, whatever its order
            ref = np.asarray(im.ico.getimage((data[6] or 256,) * 2).convert("RGB"))
        B.compare(B.loaded(out).rgb(), ref, name)
    return check


def transparent_index_makes_the_mask():
    """A GIF's transparent index 5: our icon hides exactly those pixels in
    Pillow and ImageMagick, and Pillow shows the others in their colours."""
    idx = (np.arange(32)[:, None] * 3 + np.arange(32)[None, :]) % 9
    gif = Image.fromarray(idx.astype(np.uint8), "P")
    gif.putpalette([v for i in range(256) for v in ((i * 40) % 256, (i * 90) % 256, 255 - i)])
    gif.save(B.tmp("t.gif"), transparency=5)
    h = LIB.IMG_decompress_bitmap(B.tmp("t.gif").encode())
    want, hidden = B.picture_of(h).rgb(), idx == 5
    assert LIB.IMG_save_bitmap(h, B.tmp("t.ico").encode(), 25) == 0 and LIB.IMG_delete_bitmap(h) == 0
    rgba = np.asarray(Image.open(B.tmp("t.ico")).convert("RGBA"))
    magick = B.run(["convert", B.tmp("t.ico"), "-alpha", "extract", "-depth", "8", "gray:-"])
    assert ((rgba[:, :, 3] == 0) == hidden).all() and ((np.frombuffer(magick, np.uint8) == 0) == hidden.ravel()).all()
    B.compare(rgba[:, :, :3][~hidden], want[~hidden], "Pillow on the opaque pixels")


def png_icon_is_refused():
    Image.new("RGB", (32, 32)).save(B.tmp("png.ico"), sizes=[(32, 32)])
    assert B.load(B.tmp("png.ico")) == -7


CASES = [(s[0], loads_like_pillow(*s)) for s in SOURCES] + [("PNG icon refused", png_icon_is_refused),
                                                             ("transparent index makes the mask", transparent_index_makes_the_mask)]

if __name__ == "__main__":
    B.main(CASES)
