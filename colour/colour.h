// Fixed palettes and the row conversions that loads and reductions share.
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

// The 8 x 8 ordered-dither thresholds, read as T[8 * (x % 8) + (r % 8)].
extern const uint8_t bayer_thresholds[64];

// CIE L*a*b* (L 0-100, a and b about -128..127) relative to the D65 white
// point, to sRGB bytes written as blue, green, red.
void cielab_to_bgr(double L, double a, double b, uint8_t *bgr);

}  // namespace brv
