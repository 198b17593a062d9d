// Merging a second handle's picture into a first one at a position, with a
// raster operation on the stored values or a blend.
#include "process/process.h"

#include <algorithm>

namespace brv {

namespace {

template <int Bits>
inline void set_px(uint8_t *row, int x, uint32_t v) {
    if constexpr (Bits == 1) row[x >> 3] &= static_cast<uint8_t>(~(0x80 >> (x & 7)));
    else if constexpr (Bits == 4) row[x >> 1] &= static_cast<uint8_t>((x & 1) ? 0xF0 : 0x0F);
    put_px<Bits>(row, x, v);
}

// Blend of two stored values, byte by byte: share a (0..255) of the source.
inline uint32_t blend(uint32_t s, uint32_t d, uint32_t a) {
    uint32_t out = 0;
    for (int shift = 0; shift < 24; shift += 8) {
        uint32_t sv = (s >> shift) & 255, dv = (d >> shift) & 255;
        out |= ((sv * a + dv * (255 - a) + 127) / 255) << shift;
    }
    return out;
}

template <int Bits>
void merge_row(const uint8_t *src, int sx, uint8_t *dst, int dx, int n, int mode) {
    const uint32_t a = static_cast<uint32_t>(mode) & 255;
    for (int i = 0; i < n; i++) {
        uint32_t s = get_px<Bits>(src, sx + i), d = get_px<Bits>(dst, dx + i);
        switch (mode) {
        case IMG_MERGE_COPY: d = s; break;
        case IMG_MERGE_AND: d &= s; break;
        case IMG_MERGE_OR: d |= s; break;
        case IMG_MERGE_XOR: d ^= s; break;
        default: d = blend(s, d, a); break;
        }
        set_px<Bits>(dst, dx + i, d);
    }
}

int merge(int into, int from, int left, int top, int mode) {
    if (into == from) return handle_check(into) ? IMG_ERR_HANDLE : IMG_ERR_TYPE;
    held_bitmap dst(into);
    if (dst.error) return dst.error;
    held_bitmap src(from);
    if (src.error) return src.error;
    const bitmap &d = dst.bm, &s = src.bm;
    if (d.bits != s.bits) return IMG_ERR_DEPTH;
    const bool blending = (mode & ~255) == IMG_MERGE_BLEND(0);
    if (!blending && (mode < IMG_MERGE_COPY || mode > IMG_MERGE_XOR)) return IMG_ERR_TYPE;
    // Blending mixes values: only colours, or grey levels on grey tables.
    if (blending && d.bits != 24 && !(d.bits == 8 && grey_table(d) && grey_table(s))) return IMG_ERR_TYPE;
    // The overlap, in picture coordinates of the destination.
    const int64_t x0 = left > 0 ? left : 0, y0 = top > 0 ? top : 0;
    const int64_t x1 = std::min<int64_t>(d.width, int64_t{left} + s.width);
    const int64_t y1 = std::min<int64_t>(d.height, int64_t{top} + s.height);
    if (x0 >= x1 || y0 >= y1) return 0;
    const int n = static_cast<int>(x1 - x0);
    with_depth(d.bits, [&](auto depth) {
        for (int64_t y = y0; y < y1; y++)
            merge_row<depth()>(s.row(static_cast<int>(s.height - 1 - (y - top))), static_cast<int>(x0 - left),
                               d.row(static_cast<int>(d.height - 1 - y)), static_cast<int>(x0), n, mode);
    });
    return 0;
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" int IMG_API IMG_merge_bitmap(int into, int from, int left, int top, int mode) {
    return merge(into, from, left, top, mode);
}
