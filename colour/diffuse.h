// The error-diffusion frame: working rows of signed values, serpentine
// order, the three kernels, and the output packing at 1, 4 or 8 bits.
#pragma once
#include "colour/pixels.h"
#include "colour/reshape.h"

namespace brv {

// Guard pixels at each end of a working row take what a kernel writes
// beyond the edges.
constexpr int GUARD = 2;

// Kernels: spread the error e of the pixel at p (an offset into the current
// row, in values) over rows[0..] with dir the direction of travel times the
// values per pixel.  Each term is computed from the whole error.
struct kernel_42 {
    static constexpr int ROWS = 3;
    static void spread(int32_t *const *w, int p, int d, int e) {
        const int e8 = 8 * e / 42, e4 = 4 * e / 42, e21 = e / 21, e42 = e / 42;
        w[0][p + d] += e8;
        w[0][p + 2 * d] += e4;
        w[1][p - 2 * d] += e21;
        w[1][p - d] += e4;
        w[1][p] += e8;
        w[1][p + d] += e4;
        w[1][p + 2 * d] += e21;
        w[2][p - 2 * d] += e42;
        w[2][p - d] += e21;
        w[2][p] += e4;
        w[2][p + d] += e21;
        w[2][p + 2 * d] += e42;
    }
};

struct kernel_32 {
    static constexpr int ROWS = 2;
    static void spread(int32_t *const *w, int p, int d, int e) {
        w[0][p + d] += e >> 2;
        w[0][p + 2 * d] += e >> 3;
        w[1][p - 2 * d] += e >> 4;
        w[1][p - d] += e >> 3;
        w[1][p] += e >> 2;
        w[1][p + d] += e >> 3;
        w[1][p + 2 * d] += e >> 4;
    }
};

struct kernel_16 {
    static constexpr int ROWS = 2;
    static void spread(int32_t *const *w, int p, int d, int e) {
        w[0][p + d] += 7 * e / 16;
        w[1][p - d] += 3 * e / 16;
        w[1][p] += 5 * e / 16;
        w[1][p + d] += e / 16;
    }
};

// Loads storage row r of the source as C values a pixel: the monochrome
// grey (C = 1) or blue, green, red (C = 3).
template <int C>
void load_working_row(const reshape &s, int r, int32_t *w) {
    by_depth(s.bits(), [&]<int B>() {
        const uint8_t *row = s.row(r), *pal = s.palette();
        for (int x = 0; x < s.width(); x++) {
            const uint8_t *q = pixel_bgr<B>(row, pal, x);
            if constexpr (C == 1) {
                w[x] = mono_grey(q[0], q[1], q[2]);
            } else {
                w[3 * x] = q[0];
                w[3 * x + 1] = q[1];
                w[3 * x + 2] = q[2];
            }
        }
    });
}

// Runs the diffusion over the whole picture into s's new rows at out_bits.
// quantise(values, err) returns the output index of a pixel's C working
// values and sets the C errors.  0, or the status callback's stop value.
template <int C, class Kernel, class Quantise>
int diffuse(reshape &s, int out_bits, Quantise &&quantise) {
    const int width = s.width(), height = s.height();
    const size_t span = static_cast<size_t>(width + 2 * GUARD) * C;
    scratch_array<int32_t> store(span * Kernel::ROWS);
    if (!store) return IMG_ERR_MEMORY;
    int32_t *rows[Kernel::ROWS];
    for (int i = 0; i < Kernel::ROWS; i++) {
        rows[i] = store.data + i * span;
        // Beyond the last row, the last row is loaded again.
        load_working_row<C>(s, i < height ? i : height - 1, rows[i] + GUARD * C);
    }
    for (int r = 0; r < height; r++) {
        if (int st = s.status(); st < 0) return st;
        uint8_t *out = s.new_row(r);
        const bool back = r & 1;
        const int d = back ? -C : C;
        for (int i = 0, x = back ? width - 1 : 0; i < width; i++, x += back ? -1 : 1) {
            const int p = (x + GUARD) * C;
            int err[C];
            const int index = quantise(rows[0] + p, err);
            for (int c = 0; c < C; c++) Kernel::spread(rows, p + c, d, err[c]);
            if (out_bits == 1) {
                if (index) out[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
            } else if (out_bits == 4) {
                out[x >> 1] |= static_cast<uint8_t>((x & 1) ? index : index << 4);
            } else {
                out[x] = static_cast<uint8_t>(index);
            }
        }
        int32_t *freed = rows[0];
        for (int i = 0; i + 1 < Kernel::ROWS; i++) rows[i] = rows[i + 1];
        rows[Kernel::ROWS - 1] = freed;
        const int next = r + Kernel::ROWS;
        std::memset(freed, 0, span * sizeof(int32_t));
        load_working_row<C>(s, next < height ? next : height - 1, freed + GUARD * C);
    }
    return 0;
}

inline int clamp255(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// Diffusion onto a colour table (blue, green, red quads): each component is
// clamped to 0..255, index_of(b, g, r) picks the entry, and the error is the
// clamped value less the entry's component.
template <class Kernel, class Index>
int diffuse_onto(reshape &s, int out_bits, const uint8_t *pal, Index &&index_of) {
    return diffuse<3, Kernel>(s, out_bits, [&](const int32_t *v, int *err) {
        const int c[3] = {clamp255(v[0]), clamp255(v[1]), clamp255(v[2])};
        const int index = index_of(c[0], c[1], c[2]);
        for (int k = 0; k < 3; k++) err[k] = c[k] - pal[4 * index + k];
        return index;
    });
}

}  // namespace brv
