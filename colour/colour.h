// Fixed palettes and the row kernels that loads and the colour exports share.
#pragma once
#include "frame/frame.h"

namespace brv {

// Fills the colour table after a 40-byte header by its bit count and a
// palette name ("tiff", "332", "targa", "dither", "pcx"; case ignored).
void set_named_palette(dib_info *header, const char *name);

// Converts one row in place from the announced header's depth to target bits
// (8 onto "332", 4 onto "dither", 1 onto black and white).  Dither mode 0
// takes the nearest colour; any other mode dithers with the ordered table
// keyed on the column and row number r.
void reduce_row(const dib_info *announced, uint8_t *row, int target_bits, int r, int dithermode);

// The 8 x 8 ordered-dither and clustered-dot thresholds, read as
// T[8 * (x % 8) + (r % 8)]; row_thresholds gathers row r's eight, by x % 8.
extern const uint8_t bayer_thresholds[64];
extern const uint8_t halftone_thresholds[64];
void row_thresholds(const uint8_t table[64], int r, uint8_t out[8]);

// One row from a source of the depth asked for (1, 4, 8, 24; pal its colour
// table) to 1 bit (white where the monochrome grey exceeds t[x % 8]) or to 4
// bits on the 16-colour cube.  out may be src when the output is no wider.
using ordered_kernel = void (*)(const uint8_t *src, const uint8_t *pal, uint8_t *out, int width,
                                const uint8_t t[8]);
// fast picks the processor's vector path where there is one.
ordered_kernel ordered_mono_kernel(int bits, bool fast = true);
ordered_kernel ordered_colour_kernel(int bits, bool fast = true);

// CIE L*a*b* (L 0-100, a and b about -128..127) relative to the D65 white
// point, to sRGB bytes written as blue, green, red.
void cielab_to_bgr(double L, double a, double b, uint8_t *bgr);

}  // namespace brv
