// Ordered dithering: the threshold tables, the row kernels the load's
// reduction also uses, and the Bayer and halftone exports.
#include "colour/colour.h"
#include "colour/pixels.h"
#include "colour/reshape.h"

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

ordered_kernel ordered_mono_kernel(int bits) {
    return by_depth(bits, []<int B>() { return static_cast<ordered_kernel>(mono_row<B>); });
}

ordered_kernel ordered_colour_kernel(int bits) {
    return by_depth(bits, []<int B>() { return static_cast<ordered_kernel>(colour_row<B>); });
}

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_bayer_mono(int h) { return ordered(h, 1, bayer_thresholds); }
int IMG_API IMG_halftone_mono(int h) { return ordered(h, 1, halftone_thresholds); }
int IMG_API IMG_bayer_color(int h) { return ordered(h, 4, bayer_thresholds); }

}  // extern "C"
