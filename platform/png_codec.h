// The PNG codec the system provides: a library on POSIX, the imaging
// component on Windows, so the Windows DLL carries no codec of its own.
// codecs/png.cpp holds everything the two have in common (the choice of DIB,
// palettes, matting, limits); a backend only turns bytes into rows and back.
#pragma once
#include <cstdint>

namespace brv {

// Takes up to n bytes from the caller's source; the count, 0 at its end.
using png_read_fn = int32_t (*)(void *user, uint8_t *dst, int32_t n);
// Puts n bytes out; false when they did not all go.
using png_write_fn = bool (*)(void *user, const uint8_t *src, int32_t n);

struct png_info {
    uint32_t width, height;
    int bit_depth;     // of the file's samples: 1, 2, 4, 8 or 16
    int colour_type;   // 0 grey, 2 RGB, 3 palette, 4 grey and alpha, 6 RGBA
    bool interlaced;
    // Packed rows come as the file stores palette and grey samples of 8 bits
    // or fewer (MSB first); every other picture comes as 8-bit RGBA, or as
    // 8-bit RGB when the backend knows every pixel is opaque (rgb set).
    bool packed;
    bool rgb;
    int palette_count;
    uint8_t palette[256][4];  // red, green, blue, alpha (opaque without tRNS)
    int32_t grey_key;         // a packed grey picture's transparent sample, or -1
    bool has_background;
    uint8_t background[3];    // red, green, blue at 8 bits
    int32_t dpi_x, dpi_y;     // 0 when the file gives none in metres
};

// A sample of the given depth at 8 bits, and pixels per metre as dots per inch.
inline uint8_t png_sample8(uint32_t v, int depth) {
    if (depth == 16) return static_cast<uint8_t>(v >> 8);
    const uint32_t top = (1u << depth) - 1;
    return static_cast<uint8_t>((v & top) * 255 / top);
}
inline int32_t png_dpi(uint32_t per_metre) {
    const uint64_t d = (static_cast<uint64_t>(per_metre) * 254 + 5000) / 10000;
    return d > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(d);
}

struct png_decoder;
// Reads the header and the chunks before the image data; the decoder, or
// null with *error set to the library's code.  Dimensions above max_width
// and max_height are refused before any image memory is taken.
png_decoder *png_decode_open(png_read_fn read, void *user, uint32_t max_width, uint32_t max_height,
                             png_info *info, int *error);
// The next row from the top, packed or RGBA as info said; 0 or a code.
int png_decode_row(png_decoder *d, uint8_t *row);
void png_decode_close(png_decoder *d);

struct png_encode_params {
    uint32_t width, height;
    int bit_depth;    // 1, 4 or 8
    int colour_type;  // 0 grey, 2 RGB (8-bit samples), 3 palette
    int palette_count;
    uint8_t palette[256][3];  // red, green, blue
    int32_t dpi_x, dpi_y;     // 0: no pHYs
    int level;                // deflate level, 0 to 9
};

struct png_encoder;
png_encoder *png_encode_open(const png_encode_params &p, png_write_fn write, void *user, int *error);
// One row from the top as PNG stores it (packed, red first).
int png_encode_row(png_encoder *e, const uint8_t *row);
// Writes the end of the file; 0 or a code.  Close follows either way.
int png_encode_finish(png_encoder *e);
void png_encode_close(png_encoder *e);

}  // namespace brv
