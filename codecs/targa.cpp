// Targa: the reader of image types 1, 2, 3 and their run-length forms 9,
// 10, 11 (8, 15, 16, 24 and 32 bits), JPEG-in-Targa type 156, and the
// uncompressed writers of save types 3 and 32.
#include "codecs/codec_support.h"
#include "codecs/jpeg.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

struct targa_header {
    uint8_t id_length;
    uint8_t map_type;
    uint8_t image_type;
    uint16_t map_first;
    uint16_t map_length;
    uint8_t map_entry_bits;
    uint16_t x_origin, y_origin;
    uint16_t width, height;
    uint8_t depth;
    uint8_t descriptor;
};
constexpr int HEADER_SIZE = 18;
constexpr uint8_t DESCRIPTOR_TOP = 0x20;

int bytes_per_pixel(int depth) { return depth == 8 ? 1 : depth == 24 ? 3 : depth == 32 ? 4 : 2; }

targa_header parse_header(const uint8_t *b) {
    return {b[0], b[1], b[2], get16(b + 3), get16(b + 5), b[7], get16(b + 8), get16(b + 10), get16(b + 12),
            get16(b + 14), b[16], b[17]};
}

// Reads the whole map (after the ID field) and keeps its first 256 entries.
int targa_read_color_map(byte_source &src, targa_header &h, uint8_t *palette) {
    if (h.id_length) {
        source_seek(src, source_tell(src) + h.id_length);
        h.id_length = 0;
    }
    const int entry = h.map_entry_bits == 24 ? 3 : h.map_entry_bits == 32 ? 4 : 2;
    for (int i = 0; i < h.map_length; i++) {
        uint8_t e[4] = {};
        if (source_read(src, e, entry) != entry) return IMG_ERR_DATA;
        if (i >= 256) continue;
        uint8_t *q = palette + 4 * i;
        if (entry == 2)
            pixel_from15(e, q);
        else
            std::memcpy(q, e, entry);  // a 32-bit entry's fourth byte goes to the reserved byte
    }
    return 0;
}

void targa_fill_dib_header(dib_header &d, const targa_header &h) {
    dib_info &i = d.info;
    set_dib_size(i, h.width, h.height, h.depth == 8 ? 8 : 24);
    if (!size_mul_add(row_bytes(h.width, i.biBitCount), h.height, 0, &i.biSizeImage)) i.biSizeImage = 0;
}

// Run-length rows: packets may run on past a row's end; the surplus pixels
// start the next row.
struct rle_state {
    int bpp;
    int carry;  // pixels already in place at the start of the next row
};

int targa_unpack_rle_row(byte_source &src, rle_state &st, uint8_t *row, int width) {
    const int bpp = st.bpp;
    int done = 0;
    if (st.carry) {
        std::memmove(row, row + width * bpp, static_cast<size_t>(st.carry) * bpp);
        done = st.carry;
        st.carry = 0;
    }
    while (done < width) {
        int h = source_byte(src);
        if (h < 0) return IMG_ERR_DATA;
        int count = (h & 0x7F) + 1;
        uint8_t *dst = row + done * bpp;
        if (h < 0x80) {
            if (source_read(src, dst, count * bpp) != count * bpp) return IMG_ERR_DATA;
        } else {
            if (source_read(src, dst, bpp) != bpp) return IMG_ERR_DATA;
            for (int k = 1; k < count; k++) std::memcpy(dst + k * bpp, dst, bpp);
        }
        done += count;
    }
    st.carry = done - width;
    return 0;
}

// File row to DIB row, by depth.
void convert_row(const uint8_t *in, uint8_t *out, int width, int depth) {
    switch (depth) {
    case 8: std::memcpy(out, in, width); break;
    case 24: std::memcpy(out, in, static_cast<size_t>(width) * 3); break;
    case 32: row_from32(in, out, width); break;
    default: row_from15(in, out, width); break;
    }
}

}  // namespace

BRIVANTA_READER(targa_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t raw[HEADER_SIZE];
    if (source_read(src, raw, HEADER_SIZE) != HEADER_SIZE) return IMG_ERR_DATA;
    targa_header h = parse_header(raw);
    if (h.image_type == 156) {
        mem.free_all();
        return jpeg_decode_stream(fd, start + HEADER_SIZE, put_row, context, begin_image);
    }
    const int type = h.image_type;
    if (type != 1 && type != 2 && type != 3 && type != 9 && type != 10 && type != 11) return IMG_ERR_TYPE;
    if (h.depth != 8 && h.depth != 15 && h.depth != 16 && h.depth != 24 && h.depth != 32) return IMG_ERR_TYPE;
    if (!h.width || !h.height) return IMG_ERR_HEADER;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    targa_fill_dib_header(*dib, h);
    if (h.map_type) {
        if (int rc = targa_read_color_map(src, h, dib->palette); rc < 0) return rc;
    } else if (h.depth == 8) {
        fill_grey_ramp(dib->palette);
    }
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    const bool rle = type >= 9;
    const int bpp = bytes_per_pixel(h.depth);
    const int32_t file_row = h.width * bpp;
    // Raw rows come a chunk of whole rows at a time; a row longer than the
    // chunk size gets a chunk of its own.
    const int rows_per_chunk = file_row > READ_BUFFER_SIZE ? 1 : READ_BUFFER_SIZE / file_row;
    const int32_t chunk = rows_per_chunk * file_row;
    if (h.id_length) source_seek(src, source_tell(src) + h.id_length);
    const uint32_t out_len = row_bytes(h.width, h.depth == 8 ? 8 : 24);
    auto *out = static_cast<uint8_t *>(mem.take(out_len + 150));
    auto *in = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(rle ? file_row + 1000 : chunk + 10)));
    if (!out || !in) return IMG_ERR_MEMORY;

    const bool top_down = h.descriptor & DESCRIPTOR_TOP;
    rle_state st{bpp, 0};
    int used = rows_per_chunk;
    for (int i = 0; i < h.height; i++) {
        const uint8_t *file_row_at;
        if (rle) {
            if (int rc = targa_unpack_rle_row(src, st, in, h.width); rc < 0) return rc;
            file_row_at = in;
        } else {
            if (used == rows_per_chunk) {
                // A short chunk leaves the rest of the buffer as it was.
                if (source_read(src, in, chunk) <= 0) return IMG_ERR_DATA;
                used = 0;
            }
            file_row_at = in + used++ * file_row;
        }
        convert_row(file_row_at, out, h.width, h.depth);
        int r = top_down ? i : h.height - 1 - i;
        if (int rc = put_row(out, context, r, static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

namespace {

int write_header(int fd, const dib_info *d, uint8_t map_type, uint8_t image_type, uint16_t map_length,
                 uint8_t entry_bits, uint8_t depth) {
    uint8_t b[HEADER_SIZE] = {0, map_type, image_type};
    put16(b + 5, map_length);
    b[7] = entry_bits;
    put16(b + 12, static_cast<uint32_t>(d->biWidth));
    put16(b + 14, static_cast<uint32_t>(d->biHeight));
    b[16] = depth;
    return write_all(fd, b, HEADER_SIZE);
}

int targa_write_palette(int fd, const uint8_t *palette) {
    uint8_t map[768];
    for (int i = 0; i < 256; i++) std::memcpy(map + 3 * i, palette + 4 * i, 3);
    return write_all(fd, map, 768);
}

bool size_ok(const dib_info *d) {
    return d->biWidth >= 1 && d->biHeight >= 1 && d->biWidth <= 65535 && d->biHeight <= 65535;
}

}  // namespace

BRIVANTA_WRITER(targa_write_file) {
    const int bits = header->biBitCount;
    if (bits < 5) return IMG_ERR_DEPTH;
    // Only 8- and 24-bit rows have the layout this writer stores.
    if (bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    if (!size_ok(header)) return IMG_ERR_HEADER;
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    const bool mapped = bits == 8 && !palette_is_grey(palette, 256);
    int rc = bits == 24 ? write_header(fd, header, 0, 2, 0, 0, 24)
             : mapped   ? write_header(fd, header, 1, 1, 256, 24, 8)
                        : write_header(fd, header, 0, 3, 0, 0, 8);
    if (rc < 0) return rc;
    const int width = header->biWidth;
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(width) * 3 + 20));
    auto *spare = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(width) * 3 + 768));
    if (!row || !spare) return IMG_ERR_MEMORY;
    if (mapped)
        if (int r = targa_write_palette(fd, palette); r < 0) return r;
    const int fetch = static_cast<int>(row_bytes(width, bits));
    const int32_t out = bits == 8 ? width : width * 3;
    for (int i = 0; i < header->biHeight; i++) {
        if (int r = get_row(context, row, header->biHeight - 1 - i, fetch); r < 0) return r;
        if (int r = write_all(fd, row, out); r < 0) return r;
    }
    return 0;
}

BRIVANTA_WRITER(targa_write_file_15bit) {
    if (header->biBitCount != 24) return IMG_ERR_TYPE;
    if (!size_ok(header)) return IMG_ERR_HEADER;
    if (int rc = write_header(fd, header, 0, 2, 0, 0, 15); rc < 0) return rc;
    const int width = header->biWidth;
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(width) * 3 + 20));
    auto *words = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(width) * 2 + 20));
    if (!row || !words) return IMG_ERR_MEMORY;
    const int fetch = static_cast<int>(row_bytes(width, 24));
    for (int i = 0; i < header->biHeight; i++) {
        if (int r = get_row(context, row, header->biHeight - 1 - i, fetch); r < 0) return r;
        for (int x = 0; x < width; x++) {
            const uint8_t *p = row + 3 * x;
            put16(words + 2 * x, static_cast<uint32_t>((p[2] & 0xF8) << 7 | (p[1] & 0xF8) << 2 | p[0] >> 3));
        }
        if (int r = write_all(fd, words, width * 2); r < 0) return r;
    }
    return 0;
}

}  // namespace brv
