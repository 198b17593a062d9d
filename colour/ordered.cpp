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

template <int Bits>
void mono_row(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width, const uint8_t t[8]) {
    uint8_t acc = 0;
    for (int x = 0; x < width; x++) {
        const uint8_t *q = pixel_bgr<Bits>(src, pal, x);
        if (mono_grey(q[0], q[1], q[2]) > t[x & 7]) acc |= static_cast<uint8_t>(0x80 >> (x & 7));
        if ((x & 7) == 7) {
            out[x >> 3] = acc;
            acc = 0;
        }
    }
    if (width & 7) out[width >> 3] = acc;
}

template <int Bits>
void colour_row(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width, const uint8_t t[8]) {
    uint8_t acc = 0;
    for (int x = 0; x < width; x++) {
        const uint8_t *q = pixel_bgr<Bits>(src, pal, x);
        int b = q[0], g = q[1], r = q[2], th = t[x & 7];
        int index = (b > th ? 4 : 0) | (g > th ? 2 : 0) | (r > th ? 1 : 0) | (luma(b, g, r) > th + 40 ? 8 : 0);
        if (x & 1) {
            out[x >> 1] = static_cast<uint8_t>(acc | index);
        } else {
            acc = static_cast<uint8_t>(index << 4);
        }
    }
    if (width & 1) out[width >> 1] = acc;
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
