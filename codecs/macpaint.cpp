// MacPaint: a 576 x 720 bilevel picture in packed rows, after a 512-byte
// header or inside a MacBinary wrapper.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr int MAC_WIDTH = 576;
constexpr int MAC_HEIGHT = 720;
constexpr int MAC_ROW = MAC_WIDTH / 8;
constexpr uint32_t MAC_IMAGE_SIZE = 720 * 90;  // the announced size, larger than the rows need
constexpr int MACBINARY_HEADER = 128;
constexpr int MACPAINT_HEADER = 512;
constexpr int FILE_TYPE_AT = 65;

int macpaint_unpack_rows(byte_source &src, IMG_put_row_fn put_row, void *context, scratch_set &mem) {
    const uint32_t out_len = row_bytes(MAC_WIDTH, 1);
    auto *row = static_cast<uint8_t *>(mem.take(out_len + 1000));
    if (!row) return IMG_ERR_MEMORY;
    if (source_at_end(src)) return IMG_ERR_DATA;
    for (int r = 0; r < MAC_HEIGHT; r++) {
        // A run may overshoot the row; the surplus is dropped and the next
        // row starts at the next control byte.
        if (!source_unpack_runs(src, row, MAC_ROW)) return IMG_ERR_DATA;
        // The file's 1 is black, palette entry 0.
        for (int i = 0; i < MAC_ROW; i++) row[i] = static_cast<uint8_t>(~row[i]);
        if (int rc = put_row(row, context, r, static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(macpaint_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 200)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t head[MACBINARY_HEADER] = {};
    source_read(src, head, MACBINARY_HEADER);
    // A MacBinary file type starting "PNT": the data is taken from right
    // after the wrapper's header.
    const bool wrapped = std::memcmp(head + FILE_TYPE_AT, "PNT", 3) == 0;
    source_seek(src, start + (wrapped ? MACBINARY_HEADER : MACPAINT_HEADER));

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    dib_info &i = dib->info;
    set_dib_size(i, MAC_WIDTH, MAC_HEIGHT, 1);
    i.biSizeImage = MAC_IMAGE_SIZE;
    std::memset(dib->palette + 4, 255, 3);
    if (int rc = begin_image(dib, context); rc < 0) return rc;
    return macpaint_unpack_rows(src, put_row, context, mem);
}

}  // namespace brv
