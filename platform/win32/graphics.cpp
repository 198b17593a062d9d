// The graphics interface on Windows: GDI and USER themselves.
#include "platform/graphics.h"

#include <windows.h>

#include <cstring>

namespace brv {

int gfx_palettes_live = 0;

namespace {

HDC dc_of(void *dc) { return static_cast<HDC>(dc); }
HWND window_of(void *w) { return static_cast<HWND>(w); }

// Objects made through this interface and not yet deleted: the count the
// leak tests compare when the system's own (GetGuiResources) is not kept.
int objects_made = 0;

int bar_of(int bar) { return bar == GFX_SB_VERT ? SB_VERT : SB_HORZ; }

}  // namespace

bool gfx_lp_to_dp(void *dc, gfx_point *points, int count) {
    static_assert(sizeof(gfx_point) == sizeof(POINT));
    return LPtoDP(dc_of(dc), reinterpret_cast<POINT *>(points), count) != 0;
}

int gfx_save(void *dc) { return SaveDC(dc_of(dc)); }

bool gfx_restore(void *dc, int level) { return RestoreDC(dc_of(dc), level) != 0; }

void gfx_pixel_mapping(void *dc) {
    HDC h = dc_of(dc);
    SetMapMode(h, MM_TEXT);
    SetWindowOrgEx(h, 0, 0, nullptr);
    SetViewportOrgEx(h, 0, 0, nullptr);
    SetWindowExtEx(h, 1, 1, nullptr);
    SetViewportExtEx(h, 1, 1, nullptr);
}

void gfx_get_mapping(void *dc, gfx_mapping *m) {
    HDC h = dc_of(dc);
    POINT p;
    SIZE z;
    m->mode = GetMapMode(h);
    GetWindowOrgEx(h, &p);
    m->window_org = {p.x, p.y};
    GetViewportOrgEx(h, &p);
    m->viewport_org = {p.x, p.y};
    GetWindowExtEx(h, &z);
    m->window_ext = {z.cx, z.cy};
    GetViewportExtEx(h, &z);
    m->viewport_ext = {z.cx, z.cy};
}

void gfx_set_mapping(void *dc, const gfx_mapping &m) {
    HDC h = dc_of(dc);
    SetMapMode(h, m.mode);
    // Extents before origins: GDI ignores extents outside the scalable modes.
    SetWindowExtEx(h, m.window_ext.x, m.window_ext.y, nullptr);
    SetViewportExtEx(h, m.viewport_ext.x, m.viewport_ext.y, nullptr);
    SetWindowOrgEx(h, m.window_org.x, m.window_org.y, nullptr);
    SetViewportOrgEx(h, m.viewport_org.x, m.viewport_org.y, nullptr);
}

int gfx_num_colors(void *dc) { return GetDeviceCaps(dc_of(dc), NUMCOLORS); }

bool gfx_is_postscript(void *dc) {
    char name[64] = {};
    if (Escape(dc_of(dc), GETTECHNOLOGY, 0, nullptr, name) <= 0) return false;
    name[sizeof name - 1] = 0;
    return lstrcmpiA(name, "PostScript") == 0;
}

int gfx_logpixels_x(void *dc) { return GetDeviceCaps(dc_of(dc), LOGPIXELSX); }

bool gfx_scaling_factor(void *dc, gfx_point *factor) {
    int query = GETSCALINGFACTOR;
    if (Escape(dc_of(dc), QUERYESCSUPPORT, sizeof query, reinterpret_cast<LPCSTR>(&query), nullptr) <= 0)
        return false;
    POINT p = {0, 0};
    if (Escape(dc_of(dc), GETSCALINGFACTOR, 0, nullptr, &p) <= 0) return false;
    *factor = {p.x, p.y};
    return true;
}

int gfx_stretch_dib(void *dc, int dx, int dy, int dw, int dh, int sx, int sy, int sw, int sh, const void *bits,
                    const void *header, uint32_t rop) {
    HDC h = dc_of(dc);
    const int old = SetStretchBltMode(h, COLORONCOLOR);
    const int rows = StretchDIBits(h, dx, dy, dw, dh, sx, sy, sw, sh, bits, static_cast<const BITMAPINFO *>(header),
                                   DIB_RGB_COLORS, rop);
    if (old) SetStretchBltMode(h, old);
    return rows == static_cast<int>(GDI_ERROR) ? 0 : rows;
}

void *gfx_create_compatible_dc(void *dc) {
    HDC m = CreateCompatibleDC(dc_of(dc));
    if (m) objects_made++;
    return m;
}

void gfx_delete_dc(void *dc) {
    if (dc && DeleteDC(dc_of(dc))) objects_made--;
}

void *gfx_create_compatible_bitmap(void *dc, int width, int height) {
    HBITMAP b = CreateCompatibleBitmap(dc_of(dc), width, height);
    if (b) objects_made++;
    return b;
}

void *gfx_select_bitmap(void *dc, void *bitmap) { return SelectObject(dc_of(dc), static_cast<HGDIOBJ>(bitmap)); }

void gfx_delete_bitmap(void *bitmap) {
    if (bitmap && DeleteObject(static_cast<HGDIOBJ>(bitmap))) objects_made--;
}

void *gfx_dib_to_bitmap(void *dc, const void *header, const void *bits) {
    const auto *info = static_cast<const BITMAPINFO *>(header);
    HBITMAP b = CreateDIBitmap(dc_of(dc), &info->bmiHeader, CBM_INIT, bits, info, DIB_RGB_COLORS);
    if (b) objects_made++;
    return b;
}

bool gfx_bitmap_size(void *bitmap, int *width, int *height) {
    BITMAP b;
    if (GetObjectA(static_cast<HGDIOBJ>(bitmap), sizeof b, &b) != sizeof b) return false;
    *width = b.bmWidth;
    *height = b.bmHeight;
    return true;
}

bool gfx_bitblt(void *dc, int x, int y, int w, int h, void *src_dc, int sx, int sy, uint32_t rop) {
    return BitBlt(dc_of(dc), x, y, w, h, dc_of(src_dc), sx, sy, rop) != 0;
}

int gfx_read_bitmap(void *dc, void *bitmap, int first, int count, void *bits, void *header) {
    const int rows = GetDIBits(dc_of(dc), static_cast<HBITMAP>(bitmap), first, count, bits,
                               static_cast<BITMAPINFO *>(header), DIB_RGB_COLORS);
    return rows > 0 ? rows : 0;
}

bool gfx_client_rect(void *window, gfx_rect *rect) {
    RECT r;
    if (!GetClientRect(window_of(window), &r)) return false;
    *rect = {r.left, r.top, r.right, r.bottom};
    return true;
}

void gfx_set_scroll_range(void *window, int bar, int min, int max, bool redraw) {
    SetScrollRange(window_of(window), bar_of(bar), min, max, redraw);
}

void gfx_set_scroll_pos(void *window, int bar, int pos, bool redraw) {
    SetScrollPos(window_of(window), bar_of(bar), pos, redraw);
}

int gfx_get_scroll_pos(void *window, int bar) { return GetScrollPos(window_of(window), bar_of(bar)); }

void gfx_scroll_window(void *window, int dx, int dy) { ScrollWindow(window_of(window), dx, dy, nullptr, nullptr); }

void gfx_invalidate(void *window) { InvalidateRect(window_of(window), nullptr, FALSE); }

int gfx_live_objects() {
    const DWORD system = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
    return system ? static_cast<int>(system) : objects_made + gfx_palettes_live;
}

}  // namespace brv
