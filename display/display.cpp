// IMG_display_bitmap and its variants: the device set-up around the band
// painter, and the palette a drawing makes on a palette device.
#include "display/display.h"

#include "platform/graphics.h"
#include "process/process.h"

#include <algorithm>
#include <cstdlib>

namespace brv {

int draw_bitmap(int handle, void *dc, int left, int top, int width, int height, const draw_options &options) {
    held_bitmap held(handle);
    if (held.error) return held.error;
    handle_record *rec = held.rec;
    const int32_t logical[4] = {left, top, width, height};
    std::copy(logical, logical + 4, rec->display_a);

    gfx_point corner[2] = {{left, top}, {left + width, top + height}};
    if (!gfx_lp_to_dp(dc, corner, 2)) return IMG_ERR_HANDLE;
    const int dx = corner[0].x, dy = corner[0].y;
    const int dw = std::abs(corner[1].x - corner[0].x), dh = std::abs(corner[1].y - corner[0].y);
    const int32_t device[4] = {dx, dy, dw, dh};
    std::copy(device, device + 4, rec->display_a);

    const int level = gfx_save(dc);
    gfx_pixel_mapping(dc);
    const bool dither = dither_for(dc, held.bm.bits);
    // A palette device shows the picture through its display palette.
    const int colours = gfx_num_colors(dc);
    if (!dither && colours >= 4 && colours <= 256) {
        const int palette = IMG_get_bitmap_palette(handle);
        if (palette > 0) {
            rec->display_c = palette;
            rec->display_d[0] = os_palette_select(dc, palette);
        }
    }
    const int r = paint_bands(rec, held.bm.dib, dc, dx, dy, dw, dh, dither, options);

    gfx_restore(dc, level);
    std::copy(logical, logical + 4, rec->display_a);
    if (rec->display_c) {
        if (rec->display_d[0]) os_palette_select(dc, rec->display_d[0]);
        os_palette_delete(rec->display_c);
        rec->display_c = rec->display_d[0] = 0;
    }
    return r;
}

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_display_bitmap(int handle, void *dc, int left, int top, int width, int height) {
    return draw_bitmap(handle, dc, left, top, width, height, {});
}

int IMG_API IMG_display_bitmap_transp(int handle, void *dc, int left, int top, int width, int height,
                                      unsigned int colour) {
    draw_options o;
    o.transparent = true;
    // A COLORREF holds red in its low byte.
    o.key = (colour & 0xFF) << 16 | (colour & 0xFF00) | (colour >> 16 & 0xFF);
    return draw_bitmap(handle, dc, left, top, width, height, o);
}

int IMG_API IMG_decompress_bitmap_display(const char *name, int page, void *dc, int left, int top, int width,
                                          int height) {
    if (!name || !*name) return IMG_ERR_OPEN;
    const int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    const int h = IMG_decompress_bitmap_fd(fd, 0, page);
    os_close(fd);
    if (h < 0) return h;
    const int r = IMG_display_bitmap(h, dc, left, top, width, height);
    IMG_delete_bitmap(h);
    return r;
}

}  // extern "C"
