// The LZW decoder of TIFF Compression 5: codes most significant bit first,
// 9 to 12 bits wide, the width growing one code early.
#pragma once
#include "frame/frame.h"

namespace brv {

// Row sink: a negative result ends decoding and is returned.
using lzw_sink = int (*)(void *context, uint8_t *row, int row_index);

struct tiff_lzw_state {
    uint64_t *entries;  // 4096: where each string last stood in the strip's output, length, first and last byte
    uint16_t *prefix;   // 4096: the code of the string one byte shorter
    uint8_t *literals;  // the 256 one-byte strings, and room for 16-byte block reads
    int32_t next_read;  // the next strip's first read: the last strip's size and a margin
    void *block;
};

// Allocates the string table: 0, or -1 when it cannot be had.
int tiff_lzw_begin(tiff_lzw_state &s);
// Decodes one strip from the file's current position through the input
// buffer (in_size bytes) into the row buffer (at least row_bytes + 4200
// bytes), handing each full row to the sink.  0 when the strip's rows are
// done or its end code came; -3 for a bad code, -12 when the data ran out,
// or the sink's negative result.
int tiff_lzw_decode_strip(tiff_lzw_state &s, int fd, uint8_t *in, int32_t in_size, int first_row, uint32_t row_bytes,
                          uint8_t *row_buffer, uint32_t row_buffer_size, int row_count, lzw_sink sink, void *context);
void tiff_lzw_end(tiff_lzw_state &s);

// The matching encoder: strips each start with a clear code and end with
// the end code; output goes to the file through a buffer.
struct tiff_lzw_encoder {
    int fd;
    uint32_t *keys;   // hash of (prefix << 8 | byte) + 1, 0 = empty slot
    uint16_t *codes;
    uint8_t *out;
    uint32_t used;
    uint64_t acc;
    int nbits;
    int width, next, prefix;
    void *block;
};
int tiff_lzw_encode_begin(tiff_lzw_encoder &e, int fd);  // 0, or -1
void tiff_lzw_encode_strip_start(tiff_lzw_encoder &e);
int tiff_lzw_encode(tiff_lzw_encoder &e, const uint8_t *data, uint32_t count);  // 0, or -9
int tiff_lzw_encode_strip_end(tiff_lzw_encoder &e);  // 0, or -9
void tiff_lzw_encode_free(tiff_lzw_encoder &e);

}  // namespace brv
