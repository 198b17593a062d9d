// Reading a bitmap row's pixels as blue, green, red whatever its depth, and
// the two grey weightings the reductions use.
#pragma once
#include <cstdint>

namespace brv {

// Monochrome reductions: white gives 255.
constexpr int mono_grey(int b, int g, int r) { return (11 * b + 30 * r + 59 * g) / 100; }
// Colour reductions and grey conversion: the weights sum to 127, so white gives 253.
constexpr int luma(int b, int g, int r) { return (38 * r + 75 * g + 14 * b) >> 7; }

// The blue, green, red bytes of pixel x: in the row for 24 bits, else the
// colour-table entry its index names (4 bits: high nibble first).
template <int Bits>
inline const uint8_t *pixel_bgr(const uint8_t *row, const uint8_t *pal, int x) {
    if constexpr (Bits == 24) return row + 3 * x;
    else if constexpr (Bits == 8) return pal + 4 * row[x];
    else if constexpr (Bits == 4) return pal + 4 * ((row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15);
    else return pal + 4 * ((row[x >> 3] >> (7 - (x & 7))) & 1);
}

// Calls f.template operator()<Bits>() for a depth of 1, 4, 8 or 24.
template <class F>
inline auto by_depth(int bits, F &&f) {
    switch (bits) {
    case 24: return f.template operator()<24>();
    case 8: return f.template operator()<8>();
    case 4: return f.template operator()<4>();
    default: return f.template operator()<1>();
    }
}

}  // namespace brv
