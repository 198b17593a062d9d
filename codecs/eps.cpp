// EPS: the writer of save type 14, a PostScript text printing the picture
// 8 inches wide at the top left of a letter page with a hexadecimal body,
// and the reader of binary EPS wrappers, which decodes their TIFF preview.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

#include <cstdio>

namespace brv {

namespace {

constexpr uint32_t EPS_MAGIC = 0xC6D3D0C5u;
constexpr int WRAPPER_SIZE = 32;
// Every line ends with these four bytes, the two zeros included: printers
// and previewers take NUL as white space.
constexpr uint8_t LINE_END[4] = {0x0D, 0x0A, 0x00, 0x00};

struct eps_out {
    int fd;
    int rc = 0;  // the first failed write
    void put(const void *bytes, int32_t n) {
        if (rc == 0) rc = write_all(fd, bytes, n);
    }
    void end_line() { put(LINE_END, sizeof LINE_END); }
    void line(const char *text) {
        put(text, static_cast<int32_t>(std::strlen(text)));
        end_line();
    }
    template <typename... A>
    void linef(const char *format, A... args) {
        char text[160];
        const int n = std::snprintf(text, sizeof text, format, args...);
        put(text, n < 0 ? 0 : n < static_cast<int>(sizeof text) ? n : static_cast<int>(sizeof text) - 1);
        end_line();
    }
};

// Packed bytes of one row: the stored stride without its padding to 4.
int32_t packed_row(int32_t width, int bits) {
    return bits == 1 ? (width + 7) / 8 : bits == 4 ? (width + 1) / 2 : bits == 24 ? width * 3 : width;
}

}  // namespace

int eps_put_hex(int fd, const uint8_t *bytes, int32_t count, uint8_t *scratch) {
    static const char digits[] = "0123456789ABCDEF";
    for (int32_t i = 0; i < count; i++) {
        scratch[2 * i] = static_cast<uint8_t>(digits[bytes[i] >> 4]);
        scratch[2 * i + 1] = static_cast<uint8_t>(digits[bytes[i] & 15]);
    }
    return write_all(fd, scratch, 2 * count);
}

BRIVANTA_WRITER(eps_write_file) {
    const int32_t width = header->biWidth, height = header->biHeight;
    const int bits = header->biBitCount;
    if (width < 1 || height < 1 || width > 0x3FFFFFF || height > 0x3FFFFFF) return IMG_ERR_HEADER;
    const int32_t packed = packed_row(width, bits);
    const uint32_t stride = row_bytes(width, bits);
    if (!stride) return IMG_ERR_HEADER;
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 100));
    auto *hex = static_cast<uint8_t *>(mem.take(2 * static_cast<uint32_t>(packed) + 16));
    if (!row || !hex) return IMG_ERR_MEMORY;

    const double f = 2400.0 / width;
    const int sw = static_cast<int>(width * f), sh = static_cast<int>(height * f);
    eps_out o{fd};
    o.line("%!PS-Adobe-2.0 EPSF-2.0");
    o.linef("%%%%BoundingBox: %d %d %d %d", 72, 72, 504, 720);
    o.line("gsave");
    o.line("/inch { 72 mul } def");
    o.linef("/pixel { 72 mul %d div } def", 300);
    o.linef("/imagetop { 10.75 inch %d pixel sub } def", 0);
    o.linef("/imagebottom { imagetop %d pixel sub } def", sh);
    o.linef("/imageleft { 0.25 inch %d pixel add } def", 0);
    o.linef("/picstr %d string def", packed);
    o.line("imageleft imagebottom translate");
    o.linef("%d pixel %d pixel scale", sw, sh);
    if (bits == 1) {
        // The colour table is not consulted: a 0 bit prints black.
        o.linef("%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} image", width, height, 1, width,
                -height, height);
    } else {
        // Each row byte indexes the palette string; 4- and 24-bit rows go
        // through the same procedure unchanged.
        o.put("/pal <", 6);
        const int entries = bits == 24 ? 0 : 1 << bits;
        const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
        for (int i = 0; i < entries && o.rc == 0; i++) {
            const uint8_t rgb[3] = {palette[4 * i + 2], palette[4 * i + 1], palette[4 * i]};
            o.rc = eps_put_hex(fd, rgb, 3, hex);
            if (i == entries - 1 || i % 16 == 15)
                o.end_line();
            else
                o.put(" ", 1);
        }
        o.line("> def");
        o.linef("/rgbstr %d string def", 3 * packed);
        o.line("/read_raw {currentfile picstr readhexstring pop} def");
        o.line("/read8_24 {");
        o.line("  read_raw");
        o.line("  /rgb_ndx 0 def");
        o.line("  {");
        o.line("     3 mul pal exch 3 getinterval rgbstr exch rgb_ndx exch putinterval");
        o.line("     /rgb_ndx rgb_ndx 3 add def");
        o.line("  } forall rgbstr");
        o.line("} def");
        o.linef("%d %d %d [%d 0 0 %d 0 %d] {read8_24} false 3 colorimage", width, height, bits, width, -height, height);
    }
    for (int32_t r = 0; r < height && o.rc == 0; r++) {
        if (int rc = get_row(context, row, r, static_cast<int>(stride)); rc < 0) return rc;
        o.rc = eps_put_hex(fd, row, packed, hex);
        o.end_line();
    }
    o.line("grestore");
    o.line("showpage");
    return o.rc;
}

BRIVANTA_READER(eps_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    uint8_t w[WRAPPER_SIZE] = {};
    if (file_seek(fd, start, 0) != start || read_fully(fd, w, WRAPPER_SIZE) != WRAPPER_SIZE) return IMG_ERR_HEADER;
    const uint32_t tiff_offset = get32(w + 20);
    if (get32(w) != EPS_MAGIC || tiff_offset == 0) return IMG_ERR_HEADER;
    const int64_t at = int64_t{start} + tiff_offset;
    if (at > 0x7FFFFFFF) return IMG_ERR_HEADER;
    int rc = tiff_decompress(static_cast<int32_t>(at), put_row, context, begin_image, fd);
    return rc == IMG_ERR_TYPE ? IMG_ERR_EPS_PREVIEW : rc;
}

}  // namespace brv
