// Look-up tables: the display brightness and contrast a handle keeps, and
// per-channel tables applied to a picture's colours in place.
#include "process/process.h"

using namespace brv;

extern "C" {

int IMG_API IMG_set_lut(int h, int brightness, int contrast) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    rec->brightness = brightness;
    rec->contrast = contrast;
    return 0;
}

int IMG_API IMG_apply_lut(int h, const unsigned char *red, const unsigned char *green, const unsigned char *blue) {
    held_bitmap held(h);
    if (held.error) return held.error;
    const bitmap &bm = held.bm;
    uint8_t t[3][256];  // blue, green, red, as stored
    const unsigned char *given[3] = {blue, green, red};
    for (int c = 0; c < 3; c++)
        for (int v = 0; v < 256; v++) t[c][v] = given[c] ? given[c][v] : static_cast<uint8_t>(v);
    // A palette picture changes through its table alone.
    if (bm.bits != 24) {
        for (uint32_t i = 0; i < bm.palette; i += 4)
            for (int c = 0; c < 3; c++) bm.table()[i + c] = t[c][bm.table()[i + c]];
        return 0;
    }
    for (int y = 0; y < bm.height; y++) {
        uint8_t *p = bm.row(y);
        for (int x = 0; x < bm.width; x++, p += 3) {
            p[0] = t[0][p[0]];
            p[1] = t[1][p[1]];
            p[2] = t[2][p[2]];
        }
    }
    return 0;
}

}  // extern "C"
