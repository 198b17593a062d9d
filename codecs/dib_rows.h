// What formats embedding a DIB share with the BMP codec: its reading of an
// embedded DIB (header, colour table, rows by the BMP row decoders), the
// 40-byte info header its writers put out and their writing of the rows.
#pragma once
#include "frame/frame.h"

namespace brv {

// Resolutions are pixels per metre in files, dots per inch in the library.
constexpr double METRE_INCH = 0.0254;

// How a format embeds its DIB.
struct dib_embedding {
    bool square;                 // the height is taken from the width (icons)
    bool table_of_colours_used;  // a nonzero colours-used count sizes the table
};

// Reads the DIB at absolute offset at: its 40-byte header announced with 16
// and 32 bits as 24, colour counts 0, resolutions in dots per inch; a
// bilevel table whose first entry is light anywhere made black, white over
// inverted rows; the rows plain, RLE4 at 4 bits or RLE8 at 8 bits (any other
// compression is IMG_ERR_HEADER).  1, or a negative code (IMG_ERR_TYPE for
// PNG data in its place).
int dib_read_embedded(int32_t at, const dib_embedding &how, IMG_put_row_fn put_row, void *context,
                      IMG_begin_image_fn begin_image, int fd);

// The 40-byte info header of a written DIB: the bitmap's size and depth,
// this compression, the uncompressed image size, resolutions back to
// pixels per metre (rounded), no colour counts.  False for a size that
// cannot be stored.
bool bmp_info_bytes(uint8_t *out, const dib_info *header, uint32_t compression);

// The bitmap's rows, bottom row first as a DIB stores them, through a row
// buffer of its own: 0, IMG_ERR_MEMORY, IMG_ERR_WRITE or get_row's code.
int dib_write_rows(int fd, const dib_info *header, IMG_get_row_fn get_row, void *context);

}  // namespace brv
