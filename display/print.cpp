// Printing a handle's picture: the banded drawing with progress reporting,
// and the fast path that leaves all scaling to the printer driver.
#include "display/display.h"
#include "platform/graphics.h"
#include "process/process.h"

namespace brv {

namespace {

// Drivers of the 16-bit era took coordinates as 16-bit words; a negative
// device coordinate arrives as a large positive one, as it always has.
int low16(int32_t v) { return static_cast<uint16_t>(v); }

int32_t wrap_add(int64_t a, int64_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a + b)); }

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_print_bitmap(int handle, void *dc, int left, int top, int width, int height) {
    draw_options o;
    o.print = true;
    return draw_bitmap(handle, dc, left, top, width, height, o);
}

int IMG_API IMG_print_bitmap_fast(int handle, void *dc, int left, int top, int width, int height) {
    held_bitmap held(handle);
    if (held.error) return held.error;
    handle_record *rec = held.rec;
    rec->display_a[0] = left;
    rec->display_a[1] = top;
    rec->display_a[2] = width;
    rec->display_a[3] = height;

    // Signed differences: a mirrored mapping stays mirrored on the device.
    // The sums wrap as the 32-bit words they always were.
    gfx_point corners[2] = {{left, top}, {wrap_add(left, width), wrap_add(top, height)}};
    gfx_lp_to_dp(dc, corners, 2);
    const int dx = corners[0].x, dy = corners[0].y;
    int dw = wrap_add(corners[1].x, -static_cast<int64_t>(dx));
    int dh = wrap_add(corners[1].y, -static_cast<int64_t>(dy));

    gfx_mapping saved;
    gfx_get_mapping(dc, &saved);
    gfx_pixel_mapping(dc);

    // The DIB is stored bottom-up: the crop's top is counted from the bottom.
    const int sx = rec->crop_left, sw = rec->crop_width, sh = rec->crop_height;
    const int sy = rec->height - sh - rec->crop_top;
    if (gfx_point f; gfx_scaling_factor(dc, &f)) {
        dw = static_cast<int32_t>(static_cast<uint32_t>(dw) << (f.x & 31));
        dh = static_cast<int32_t>(static_cast<uint32_t>(dh) << (f.y & 31));
    }

    // The library keeps dots per inch in the resolution fields, which a
    // driver would read as pixels per metre: hidden for the transfer.
    uint8_t *dib = held.bm.dib;
    dib_info *info = dib_of(dib);
    const uint32_t compression = info->biCompression;
    const int32_t xres = info->biXPelsPerMeter, yres = info->biYPelsPerMeter;
    info->biCompression = 0;
    info->biXPelsPerMeter = info->biYPelsPerMeter = 0;
    gfx_stretch_dib(dc, low16(dx), low16(dy), low16(dw), low16(dh), low16(sx), low16(sy), low16(sw), low16(sh),
                    dib + 40 + palette_bytes(info->biBitCount), dib, static_cast<uint32_t>(rec->raster_op));
    info->biCompression = compression;
    info->biXPelsPerMeter = xres;
    info->biYPelsPerMeter = yres;

    gfx_set_mapping(dc, saved);
    return 0;
}

}  // extern "C"
