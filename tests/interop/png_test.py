"""PNG interop: files that Pillow and ImageMagick write in every colour type
and depth, interlaced or not, load with the pixels Pillow reads (transparency
matted against the file's background, white without one) at the nearest DIB
depth.  Our writer is checked in writers_test.py; here, each of its rows
is stored under the filter its residuals favour."""
import struct
import zlib

import numpy as np
from PIL import Image

import brivanta as B

B.require("convert")
SRC = B.make("convert -size 45x29 -seed 7 plasma:fractal -depth 8 {out}", "src.png")
# Alpha across, so every level of it is met.
ALPHA = "-alpha set -channel A -fx 'i/w' +channel"


def background(path, im):
    """The background chunk's colour (which Pillow does not report for every
    colour type), or white."""
    data = open(path, "rb").read()
    at = data.find(b"bKGD")
    if at < 0:
        return (255, 255, 255)
    size, depth = struct.unpack(">I", data[at - 4: at])[0], data[24]
    if size == 1:
        return tuple(im.getpalette()[3 * data[at + 4]: 3 * data[at + 4] + 3])
    values = [v >> 8 if depth == 16 else v for v in struct.unpack(">%dH" % (size // 2), data[at + 4: at + 4 + size])]
    return tuple(values * 3 if size == 2 else values)


def matted(path, page=0):
    """Pillow's pixels matted as the library mattes them."""
    im = Image.open(path)
    bg = background(path, im)
    if im.mode in ("I", "I;16"):  # Pillow keeps 16-bit grey whole: its high byte
        return np.repeat((np.asarray(im).astype(np.uint32) >> 8).astype(np.uint8)[:, :, None], 3, axis=2)
    a = np.asarray(im.convert("RGBA")).astype(int)
    out = (a[:, :, :3] * a[:, :, 3:] + np.array(bg[:3]) * (255 - a[:, :, 3:]) + 127) // 255
    return out.astype(np.uint8)


B.REFERENCES["Pillow matted"] = matted

# (name, ImageMagick options and output prefix, our DIB's bits)
MAGICK = [
    ("grey 1", "-colorspace gray -depth 1 PNG:", 1),
    ("grey 2", "-colorspace gray -depth 2 PNG:", 4),
    ("grey 4", "-colorspace gray -depth 4 PNG:", 4),
    ("grey 8", "-colorspace gray -depth 8 PNG:", 8),
    ("grey 16", "-colorspace gray -depth 16 PNG:", 8),
    ("grey and alpha 8", "-colorspace gray %s -define png:color-type=4 -depth 8 PNG:" % ALPHA, 8),
    ("grey and alpha 16", "-colorspace gray %s -define png:color-type=4 -depth 16 PNG:" % ALPHA, 8),
    ("grey and alpha on a background", "-colorspace gray %s -background '#808080' -define png:color-type=4 "
     "-define png:include-chunk=bKGD PNG:" % ALPHA, 8),
    ("palette 1", "-colors 2 -define png:bit-depth=1 -define png:color-type=3 PNG8:", 1),
    ("palette 2", "-colors 4 -define png:bit-depth=2 -define png:color-type=3 PNG8:", 4),
    ("palette 4", "-colors 16 -define png:bit-depth=4 -define png:color-type=3 PNG8:", 4),
    ("palette 8", "-colors 200 -type Palette PNG8:", 8),
    ("palette with alpha", "%s -colors 60 PNG8:" % ALPHA, 8),
    ("RGB 8", "PNG24:", 24),
    ("RGB 16", "-depth 16 PNG48:", 24),
    ("RGBA 8", "%s PNG32:" % ALPHA, 24),
    ("RGBA 16", "%s -depth 16 PNG64:" % ALPHA, 24),
    ("RGBA 8 on a background", "%s -background '#3060a0' -define png:include-chunk=bKGD PNG32:" % ALPHA, 24),
    ("RGB 8 interlaced", "-interlace PNG PNG24:", 24),
    ("grey 2 interlaced", "-colorspace gray -depth 2 -interlace PNG PNG:", 4),
    ("RGBA 16 interlaced", "%s -depth 16 -interlace PNG PNG64:" % ALPHA, 24),
]


def magick_file(name, options, bits):
    out = B.tmp("im_%s.png" % name.replace(" ", "_"))
    B.run("convert %s %s%s" % (SRC, options, out), )
    assert B.decodes_like(out, "Pillow matted").bits == bits


def pillow_file(mode, bits, save_args, our_bits):
    im = Image.open(SRC).convert("RGB")
    if mode == "P":
        im = im.quantize(1 << bits)
    elif mode == "I;16":
        im = Image.fromarray(np.asarray(im.convert("L")).astype(np.uint16) * 257)
    elif mode == "RGBA" or mode == "LA":
        im = im.convert(mode[:-1])
        im.putalpha(Image.fromarray(np.tile(np.arange(45, dtype=np.uint8) * 5, (29, 1))))
    else:
        im = im.convert(mode)
    out = B.tmp("pil_%s_%d_%d.png" % (mode.replace(";", ""), bits, len(save_args)))
    im.save(out, **save_args)
    assert B.decodes_like(out, "Pillow matted").bits == our_bits


PILLOW = [
    ("1", 1, {}, 1), ("L", 8, {}, 8), ("L", 8, {"transparency": 200}, 8), ("LA", 8, {}, 8), ("I;16", 16, {}, 8),
    ("P", 1, {"bits": 1}, 1), ("P", 2, {"bits": 2, "transparency": 1}, 4), ("P", 4, {"bits": 4}, 4),
    ("P", 8, {"transparency": bytes(range(0, 256, 3))}, 8), ("RGB", 8, {"transparency": (0, 0, 0)}, 24),
    ("RGBA", 8, {}, 24), ("RGB", 8, {"interlace": 1, "optimize": True}, 24),
]


def row_filters():
    """8-bit grey and colour rows are stored under the filter whose residuals,
    as signed bytes, sum smallest (the first on a tie): the data inflated by
    Python's zlib, the pixels Pillow's."""
    grey, dst = B.tmp("filters_grey.bmp"), B.tmp("filters.png")
    Image.open(SRC).convert("L").save(grey)
    for src, bpp in ((B.make("convert %s -type TrueColor BMP3:{out}" % SRC, "filters.bmp"), 3), (grey, 1)):
        assert not isinstance(B.save(src, dst, 43), int)
        data, at, idat = open(dst, "rb").read(), 8, b""
        while at < len(data):
            size = struct.unpack(">I", data[at: at + 4])[0]
            idat, at = idat + data[at + 8: at + 8 + size] * (data[at + 4: at + 8] == b"IDAT"), at + 12 + size
        im = Image.open(dst)
        x = np.asarray(im).reshape(im.height, -1).astype(int)
        b = np.vstack([0 * x[:1], x[:-1]])
        a, c = (np.pad(v, ((0, 0), (bpp, 0)))[:, :-bpp] for v in (x, b))
        pa, pb, pc = abs(b - c), abs(a - c), abs(a + b - 2 * c)
        paeth = np.where((pa <= pb) & (pa <= pc), a, np.where(pb <= pc, b, c))
        sums = [np.abs((x - p + 128) % 256 - 128).sum(axis=1) for p in (0, a, b, (a + b) // 2, paeth)]
        want = list(np.argmin(sums, axis=0))
        assert list(zlib.decompress(idat)[:: x.shape[1] + 1]) == want and len(set(want)) > 1, (bpp, want)


cases = [("ImageMagick " + n, lambda a=(n, o, b): magick_file(*a)) for n, o, b in MAGICK]
cases += [("Pillow %s %d bits %s" % (m, b, sorted(s)), lambda a=(m, b, s, o): pillow_file(*a)) for m, b, s, o in PILLOW]
cases += [("row filters", row_filters)]
B.main(cases)
