// Windows icons: the first image of the directory, whose pixels the BMP row
// decoders read; the AND mask after them is left alone.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"

#include "frame/byte_source.h"

namespace brv {

BRIVANTA_READER(ico_decompress) {
    // Directory (6 bytes) and its first entry (16 bytes); only the image
    // offset of the entry matters, the image's own header says the rest.
    uint8_t dir[22];
    const int32_t end = file_size_hint(fd);
    if (read_fully_at(fd, end, where, dir, 22) != 22) return IMG_ERR_OPEN;
    const int64_t image_at = int64_t{where} + get32(dir + 18);
    if (image_at > INT32_MAX - 4096) return IMG_ERR_HEADER;
    scratch_set mem;
    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    if (read_fully_at(fd, end, image_at, &hdr->info, 40) != 40) return IMG_ERR_DATA;
    // Images stored as compressed streams of another format have no such header.
    if (hdr->info.biSize < 40 || hdr->info.biSize > 124) return IMG_ERR_TYPE;
    const int32_t table_at = static_cast<int32_t>(image_at) + static_cast<int32_t>(hdr->info.biSize);
    // The header's height counts the AND mask too; icons are taken as square.
    hdr->info.biHeight = hdr->info.biWidth;
    int file_bits;
    uint32_t compression, colours_used;
    if (int rc = dib_normalise_embedded(hdr->info, &file_bits, &compression, &colours_used); rc < 0) return rc;
    bool invert = false;
    if (file_bits <= 8) {
        const int32_t n = static_cast<int32_t>(palette_bytes(file_bits));
        if (read_fully_at(fd, end, table_at, hdr->palette, n) != n) return IMG_ERR_DATA;
        if (file_bits == 1) invert = dib_bilevel_to_black_first(hdr->palette);
    }
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    file_seek(fd, table_at + static_cast<int32_t>(palette_bytes(file_bits)), 0);
    bmp_reader b{where, put_row, context, fd, &hdr->info, hdr->info.biWidth, hdr->info.biHeight, file_bits,
                 row_mode::plain, false};
    if (file_bits == 16) b.mode = row_mode::from16;
    if (file_bits == 32) b.mode = row_mode::from32;
    if (invert) b.mode = row_mode::invert;
    int rc = dib_read_rows(b, compression);
    return rc < 0 ? rc : 1;
}

}  // namespace brv
