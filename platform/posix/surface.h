// Device contexts without a windowing system: a surface is a record holding
// 32-bit pixels (0x00RRGGBB, rows top-down) and the state GDI keeps for a
// device context.  The library's graphics interface (platform/graphics.h)
// runs all raster work on these pixels; a surface that shows or prints them
// elsewhere (an X11 window, a printer page) is "a surface plus hooks": it
// fills in hooks and owner, and the raster code calls the hooks after it has
// changed the pixels.
//
// One surface type serves three roles:
//   - a device context with pixels of its own (a memory surface, a window's
//     back buffer, a printer page): pixels set, selected null;
//   - a memory device context without pixels (gfx_create_compatible_dc):
//     it draws into the bitmap selected into it;
//   - a device-dependent bitmap (gfx_create_compatible_bitmap,
//     gfx_dib_to_bitmap): pixels set, is_bitmap true.
// A surface used as a window has a client area of its own size and keeps
// its scroll bars in scroll_min/max/pos.
#pragma once
#include "platform/graphics.h"
#include "platform/platform.h"

namespace brv {

struct surface;

struct surface_hooks {
    // After drawing: the device rectangle whose pixels changed.
    void (*present)(surface *s, int x, int y, int w, int h);
    // After ScrollWindow moved the pixels by (dx, dy).
    void (*scroll)(surface *s, int dx, int dy);
    // Before the record and its pixels are freed.
    void (*destroy)(surface *s);
};

constexpr int SURFACE_SAVE_DEPTH = 16;

struct surface {
    bool is_bitmap;
    int32_t width, height;
    uint32_t *pixels;         // width x height, locked for the surface's life
    mem_block pixel_block, record_block;

    gfx_mapping mapping;
    gfx_mapping saved[SURFACE_SAVE_DEPTH];
    int saved_count;

    // What GetDeviceCaps and the escapes report; settable (IMG_dc_set_caps).
    int32_t num_colors;       // NUMCOLORS: -1 true colour, 2 monochrome
    char technology[32];      // GETTECHNOLOGY, "" for a display
    int32_t logpixels_x;
    bool has_scaling;         // GETSCALINGFACTOR supported
    gfx_point scaling;

    surface *selected;        // the bitmap a pixel-less memory DC draws into

    int32_t scroll_min[2], scroll_max[2], scroll_pos[2];

    const surface_hooks *hooks;  // null for a plain memory surface
    void *owner;                 // the hooks' own record
    surface *next;               // the list of live surfaces
};

// A new surface of width x height (white pixels; none when either is 0),
// or null when memory fails.  Caps: true colour, 96 dpi, a display.
surface *surface_create(int width, int height);
// Calls the destroy hook, then frees pixels and record.
void surface_destroy(surface *s);
// The surface behind a device-context pointer, or null when it is none.
surface *surface_of(void *dc);
// Where a device context draws: its selected bitmap, or itself.
surface *surface_target(surface *s);

}  // namespace brv
