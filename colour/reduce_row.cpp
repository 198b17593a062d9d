// Load-time colour reduction: one row at a time, in place, onto the "332"
// cube (8 bits), the "dither" colours (4 bits) or black and white (1 bit).
#include "colour/colour.h"

namespace brv {

const uint8_t bayer_thresholds[64] = {
    4,   128, 32,  160, 8,   136, 40,  168, 192, 64,  224, 96,  200, 72,  232, 104,
    48,  176, 16,  144, 56,  184, 24,  152, 240, 112, 208, 80,  248, 120, 216, 88,
    12,  140, 44,  172, 4,   132, 36,  164, 204, 76,  236, 108, 196, 68,  228, 100,
    60,  188, 28,  156, 52,  180, 20,  148, 252, 124, 220, 92,  244, 116, 212, 84,
};

namespace {

// Nearest "dither" entry for a colour quantised to 5 bits per component,
// built once: the 16-entry search would otherwise run for every pixel.
struct dither_lookup {
    uint8_t index[32 * 32 * 32];
    dither_lookup() : index{} {
        int pal[16][3] = {};
        for (int i = 0; i < 16; i++) {
            int level = i < 8 ? 200 : 255;
            pal[i][0] = (i & 4) ? level : 0;
            pal[i][1] = (i & 2) ? level : 0;
            pal[i][2] = (i & 1) ? level : 0;
        }
        for (int k = 0; k < 32 * 32 * 32; k++) {
            int b = ((k >> 10) & 31) * 255 / 31, g = ((k >> 5) & 31) * 255 / 31, r = (k & 31) * 255 / 31;
            int best = 0, best_d = 1 << 30;
            for (int i = 0; i < 16; i++) {
                int db = b - pal[i][0], dg = g - pal[i][1], dr = r - pal[i][2];
                int d = db * db + dg * dg + dr * dr;
                if (d < best_d) best_d = d, best = i;
            }
            index[k] = static_cast<uint8_t>(best);
        }
    }
};

const dither_lookup &nearest_dither() {
    static const dither_lookup table;
    return table;
}

// Rounds a component onto `levels` evenly spaced steps of 0..255, either to
// the nearest step or up when the remainder passes the threshold.
inline int level_of(int v, int steps, int threshold, bool ordered) {
    int q = v * steps;
    int level = q / 255, frac = q % 255;
    if (ordered) return level + ((frac * 256 / 255) > threshold ? 1 : 0);
    return level + (frac * 2 >= 255 ? 1 : 0);
}

// Reads pixel x of a row of the announced depth as blue, green, red.
template <int Bits>
inline void pixel_bgr(const uint8_t *row, const uint8_t *pal, int x, int &b, int &g, int &r) {
    const uint8_t *q;
    if constexpr (Bits == 24) {
        q = row + 3 * x;
    } else if constexpr (Bits == 8) {
        q = pal + 4 * row[x];
    } else if constexpr (Bits == 4) {
        q = pal + 4 * ((row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15);
    } else {
        q = pal + 4 * ((row[x >> 3] >> (7 - (x & 7))) & 1);
    }
    b = q[0];
    g = q[1];
    r = q[2];
}

template <int Bits>
void to_332(const uint8_t *pal, uint8_t *row, int width, int r, bool ordered) {
    for (int x = 0; x < width; x++) {
        int b, g, rd;
        pixel_bgr<Bits>(row, pal, x, b, g, rd);
        int t = bayer_thresholds[8 * (x & 7) + (r & 7)];
        row[x] = static_cast<uint8_t>(level_of(rd, 7, t, ordered) << 5 | level_of(g, 7, t, ordered) << 2 |
                                      level_of(b, 3, t, ordered));
    }
}

template <int Bits>
void to_dither16(const uint8_t *pal, uint8_t *row, int width, int r, bool ordered) {
    const dither_lookup &nearest = nearest_dither();
    uint8_t acc = 0;
    for (int x = 0; x < width; x++) {
        int b, g, rd;
        pixel_bgr<Bits>(row, pal, x, b, g, rd);
        int index;
        if (ordered) {
            int t = bayer_thresholds[8 * (x & 7) + (r & 7)];
            int y = (38 * rd + 75 * g + 14 * b) >> 7;
            index = (b > t ? 4 : 0) | (g > t ? 2 : 0) | (rd > t ? 1 : 0) | (y > t + 40 ? 8 : 0);
        } else {
            index = nearest.index[(b >> 3) << 10 | (g >> 3) << 5 | (rd >> 3)];
        }
        if (x & 1) {
            row[x >> 1] = static_cast<uint8_t>(acc | index);
        } else {
            acc = static_cast<uint8_t>(index << 4);
        }
    }
    if (width & 1) row[width >> 1] = acc;
}

template <int Bits>
void to_mono(const uint8_t *pal, uint8_t *row, int width, int r, bool ordered) {
    uint8_t acc = 0;
    for (int x = 0; x < width; x++) {
        int b, g, rd;
        pixel_bgr<Bits>(row, pal, x, b, g, rd);
        int gray = (11 * b + 30 * rd + 59 * g) / 100;
        int limit = ordered ? bayer_thresholds[8 * (x & 7) + (r & 7)] : 127;
        if (gray > limit) acc |= static_cast<uint8_t>(0x80 >> (x & 7));
        if ((x & 7) == 7) {
            row[x >> 3] = acc;
            acc = 0;
        }
    }
    if (width & 7) row[width >> 3] = acc;
}

using row_converter = void (*)(const uint8_t *, uint8_t *, int, int, bool);

row_converter pick(int from, int to) {
    switch (to) {
    case 8:
        return from == 24 ? to_332<24> : from == 8 ? to_332<8> : from == 4 ? to_332<4> : to_332<1>;
    case 4:
        return from == 24 ? to_dither16<24> : from == 8 ? to_dither16<8> : from == 4 ? to_dither16<4> : to_dither16<1>;
    default:
        return from == 24 ? to_mono<24> : from == 8 ? to_mono<8> : from == 4 ? to_mono<4> : to_mono<1>;
    }
}

}  // namespace

void reduce_row(const dib_info *announced, uint8_t *row, int target_bits, int r, int dithermode) {
    int from = announced->biBitCount;
    int width = announced->biWidth;
    const uint8_t *pal = reinterpret_cast<const uint8_t *>(announced) + 40;
    pick(from, target_bits)(pal, row, width, r, dithermode != 0);
    // Clear the stored row's padding so the bitmap's bytes do not depend on
    // what the reader left in its buffer.
    uint32_t used = target_bits == 1 ? (width + 7) / 8 : target_bits == 4 ? (width + 1) / 2 : width;
    uint32_t total = row_bytes(width, target_bits);
    if (total > used) std::memset(row + used, 0, total - used);
}

}  // namespace brv
