// Pixel x, y (from the top left) of a test picture at its depth: the
// stored index, or blue | green << 8 | red << 16.
#pragma once
#include "test_util.h"

inline uint32_t px(const picture &p, int x, int y) {
    const bytes &r = p.rows[y];
    switch (p.bits) {
    case 1: return (r[x / 8] >> (7 - x % 8)) & 1;
    case 4: return (r[x / 2] >> (x % 2 ? 0 : 4)) & 15;
    case 8: return r[x];
    default: return r[3 * x] | r[3 * x + 1] << 8 | r[3 * x + 2] << 16;
    }
}
