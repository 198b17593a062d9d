// Macintosh pictures: the reader finds the first bitmap opcode (BitsRect,
// PackBitsRect, DirectBitsRect or their region forms) of a version 1 or 2
// picture, with or without the 512-byte file header, stepping over every
// other opcode by its published length.  The writer puts a version 2
// picture: PackBitsRect at 1, 4 and 8 bits, DirectBitsRect at 24.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"

#include "frame/byte_source.h"

#include <initializer_list>

namespace brv {

namespace {

constexpr int FILE_HEADER = 512;

int read16(byte_source &s) {
    uint8_t b[2];
    return source_read(s, b, 2) == 2 ? get16be(b) : -1;
}

// A region or polygon: its 16-bit size counts itself.
bool skip_sized(byte_source &s) {
    const int n = read16(s);
    return n >= 2 && source_skip(s, n - 2);
}

bool skip_counted16(byte_source &s) {
    const int n = read16(s);
    return n >= 0 && source_skip(s, n);
}

bool skip_counted32(byte_source &s) {
    uint8_t b[4];
    return source_read(s, b, 4) == 4 && source_skip(s, get32be(b));
}

// Data lengths of the opcodes below 0xB0 that have a fixed one; -1 marks
// those handled by the reader itself.
constexpr int8_t FIXED[0xB0] = {
    0,  -1, 8,  2,  1,  2,  4,  4,  2,  8,  8,  4,  4,  2,  4,  4,   // 00
    8,  1,  -1, -1, -1, 2,  2,  0,  0,  0,  6,  6,  0,  6,  0,  6,   // 10
    8,  4,  6,  2,  -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,  // 20
    8,  8,  8,  8,  8,  8,  8,  8,  0,  0,  0,  0,  0,  0,  0,  0,   // 30
    8,  8,  8,  8,  8,  8,  8,  8,  0,  0,  0,  0,  0,  0,  0,  0,   // 40
    8,  8,  8,  8,  8,  8,  8,  8,  0,  0,  0,  0,  0,  0,  0,  0,   // 50
    12, 12, 12, 12, 12, 12, 12, 12, 4,  4,  4,  4,  4,  4,  4,  4,   // 60
    -1, -1, -1, -1, -1, -1, -1, -1, 0,  0,  0,  0,  0,  0,  0,  0,   // 70
    -1, -1, -1, -1, -1, -1, -1, -1, 0,  0,  0,  0,  0,  0,  0,  0,   // 80
    -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,  // 90
    2,  -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,  // A0
};

// What a pixel map or bit map says of its pixels.
struct pict_pixmap {
    int row_bytes = 0;
    int top = 0, left = 0, width = 0, height = 0;
    int pack_type = 0, pixel_size = 1, cmp_count = 1;
    int dpi = 0;
    bool is_pixmap = false;
};

int read_pixmap(byte_source &s, pict_pixmap &pm) {
    uint8_t b[46];
    if (source_read(s, b, 10) != 10) return IMG_ERR_DATA;
    pm.row_bytes = get16be(b) & 0x3FFF;
    pm.is_pixmap = b[0] & 0x80;
    pm.top = static_cast<int16_t>(get16be(b + 2));
    pm.left = static_cast<int16_t>(get16be(b + 4));
    pm.height = static_cast<int16_t>(get16be(b + 6)) - pm.top;
    pm.width = static_cast<int16_t>(get16be(b + 8)) - pm.left;
    if (pm.is_pixmap) {
        if (source_read(s, b + 10, 36) != 36) return IMG_ERR_DATA;
        pm.pack_type = get16be(b + 12);
        pm.dpi = static_cast<int>(get32be(b + 18) >> 16);
        pm.pixel_size = get16be(b + 28);
        pm.cmp_count = get16be(b + 30);
    }
    if (pm.width < 1 || pm.height < 1) return IMG_ERR_HEADER;
    return 0;
}

// The pixel buffer's size of one unpacked row, and whether rows come
// packed, for the pixel map's size and pack type; 0 for maps not read.
struct row_layout {
    uint32_t length = 0;
    int unit = 1;  // 2: runs count 16-bit words
    bool packed = false;
    bool planes = false;  // 32 bits as a plane per component
};

row_layout layout_of(const pict_pixmap &pm, bool packed_opcode) {
    row_layout l;
    const int p = pm.pixel_size;
    const uint32_t rb = static_cast<uint32_t>(pm.row_bytes), w = static_cast<uint32_t>(pm.width);
    if (p != 1 && p != 2 && p != 4 && p != 8 && p != 16 && p != 32) return l;
    // Rows under 8 bytes are never packed; nor are those of BitsRect.
    l.packed = packed_opcode && rb >= 8 && pm.pack_type != 1 && !(p == 32 && pm.pack_type == 2);
    // Planes come packed, or raw in short rows of pack type 4 (as
    // ImageMagick writes them).
    l.planes = p == 32 && (l.packed || pm.pack_type == 4);
    if (p == 32 && pm.pack_type == 2)
        l.length = 3 * w;
    else if (l.planes) {
        if (pm.cmp_count != 3 && pm.cmp_count != 4) return {};
        l.length = static_cast<uint32_t>(pm.cmp_count) * w;
    } else
        l.length = rb;
    if (p == 16 && l.packed) l.unit = 2;
    // Chunky rows must hold their pixels; planes and 24-bit rows were sized by them.
    const bool sized = l.planes || (p == 32 && pm.pack_type == 2);
    if (!sized && l.length < (w * static_cast<uint32_t>(p) + 7) / 8) return {};
    return l;
}

// One row into buf: raw, or its byte count then PackBits runs, which may
// stop short (the rest is zero) but never run past the count or the row.
int read_row(byte_source &s, const pict_pixmap &pm, const row_layout &l, uint8_t *buf) {
    const auto length = static_cast<int32_t>(l.length);
    if (!l.packed) return source_read(s, buf, length) == length ? 0 : IMG_ERR_DATA;
    int count = pm.row_bytes > 250 ? read16(s) : source_byte(s);
    if (count < 0) return IMG_ERR_DATA;
    std::memset(buf, 0, l.length);
    uint32_t done = 0;
    while (count > 0) {
        const int c = source_byte(s);
        count--;
        if (c < 0) return IMG_ERR_DATA;
        uint32_t n = (c < 128 ? c + 1 : 257 - c) * static_cast<uint32_t>(l.unit);
        if (c == 128) continue;
        if (c < 128) {
            if (n > static_cast<uint32_t>(count)) return IMG_ERR_DATA;
            const uint32_t keep = n < l.length - done ? n : l.length - done;
            const auto k = static_cast<int32_t>(keep);
            if (source_read(s, buf + done, k) != k || !source_skip(s, n - keep)) return IMG_ERR_DATA;
            count -= static_cast<int>(n);
            done += keep;
        } else {
            uint8_t v[2];
            if (count < l.unit || source_read(s, v, l.unit) != l.unit) return IMG_ERR_DATA;
            count -= l.unit;
            for (uint32_t i = 0; i < n && done < l.length; i++) buf[done++] = v[i % l.unit];
        }
    }
    return 0;
}

// File pixels to a DIB row: indices at 1, 4 and 8 bits as they are, 2-bit
// ones widened to 4; direct pixels to blue, green, red.
void row_to_dib(const pict_pixmap &pm, const row_layout &l, const uint8_t *in, uint8_t *out, bool invert) {
    const int w = pm.width;
    switch (pm.pixel_size) {
    case 1:
    case 4:
    case 8: {
        const uint32_t n = (static_cast<uint32_t>(w) * pm.pixel_size + 7) / 8;
        for (uint32_t i = 0; i < n; i++) out[i] = invert ? static_cast<uint8_t>(~in[i]) : in[i];
        break;
    }
    case 2:
        for (int x = 0; x < w; x++) {
            const int v = in[x / 4] >> (6 - 2 * (x % 4)) & 3;
            out[x / 2] = static_cast<uint8_t>(x % 2 ? (out[x / 2] & 0xF0) | v : v << 4);
        }
        break;
    case 16:
        for (int x = 0; x < w; x++) {
            const uint32_t v = get16be(in + 2 * x);
            for (int k = 0; k < 3; k++) {
                const uint32_t c = v >> (5 * k) & 31;
                out[3 * x + k] = static_cast<uint8_t>(c << 3 | c >> 2);
            }
        }
        break;
    default:  // 32: planes of red, green, blue (after alpha), or chunky pixels
        for (int x = 0; x < w; x++) {
            uint8_t *q = out + 3 * x;
            if (l.planes) {
                const uint8_t *p = in + (pm.cmp_count == 4 ? w : 0) + x;
                q[0] = p[2 * w], q[1] = p[w], q[2] = p[0];
            } else {
                const uint8_t *p = pm.pack_type == 2 ? in + 3 * x : in + 4 * x + 1;
                q[0] = p[2], q[1] = p[1], q[2] = p[0];
            }
        }
        break;
    }
}

// A colour table: seed, flags, count less one, then index and 16-bit red,
// green, blue; device tables take entries in order.
int read_colour_table(byte_source &s, uint8_t *palette, int colours) {
    uint8_t b[8];
    if (source_read(s, b, 8) != 8) return IMG_ERR_DATA;
    const bool in_order = b[4] & 0x80;
    const int n = get16be(b + 6) + 1;
    if (n > 256) return IMG_ERR_HEADER;
    for (int i = 0; i < n; i++) {
        if (source_read(s, b, 8) != 8) return IMG_ERR_DATA;
        const int at = in_order ? i : get16be(b);
        if (at >= colours) continue;
        // 16-bit components to 8 bits, cut as ImageMagick cuts them.
        for (int k = 0; k < 3; k++) palette[4 * at + k] = static_cast<uint8_t>(get16be(b + 6 - 2 * k) / 257);
    }
    return 0;
}

// A bitmap opcode's data after the opcode: the map, its colour table, the
// rectangles and mode, a mask region for the region forms, the rows.
int read_bitmap(byte_source &s, int op, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image) {
    const bool direct = op == 0x9A || op == 0x9B;
    if (direct && !source_skip(s, 4)) return IMG_ERR_DATA;  // the base address
    pict_pixmap pm;
    if (int rc = read_pixmap(s, pm); rc < 0) return rc;
    if (direct != (pm.is_pixmap && pm.pixel_size > 8)) return IMG_ERR_HEADER;
    const row_layout l = layout_of(pm, op != 0x90 && op != 0x91);
    if (!l.length) return IMG_ERR_HEADER;
    const int bits = pm.pixel_size == 2 ? 4 : pm.pixel_size > 8 ? 24 : pm.pixel_size;

    scratch_set mem;
    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    if (pm.is_pixmap && !direct) {
        if (int rc = read_colour_table(s, hdr->palette, 1 << pm.pixel_size); rc < 0) return rc;
    } else if (!pm.is_pixmap) {
        std::memset(hdr->palette, 255, 3);  // a bit map's 0 is white, 1 black
    }
    if (!source_skip(s, 18)) return IMG_ERR_DATA;  // source and destination rectangles, mode
    if ((op & 1) && !skip_sized(s)) return IMG_ERR_DATA;
    // A bilevel map lighter in its first entry is shown with the two swapped.
    bool invert = false;
    if (bits == 1 && bilevel_white_index(hdr->palette) == 0) {
        uint8_t t[4];
        std::memcpy(t, hdr->palette, 4);
        std::memcpy(hdr->palette, hdr->palette + 4, 4);
        std::memcpy(hdr->palette + 4, t, 4);
        invert = true;
    }
    dib_info &i = hdr->info;
    set_dib_size(i, pm.width, pm.height, bits);
    const uint32_t stride = row_bytes(pm.width, bits);
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(pm.height), 0, &i.biSizeImage)) return IMG_ERR_HEADER;
    i.biXPelsPerMeter = i.biYPelsPerMeter = pm.dpi;
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    auto *in = static_cast<uint8_t *>(mem.take(l.length + 16));
    auto *out = static_cast<uint8_t *>(mem.take(stride + 16));
    if (!in || !out) return IMG_ERR_MEMORY;
    for (int y = 0; y < pm.height; y++) {
        if (int rc = read_row(s, pm, l, in); rc < 0) return rc;
        row_to_dib(pm, l, in, out, invert);
        if (int rc = put_row(out, context, y, static_cast<int>(stride)); rc < 0) return rc;
    }
    return 0;
}

// A pattern opcode's data: its kind, the 8 × 8 pattern, and for a pixel
// pattern its map, colour table and rows; for a colour one its colour.
bool skip_pixpat(byte_source &s) {
    const int kind = read16(s);
    if (kind < 0 || !source_skip(s, 8)) return false;
    if (kind == 2) return source_skip(s, 6);
    if (kind != 1) return true;
    pict_pixmap pm;
    if (read_pixmap(s, pm) < 0 || !pm.is_pixmap) return false;
    uint8_t b[8];
    if (source_read(s, b, 8) != 8 || !source_skip(s, 8 * (int64_t{get16be(b + 6)} + 1))) return false;
    const row_layout l = layout_of(pm, true);
    scratch_set mem;
    auto *row = l.length ? static_cast<uint8_t *>(mem.take(l.length + 16)) : nullptr;
    if (!row) return false;
    for (int y = 0; y < pm.height; y++)
        if (read_row(s, pm, l, row) < 0) return false;
    return true;
}

// Steps over one opcode's data; false when the picture ends inside it.
bool skip_opcode(byte_source &s, int op, int version) {
    if (op < 0xB0 && FIXED[op] >= 0) return source_skip(s, op == 0x11 && version == 2 ? 2 : FIXED[op]);
    if (op == 0x01 || (op >= 0x70 && op <= 0x87)) return skip_sized(s);
    if (op >= 0x12 && op <= 0x14) return skip_pixpat(s);
    if (op >= 0x28 && op <= 0x2B) {  // text after a position of 4, 1, 1 or 2 bytes
        static constexpr int at[4] = {4, 1, 1, 2};
        if (!source_skip(s, at[op - 0x28])) return false;
        const int n = source_byte(s);
        return n >= 0 && source_skip(s, n);
    }
    if (op == 0xA1) return source_skip(s, 2) && skip_counted16(s);
    if (op < 0xB0) return skip_counted16(s);  // the reserved ones with a length word
    if (op < 0xD0) return true;
    if (op < 0x100) return skip_counted32(s);
    if (op < 0x8000) return source_skip(s, (op >> 8) * 2);
    if (op < 0x8100) return true;
    return skip_counted32(s);
}

}  // namespace

BRIVANTA_READER(pict_read_file) {
    if (where_is_page(where)) return IMG_ERR_PAGE;
    const int32_t end = file_size_hint(fd);
    // The picture starts after the file header, or at once: its size and
    // frame, then the version opcode.
    int32_t base = -1;
    int version = 0;
    for (int64_t at : {int64_t{where} + FILE_HEADER, int64_t{where}}) {
        uint8_t b[14] = {};
        if (read_fully_at(fd, end, at, b, 14) < 12) continue;
        if (b[10] == 0x11 && b[11] == 0x01) version = 1;
        if (get16be(b + 10) == 0x0011 && get16be(b + 12) == 0x02FF) version = 2;
        if (version) {
            base = static_cast<int32_t>(at);
            break;
        }
    }
    if (!version) return IMG_ERR_HEADER;
    scratch_set mem;
    byte_source s;
    if (!source_open(s, fd, base + (version == 1 ? 12 : 14), READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(s.buf);
    for (;;) {
        if (version == 2 && (source_tell(s) - base) & 1) source_byte(s);
        const int op = version == 2 ? read16(s) : source_byte(s);
        if (op < 0) return IMG_ERR_DATA;
        if (op == 0xFF) return IMG_ERR_TYPE;  // a picture of no bitmap
        if (op == 0x90 || op == 0x91 || (op >= 0x98 && op <= 0x9B))
            return read_bitmap(s, op, put_row, context, begin_image);
        if (!skip_opcode(s, op, version)) return IMG_ERR_DATA;
    }
}

namespace {

void be16(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

void be32(uint8_t *p, uint32_t v) {
    be16(p, v >> 16);
    be16(p + 2, v);
}

void rect(uint8_t *p, int w, int h) {
    std::memset(p, 0, 4);
    be16(p + 4, static_cast<uint32_t>(h));
    be16(p + 6, static_cast<uint32_t>(w));
}

}  // namespace

// File header, size and frame, version 2 and its header opcode, the clip
// region, the bitmap, end.  Rows wider than 7 bytes are PackBits-packed,
// direct ones as red, green and blue planes; the picture's size is put in
// last (its low 16 bits, as the field holds).
BRIVANTA_WRITER(pict_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int w = header->biWidth, h = header->biHeight;
    const int pixel = bits == 24 ? 32 : bits;
    // Places are signed 16-bit, row lengths 14 bits.
    if (w < 1 || h < 1 || w > 32767 || h > 32767 || (int64_t{w} * pixel + 15) / 16 * 2 > 0x3FFF) return IMG_ERR_HEADER;
    const uint32_t rb = static_cast<uint32_t>((w * pixel + 15) / 16 * 2);
    const bool packed = rb >= 8;
    const int32_t start = file_seek(fd, 0, 1);
    if (start < 0) return IMG_ERR_WRITE;
    const uint32_t dpi = header->biXPelsPerMeter > 0 && header->biXPelsPerMeter < 32768 ? header->biXPelsPerMeter : 72;

    uint8_t head[FILE_HEADER + 10 + 4 + 26 + 12 + 2] = {};
    uint8_t *p = head + FILE_HEADER;
    rect(p + 2, w, h);
    be32(p + 10, 0x001102FF);
    be16(p + 14, 0x0C00);  // header opcode: version -2, resolution, source rectangle
    be16(p + 16, 0xFFFE);
    be32(p + 20, dpi << 16);
    be32(p + 24, dpi << 16);
    rect(p + 28, w, h);
    be16(p + 40, 0x0001);  // clip region: the frame
    be16(p + 42, 10);
    rect(p + 44, w, h);
    be16(p + 52, bits == 24 ? 0x009A : 0x0098);
    if (int rc = write_all(fd, head, sizeof head); rc < 0) return rc;

    uint8_t pm[4 + 46] = {};
    uint8_t *m = pm + (bits == 24 ? 4 : 0);
    if (bits == 24) be32(pm, 0xFF);  // the base address, as direct maps carry
    be16(m, 0x8000 | rb);
    rect(m + 2, w, h);
    be16(m + 12, bits == 24 ? (packed ? 4 : 1) : 0);
    be32(m + 18, dpi << 16);
    be32(m + 22, dpi << 16);
    be16(m + 26, bits == 24 ? 16 : 0);
    be16(m + 28, static_cast<uint32_t>(pixel));
    be16(m + 30, bits == 24 ? 3 : 1);
    be16(m + 32, bits == 24 ? 8 : static_cast<uint32_t>(bits));
    if (int rc = write_all(fd, pm, bits == 24 ? 50 : 46); rc < 0) return rc;
    if (bits < 24) {
        const int n = 1 << bits;
        uint8_t table[8 + 8 * 256] = {};
        be16(table + 6, static_cast<uint32_t>(n - 1));
        const uint8_t *pal = reinterpret_cast<const uint8_t *>(header) + 40;
        for (int i = 0; i < n; i++) {
            uint8_t *e = table + 8 + 8 * i;
            be16(e, static_cast<uint32_t>(i));
            for (int k = 0; k < 3; k++) e[2 + 2 * k] = e[3 + 2 * k] = pal[4 * i + 2 - k];
        }
        if (int rc = write_all(fd, table, 8 + 8 * n); rc < 0) return rc;
    }
    uint8_t rects[18] = {};
    rect(rects, w, h);
    rect(rects + 8, w, h);
    if (int rc = write_all(fd, rects, 18); rc < 0) return rc;

    scratch_set mem;
    const uint32_t stride = row_bytes(w, bits), plain = bits == 24 ? 3u * w : rb;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 16));
    auto *file_row = static_cast<uint8_t *>(mem.take(rb + 16));
    auto *out = static_cast<uint8_t *>(mem.take(plain + plain / 128 + 16));
    if (!row || !file_row || !out) return IMG_ERR_MEMORY;
    int64_t written = 0;
    for (int y = 0; y < h; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        if (bits < 24) {
            std::memset(file_row, 0, rb);
            std::memcpy(file_row, row, (static_cast<uint32_t>(w) * bits + 7) / 8);
        } else {
            for (int x = 0; x < w; x++) {
                const uint8_t *q = row + 3 * x;
                if (packed)
                    file_row[x] = q[2], file_row[w + x] = q[1], file_row[2 * w + x] = q[0];
                else
                    file_row[4 * x] = 0, file_row[4 * x + 1] = q[2], file_row[4 * x + 2] = q[1],
                                   file_row[4 * x + 3] = q[0];
            }
        }
        if (!packed) {
            if (int rc = write_all(fd, file_row, static_cast<int32_t>(rb)); rc < 0) return rc;
            written += rb;
            continue;
        }
        const uint32_t n = packbits_row(file_row, plain, out + 2);
        const int lead = rb > 250 ? 2 : 1;
        if (lead == 2)
            be16(out, n);
        else
            out[1] = static_cast<uint8_t>(n);
        if (int rc = write_all(fd, out + 2 - lead, static_cast<int32_t>(n) + lead); rc < 0) return rc;
        written += n + lead;
    }
    // The end opcode starts on an even offset.
    static const uint8_t tail[3] = {0, 0, 0xFF};
    const int pad = written & 1;
    if (int rc = write_all(fd, tail + 1 - pad, 2 + pad); rc < 0) return rc;
    // A memory block's end is not the picture's: the place is kept instead.
    const int32_t size_at = start + FILE_HEADER, finish = file_seek(fd, 0, 1);
    uint8_t size[2];
    be16(size, static_cast<uint32_t>(finish - size_at));
    if (finish < 0 || file_seek(fd, size_at, 0) != size_at) return IMG_ERR_WRITE;
    if (int rc = write_all(fd, size, 2); rc < 0) return rc;
    return file_seek(fd, finish, 0) == finish ? 0 : IMG_ERR_WRITE;
}

}  // namespace brv
