// WordPerfect graphics (level 1): the record scan finds the colour map and
// the bitmap records; the last bitmap before the end record is unpacked,
// its vector records skipped by their lengths.  The writer puts one bitmap
// record of 1, 4 or 8 bits with its colour map.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"

#include "frame/byte_source.h"

namespace brv {

namespace {

enum : uint8_t { WPG_BITMAP = 11, WPG_COLOUR_MAP = 14, WPG_START = 15, WPG_END = 16, WPG_BITMAP2 = 20 };
constexpr int32_t MAP_BUFFER = 800;

struct wpg_bitmap {
    int64_t data = -1;  // the record's data
    int kind = 0;       // 1: type 11, 2: type 20
    int width = 0, height = 0, depth = 0;
};

// The record's head is read again here, so the pixels start after it.
int wpg_unpack_bitmap(int fd, uint8_t *row, uint32_t dib_row, IMG_put_row_fn put_row, void *context,
                      const wpg_bitmap &bm) {
    byte_source src;
    if (!source_open(src, fd, static_cast<int32_t>(bm.data), READ_BUFFER_SIZE + 200)) return IMG_ERR_MEMORY;
    scratch_set mem;
    mem.adopt(src.buf);
    uint8_t head[20];
    const int head_size = bm.kind == 1 ? 10 : 20;
    if (source_read(src, head, head_size) != head_size || source_at_end(src)) return IMG_ERR_DATA;
    const uint32_t packed = bm.depth == 24 ? 3u * bm.width : (static_cast<uint32_t>(bm.width) * bm.depth + 7) / 8;
    int r = 0, stop = 0;
    uint32_t x = 0;
    // A row is delivered as soon as it is full; runs carry on into the next.
    // A sink's negative answer (a stopped status hook, say) ends the read.
    auto put = [&](uint8_t v) {
        row[x++] = v;
        if (x == packed) {
            x = 0;
            if (int rc = put_row(row, context, r++, static_cast<int>(dib_row)); rc < 0) stop = rc;
        }
    };
    while (r < bm.height && !stop) {
        int c = source_byte(src);
        if (c < 0) return IMG_ERR_DATA;
        int n = c & 0x7F;
        if (c & 0x80) {
            int v = 0xFF;
            if (n == 0)
                n = source_byte(src);
            else
                v = source_byte(src);
            if (n < 0 || v < 0) return IMG_ERR_DATA;
            for (int i = 0; i < n && r < bm.height && !stop; i++) put(static_cast<uint8_t>(v));
        } else if (n) {
            for (int i = 0; i < n && r < bm.height && !stop; i++) {
                int v = source_byte(src);
                if (v < 0) return IMG_ERR_DATA;
                put(static_cast<uint8_t>(v));
            }
        } else {
            // Repeats the row buffer as it stands: the last row delivered.
            n = source_byte(src);
            if (n < 0) return IMG_ERR_DATA;
            for (int i = 0; i < n && r < bm.height; i++)
                if (int rc = put_row(row, context, r++, static_cast<int>(dib_row)); rc < 0) return rc;
        }
    }
    return stop;
}

}  // namespace

BRIVANTA_READER(wpg_read_file) {
    scratch_set mem;
    auto *map = static_cast<uint8_t *>(mem.take(MAP_BUFFER));
    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!map || !hdr) return IMG_ERR_MEMORY;
    uint8_t file_head[16];
    const int32_t end = file_size_hint(fd);
    if (read_fully_at(fd, end, where, file_head, 16) != 16) return IMG_ERR_OPEN;
    // The scan starts right after the file header, whatever its data offset says.
    int64_t at = int64_t{where} + 16;
    wpg_bitmap bm;
    bool have_map = false;
    for (;;) {
        uint8_t h[6] = {};
        const int32_t got = at < end ? read_fully_at(fd, end, at, h, 6) : 0;
        if (got < 2) return IMG_ERR_HEADER;
        int64_t length = h[1];
        int head = 2;
        if (h[1] == 0xFF) {
            const uint32_t w = get16(h + 2);
            head = w & 0x8000 ? 6 : 4;
            length = w & 0x8000 ? int64_t{w & 0x7FFF} << 16 | get16(h + 4) : w;
        }
        if (got < head) return IMG_ERR_HEADER;
        const int64_t data = at + head;
        if (h[0] == WPG_END) break;
        if (h[0] == WPG_BITMAP || h[0] == WPG_BITMAP2) {
            uint8_t b[20];
            const int size = h[0] == WPG_BITMAP ? 10 : 20, base = h[0] == WPG_BITMAP ? 0 : 10;
            if (read_fully_at(fd, end, data, b, size) != size) return IMG_ERR_HEADER;
            bm = {data, h[0] == WPG_BITMAP ? 1 : 2, get16(b + base), get16(b + base + 2), get16(b + base + 4)};
        } else if (h[0] == WPG_COLOUR_MAP) {
            const int32_t n = length < MAP_BUFFER ? static_cast<int32_t>(length) : MAP_BUFFER;
            if (read_fully_at(fd, end, data, map, n) != n) return IMG_ERR_HEADER;
            have_map = true;
        }
        at = data + length;
    }
    if (bm.data < 0) return IMG_ERR_EPS_PREVIEW;  // no picture but vectors
    if (bm.depth != 1 && bm.depth != 4 && bm.depth != 8 && bm.depth != 24) return IMG_ERR_HEADER;
    if (bm.width < 1 || bm.height < 1) return IMG_ERR_HEADER;

    dib_info &i = hdr->info;
    set_dib_size(i, bm.width, bm.height, bm.depth);
    const uint32_t dib_row = row_bytes(bm.width, bm.depth);
    i.biSizeImage = dib_row * static_cast<uint32_t>(bm.height);
    if (have_map && bm.depth < 24)
        // The map's start index is not looked at: entry i is the map's i-th.
        palette_from_rgb(hdr->palette, map + 4, 1 << bm.depth);
    else if (bm.depth == 1)
        std::memset(hdr->palette + 4, 255, 3);
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    auto *row = static_cast<uint8_t *>(mem.take(dib_row * 3 + 100));
    if (!row) return IMG_ERR_MEMORY;
    return wpg_unpack_bitmap(fd, row, dib_row, put_row, context, bm);
}

namespace {

// A record's head in its six-byte form, whatever the length, so a length
// learnt after the data can be put in place.
void wpg_long_head(uint8_t *h, uint8_t kind, uint32_t length) {
    h[0] = kind;
    h[1] = 0xFF;
    put16(h + 2, 0x8000 | length >> 16);
    put16(h + 4, length & 0xFFFF);
}

// One row in the format's runs: repeats of three or more as (0x80 | n, v),
// the rest as literal groups (n, bytes); runs never cross rows.
uint32_t wpg_pack_row(const uint8_t *s, uint32_t n, uint8_t *out) {
    uint8_t *o = out;
    uint32_t i = 0;
    while (i < n) {
        uint32_t run = 1;
        while (i + run < n && run < 127 && s[i + run] == s[i]) run++;
        if (run >= 3) {
            *o++ = static_cast<uint8_t>(0x80 | run);
            *o++ = s[i];
            i += run;
            continue;
        }
        const uint32_t start = i;
        while (i < n && i - start < 127 && !(i + 2 < n && s[i] == s[i + 1] && s[i] == s[i + 2])) i++;
        *o++ = static_cast<uint8_t>(i - start);
        std::memcpy(o, s + start, i - start);
        o += i - start;
    }
    return static_cast<uint32_t>(o - out);
}

}  // namespace

// Level 1: file header, start record, colour map, one bitmap record of
// rows top first, end record.  The bitmap's length is put in after its rows.
BRIVANTA_WRITER(wpg_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1 || header->biWidth > 65535 || header->biHeight > 65535)
        return IMG_ERR_HEADER;
    const int w = header->biWidth, h = header->biHeight;
    const uint32_t packed = (static_cast<uint32_t>(w) * bits + 7) / 8, colours = 1u << bits;
    uint8_t head[16 + 8 + 6 + 4] = {0xFF, 'W', 'P', 'C', 16, 0, 0, 0, 1, 0x16, 1, 0};
    uint8_t *r = head + 16;  // start record: version 1, flags, size
    r[0] = WPG_START;
    r[1] = 6;
    r[2] = 1;
    put16(r + 4, static_cast<uint32_t>(w));
    put16(r + 6, static_cast<uint32_t>(h));
    wpg_long_head(head + 24, WPG_COLOUR_MAP, 4 + 3 * colours);
    put16(head + 30, 0);
    put16(head + 32, colours);
    if (int rc = write_all(fd, head, sizeof head); rc < 0) return rc;
    uint8_t map[768];
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    for (uint32_t i = 0; i < colours; i++) {
        map[3 * i] = palette[4 * i + 2];
        map[3 * i + 1] = palette[4 * i + 1];
        map[3 * i + 2] = palette[4 * i];
    }
    if (int rc = write_all(fd, map, static_cast<int32_t>(3 * colours)); rc < 0) return rc;

    const int32_t bitmap_at = file_seek(fd, 0, 1);
    uint8_t b[16];
    wpg_long_head(b, WPG_BITMAP, 0);
    const int dpi = header->biXPelsPerMeter > 0 && header->biXPelsPerMeter < 65536 ? header->biXPelsPerMeter : 75;
    const uint32_t place[5] = {static_cast<uint32_t>(w), static_cast<uint32_t>(h), static_cast<uint32_t>(bits),
                               static_cast<uint32_t>(dpi), static_cast<uint32_t>(dpi)};
    for (int i = 0; i < 5; i++) put16(b + 6 + 2 * i, place[i]);
    if (int rc = write_all(fd, b, 16); rc < 0) return rc;

    scratch_set mem;
    const uint32_t stride = row_bytes(w, bits);
    auto *row = static_cast<uint8_t *>(mem.take(stride + 16));
    auto *out = static_cast<uint8_t *>(mem.take(packed + packed / 127 + 16));
    if (!row || !out) return IMG_ERR_MEMORY;
    uint64_t length = 10;
    for (int y = 0; y < h; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        const uint32_t n = wpg_pack_row(row, packed, out);
        if (int rc = write_all(fd, out, static_cast<int32_t>(n)); rc < 0) return rc;
        length += n;
        if (length > 0x7FFFFFFF) return IMG_ERR_HEADER;
    }
    static const uint8_t end_record[2] = {WPG_END, 0};
    if (int rc = write_all(fd, end_record, 2); rc < 0) return rc;
    wpg_long_head(b, WPG_BITMAP, static_cast<uint32_t>(length));
    const int32_t finish = file_seek(fd, 0, 1);  // a memory block ends past the file
    if (finish < 0 || file_seek(fd, bitmap_at, 0) != bitmap_at) return IMG_ERR_WRITE;
    if (int rc = write_all(fd, b, 6); rc < 0) return rc;
    return file_seek(fd, finish, 0) == finish ? 0 : IMG_ERR_WRITE;
}

}  // namespace brv
