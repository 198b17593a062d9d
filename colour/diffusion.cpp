// Error diffusion onto the fixed palettes: black and white with the 42-part
// kernel, the 16-colour cube and the 3-3-2 cube with the 32-part one.
#include "colour/colour.h"
#include "colour/diffuse.h"

namespace brv {

namespace {

constexpr unsigned SOURCES = 1u << 4 | 1u << 8 | 1u << 24;

// The "pcx" colours: dim 128 for indexes 0-7, full 255 for 8-15.
constexpr int pcx_level(int index, int bit) { return index & bit ? (index & 8 ? 255 : 128) : 0; }

int diffusion_mono(int h) {
    reshape s(h, SOURCES, 1);
    if (s.result()) return s.result();
    set_named_palette(s.new_header(), "tiff");
    int r = diffuse<1, kernel_42>(s, 1, [](const int32_t *v, int *err) {
        const bool white = v[0] >= 128;
        err[0] = white ? v[0] - 255 : v[0];
        return white ? 1 : 0;
    });
    return s.finish(r);
}

int diffusion_colour(int h) {
    reshape s(h, SOURCES, 4);
    if (s.result()) return s.result();
    set_named_palette(s.new_header(), "pcx");
    int r = diffuse<3, kernel_32>(s, 4, [](const int32_t *v, int *err) {
        const int b = v[0], g = v[1], rd = v[2];
        int index = b > 180 ? 4 : 0;
        if (g > 180) index = b <= 180 ? 2 : 6;
        if (rd > 180) index |= 1;
        if (b >= 221 || g >= 221 || rd >= 221) index |= 8;
        err[0] = b - pcx_level(index, 4);
        err[1] = g - pcx_level(index, 2);
        err[2] = rd - pcx_level(index, 1);
        return index;
    });
    return s.finish(r);
}

int mediancut(int h) {
    reshape s(h, SOURCES, 8);
    if (s.result()) return s.result();
    set_named_palette(s.new_header(), "332");
    int r = diffuse_onto<kernel_32>(s, 8, s.new_palette(),
                                    [](int b, int g, int rd) { return (rd & 0xE0) | (g & 0xE0) >> 3 | b >> 6; });
    return s.finish(r);
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_diffusion_mono(int h) { return diffusion_mono(h); }
int IMG_API IMG_diffusion_color(int h) { return diffusion_colour(h); }
int IMG_API IMG_mediancut_color(int h) { return mediancut(h); }

}  // extern "C"
