// X bitmaps: the reader of both the 16-bit word ("short") and byte ("char")
// forms, and the writer of save type 20.  An X bitmap keeps the leftmost pixel
// in the least significant bit and 1 as foreground; a DIB row the other way
// round, with 1 as the white entry.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

#include <cstdio>

namespace brv {

namespace {

// Header keywords and numbers are looked for this far into a line.
constexpr int TOKEN_SCAN = 80;

// Hex digit to its DIB nibble: reversed bit order, inverted.  Anything that
// is not a hex digit counts 0, so a short value is misread, not refused.
constexpr auto digit_table = [] {
    struct t { uint8_t v[256]; } r{};
    auto set = [&](int c, int n) {
        int rev = (n & 1) << 3 | (n & 2) << 1 | (n & 4) >> 1 | (n & 8) >> 3;
        r.v[c] = static_cast<uint8_t>(rev ^ 15);
    };
    for (int n = 0; n < 10; n++) set('0' + n, n);
    for (int n = 10; n < 16; n++) set('A' + n - 10, n), set('a' + n - 10, n);
    return r;
}();

bool is_blank(int c) { return c == ' ' || c == '\t'; }
bool is_separator(int c) { return c == ',' || c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The first TOKEN_SCAN characters of the next line, which is consumed
// whole; false at the end of the source.
bool read_line(byte_source &src, char (&line)[TOKEN_SCAN + 1]) {
    int n = 0, c = source_byte(src);
    if (c < 0) return false;
    for (; c >= 0 && c != '\n'; c = source_byte(src))
        if (n < TOKEN_SCAN) line[n++] = static_cast<char>(c);
    line[n] = 0;
    return true;
}

bool starts_with(const char *line, const char *word) { return std::strncmp(line, word, std::strlen(word)) == 0; }

// "#define NAME NUMBER": the number, or -1.
int32_t define_value(const char *line) {
    if (!starts_with(line, "#define")) return -1;
    const char *p = line + 7;
    while (is_blank(*p)) p++;
    while (*p && !is_blank(*p)) p++;
    while (is_blank(*p)) p++;
    if (*p < '0' || *p > '9') return -1;
    int32_t v = 0;
    for (; *p >= '0' && *p <= '9'; p++) {
        v = v * 10 + (*p - '0');
        if (v > 0xFFFFFF) return -1;  // far past any picture a DIB can hold
    }
    return v;
}

// 1 for "short" (words), 0 for "char" (bytes), -1 when the line declares neither.
int declaration_form(const char *line) {
    if (!starts_with(line, "static")) return -1;
    const char *p = line + 6;
    while (is_blank(*p)) p++;
    if (starts_with(p, "unsigned") && is_blank(p[8])) {
        p += 8;
        while (is_blank(*p)) p++;
    }
    if (starts_with(p, "short")) return 1;
    if (starts_with(p, "char")) return 0;
    return -1;
}

int peek(byte_source &src) { return src.pos < src.len || source_fill(src) ? src.buf[src.pos] : -1; }

// The next value's digits, taken by position after its two-character prefix;
// positions past the token read as no digit.  False when the values have run out.
bool next_value(byte_source &src, uint8_t *digits, int count) {
    int c = source_byte(src);
    while (c >= 0 && is_separator(c)) c = source_byte(src);
    if (c < 0 || c == '}' || c == ';') return false;
    int p = peek(src);  // the prefix's second character
    if (p >= 0 && !is_separator(p)) source_byte(src);
    for (int i = 0; i < count; i++) {
        p = peek(src);
        if (p < 0 || is_separator(p)) {
            std::memset(digits + i, 0, static_cast<size_t>(count - i));
            break;
        }
        digits[i] = digit_table.v[source_byte(src)];
    }
    // The rest of an overlong token belongs to no value.
    while ((p = peek(src)) >= 0 && !is_separator(p)) source_byte(src);
    return true;
}

}  // namespace

BRIVANTA_READER(xbm_decompress) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 4096)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    char line[TOKEN_SCAN + 1];
    if (!read_line(src, line)) return IMG_ERR_HEADER;
    const int32_t width = define_value(line);
    if (!read_line(src, line)) return IMG_ERR_HEADER;
    const int32_t height = define_value(line);
    if (width < 1 || height < 1) return IMG_ERR_HEADER;
    do {  // hot-spot lines and the like
        if (!read_line(src, line)) return IMG_ERR_HEADER;
    } while (starts_with(line, "#define"));
    const int words = declaration_form(line);
    if (words < 0) return IMG_ERR_HEADER;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    const uint32_t stride = row_bytes(width, 1);
    if (!dib || !fill_bilevel_header(*dib, width, height)) return IMG_ERR_MEMORY;
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    uint32_t scanline = (static_cast<uint32_t>(width) + 7) / 8;
    if (words) scanline = (scanline + 1) & ~1u;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    if (!row) return IMG_ERR_MEMORY;
    uint8_t d[4];
    for (int32_t y = 0; y < height; y++) {
        for (uint32_t x = 0; x < scanline; x += words ? 2 : 1) {
            if (!next_value(src, d, words ? 4 : 2)) return IMG_ERR_HEADER;
            if (words) {  // 0xABCD: low byte CD first
                row[x] = static_cast<uint8_t>(d[3] << 4 | d[2]);
                row[x + 1] = static_cast<uint8_t>(d[1] << 4 | d[0]);
            } else {
                row[x] = static_cast<uint8_t>(d[1] << 4 | d[0]);
            }
        }
        std::memset(row + scanline, 0, stride - scanline);
        if (int rc = put_row(row, context, y, static_cast<int>(stride)); rc < 0) return rc;
    }
    return 0;
}

BRIVANTA_WRITER(xbm_write_file) {
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_HEADER;
    const int32_t width = header->biWidth, height = header->biHeight;
    const uint32_t stride = row_bytes(width, 1), used = (static_cast<uint32_t>(width) + 7) / 8;
    // X bitmaps have no colour table: the darker entry becomes the foreground.
    const uint8_t flip = bilevel_white_index(reinterpret_cast<const uint8_t *>(header) + 40) ? 0x00 : 0xFF;
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    if (!row) return IMG_ERR_MEMORY;
    // Each value's digits: the low nibble's, then the high nibble's, each
    // through this table, which inverts and reverses the nibble.
    static const char hex[] = "f7b3d591e6a2c480";
    char text[128];
    int n = std::snprintf(text, sizeof text, "#define untitled_width %d\n#define untitled_height %d\n",
                          static_cast<int>(width), static_cast<int>(height));
    if (int rc = write_all(fd, text, n); rc < 0) return rc;
    if (int rc = write_all(fd, "static char untitled_bits[] = {\n", 32); rc < 0) return rc;
    constexpr int PER_LINE = 12;
    char out[4 + PER_LINE * 6 + 8];
    int len = 0, in_line = 0;
    for (int32_t y = 0; y < height; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        for (uint32_t x = 0; x < used; x++) {
            const bool last = y == height - 1 && x == used - 1;
            const uint8_t b = row[x] ^ flip;
            if (in_line == 0) std::memcpy(out, "    ", 4), len = 4;
            out[len++] = '0', out[len++] = 'x', out[len++] = hex[b & 15], out[len++] = hex[b >> 4];
            if (last) {
                std::memcpy(out + len, "};\n", 3), len += 3;
            } else if (++in_line == PER_LINE) {
                out[len++] = ',', out[len++] = '\n';
                in_line = 0;
            } else {
                out[len++] = ',', out[len++] = ' ';
            }
            if (last || in_line == 0)
                if (int rc = write_all(fd, out, len); rc < 0) return rc;
        }
    }
    return 0;
}

}  // namespace brv
