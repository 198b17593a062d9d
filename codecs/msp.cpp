// MSP: monochrome paint pictures, version 1 ("DanM", rows stored as they
// are) and version 2 ("LinS", run-length coded rows behind a row map).
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr int MSP_HEADER = 32;

// Coded rows follow each other without regard to the row map.  The row is
// kept from one row to the next: a row ended early by a 0, 0 pair keeps
// the previous row's bytes beyond it.
int msp_decode_rows(byte_source &src, uint8_t *row, uint32_t capacity, uint32_t row_len, uint32_t out_len,
                    int height, IMG_put_row_fn put_row, void *context) {
    uint32_t pos = 0;
    int r = 0;
    auto put = [&](uint32_t at, const uint8_t *from, int value, uint32_t n) {
        for (uint32_t k = 0; k < n && at + k < capacity; k++)
            row[at + k] = from ? from[k] : static_cast<uint8_t>(value);
    };
    uint8_t literal[255];
    while (r < height) {
        int n = source_byte(src);
        if (n < 0) return IMG_ERR_DATA;
        bool end_of_row = false;
        if (n) {
            if (source_read(src, literal, n) != n) return IMG_ERR_DATA;
            put(pos, literal, 0, static_cast<uint32_t>(n));
            pos += static_cast<uint32_t>(n);
        } else {
            int count = source_byte(src);
            if (count < 0) return IMG_ERR_DATA;
            if (count == 0) {
                end_of_row = true;
            } else {
                int v = source_byte(src);
                if (v < 0) return IMG_ERR_DATA;
                put(pos, nullptr, v, static_cast<uint32_t>(count));
                pos += static_cast<uint32_t>(count);
            }
        }
        if (end_of_row || pos >= row_len) {
            if (int rc = put_row(row, context, r++, static_cast<int>(out_len)); rc < 0) return rc;
            pos = 0;
        }
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(msp_decompress) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t h[MSP_HEADER];
    if (source_read(src, h, MSP_HEADER) != MSP_HEADER) return IMG_ERR_DATA;
    const int width = get16(h + 4), height = get16(h + 6);
    if (!width || !height) return IMG_ERR_HEADER;
    const bool coded = std::memcmp(h, "DanM", 4) != 0;
    const uint32_t out_len = row_bytes(width, 1), row_len = (static_cast<uint32_t>(width) + 7) / 8;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    dib_info &i = dib->info;
    set_dib_size(i, width, height, 1);
    i.biSizeImage = out_len * static_cast<uint32_t>(height);
    std::memset(dib->palette + 4, 255, 3);
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    const uint32_t capacity = 4 * out_len;
    auto *row = static_cast<uint8_t *>(mem.take(capacity));
    if (!row) return IMG_ERR_MEMORY;
    if (coded) {
        if (!source_skip(src, 2u * static_cast<uint32_t>(height))) return IMG_ERR_DATA;  // the row map
        return msp_decode_rows(src, row, capacity, row_len, out_len, height, put_row, context);
    }
    for (int r = 0; r < height; r++) {
        if (source_read(src, row, static_cast<int32_t>(row_len)) != static_cast<int32_t>(row_len)) return IMG_ERR_DATA;
        if (int rc = put_row(row, context, r, static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
