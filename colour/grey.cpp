// Grey conversion: any 4-, 8- or 24-bit picture to 8-bit luminance on the
// identity grey ramp.
#include "colour/colour.h"
#include "process/process.h"

namespace brv {

namespace {

// The luminance weights sum to 127: white gives 253, deliberately.
inline uint8_t luminance(unsigned blue, unsigned green, unsigned red) {
    return static_cast<uint8_t>((38 * red + 75 * green + 14 * blue) >> 7);
}

}  // namespace

int grey_rows(const bitmap &src, const bitmap &dst) {
    // A palette picture's levels come from its table, once.
    uint8_t level[256];
    for (uint32_t i = 0; i < src.palette; i += 4)
        level[i / 4] = luminance(src.table()[i], src.table()[i + 1], src.table()[i + 2]);
    for (int y = 0; y < src.height; y++) {
        const uint8_t *in = src.row(y);
        uint8_t *out = dst.row(y);
        if (src.bits == 24)
            for (int x = 0; x < src.width; x++, in += 3) out[x] = luminance(in[0], in[1], in[2]);
        else if (src.bits == 8)
            for (int x = 0; x < src.width; x++) out[x] = level[in[x]];
        else
            for (int x = 0; x < src.width; x++) out[x] = level[get_px<4>(in, x)];
        if (int r = row_done(src.height); r < 0) return r;
    }
    set_named_palette(dib_of(dst.dib), "tiff");
    return 0;
}

}  // namespace brv

using namespace brv;

extern "C" int IMG_API IMG_color_gray(int h) {
    held_bitmap held(h);
    if (held.error) return held.error;
    const bitmap &bm = held.bm;
    if (bm.bits != 4 && bm.bits != 8 && bm.bits != 24) return IMG_ERR_TYPE;
    new_bitmap out(bm.dib, bm.width, bm.height, 8);
    if (!out) return IMG_ERR_MEMORY;
    if (int r = grey_rows(bm, out.bm); r < 0) return r;
    install(held, out);
    return 0;
}
