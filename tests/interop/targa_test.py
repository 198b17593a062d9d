"""Targa interop: files from ImageMagick and netpbm (mapped, grey, 16, 24 and
32 bits, raw and run-length, both origins) decode as Pillow decodes them,
and our type 3 output decodes the same in Pillow (type 32 in netpbm)."""
import os
import struct

import numpy as np

import brivanta as b

b.require("convert", "ppmtotga", "tgatoppm", "ppmquant", "ppmtopgm")
from PIL import Image  # noqa: E402

path = b.tmp


def make_sources():
    b.run("convert -size 61x37 -seed 5 plasma:fractal -depth 8 %s" % path("src.ppm"))
    b.run("convert -size 200x3 gradient:red-blue -depth 8 %s" % path("runs.ppm"))


def sixteen_bit(name, top, rle):
    """A 16-bit file written here: neither tool writes one."""
    pic = np.asarray(Image.open(path("src.ppm")).convert("RGB"))
    h, w, _ = pic.shape
    words = ((pic[:, :, 0].astype(np.uint16) >> 3) << 10 | (pic[:, :, 1].astype(np.uint16) >> 3) << 5
             | (pic[:, :, 2].astype(np.uint16) >> 3) | 0x8000)
    if not top:
        words = words[::-1]
    data = words.astype("<u2").tobytes()
    if rle:
        # One raw packet of up to 128 pixels at a time, crossing row ends.
        out, px = bytearray(), [data[i:i + 2] for i in range(0, len(data), 2)]
        for i in range(0, len(px), 128):
            chunk = px[i:i + 128]
            out.append(len(chunk) - 1)
            out += b"".join(chunk)
        data = bytes(out)
    header = struct.pack("<BBBHHBHHHHBB", 0, 0, 10 if rle else 2, 0, 0, 0, 0, 0, w, h, 16,
                         0x20 if top else 0)
    with open(path(name), "wb") as f:
        f.write(header + data)
    return path(name)


def tool_files():
    src, runs = path("src.ppm"), path("runs.ppm")
    return [
        ("ImageMagick 24 raw", "convert %s TGA:%%s" % src, 0),
        ("ImageMagick 24 RLE", "convert %s -compress RLE TGA:%%s" % src, 0),
        ("ImageMagick 24 RLE runs", "convert %s -compress RLE TGA:%%s" % runs, 0),
        ("ImageMagick 32 raw", "convert %s -alpha set -channel A -evaluate set 50%%%% TGA:%%s" % src, 0),
        ("ImageMagick 32 RLE", "convert %s -alpha set -compress RLE TGA:%%s" % src, 0),
        ("ImageMagick mapped raw", "convert %s -colors 100 -type Palette TGA:%%s" % src, 0),
        ("ImageMagick mapped RLE", "convert %s -colors 100 -type Palette -compress RLE TGA:%%s" % src, 0),
        ("ImageMagick grey raw", "convert %s -colorspace gray TGA:%%s" % src, 0),
        ("ImageMagick grey RLE", "convert %s -colorspace gray -compress RLE TGA:%%s" % src, 0),
        ("ImageMagick top-left origin", "convert %s -flip -orient TopLeft TGA:%%s" % src, 0),
        ("netpbm 24 RLE", "ppmtotga %s > %%s" % src, 0),
        ("netpbm 24 raw", "ppmtotga -norle %s > %%s" % src, 0),
        ("netpbm mapped RLE", "ppmquant 100 %s | ppmtotga -cmap > %%s" % src, 0),
        ("netpbm mapped raw", "ppmquant 100 %s | ppmtotga -cmap -norle > %%s" % src, 0),
        ("netpbm grey RLE", "ppmtopgm %s | ppmtotga -mono > %%s" % src, 0),
        ("netpbm grey raw", "ppmtopgm %s | ppmtotga -mono -norle > %%s" % src, 0),
    ]


def decodes_as_pillow(name, make, tolerance):
    def run():
        f = make()
        b.assert_same(b.loaded(f).rgb(), b.pillow_rgb(f), name, tolerance)
    return run


def tool_maker(name, cmd):
    def make():
        f = path(name.replace(" ", "_") + ".tga")
        b.run(cmd % f)
        return f
    return make


def our_output(type_code, source, expect_mode, tolerance):
    def run():
        dst = path("ours_%d_%s.tga" % (type_code, os.path.basename(source)))
        rc = b.convert(source, dst, type_code)
        assert rc == 0, rc
        ours = b.load(source)
        want = ours.rgb()
        if type_code == 32:
            # Pillow reads no 15-bit files: netpbm decodes these, and fills
            # the low bits of each five-bit channel.
            want = want & 0xF8
            b.assert_same(b.tool_rgb(["tgatoppm", dst]), want, "tgatoppm on our type 32", tolerance)
        else:
            with Image.open(dst) as im:
                assert im.mode == expect_mode, im.mode
            b.assert_same(b.pillow_rgb(dst), want, "Pillow on our type %d" % type_code, tolerance)
        back = b.load(dst)
        b.assert_same(back.rgb(), want, "our reader on our type %d" % type_code)
    return run


make_sources()
src = path("src.ppm")
bmp24, bmp8, bmpgrey = path("src24.bmp"), path("src8.bmp"), path("grey.tga")
b.run("convert %s BMP3:%s" % (src, bmp24))
b.run("convert %s -colors 60 -type Palette BMP3:%s" % (src, bmp8))
b.run("ppmtopgm %s | ppmtotga -mono -norle > %s" % (src, bmpgrey))  # identity grey ramp

cases = [(n, decodes_as_pillow(n, tool_maker(n, c), t)) for n, c, t in tool_files()]
for top in (False, True):
    for rle in (False, True):
        n = "16-bit %s %s" % ("top-left" if top else "bottom-left", "RLE" if rle else "raw")
        cases.append((n, decodes_as_pillow(n, lambda t=top, r=rle, n=n: sixteen_bit(n.replace(" ", "_") + ".tga", t, r), 7)))
cases += [
    ("our type 3 from 24 bits", our_output(3, bmp24, "RGB", 0)),
    ("our type 3 from a mapped 8 bits", our_output(3, bmp8, "P", 0)),
    ("our type 3 from grey", our_output(3, bmpgrey, "L", 0)),
    ("our type 32 from 24 bits", our_output(32, bmp24, "RGB", 7)),
]
b.main(cases)
