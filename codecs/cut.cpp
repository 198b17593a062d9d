// CUT: 8-bit pictures in run-length coded lines, always shown through the
// grey palette (a separate palette file is never consulted).
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr int CUT_HEADER = 6;
constexpr int RUN_FLAG = 0x80;

// One coded line into row: items until count coded bytes are used.  The
// row is not cleared first, so a short line keeps the previous row's tail.
int cut_decode_line(byte_source &src, uint8_t *row, uint32_t limit) {
    uint8_t c[2];
    if (source_read(src, c, 2) != 2) return IMG_ERR_DATA;
    const uint32_t count = get16(c);
    uint32_t used = 0, pos = 0;
    while (used < count) {
        int b = source_byte(src);
        if (b < 0) return IMG_ERR_DATA;
        if (b >= RUN_FLAG) {
            int v = source_byte(src);
            if (v < 0) return IMG_ERR_DATA;
            const uint32_t n = static_cast<uint32_t>(b - RUN_FLAG);
            if (pos + n > limit) return IMG_ERR_HEADER;
            std::memset(row + pos, v, n);
            pos += n;
            used += 2;
        } else {
            const uint32_t n = static_cast<uint32_t>(b);
            if (pos + n > limit) return IMG_ERR_HEADER;
            if (source_read(src, row + pos, static_cast<int32_t>(n)) != static_cast<int32_t>(n)) return IMG_ERR_DATA;
            pos += n;
            used += 1 + n;
        }
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(cut_decompress) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 200)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t h[CUT_HEADER];
    if (source_read(src, h, CUT_HEADER) != CUT_HEADER) return IMG_ERR_DATA;
    const int width = get16(h), height = get16(h + 2);
    if (!width || !height) return IMG_ERR_HEADER;
    const uint32_t out_len = row_bytes(width, 8);

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    dib_info &i = dib->info;
    set_dib_size(i, width, height, 8);
    i.biSizeImage = out_len * static_cast<uint32_t>(height);
    fill_grey_ramp(dib->palette);
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    // A line may run to twice the row length before it counts as corrupt.
    const uint32_t limit = 2 * out_len;
    auto *row = static_cast<uint8_t *>(mem.take(limit > out_len + 1000 ? limit : out_len + 1000));
    if (!row) return IMG_ERR_MEMORY;
    if (source_at_end(src)) return IMG_ERR_DATA;
    for (int r = 0; r < height; r++) {
        if (int rc = cut_decode_line(src, row, limit); rc < 0) return rc;
        if (int rc = put_row(row, context, r, static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
