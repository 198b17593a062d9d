// Windows icons: the first image of the directory, a DIB that the BMP
// codec reads; the AND mask after its pixels is left alone.
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"

#include "frame/byte_source.h"

namespace brv {

BRIVANTA_READER(ico_decompress) {
    // Directory (6 bytes) and its first entry (16 bytes); only the image
    // offset of the entry matters, the image's own header says the rest.
    uint8_t dir[22];
    if (read_fully_at(fd, file_size_hint(fd), where, dir, 22) != 22) return IMG_ERR_OPEN;
    const int64_t image_at = int64_t{where} + get32(dir + 18);
    if (image_at > INT32_MAX) return IMG_ERR_HEADER;
    return dib_read_embedded(static_cast<int32_t>(image_at), {true, false}, put_row, context, begin_image, fd);
}

}  // namespace brv
