// JPEG state shared by the decoder, the encoder and the TIFF codec: the
// decoder's tables kept from one stream to the next, the zig-zag order, the
// encoder's working quantisation tables and the entry points on a stream.
#pragma once
#include "codecs/codecs.h"

namespace brv {

// Zig-zag index to natural (row-major) index.
inline constexpr uint8_t jpeg_zigzag[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// One decoding table as a DHT segment defines it, with the derived arrays
// the bit-serial decode compares against (all 16-bit, as stored).
struct jpeg_huffman_table {
    uint8_t bits[17];        // [1..16]: codes per length
    uint8_t huffval[256];    // values beyond the count keep earlier contents
    int16_t valptr[17];      // value index of a code = valptr[l] + code
    int16_t mincode[17];
    int16_t maxcode[18];     // -1 for an empty length; [16], [17] = 32767
};

// Tables a stream defines stay for the next stream that does not redefine
// them, so a stream may carry its tables separately from its image data.
struct jpeg_decoder_tables {
    uint16_t quant[4][64];   // stream (zig-zag) order
    jpeg_huffman_table dc[3];
    jpeg_huffman_table ac[3];
};
extern jpeg_decoder_tables jpeg_tables;

// Resets the kept decoder tables to empty (all codes invalid, zero quantisers).
void jpeg_reset_tables();

// Reads the DQT and DHT segments of a stream from the SOI at offset up to its
// EOI or SOS into the kept tables.  0, or a negative code.
int jpeg_read_tables(int fd, int32_t offset);

// The decoder on a stream whose SOI lies within 1,000 bytes of offset; rows
// go to put_row top-down, the header to begin_image.  0 or a negative code.
int jpeg_decode_stream(int fd, int32_t offset, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image);

// The same on a stream already in memory (the SOI within its first 1,000 bytes).
int jpeg_decode_buffer(const uint8_t *data, int32_t size, IMG_put_row_fn put_row, void *context,
                       IMG_begin_image_fn begin_image);

// The widest vector registers the decoder's kernels may use: 256, 128, or 0
// for plain code; the processor's own limit until called.  Every choice
// gives the same output, which the tests check.
void jpeg_decoder_limit_vectors(int bits);

// Encoder working quantisation tables, natural order, scaled from the
// quality setting as each save starts.
extern uint8_t jpeg_quant_luma[64];
extern uint8_t jpeg_quant_chroma[64];
int jpeg_scale_quant_tables(int quality);

// Truncating division by a quantiser (1..255) as a multiply by recip = 1/q:
// (|v| + 1/2) / q lies at least 1/(2q) from any whole number, and for
// |v| < 2^22 the float product strays less than that.
inline int jpeg_quantise_one(int v, float recip) {
    int a = static_cast<int>((static_cast<float>(v < 0 ? -v : v) + 0.5f) * recip);
    return v < 0 ? -a : a;
}

// The fixed-point transforms.  Forward: 8x8 level-shifted samples at a
// stride to 64 coefficients in natural order, DC = one eighth of the sum.
// Inverse: natural-order coefficients (rows: bit i set when row i may be
// non-zero) to signed samples clamped to -127..127 at a stride.
void jpeg_fdct_8x8(const int16_t *src, int stride, int16_t *coef);
// Quantisers laid out for the encoder's transform: the table of block j of
// a pair (slot j) in lanes 8j to 8j + 7 of each row, natural order.
struct jpeg_quant_set {
    alignas(32) int16_t mult[8][16];   // the quantiser's reciprocal, scaled
    alignas(32) int16_t shift[8][16];  // and the power of two it is scaled by
    alignas(32) int16_t limit[8][16];  // 1023, or 32767 for the DC
    float recip[2][64];                // 1 / q, for the plain path
};
// Slot j from tables[j] (natural order, each quantiser 1..255).
void jpeg_fill_quant_set(jpeg_quant_set &set, const uint8_t *const *tables);
// The forward transform and quantisation the encoder runs, on as many
// blocks as its vectors take at once (returned: 1 or 2): block j from
// src[j] at the stride, with slot j's quantisers, to coef[j] in natural
// order; bit for bit jpeg_fdct_8x8 then jpeg_quantise_one, AC clamped to
// -1023..1023.  nonzero[j] has bit k set where zig-zag coefficient k is
// not zero.
int jpeg_fdct_quantise_group(const int16_t *const *src, int stride, const jpeg_quant_set &set, int16_t (*coef)[64],
                             uint64_t *nonzero);
// The widest vectors the encoder's transform and colour conversion may
// use: 256, 128 (with SSSE3), or 0 for plain code; the processor's own
// limit until called.  Output is the same.
void jpeg_encoder_limit_vectors(int bits);
void jpeg_idct_8x8(const int16_t *coef, unsigned rows, int8_t *dst, int stride);
// The inverse transform the decoder runs, eight lanes at a time, on a
// transposed block (coefficient row i, column k at k * 8 + i); bit for bit
// the result of jpeg_idct_8x8.
void jpeg_idct_8x8_transposed(const int16_t *coefT, int8_t *dst, int stride);

}  // namespace brv
