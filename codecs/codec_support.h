// Small pieces the codecs share: the scratch guard, the grey-palette test and
// ramp, file colour tables to DIB entries, 15- and 32-bit pixels to DIB
// 24-bit pixels, and bytes with their bit order reversed.
#pragma once
#include "frame/frame.h"

namespace brv {

// Red-first pixels to blue-first (out may be p), with the vector paths the
// TIFF reader chooses.
void swap_red_blue(const uint8_t *p, uint8_t *out, uint32_t width);

// Frees the scratch blocks it took when the codec returns, whichever way,
// so an early error return leaves the list as it found it.
struct scratch_set {
    void *blocks[8] = {};
    int n = 0;
    void *take(uint32_t size) {
        void *p = scratch_alloc(size);
        if (p) blocks[n++] = p;
        return p;
    }
    // A block taken elsewhere (a byte source's buffer) freed with the rest.
    void adopt(void *p) {
        if (p) blocks[n++] = p;
    }
    void free_all() {
        for (int i = n - 1; i >= 0; i--) scratch_free(blocks[i]);
        n = 0;
    }
    ~scratch_set() { free_all(); }
    scratch_set() = default;
    scratch_set(const scratch_set &) = delete;
    scratch_set &operator=(const scratch_set &) = delete;
};

// Whether the first count entries of a DIB colour table are all grey.
inline bool palette_is_grey(const uint8_t *palette, int count) {
    for (int i = 0; i < count; i++)
        if (palette[4 * i] != palette[4 * i + 1] || palette[4 * i + 1] != palette[4 * i + 2]) return false;
    return true;
}

// Which of a bilevel table's two entries looks white: the lighter one by
// luma, entry 1 on a tie (so entry 0 stays black, as in the library's own table).
inline int bilevel_white_index(const uint8_t *palette) {
    auto luma = [](const uint8_t *q) { return 114 * q[0] + 587 * q[1] + 299 * q[2]; };
    return luma(palette + 4) >= luma(palette) ? 1 : 0;
}

// A 1-bit DIB header with entry 0 black and entry 1 white, as the bilevel
// readers announce; false when the picture's size does not fit.
inline bool fill_bilevel_header(dib_header &d, int32_t width, int32_t height) {
    dib_info &i = d.info;
    set_dib_size(i, width, height, 1);
    std::memset(d.palette + 4, 255, 3);
    const uint32_t stride = row_bytes(width, 1);
    return stride && height > 0 && size_mul_add(stride, static_cast<uint32_t>(height), 0, &i.biSizeImage);
}

// The 8-bit grey ramp: entry i is (i, i, i).
inline void fill_grey_ramp(uint8_t *palette) {
    for (int i = 0; i < 256; i++) std::memset(palette + 4 * i, i, 3);
}

// count red, green, blue triples of a file into DIB entries.
inline void palette_from_rgb(uint8_t *palette, const uint8_t *rgb, int count) {
    for (int i = 0; i < count; i++) {
        palette[4 * i] = rgb[3 * i + 2];
        palette[4 * i + 1] = rgb[3 * i + 1];
        palette[4 * i + 2] = rgb[3 * i];
    }
}

// A little-endian 15/16-bit word, five bits a channel (the top bit ignored),
// to blue, green, red with the five bits at the top of each byte.
inline void pixel_from15(const uint8_t *p, uint8_t *bgr) {
    uint32_t w = get16(p);
    bgr[0] = static_cast<uint8_t>(w << 3);
    bgr[1] = static_cast<uint8_t>((w >> 2) & 0xF8);
    bgr[2] = static_cast<uint8_t>((w >> 7) & 0xF8);
}

inline void row_from15(const uint8_t *in, uint8_t *bgr, int width) {
    for (int x = 0; x < width; x++) pixel_from15(in + 2 * x, bgr + 3 * x);
}

// 32-bit blue, green, red, extra pixels: the extra byte is dropped.
inline void row_from32(const uint8_t *in, uint8_t *bgr, int width) {
    for (int x = 0; x < width; x++) std::memcpy(bgr + 3 * x, in + 4 * x, 3);
}

// Each byte with its bits in the opposite order, for data that numbers bits
// from the least significant end.
constexpr auto bit_reversed = [] {
    struct table {
        uint8_t b[256];
    } t{};
    for (int i = 0; i < 256; i++)
        for (int k = 0; k < 8; k++) t.b[i] = static_cast<uint8_t>(t.b[i] | ((i >> k) & 1) << (7 - k));
    return t;
}();

}  // namespace brv
