// A w x h device context per system with readable pixels (a Linux memory
// surface, or a GDI memory DC holding a 32-bit top-down DIB section), and
// the pictures and checksums the drawing tests share.
#pragma once
#include "frame/frame.h"
#include "platform/graphics.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>
#ifdef _WIN32
#include <windows.h>
#endif

namespace {

// ---- A device context of w x h per system ----------------------------------------
#ifdef _WIN32
inline void *make_dc(int w, int h) {
    BITMAPINFO bi = {};
    bi.bmiHeader = {sizeof(BITMAPINFOHEADER), w, -h, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void *bits = nullptr;
    HDC dc = CreateCompatibleDC(nullptr);
    HBITMAP b = CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (!dc || !b) return nullptr;
    std::fill_n(static_cast<uint32_t *>(bits), static_cast<size_t>(w) * h, 0xFFFFFFu);
    SelectObject(dc, b);
    return dc;
}
inline HGDIOBJ dib_of_dc(void *dc) { return GetCurrentObject(static_cast<HDC>(dc), OBJ_BITMAP); }
inline void free_dc(void *dc) {
    HGDIOBJ b = dib_of_dc(dc);
    DeleteDC(static_cast<HDC>(dc));
    DeleteObject(b);
}
inline std::vector<uint32_t> read_dc(void *dc) {
    GdiFlush();
    DIBSECTION ds;
    if (GetObjectA(dib_of_dc(dc), sizeof ds, &ds) != sizeof ds) return {};
    const auto *p = static_cast<const uint32_t *>(ds.dsBm.bmBits);
    std::vector<uint32_t> out(p, p + static_cast<size_t>(ds.dsBm.bmWidth) * ds.dsBm.bmHeight);
    for (auto &v : out) v &= 0xFFFFFFu;
    return out;
}
#else
inline void *make_dc(int w, int h) {
    void *dc = nullptr;
    return IMG_dc_create_memory(w, h, &dc) == 0 ? dc : nullptr;
}
inline void free_dc(void *dc) { IMG_dc_delete(dc); }
inline std::vector<uint32_t> read_dc(void *dc) {
    gfx_rect r;
    if (!gfx_client_rect(dc, &r)) return {};
    std::vector<uint32_t> out(static_cast<size_t>(r.right) * r.bottom);
    if (IMG_dc_read_pixels(dc, 0, 0, r.right, r.bottom, out.data()) != 0) return {};
    return out;
}
#endif

struct scoped_dc {
    void *dc;
    scoped_dc(int w, int h) : dc(make_dc(w, h)) {}
    ~scoped_dc() { free_dc(dc); }
    std::vector<uint32_t> pixels() const { return read_dc(dc); }
};

// A 32-bit DIB header: top-down for a negative h.
inline bytes dib32_header(int w, int h) {
    bytes hdr(40);
    const int32_t v[] = {40, w, h, 1 | 32 << 16};
    std::memcpy(hdr.data(), v, 16);
    return hdr;
}

inline uint32_t pattern_pixel(int x, int y) {
    return static_cast<uint32_t>((x * 37 + y * 101) * 2654435761u) & 0xFFFFFF;
}

inline uint32_t fnv(const std::vector<uint32_t> &px) {
    uint32_t h = 2166136261u;
    for (uint32_t v : px)
        for (int k = 0; k < 3; k++) h = (h ^ ((v >> (8 * k)) & 0xFF)) * 16777619u;
    return h;
}

}  // namespace
