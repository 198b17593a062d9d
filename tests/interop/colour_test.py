"""Colour reductions against small numpy models of their rules, written here
from the rules and not from the library: every pixel of every method must
match on pictures that hit the edges (thresholds equal to a value, errors
off the right edge and the last row, one colour, 1 x 1 and 1 x N).  Then
the popularity and octree palettes beside ImageMagick's and pngquant's."""
import ctypes

import numpy as np

import brivanta as B

L = B.LIB
L.IMG_octree_color.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_int]

BAYER = np.array([4, 128, 32, 160, 8, 136, 40, 168, 192, 64, 224, 96, 200, 72, 232, 104,
                  48, 176, 16, 144, 56, 184, 24, 152, 240, 112, 208, 80, 248, 120, 216, 88,
                  12, 140, 44, 172, 4, 132, 36, 164, 204, 76, 236, 108, 196, 68, 228, 100,
                  60, 188, 28, 156, 52, 180, 20, 148, 252, 124, 220, 92, 244, 116, 212, 84])
HALFTONE = np.array([136, 192, 160, 128, 116, 60, 92, 124, 168, 232, 224, 212, 84, 20, 28, 40,
                     200, 248, 244, 180, 52, 4, 8, 72, 152, 184, 216, 148, 100, 68, 36, 104,
                     112, 56, 88, 120, 140, 196, 164, 132, 80, 16, 24, 44, 172, 236, 228, 208,
                     48, 0, 12, 76, 204, 252, 240, 176, 96, 64, 32, 108, 156, 188, 220, 144])


def pcx(i):  # blue, green, red
    return [(255 if i & 8 else 128) if i & bit else 0 for bit in (4, 2, 1)]


CUBE = [[(i & 3) * 85, ((i >> 2) & 7) * 255 // 7, ((i >> 5) & 7) * 255 // 7] for i in range(256)]


# ---- Pictures: blue, green, red arrays in storage order (row 0 at the bottom) --
def dib(bgr, bits):
    """A DIB of the picture: 24 bits as it is, else through a table of its
    own distinct colours (which must fit)."""
    h, w, _ = bgr.shape
    colours, idx = np.unique(bgr.reshape(-1, 3), axis=0, return_inverse=True)
    idx = idx.reshape(h, w).astype(np.uint8)
    table = np.zeros((1 << bits if bits < 24 else 0, 4), np.uint8)
    table[:len(colours), :3] = colours[:len(table)]
    pack = {24: lambda r: bgr[r].astype(np.uint8), 8: lambda r: idx[r], 1: lambda r: np.packbits(idx[r]),
            4: lambda r: np.append(idx[r], 0)[:w + (w & 1)].reshape(-1, 2) @ np.array([16, 1], np.uint8)}
    rows = b"".join(pack[bits](r).astype(np.uint8).tobytes().ljust(B.stride(w, bits), b"\0") for r in range(h))
    head = np.array([40, w, h, 1 | bits << 16, 0, len(rows), 0, 0, 0, 0], np.uint32).tobytes()
    return head + table.tobytes() + rows


def handle(bgr, bits=24):
    h = B.in_block(dib(bgr, bits), L.IMG_create_handle)
    assert h >= 0, h
    return h


def result(h):
    """Pixels in storage order (indexes, or blue, green, red at 24 bits),
    the colour table as blue, green, red, and the depth."""
    p = B.picture_of(h)
    L.IMG_delete_bitmap(h)
    pal = np.frombuffer(p.palette, np.uint8).reshape(-1, 4)[:, :3].astype(int)
    return (p.rgb()[..., ::-1] if p.bits == 24 else p.indices())[::-1].astype(int), pal, p.bits


# ---- Models ------------------------------------------------------------------------
def mono_grey(bgr):
    return (11 * bgr[..., 0] + 59 * bgr[..., 1] + 30 * bgr[..., 2]) // 100


def thresholds(table, h, w):
    y, x = np.mgrid[0:h, 0:w]
    return table[8 * (x % 8) + (y % 8)]


def model_ordered_mono(bgr, table):
    return (mono_grey(bgr) > thresholds(table, *bgr.shape[:2])).astype(int)


def model_bayer_colour(bgr):
    t = thresholds(BAYER, *bgr.shape[:2])
    b, g, r = (bgr[..., i] for i in range(3))
    return (b > t) * 4 + (g > t) * 2 + (r > t) * 1 + ((38 * r + 75 * g + 14 * b) >> 7 > t + 40) * 8


def tdiv(a, b):
    """Division truncating toward zero."""
    return abs(a) // b * (1 if a >= 0 else -1)


def kernel(terms, shifts=False):
    """(row, column ahead, numerator, denominator) terms; with shifts the
    third item is an arithmetic shift of the error instead."""
    if shifts:
        return [(dr, dx, lambda e, n=n: e >> n) for dr, dx, n in terms]
    return [(dr, dx, lambda e, n=n, d=d: tdiv(n * e, d)) for dr, dx, n, d in terms]


K42 = kernel([(0, 1, 8, 42), (0, 2, 4, 42), (1, -2, 1, 21), (1, -1, 4, 42), (1, 0, 8, 42), (1, 1, 4, 42),
              (1, 2, 1, 21), (2, -2, 1, 42), (2, -1, 1, 21), (2, 0, 4, 42), (2, 1, 1, 21), (2, 2, 1, 42)])
K32 = kernel([(0, 1, 2), (0, 2, 3), (1, -2, 4), (1, -1, 3), (1, 0, 2), (1, 1, 3), (1, 2, 4)], shifts=True)
K16 = kernel([(0, 1, 7, 16), (1, -1, 3, 16), (1, 0, 5, 16), (1, 1, 1, 16)])


def model_diffusion(values, kernel, pick):
    """values: H x W x C source values; pick(list of C) -> (index, errors).
    Rows run in storage order, odd rows right to left; errors land only in
    real pixels, and rows past the last are never read back."""
    h, w, c = values.shape
    work = [list(map(list, values[min(r, h - 1)].tolist())) for r in range(h)]
    out = np.zeros((h, w), int)
    for r in range(h):
        back = r & 1
        for x in (range(w - 1, -1, -1) if back else range(w)):
            index, err = pick(work[r][x])
            out[r, x] = index
            for dr, dx, term in kernel:
                xx = x - dx if back else x + dx
                if r + dr < h and 0 <= xx < w:
                    for k in range(c):
                        work[r + dr][xx][k] += term(err[k])
    return out


def mono_pick(v):
    return (1, [v[0] - 255]) if v[0] >= 128 else (0, [v[0]])


def pcx_pick(v):
    b, g, r = v
    i = (2 if b <= 180 else 6) if g > 180 else 4 if b > 180 else 0
    i |= (r > 180) | (max(v) >= 221) * 8
    return i, [v[k] - pcx(i)[k] for k in range(3)]


def clamped(v):
    return [min(max(c, 0), 255) for c in v]


def cube_pick(v):
    b, g, r = clamped(v)
    i = (r & 0xE0) | ((g & 0xE0) >> 3) | (b >> 6)
    return i, [c - e for c, e in zip((b, g, r), CUBE[i])]


def model_popularity(bgr):
    b, g, r = (bgr[..., i] for i in range(3))
    keys = ((r & 0xF0) << 4) | (g & 0xF0) | (b >> 4)
    count = np.bincount(keys.ravel(), minlength=4096) % 65536
    chosen = [0]
    for _ in range(255):
        k = 4095 - int(np.argmax(count[::-1]))  # the highest of the largest counts
        chosen.append(k)
        count[k] = 0
    ent = np.array([[(k << 4) & 0xF0, k & 0xF0, (k >> 4) & 0xF0] for k in chosen])
    px = np.stack([b, g, r], -1) >> 4 << 1
    d = (((px[..., None, :] - (ent >> 4 << 1)[None, None]) ** 2).sum(-1))
    return np.argmin(d, axis=-1), ent


class Octree:
    """The octree of the rules; a node is [count, [sum b, g, r], level, kids, index]."""

    def __init__(self, colours):
        self.max, self.limit, self.leaves = min(max(colours, 8), 256), 7, 0
        self.root, self.lists = [0, [0, 0, 0], -1, [None] * 8, 0], [[] for _ in range(8)]

    def walk(self, c):
        """The node reached, the level of a missing child, and whether one is missing."""
        node = self.root
        for level in range(8):
            kid = node[3][sum(((c[k] >> (7 - level)) & 1) << (2 - k) for k in range(3))]
            if kid is None:
                return node, level, True
            node = kid
            if node[0]:
                break
        return node, 8, False

    def reduce(self):
        for level in range(6, -1, -1):
            if self.lists[level]:
                best = min(self.lists[level], key=lambda n: sum(k[0] for k in n[3] if k))
                self.lists[level].remove(best)
                self.leaves += (not best[0]) - sum(1 for k in best[3] if k)
                for k in filter(None, best[3]):
                    best[0] += k[0]
                    best[1] = [a + b for a, b in zip(best[1], k[1])]
                best[3], self.limit = [None] * 8, level
                return True
        return False

    def insert(self, c):
        node, level, missing = self.walk(c)
        while missing and self.leaves >= self.max and self.reduce():
            node, level, missing = self.walk(c)
        if missing:
            for d in range(level, self.limit + 1):
                kid = [0, [0, 0, 0], d, [None] * 8, 0]
                node[3][sum(((c[k] >> (7 - d)) & 1) << (2 - k) for k in range(3))] = kid
                if d < self.limit:
                    self.lists[d].insert(0, kid)
                node = kid
            self.leaves += 1
        node[0] += 1
        node[1] = [a + b for a, b in zip(node[1], c)]

    def palette(self):
        self.pal = []

        def visit(n):
            if n[0] and len(self.pal) < self.max:
                n[4] = len(self.pal)
                self.pal.append([min(s // n[0], 255) for s in n[1]])
            for k in filter(None, n[3]):
                if len(self.pal) < self.max:
                    visit(k)
        visit(self.root)
        return self.pal

    def lookup(self, c):
        node, _, missing = self.walk(c)
        if not missing:
            return node[4]
        return int(np.argmin([sum(((c[k] >> 1) - (e[k] >> 1)) ** 2 for k in range(3)) for e in self.pal]))


def model_octree(bgr, bits, colours, given=None):
    t = Octree(min(colours, 16) if bits == 4 else colours)
    for c in (given[:colours] if given is not None else bgr.reshape(-1, 3).tolist()):
        t.insert([int(v) for v in c])
    pal = t.palette()

    def pick(v):
        i = t.lookup(clamped(v))
        return i, [c - e for c, e in zip(clamped(v), pal[i])]
    return model_diffusion(bgr, K16, pick), np.array(pal)


# ---- Test pictures -------------------------------------------------------------------
RNG = np.random.default_rng(19)


def noise(h, w, levels=None):
    a = RNG.integers(0, 256, (h, w, 3))
    return a if levels is None else RNG.choice(levels, (h, w, 3))


def ramp(h, w):
    y, x = np.mgrid[0:h, 0:w]
    return np.stack([x * 255 // max(w - 1, 1), y * 255 // max(h - 1, 1), (x * 7 + y * 13) % 256], -1)


def grey(h, w, v):
    return np.full((h, w, 3), v)


# name, picture, source depths it is given at
PICTURES = [
    ("noise 37x23", noise(23, 37), (24,)),
    ("ramp 29x19", ramp(19, 29), (24,)),
    ("16 colours 21x13", noise(13, 21, [0, 90, 200, 255]), (24, 8)),
    ("8 colours 11x9", noise(9, 11, [0, 255]), (24, 8, 4)),
    ("grey 4 (equal to a threshold)", grey(8, 8, 4), (24, 8, 4)),
    ("grey 5", grey(16, 16, 5), (24,)),
    ("grey 128", grey(8, 16, 128), (24,)),
    ("grey 127", grey(9, 9, 127), (24,)),
    ("white", grey(5, 7, 255), (24, 4)),
    ("1x1", noise(1, 1), (24, 8, 4)),
    ("1xN", noise(1, 17), (24,)),
    ("Nx1", noise(17, 1), (24,)),
]


def method(name, call, model, depths=(24, 8, 4)):
    """A case: call on each picture at each depth it takes, against the model."""
    def check():
        for pname, pic, pdepths in PICTURES:
            for bits in set(pdepths) & set(depths):
                h = handle(pic, bits)
                assert call(h) == 0, "%s on %s" % (name, pname)
                got, pal, _ = result(h)
                want, want_pal = model(pic)
                where = "%s, %d-bit %s" % (name, bits, pname)
                assert np.array_equal(got, want), "%s: %d pixels differ" % (where, int((got != want).sum()))
                assert np.array_equal(pal[:len(want_pal)], want_pal), where + ": palette"
    return name, check


def fixed(pixels, palette):
    return lambda pic: (pixels(pic), np.array(palette))


MONO = [[0, 0, 0], [255, 255, 255]]
PCX = [pcx(i) for i in range(16)]


def ordered(table):
    return fixed(lambda p: model_ordered_mono(p, table), MONO)


def diffused(kernel, pick, palette):
    return fixed(lambda p: model_diffusion(mono_grey(p)[..., None] if pick is mono_pick else p, kernel, pick), palette)


def octree(bits, colours):
    return lambda p: model_octree(p, bits, colours)


CASES = [
    method("bayer mono", L.IMG_bayer_mono, ordered(BAYER)),
    method("halftone mono", L.IMG_halftone_mono, ordered(HALFTONE)),
    method("bayer colour", L.IMG_bayer_color, fixed(model_bayer_colour, PCX)),
    method("diffusion mono", L.IMG_diffusion_mono, diffused(K42, mono_pick, MONO)),
    method("diffusion colour", L.IMG_diffusion_color, diffused(K32, pcx_pick, PCX)),
    method("median cut is diffusion onto the cube", L.IMG_mediancut_color, diffused(K32, cube_pick, CUBE)),
    method("popularity", L.IMG_popularity_color, model_popularity, (24,)),
    method("octree 8 bits", lambda h: L.IMG_octree_color(h, 8, None, 256), octree(8, 256), (24, 8)),
    method("octree asked for 4 builds 8", lambda h: L.IMG_octree_color(h, 8, None, 4), octree(8, 4), (24, 8)),
    method("octree 4 bits", lambda h: L.IMG_octree_color(h, 4, None, 256), octree(4, 16), (24, 8)),
]


def octree_given_palette():
    given = np.array([[0, 0, 0, 0], [255, 255, 255, 0], [0, 0, 255, 0], [40, 200, 90, 0], [7, 7, 7, 0]], np.uint8)
    pic = ramp(19, 29)
    for n in (3, 5):
        h = handle(pic)
        assert L.IMG_octree_color(h, 8, given.ctypes.data, n) == 0
        got, pal, bits = result(h)
        want, want_pal = model_octree(pic, 8, n, given[:, :3].tolist())
        assert bits == 8 and np.array_equal(got, want) and np.array_equal(pal[:len(want_pal)], want_pal), n


def promotions():
    pic = noise(7, 13, [0, 255])
    for bits, call, want_bits in ((4, L.IMG_promote_8, 8), (4, L.IMG_promote_24, 24), (8, L.IMG_promote_24, 24)):
        h = handle(pic, bits)
        assert call(h) == 0
        got, pal, got_bits = result(h)
        assert got_bits == want_bits and np.array_equal(got if want_bits == 24 else pal[got], pic), bits


def psnr_beside_references():
    """Octree and popularity beside ImageMagick's -colors 256 and pngquant
    (libimagequant) on a photograph-like picture: the figures are printed;
    the margin only catches a palette gone wrong."""
    B.require("convert", "pngquant")
    src = B.tmp("plasma.png")
    B.run("convert -size 256x192 -seed 7 plasma:fractal -blur 0x1 " + src)
    ref = B.pillow_rgb(src)
    ours = {}
    for name, call in (("octree", lambda h: L.IMG_octree_color(h, 8, None, 256)),
                       ("popularity", L.IMG_popularity_color)):
        h = handle(ref[::-1, :, ::-1].astype(int))
        assert call(h) == 0
        ours[name] = B.psnr(B.picture_of(h).rgb(), ref)
        L.IMG_delete_bitmap(h)
    B.run("convert %s -colors 256 %s" % (src, B.tmp("magick.png")))
    B.run("pngquant --force --output %s 256 %s" % (B.tmp("pq.png"), src))
    theirs = {"ImageMagick -colors 256": B.psnr(B.pillow_rgb(B.tmp("magick.png")), ref),
              "pngquant": B.psnr(B.pillow_rgb(B.tmp("pq.png")), ref)}
    print("  PSNR dB: " + ", ".join("%s %.2f" % kv for kv in list(ours.items()) + list(theirs.items())))
    best = max(theirs.values())
    assert ours["octree"] > best - 8 and ours["popularity"] > best - 12, (ours, theirs)


def tool_process_chains_operations():
    src, out = B.tmp("in.bmp"), B.tmp("out.bmp")
    h = handle(ramp(19, 29))
    assert L.IMG_save_bitmap(h, src.encode(), 1) == 0
    L.IMG_delete_bitmap(h)
    B.run([B.TOOL, "process", src, out, "--octree", "4:16", "--promote", "24"])
    p = B.loaded(out)
    assert p.bits == 24 and len(np.unique(p.rgb().reshape(-1, 3), axis=0)) <= 16


CASES += [
    ("tool process chains operations", tool_process_chains_operations),
    ("octree onto a given palette", octree_given_palette),
    ("promotions keep the picture", promotions),
    ("PSNR beside ImageMagick and pngquant", psnr_beside_references),
]

if __name__ == "__main__":
    B.main(CASES)
