// The GIF LZW decoder, reachable on its own so tests can feed it streams.
#pragma once
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

// Decodes the image data that follows an image descriptor (and its colour
// table) in src.  flags: the descriptor's packed byte in bits 0-7, the LZW
// minimum code size in bits 8-15.  0 or a negative code.
int gif_lzw_decode(byte_source &src, const dib_header *header, IMG_put_row_fn put_row, void *user, uint32_t flags);

}  // namespace brv
