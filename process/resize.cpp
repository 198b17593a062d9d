// Resizing in place on a handle: point sampling at every depth, and for grey
// and colour pictures 3 x 3 smoothing when shrinking, linear ramps when
// enlarging.  Steps are 16.16 fixed point; rows count in storage order.
#include "process/process.h"

#include <array>

namespace brv {

namespace {

// (count << 16) / other in 16.16, widened so that sizes past the kept
// 32767 limit give a step inside the picture instead of an overflow.
inline int64_t step_of(int count, int other) { return (static_cast<int64_t>(count) << 16) / other; }

// The handle's record after a resize: the crop rectangle is the whole picture.
void whole_crop(handle_record *rec) {
    rec->crop_left = rec->crop_top = 0;
    rec->crop_width = rec->width;
    rec->crop_height = rec->height;
}

int replicate(held_bitmap &held, int width, int height) {
    const bitmap &bm = held.bm;
    new_bitmap out(bm.dib, width, height, bm.bits);
    if (!out) return IMG_ERR_MEMORY;
    const uint32_t xstep = static_cast<uint32_t>(step_of(bm.width, width));
    const int64_t ystep = step_of(bm.height, height);
    // Whole-byte pixels sample through offsets worked out once, not per row.
    uint32_t *at = nullptr;
    if (bm.bits == 8 || bm.bits == 24) {
        at = static_cast<uint32_t *>(scratch_alloc(static_cast<uint32_t>(width) * 4));
        if (!at) return IMG_ERR_MEMORY;
        const uint32_t n = static_cast<uint32_t>(bm.bits / 8);
        for (int i = 0; i < width; i++) at[i] = n * static_cast<uint32_t>((static_cast<uint64_t>(i) * xstep) >> 16);
    }
    const uint32_t src_bytes = static_cast<uint32_t>(bm.width) * static_cast<uint32_t>(bm.bits / 8);
    int last = -1, r = 0;
    for (int j = 0; j < height && r >= 0; j++) {
        const int y = static_cast<int>((j * ystep) >> 16);
        uint8_t *to = out.bm.row(j);
        if (y == last)
            std::memcpy(to, out.bm.row(j - 1), out.bm.stride);  // a repeated row
        else if (at)
            sample_row_at(bm.bits, bm.row(y), src_bytes, to, at, width);
        else
            with_depth(bm.bits, [&](auto d) { sample_row<d()>(bm.row(y), to, width, xstep); });
        last = y;
        r = row_done(height);
    }
    if (at) scratch_free(at);
    if (r < 0) return r;
    install(held, out);
    whole_crop(held.rec);
    return 0;
}

// Shrinking: output pixel (i, j) is the truncated mean of the 3 x 3 source
// pixels around ((i * xstep) >> 16, (j * ystep) >> 16), edges repeated.
template <int N>
int smooth_shrink(const bitmap &src, const bitmap &dst) {
    const int W = src.width, H = src.height;
    // Column sums of the three rows, with a repeated edge column each side.
    auto *sums = static_cast<uint32_t *>(scratch_alloc(static_cast<uint32_t>((W + 2) * N) * 4));
    if (!sums) return IMG_ERR_MEMORY;
    const int64_t xstep = step_of(W, dst.width), ystep = step_of(H, dst.height);
    int r = 0;
    for (int j = 0; j < dst.height && r >= 0; j++) {
        const int y = static_cast<int>((j * ystep) >> 16);
        const uint8_t *a = src.row(y > 0 ? y - 1 : y), *b = src.row(y), *c = src.row(y + 1 < H ? y + 1 : y);
        uint32_t *s = sums + N;
        for (int k = 0; k < W * N; k++) s[k] = a[k] + b[k] + c[k];
        for (int k = 0; k < N; k++) {
            sums[k] = s[k];
            s[W * N + k] = s[(W - 1) * N + k];
        }
        uint8_t *o = dst.row(j);
        for (int i = 0; i < dst.width; i++) {
            const int x = static_cast<int>((i * xstep) >> 16);
            for (int k = 0; k < N; k++)
                o[N * i + k] = static_cast<uint8_t>((s[(x - 1) * N + k] + s[x * N + k] + s[(x + 1) * N + k]) / 9);
        }
        r = row_done(dst.height);
    }
    scratch_free(sums);
    return r < 0 ? r : 0;
}

// The 8.8 ramp from a to b over n steps: a step of (b - a) * 256 / n with
// signed truncating division, value k is (a * 256 + k * step) >> 8.  The
// steps of short spans come from a table: a division per byte would cost
// more than the rest of the enlargement.
constexpr int TABLED_SPANS = 16;
constexpr auto ramp_steps = [] {
    std::array<std::array<int, 511>, TABLED_SPANS + 1> t{};
    for (int n = 1; n <= TABLED_SPANS; n++)
        for (int d = -255; d <= 255; d++) t[n][d + 255] = d * 256 / n;
    return t;
}();
inline int ramp_step(int a, int b, int n) { return n <= TABLED_SPANS ? ramp_steps[n][b - a + 255] : (b - a) * 256 / n; }
inline uint8_t ramp_at(int a, int step, int k) { return static_cast<uint8_t>((a * 256 + k * step) >> 8); }

// Spreads a source row over a wider (or equal) destination row.
template <int N>
void spread_row(const uint8_t *in, int in_width, uint8_t *out, int out_width) {
    const int64_t step = step_of(out_width, in_width);
    const int last = out_width - 1;
    int64_t acc = 0;
    for (int i = 0; i < in_width; i++) {
        int s = static_cast<int>(acc >> 16);
        acc += step;
        int e = static_cast<int>(acc >> 16);
        if (s > last) s = last;
        if (e > last) e = last;
        const uint8_t *p = in + N * i, *q = i + 1 < in_width ? p + N : p;
        if (e - s >= 2) {
            for (int c = 0; c < N; c++) {
                const int step = ramp_step(p[c], q[c], e - s);
                for (int k = 0; k < e - s; k++) out[N * (s + k) + c] = ramp_at(p[c], step, k);
            }
        } else {
            for (int c = 0; c < N; c++) out[N * s + c] = p[c];
        }
    }
    for (int c = 0; c < N; c++) out[N * last + c] = in[N * (in_width - 1) + c];
}

// Enlarging (or keeping the width): rows spread, then ramped between
// spread rows.  A shrinking height simply drops rows.
template <int N>
int spread(const bitmap &src, const bitmap &dst) {
    const int H = src.height, last = dst.height - 1;
    const uint32_t n = dst.stride;
    auto *a = static_cast<uint8_t *>(scratch_alloc(6 * n));
    if (!a) return IMG_ERR_MEMORY;
    uint8_t *b = a + n;
    auto *steps = reinterpret_cast<int *>(a + 2 * n);  // n is a multiple of 4
    const int64_t step = step_of(dst.height, H);
    int64_t acc = 0;
    int r = 0;
    for (int i = 0; i < H && r >= 0; i++) {
        int s = static_cast<int>(acc >> 16);
        acc += step;
        int e = static_cast<int>(acc >> 16);
        if (s > last) s = last;
        if (e > last) e = last;
        spread_row<N>(src.row(i), src.width, a, dst.width);
        if (e - s >= 2) {
            spread_row<N>(src.row(i + 1 < H ? i + 1 : i), src.width, b, dst.width);
            for (int x = 0; x < dst.width * N; x++) steps[x] = ramp_step(a[x], b[x], e - s);
            for (int k = 0; k < e - s && r >= 0; k++) {
                uint8_t *o = dst.row(s + k);
                for (int x = 0; x < dst.width * N; x++) o[x] = ramp_at(a[x], steps[x], k);
                r = row_done(dst.height);
            }
        } else {
            std::memcpy(dst.row(s), a, static_cast<size_t>(dst.width) * N);
            r = row_done(dst.height);
        }
    }
    // The ramps stop short of the last row; it takes the last source row,
    // as the last pixel of a row takes the last source pixel.
    if (r >= 0 && H > 0) {
        spread_row<N>(src.row(H - 1), src.width, a, dst.width);
        std::memcpy(dst.row(last), a, static_cast<size_t>(dst.width) * N);
    }
    scratch_free(a);
    return r < 0 ? r : 0;
}

int interpolate(held_bitmap &held, int width, int height) {
    const bitmap &bm = held.bm;
    if (bm.bits != 24 && !(bm.bits == 8 && grey_table(bm))) return IMG_ERR_TYPE;
    new_bitmap out(bm.dib, width, height, bm.bits);
    if (!out) return IMG_ERR_MEMORY;
    const bool shrink = width < bm.width;
    int r = bm.bits == 24 ? (shrink ? smooth_shrink<3>(bm, out.bm) : spread<3>(bm, out.bm))
                          : (shrink ? smooth_shrink<1>(bm, out.bm) : spread<1>(bm, out.bm));
    if (r < 0) return r;
    install(held, out);
    whole_crop(held.rec);
    return 0;
}

}  // namespace

void sample_row_at(int bits, const uint8_t *src, uint32_t src_bytes, uint8_t *dst, const uint32_t *at, int out_width) {
    int i = 0;
    if (bits == 8) {
        for (; i < out_width; i++) dst[i] = src[at[i]];
        return;
    }
    // Four bytes a pixel: the spare byte lands where the next pixel goes, so
    // the last pixel, and any whose load would pass the row, take three.
    for (; i + 1 < out_width && at[i] + 4 <= src_bytes; i++) {
        uint32_t v;
        std::memcpy(&v, src + at[i], 4);
        std::memcpy(dst + 3 * i, &v, 4);
    }
    for (; i < out_width; i++) std::memcpy(dst + 3 * i, src + at[i], 3);
}

namespace {

template <typename Op>
int resize(int h, int width, int height, Op op) {
    held_bitmap held(h);
    if (held.error) return held.error;
    // Sizes below 1 were never guarded; they are refused rather than run.
    if (width < 1 || height < 1) return IMG_ERR_TYPE;
    return op(held, width, height);
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_resize_bitmap(int h, int width, int height) { return resize(h, width, height, replicate); }

int IMG_API IMG_resize_bitmap_interp(int h, int width, int height) {
    return resize(h, width, height, interpolate);
}

}  // extern "C"
