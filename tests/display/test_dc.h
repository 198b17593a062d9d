// A w x h device context per system with readable pixels: a Linux memory
// surface, or a GDI memory DC holding a 32-bit top-down DIB section.
#pragma once
#include "frame/frame.h"
#include "platform/graphics.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <vector>
#ifdef _WIN32
#include <windows.h>
#endif

namespace {

// ---- A device context of w x h per system ----------------------------------------
#ifdef _WIN32
struct dib_dc {
    HDC dc;
    HBITMAP bitmap, old;
    uint32_t *bits;
    int w, h;
};
inline std::vector<dib_dc> dib_dcs;

inline void *make_dc(int w, int h) {
    BITMAPINFO bi = {};
    bi.bmiHeader = {sizeof(BITMAPINFOHEADER), w, -h, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void *bits = nullptr;
    HDC dc = CreateCompatibleDC(nullptr);
    HBITMAP b = CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (!dc || !b) return nullptr;
    std::fill_n(static_cast<uint32_t *>(bits), static_cast<size_t>(w) * h, 0xFFFFFFu);
    dib_dcs.push_back({dc, b, static_cast<HBITMAP>(SelectObject(dc, b)), static_cast<uint32_t *>(bits), w, h});
    return dc;
}
inline void free_dc(void *dc) {
    for (size_t i = 0; i < dib_dcs.size(); i++) {
        if (dib_dcs[i].dc != dc) continue;
        SelectObject(dib_dcs[i].dc, dib_dcs[i].old);
        DeleteObject(dib_dcs[i].bitmap);
        DeleteDC(dib_dcs[i].dc);
        dib_dcs.erase(dib_dcs.begin() + static_cast<long>(i));
        return;
    }
}
inline std::vector<uint32_t> read_dc(void *dc) {
    GdiFlush();
    for (auto &d : dib_dcs)
        if (d.dc == dc) {
            std::vector<uint32_t> out(d.bits, d.bits + static_cast<size_t>(d.w) * d.h);
            for (auto &v : out) v &= 0xFFFFFFu;
            return out;
        }
    return {};
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
    int w, h;
    scoped_dc(int w_, int h_) : dc(make_dc(w_, h_)), w(w_), h(h_) {}
    ~scoped_dc() { free_dc(dc); }
    std::vector<uint32_t> pixels() const { return read_dc(dc); }
};

// A 32-bit top-down DIB header for w x h pixels.
inline bytes dib32_header(int w, int h) {
    bytes hdr(40);
    const int32_t v[] = {40, w, -h};
    std::memcpy(hdr.data(), v, 12);
    hdr[12] = 1;
    hdr[14] = 32;
    return hdr;
}

inline uint32_t pattern_pixel(int x, int y) {
    return static_cast<uint32_t>((x * 37 + y * 101) * 2654435761u) & 0xFFFFFF;
}

}  // namespace
