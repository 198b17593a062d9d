// X pixmaps: the writer of save type 35 for 1-, 4- and 8-bit pictures.  Every
// palette entry gets a colour line, keyed by characters counted up from '^'.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"

#include <cstdio>

namespace brv {

namespace {

constexpr char FIRST_KEY = '^';

// Each formatter writes one quoted row of keys at out; the position after it.
char *xpm_format_row_1bit(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++) *out++ = static_cast<char>(FIRST_KEY + ((row[x >> 3] >> (7 - (x & 7))) & 1));
    *out++ = '"';
    return out;
}

char *xpm_format_row_4bit(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++)
        *out++ = static_cast<char>(FIRST_KEY + (x & 1 ? row[x >> 1] & 15 : row[x >> 1] >> 4));
    *out++ = '"';
    return out;
}

// 8-bit pictures have 256 colours, so always two key characters a pixel.
char *xpm_format_row_8bit_2cpp(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++) {
        *out++ = static_cast<char>(FIRST_KEY + row[x] / 32);
        *out++ = static_cast<char>(FIRST_KEY + row[x] % 32);
    }
    *out++ = '"';
    return out;
}

int write_text(int fd, const char *text) { return write_all(fd, text, static_cast<int32_t>(std::strlen(text))); }

}  // namespace

BRIVANTA_WRITER(xpm_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1 || header->biWidth > 0x3FFFFFF) return IMG_ERR_HEADER;
    const int32_t width = header->biWidth, height = header->biHeight;
    const int colours = 1 << bits, cpp = colours < 33 ? 1 : 2;
    const uint32_t stride = row_bytes(width, bits);
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    auto *line = static_cast<char *>(mem.take(static_cast<uint32_t>(width) * cpp + 8));
    if (!row || !line) return IMG_ERR_MEMORY;

    char text[96];
    if (int rc = write_text(fd, "/* XPM */\nstatic char *untitled[] = {\n"
                                "/* width height ncolors cpp [x_hot] [y_hot] */\n");
        rc < 0)
        return rc;
    std::snprintf(text, sizeof text, "\"%d %d %d %d -1 -1\",\n/* colors */\n", static_cast<int>(width),
                  static_cast<int>(height), colours, cpp);
    if (int rc = write_text(fd, text); rc < 0) return rc;
    static const char hex[] = "0123456789ABCDEF";
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    for (int i = 0; i < colours; i++) {
        const uint8_t *q = palette + 4 * i;
        char key[3] = {static_cast<char>(FIRST_KEY + i), 0, 0};
        if (cpp == 2) key[0] = static_cast<char>(FIRST_KEY + i / 32), key[1] = static_cast<char>(FIRST_KEY + i % 32);
        std::snprintf(text, sizeof text, "\"%s\tc #%c%c%c%c%c%c\",\n", key, hex[q[2] >> 4], hex[q[2] & 15],
                      hex[q[1] >> 4], hex[q[1] & 15], hex[q[0] >> 4], hex[q[0] & 15]);
        if (int rc = write_text(fd, text); rc < 0) return rc;
    }
    if (int rc = write_text(fd, "/* pixels */\n"); rc < 0) return rc;
    for (int32_t y = 0; y < height; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        char *end = bits == 1 ? xpm_format_row_1bit(line, row, width)
                    : bits == 4 ? xpm_format_row_4bit(line, row, width)
                                : xpm_format_row_8bit_2cpp(line, row, width);
        if (y == height - 1) *end++ = '}';
        *end++ = y == height - 1 ? ';' : ',';
        *end++ = '\n';
        if (int rc = write_all(fd, line, static_cast<int32_t>(end - line)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
