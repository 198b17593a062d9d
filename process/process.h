// What the in-place operations share: the handle's bitmap held locked, a
// replacement block built beside it and swapped in only on success, pixel
// access by depth, and the status callback.
#pragma once
#include "frame/handles.h"

#include <type_traits>
#include <utility>

namespace brv {

// A bitmap's geometry; rows are counted in storage order, bottom row first.
struct bitmap {
    uint8_t *dib = nullptr;
    int width = 0, height = 0, bits = 0;
    uint32_t stride = 0, palette = 0;
    uint8_t *row(int r) const { return dib + 40 + palette + static_cast<size_t>(r) * stride; }
    uint8_t *table() const { return dib + 40; }
};
bitmap bitmap_at(uint8_t *dib);

// The handle's bitmap, locked for the object's life; error is -13 or -1
// when it could not be had, and bm is then empty.
struct held_bitmap {
    handle_record *rec = nullptr;
    mem_block block = 0;
    bitmap bm;
    int error = 0;
    explicit held_bitmap(int h);
    ~held_bitmap();
    held_bitmap(const held_bitmap &) = delete;
    held_bitmap &operator=(const held_bitmap &) = delete;
};

// A new bitmap block with a header and colour table copied from like, at a
// new size and depth, its rows and slack cleared (the same size rule as a
// load's block).  Freed with the object unless installed.
struct new_bitmap {
    mem_block block = 0;
    bitmap bm;
    new_bitmap(const uint8_t *like, int width, int height, int bits);
    ~new_bitmap();
    new_bitmap(const new_bitmap &) = delete;
    new_bitmap &operator=(const new_bitmap &) = delete;
    explicit operator bool() const { return bm.dib != nullptr; }
};

// Puts the new block into the handle in place of the held one, which is
// freed (a caller's adopted bitmap outside any block is left to the caller),
// and sets the record's size fields.  The crop rectangle is the caller's.
void install(held_bitmap &held, new_bitmap &fresh);

// Whether every entry of the full colour table has red = green = blue.
bool grey_table(const bitmap &bm);

// The status callback for one row of total; negative stops the operation.
inline int row_done(int total) { return status_report(total); }

// Progress switched off for the steps of a composite operation.
struct status_quiet {
    bool was = settings.status_enabled;
    status_quiet() { settings.status_enabled = false; }
    ~status_quiet() { settings.status_enabled = was; }
};

// Pixel x of a row at a depth; put_px expects the pixel's bits cleared
// below 8 bits, as in a fresh row.
template <int Bits>
inline uint32_t get_px(const uint8_t *row, int x) {
    if constexpr (Bits == 1) return (row[x >> 3] >> (7 - (x & 7))) & 1;
    else if constexpr (Bits == 4) return (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
    else if constexpr (Bits == 8) return row[x];
    else return row[3 * x] | row[3 * x + 1] << 8 | static_cast<uint32_t>(row[3 * x + 2]) << 16;
}
template <int Bits>
inline void put_px(uint8_t *row, int x, uint32_t v) {
    if constexpr (Bits == 1) row[x >> 3] |= static_cast<uint8_t>(v << (7 - (x & 7)));
    else if constexpr (Bits == 4) row[x >> 1] |= static_cast<uint8_t>(v << ((x & 1) ? 0 : 4));
    else if constexpr (Bits == 8) row[x] = static_cast<uint8_t>(v);
    else {
        row[3 * x] = static_cast<uint8_t>(v);
        row[3 * x + 1] = static_cast<uint8_t>(v >> 8);
        row[3 * x + 2] = static_cast<uint8_t>(v >> 16);
    }
}

// Calls f with the depth as a compile-time constant: the row loops are
// instantiated per depth, never branching on it per pixel.
template <typename F>
inline decltype(auto) with_depth(int bits, F &&f) {
    switch (bits) {
    case 1: return f(std::integral_constant<int, 1>{});
    case 4: return f(std::integral_constant<int, 4>{});
    case 8: return f(std::integral_constant<int, 8>{});
    default: return f(std::integral_constant<int, 24>{});
    }
}

// Mirrors a row of width pixels from in to out (in != out); fast picks the
// processor's vector path where there is one, else the plain loop.
using mirror_fn = void (*)(const uint8_t *in, uint8_t *out, int width);
mirror_fn mirror_kernel(int bits, bool fast);
// Complements n bytes, by words when fast.
void invert_bytes(uint8_t *p, size_t n, bool fast);

// One 3 x 3 filtered row from the source rows above, at and below: every
// byte but the first and last pixel's; fast picks a vector path where the
// processor and the weights k allow one.
using convolve_fn = void (*)(const int *k, const uint8_t *up, const uint8_t *at, const uint8_t *down, uint8_t *out,
                             int width);
convolve_fn convolve_kernel(int bits, const int *k, bool fast);

// Point sampling of one row: output pixel i is source pixel (i * step) >> 16
// (step in 16.16); the loads' shrink uses it too.
template <int Bits>
void sample_row(const uint8_t *src, uint8_t *dst, int out_width, uint32_t step) {
    if constexpr (Bits == 24 || Bits == 8) {
        constexpr int N = Bits / 8;
        for (int i = 0; i < out_width; i++) {
            uint32_t s = static_cast<uint32_t>((static_cast<uint64_t>(i) * step) >> 16);
            for (int k = 0; k < N; k++) dst[N * i + k] = src[N * s + k];
        }
    } else {
        std::memset(dst, 0, (static_cast<size_t>(out_width) * Bits + 7) / 8);
        for (int i = 0; i < out_width; i++)
            put_px<Bits>(dst, i, get_px<Bits>(src, static_cast<int>((static_cast<uint64_t>(i) * step) >> 16)));
    }
}

// Point sampling of an 8- or 24-bit row through a table of source byte
// offsets, one per output pixel and never decreasing (computed once per
// picture); reads stay within the src_bytes of the source row.
void sample_row_at(int bits, const uint8_t *src, uint32_t src_bytes, uint8_t *dst, const uint32_t *at, int out_width);

// colour/grey.cpp: the picture as 8-bit luminance into dst, a new 8-bit
// bitmap of the same size, whose table becomes the identity grey ramp (the
// status callback once per row).
int grey_rows(const bitmap &src, const bitmap &dst);

}  // namespace brv
