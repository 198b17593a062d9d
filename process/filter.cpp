// 3 x 3 convolution with built-in or caller kernels, and the unsharp mask,
// on grey and colour pictures.  Border pixels stay as they are; kernels are
// read in picture order, top row first.
#include "process/process.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace brv {

namespace {

// Weights top-left, top, top-right, left, centre, right, bottom-left,
// bottom, bottom-right; code 0 is the caller's.
constexpr int8_t kernels[10][9] = {
    {},
    {0, 1, 0, 1, -4, 1, 0, 1, 0},
    {-1, -1, -1, -1, 8, -1, -1, -1, -1},
    {-1, -1, -1, 2, 2, 2, -1, -1, -1},
    {-1, 2, -1, -1, 2, -1, -1, 2, -1},
    {-1, -1, 2, -1, 2, -1, 2, -1, -1},
    {2, -1, -1, -1, 2, -1, -1, -1, 2},
    {0, -1, 0, -1, 5, -1, 0, -1, 0},
    {1, 1, 1, 0, 0, 1, 1, 1, 1},  // kept as it always was: left and centre 0
    {-1, 0, -1, 0, 4, 0, -1, 0, -1},
};

inline uint8_t clamp255(int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }

// One output row from the source rows above (up), at and below (down): N
// bytes a pixel, each byte with the same byte of its neighbours.
template <int N>
void convolve_row(const int *k, const uint8_t *up, const uint8_t *at, const uint8_t *down, uint8_t *out, int width) {
    for (int j = N; j < (width - 1) * N; j++)
        out[j] = clamp255(k[0] * up[j - N] + k[1] * up[j] + k[2] * up[j + N] + k[3] * at[j - N] + k[4] * at[j] +
                          k[5] * at[j + N] + k[6] * down[j - N] + k[7] * down[j] + k[8] * down[j + N]);
}

#ifdef __SSE2__
// Sixteen bytes a step in 16-bit lanes: exact while the weights' magnitudes
// add up to at most 128, as the sum then always fits; packus is the clamp.
template <int N>
void convolve_row_sse2(const int *k, const uint8_t *up, const uint8_t *at, const uint8_t *down, uint8_t *out,
                       int width) {
    const int end = (width - 1) * N;
    __m128i w[9];
    for (int i = 0; i < 9; i++) w[i] = _mm_set1_epi16(static_cast<short>(k[i]));
    const __m128i zero = _mm_setzero_si128();
    int j = N;
    for (; j + 16 <= end; j += 16) {
        __m128i lo = zero, hi = zero;
        auto add = [&](const uint8_t *p, __m128i kk) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
            lo = _mm_add_epi16(lo, _mm_mullo_epi16(_mm_unpacklo_epi8(v, zero), kk));
            hi = _mm_add_epi16(hi, _mm_mullo_epi16(_mm_unpackhi_epi8(v, zero), kk));
        };
        add(up + j - N, w[0]), add(up + j, w[1]), add(up + j + N, w[2]);
        add(at + j - N, w[3]), add(at + j, w[4]), add(at + j + N, w[5]);
        add(down + j - N, w[6]), add(down + j, w[7]), add(down + j + N, w[8]);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + j), _mm_packus_epi16(lo, hi));
    }
    // The last few bytes: the plain loop over a row that ends where this one
    // does and whose first output byte is j.
    const int done = j / N - 1;
    convolve_row<N>(k, up + done * N, at + done * N, down + done * N, out + done * N, width - done);
}
#endif

}  // namespace

convolve_fn convolve_kernel(int bits, const int *k, bool fast) {
#ifdef __SSE2__
    int sum = 0;
    for (int i = 0; i < 9; i++) sum += k[i] < 0 ? -k[i] : k[i];
    if (fast && sum <= 128) return bits == 24 ? convolve_row_sse2<3> : convolve_row_sse2<1>;
#endif
    (void)k, (void)fast;
    return bits == 24 ? convolve_row<3> : convolve_row<1>;
}

namespace {

// src into dst (a copy of its rows so far untouched), row by row, bottom
// first; the row above in the picture is the next stored row.
int convolve(const bitmap &src, const bitmap &dst, const int *k) {
    const int H = src.height;
    const convolve_fn row = convolve_kernel(src.bits, k, true);
    for (int y = 0; y < H; y++) {
        std::memcpy(dst.row(y), src.row(y), src.stride);
        if (y > 0 && y + 1 < H) row(k, src.row(y + 1), src.row(y), src.row(y - 1), dst.row(y), src.width);
        if (int r = row_done(H); r < 0) return r;
    }
    return 0;
}

int process(int h, int code, const signed char *own) {
    held_bitmap held(h);
    if (held.error) return held.error;
    const bitmap &bm = held.bm;
    if (bm.bits <= 4) return IMG_ERR_DEPTH;
    if (code < 0 || code > 9 || (code == 0 && !own)) return IMG_ERR_TYPE;
    int k[9];
    for (int i = 0; i < 9; i++) k[i] = code ? kernels[code][i] : own[i];
    // A colour-table picture is filtered as its grey version, made first so
    // that a failure leaves the handle as it was.
    const bool grey_first = bm.bits == 8 && !grey_table(bm);
    new_bitmap grey(bm.dib, grey_first ? bm.width : 0, bm.height, 8);
    if (grey_first) {
        if (!grey) return IMG_ERR_MEMORY;
        if (int r = grey_rows(bm, grey.bm); r < 0) return r;
    }
    const bitmap &src = grey_first ? grey.bm : bm;
    new_bitmap out(src.dib, src.width, src.height, src.bits);
    if (!out) return IMG_ERR_MEMORY;
    if (int r = convolve(src, out.bm, k); r < 0) return r;
    install(held, out);
    return 0;
}

// Unsharp mask over one plane of samples a row (N interleaved at 24 bits),
// top picture row first: blur in place so that the left and upper
// neighbours read are already blurred, then 2 x source - blurred, clamped.
template <int N, typename Load, typename Store>
int unsharp(int width, int height, int k, int top, Load load, Store store, uint8_t *work) {
    const int n = width * N;
    uint8_t *prev = work, *cur = work + n, *next = work + 2 * n, *orig = work + 3 * n;
    load(height - 1, cur);
    for (int y = 0; y < height; y++) {  // y counts from the top of the picture
        std::memcpy(orig, cur, n);
        if (y + 1 < height) load(height - 2 - y, next);
        if (y > 0 && y + 1 < height)
            for (int j = N; j < n - N; j++) {
                unsigned s = k * cur[j] + prev[j - N] + prev[j] + prev[j + N] + cur[j - N] + cur[j + N] +
                             next[j - N] + next[j] + next[j + N];
                cur[j] = static_cast<uint8_t>(s / (8 + k));
            }
        // cur is the blurred row: the output row is made over it.
        for (int j = 0; j < n; j++) {
            int v = 2 * orig[j] - cur[j];
            orig[j] = static_cast<uint8_t>(v < 0 ? 0 : v > top ? top : v);
        }
        store(height - 1 - y, orig);
        if (int r = row_done(height); r < 0) return r;
        uint8_t *t = prev;
        prev = cur, cur = next, next = t;
    }
    return 0;
}

int sharpen(int h, int level) {
    held_bitmap held(h);
    if (held.error) return held.error;
    const bitmap &bm = held.bm;
    if (bm.bits == 1 || (bm.bits != 24 && !grey_table(bm))) return IMG_ERR_TYPE;
    // Magnitudes past 128 would make the centre weight 0 or less: they are
    // taken as the strongest level.
    const int64_t masked = static_cast<int64_t>(level) & ~int64_t{15};
    const int64_t mag = masked < 0 ? -masked : masked;
    const int k = mag >= 136 ? 1 : static_cast<int>((136 - mag) >> 3);
    new_bitmap out(bm.dib, bm.width, bm.height, bm.bits);
    if (!out) return IMG_ERR_MEMORY;
    const int N = bm.bits == 24 ? 3 : 1;
    auto *work = static_cast<uint8_t *>(scratch_alloc(4 * static_cast<uint32_t>(bm.width * N)));
    if (!work) return IMG_ERR_MEMORY;
    int r;
    if (bm.bits == 4) {
        // Each nibble by itself: the rows are unpacked to a sample a pixel.
        auto load = [&](int y, uint8_t *to) {
            for (int x = 0; x < bm.width; x++) to[x] = static_cast<uint8_t>(get_px<4>(bm.row(y), x));
        };
        auto store = [&](int y, const uint8_t *from) {
            uint8_t *o = out.bm.row(y);
            for (int x = 0; x < bm.width; x++) put_px<4>(o, x, from[x]);
        };
        r = unsharp<1>(bm.width, bm.height, k, 15, load, store, work);
    } else {
        const size_t n = static_cast<size_t>(bm.width) * N;
        auto load = [&](int y, uint8_t *to) { std::memcpy(to, bm.row(y), n); };
        auto store = [&](int y, const uint8_t *from) { std::memcpy(out.bm.row(y), from, n); };
        r = N == 3 ? unsharp<3>(bm.width, bm.height, k, 255, load, store, work)
                   : unsharp<1>(bm.width, bm.height, k, 255, load, store, work);
    }
    scratch_free(work);
    if (r < 0) return r;
    install(held, out);
    return 0;
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_process_bitmap(int h, int code, const signed char *kernel) { return process(h, code, kernel); }

int IMG_API IMG_sharpen_bitmap(int h, int level) { return sharpen(h, level); }

}  // extern "C"
