// CALS Type 1 rasters: sixteen 128-byte text records, then one Group 4 coded
// bilevel page.  The reader takes the size from the pel-count record alone;
// the writer emits a fixed set of records.  The coding is the fax codec's.
#include "codecs/ccitt.h"
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

#include <cstdio>

namespace brv {

namespace {

constexpr int RECORD = 128;
constexpr int32_t DATA_START = 16 * RECORD;
constexpr int32_t PELCNT_VALUE = 8 * RECORD + 9;  // after "rpelcnt: "
constexpr int PELCNT_BYTES = 30;

// Width and height from "WIDTH,HEIGHT"; false when the comma is missing or
// the height's digits reach the end of the bytes.
bool parse_pelcnt(const uint8_t *b, int32_t &width, int32_t &height) {
    const auto *comma = static_cast<const uint8_t *>(std::memchr(b, ',', PELCNT_BYTES));
    if (!comma) return false;
    auto number = [](const uint8_t *p, const uint8_t *end, int32_t &v) {
        v = 0;
        for (; p < end && *p >= '0' && *p <= '9'; p++) v = v > 0xFFFFFF ? v : v * 10 + (*p - '0');
        return p;
    };
    const uint8_t *p = b;
    while (p < comma && *p == ' ') p++;
    number(p, comma, width);
    return number(comma + 1, b + PELCNT_BYTES, height) < b + PELCNT_BYTES;
}

struct row_relay {
    IMG_put_row_fn put_row;
    void *context;
};

int relay_row(void *context, uint8_t *row, int row_index, int byte_count) {
    auto *r = static_cast<row_relay *>(context);
    return r->put_row(row, r->context, row_index, byte_count);
}

}  // namespace

BRIVANTA_READER(cals_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    uint8_t pelcnt[PELCNT_BYTES] = {};
    const int64_t at = int64_t{start} + PELCNT_VALUE, end = file_size_hint(fd);
    if (at < end && file_seek(fd, static_cast<int32_t>(at), 0) >= 0)
        read_fully(fd, pelcnt, static_cast<int32_t>(end - at < PELCNT_BYTES ? end - at : PELCNT_BYTES));
    int32_t width, height;
    if (!parse_pelcnt(pelcnt, width, height) || width < 1 || height < 1) return IMG_ERR_HEADER;

    scratch_set mem;
    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib || !fill_bilevel_header(*dib, width, height)) return IMG_ERR_MEMORY;
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    const int32_t work_size = READ_BUFFER_SIZE + 100;
    auto *work = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(work_size)));
    if (!work) return IMG_ERR_MEMORY;
    if (start > INT32_MAX - DATA_START || file_seek(fd, start + DATA_START, 0) < 0) return IMG_ERR_DATA;
    ccitt_params p{};
    p.width = width;
    p.rows = height;
    p.compression = 4;
    p.photometric = 1;
    p.fill_order = 1;
    p.pad_white = true;
    row_relay relay{put_row, context};
    int rc = ccitt_decode_g4(work, work_size, p, fd, relay_row, &relay);
    return rc < 0 ? rc : 0;
}

BRIVANTA_WRITER(cals_write_file) {
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    // The Group 4 coder's limits, checked before any record goes out.
    if (header->biWidth < 1 || header->biHeight < 1 || header->biWidth > 0xFFFF || header->biHeight > 0xFFFF)
        return IMG_ERR_DEPTH;
    scratch_set mem;
    auto *record = static_cast<char *>(mem.take(RECORD + 1));
    if (!record) return IMG_ERR_MEMORY;
    static const char *const texts[11] = {
        "srcdocid: NONE        ", "dstdocid: NONE        ", "txtfilid: NONE        ", "figid: NONE           ",
        "srcgph: NONE          ", "doccls: NONE          ", "rtype: 1              ", "rorient: 090,270      ",
        "rpelcnt:              ", "rdensity: 200         ", "notes: NONE           ",
    };
    std::memset(record, ' ', RECORD);
    for (int k = 0; k < 11; k++) {
        std::memcpy(record, texts[k], 22);
        if (k == 8) {
            std::snprintf(record + 9, 14, "%06d,%06d", static_cast<int>(header->biWidth),
                          static_cast<int>(header->biHeight));
            record[22] = ' ';
        }
        if (int rc = write_all(fd, record, RECORD); rc < 0) return rc;
    }
    std::memset(record, ' ', RECORD);
    for (int k = 0; k < 5; k++)
        if (int rc = write_all(fd, record, RECORD); rc < 0) return rc;

    // The page itself is the fax codec's headerless Group 4 output.
    mem.free_all();
    return fax_write_g4(fd, header, get_row, context);
}

}  // namespace brv
