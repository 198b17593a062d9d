// Windows metafiles: the reader takes the DIB of the first bitmap record
// (StretchDIBits, DIBStretchBlt, DIBBitBlt), placeable or not; the writer
// puts a placeable metafile of one StretchDIBits record carrying the whole
// DIB, laid out at 96 units per inch.
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"

#include "frame/byte_source.h"

#include <initializer_list>

namespace brv {

namespace {

constexpr uint32_t PLACEABLE_KEY = 0x9AC6CDD7u;
constexpr uint16_t META_STRETCHDIB = 0x0F43;
constexpr uint16_t META_DIBSTRETCHBLT = 0x0B41;
constexpr uint16_t META_DIBBITBLT = 0x0940;
// Record head (6), parameters (22) and the info header (40) before the palette.
constexpr uint32_t PICTURE_FIXED = 68;

// A record: its size in words, its function, then 16-bit parameters.
int write_record(int fd, uint16_t function, std::initializer_list<uint16_t> params) {
    uint8_t r[6 + 2 * 4];
    put32(r, 3 + static_cast<uint32_t>(params.size()));
    put16(r + 4, function);
    int n = 6;
    for (uint16_t p : params) {
        put16(r + n, p);
        n += 2;
    }
    return write_all(fd, r, n);
}

}  // namespace

BRIVANTA_READER(wmf_read_file) {
    const int32_t end = file_size_hint(fd);
    uint8_t b[18];
    if (read_fully_at(fd, end, where, b, 4) != 4) return IMG_ERR_OPEN;
    const int64_t at = int64_t{where} + (get32(b) == PLACEABLE_KEY ? 22 : 0);
    if (read_fully_at(fd, end, at, b, 18) != 18) return IMG_ERR_HEADER;
    const int header_words = get16(b + 2);
    if (header_words < 9) return IMG_ERR_HEADER;
    for (int64_t rec = at + 2 * header_words;;) {
        if (read_fully_at(fd, end, rec, b, 6) != 6) return IMG_ERR_DATA;
        const uint32_t words = get32(b), function = get16(b + 4);
        if (function == 0) return IMG_ERR_TYPE;  // the end record: no bitmap
        if (words < 3) return IMG_ERR_HEADER;
        // The blits come without a DIB too, one word longer in parameters
        // than the record's own size says then.
        const bool bare = words == (function >> 8) + 3;
        int dib = 0;
        if (function == META_STRETCHDIB) dib = 28;
        if (function == META_DIBSTRETCHBLT && !bare) dib = 26;
        if (function == META_DIBBITBLT && !bare) dib = 22;
        if (dib) {
            if (rec + dib > INT32_MAX) return IMG_ERR_HEADER;
            return dib_read_embedded(static_cast<int32_t>(rec + dib), {false, true}, put_row, context, begin_image, fd);
        }
        rec += 2 * int64_t{words};
    }
}

int wmf_write_setup_records(int fd, const dib_info *header) {
    const auto w = static_cast<uint16_t>(header->biWidth), h = static_cast<uint16_t>(header->biHeight);
    int rc = write_record(fd, 0x020B, {0, 0});                // SetWindowOrg
    if (rc == 0) rc = write_record(fd, 0x020D, {0, 0});       // SetViewportOrg
    if (rc == 0) rc = write_record(fd, 0x020C, {h, w});       // SetWindowExt
    if (rc == 0) rc = write_record(fd, 0x020E, {h, w});       // SetViewportExt
    if (rc == 0) rc = write_record(fd, 0x0103, {1});          // SetMapMode, text mode
    return rc;
}

BRIVANTA_WRITER(wmf_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    // Sizes and places are 16-bit signed numbers in a metafile.
    if (header->biWidth > 32767 || header->biHeight > 32767) return IMG_ERR_HEADER;
    uint8_t info[40];
    if (!bmp_info_bytes(info, header, 0)) return IMG_ERR_HEADER;
    const uint32_t pixels = get32(info + 20), pb = palette_bytes(bits);
    const uint32_t record_words = (pixels + PICTURE_FIXED + pb) / 2;

    uint8_t placeable[22] = {};
    put32(placeable, PLACEABLE_KEY);
    put16(placeable + 10, static_cast<uint32_t>(header->biWidth));
    put16(placeable + 12, static_cast<uint32_t>(header->biHeight));
    put16(placeable + 14, 96);
    uint16_t sum = 0;
    for (int i = 0; i < 20; i += 2) sum ^= get16(placeable + i);
    put16(placeable + 20, sum);
    if (int rc = write_all(fd, placeable, 22); rc < 0) return rc;

    uint8_t meta[18] = {};
    put16(meta, 1);
    put16(meta + 2, 9);
    put16(meta + 4, 0x0300);
    put32(meta + 6, record_words + 36);
    put16(meta + 10, 1);
    put32(meta + 12, record_words);
    if (int rc = write_all(fd, meta, 18); rc < 0) return rc;
    if (int rc = wmf_write_setup_records(fd, header); rc < 0) return rc;

    uint8_t picture[28];
    put32(picture, record_words);
    put16(picture + 4, META_STRETCHDIB);
    put32(picture + 6, static_cast<uint32_t>(SRCCOPY));
    const auto w = static_cast<uint32_t>(header->biWidth), h = static_cast<uint32_t>(header->biHeight);
    const uint32_t params[9] = {0, h, w, 0, 0, h, w, 0, 0};  // usage, source h, w, y, x, destination h, w, y, x
    for (int i = 0; i < 9; i++) put16(picture + 10 + 2 * i, params[i]);
    if (int rc = write_all(fd, picture, 28); rc < 0) return rc;
    if (int rc = write_all(fd, info, 40); rc < 0) return rc;
    if (pb)
        if (int rc = write_all(fd, reinterpret_cast<const uint8_t *>(header) + 40, static_cast<int32_t>(pb)); rc < 0)
            return rc;

    if (int rc = dib_write_rows(fd, header, get_row, context); rc < 0) return rc;
    static const uint8_t end_record[6] = {3, 0, 0, 0, 0, 0};
    return write_all(fd, end_record, 6);
}

}  // namespace brv
