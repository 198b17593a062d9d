// The BMP codec's pieces that formats embedding a DIB share: the row
// decoders (plain, RLE4, RLE8), the normalisation of an embedded 40-byte
// header, and the 40-byte info header its writers put out.
#pragma once
#include "frame/frame.h"

namespace brv {

enum class row_mode { plain, invert, top_down, from16, from32 };

struct bmp_reader {
    int32_t where;
    IMG_put_row_fn put_row;
    void *context;
    int fd;
    dib_info *info;  // as announced
    int width, height, file_bits;
    row_mode mode;
    bool top_down;  // honoured by the 32-bit conversion only
};

// Each decodes from the file's current position.
int bmp_read_plain(bmp_reader &b);
int bmp_read_rle4(bmp_reader &b);
int bmp_read_rle8(bmp_reader &b);

// An embedded DIB's rows by its compression: plain, RLE4 at 4 bits, RLE8
// at 8 bits; any other pair is IMG_ERR_HEADER.
int dib_read_rows(bmp_reader &b, uint32_t compression);

// An embedded DIB header as it is announced: 16 and 32 bits as 24, size
// 40, one plane, no colour counts, the image size of its rows, resolutions
// in dots per inch, compression 0.  The file's depth, compression and
// colour count come back through the pointers; IMG_ERR_HEADER for a size or
// depth the row decoders cannot take.
int dib_normalise_embedded(dib_info &h, int *file_bits, uint32_t *compression, uint32_t *colours_used);

// An embedded bilevel table whose first entry is not dark anywhere is made
// black, white; true when the rows must then be inverted.
bool dib_bilevel_to_black_first(uint8_t *palette);

// The 40-byte info header of a written DIB: the bitmap's size and depth,
// this compression, the uncompressed image size, resolutions back to
// pixels per metre (rounded), no colour counts.  False for a size that
// cannot be stored.
bool bmp_info_bytes(uint8_t *out, const dib_info *header, uint32_t compression);

}  // namespace brv
