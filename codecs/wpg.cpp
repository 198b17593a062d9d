// WordPerfect graphics (level 1): the record scan finds the colour map and
// the bitmap records; the last bitmap before the end record is unpacked,
// its vector records skipped by their lengths.
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
    i.biSize = 40;
    i.biWidth = bm.width;
    i.biHeight = bm.height;
    i.biPlanes = 1;
    i.biBitCount = static_cast<uint16_t>(bm.depth);
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

}  // namespace brv
