"""Interop test harness: the library through ctypes, Pillow and the
independent command-line tools, and a tiny table-driven runner.

Run by ctest with /usr/bin/python3; BRIVANTA_LIB names the shared library,
BRIVANTA_TOOL the command-line tool, BRIVANTA_FIXTURES the fixture folder."""
import atexit
import ctypes
import io
import os
import shutil
import subprocess
import sys
import tempfile
import traceback

import numpy as np

LIB = ctypes.CDLL(os.environ.get("BRIVANTA_LIB", "libbrivanta.so"))
TOOL = os.environ.get("BRIVANTA_TOOL", "brivanta")
FIXTURES = os.environ.get("BRIVANTA_FIXTURES", os.path.join(os.path.dirname(__file__), "..", "fixtures"))
LIB.IMG_mem_lock.restype = ctypes.c_void_p
LIB.IMG_mem_lock.argtypes = [ctypes.c_int]
LIB.IMG_decompress_bitmap_mem.argtypes = [ctypes.c_void_p, ctypes.c_int]
LIB.IMG_save_bitmap_mem.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
LIB.IMG_decompress_bitmap.argtypes = [ctypes.c_char_p]
LIB.IMG_save_bitmap.argtypes = [ctypes.c_int, ctypes.c_char_p, ctypes.c_int]
LIB.IMG_decompress_bitmap_fd.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_int]
LIB.IMG_create_handle.argtypes = [ctypes.c_void_p]
LIB.IMGLOW_get_filetype.argtypes = [ctypes.c_char_p]
LIB.IMGLOW_get_pages.argtypes = [ctypes.c_char_p]


class Picture:
    """A handle's bitmap: size, depth, colour table (BGR0 quads) and top-down rows."""

    def __init__(self, width, height, bits, palette, rows):
        self.width, self.height, self.bits = width, height, bits
        self.palette, self.rows = palette, rows

    def indices(self):
        """Pixel values (indexes for palette images) as an H x W array."""
        w = self.width
        out = np.zeros((self.height, w), dtype=np.uint8)
        for y, row in enumerate(self.rows):
            a = np.frombuffer(row, dtype=np.uint8)
            if self.bits == 8:
                out[y] = a[:w]
            elif self.bits == 4:
                out[y] = np.stack([a >> 4, a & 15], axis=1).reshape(-1)[:w]
            elif self.bits == 1:
                out[y] = np.unpackbits(a)[:w]
        return out

    def rgb(self):
        """The picture as an H x W x 3 array of red, green, blue."""
        if self.bits == 24:
            a = np.frombuffer(b"".join(r[: 3 * self.width] for r in self.rows), dtype=np.uint8)
            return a.reshape(self.height, self.width, 3)[:, :, ::-1].copy()
        pal = np.frombuffer(self.palette, dtype=np.uint8).reshape(-1, 4)[:, 2::-1]
        return pal[self.indices()]


def stride(width, bits):
    n = {1: (width + 7) // 8, 4: (width + 1) // 2, 24: width * 3}.get(bits, width)
    return (n + 3) & ~3


def picture_of(handle):
    w, h, b = ctypes.c_int(), ctypes.c_int(), ctypes.c_int()
    block = LIB.IMG_bitmap_info(handle, ctypes.byref(w), ctypes.byref(h), ctypes.byref(b))
    assert block > 0, "IMG_bitmap_info failed: %d" % block
    addr = LIB.IMG_mem_lock(block)
    w, h, b = w.value, h.value, b.value
    pal = 0 if b == 24 else 4 << b
    s = stride(w, b)
    data = ctypes.string_at(addr, 40 + pal + s * h)
    LIB.IMG_mem_unlock(block)
    rows = [data[40 + pal + (h - 1 - y) * s: 40 + pal + (h - y) * s] for y in range(h)]
    return Picture(w, h, b, data[40: 40 + pal], rows)


def take_picture(h):
    """The Picture of a freshly loaded handle, which is then deleted; a
    negative load result passes through."""
    if h < 0:
        return h
    try:
        return picture_of(h)
    finally:
        LIB.IMG_delete_bitmap(h)


def load(path, page=0):
    """Loads a file into a handle and returns its Picture, or the error code."""
    if page:
        fd = os.open(path, os.O_RDONLY)
        try:
            h = LIB.IMG_decompress_bitmap_fd(fd, 0, page)
        finally:
            os.close(fd)
    else:
        h = LIB.IMG_decompress_bitmap(path.encode())
    return take_picture(h)


def load_handle(path):
    return LIB.IMG_decompress_bitmap(path.encode())


def convert(src, dst, type_code):
    """Loads src and saves it as dst with a type code; returns the save's result."""
    h = load_handle(src)
    if h < 0:
        return h
    try:
        return LIB.IMG_save_bitmap(h, dst.encode(), type_code)
    finally:
        LIB.IMG_delete_bitmap(h)


def pillow_rgb(path, frame=0):
    from PIL import Image
    with Image.open(path) as im:
        if frame:
            im.seek(frame)
        return np.asarray(im.convert("RGB"))


def run(cmd, **kw):
    """Runs an external tool; raises with its output when it fails."""
    r = subprocess.run(cmd, shell=isinstance(cmd, str), capture_output=True, **kw)
    if r.returncode != 0:
        raise AssertionError("%s failed: %s" % (cmd, r.stderr.decode(errors="replace")[:400]))
    return r.stdout


def require(*tools):
    """Skips the whole script (exit 77) when an independent tool is missing."""
    missing = [t for t in tools if shutil.which(t) is None]
    if missing:
        print("skipped: missing " + " ".join(missing))
        sys.exit(77)


def fixture(*parts):
    return os.path.join(FIXTURES, *parts)


def tempdir():
    return tempfile.mkdtemp(prefix="brivanta_interop_")


_TMP = []


def tmp(name):
    """A path in this script's own temporary folder, removed at exit."""
    if not _TMP:
        _TMP.append(tempdir())
        atexit.register(shutil.rmtree, _TMP[0], True)
    return os.path.join(_TMP[0], name)


def make(cmd, name):
    """Runs a shell command with its output into tmp(name); returns the path."""
    run(cmd + " > " + tmp(name))
    return tmp(name)


def image_rgb(data):
    """Any image file's bytes (PNM from a tool, say) decoded by Pillow to RGB."""
    from PIL import Image
    return np.asarray(Image.open(io.BytesIO(data)).convert("RGB"))


def tool_rgb(cmd):
    """An independent decoder's output on stdout, as an RGB array."""
    return image_rgb(run(cmd))


def loaded(path, page=0):
    """load() that insists on success."""
    p = load(path, page)
    assert not isinstance(p, int), "load of %s failed with %d" % (os.path.basename(path), p)
    return p


def load_mem(data, page=0):
    """Loads a file image from a library memory block; a Picture or the code."""
    block = LIB.IMG_mem_alloc(len(data))
    addr = LIB.IMG_mem_lock(block)
    ctypes.memmove(addr, data, len(data))
    try:
        return take_picture(LIB.IMG_decompress_bitmap_mem(addr, page))
    finally:
        LIB.IMG_mem_unlock(block)
        LIB.IMG_mem_free(block)


def load_at_offset(path, lead):
    """Loads the file placed after `lead` bytes of other data in a bigger file."""
    other = tmp("embedded.bin")
    with open(path, "rb") as f, open(other, "wb") as out:
        out.write(bytes((i * 37 + 11) & 0xFF for i in range(lead)) + f.read() + b"\xAA" * 64)
    fd = os.open(other, os.O_RDONLY)
    try:
        h = LIB.IMG_decompress_bitmap_fd(fd, lead, 0)
    finally:
        os.close(fd)
    return take_picture(h)


def test_rgb(w, h):
    """A colour picture: two gradients, a texture and a flat band."""
    from PIL import Image
    y, x = np.mgrid[0:h, 0:w]
    a = np.stack([x * 255 // (w - 1), y * 255 // (h - 1), (x * 7 + y * 13) % 256], axis=-1).astype(np.uint8)
    a[h // 3: h // 2] = [200, 30, 90]
    return Image.fromarray(a, "RGB")


def test_page(w=400, h=300):
    """A bilevel page: text, a box, a disc, a dither patch and rows of noise,
    so fax coders meet every mode."""
    from PIL import Image, ImageDraw
    im = Image.new("1", (w, h), 1)
    d = ImageDraw.Draw(im)
    for i in range(11):
        d.text((10, 10 + 22 * i), "Brivanta fax line %02d: The quick brown fox jumps" % i, fill=0)
    d.rectangle((300, 40, 380, 120), outline=0)
    d.ellipse((250, 160, 390, 250), fill=0)
    for yy in range(130, 155):
        for xx in range(300, 390):
            if (xx + yy) % 3 == 0:
                im.putpixel((xx, yy), 0)
    im.paste(Image.fromarray(np.random.RandomState(4).randint(0, 2, (40, w)).astype(bool)), (0, h - 40))
    return im


def psnr(a, c):
    assert a.shape == c.shape, "shape %s != %s" % (a.shape, c.shape)
    mse = ((a.astype(float) - c.astype(float)) ** 2).mean()
    return 99.0 if mse == 0 else 10 * np.log10(255.0 ** 2 / mse)


def assert_same(a, b, what, tolerance=0):
    assert a.shape == b.shape, "%s: shape %s != %s" % (what, a.shape, b.shape)
    diff = np.abs(a.astype(int) - b.astype(int))
    worst = int(diff.max()) if diff.size else 0
    assert worst <= tolerance, "%s: differs by up to %d (%d pixels)" % (what, worst, int((diff > tolerance).any(axis=-1).sum()))


def main(cases):
    """Runs (name, function) cases and prints the closing count line."""
    passed = failed = 0
    for name, fn in cases:
        try:
            fn()
            passed += 1
            print("ok   " + name)
        except Exception:
            failed += 1
            print("FAIL " + name)
            traceback.print_exc()
    print("%d passed, %d failed" % (passed, failed))
    sys.exit(1 if failed else 0)
