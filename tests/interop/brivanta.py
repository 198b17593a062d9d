"""Interop test harness: the library through ctypes, Pillow and the
independent command-line tools as reference decoders, and one table-driven
runner: files made by a tool decode here as a reference decodes them, and
our output decodes in the references as it does here.

Run by ctest with /usr/bin/python3; BRIVANTA_LIB names the shared library,
BRIVANTA_TOOL the command-line tool, BRIVANTA_FIXTURES the fixture folder."""
import atexit
import ctypes
import io
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import traceback

import numpy as np
from PIL import Image

LIB = ctypes.CDLL(os.environ.get("BRIVANTA_LIB", "libbrivanta.so"))
TOOL = os.environ.get("BRIVANTA_TOOL", "brivanta")
FIXTURES = os.environ.get("BRIVANTA_FIXTURES", os.path.join(os.path.dirname(__file__), "..", "fixtures"))
LIB.IMG_mem_lock.restype = ctypes.c_void_p
LIB.IMG_mem_lock.argtypes = [ctypes.c_int]
for name, args in (("IMG_decompress_bitmap_mem", [ctypes.c_void_p, ctypes.c_int]),
                   ("IMG_save_bitmap_mem", [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]),
                   ("IMG_decompress_bitmap", [ctypes.c_char_p]),
                   ("IMG_save_bitmap", [ctypes.c_int, ctypes.c_char_p, ctypes.c_int]),
                   ("IMG_decompress_bitmap_fd", [ctypes.c_int, ctypes.c_int, ctypes.c_int]),
                   ("IMG_create_handle", [ctypes.c_void_p]),
                   ("IMGLOW_get_filetype", [ctypes.c_char_p]),
                   ("IMGLOW_get_pages", [ctypes.c_char_p])):
    getattr(LIB, name).argtypes = args


class Picture:
    """A handle's bitmap: size, depth, colour table (BGR0 quads) and top-down rows."""

    def __init__(self, width, height, bits, palette, rows):
        self.width, self.height, self.bits = width, height, bits
        self.palette, self.rows = palette, rows

    def indices(self):
        """Pixel values (indexes for palette images) as an H x W array."""
        a = np.frombuffer(b"".join(self.rows), dtype=np.uint8).reshape(self.height, -1)
        if self.bits == 4:
            a = np.stack([a >> 4, a & 15], axis=2).reshape(self.height, -1)
        elif self.bits == 1:
            a = np.unpackbits(a, axis=1)
        return a[:, :self.width].copy()

    def rgb(self):
        """The picture as an H x W x 3 array of red, green, blue."""
        if self.bits == 24:
            a = np.frombuffer(b"".join(r[: 3 * self.width] for r in self.rows), dtype=np.uint8)
            return a.reshape(self.height, self.width, 3)[:, :, ::-1].copy()
        pal = np.frombuffer(self.palette, dtype=np.uint8).reshape(-1, 4)[:, 2::-1]
        return pal[self.indices()]


def stride(width, bits):
    return ((width * bits + 31) // 32) * 4


def bmp_file(px, bits, palette=(), compression=0, body=None):
    """A BMP file of top-down pixels (H x W indexes, or H x W x 3 RGB at 24
    bits) with (r, g, b) entries or ready BGR0 bytes, or of a given body."""
    h, w = px.shape[:2]
    if body is None:
        rows = []
        for y in range(h - 1, -1, -1):
            p = px[y].astype(np.uint8)
            if bits == 24:
                raw = p[:, ::-1]
            else:
                per = 8 // bits
                q = np.zeros(-(-w // per) * per, np.uint8)
                q[:w] = p
                raw = (q.reshape(-1, per) << (np.arange(per - 1, -1, -1) * bits)).sum(axis=1).astype(np.uint8)
            rows.append(raw.tobytes().ljust(stride(w, bits), b"\0"))
        body = b"".join(rows)
    pal = palette if isinstance(palette, bytes) else b"".join(bytes((b, g, r, 0)) for r, g, b in palette)
    at = 14 + 40 + len(pal)
    return (b"BM" + struct.pack("<IHHI", at + len(body), 0, 0, at) +
            struct.pack("<IiiHHIIiiII", 40, w, h, 1, bits, compression, len(body), 3780, 3780, 0, 0) + pal + body)


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
    if not page:
        return take_picture(LIB.IMG_decompress_bitmap(path.encode()))
    fd = os.open(path, os.O_RDONLY)
    try:
        return take_picture(LIB.IMG_decompress_bitmap_fd(fd, 0, page))
    finally:
        os.close(fd)


def loaded(path, page=0):
    """load() that insists on success."""
    p = load(path, page)
    assert not isinstance(p, int), "load of %s failed with %d" % (os.path.basename(path), p)
    return p


def in_block(data, fn):
    """Calls fn with the address of a library block holding data."""
    block = LIB.IMG_mem_alloc(len(data))
    addr = LIB.IMG_mem_lock(block)
    ctypes.memmove(addr, data, len(data))
    try:
        return fn(addr)
    finally:
        LIB.IMG_mem_unlock(block)
        LIB.IMG_mem_free(block)


def load_mem(data, page=0):
    """Loads a file image from a library memory block; a Picture or the code."""
    return take_picture(in_block(data, lambda addr: LIB.IMG_decompress_bitmap_mem(addr, page)))


def load_at_offset(path, lead):
    """Loads the file placed after `lead` bytes of other data in a bigger file."""
    other = tmp("embedded.bin")
    with open(path, "rb") as f, open(other, "wb") as out:
        out.write(bytes((i * 37 + 11) & 0xFF for i in range(lead)) + f.read() + b"\xAA" * 64)
    fd = os.open(other, os.O_RDONLY)
    try:
        return take_picture(LIB.IMG_decompress_bitmap_fd(fd, lead, 0))
    finally:
        os.close(fd)


def save(src, dst, type_code):
    """Loads src and saves it as dst with a type code (removing an older dst
    first); returns the Picture that was saved, or the failing code."""
    if os.path.exists(dst):
        os.remove(dst)
    h = LIB.IMG_decompress_bitmap(src.encode())
    if h < 0:
        return h
    try:
        rc = LIB.IMG_save_bitmap(h, dst.encode(), type_code)
        return rc if rc < 0 else picture_of(h)
    finally:
        LIB.IMG_delete_bitmap(h)


def run(cmd, **kw):
    """Runs an external tool; raises with its output when it fails.  A tool
    that waits for ever (xdotool for a window that never comes) fails too."""
    kw.setdefault("timeout", 300)
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


_TMP = []


def tmp(name):
    """A path in this script's own temporary folder, removed at exit."""
    if not _TMP:
        _TMP.append(tempfile.mkdtemp(prefix="brivanta_interop_"))
        atexit.register(shutil.rmtree, _TMP[0], True)
    return os.path.join(_TMP[0], name)


def make(cmd, name):
    """Makes tmp(name) with a shell command: its {out} is the file, or the
    file is its output.  Returns the path."""
    out = tmp(name)
    run(cmd.format(out=out) if "{out}" in cmd else cmd + " > " + out)
    return out


def xvfb(screen, *extra):
    """A private Xvfb on a display number it picks itself: (server, ":n"),
    or (None, None) when none starts."""
    r, w = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(w), "-nolisten", "tcp", "-screen", "0", screen, *extra],
                              pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(w)
    with os.fdopen(r) as f:
        number = f.readline().strip()
    if not number:
        server.wait()
        return None, None
    return server, ":" + number


def image_rgb(data):
    """Any image file's bytes (PNM from a tool, say) decoded by Pillow to RGB."""
    return np.asarray(Image.open(io.BytesIO(data)).convert("RGB"))


def pillow_rgb(path, page=0):
    with Image.open(path) as im:
        im.seek(page)
        return np.asarray(im.convert("RGB"))


def libtiff_rgb(path, page=0):
    """libtiff's own decode through tiff2rgba (whose files Pillow does not
    always open), read back by ImageMagick."""
    run(["tiff2rgba", "-c", "none", path, path + ".rgba.tif"])
    return REFERENCES["ImageMagick"](path + ".rgba.tif")


# Reference decoders by name: each gives a file's (page's) pixels as RGB.
REFERENCES = {
    "Pillow": pillow_rgb,
    "libtiff": libtiff_rgb,
    "ImageMagick": lambda p, page=0: image_rgb(run(["convert", "%s[%d]" % (p, page), "-depth", "8", "ppm:-"])),
    "djpeg": lambda p, page=0: image_rgb(run(["djpeg", "-nosmooth", "-dct", "int", "-pnm", p])),
}
def dcx_page_rgb(path, page=0):
    """A DCX page cut out at its directory offsets and decoded by Pillow,
    whose own DCX reading takes 8-bit pages from the wrong places."""
    data = open(path, "rb").read()
    start, end = struct.unpack_from("<II", data, 4 + 4 * page)
    with open(path + ".page.pcx", "wb") as f:
        f.write(data[start:end or len(data)])
    return pillow_rgb(path + ".page.pcx")


# xwdtopnm writes 16-bit grey maps: brought to eight bits a sample.
REFERENCES["xwdtopnm"] = lambda p, page=0: image_rgb(run("xwdtopnm %s 2>/dev/null | pamdepth 255" % p))
for _tool in ("pcxtoppm", "tgatoppm", "giftopnm", "g3topbm", "xbmtopbm", "xpmtoppm", "rasttopnm", "ilbmtoppm",
              "gemtopnm", "macptopbm"):
    REFERENCES[_tool] = lambda p, page=0, t=_tool: image_rgb(run([t, p]))


def decodes_like(path, ref="Pillow", tolerance=0, page=0, floor=None):
    """Our load of the file against a reference decoder (a name in REFERENCES
    or a function of the path and page): within a tolerance, or (floor) at
    least that many dB apart.  Returns our Picture."""
    ours = loaded(path, page)
    decode = REFERENCES[ref] if isinstance(ref, str) else ref
    what = "%s against %s" % (os.path.basename(path), getattr(decode, "__name__", ref))
    compare(ours.rgb(), decode(path, page), what, tolerance, floor)
    return ours


def test_rgb(w, h):
    """A colour picture: two gradients, a texture and a flat band."""
    y, x = np.mgrid[0:h, 0:w]
    a = np.stack([x * 255 // (w - 1), y * 255 // (h - 1), (x * 7 + y * 13) % 256], axis=-1).astype(np.uint8)
    a[h // 3: h // 2] = [200, 30, 90]
    return Image.fromarray(a, "RGB")


def test_page(w=400, h=300):
    """A bilevel page: text, a box, a disc, a dither patch and rows of noise,
    so fax coders meet every mode."""
    from PIL import ImageDraw
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


def compare(a, b, what, tolerance=0, floor=None):
    """Equal within a tolerance, or (floor) close to at least that many dB."""
    if floor is not None:
        value = psnr(a, b)
        print("     %s: %.2f dB" % (what, value))
        assert value >= floor, "%s: %.2f dB < %.1f" % (what, value, floor)
        return
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
