// Drawing a handle's picture into a device context: the banded drawing that
// display, printing and the device-dependent copies share.
#pragma once
#include "frame/handles.h"

namespace brv {

// What a drawing adds to the plain display.
struct draw_options {
    // Printing: the status callback is called once per destination row
    // with the destination height; a negative answer stops the drawing.
    bool print = false;
    // Pixels of this colour (0x00RRGGBB, before the tone table) leave the
    // destination untouched.
    bool transparent = false;
    uint32_t key = 0;
    // The raster operation of the transfer; 0: the record's.
    uint32_t rop = 0;
};

// The whole drawing of IMG_display_bitmap: handle check, device rectangle,
// one-to-one mapping, the dither decision, the bands, and the restoring of
// the device context, the record's rectangle and the drawing's palette.
// (left, top, width, height) are logical units of dc.  0 or a negative code.
int draw_bitmap(int handle, void *dc, int left, int top, int width, int height, const draw_options &options);

// The band painter alone: the crop rectangle of rec's locked DIB (dib)
// into the device rectangle (dx, dy, dw, dh) of dc, which must be in a
// one-to-one mapping.  dither: to 1 bit for a monochrome device.
int paint_bands(const handle_record *rec, const uint8_t *dib, void *dc, int dx, int dy, int dw, int dh, bool dither,
                const draw_options &options);

// The 256-entry tone table of a band drawing on dc.
void build_tone_table(const handle_record *rec, void *dc, bool dither, uint8_t tone[256]);

// Whether a drawing of a picture of this depth on dc is dithered.
bool dither_for(void *dc, int bits);

}  // namespace brv
