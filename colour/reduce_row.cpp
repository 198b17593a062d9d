// Load-time colour reduction: one row at a time, in place, onto the "332"
// cube (8 bits), the "dither" colours (4 bits) or black and white (1 bit).
#include "colour/colour.h"
#include "colour/pixels.h"

namespace brv {

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

template <int Bits>
void to_332(const uint8_t *pal, uint8_t *row, int width, int r, bool ordered) {
    for (int x = 0; x < width; x++) {
        const uint8_t *q = pixel_bgr<Bits>(row, pal, x);
        int t = bayer_thresholds[8 * (x & 7) + (r & 7)];
        row[x] = static_cast<uint8_t>(level_of(q[2], 7, t, ordered) << 5 | level_of(q[1], 7, t, ordered) << 2 |
                                      level_of(q[0], 3, t, ordered));
    }
}

template <int Bits>
void to_nearest16(const uint8_t *pal, uint8_t *row, int width) {
    const dither_lookup &nearest = nearest_dither();
    uint8_t acc = 0;
    for (int x = 0; x < width; x++) {
        const uint8_t *q = pixel_bgr<Bits>(row, pal, x);
        int index = nearest.index[(q[0] >> 3) << 10 | (q[1] >> 3) << 5 | (q[2] >> 3)];
        if (x & 1) {
            row[x >> 1] = static_cast<uint8_t>(acc | index);
        } else {
            acc = static_cast<uint8_t>(index << 4);
        }
    }
    if (width & 1) row[width >> 1] = acc;
}

}  // namespace

void reduce_row(const dib_info *announced, uint8_t *row, int target_bits, int r, int dithermode) {
    int from = announced->biBitCount;
    int width = announced->biWidth;
    const uint8_t *pal = reinterpret_cast<const uint8_t *>(announced) + 40;
    const bool ordered = dithermode != 0;
    uint8_t t[8];
    if (ordered) row_thresholds(bayer_thresholds, r, t);
    if (target_bits == 8) {
        by_depth(from, [&]<int B>() { to_332<B>(pal, row, width, r, ordered); });
    } else if (target_bits == 4 && !ordered) {
        by_depth(from, [&]<int B>() { to_nearest16<B>(pal, row, width); });
    } else if (target_bits == 4) {
        ordered_colour_kernel(from)(row, pal, row, width, t);
    } else {
        // Without dithering the threshold is mid-grey everywhere.
        if (!ordered) std::memset(t, 127, sizeof t);
        ordered_mono_kernel(from)(row, pal, row, width, t);
    }
    // Clear the stored row's padding so the bitmap's bytes do not depend on
    // what the reader left in its buffer.
    uint32_t used = target_bits == 1 ? (width + 7) / 8 : target_bits == 4 ? (width + 1) / 2 : width;
    uint32_t total = row_bytes(width, target_bits);
    if (total > used) std::memset(row + used, 0, total - used);
}

}  // namespace brv
