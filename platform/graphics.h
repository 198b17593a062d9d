// The device-context operations that the drawing code calls: real GDI and
// USER on Windows, the library's own surfaces (platform/posix/surface.h)
// elsewhere.  Device contexts, windows and bitmaps are void pointers: HDC,
// HWND and HBITMAP on Windows, surface pointers on Linux.  Coordinates are
// logical units of the device context unless a name says otherwise.
#pragma once
#include <cstdint>

namespace brv {

struct gfx_point {
    int32_t x, y;
};
struct gfx_rect {
    int32_t left, top, right, bottom;
};

// ---- Mapping -----------------------------------------------------------------
constexpr int GFX_MM_TEXT = 1;
constexpr int GFX_MM_ANISOTROPIC = 8;

struct gfx_mapping {
    int32_t mode;
    gfx_point window_org, window_ext, viewport_org, viewport_ext;
};

// Converts count points in place from logical to device units.
bool gfx_lp_to_dp(void *dc, gfx_point *points, int count);
// Pushes the mapping state; the level for gfx_restore, 0 on failure.
int gfx_save(void *dc);
// Pops back to a level that gfx_save returned (-1: the last one).
bool gfx_restore(void *dc, int level);
// One logical unit per device pixel: MM_TEXT, origins 0, extents 1.
void gfx_pixel_mapping(void *dc);
void gfx_get_mapping(void *dc, gfx_mapping *mapping);
void gfx_set_mapping(void *dc, const gfx_mapping &mapping);

// ---- Capabilities ----------------------------------------------------------
// NUMCOLORS: -1 on a true-colour device, 2 on a monochrome one.
int gfx_num_colors(void *dc);
// Whether the device's technology name is "PostScript", case ignored.
bool gfx_is_postscript(void *dc);
int gfx_logpixels_x(void *dc);
// The printer's scaling factor (shifts); false when the device lacks the escape.
bool gfx_scaling_factor(void *dc, gfx_point *factor);

// ---- Transfers -----------------------------------------------------------------
// Raster operations, as GDI numbers them.
constexpr uint32_t GFX_SRCCOPY = 0x00CC0020;
constexpr uint32_t GFX_SRCPAINT = 0x00EE0086;
constexpr uint32_t GFX_SRCAND = 0x008800C6;
constexpr uint32_t GFX_SRCINVERT = 0x00660046;
constexpr uint32_t GFX_SRCERASE = 0x00440328;
constexpr uint32_t GFX_NOTSRCCOPY = 0x00330008;
constexpr uint32_t GFX_NOTSRCERASE = 0x001100A6;
constexpr uint32_t GFX_MERGEPAINT = 0x00BB0226;
constexpr uint32_t GFX_DSTINVERT = 0x00550009;
constexpr uint32_t GFX_BLACKNESS = 0x00000042;
constexpr uint32_t GFX_WHITENESS = 0x00FF0062;

// StretchDIBits with DIB_RGB_COLORS: header is a BITMAPINFOHEADER and its
// colour table, bits the rows bottom-up; (sx, sy) counts from the lower
// left.  Nearest-neighbour stretching.  Rows transferred, 0 on failure.
int gfx_stretch_dib(void *dc, int dx, int dy, int dw, int dh, int sx, int sy, int sw, int sh, const void *bits,
                    const void *header, uint32_t rop);

void *gfx_create_compatible_dc(void *dc);
void gfx_delete_dc(void *dc);
void *gfx_create_compatible_bitmap(void *dc, int width, int height);
// Selects a bitmap into a memory device context; the previous one.
void *gfx_select_bitmap(void *dc, void *bitmap);
void gfx_delete_bitmap(void *bitmap);
// A device-dependent bitmap initialised from a DIB (CreateDIBitmap); null on failure.
void *gfx_dib_to_bitmap(void *dc, const void *header, const void *bits);
bool gfx_bitmap_size(void *bitmap, int *width, int *height);
bool gfx_bitblt(void *dc, int x, int y, int w, int h, void *src_dc, int sx, int sy, uint32_t rop);
// GetDIBits: rows [first, first + count) counted from the bottom into bits
// in the form header asks for (24 or 32 bits, BI_RGB); rows read, 0 on failure.
int gfx_read_bitmap(void *dc, void *bitmap, int first, int count, void *bits, void *header);

// ---- Windows ---------------------------------------------------------------------
constexpr int GFX_SB_HORZ = 0;
constexpr int GFX_SB_VERT = 1;

bool gfx_client_rect(void *window, gfx_rect *rect);
void gfx_set_scroll_range(void *window, int bar, int min, int max, bool redraw);
void gfx_set_scroll_pos(void *window, int bar, int pos, bool redraw);
int gfx_get_scroll_pos(void *window, int bar);
// Moves the client area's pixels by (dx, dy); the uncovered strip is left to a repaint.
void gfx_scroll_window(void *window, int dx, int dy);
void gfx_invalidate(void *window);

// Device contexts, bitmaps and palettes alive, for leak tests.
int gfx_live_objects();
// Palettes alive: os_palette_create and os_palette_delete keep the count.
extern int gfx_palettes_live;

}  // namespace brv
