"""The clipboard on X11: pictures that xclip offers on the CLIPBOARD selection
of a private Xvfb server are saved as BMP files: a BMP target byte for byte
(a large one arriving in INCR chunks), a PNG target as the same picture,
and a clipboard with no picture gives -2."""
import ctypes
import os
import subprocess
import time

import numpy as np
from PIL import Image

from brivanta import LIB, compare, main, require, test_rgb, tmp, xvfb

require("Xvfb", "xclip")
LIB.IMG_save_clipboard.argtypes = [ctypes.c_char_p, ctypes.c_char_p]


SERVER, DISPLAY = xvfb("64x64x24")
assert SERVER, "Xvfb did not start"
ENV = dict(os.environ, DISPLAY=DISPLAY)


def offer(path, target):
    """xclip owns the selection with the file as target until the next offer;
    its server starts after the command returns, so wait until it answers."""
    xclip = ["xclip", "-selection", "clipboard", "-t", target]
    subprocess.run(xclip + ["-i", path], env=ENV, check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=20)
    with open(path, "rb") as f:
        want = f.read()
    for _ in range(100):
        if subprocess.run(xclip + ["-o"], env=ENV, capture_output=True, timeout=20).stdout == want:
            return
        time.sleep(0.1)
    raise AssertionError("xclip never offered " + path)


def saved():
    out = tmp("clip.bmp")
    if os.path.exists(out):
        os.remove(out)
    r = LIB.IMG_save_clipboard(out.encode(), DISPLAY.encode())
    return r, out


def test_clipboard_pictures():
    # Pillow's BMP files carry full colour tables: the file comes back as it
    # went, also at 1500 x 1000 x 24 bits, past xclip's single-transfer size.
    # A PNG comes back as a BMP of its picture; text and nothing give -2.
    r, out = saved()
    assert r == -2 and not os.path.exists(out), r
    for mode, w, h, kind in [("P", 37, 23, "bmp"), ("1", 50, 9, "bmp"), ("RGB", 1500, 1000, "bmp"),
                             ("RGB", 45, 31, "png"), (None, 0, 0, "txt")]:
        src = tmp("offer." + kind)
        if mode:
            test_rgb(w, h).convert(mode).save(src)
        else:
            with open(src, "w") as f:
                f.write("not a picture\n")
        offer(src, {"bmp": "image/bmp", "png": "image/png", "txt": "UTF8_STRING"}[kind])
        r, out = saved()
        assert r == (-2 if kind == "txt" else 1), (mode, w, h, r)
        if kind == "bmp":
            with open(src, "rb") as a, open(out, "rb") as b:
                assert a.read() == b.read(), "%s %dx%d differs" % (mode, w, h)
        elif kind == "png":
            compare(np.asarray(Image.open(out).convert("RGB")), np.asarray(Image.open(src).convert("RGB")), "png")


if __name__ == "__main__":
    try:
        main([("clipboard_pictures", test_clipboard_pictures)])
    finally:
        SERVER.terminate()
        SERVER.wait()
