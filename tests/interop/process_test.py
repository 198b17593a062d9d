"""Processing against independent references: quarter and half turns, flips
and the anti-diagonal mirror as ImageMagick and Pillow make them, at 1, 4, 8
and 24 bits and odd sizes; point-sampling resize, the 3 x 3 convolutions,
the smoothing shrink and the unsharp mask against small numpy models of
their rules (rows in storage order, bottom first, as the library counts)."""
import ctypes
import struct

import numpy as np
from PIL import Image

import brivanta as B

B.require("convert")
LIB = B.LIB
LIB.IMG_process_bitmap.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_char_p]
RNG = np.random.RandomState(18)


def random_picture(w, h, bits, grey=False, top=256):
    """Pixels (below top) and the BMP file: a random colour table (or grey ramp) of full size."""
    if bits == 24:
        px = RNG.randint(0, top, (h, w, 3))
        return px, B.bmp_file(px, 24)
    n = 1 << bits
    if grey:
        palette = [(v, v, v) for v in range(n)]
    else:
        palette = [tuple(RNG.randint(0, 256, 3)) for _ in range(n)]
        if bits == 1:
            palette = [(0, 0, 0), (255, 255, 255)]
    px = RNG.randint(0, min(n, top), (h, w))
    return px, B.bmp_file(px, bits, palette)


def processed(data, *ops):
    """Our picture of a BMP file after the operations (functions of a handle)."""
    def run(addr):
        h = LIB.IMG_decompress_bitmap_mem(addr, 0)
        assert h >= 0, "load failed: %d" % h
        try:
            for op in ops:
                r = op(h)
                assert r == 0, "operation gave %d" % r
            return B.picture_of(h)
        finally:
            LIB.IMG_delete_bitmap(h)
    return B.in_block(data, run)


def values(pic):
    """Stored values (indexes, or bytes blue-green-red) in storage order, bottom row first."""
    if pic.bits == 24:
        a = np.frombuffer(b"".join(r[: 3 * pic.width] for r in pic.rows), dtype=np.uint8)
        return a.reshape(pic.height, pic.width * 3)[::-1].astype(int)
    return pic.indices()[::-1].astype(int)


def storage(px, bits):
    """The model's view of the source: stored values in storage order."""
    return (px[:, :, ::-1].reshape(px.shape[0], -1) if bits == 24 else px)[::-1].astype(int)


# (name, our operations, ImageMagick arguments, Pillow transpose)
GEOMETRY = [
    ("rotate 90", [lambda h: LIB.IMG_rotate_bitmap(h, 90)], ["-rotate", "90"], Image.Transpose.ROTATE_270),
    ("rotate 270", [lambda h: LIB.IMG_rotate_bitmap(h, 270)], ["-rotate", "270"], Image.Transpose.ROTATE_90),
    ("rotate 180", [lambda h: LIB.IMG_rotate_bitmap(h, 180)], ["-rotate", "180"], Image.Transpose.ROTATE_180),
    ("flip x", [LIB.IMG_flip_bitmapx], ["-flop"], Image.Transpose.FLIP_LEFT_RIGHT),
    ("flip y", [LIB.IMG_flip_bitmapy], ["-flip"], Image.Transpose.FLIP_TOP_BOTTOM),
    # Deliberate: every other angle mirrors about the anti-diagonal.
    ("rotate 45", [lambda h: LIB.IMG_rotate_bitmap(h, 45)], ["-transverse"], Image.Transpose.TRANSVERSE),
    ("rotate 0", [lambda h: LIB.IMG_rotate_bitmap(h, 0)], ["-transverse"], Image.Transpose.TRANSVERSE),
    ("rotate -90", [lambda h: LIB.IMG_rotate_bitmap(h, -90)], ["-transverse"], Image.Transpose.TRANSVERSE),
]
SIZES = [(37, 23), (1, 9), (9, 1), (8, 5), (65, 70)]


def geometry_case(bits):
    """Every turn and flip of each size, against ImageMagick (one run making
    all of them: its start-up is the slow part) and Pillow."""
    def check():
        for w, h in SIZES:
            _, data = random_picture(w, h, bits)
            path = B.tmp("geom_%d_%dx%d.bmp" % (bits, w, h))
            with open(path, "wb") as f:
                f.write(data)
            outs = [path + ".%d.ppm" % i for i in range(len(GEOMETRY))]
            cmd = ["convert", path]
            for (_, _, magick, _), out in zip(GEOMETRY, outs):
                cmd += ["(", "+clone"] + magick + ["-depth", "8", "-write", out, "+delete", ")"]
            B.run(cmd + ["null:"])
            for (name, ops, _, transpose), out in zip(GEOMETRY, outs):
                ours = processed(data, *ops).rgb()
                what = "%s at %d bits, %dx%d" % (name, bits, w, h)
                with open(out, "rb") as f:
                    B.compare(ours, B.image_rgb(f.read()), what + " against ImageMagick")
                with Image.open(path) as im:
                    B.compare(ours, np.asarray(im.convert("RGB").transpose(transpose)), what + " against Pillow")
    return check


def steps(old, new):
    return (np.arange(new, dtype=np.int64) * ((old << 16) // new)) >> 16


def model_case(what, bits, size, op, model, grey=False, top=256):
    """Our operation on a random picture of that size (grey, values below
    top) against a model given the source's stored values and samples a pixel."""
    def check():
        px, data = random_picture(*size, bits, grey=grey, top=top)
        B.compare(values(processed(data, op)), model(storage(px, bits), 3 if bits == 24 else 1), "%s at %d bits" % (what, bits))
    return check


def replicated(src, n, nw, nh):
    h, w = src.shape[0], src.shape[1] // n
    return src[steps(h, nh)][:, (steps(w, nw)[:, None] * n + np.arange(n)).ravel()]


def smoothed(src, n, nw, nh):
    """Each sampled pixel the mean of its 3 x 3 neighbours, edges repeated."""
    h, w = src.shape[0], src.shape[1] // n
    padded = np.pad(src.reshape(h, w, n), ((1, 1), (1, 1), (0, 0)), mode="edge")
    ys, xs = steps(h, nh) + 1, steps(w, nw) + 1
    return (sum(padded[ys + dy][:, xs + dx] for dy in (-1, 0, 1) for dx in (-1, 0, 1)) // 9).reshape(nh, nw * n)


KERNELS = {1: [0, 1, 0, 1, -4, 1, 0, 1, 0], 2: [-1, -1, -1, -1, 8, -1, -1, -1, -1], 3: [-1, -1, -1, 2, 2, 2, -1, -1, -1],
           4: [-1, 2, -1, -1, 2, -1, -1, 2, -1], 5: [-1, -1, 2, -1, 2, -1, 2, -1, -1], 6: [2, -1, -1, -1, 2, -1, -1, -1, 2],
           7: [0, -1, 0, -1, 5, -1, 0, -1, 0], 8: [1, 1, 1, 0, 0, 1, 1, 1, 1], 9: [-1, 0, -1, 0, 4, 0, -1, 0, -1],
           0: [1, -2, 3, 0, 1, -1, 2, 0, -3]}


def convolution_model(pic, k, n):
    """Sum of weights times neighbours, clamped; top row of the kernel on the
    row above in the picture; border pixels kept."""
    a = pic[::-1]  # picture order, top row first
    out = a.copy()
    h, wn = a.shape
    acc = np.zeros((h - 2, wn - 2 * n), dtype=int)
    for i, weight in enumerate(k):
        dy, dx = i // 3 - 1, i % 3 - 1
        acc += weight * a[1 + dy: h - 1 + dy, n + dx * n: wn - n + dx * n]
    out[1:-1, n:-n] = np.clip(acc, 0, 255)
    return out[::-1]


def unsharp_model(pic, level, n, top):
    """Blur in place, top row first and left to right, then 2 x source - blur;
    levels past the strongest are the strongest."""
    k = (136 - min(abs(level & ~15), 128)) >> 3
    a = pic[::-1].copy()
    b = a.copy()
    h, wn = a.shape
    for y in range(1, h - 1):
        for x in range(n, wn - n):
            s = k * b[y, x] + sum(b[y + dy, x + dx * n] for dy in (-1, 0, 1) for dx in (-1, 0, 1) if dy or dx)
            b[y, x] = s // (8 + k)
    return np.clip(2 * a - b, 0, top)[::-1]


def tool_chain():
    """The tool applies its operations in order: against ImageMagick's chain."""
    _, data = random_picture(41, 27, 24)
    src, out = B.tmp("tool_in.bmp"), B.tmp("tool_out.bmp")
    with open(src, "wb") as f:
        f.write(data)
    B.run([B.TOOL, "process", src, out, "--rotate", "90", "--flip-x", "--invert", "--resize", "54x82"])
    want = B.image_rgb(B.run(["convert", src, "-rotate", "90", "-flop", "-negate", "-sample", "54x82!", "ppm:-"]))
    # Doubling by point sampling repeats every pixel in both tools.
    B.compare(B.loaded(out).rgb(), want, "tool chain")


cases = [("tool chain", tool_chain)]
for bits in (1, 4, 8, 24):
    cases.append(("turns and flips %d bits" % bits, geometry_case(bits)))
    cases.append(("invert %d bits" % bits, model_case(
        "inverted values", bits, (29, 11), LIB.IMG_invert_bitmap, lambda src, n, top=(1 << min(bits, 8)) - 1: top - src)))
    for w, h, nw, nh in ((37, 23, 74, 46), (37, 23, 18, 11), (37, 23, 100, 7), (5, 3, 1, 1), (1, 9, 13, 4)):
        what = "replication %dx%d to %dx%d" % (w, h, nw, nh)
        cases.append((what + " at %d bits" % bits, model_case(
            what, bits, (w, h), lambda hd, nw=nw, nh=nh: LIB.IMG_resize_bitmap(hd, nw, nh),
            lambda src, n, nw=nw, nh=nh: replicated(src, n, nw, nh))))
for bits in (8, 24):
    for code in range(10):
        # Small values, so that sums reach both clamps and the range between.
        kernel = struct.pack("9b", *KERNELS[code]) if code == 0 else None
        cases.append(("filter %d at %d bits" % (code, bits), model_case(
            "filter %d" % code, bits, (31, 17), lambda hd, c=code, k=kernel: LIB.IMG_process_bitmap(hd, c, k),
            lambda src, n, c=code: convolution_model(src, KERNELS[c], n), grey=True, top=64)))
    for w, h, nw, nh in ((37, 23, 18, 11), (37, 23, 12, 40), (9, 1, 4, 1)):
        what = "smoothing %dx%d to %dx%d" % (w, h, nw, nh)
        cases.append((what + " at %d bits" % bits, model_case(
            what, bits, (w, h), lambda hd, nw=nw, nh=nh: LIB.IMG_resize_bitmap_interp(hd, nw, nh),
            lambda src, n, nw=nw, nh=nh: smoothed(src, n, nw, nh), grey=True)))
for bits in (4, 8, 24):
    for level in (0, 64, 128, -37, 200, -200, -2 ** 31, 2 ** 31 - 1):
        cases.append(("sharpen %d at %d bits" % (level, bits), model_case(
            "sharpen %d" % level, bits, (19, 13), lambda hd, l=level: LIB.IMG_sharpen_bitmap(hd, l),
            lambda src, n, l=level, top=15 if bits == 4 else 255: unsharp_model(src, l, n, top), grey=True)))

if __name__ == "__main__":
    B.main(cases)
