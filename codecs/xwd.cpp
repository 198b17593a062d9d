// X window dumps, file version 7: Z pixmaps of 1, 4, 8 and 24 bits (24 in
// 24- or 32-bit pixels), XY bitmaps, and 8-plane XY pixmaps, with their
// colour records; and the writer of type 36 (Z pixmaps).
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

#include <bit>
#include <utility>

namespace brv {

namespace {

constexpr int XWD_HEADER = 100;
constexpr int XWD_VERSION = 7;
constexpr int COLOUR_RECORD = 12;
constexpr int XY_PLANES = 8;

enum field {
    HEADER_SIZE, FILE_VERSION, PIXMAP_FORMAT, PIXMAP_DEPTH, PIXMAP_WIDTH, PIXMAP_HEIGHT, XOFFSET, BYTE_ORDER,
    BITMAP_UNIT, BITMAP_BIT_ORDER, BITMAP_PAD, BITS_PER_PIXEL, BYTES_PER_LINE, VISUAL_CLASS, RED_MASK, GREEN_MASK,
    BLUE_MASK, BITS_PER_RGB, COLORMAP_ENTRIES, NCOLORS, FIELDS = 25
};
constexpr uint32_t Z_PIXMAP = 2;
constexpr uint32_t MSB_FIRST = 1;

// Where a channel sits in a pixel word, and how to scale it to eight bits.
struct xwd_channel {
    uint32_t mask;
    int shift, drop;  // drop: low bits beyond eight, or -1 to stretch a narrow field
    uint32_t top;
};

xwd_channel channel_of(uint32_t mask) {
    if (!mask) return {0, 0, 0, 1};
    const int width = std::popcount(mask);
    return {mask, std::countr_zero(mask), width >= 8 ? width - 8 : -1, (1u << (width < 32 ? width : 31)) - 1};
}

uint8_t channel(uint32_t px, const xwd_channel &c) {
    const uint32_t v = (px & c.mask) >> c.shift;
    return static_cast<uint8_t>(c.drop >= 0 ? v >> c.drop : v * 255 / c.top);
}

// How bitmap data is laid out in the file, and how a 24-bit pixel's
// channels sit in its word.
struct xwd_layout {
    bool reverse_bits;  // bits numbered from the least significant end
    int swap_unit;      // bytes per unit to reverse, 0 for none
    bool msb_pixels;    // pixel words stored most significant byte first
    int pixel_bytes;
    xwd_channel rgb[3];
};

// Bitmap data to most significant bit first, byte by byte.
void normalise_bits(uint8_t *row, uint32_t n, const xwd_layout &l) {
    if (l.swap_unit > 1)
        for (uint32_t i = 0; i + l.swap_unit <= n; i += l.swap_unit)
            for (int a = 0, b = l.swap_unit - 1; a < b; a++, b--) std::swap(row[i + a], row[i + b]);
    if (l.reverse_bits)
        for (uint32_t i = 0; i < n; i++) row[i] = bit_reversed.b[row[i]];
}

void true_colour_row(const uint8_t *in, uint8_t *out, int width, const xwd_layout &l) {
    // Whole-byte channels: take the bytes where they stand.
    int at[3];
    bool bytewise = true;
    for (int c = 0; c < 3; c++) {
        const int byte = l.rgb[c].shift / 8;
        at[c] = l.msb_pixels ? l.pixel_bytes - 1 - byte : byte;
        bytewise = bytewise && l.rgb[c].drop == 0 && l.rgb[c].shift % 8 == 0 && at[c] >= 0 && at[c] < l.pixel_bytes;
    }
    if (bytewise) {
        for (int x = 0; x < width; x++, in += l.pixel_bytes, out += 3) {
            out[0] = in[at[2]];
            out[1] = in[at[1]];
            out[2] = in[at[0]];
        }
        return;
    }
    for (int x = 0; x < width; x++, in += l.pixel_bytes) {
        uint32_t px = 0;
        for (int k = 0; k < l.pixel_bytes; k++)
            px |= static_cast<uint32_t>(in[k]) << 8 * (l.msb_pixels ? l.pixel_bytes - 1 - k : k);
        out[3 * x] = channel(px, l.rgb[2]);
        out[3 * x + 1] = channel(px, l.rgb[1]);
        out[3 * x + 2] = channel(px, l.rgb[0]);
    }
}

// The planes lie one after another; a chunk of rows of every plane is read
// at a time, each plane into its own buffer.
int xwd_read_xy(int fd, int32_t data, const uint32_t *h, const xwd_layout &l, uint8_t *planes, uint32_t rows_per_chunk,
                uint8_t *out, uint32_t out_len, IMG_put_row_fn put_row, void *context) {
    const uint32_t width = h[PIXMAP_WIDTH], height = h[PIXMAP_HEIGHT], bpl = h[BYTES_PER_LINE];
    const int32_t end = file_size_hint(fd);
    // One plane must fit in the source; then no plane offset can overflow.
    if (uint64_t{bpl} * height > uint64_t(end)) return IMG_ERR_DATA;
    const uint32_t chunk = rows_per_chunk * bpl;
    for (uint32_t y = 0; y < height; y++) {
        const uint32_t in_chunk = y % rows_per_chunk;
        if (in_chunk == 0) {
            const uint32_t rows = height - y < rows_per_chunk ? height - y : rows_per_chunk;
            for (int p = 0; p < XY_PLANES; p++) {
                const int64_t at = data + (int64_t{p} * height + y) * bpl;
                const int32_t want = static_cast<int32_t>(rows * bpl);
                if (read_once_at(fd, end, at, planes + p * chunk, want) != want) return IMG_ERR_DATA;
                normalise_bits(planes + p * chunk, rows * bpl, l);
            }
        }
        std::memset(out, 0, out_len);
        for (uint32_t x = 0; x < width; x++) {
            uint8_t v = 0;
            for (int p = 0; p < XY_PLANES; p++) {
                const uint8_t *row = planes + p * chunk + in_chunk * bpl;
                v |= static_cast<uint8_t>(((row[x >> 3] >> (7 - (x & 7))) & 1) << (7 - p));
            }
            out[x] = v;
        }
        if (int rc = put_row(out, context, static_cast<int>(y), static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(xwd_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t raw[XWD_HEADER];
    if (source_read(src, raw, XWD_HEADER) != XWD_HEADER) return IMG_ERR_DATA;
    uint32_t h[FIELDS];
    for (int i = 0; i < FIELDS; i++) h[i] = get32be(raw + 4 * i);
    if (h[FILE_VERSION] != XWD_VERSION || h[HEADER_SIZE] < XWD_HEADER) return IMG_ERR_HEADER;
    if (!source_skip(src, h[HEADER_SIZE] - XWD_HEADER)) return IMG_ERR_DATA;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    if (uint64_t{h[NCOLORS]} * COLOUR_RECORD > uint64_t(src.end)) return IMG_ERR_DATA;
    for (uint32_t i = 0; i < h[NCOLORS]; i++) {
        uint8_t c[COLOUR_RECORD];
        if (source_read(src, c, COLOUR_RECORD) != COLOUR_RECORD) return IMG_ERR_DATA;
        const uint32_t pixel = get32be(c);
        if (pixel >= 256) continue;  // beyond any table the DIB can hold
        uint8_t *e = dib->palette + 4 * pixel;
        e[0] = c[8], e[1] = c[6], e[2] = c[4];
    }

    const uint32_t depth = h[PIXMAP_DEPTH], bpp = h[BITS_PER_PIXEL], width = h[PIXMAP_WIDTH];
    const uint32_t height = h[PIXMAP_HEIGHT], bpl = h[BYTES_PER_LINE];
    const bool z = h[PIXMAP_FORMAT] == Z_PIXMAP || depth == 1;
    const bool accepted = z ? (bpp == depth && (depth == 1 || depth == 4 || depth == 8)) ||
                                  (depth == 24 && (bpp == 24 || bpp == 32))
                            : depth == XY_PLANES;
    if (!accepted) return IMG_ERR_TYPE;
    if (!width || !height || width > 0x7FFFFFFF || height > 0x7FFFFFFF) return IMG_ERR_HEADER;
    const int bits = static_cast<int>(depth);
    const uint32_t out_len = row_bytes(width, bits);
    // A line must hold its pixels; a far longer one is not a padded line.
    const uint64_t needed = (uint64_t{width} * (z ? bpp : 1) + 7) / 8;
    if (!out_len || bpl < needed || bpl > 2 * needed + 64 || bpl > 0x7FFFFF00) return IMG_ERR_HEADER;

    dib_info &i = dib->info;
    set_dib_size(i, width, height, bits);
    if (!size_mul_add(out_len, height, 0, &i.biSizeImage)) i.biSizeImage = 0;
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    xwd_layout l{};
    l.reverse_bits = h[BITMAP_BIT_ORDER] != MSB_FIRST;
    const uint32_t unit = h[BITMAP_UNIT];
    l.swap_unit = h[BYTE_ORDER] != h[BITMAP_BIT_ORDER] && (unit == 16 || unit == 32) ? static_cast<int>(unit / 8) : 0;
    l.msb_pixels = h[BYTE_ORDER] == MSB_FIRST;
    l.pixel_bytes = static_cast<int>(bpp / 8);
    const bool masked = h[RED_MASK] && h[GREEN_MASK] && h[BLUE_MASK];
    l.rgb[0] = channel_of(masked ? h[RED_MASK] : 0xFF0000);
    l.rgb[1] = channel_of(masked ? h[GREEN_MASK] : 0xFF00);
    l.rgb[2] = channel_of(masked ? h[BLUE_MASK] : 0xFF);

    auto *out = static_cast<uint8_t *>(mem.take(out_len + 255));
    if (!out) return IMG_ERR_MEMORY;
    if (!z) {
        const uint32_t rows_per_chunk = bpl >= READ_BUFFER_SIZE / XY_PLANES ? 1 : READ_BUFFER_SIZE / XY_PLANES / bpl;
        uint32_t planes_len;
        if (!size_mul_add(uint64_t{XY_PLANES} * rows_per_chunk, bpl, 0, &planes_len)) return IMG_ERR_MEMORY;
        auto *planes = static_cast<uint8_t *>(mem.take(planes_len));
        if (!planes) return IMG_ERR_MEMORY;
        return xwd_read_xy(fd, source_tell(src), h, l, planes, rows_per_chunk, out, out_len, put_row, context);
    }
    auto *line = static_cast<uint8_t *>(mem.take(bpl + 4));
    if (!line) return IMG_ERR_MEMORY;
    for (uint32_t y = 0; y < height; y++) {
        if (source_read(src, line, static_cast<int32_t>(bpl)) != static_cast<int32_t>(bpl)) return IMG_ERR_DATA;
        if (depth == 24) {
            true_colour_row(line, out, static_cast<int>(width), l);
        } else {
            if (depth == 1) normalise_bits(line, bpl, l);
            std::memcpy(out, line, needed);
        }
        if (int rc = put_row(out, context, static_cast<int>(y), static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

// Z pixmaps, most significant byte and bit first, lines padded to 32 bits:
// the DIB's own rows for 1, 4 and 8 bits, 24 bits as 32-bit pixels 0, R, G, B.
// The bitmap name is the window name.
BRIVANTA_WRITER(xwd_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int32_t width = header->biWidth, height = header->biHeight;
    const uint32_t stride = row_bytes(width, bits);
    if (height <= 0 || !stride || width > 0x1FFFFFFF) return IMG_ERR_HEADER;
    const uint32_t line_len = bits == 24 ? 4u * static_cast<uint32_t>(width) : stride;
    const auto *pal = reinterpret_cast<const uint8_t *>(header) + 40;
    const uint32_t colours = bits == 24 ? 0 : 1u << bits;
    const uint32_t name_len = static_cast<uint32_t>(std::strlen(settings.bitmap_name)) + 1;

    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 16));
    auto *line = static_cast<uint8_t *>(mem.take(line_len + 16));
    auto *head = static_cast<uint8_t *>(mem.take(XWD_HEADER + sizeof settings.bitmap_name + COLOUR_RECORD * 256));
    if (!row || !line || !head) return IMG_ERR_MEMORY;
    const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    const uint32_t fields[FIELDS] = {XWD_HEADER + name_len, XWD_VERSION, Z_PIXMAP, static_cast<uint32_t>(bits), w, h,
                                     0, MSB_FIRST, 32, MSB_FIRST, 32, bits == 24 ? 32u : static_cast<uint32_t>(bits),
                                     line_len, bits == 24 ? 4u : 3u,  // TrueColor, PseudoColor
                                     bits == 24 ? 0xFF0000u : 0, bits == 24 ? 0xFF00u : 0, bits == 24 ? 0xFFu : 0, 8,
                                     bits == 24 ? 256u : colours, colours, w, h, 0, 0, 0};
    for (int k = 0; k < FIELDS; k++)
        for (int b = 0; b < 4; b++) head[4 * k + b] = static_cast<uint8_t>(fields[k] >> (24 - 8 * b));
    std::memcpy(head + XWD_HEADER, settings.bitmap_name, name_len);
    uint8_t *rec = head + XWD_HEADER + name_len;
    for (uint32_t i = 0; i < colours; i++, rec += COLOUR_RECORD) {
        const uint8_t c[COLOUR_RECORD] = {0, 0, 0, static_cast<uint8_t>(i), pal[4 * i + 2], pal[4 * i + 2],
                                          pal[4 * i + 1], pal[4 * i + 1], pal[4 * i], pal[4 * i], 7, 0};
        std::memcpy(rec, c, COLOUR_RECORD);
    }
    if (int rc = write_all(fd, head, static_cast<int32_t>(rec - head)); rc < 0) return rc;
    for (uint32_t y = 0; y < h; y++) {
        if (int rc = get_row(context, row, static_cast<int>(y), static_cast<int>(stride)); rc < 0) return rc;
        const uint8_t *out = row;
        if (bits == 24) {
            for (uint32_t x = 0; x < w; x++) {
                const uint8_t px[4] = {0, row[3 * x + 2], row[3 * x + 1], row[3 * x]};
                std::memcpy(line + 4 * x, px, 4);
            }
            out = line;
        }
        if (int rc = write_all(fd, out, static_cast<int32_t>(line_len)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
