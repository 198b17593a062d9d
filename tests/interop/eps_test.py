"""EPS interop: our type 14 files rendered by Ghostscript show the source
picture, and binary EPS files with a TIFF preview made by GraphicsMagick load
with the preview's pixels."""
import numpy as np

import brivanta as B

B.require("convert", "gs", "gm")
SRC = B.make("convert -size 61x37 -seed 5 plasma:fractal -depth 8 {out}", "src.png")


def rendered_cells(eps, width, height):
    """Ghostscript's rendering sampled at the centre of each picture pixel.
    The picture is 8 inches wide from 0.25 inch left and 0.25 inch below the
    top of a letter page; at width / 8 dots per inch each pixel is 8 dots."""
    dpi = width / 8.0
    png = eps + ".png"
    B.run(["gs", "-q", "-dSAFER", "-dNOPAUSE", "-dBATCH", "-sDEVICE=png16m", "-sPAPERSIZE=letter", "-dFIXEDMEDIA",
           "-r%g" % dpi, "-sOutputFile=" + png, eps])
    page = B.pillow_rgb(png)
    scale = int(width * (2400.0 / width)) / 300.0 * dpi / width  # dots per pixel across
    tall = int(height * (2400.0 / width)) / 300.0 * dpi / height
    xs = (0.25 * dpi + (np.arange(width) + 0.5) * scale).astype(int)
    ys = (0.25 * dpi + (np.arange(height) + 0.5) * tall).astype(int)
    return page[ys][:, xs]


def renders_as_source(convert_args, name):
    """A source made with convert, saved as type 14 and rendered: every
    pixel the colour the user sees in the source, exactly (palette and
    black-and-white pictures print their colours unchanged)."""
    src = B.make("convert %s %s BMP3:{out}" % (SRC, convert_args), name + ".bmp")
    saved = B.save(src, B.tmp(name + ".eps"), 14)
    assert not isinstance(saved, int), "save gave %d" % saved
    B.compare(rendered_cells(B.tmp(name + ".eps"), saved.width, saved.height), saved.rgb(), "Ghostscript on " + name)
    text = open(B.tmp(name + ".eps"), "rb").read()
    assert text.startswith(b"%!PS-Adobe-2.0 EPSF-2.0\r\n\0\0") and text.endswith(b"showpage\r\n\0\0")


def preview_loads(fmt):
    eps = B.make("gm convert %s %s:{out}" % (SRC, fmt), fmt + ".eps")
    B.compare(B.loaded(eps).rgb(), B.pillow_rgb(SRC), "the %s preview" % fmt)


B.main([
    ("8-bit palette renders in Ghostscript", lambda: renders_as_source("-colors 200 -type Palette", "p8")),
    ("grey palette renders in Ghostscript", lambda: renders_as_source("-colorspace gray -type Palette", "g8")),
    ("1-bit renders in Ghostscript", lambda: renders_as_source("-monochrome -type Bilevel", "b1")),
    ("GraphicsMagick ept preview loads", lambda: preview_loads("ept")),
    ("GraphicsMagick ept2 preview loads", lambda: preview_loads("ept2")),
    ("GraphicsMagick ept3 preview loads", lambda: preview_loads("ept3")),
])
