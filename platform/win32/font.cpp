// Fonts on Windows: a GDI logical font chosen by face name, measured on a
// display device context and drawn into a 1-bit DIB section.
#include "brivanta.h"
#include "platform/platform.h"

#include <windows.h>

#include <cstring>

namespace brv {

struct os_font {
    HFONT font;
    HDC display;         // measures, with the font selected
    HGDIOBJ display_old;
    HDC surface;         // draws, into bitmap
    HBITMAP bitmap;
    HGDIOBJ surface_old_bitmap, surface_old_font;
    void *bits;
    int32_t surface_width, surface_rows;
    int32_t line_height;
    int32_t advances[256];  // -2: not measured yet
};

namespace {

// A code point as UTF-16: the count of units.
int utf16_of(uint32_t cp, wchar_t *out) {
    if (cp < 0x10000) {
        out[0] = static_cast<wchar_t>(cp);
        return 1;
    }
    cp -= 0x10000;
    out[0] = static_cast<wchar_t>(0xD800 + (cp >> 10));
    out[1] = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
    return 2;
}

void drop_surface(os_font *f) {
    if (!f->surface) return;
    SelectObject(f->surface, f->surface_old_font);
    SelectObject(f->surface, f->surface_old_bitmap);
    DeleteObject(f->bitmap);
    DeleteDC(f->surface);
    f->surface = nullptr;
    f->bitmap = nullptr;
    f->bits = nullptr;
}

// A white 1-bit surface of width x rows with the font selected: 0 or -1.
int make_surface(os_font *f, int32_t width, int32_t rows) {
    if (f->surface && f->surface_width == width && f->surface_rows == rows) {
        PatBlt(f->surface, 0, 0, width, rows, WHITENESS);
        return 0;
    }
    drop_surface(f);
    struct {
        BITMAPINFOHEADER header;
        RGBQUAD colours[2];
    } info{};
    info.header.biSize = sizeof info.header;
    info.header.biWidth = width;
    info.header.biHeight = -rows;  // top-down
    info.header.biPlanes = 1;
    info.header.biBitCount = 1;
    info.colours[1] = {255, 255, 255, 0};
    f->surface = CreateCompatibleDC(nullptr);
    if (!f->surface) return IMG_ERR_MEMORY;
    f->bitmap = CreateDIBSection(f->surface, reinterpret_cast<BITMAPINFO *>(&info), DIB_RGB_COLORS, &f->bits, nullptr, 0);
    if (!f->bitmap || !f->bits) {
        if (f->bitmap) DeleteObject(f->bitmap);
        DeleteDC(f->surface);
        f->surface = nullptr;
        f->bitmap = nullptr;
        return IMG_ERR_MEMORY;
    }
    f->surface_old_bitmap = SelectObject(f->surface, f->bitmap);
    f->surface_old_font = SelectObject(f->surface, f->font);
    f->surface_width = width;
    f->surface_rows = rows;
    SetTextColor(f->surface, RGB(0, 0, 0));
    SetBkMode(f->surface, TRANSPARENT);
    SetTextAlign(f->surface, TA_TOP | TA_LEFT | TA_NOUPDATECP);
    PatBlt(f->surface, 0, 0, width, rows, WHITENESS);
    return 0;
}

}  // namespace

int os_font_open(const font_request &request, os_font **out) {
    *out = nullptr;
    LOGFONTA lf{};
    lf.lfHeight = request.height;
    lf.lfWidth = request.width;
    lf.lfWeight = request.bold ? 700 : 400;
    lf.lfItalic = request.italic ? 1 : 0;
    lf.lfCharSet = 1;
    lf.lfOutPrecision = 4;
    if (request.face) std::strncpy(lf.lfFaceName, request.face, sizeof lf.lfFaceName - 1);
    auto *f = static_cast<os_font *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(os_font)));
    if (!f) return IMG_ERR_MEMORY;
    for (int32_t &a : f->advances) a = -2;
    f->font = CreateFontIndirectA(&lf);
    f->display = f->font ? CreateDCA("DISPLAY", nullptr, nullptr, nullptr) : nullptr;
    if (!f->display) {
        if (f->font) DeleteObject(f->font);
        HeapFree(GetProcessHeap(), 0, f);
        return IMG_ERR_TYPE;
    }
    f->display_old = SelectObject(f->display, f->font);
    int tab = 4;
    f->line_height = HIWORD(GetTabbedTextExtentA(f->display, "a", 1, 1, &tab));
    *out = f;
    return 0;
}

void os_font_close(os_font *f) {
    if (!f) return;
    drop_surface(f);
    SelectObject(f->display, f->display_old);
    DeleteDC(f->display);
    DeleteObject(f->font);
    HeapFree(GetProcessHeap(), 0, f);
}

int32_t os_font_line_height(os_font *f, int32_t tab_stop) {
    int tab = tab_stop;
    DWORD extent = GetTabbedTextExtentA(f->display, "a", 1, 1, &tab);
    return extent ? HIWORD(extent) : f->line_height;
}

int32_t os_font_advance(os_font *f, uint32_t code_point) {
    if (code_point < 256 && f->advances[code_point] != -2) return f->advances[code_point];
    wchar_t units[2];
    SIZE size{};
    if (!GetTextExtentPoint32W(f->display, units, utf16_of(code_point, units), &size)) size.cx = 0;
    if (code_point < 256) f->advances[code_point] = size.cx;
    return size.cx;
}

int os_font_draw(os_font *f, const uint32_t *code_points, const int32_t *xs, int32_t count, uint8_t *band,
                 int32_t stride, int32_t width, int32_t rows) {
    if (width <= 0 || rows <= 0) return 0;
    if (int r = make_surface(f, width, rows); r < 0) return r;
    for (int32_t i = 0; i < count; i++) {
        wchar_t units[2];
        TextOutW(f->surface, xs[i], 0, units, utf16_of(code_points[i], units));
    }
    GdiFlush();
    // Black (index 0) on the surface is ink in the band.
    const int32_t surface_stride = (width + 31) / 32 * 4, used = (width + 7) / 8;
    const auto *src = static_cast<const uint8_t *>(f->bits);
    for (int32_t y = 0; y < rows; y++) {
        uint8_t *dst = band + static_cast<size_t>(y) * stride;
        const uint8_t *s = src + static_cast<size_t>(y) * surface_stride;
        for (int32_t i = 0; i < used && i < stride; i++) dst[i] |= static_cast<uint8_t>(~s[i]);
        if (width & 7) dst[used - 1] &= static_cast<uint8_t>(0xFF00 >> (width & 7));
    }
    return 0;
}

}  // namespace brv
