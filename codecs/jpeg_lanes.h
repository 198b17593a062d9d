// Lanes for the JPEG transforms: the eight-lane 32-bit vector type, the lane
// shuffle in both compilers' spellings, and the 8x8 transposes between passes.
#pragma once
#include <cstdint>

namespace brv {

using lanes8 = int32_t __attribute__((vector_size(32)));
#if defined(__clang__)
#define LANE_SHUFFLE(a, b, ...) __builtin_shufflevector(a, b, __VA_ARGS__)
#else
#define LANE_SHUFFLE(a, b, ...) __builtin_shuffle(a, b, lanes8{__VA_ARGS__})
#endif

// out[m] lane k = in[k] lane m.
__attribute__((always_inline)) inline void transpose_lanes8(const lanes8 *in, lanes8 *out) {
    lanes8 t[8], u[8];
    for (int q = 0; q < 8; q += 2) {
        t[q] = LANE_SHUFFLE(in[q], in[q + 1], 0, 8, 1, 9, 4, 12, 5, 13);
        t[q + 1] = LANE_SHUFFLE(in[q], in[q + 1], 2, 10, 3, 11, 6, 14, 7, 15);
    }
    for (int q = 0; q < 8; q += 4) {
        u[q] = LANE_SHUFFLE(t[q], t[q + 2], 0, 1, 8, 9, 4, 5, 12, 13);
        u[q + 1] = LANE_SHUFFLE(t[q], t[q + 2], 2, 3, 10, 11, 6, 7, 14, 15);
        u[q + 2] = LANE_SHUFFLE(t[q + 1], t[q + 3], 0, 1, 8, 9, 4, 5, 12, 13);
        u[q + 3] = LANE_SHUFFLE(t[q + 1], t[q + 3], 2, 3, 10, 11, 6, 7, 14, 15);
    }
    for (int m = 0; m < 4; m++) {
        out[m] = LANE_SHUFFLE(u[m], u[m + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        out[m + 4] = LANE_SHUFFLE(u[m], u[m + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

// The 8x8 transpose of 16-bit samples within each 128-bit part of a vector
// (one block per part), written once for every width: NAME(y, x) gives
// x[m] lane k = y[k] lane m.  P is the intrinsics' prefix (_mm_, _mm256_, ...).
#define TRANSPOSE16_8X8(ATTR, NAME, V, P)                                                \
    ATTR __attribute__((always_inline)) inline void NAME(const V *y, V *x) {             \
        V a[8], b[8];                                                                    \
        for (int q = 0; q < 8; q += 2) {                                                 \
            a[q] = P##unpacklo_epi16(y[q], y[q + 1]);                                    \
            a[q + 1] = P##unpackhi_epi16(y[q], y[q + 1]);                                \
        }                                                                                \
        for (int q = 0; q < 8; q += 4) {                                                 \
            b[q] = P##unpacklo_epi32(a[q], a[q + 2]);                                    \
            b[q + 1] = P##unpackhi_epi32(a[q], a[q + 2]);                                \
            b[q + 2] = P##unpacklo_epi32(a[q + 1], a[q + 3]);                            \
            b[q + 3] = P##unpackhi_epi32(a[q + 1], a[q + 3]);                            \
        }                                                                                \
        for (int q = 0; q < 4; q++) {                                                    \
            x[2 * q] = P##unpacklo_epi64(b[q], b[q + 4]);                                \
            x[2 * q + 1] = P##unpackhi_epi64(b[q], b[q + 4]);                            \
        }                                                                                \
    }

}  // namespace brv
