// Ordered dithering: the threshold tables, the row kernels the load's
// reduction also uses, and the Bayer and halftone exports.
#include "colour/colour.h"
#include "colour/pixels.h"
#include "colour/reshape.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define BRV_X86 1
#endif

namespace brv {

const uint8_t bayer_thresholds[64] = {
    4,   128, 32,  160, 8,   136, 40,  168, 192, 64,  224, 96,  200, 72,  232, 104,
    48,  176, 16,  144, 56,  184, 24,  152, 240, 112, 208, 80,  248, 120, 216, 88,
    12,  140, 44,  172, 4,   132, 36,  164, 204, 76,  236, 108, 196, 68,  228, 100,
    60,  188, 28,  156, 52,  180, 20,  148, 252, 124, 220, 92,  244, 116, 212, 84,
};

const uint8_t halftone_thresholds[64] = {
    136, 192, 160, 128, 116, 60,  92,  124, 168, 232, 224, 212, 84,  20,  28,  40,
    200, 248, 244, 180, 52,  4,   8,   72,  152, 184, 216, 148, 100, 68,  36,  104,
    112, 56,  88,  120, 140, 196, 164, 132, 80,  16,  24,  44,  172, 236, 228, 208,
    48,  0,   12,  76,  204, 252, 240, 176, 96,  64,  32,  108, 156, 188, 220, 144,
};

void row_thresholds(const uint8_t table[64], int r, uint8_t out[8]) {
    // The column picks the group of eight and the row the place in it.
    for (int k = 0; k < 8; k++) out[k] = table[8 * k + (r & 7)];
}

namespace {

// Eight pixels make one output byte, so the threshold of each is fixed.
// grey > t is compared as 11b + 30r + 59g >= 100 (t + 1): no division.
template <int Bits>
void mono_row(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width, const uint8_t t[8]) {
    int limit[8];
    for (int k = 0; k < 8; k++) limit[k] = 100 * (t[k] + 1);
    auto bit = [&](int x, int k) {
        const uint8_t *q = pixel_bgr<Bits>(src, pal, x + k);
        return static_cast<unsigned>(11 * q[0] + 59 * q[1] + 30 * q[2] >= limit[k]) << (7 - k);
    };
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        unsigned acc = 0;
        for (int k = 0; k < 8; k++) acc |= bit(x, k);
        out[x >> 3] = static_cast<uint8_t>(acc);
    }
    if (x < width) {
        unsigned acc = 0;
        for (int k = 0; x + k < width; k++) acc |= bit(x, k);
        out[x >> 3] = static_cast<uint8_t>(acc);
    }
}

// Two pixels make one output byte; Y > t + 40 is compared as
// 38r + 75g + 14b >= (t + 41) << 7.
template <int Bits>
void colour_row(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width, const uint8_t t[8]) {
    auto index = [&](int x) {
        const uint8_t *q = pixel_bgr<Bits>(src, pal, x);
        const int b = q[0], g = q[1], r = q[2], th = t[x & 7];
        return (b > th ? 4 : 0) | (g > th ? 2 : 0) | (r > th ? 1 : 0) |
               (38 * r + 75 * g + 14 * b >= (th + 41) << 7 ? 8 : 0);
    };
    int x = 0;
    for (; x + 2 <= width; x += 2) out[x >> 1] = static_cast<uint8_t>(index(x) << 4 | index(x + 1));
    if (x < width) out[x >> 1] = static_cast<uint8_t>(index(x) << 4);
}

#ifdef BRV_X86
// pshufb masks taking blue, green and red of eight 24-bit pixels into 16-bit
// lanes from two loads, of bytes 0-15 and 8-23; lane L holds pixel L, or
// pixel 7 - L when reversed.
struct gather_masks {
    alignas(16) int8_t lo[3][16];
    alignas(16) int8_t hi[3][16];
};
constexpr gather_masks make_gather(bool reversed) {
    gather_masks m{};
    for (int c = 0; c < 3; c++)
        for (int L = 0; L < 8; L++) {
            const int k = reversed ? 7 - L : L;
            m.lo[c][2 * L] = m.lo[c][2 * L + 1] = m.hi[c][2 * L] = m.hi[c][2 * L + 1] = -1;
            if (k <= 4) m.lo[c][2 * L] = static_cast<int8_t>(3 * k + c);
            else m.hi[c][2 * L] = static_cast<int8_t>(3 * k + c - 8);
        }
    return m;
}
constexpr gather_masks natural_order = make_gather(false), reversed_order = make_gather(true);

__attribute__((target("ssse3"))) inline __m128i gather(const uint8_t *p, const gather_masks &m, int c) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 8));
    return _mm_or_si128(_mm_shuffle_epi8(a, _mm_load_si128(reinterpret_cast<const __m128i *>(m.lo[c]))),
                        _mm_shuffle_epi8(b, _mm_load_si128(reinterpret_cast<const __m128i *>(m.hi[c]))));
}

// Eight 24-bit pixels a step, the same sums in 16-bit lanes (at most 25500);
// pixel k sits in lane 7 - k so the sign mask comes out in bit order.
__attribute__((target("ssse3"))) void mono_row_ssse3(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width,
                                                     const uint8_t t[8]) {
    alignas(16) int16_t lim[8];
    for (int k = 0; k < 8; k++) lim[7 - k] = static_cast<int16_t>(100 * (t[k] + 1) - 1);
    const __m128i limit = _mm_load_si128(reinterpret_cast<const __m128i *>(lim));
    const __m128i wb = _mm_set1_epi16(11), wg = _mm_set1_epi16(59), wr = _mm_set1_epi16(30);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint8_t *p = src + 3 * x;
        __m128i sum = _mm_add_epi16(_mm_mullo_epi16(gather(p, reversed_order, 0), wb),
                                    _mm_add_epi16(_mm_mullo_epi16(gather(p, reversed_order, 1), wg),
                                                  _mm_mullo_epi16(gather(p, reversed_order, 2), wr)));
        const __m128i on = _mm_cmpgt_epi16(sum, limit);
        out[x >> 3] = static_cast<uint8_t>(_mm_movemask_epi8(_mm_packs_epi16(on, on)));
    }
    if (x < width) mono_row<24>(src + 3 * x, pal, out + (x >> 3), width - x, t);
}

// Eight 24-bit pixels a step into four output bytes.  The brightness sum
// (at most 32385) and its limit (up to 37504) are compared unsigned, by
// flipping the sign bits.
__attribute__((target("ssse3"))) void colour_row_ssse3(const uint8_t *src, const uint8_t *pal, uint8_t *out,
                                                       int width, const uint8_t t[8]) {
    alignas(16) int16_t th[8], lim[8];
    for (int k = 0; k < 8; k++) {
        th[k] = t[k];
        lim[k] = static_cast<int16_t>((((t[k] + 41) << 7) - 1) ^ 0x8000);
    }
    const __m128i thv = _mm_load_si128(reinterpret_cast<const __m128i *>(th));
    const __m128i limit = _mm_load_si128(reinterpret_cast<const __m128i *>(lim));
    const __m128i sign = _mm_set1_epi16(static_cast<short>(0x8000));
    const __m128i wb = _mm_set1_epi16(14), wg = _mm_set1_epi16(75), wr = _mm_set1_epi16(38);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint8_t *p = src + 3 * x;
        const __m128i b = gather(p, natural_order, 0), g = gather(p, natural_order, 1), r = gather(p, natural_order, 2);
        const __m128i y = _mm_add_epi16(_mm_mullo_epi16(b, wb), _mm_add_epi16(_mm_mullo_epi16(g, wg), _mm_mullo_epi16(r, wr)));
        __m128i idx = _mm_and_si128(_mm_cmpgt_epi16(b, thv), _mm_set1_epi16(4));
        idx = _mm_or_si128(idx, _mm_and_si128(_mm_cmpgt_epi16(g, thv), _mm_set1_epi16(2)));
        idx = _mm_or_si128(idx, _mm_and_si128(_mm_cmpgt_epi16(r, thv), _mm_set1_epi16(1)));
        idx = _mm_or_si128(idx, _mm_and_si128(_mm_cmpgt_epi16(_mm_xor_si128(y, sign), limit), _mm_set1_epi16(8)));
        // Each 32-bit lane holds an even pixel (high nibble) and the next.
        const __m128i pairs = _mm_or_si128(_mm_slli_epi32(_mm_and_si128(idx, _mm_set1_epi32(0xFFFF)), 4),
                                           _mm_srli_epi32(idx, 16));
        const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(pairs, pairs), pairs);
        const uint32_t four = static_cast<uint32_t>(_mm_cvtsi128_si32(packed));
        std::memcpy(out + (x >> 1), &four, 4);
    }
    if (x < width) colour_row<24>(src + 3 * x, pal, out + (x >> 1), width - x, t);
}
#endif

int ordered(int h, int target_bits, const uint8_t table[64]) {
    reshape s(h, 1u << 4 | 1u << 8 | 1u << 24, target_bits);
    if (s.result()) return s.result();
    set_named_palette(s.new_header(), "pcx");
    ordered_kernel kernel = target_bits == 1 ? ordered_mono_kernel(s.bits()) : ordered_colour_kernel(s.bits());
    uint8_t t[8];
    for (int r = 0; r < s.height(); r++) {
        if (int st = s.status(); st < 0) return st;
        row_thresholds(table, r, t);
        kernel(s.row(r), s.palette(), s.new_row(r), s.width(), t);
    }
    return s.finish(0);
}

}  // namespace

ordered_kernel ordered_mono_kernel(int bits, bool fast) {
#ifdef BRV_X86
    if (fast && bits == 24 && __builtin_cpu_supports("ssse3")) return mono_row_ssse3;
#endif
    (void)fast;
    return by_depth(bits, []<int B>() { return static_cast<ordered_kernel>(mono_row<B>); });
}

ordered_kernel ordered_colour_kernel(int bits, bool fast) {
#ifdef BRV_X86
    if (fast && bits == 24 && __builtin_cpu_supports("ssse3")) return colour_row_ssse3;
#endif
    (void)fast;
    return by_depth(bits, []<int B>() { return static_cast<ordered_kernel>(colour_row<B>); });
}

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_bayer_mono(int h) { return ordered(h, 1, bayer_thresholds); }
int IMG_API IMG_halftone_mono(int h) { return ordered(h, 1, halftone_thresholds); }
int IMG_API IMG_bayer_color(int h) { return ordered(h, 4, bayer_thresholds); }

}  // extern "C"
