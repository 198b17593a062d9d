// Windows icons: the first image of the directory, a DIB that the BMP
// codec reads; the AND mask after its pixels is left alone.  The writer
// puts one image with its mask.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"

#include "frame/byte_source.h"

namespace brv {

BRIVANTA_READER(ico_decompress) {
    // Directory (6 bytes) and its first entry (16 bytes); only the image
    // offset of the entry matters, the image's own header says the rest.
    uint8_t dir[22];
    if (read_fully_at(fd, file_size_hint(fd), where, dir, 22) != 22) return IMG_ERR_OPEN;
    const int64_t image_at = int64_t{where} + get32(dir + 18);
    if (image_at > INT32_MAX) return IMG_ERR_HEADER;
    return dib_read_embedded(static_cast<int32_t>(image_at), {true, false}, put_row, context, begin_image, fd);
}

namespace {

// The index of pixel x in a row of 1, 4 or 8 bits, or its colour as
// 0xRRGGBB at 24 bits; clear sets it to index 0 or black.
uint32_t pixel_at(uint8_t *row, int x, int bits, bool clear) {
    if (bits == 24) {
        uint8_t *p = row + 3 * x;
        const uint32_t v = uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
        if (clear) std::memset(p, 0, 3);
        return v;
    }
    const int per = 8 / bits, shift = (per - 1 - x % per) * bits;
    uint8_t &b = row[x / per];
    const uint32_t mask = (1u << bits) - 1, v = b >> shift & mask;
    if (clear) b = static_cast<uint8_t>(b & ~(mask << shift));
    return v;
}

}  // namespace

// One image in the directory: the DIB with the doubled height icons keep,
// its rows, then the AND mask.  A transparent colour in biClrUsed (an index
// up to 8 bits, 0xRRGGBB at 24) sets mask bits and clears those pixels to
// index 0 or black, as the screen shows through them; without one all is opaque.
BRIVANTA_WRITER(ico_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    // The directory's one-byte sizes reach 256 (stored as 0).
    if (header->biWidth < 1 || header->biHeight < 1 || header->biWidth > 256 || header->biHeight > 256)
        return IMG_ERR_HEADER;
    const int w = header->biWidth, h = header->biHeight;
    const uint32_t stride = row_bytes(w, bits), mask_stride = row_bytes(w, 1), pb = palette_bytes(bits);
    const uint32_t pixels = stride * h, mask_size = mask_stride * h, image = 40 + pb + pixels + mask_size;
    uint8_t head[22 + 40] = {};
    put16(head + 2, 1);
    put16(head + 4, 1);
    head[6] = static_cast<uint8_t>(w);  // 256 wraps to 0, as the directory means it
    head[7] = static_cast<uint8_t>(h);
    head[8] = static_cast<uint8_t>(bits < 8 ? 1 << bits : 0);
    put16(head + 10, 1);
    put16(head + 12, static_cast<uint32_t>(bits));
    put32(head + 14, image);
    put32(head + 18, 22);
    if (!bmp_info_bytes(head + 22, header, 0)) return IMG_ERR_HEADER;
    put32(head + 22 + 8, static_cast<uint32_t>(2 * h));
    put32(head + 22 + 20, pixels + mask_size);
    if (int rc = write_all(fd, head, sizeof head); rc < 0) return rc;
    if (pb)
        if (int rc = write_all(fd, reinterpret_cast<const uint8_t *>(header) + 40, static_cast<int32_t>(pb)); rc < 0)
            return rc;

    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 16));
    auto *mask = static_cast<uint8_t *>(mem.take(mask_size));
    if (!row || !mask) return IMG_ERR_MEMORY;
    const uint32_t transparent = header->biClrUsed;
    for (int i = 0; i < h; i++) {
        if (int rc = get_row(context, row, h - 1 - i, static_cast<int>(stride)); rc < 0) return rc;
        if (transparent)
            for (int x = 0; x < w; x++)
                if (pixel_at(row, x, bits, false) == transparent) {
                    pixel_at(row, x, bits, true);
                    mask[i * mask_stride + x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
                }
        if (int rc = write_all(fd, row, static_cast<int32_t>(stride)); rc < 0) return rc;
    }
    return write_all(fd, mask, static_cast<int32_t>(mask_size));
}

}  // namespace brv
