// GEM raster images: 1 to 8 bit planes, each scan line's planes coded in
// turn with pattern runs, solid runs and bit strings, and a line repeated by
// a vertical replication count.  The XIMG extension of the header carries an
// RGB colour table in thousandths; without it the standard pens serve.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

// The sixteen standard pens (white, black, red, green, blue, cyan, yellow,
// magenta, then the greys and darker shades), red, green, blue.
constexpr uint8_t standard_pens[16][3] = {
    {255, 255, 255}, {0, 0, 0},     {255, 0, 0},   {0, 255, 0},   {0, 0, 255},     {0, 255, 255},
    {255, 255, 0},   {255, 0, 255}, {192, 192, 192}, {128, 128, 128}, {128, 0, 0}, {0, 128, 0},
    {0, 0, 128},     {0, 128, 128}, {128, 128, 0}, {128, 0, 128},
};

// One plane of a scan line into out (plane_bytes bytes); a vertical
// replication mark met on the way sets repeat.  0 or a negative code.
int gem_plane(byte_source &src, uint8_t *out, int32_t plane_bytes, int pattern_bytes, int32_t &repeat) {
    int32_t pos = 0;
    auto put = [&](uint8_t v) {
        if (pos < plane_bytes) out[pos] = v;
        pos++;
    };
    while (pos < plane_bytes) {
        int b = source_byte(src);
        if (b < 0) return IMG_ERR_DATA;
        if (b == 0) {
            int n = source_byte(src);
            if (n < 0) return IMG_ERR_DATA;
            if (n == 0) {  // 00 00 FF count: the line that follows, count times
                int mark = source_byte(src), count = source_byte(src);
                if (mark != 0xFF) return mark < 0 ? IMG_ERR_DATA : IMG_ERR_HEADER;
                if (count < 0) return IMG_ERR_DATA;
                repeat = count ? count : 1;
                continue;
            }
            uint8_t pattern[255];
            if (source_read(src, pattern, pattern_bytes) != pattern_bytes) return IMG_ERR_DATA;
            for (int i = 0; i < n && pos < plane_bytes; i++)
                for (int k = 0; k < pattern_bytes; k++) put(pattern[k]);
        } else if (b == 0x80) {
            int n = source_byte(src);
            if (n < 0) return IMG_ERR_DATA;
            for (int i = 0; i < n; i++) {
                int v = source_byte(src);
                if (v < 0) return IMG_ERR_DATA;
                put(static_cast<uint8_t>(v));
            }
        } else {
            const uint8_t v = b & 0x80 ? 0xFF : 0x00;
            for (int i = 0; i < (b & 0x7F) && pos < plane_bytes; i++) put(v);
        }
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(gem_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 1024)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t head[16];
    if (source_read(src, head, 16) != 16) return IMG_ERR_OPEN;
    const int header_words = get16be(head + 2), planes = get16be(head + 4), pattern_bytes = get16be(head + 6);
    const int32_t width = get16be(head + 12), height = get16be(head + 14);
    if (header_words < 8 || width < 1 || height < 1 || pattern_bytes < 1 || pattern_bytes > 255 || planes < 1)
        return IMG_ERR_HEADER;
    if (planes > 8) return IMG_ERR_TYPE;
    const int bits = planes == 1 ? 1 : planes <= 4 ? 4 : 8;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    dib_info &h = dib->info;
    set_dib_size(h, width, height, bits);
    // Pixel sizes come in microns.
    if (int wm = get16be(head + 8), hm = get16be(head + 10); wm > 0 && hm > 0)
        h.biXPelsPerMeter = (25400 + wm / 2) / wm, h.biYPelsPerMeter = (25400 + hm / 2) / hm;
    const uint32_t stride = row_bytes(width, bits);
    if (!size_mul_add(stride, static_cast<uint32_t>(height), 0, &h.biSizeImage)) return IMG_ERR_MEMORY;

    const int colours = 1 << planes;
    uint8_t ext[6];
    if (header_words >= 11 + 3 * colours && source_read(src, ext, 6) == 6 && std::memcmp(ext, "XIMG", 4) == 0 &&
        get16be(ext + 4) == 0) {
        for (int i = 0; i < colours; i++) {
            uint8_t c[6];
            if (source_read(src, c, 6) != 6) return IMG_ERR_HEADER;
            for (int k = 0; k < 3; k++) {
                int v = get16be(c + 2 * k);
                dib->palette[4 * i + 2 - k] = static_cast<uint8_t>((v > 1000 ? 1000 : v) * 255 / 1000);
            }
        }
    } else if (planes == 1) {
        std::memset(dib->palette, 255, 3);  // 0 is paper, 1 ink
    } else if (planes <= 4) {
        for (int i = 0; i < colours; i++) palette_from_rgb(dib->palette + 4 * i, standard_pens[i], 1);
    } else {
        for (int i = 0; i < colours; i++) std::memset(dib->palette + 4 * i, i * 255 / (colours - 1), 3);
    }
    source_seek(src, start + 2 * header_words);
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    const int32_t plane_bytes = (width + 7) / 8;
    auto *plane = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(plane_bytes) * planes + 8));
    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    if (!plane || !row) return IMG_ERR_MEMORY;
    for (int32_t y = 0; y < height;) {
        int32_t repeat = 1;
        for (int p = 0; p < planes; p++)
            if (int rc = gem_plane(src, plane + p * plane_bytes, plane_bytes, pattern_bytes, repeat); rc < 0) return rc;
        if (planes == 1) {
            std::memcpy(row, plane, static_cast<size_t>(plane_bytes));
        } else {
            std::memset(row, 0, stride);
            for (int32_t x = 0; x < width; x++) {
                int v = 0;
                for (int p = 0; p < planes; p++) v |= ((plane[p * plane_bytes + (x >> 3)] >> (7 - (x & 7))) & 1) << p;
                if (bits == 8)
                    row[x] = static_cast<uint8_t>(v);
                else
                    row[x >> 1] |= static_cast<uint8_t>(v << (x & 1 ? 0 : 4));
            }
        }
        for (int32_t k = 0; k < repeat && y < height; k++, y++)
            if (int rc = put_row(row, context, y, static_cast<int>(stride)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
