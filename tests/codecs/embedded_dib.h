// DIBs as icons and clipboard files embed them, built from a picture: plain,
// or run-length coded (the BMP writer's type 12 output without its file
// header), and 16-bit 5-5-5.
#pragma once
#include "frame/frame.h"
#include "test_util.h"

inline bytes plain_dib(const picture &p, int xppm = 0, int yppm = 0) { return dib_of_picture(p, xppm, yppm); }

inline bytes rle_dib(const picture &p) {
    bytes f = save_pic(p, IMG_TYPE_BMP_RLE);
    return bytes(f.begin() + 14, f.end());
}

// A 24-bit picture with every channel a multiple of 8, as a 16-bit DIB.
inline bytes dib16(const picture &p) {
    const uint32_t stride = (p.width * 2 + 3) & ~3u;
    bytes d(40 + stride * p.height, 0);
    int32_t h[10] = {40, p.width, p.height, 1 | 16 << 16, 0, 0, 0, 0, 0, 0};
    std::memcpy(d.data(), h, 40);
    for (int y = 0; y < p.height; y++)
        for (int x = 0; x < p.width; x++) {
            const uint8_t *bgr = &p.rows[y][3 * x];
            put16(&d[40 + (p.height - 1 - y) * stride + 2 * x], bgr[0] >> 3 | (bgr[1] >> 3) << 5 | (bgr[2] >> 3) << 10);
        }
    return d;
}

inline picture five_bit(picture p) {
    for (bytes &r : p.rows)
        for (uint8_t &v : r) v &= 0xF8;
    return p;
}

// The header a file announces, the load stopped there.
inline int IMG_CALLBACK keep_header(void *header, void *context) {
    std::memcpy(context, header, 40);
    return IMG_ERR_STOPPED;
}
inline int IMG_CALLBACK no_row(unsigned char *, void *, int, int) { return 0; }
inline dib_info announced(const bytes &file) {
    dib_info info{};
    block_ref b(file);
    IMGLOW_decompress_bitmap_mem(b.data, 0, no_row, &info, keep_header);
    return info;
}
