"""The viewer on a virtual X server: keys sent with xdotool, the window
captured with xwd and decoded by ImageMagick, held to the same library calls
drawn on a memory surface.  Run once with MIT-SHM and once without."""
import ctypes
import os
import subprocess
import sys
import time

import numpy as np

import brivanta as B

B.require("Xvfb", "xdotool", "xwd", "convert")
L = B.LIB
VP = ctypes.c_void_p
I = ctypes.c_int
for name, args in (("IMG_dc_create_memory", [I, I, VP]), ("IMG_dc_delete", [VP]),
                   ("IMG_dc_read_pixels", [VP, I, I, I, I, VP]), ("IMG_zoom_bitmap", [I, VP, I]),
                   ("IMG_display_bitmap", [I, VP, I, I, I, I]), ("IMG_scroll_bitmap", [I, VP, ctypes.c_uint, I, I]),
                   ("IMG_repaint_scroll", [I, VP, VP, I, VP]), ("IMG_dib_to_ddb", [I, VP, I, I, VP]),
                   ("IMG_display_ddb", [VP, VP, I, I]), ("IMG_delete_ddb", [VP]), ("IMG_zoom_bitmap_1_to_1", [I, VP])):
    getattr(L, name).argtypes = args

# Larger than the largest window, so the view opens scaled down to 1024 x 768.
FIRST, SECOND = B.tmp("first.bmp"), B.tmp("second.bmp")
B.test_rgb(1280, 960).save(FIRST)
B.test_rgb(1280, 960).transpose(0).save(SECOND)
W, H = 1024, 768


class IMG_paint(ctypes.Structure):
    _fields_ = [("dc", VP), ("erase", I), ("left", I), ("top", I), ("right", I), ("bottom", I)]


class Replica:
    """The viewer's calls on a memory surface of the window's size."""

    def __init__(self, path):
        self.dc = VP()
        self.resize(W, H)
        self.open(path)

    def resize(self, w, h):
        if self.dc:
            L.IMG_dc_delete(self.dc)
        self.w, self.h_ = w, h
        assert L.IMG_dc_create_memory(w, h, ctypes.byref(self.dc)) == 0

    def open(self, path):
        self.h = L.IMG_decompress_bitmap(path.encode())
        assert self.h >= 0
        L.IMG_zoom_bitmap(self.h, self.dc, 100)

    def zoom(self, percent):
        L.IMG_zoom_bitmap(self.h, self.dc, percent)
        L.IMG_display_bitmap(self.h, self.dc, 0, 0, self.w, self.h_)

    def one_to_one(self):
        L.IMG_zoom_bitmap_1_to_1(self.h, self.dc)
        L.IMG_display_bitmap(self.h, self.dc, 0, 0, W, H)

    def scroll_right(self):
        crop = [I() for _ in range(4)]
        L.IMG_get_croprect(self.h, *[ctypes.byref(c) for c in crop])
        before, width = crop[0].value, crop[2].value
        direction = L.IMG_scroll_bitmap(self.h, self.dc, 1, 0, 276)
        L.IMG_get_croprect(self.h, *[ctypes.byref(c) for c in crop])
        # The window moved by the screen delta (remainder 0 after a zoom);
        # the strip it uncovered at the right is painted.
        d = int((before - crop[0].value) * W * 256 / width)
        paint = IMG_paint(self.dc, 0, W + (d >> 8), 0, W, H)
        assert direction == 2, direction
        L.IMG_repaint_scroll(self.h, self.dc, self.dc, direction, ctypes.byref(paint))

    def next_with_effect(self, path):
        L.IMG_delete_bitmap(self.h)
        self.open(path)
        ddb = VP()
        assert L.IMG_dib_to_ddb(self.h, self.dc, W, H, ctypes.byref(ddb)) == 0
        L.IMG_display_ddb(ddb, self.dc, 0, 0)
        L.IMG_delete_ddb(ddb)

    def rgb(self):
        buf = (ctypes.c_uint32 * (self.w * self.h_))()
        assert L.IMG_dc_read_pixels(self.dc, 0, 0, self.w, self.h_, buf) == 0
        a = np.frombuffer(buf, dtype=np.uint32).reshape(self.h_, self.w)
        return np.stack([(a >> 16) & 255, (a >> 8) & 255, a & 255], axis=-1).astype(np.uint8)


def capture(env, window):
    xwd = subprocess.run(["xwd", "-silent", "-id", window], env=env, capture_output=True, check=True).stdout
    return B.image_rgb(B.run(["convert", "xwd:-", "ppm:-"], input=xwd))


def shows(env, window, want, what):
    """The window comes to show want within a few seconds."""
    got = None
    for _ in range(60):
        got = capture(env, window)
        if got.shape == want.shape and (got == want).all():
            return
        time.sleep(0.1)
    B.compare(got, want, what)


def session(extra):
    server, display = B.xvfb("1280x1024x24", *extra)
    if not server:
        print("skipped: Xvfb cannot start here")
        sys.exit(77)
    env = dict(os.environ, DISPLAY=display)
    viewer = subprocess.Popen([B.TOOL, "view", "--effect", "4", FIRST, SECOND], env=env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        window = B.run(["xdotool", "search", "--sync", "--name", "brivanta view"], env=env).split()[0].decode()
        key = lambda *k: B.run(["xdotool", "key", "--window", window] + list(k), env=env)
        replica = Replica(FIRST)
        replica.zoom(100)
        shows(env, window, replica.rgb(), "opened fitted")
        key("plus")
        replica.zoom(125)
        shows(env, window, replica.rgb(), "zoomed in")
        key("Right")
        replica.scroll_right()
        shows(env, window, replica.rgb(), "scrolled right")
        key("1")
        replica.one_to_one()
        shows(env, window, replica.rgb(), "one to one")
        key("n")
        replica.next_with_effect(SECOND)
        shows(env, window, replica.rgb(), "next file")
        # A resize comes with the backing store resized: the view is drawn anew.
        B.run(["xdotool", "windowsize", window, "640", "400"], env=env)
        replica.resize(640, 400)
        replica.zoom(100)
        shows(env, window, replica.rgb(), "resized")
        # The window is gone before the key's release reaches it: xdotool's error is expected.
        subprocess.run(["xdotool", "key", "--window", window, "q"], env=env, capture_output=True)
        assert viewer.wait(timeout=10) == 0, viewer.stderr.read()
    finally:
        if viewer.poll() is None:
            viewer.kill()
            viewer.wait()
        server.terminate()
        server.wait()


def no_display_one_line():
    env = dict(os.environ, DISPLAY=":98765")
    r = subprocess.run([B.TOOL, "view", FIRST], env=env, capture_output=True, timeout=30)
    assert r.returncode != 0 and r.stderr.count(b"\n") == 1, r.stderr


B.main([("with shared memory", lambda: session([])),
        ("without shared memory", lambda: session(["-extension", "MIT-SHM"])),
        ("no display: one line", no_display_one_line)])
