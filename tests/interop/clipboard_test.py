"""The clipboard on X11: pictures that xclip offers on the CLIPBOARD selection
of a private Xvfb server are saved as BMP files: a BMP target byte for byte
(a large one arriving in INCR chunks), a PNG target as the same picture,
and a clipboard with no picture gives -2."""
import ctypes
import os
import subprocess

import numpy as np
from PIL import Image

from brivanta import LIB, compare, main, require, test_rgb, tmp

require("Xvfb", "xclip")
LIB.IMG_save_clipboard.argtypes = [ctypes.c_char_p, ctypes.c_char_p]


def start_server():
    """A private Xvfb on a display number it picks itself."""
    r, w = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(w), "-nolisten", "tcp", "-screen", "0", "64x64x24"],
                              pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(w)
    number = b""
    while not number.endswith(b"\n"):
        chunk = os.read(r, 16)
        if not chunk:
            break
        number += chunk
    os.close(r)
    assert number.strip(), "Xvfb did not start"
    return server, ":" + number.decode().strip()


SERVER, DISPLAY = start_server()
ENV = dict(os.environ, DISPLAY=DISPLAY)


def offer(path, target):
    """xclip owns the selection with the file as target until the next offer."""
    subprocess.run(["xclip", "-selection", "clipboard", "-t", target, "-i", path], env=ENV, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=20)


def saved():
    out = tmp("clip.bmp")
    if os.path.exists(out):
        os.remove(out)
    r = LIB.IMG_save_clipboard(out.encode(), DISPLAY.encode())
    return r, out


def test_empty_clipboard():
    r, out = saved()
    assert r == -2 and not os.path.exists(out), r


def test_bmp_target_saved_as_is():
    # Pillow's BMP files carry a full colour table, so the file comes back
    # unchanged; 1500 x 1000 at 24 bits is past xclip's single-transfer size.
    cases = [("P", 37, 23), ("1", 50, 9), ("RGB", 61, 17), ("RGB", 1500, 1000)]
    for mode, w, h in cases:
        src = tmp("offer.bmp")
        test_rgb(w, h).convert(mode).save(src)
        offer(src, "image/bmp")
        r, out = saved()
        assert r == 1, (mode, w, h, r)
        with open(src, "rb") as a, open(out, "rb") as b:
            assert a.read() == b.read(), "%s %dx%d differs" % (mode, w, h)


def test_png_target_saved_as_bmp():
    src = tmp("offer.png")
    test_rgb(45, 31).save(src)
    offer(src, "image/png")
    r, out = saved()
    assert r == 1, r
    compare(np.asarray(Image.open(out).convert("RGB")), np.asarray(Image.open(src).convert("RGB")), "png clipboard")


def test_text_is_no_picture():
    src = tmp("offer.txt")
    with open(src, "w") as f:
        f.write("not a picture\n")
    offer(src, "UTF8_STRING")
    assert saved()[0] == -2


if __name__ == "__main__":
    try:
        main([
            ("empty_clipboard", test_empty_clipboard),
            ("bmp_target_saved_as_is", test_bmp_target_saved_as_is),
            ("png_target_saved_as_bmp", test_png_target_saved_as_bmp),
            ("text_is_no_picture", test_text_is_no_picture),
        ])
    finally:
        SERVER.terminate()
        SERVER.wait()
