// The table of formats.  Adding a format is one new codec file and one row
// here: its code, key, name, extension, probe, reader, writer, page counter
// and flags.  Detection tries the probes in probe_order, which is fixed and
// differs from code order; the variants of TIFF and BMP name their family.
#include "frame/formats.h"

#include "codecs/codecs.h"
#include "text/text.h"

#include <cstring>

namespace brv {

namespace {

bool is_tga(const uint8_t *b, int) {
    int t = b[2];
    if ((t == 1 || t == 2 || t == 3 || t == 9 || t == 10 || t == 11) && b[1] < 2) return true;
    int s = static_cast<int8_t>(b[0]);
    return s >= 24 && s <= 69 && b[2] == 0x9C;
}

bool is_cut(const uint8_t *b, int) {
    if (b[4] || b[5]) return false;
    if (!b[0] && !b[1]) return false;
    int w = static_cast<int16_t>(get16(b)), h = static_cast<int16_t>(get16(b + 2));
    return w >= 0 && w <= 4999 && h >= 0 && h <= 4999;
}

// PICT looks 512 bytes past the ten already read.
bool is_pict(const uint8_t *, int fd) {
    uint8_t p[10] = {};
    file_seek(fd, 512, 1);
    return file_read(fd, p, 10) > 0 && (p[0] == 0x11 || p[1] == 0x11);
}

// MacPaint steps 467 bytes back from where the PICT probe stopped, to the
// file-type field of a MacBinary header; with PICT off it reads elsewhere.
// A memory source answers reads past its end without data: those count as
// nothing read, or every short unknown file would be taken for MacPaint.
bool is_macpaint(const uint8_t *, int fd) {
    uint8_t m[10] = {};
    const int32_t at = file_seek(fd, -467, 1);
    if (at < 0 || at >= file_size_hint(fd)) return false;
    return file_read(fd, m, 10) > 0 && (std::memcmp(m, "PNT", 3) == 0 || get32(m) == 0);
}

constexpr uint8_t QUERIES = NAMED_BY_QUERY | NAMED_BY_FD_QUERY;

// A family: the row detection names.
constexpr format_info family(int code, const char *ext, const char *name, uint8_t flags, probe_fn probe,
                             reader_fn read = nullptr, writer_fn write = nullptr, page_count_fn pages = nullptr,
                             refine_fn refine = nullptr) {
    return {code, ext, name, ext, code, code, flags, probe, read, write, pages, refine};
}
// A code detection never names: a variant of a family, or an output only.
// It shares its family's auto-detect flag unless given its own.
constexpr format_info variant(int code, const char *key, const char *name, const char *ext, int of, uint8_t flags,
                              writer_fn write, int flag = -1) {
    return {code, key, name, ext, of, flag < 0 ? of : flag, flags, nullptr, nullptr, write, nullptr, nullptr};
}

}  // namespace

constexpr format_info formats[FORMAT_COUNT] = {
    family(0, "tif", "TIFF, uncompressed", SAVED_BY_NAME | QUERIES | APPENDS,
           [](const uint8_t *b, int) { return (b[0] == 'M' && b[1] == 'M') || (b[0] == 'I' && b[1] == 'I'); },
           tiff_decompress, tiff_write_uncompressed, tiff_page_count, tiff_refine_type),
    family(1, "bmp", "BMP", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return (b[0] == 'B' && b[1] == 'M') || get32(b) == 40; }, bmp_read, bmp_write,
           nullptr, bmp_refine_type),
    family(2, "pcx", "PCX", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return b[0] == 10; },
           pcx_decompress, pcx_write),
    family(3, "tga", "Targa", SAVED_BY_NAME | QUERIES, is_tga, targa_read_file, targa_write_file),
    family(4, "gif", "GIF", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b, "GIF", 3) == 0; }, gif_decompress, gif_write),
    family(5, "wpg", "WordPerfect graphics", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b + 1, "WPC", 3) == 0; }, wpg_read_file, wpg_write_file),
    family(6, "wmf", "Windows metafile", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return get32(b) == 0x9AC6CDD7u || b[0] == 1 || b[1] == 2; }, wmf_read_file,
           wmf_write_file),
    variant(7, "tif-huffman", "TIFF, CCITT modified Huffman", "tif", 0, APPENDS, tiff_write_huffman),
    variant(8, "tif-g3", "TIFF, CCITT Group 3", "tif", 0, APPENDS, tiff_write_g3),
    variant(9, "tif-lzw", "TIFF, LZW", "tif", 0, APPENDS, tiff_write_lzw),
    variant(10, "tif-g4", "TIFF, CCITT Group 4", "tif", 0, APPENDS, tiff_write_g4),
    family(11, "dcx", "DCX", SAVED_BY_NAME | QUERIES | APPENDS,
           [](const uint8_t *b, int) { return get32(b) == 0x3ADE68B1u; }, dcx_decompress, dcx_write, dcx_page_count),
    variant(12, "bmp-rle", "BMP, run-length compressed", "bmp", 1, 0, bmp_write_rle),
    family(13, "jpg", "JPEG", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return b[0] == 0xFF && b[1] == 0xD8; },
           jpeg_read_file, jpeg_write_file),
    family(14, "eps", "EPS", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return get32(b) == 0xC6D3D0C5u; },
           eps_read_file, eps_write_file),
    family(15, "pct", "PICT", SAVED_BY_NAME | QUERIES, is_pict, pict_read_file, pict_write_file),
    variant(16, "tif-packbits", "TIFF, PackBits", "tif", 0, APPENDS, tiff_write_packbits),
    variant(17, "tif-45", "TIFF, compression 45", "tif", 0, 0, nullptr),
    family(18, "cal", "CALS", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return std::memcmp(b, "src", 3) == 0; },
           cals_read_file, cals_write_file),
    family(19, "lsd", "LSD", QUERIES, [](const uint8_t *b, int) { return b[0] == 0xDC && b[1] == 0xDC; }),
    // The X formats and Sun raster are left out of the _fd and _mem queries.
    family(20, "xbm", "X bitmap", SAVED_BY_NAME | NAMED_BY_QUERY,
           [](const uint8_t *b, int) { return std::memcmp(b, "#define", 7) == 0; }, xbm_decompress,
           xbm_write_file),
    family(21, "mac", "MacPaint", QUERIES, is_macpaint, macpaint_read_file),
    family(22, "gx2", "GX2", QUERIES, [](const uint8_t *b, int) { return std::memcmp(b, "GX2", 3) == 0; }),
    family(23, "kfx", "Kofax", QUERIES, [](const uint8_t *b, int) { return std::memcmp(b, ".KF", 3) == 0; }),
    family(24, "ica", "IOCA", QUERIES,
           [](const uint8_t *b, int) {
               return (b[2] == 0xD3 && b[3] == 0xA6 && b[4] == 0xFB) || (b[2] == 0xD3 && b[3] == 0xA8 && b[4] == 0xA8) ||
                      b[0] == 'p';
           }),
    family(25, "ico", "Windows icon", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return get32(b) == 0x00010000u && (b[6] == 16 || b[6] == 32 || b[6] == 64); },
           ico_decompress, ico_write_file),
    family(26, "iff", "IFF", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return std::memcmp(b, "FORM", 4) == 0; },
           iff_read_file, iff_write_file),
    family(27, "clp", "Windows clipboard file", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return b[0] == 'P' && b[1] == 0xC3; }, clp_read_file, clp_write_file),
    family(28, "img", "GEM image", QUERIES,
           [](const uint8_t *b, int) { return b[0] == 0 && b[1] == 1 && b[2] == 0 && (b[3] == 9 || b[3] == 8); },
           gem_read_file),
    family(29, "btr", "BTR", SAVED_BY_NAME | QUERIES, [](const uint8_t *b, int) { return b[0] == 0xBB && b[3] == 1; }),
    // Version 2 files start "LinS", version 1 files "DanM".
    family(30, "msp", "Microsoft Paint", QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b, "Lin", 3) == 0 || std::memcmp(b, "DanM", 4) == 0; },
           msp_decompress),
    family(31, "cut", "CUT", QUERIES, is_cut, cut_decompress),
    variant(32, "tga-15", "Targa, 15-bit", "tga", 3, 0, targa_write_file_15bit, 32),
    variant(33, "fax-g3", "CCITT Group 3, raw", "g3", 33, 0, fax_write_g3),
    variant(34, "fax-g4", "CCITT Group 4, raw", "g4", 34, 0, fax_write_g4),
    family(35, "xpm", "X pixmap", SAVED_BY_NAME | NAMED_BY_QUERY,
           [](const uint8_t *b, int) { return std::memcmp(b, "/* XPM */", 9) == 0; }, xpm_read_file,
           xpm_write_file),
    family(36, "xwd", "X window dump", SAVED_BY_NAME | NAMED_BY_QUERY,
           [](const uint8_t *b, int) { return b[4] == 0 && b[5] == 0 && b[6] == 0 && b[7] == 7; }, xwd_read_file,
           xwd_write_file),
    family(37, "ras", "Sun raster", SAVED_BY_NAME | NAMED_BY_QUERY,
           [](const uint8_t *b, int) { return get32be(b) == 0x59A66A95u; }, sunras_read_file, sunras_write_file),
    family(38, "txt", "text", NAMED_BY_QUERY, [](const uint8_t *b, int) { return std::memchr(b, 0, 10) == nullptr; },
           text_read, nullptr, text_page_count),
    family(39, "pcd", "PhotoCD", QUERIES, [](const uint8_t *b, int) { return get32(b) == 0xFFFFFFFFu; }, pcd_read_file),
    variant(40, "tif-jpeg", "TIFF, JPEG", "tif", 0, APPENDS, tiff_write_jpeg),
    family(41, "psd", "Photoshop", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b, "8BPS", 4) == 0; }, psd_read_file,
           psd_write_file),
    // Loads, but the type queries report it unknown.
    family(42, "imt", "IMT", SAVED_BY_NAME,
           [](const uint8_t *b, int) { return std::memcmp(b, "'C1", 4) == 0; }),  // includes the zero byte
    // Extensions of the table from here on.
    // Four bytes of the signature: a hook that trickles may bring no more at
    // first; the reader checks all eight.
#ifdef BRIVANTA_NO_PNG
    family(43, "png", "PNG", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b, "\x89PNG", 4) == 0; }),
#else
    family(43, "png", "PNG", SAVED_BY_NAME | QUERIES,
           [](const uint8_t *b, int) { return std::memcmp(b, "\x89PNG", 4) == 0; }, png_read_file, png_write_file),
#endif
};

// The first thirty-one look at the first ten bytes only; PICT and MacPaint,
// which read further on, come last and in this order.
const uint8_t probe_order[] = {0,  4,  1,  14, 11, 13, 5,  18, 23, 42, 26, 22, 19, 2,  25, 3,
                               6,  24, 39, 27, 28, 29, 30, 20, 35, 36, 37, 31, 38, 41, 43, 15, 21};
const int probe_order_size = sizeof probe_order;

static_assert([] {
    for (int i = 0; i < FORMAT_COUNT; i++)
        if (formats[i].code != i) return false;
    return true;
}());

}  // namespace brv
