// The TIFF reader: header and IFD walk in both byte orders, page selection,
// the DIB header and palette, strip lookup, the uncompressed, PackBits,
// CCITT and LZW strip decoders, the row converter and planar reassembly.
#include "codecs/ccitt.h"
#include "codecs/codecs.h"
#include "codecs/lzw.h"
#include "codecs/tiff.h"
#include "colour/colour.h"
#include "frame/byte_source.h"

#include <cmath>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace brv {

namespace {

constexpr uint32_t WHOLE_IMAGE = 0xFFFFFFFE;  // rows per strip when the tag is absent
constexpr uint32_t FIRST_IFD_MAX = 550;
constexpr uint32_t LATER_IFD_MIN = 5, LATER_IFD_MAX = 300;
constexpr uint32_t MAX_ROW = 1u << 28;  // a working row beyond this is refused as out of memory
constexpr double CENTIMETRE_FACTOR = 2.567;

// Values that survive from one IFD to the next and from one decode to the next.
uint32_t jpeg_tables[3];

struct tiff_reader {
    int fd;
    int32_t base;
    int32_t size;  // the source's known size
    bool mm;
    tiff_tag_record rec;
    tiff_ifd_entry strip_entry;
    tiff_jpeg_tags jpeg;
    uint32_t resolution_unit;
    uint8_t *entries;  // raw entries of the current IFD and its next offset

    // strip lookup
    uint8_t *strip_array;
    uint32_t strip_array_count;
    bool strip_array_loaded;

    // callbacks
    IMG_put_row_fn put_row;
    void *user;

    // row conversion
    uint32_t row_size;  // decoded bytes of one row (of one plane when planar)
    uint32_t bits;      // bits per sample
    uint32_t samples;
    bool planar;
    bool ycbcr_full;  // YCbCr rows that are not subsampled: Y, Cb, Cr per pixel
    bool plain_rgb;   // chunky 8-bit RGB without predictor: only the byte order changes
    uint8_t *work, *out;
    bool sink_failed;

    // planar images go through a temporary file
    int plane;
    uint32_t plane_row_bytes;
    int temp_fd;
    char temp_name[TEMP_NAME_SIZE];
};

uint16_t u16(const tiff_reader &r, const uint8_t *p) { return r.mm ? get16be(p) : get16(p); }
uint32_t u32(const tiff_reader &r, const uint8_t *p) { return r.mm ? get32be(p) : get32(p); }

// Reads n bytes at base + offset, never past the source's end; the rest of
// the buffer is zeroed.  Returns the bytes read.
int32_t read_at(tiff_reader &r, uint32_t offset, void *buf, int32_t n) {
    std::memset(buf, 0, static_cast<size_t>(n));
    return read_once_at(r.fd, r.size, static_cast<int64_t>(r.base) + offset, buf, n);
}

// Reads from the current position, never past the source's end.
int32_t read_here(tiff_reader &r, uint8_t *buf, int32_t n) {
    const int32_t left = bytes_left(r.fd, r.size);
    return read_once(r.fd, buf, n < left ? n : left);
}

// ---- Entries ------------------------------------------------------------------------
tiff_ifd_entry entry_at(const tiff_reader &r, const uint8_t *p) {
    tiff_ifd_entry e;
    if (!r.mm) {
        e = {get16(p), get16(p + 2), get32(p + 4), get32(p + 8)};
        return e;
    }
    e.tag = get16be(p);
    e.type = get16be(p + 2);
    e.count = get32be(p + 4);
    const uint8_t *v = p + 8;
    // The value field is swapped by its type, as a whole word or by halves.
    if (e.type == TIFF_BYTE && e.count < 5)
        e.value = static_cast<uint32_t>(v[1] | v[0] << 8 | v[2] << 16) | static_cast<uint32_t>(v[3]) << 24;
    else if (e.type == TIFF_SHORT && e.count < 3)
        e.value = get16be(v) | static_cast<uint32_t>(get16be(v + 2)) << 16;
    else if (e.type == TIFF_SHORT || e.type == TIFF_BYTE || e.type == TIFF_ASCII || e.type == TIFF_LONG ||
             e.type == TIFF_RATIONAL)
        e.value = get32be(v);
    else
        e.value = get32(v);
    return e;
}

// The first value of an entry.
uint32_t tiff_tag_value(tiff_reader &r, const tiff_ifd_entry &e) {
    uint8_t b[8];
    switch (e.type) {
    case TIFF_BYTE:
        if (e.count > 4) {
            read_at(r, e.value, b, 1);
            return b[0];
        }
        return e.value & 0xFF;
    case TIFF_ASCII:
        if (e.count > 1) {
            read_at(r, e.value, b, 4);
            return u32(r, b);
        }
        return e.value;
    case TIFF_SHORT:
        if (e.count == 2) return e.value;
        if (e.count > 2) {
            read_at(r, e.value, b, 2);
            return u16(r, b);
        }
        return e.value & 0xFFFF;
    case TIFF_LONG:
        if (e.count != 1) {
            read_at(r, e.value, b, 4);
            return u32(r, b);
        }
        return e.value;
    case TIFF_RATIONAL:
        read_at(r, e.value, b, 4);
        return u32(r, b);
    default: return 0;
    }
}

uint32_t resolution(tiff_reader &r, const tiff_ifd_entry &e) {
    if (e.type != TIFF_RATIONAL) return tiff_tag_value(r, e);
    uint8_t b[8];
    read_at(r, e.value, b, 8);
    uint32_t num = u32(r, b), den = u32(r, b + 4);
    return den ? num / den : num;
}

// Author and date texts go to the frame, which keeps them for the writers
// that embed them.
void report_text(tiff_reader &r, uint32_t offset, int32_t length, bool is_date) {
    char text[201];
    read_at(r, offset, text, length);
    text[length] = 0;
    report_identification(is_date ? nullptr : text, is_date ? text : nullptr);
}

void apply_entry(tiff_reader &r, tiff_ifd_entry e) {
    tiff_tag_record &t = r.rec;
    switch (e.tag) {
    case TAG_IMAGE_WIDTH: e.count = 1; t.width = tiff_tag_value(r, e); break;
    case TAG_IMAGE_LENGTH: e.count = 1; t.height = tiff_tag_value(r, e); break;
    case TAG_BITS_PER_SAMPLE: t.bits_per_sample = tiff_tag_value(r, e) & 0xFFFF; break;
    case TAG_COMPRESSION: t.compression = tiff_tag_value(r, e); break;
    case TAG_PHOTOMETRIC: t.photometric = tiff_tag_value(r, e); break;
    case TAG_FILL_ORDER: t.fill_order = tiff_tag_value(r, e); break;
    case TAG_STRIP_OFFSETS:
        r.strip_entry = e;
        t.strip_offsets = tiff_tag_value(r, e);
        break;
    case TAG_SAMPLES_PER_PIXEL: t.samples_per_pixel = tiff_tag_value(r, e); break;
    case TAG_ROWS_PER_STRIP: t.rows_per_strip = tiff_tag_value(r, e); break;
    case TAG_STRIP_BYTE_COUNTS:
        r.jpeg.counts = e;
        t.strip_byte_counts = tiff_tag_value(r, e);
        break;
    case TAG_TILE_BYTE_COUNTS: r.jpeg.counts = e; break;
    case TAG_JPEG_PROC: r.jpeg.proc = tiff_tag_value(r, e); break;
    case TAG_JPEG_RESTART_INTERVAL: r.jpeg.restart_interval = tiff_tag_value(r, e); break;
    case TAG_X_RESOLUTION: t.x_resolution = resolution(r, e); break;
    case TAG_Y_RESOLUTION: t.y_resolution = resolution(r, e); break;
    case TAG_PLANAR_CONFIG:
        if (t.samples_per_pixel == 3 || t.samples_per_pixel == 4) t.planar_config = tiff_tag_value(r, e);
        break;
    case TAG_GRAY_RESPONSE_UNIT: t.gray_response_unit = tiff_tag_value(r, e); break;
    case TAG_GRAY_RESPONSE_CURVE: t.gray_response_curve = e.value; break;
    case TAG_T4_OPTIONS:
        if ((tiff_tag_value(r, e) & 1) && t.compression == 3) t.compression = TIFF_COMPRESSION_G3_2D;
        break;
    case TAG_RESOLUTION_UNIT: r.resolution_unit = tiff_tag_value(r, e); break;
    case TAG_DATE_TIME: report_text(r, e.value, 40, true); break;
    case TAG_ARTIST: report_text(r, e.value, 200, false); break;
    case TAG_PREDICTOR: t.predictor = tiff_tag_value(r, e); break;
    case TAG_COLOR_MAP: t.color_map = e.value; break;
    case TAG_TILE_WIDTH: e.count = 1; t.width = tiff_tag_value(r, e); break;
    case TAG_TILE_LENGTH: e.count = 1; t.height = tiff_tag_value(r, e); break;
    case TAG_TILE_OFFSETS:
        t.tiled = 1;
        r.strip_entry = e;
        t.strip_offsets = tiff_tag_value(r, e);
        break;
    case TAG_JPEG_INTERCHANGE: t.jpeg_interchange = tiff_tag_value(r, e); break;
    case TAG_JPEG_Q_TABLES: jpeg_tables[0] = e.value; break;
    case TAG_JPEG_DC_TABLES: jpeg_tables[1] = e.value; break;
    case TAG_JPEG_AC_TABLES: jpeg_tables[2] = e.value; break;
    case TAG_YCBCR_SUBSAMPLING: t.ycbcr_subsampling = e.value; break;
    default: break;
    }
}

void reset_record(tiff_reader &r) {
    r.rec = tiff_tag_record{};
    r.rec.rows_per_strip = WHOLE_IMAGE;
    r.rec.samples_per_pixel = 1;
    r.rec.bits_per_sample = 1;
    r.rec.compression = 1;
    r.rec.fill_order = 1;
    r.rec.planar_config = 1;
    r.rec.predictor = 1;
    r.strip_entry = tiff_ifd_entry{};
    r.jpeg = tiff_jpeg_tags{};
    r.resolution_unit = 0;
}

uint32_t scale_resolution(uint32_t v) {
    double d = std::trunc(v * CENTIMETRE_FACTOR);
    return d >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(d);
}

bool is_fax(uint32_t compression) {
    return compression == 2 || compression == 3 || compression == 4 || compression == TIFF_COMPRESSION_G3_2D;
}

// Parses the IFD at base + ifd holding count entries; returns the next
// IFD's offset, 0 when the chain ends there.
uint32_t tiff_read_ifd(tiff_reader &r, uint32_t ifd, uint32_t count) {
    reset_record(r);
    int32_t n = static_cast<int32_t>(count * 12 + 4);
    read_at(r, ifd + 2, r.entries, n);
    for (uint32_t i = 0; i < count; i++) apply_entry(r, entry_at(r, r.entries + 12 * i));
    uint32_t next = u32(r, r.entries + 12 * count);
    if (is_fax(r.rec.compression)) r.rec.photometric ^= 1;  // fax rows come with 1-bits white
    if (r.resolution_unit == 3) {
        r.rec.x_resolution = scale_resolution(r.rec.x_resolution);
        r.rec.y_resolution = scale_resolution(r.rec.y_resolution);
    }
    if (next) {
        uint8_t b[2];
        if (read_at(r, next, b, 2) < 2) return 0;
        uint32_t c = u16(r, b);
        if (c < LATER_IFD_MIN || c > LATER_IFD_MAX) return 0;
    }
    return next;
}

// Opens the header at base.  The first IFD's offset and entry count, or a
// negative code.
int open_header(tiff_reader &r, uint32_t *ifd, uint32_t *count) {
    uint8_t h[8];
    if (read_at(r, 0, h, 8) < 8) return IMG_ERR_HEADER;
    uint16_t order = get16(h);
    if (order != TIFF_II && order != TIFF_MM) return IMG_ERR_TYPE;
    r.mm = order == TIFF_MM;
    *ifd = u32(r, h + 4);
    uint8_t c[2];
    read_at(r, *ifd, c, 2);
    int16_t n = static_cast<int16_t>(u16(r, c));
    if (n < 0 || static_cast<uint32_t>(n) > FIRST_IFD_MAX) return IMG_ERR_HEADER;
    *count = static_cast<uint32_t>(n);
    return 0;
}

// An IFD takes at least 66 bytes, so a source holds no more of them than
// this; a chain that loops is cut there.
uint32_t ifd_limit(const tiff_reader &r) {
    uint32_t by_size = static_cast<uint32_t>(r.size / 66) + 1;
    return by_size < 65536 ? by_size : 65536;
}

bool reader_open(tiff_reader &r, int fd, int32_t base) {
    r = tiff_reader{};
    r.fd = fd;
    r.base = base;
    r.size = file_size_hint(fd);
    r.temp_fd = -1;
    // JPEG tables carry over between the IFDs of one file, never between files.
    std::memset(jpeg_tables, 0, sizeof jpeg_tables);
    r.entries = static_cast<uint8_t *>(scratch_alloc(FIRST_IFD_MAX * 12 + 8));
    return r.entries != nullptr;
}

// Walks the chain to the wanted page; 0 or a negative code.
int walk(tiff_reader &r, uint32_t wanted) {
    uint32_t ifd, count;
    if (int rc = open_header(r, &ifd, &count); rc < 0) return rc;
    uint32_t page = 0, limit = ifd_limit(r);
    for (;;) {
        uint32_t next = tiff_read_ifd(r, ifd, count);
        if (!next || page == wanted || r.rec.tiled || page + 1 >= limit) break;
        uint8_t b[2];
        read_at(r, next, b, 2);
        count = u16(r, b);
        ifd = next;
        page++;
    }
    if (r.rec.tiled) {
        r.rec.tiled = wanted;  // the page number picks the tile
    } else if (wanted && page != wanted) {
        return IMG_ERR_PAGE;
    }
    return 0;
}

// ---- DIB header and palette ------------------------------------------------------------
int dib_bits(uint32_t samples, uint32_t bits) {
    uint64_t product = samples == 2 ? bits : static_cast<uint64_t>(samples) * bits;
    uint64_t count = product;
    bool adjusted = false;
    if (product != 32 && samples != 3) {
        if (product == 2 || product == 3) {
            count = 4;
            adjusted = true;
        } else if (product > 8 && samples == 1) {
            count = 8;
            adjusted = true;
        }
    }
    if (product == 32 || samples == 3 || (samples == 4 && bits == 4) || (samples >= 5 && !adjusted)) count = 24;
    return count > 24 ? 0 : static_cast<int>(count);
}

void read_palette(tiff_reader &r, dib_header &h) {
    const uint32_t n = 1u << h.info.biBitCount;
    uint16_t map[3 * 256];
    uint8_t raw[6 * 256];
    const tiff_tag_record &t = r.rec;
    read_at(r, t.gray_response_curve ? t.gray_response_curve : t.color_map, raw, static_cast<int32_t>(6 * n));
    for (uint32_t i = 0; i < 3 * n; i++) map[i] = u16(r, raw + 2 * i);
    uint8_t *pal = h.palette;
    if (!t.gray_response_curve) {
        // Maps written with 8-bit values are taken as they are.
        auto scale = [](uint16_t v) { return static_cast<uint8_t>(v >= 256 ? v >> 8 : v); };
        for (uint32_t i = 0; i < n; i++) {
            pal[4 * i + 2] = scale(map[i]);
            pal[4 * i + 1] = scale(map[n + i]);
            pal[4 * i] = scale(map[2 * n + i]);
        }
        return;
    }
    double divisor = 2 * std::pow(10.0, static_cast<double>(t.gray_response_unit));
    for (uint32_t i = 0; i < n; i++) {
        double v = std::trunc(255 / std::pow(10.0, map[i] / divisor));
        uint8_t g = !(v > 0) ? 0 : v >= 255 ? 255 : static_cast<uint8_t>(v);
        pal[4 * i] = pal[4 * i + 1] = pal[4 * i + 2] = g;
    }
}

// ---- Strip lookup ------------------------------------------------------------------------
// Positions the file at strip k: 0, IMG_ERR_DATA when the strip has no
// offset, IMG_ERR_MEMORY when the offset array cannot be loaded.
int tiff_strip_seek(tiff_reader &r, uint32_t k) {
    if (r.rec.tiled) k = r.rec.tiled;
    const tiff_ifd_entry &e = r.strip_entry;
    // A strip the entry does not list has no data: one offset serving every
    // strip would let a few bytes stand for any number of rows.
    if (!r.rec.tiled && k >= e.count) return IMG_ERR_DATA;
    uint32_t offset;
    if (e.count == 1 && e.type == TIFF_LONG) {
        offset = e.value;
    } else if (e.count < 5 && e.type == TIFF_BYTE) {
        offset = e.value;
    } else if (e.count < 3 && e.type == TIFF_SHORT) {
        offset = k == 0 ? e.value & 0xFFFF : e.value >> 16;
    } else {
        const uint32_t size = e.type == TIFF_SHORT ? 2 : 4;
        if (!r.strip_array_loaded) {
            r.strip_array_loaded = true;
            int64_t at = static_cast<int64_t>(r.base) + e.value;
            int64_t room = at < r.size ? (r.size - at) / size : 0;
            uint32_t n = e.count < room ? e.count : static_cast<uint32_t>(room);
            if (n > (1u << 24)) n = 1u << 24;
            if (n) {
                r.strip_array = static_cast<uint8_t *>(scratch_alloc(n * size));
                if (!r.strip_array) {
                    r.strip_array_loaded = false;
                    return IMG_ERR_MEMORY;
                }
                r.strip_array_count = static_cast<uint32_t>(read_at(r, e.value, r.strip_array, static_cast<int32_t>(n * size))) / size;
            }
        }
        if (k >= r.strip_array_count) return IMG_ERR_DATA;
        offset = size == 2 ? u16(r, r.strip_array + 2 * k) : u32(r, r.strip_array + 4 * k);
    }
    int64_t at = static_cast<int64_t>(r.base) + offset;
    if (at > 0x7FFFFFFF || file_seek(r.fd, static_cast<int32_t>(at), 0) < 0) return IMG_ERR_DATA;
    return 0;
}

// ---- Row converter ---------------------------------------------------------------------------
int deliver(tiff_reader &r, uint8_t *row, int index) {
    int rc = r.put_row(row, r.user, index, static_cast<int>(r.rec.dib_row_bytes));
    if (rc < 0) r.sink_failed = true;
    return rc < 0 ? rc : 0;
}

// Keeps the first (most significant in "MM" files) byte of every sample.
void first_bytes(uint8_t *w, uint32_t samples) {
    for (uint32_t i = 0; i < samples; i++) w[i] = w[2 * i];
}

void undo_predictor(uint8_t *w, uint32_t n, uint32_t stride) {
    for (uint32_t i = stride; i < n; i++) w[i] = static_cast<uint8_t>(w[i] + w[i - stride]);
}

inline uint8_t ink(int a, int b) { return a + b >= 255 ? 0 : static_cast<uint8_t>(255 - (a + b)); }
inline uint8_t clamp255(int v) { return v < 0 ? 0 : v > 255 ? 255 : static_cast<uint8_t>(v); }
inline int nibble(const uint8_t *w, uint32_t i) { return (w[i >> 1] >> ((i & 1) ? 0 : 4)) & 15; }
inline int bit(const uint8_t *w, uint32_t i) { return (w[i >> 3] >> (7 - (i & 7))) & 1; }

// Sample i of a packed row of Bits-bit samples, as the 24-bit row wants it:
// bytes as they are, nibbles in the high half, bits as 128 or 0.
template <int Bits>
inline uint8_t sample_at(const uint8_t *w, uint32_t i) {
    if constexpr (Bits == 8)
        return w[i];
    else if constexpr (Bits == 4)
        return static_cast<uint8_t>(nibble(w, i) << 4);
    else
        return static_cast<uint8_t>(bit(w, i) << 7);
}

// The first three of spp samples per pixel, reversed into a BGR row.
template <int Bits>
void colour_row(const uint8_t *w, uint8_t *out, uint32_t width, uint32_t spp) {
    for (uint32_t x = 0, i = 0; x < width; x++, i += spp, out += 3) {
        out[0] = sample_at<Bits>(w, i + 2);
        out[1] = sample_at<Bits>(w, i + 1);
        out[2] = sample_at<Bits>(w, i);
    }
}

// Cyan, magenta, yellow and, when there is a fourth sample, black.
template <bool Black>
void cmyk_row(const uint8_t *w, uint8_t *out, uint32_t width, uint32_t spp) {
    for (uint32_t x = 0; x < width; x++, w += spp, out += 3) {
        const int k = Black ? w[3] : 0;
        out[0] = ink(w[2], k);
        out[1] = ink(w[1], k);
        out[2] = ink(w[0], k);
    }
}

void rgb_to_bgr(const uint8_t *p, uint8_t *out, uint32_t width);

// Samples of three or more per pixel, chunky: to a 24-bit BGR row in out.
void convert_colour(tiff_reader &r, const uint8_t *w, uint8_t *out, uint32_t bits) {
    const uint32_t width = r.rec.width, spp = r.samples;
    switch (bits == 8 ? r.rec.photometric : 0) {
    case 5:
        if (spp >= 4)
            cmyk_row<true>(w, out, width, spp);
        else
            cmyk_row<false>(w, out, width, spp);
        return;
    case 8:  // CIE L*a*b*: L 0-255 for 0-100, a and b signed
        for (uint32_t x = 0; x < width; x++) {
            const uint8_t *p = w + spp * x;
            cielab_to_bgr(p[0] * (100.0 / 255.0), static_cast<int8_t>(p[1]), static_cast<int8_t>(p[2]), out + 3 * x);
        }
        return;
    default: break;
    }
    switch (bits) {
    case 8:
        if (spp == 3)
            rgb_to_bgr(w, out, width);
        else
            colour_row<8>(w, out, width, spp);
        return;
    case 4: colour_row<4>(w, out, width, spp); return;
    case 1: colour_row<1>(w, out, width, spp); return;
    default: return;
    }
}

// Two pixels from each group of Y1, Y2, Cb, Cr; or, for rows that are not
// subsampled, one pixel from each Y, Cb, Cr.
void convert_ycbcr(const uint8_t *w, uint8_t *out, uint32_t width, bool full) {
    const uint32_t step = full ? 1 : 2;
    for (uint32_t x = 0; x < width; x += step) {
        const uint8_t *g = full ? w + 3 * x : w + 2 * x;
        int cb = g[step] - 128, cr = g[step + 1] - 128;
        int db = static_cast<int>(1.772 * cb), dg = static_cast<int>(0.71414 * cr + 0.34414 * cb),
            dr = static_cast<int>(1.402 * cr);
        for (uint32_t k = 0; k < step; k++) {
            int y = g[k];
            uint8_t *o = out + 3 * (x + k);
            o[0] = clamp255(y + db);
            o[1] = clamp255(y - dg);
            o[2] = clamp255(y + dr);
        }
    }
}

int write_plane_row(tiff_reader &r, const uint8_t *w, int index) {
    int64_t at = (static_cast<int64_t>(r.plane) * r.rec.height + index) * r.plane_row_bytes;
    if (index < 0 || static_cast<uint32_t>(index) >= r.rec.height || at > 0x7FFFFFFF) return 0;
    if (os_seek(r.temp_fd, static_cast<int32_t>(at), 0) != at) return IMG_ERR_CREATE;
    if (os_write(r.temp_fd, w, static_cast<int32_t>(r.plane_row_bytes)) != static_cast<int32_t>(r.plane_row_bytes)) {
        r.sink_failed = true;
        return IMG_ERR_WRITE;
    }
    return 0;
}

// RGB rows of 8-bit samples straight to BGR: sixteen pixels per step of
// three 16-byte shuffles where the processor has them, the rest a pixel at
// a time.  Stores never overlap, so each output byte is written once, and
// every path reads a step before writing it, so a row may be swapped in place.
#if defined(__x86_64__) || defined(__i386__)
// The row byte that byte o of a swapped row comes from.
constexpr int swapped_from(int o) { return o - 2 * (o % 3) + 2; }

// Which byte of input vector v lands at each byte of output vector k (-1: none).
struct swap_masks {
    int8_t m[3][3][16] = {};
    constexpr swap_masks() {
        for (int k = 0; k < 3; k++)
            for (int v = 0; v < 3; v++)
                for (int j = 0; j < 16; j++) {
                    const int from = swapped_from(16 * k + j);
                    m[k][v][j] = static_cast<int8_t>(from / 16 == v ? from % 16 : -1);
                }
    }
};
constexpr swap_masks SWAP{};

__attribute__((target("ssse3"))) uint32_t rgb_to_bgr_ssse3(const uint8_t *p, uint8_t *out, uint32_t width) {
    auto mask = [](int k, int v) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(SWAP.m[k][v])); };
    const __m128i m00 = mask(0, 0), m01 = mask(0, 1), m10 = mask(1, 0), m11 = mask(1, 1), m12 = mask(1, 2);
    const __m128i m21 = mask(2, 1), m22 = mask(2, 2);
    const uint32_t steps = width / 16;
    for (uint32_t i = 0; i < steps * 48; i += 48) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i + 32));
        const __m128i o0 = _mm_or_si128(_mm_shuffle_epi8(a, m00), _mm_shuffle_epi8(b, m01));
        const __m128i o1 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, m10), _mm_shuffle_epi8(b, m11)),
                                        _mm_shuffle_epi8(c, m12));
        const __m128i o2 = _mm_or_si128(_mm_shuffle_epi8(b, m21), _mm_shuffle_epi8(c, m22));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), o0);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i + 16), o1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i + 32), o2);
    }
    return steps * 16;
}
// With byte permutes across a whole 64-byte register, each store fills a
// full cache line: cold bitmap rows then cost one store per line.
struct wide_swap_index {
    uint8_t v[3][64] = {};
    constexpr wide_swap_index() {
        for (int k = 0; k < 3; k++)
            for (int j = 0; j < 64; j++) {
                // Block k is built from the 128 bytes that start 2k bytes before it.
                const int from = swapped_from(64 * k + j);
                v[k][j] = static_cast<uint8_t>(from - (64 * k - 2 * k));
            }
    }
};
constexpr wide_swap_index WIDE_SWAP{};

__attribute__((target("avx512f,avx512bw,avx512vbmi"))) uint32_t rgb_to_bgr_vbmi(const uint8_t *p, uint8_t *out,
                                                                                    uint32_t width) {
    const __m512i i0 = _mm512_loadu_si512(WIDE_SWAP.v[0]), i1 = _mm512_loadu_si512(WIDE_SWAP.v[1]);
    const __m512i i2 = _mm512_loadu_si512(WIDE_SWAP.v[2]);
    const uint32_t bytes = 3 * width;
    uint32_t i = 0;
    // 64 pixels a step; the last load of a step reaches 62 bytes past it.
    // Every load of a step comes before its stores, so out may be p.
    for (; i + 192 + 62 <= bytes; i += 192) {
        const __m512i a = _mm512_loadu_si512(p + i), b = _mm512_loadu_si512(p + i + 64);
        const __m512i c = _mm512_loadu_si512(p + i + 62), d = _mm512_loadu_si512(p + i + 126);
        const __m512i e = _mm512_loadu_si512(p + i + 124), f = _mm512_loadu_si512(p + i + 188);
        _mm512_storeu_si512(out + i, _mm512_permutex2var_epi8(a, i0, b));
        _mm512_storeu_si512(out + i + 64, _mm512_permutex2var_epi8(c, i1, d));
        _mm512_storeu_si512(out + i + 128, _mm512_permutex2var_epi8(e, i2, f));
    }
    return i / 3;
}
const bool have_ssse3 = (__builtin_cpu_init(), __builtin_cpu_supports("ssse3"));
const bool have_vbmi = __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512bw");
bool simd_swap = have_ssse3, wide_swap = have_vbmi;
#endif

// The 16-pixel shuffle steps, then single pixels; out may be p.
void rgb_to_bgr_narrow(const uint8_t *p, uint8_t *out, uint32_t width) {
    uint32_t x = 0;
#if defined(__x86_64__) || defined(__i386__)
    if (simd_swap) x = rgb_to_bgr_ssse3(p, out, width);
#endif
    for (p += 3 * x, out += 3 * x; x < width; x++, p += 3, out += 3) {
        const uint8_t r = p[0];
        out[0] = p[2];
        out[1] = p[1];
        out[2] = r;
    }
}

void rgb_to_bgr(const uint8_t *p, uint8_t *out, uint32_t width) {
#if defined(__x86_64__) || defined(__i386__)
    if (wide_swap && width >= 128) {
        // Led in so the wide stores start on a cache line (3 x 43 = 1 mod 64):
        // a store split across two lines costs two.
        const uint32_t lead = static_cast<uint32_t>((-reinterpret_cast<uintptr_t>(out) & 63) * 43 & 63);
        rgb_to_bgr_narrow(p, out, lead);
        const uint32_t x = lead + rgb_to_bgr_vbmi(p + 3 * lead, out + 3 * lead, width - lead);
        rgb_to_bgr_narrow(p + 3 * x, out + 3 * x, width - x);
        return;
    }
#endif
    rgb_to_bgr_narrow(p, out, width);
}

}  // namespace

void swap_red_blue(const uint8_t *p, uint8_t *out, uint32_t width) { rgb_to_bgr(p, out, width); }

namespace {

int tiff_row_convert(tiff_reader &r, const uint8_t *row, int index) {
    const tiff_tag_record &t = r.rec;
    uint32_t bits = r.bits;
    const uint32_t spp = r.samples, width = t.width;
    if (r.plain_rgb) {  // the common case: swapped straight into the bitmap when the sink allows
        uint8_t *dst = load_row_target(r.put_row, r.user, index);
        if (!dst) dst = r.out;
        rgb_to_bgr(row, dst, width);
        return deliver(r, dst, index);
    }
    uint8_t *w = r.work;
    std::memcpy(w, row, r.row_size);
    if (r.planar) {
        if (t.predictor == 2) undo_predictor(w, r.row_size, 1);
        if (bits == 16) first_bytes(w, width);
        return write_plane_row(r, w, index);
    }
    const uint64_t product = static_cast<uint64_t>(spp) * bits;
    if (t.photometric == 0 && (product == 1 || product == 4 || product == 8 || product == 24))
        for (uint32_t i = 0; i < r.row_size; i++) w[i] = static_cast<uint8_t>(255 - w[i]);
    if (t.predictor == 2) undo_predictor(w, r.row_size, spp == 3 ? 3 : spp == 4 ? 4 : 1);
    if (bits == 16) {
        first_bytes(w, spp >= 3 ? width * spp : width);
        bits = 8;
    }
    if (spp >= 3) {
        if (bits == 1 && spp == 4) return deliver(r, w, index);  // already 4-bit indices
        if (t.photometric == 6 && bits == 8) {
            convert_ycbcr(w, r.out, width, r.ycbcr_full);
            return deliver(r, r.out, index);
        }
        if (bits == 8 || bits == 4 || bits == 1) {
            convert_colour(r, w, r.out, bits);
            return deliver(r, r.out, index);
        }
        return deliver(r, w, index);
    }
    if (spp == 2 && bits == 8) {
        for (uint32_t i = 0; i < width; i++) w[i] = w[2 * i];  // gray with alpha: drop the alpha
    } else if (bits == 2 && spp == 1) {
        // Each 2-bit value v becomes the nibble 4v; a last partial byte stays as it was.
        for (uint32_t i = width / 4; i-- > 0;) {
            uint8_t b = w[i];
            w[2 * i] = static_cast<uint8_t>((b >> 6) << 6 | ((b >> 4) & 3) << 2);
            w[2 * i + 1] = static_cast<uint8_t>(((b >> 2) & 3) << 6 | (b & 3) << 2);
        }
    }
    return deliver(r, w, index);
}

// ---- Strip decoders ----------------------------------------------------------------------------
uint32_t rows_in(const tiff_reader &r, uint32_t row) {
    uint32_t left = r.rec.height - row;
    return r.rec.rows_per_strip < left ? r.rec.rows_per_strip : left;
}

int planes_of(const tiff_reader &r) { return r.planar ? static_cast<int>(r.samples) : 1; }

int tiff_read_uncompressed(tiff_reader &r) {
    const uint32_t rs = r.row_size, height = r.rec.height, rps = r.rec.rows_per_strip;
    const uint32_t cap = (rs > READ_BUFFER_SIZE ? rs : READ_BUFFER_SIZE);
    auto *buf = static_cast<uint8_t *>(scratch_alloc(cap + 200));
    if (!buf) return IMG_ERR_MEMORY;
    uint32_t fit = READ_BUFFER_SIZE / rs ? READ_BUFFER_SIZE / rs : 1;
    uint32_t per_read = rps >= height ? fit : static_cast<uint64_t>(rps) * rs < READ_BUFFER_SIZE ? rps : fit;
    uint32_t strip = 0;
    for (r.plane = 0; r.plane < planes_of(r); r.plane++) {
        for (uint32_t row = 0; row < height; strip++) {
            if (int rc = tiff_strip_seek(r, strip); rc < 0) return rc;
            for (uint32_t left = rows_in(r, row); left;) {
                uint32_t n = per_read < left ? per_read : left;
                int32_t want = static_cast<int32_t>(n * rs);
                int32_t got = read_here(r, buf, want);
                if (got <= 0) return IMG_ERR_DATA;
                std::memset(buf + got, 0, static_cast<size_t>(want - got));
                for (uint32_t i = 0; i < n; i++)
                    if (int rc = tiff_row_convert(r, buf + i * rs, static_cast<int>(row + i)); rc < 0) return rc;
                row += n;
                left -= n;
            }
        }
    }
    return 0;
}

// PackBits input: bytes [pos, len) of buf are unread.  A memory source is
// decoded where it stands; otherwise a strip's first read is sized by what
// the previous strip took, so a strip usually costs one read and few bytes
// are copied in that are never used.
struct packbits_input {
    tiff_reader *r;
    const uint8_t *buf;
    uint8_t *own;  // the read buffer: cap bytes, and slack behind them
    int32_t cap, pos, len;
    int32_t taken;  // bytes consumed from the current strip before the last move
    bool mapped;    // buf is the source itself: there is nothing more to read

    // Positions at the strip the file stands at and reads its first bytes;
    // false when there are none.
    bool begin(int32_t first_read) {
        pos = len = taken = 0;
        int32_t count;
        if (const uint8_t *m = file_map(r->fd, &count)) {
            mapped = true;
            buf = m;
            len = count;
            return count > 0;
        }
        mapped = false;
        buf = own;
        return more(first_read);
    }
    // Reads up to chunk more bytes behind the unread ones; false when the
    // source has nothing more.
    bool more(int32_t chunk) {
        if (mapped) return false;
        if (cap - len < chunk && pos > 0) {
            std::memmove(own, own + pos, static_cast<size_t>(len - pos));
            taken += pos;
            len -= pos;
            pos = 0;
        }
        int32_t want = cap - len < chunk ? cap - len : chunk;
        int32_t got = want > 0 ? read_here(*r, own + len, want) : 0;
        len += got;
        return got > 0;
    }
};

// The most one control byte and its data can take, and the most a literal's
// 16-byte block copy reads.
constexpr int32_t PACKBITS_STEP = 1 + 128;
constexpr int32_t PACKBITS_REACH = PACKBITS_STEP + 16;
constexpr int32_t PACKBITS_SLACK = 200;

// Literal runs in whole blocks, at most 128 bytes: the input holds
// PACKBITS_REACH bytes wherever a run is copied this way.
struct copy_blocks16 {
    static void run(uint8_t *dst, const uint8_t *src, uint32_t n) {
        for (uint32_t k = 0; k < n; k += 16) std::memcpy(dst + k, src + k, 16);
    }
};
#if defined(__x86_64__) || defined(__i386__)
struct copy_blocks64 {
    __attribute__((target("avx512f"))) static void run(uint8_t *dst, const uint8_t *src, uint32_t n) {
        _mm512_storeu_si512(dst, _mm512_loadu_si512(src));
        if (n > 64) _mm512_storeu_si512(dst + 64, _mm512_loadu_si512(src + 64));
    }
};
#endif

// Runs copied as they are into a row with limit bytes writable: whole
// blocks where their overshoot fits and the input has the reach (fast).
template <class copy>
struct copy_out {
    uint8_t *row;
    uint32_t limit;
    void literal(uint32_t x, const uint8_t *src, uint32_t n, bool fast) {
        if (fast && x + 128 <= limit)
            copy::run(row + x, src, n);
        else
            std::memcpy(row + x, src, n);
    }
    void repeat(uint32_t x, uint8_t v, uint32_t n) { std::memset(row + x, v, n); }
    void end() {}
};

#if defined(__x86_64__) || defined(__i386__)
// RGB runs stored as BGR as they are unpacked, so the row is written once.
// The output runs two bytes behind the input: a run of n bytes at row byte
// x gives output bytes [x - 2, x + n - 2), whose pixels' input has all come
// by then, so each run takes two permutes and two stores whatever its
// alignment to pixels.  Output byte x - 2 + t takes input byte x - 4 +
// WINDOW.v[x % 3][t] of the 128 from there; the next 64 output bytes take
// the next phase's row from 64 bytes on (64 = 1 mod 3), so a fourth row
// repeats the first.
struct window_index {
    uint8_t v[4][64] = {};
    constexpr window_index() {
        for (int phase = 0; phase < 4; phase++)
            for (int t = 0; t < 64; t++)
                v[phase][t] = static_cast<uint8_t>(swapped_from(t + phase % 3 + 1) - phase % 3 + 1);
    }
};
constexpr window_index WINDOW{};

constexpr uint64_t low_bytes(uint32_t n) { return n >= 64 ? ~0ull : (1ull << n) - 1; }
// The address k bytes from p, for a masked access: it touches only the
// bytes its mask selects, which need not lie around all of that address.
inline const void *masked_at(const uint8_t *p, intptr_t k) {
    return reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(k));
}

// A row of rs bytes, a whole number of pixels.  last4 holds the four input
// bytes before the run, first lowest; the row's last two output bytes,
// which no run reaches, come from it when the row ends.
struct window_out {
    uint8_t *row;
    uint32_t rs;
    uint32_t last4;
    // The run's input from x - 4 is in a, b and c.
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void emit(uint32_t x, uint32_t n, __m512i a, __m512i b,
                                                                      __m512i c) {
        const uint32_t phase = x % 3;
        const __m512i lo = _mm512_permutex2var_epi8(a, _mm512_loadu_si512(WINDOW.v[phase]), b);
        const __m512i hi = _mm512_permutex2var_epi8(b, _mm512_loadu_si512(WINDOW.v[phase + 1]), c);
        if (x >= 2) {  // whole stores where they can be: they measured a little faster
            if (n >= 64)
                _mm512_storeu_si512(row + x - 2, lo);
            else
                _mm512_mask_storeu_epi8(row + x - 2, low_bytes(n), lo);
            if (n >= 128)
                _mm512_storeu_si512(row + x + 62, hi);
            else if (n > 64)
                _mm512_mask_storeu_epi8(row + x + 62, low_bytes(n - 64), hi);
            return;
        }
        // The row's first run: its first 2 - x outputs would lie before the row.
        alignas(64) uint8_t out[128];
        _mm512_store_si512(out, lo);
        _mm512_store_si512(out + 64, hi);
        if (x + n > 2) std::memcpy(row, out + 2 - x, x + n - 2);
    }
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void literal(uint32_t x, const uint8_t *src, uint32_t n,
                                                                         bool) {
        const __m512i before = _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(last4)));
        const __m512i a = _mm512_mask_loadu_epi8(before, low_bytes(n + 4) & ~0xFull, masked_at(src, -4));
        const __m512i b = _mm512_maskz_loadu_epi8(n > 60 ? low_bytes(n - 60) : 0, masked_at(src, 60));
        const __m512i c = _mm512_maskz_loadu_epi8(n > 124 ? low_bytes(n - 124) : 0, masked_at(src, 124));
        emit(x, n, a, b, c);
        if (n >= 4)
            std::memcpy(&last4, src + n - 4, 4);
        else
            for (uint32_t k = 0; k < n; k++) last4 = last4 >> 8 | static_cast<uint32_t>(src[k]) << 24;
    }
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void repeat(uint32_t x, uint8_t v, uint32_t n) {
        const __m512i same = _mm512_set1_epi8(static_cast<char>(v));
        const __m512i before = _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(last4)));
        emit(x, n, _mm512_mask_blend_epi8(0xF, same, before), same, same);
        for (uint32_t k = 0; k < n && k < 4; k++) last4 = last4 >> 8 | static_cast<uint32_t>(v) << 24;
    }
    void end() {
        row[rs - 2] = static_cast<uint8_t>(last4 >> 16);
        row[rs - 1] = static_cast<uint8_t>(last4 >> 8);
    }
};
#endif

// One row of rs bytes into out; literal bytes past the row's end are read
// and dropped.  False when the data ends first.
template <class sink>
bool unpack_row_with(packbits_input &in, sink &out, uint32_t rs, int32_t chunk) {
    // The input's state is kept in locals: stores into the row could
    // otherwise alias it and force a reload after every run.
    const uint8_t *buf = in.buf;
    int32_t pos = in.pos, len = in.len;
    uint32_t x = 0;
    while (x < rs) {
        const uint8_t *p = buf + pos;
        const int n = len - pos >= PACKBITS_REACH ? p[0] : -1;
        if (n < 0) {
            // Near the end of what was read: top up, then take this control
            // byte only if all of its data is there, copying no further.
            in.pos = pos;
            while (in.len - in.pos < PACKBITS_REACH && in.more(chunk)) {
            }
            buf = in.buf;
            pos = in.pos;
            len = in.len;
            const int32_t avail = len - pos;
            if (avail < 1) return false;
            p = buf + pos;
            const int c = p[0];
            if (avail < (c < 128 ? c + 2 : 2)) return false;
            uint32_t count = c < 128 ? static_cast<uint32_t>(c) + 1 : static_cast<uint32_t>((257 - c) & 0xFF);
            const uint32_t keep = rs - x < count ? rs - x : count;
            if (c < 128)
                out.literal(x, p + 1, keep, false);
            else
                out.repeat(x, p[1], keep);
            x += keep;
            pos += c < 128 ? static_cast<int32_t>(count) + 1 : 2;
        } else if (n < 128) {
            const uint32_t count = static_cast<uint32_t>(n) + 1;
            const uint32_t keep = rs - x < count ? rs - x : count;
            out.literal(x, p + 1, keep, true);
            x += keep;
            pos += static_cast<int32_t>(count) + 1;
        } else {
            // 128 repeats 129 times: no no-op control byte here.
            uint32_t count = static_cast<uint32_t>((257 - n) & 0xFF);
            if (count > rs - x) count = rs - x;
            out.repeat(x, p[1], count);
            x += count;
            pos += 2;
        }
    }
    in.pos = pos;
    out.end();
    return true;
}

// A row as it is, into row with room bytes writable behind it.
bool unpack_row(packbits_input &in, uint8_t *row, uint32_t rs, uint32_t room, int32_t chunk) {
    copy_out<copy_blocks16> out{row, rs + room};
    return unpack_row_with(in, out, rs, chunk);
}
#if defined(__x86_64__) || defined(__i386__)
// Flattened, so the template and its copies are compiled for each target.
__attribute__((target("avx512f"), flatten)) bool unpack_row_wide(packbits_input &in, uint8_t *row, uint32_t rs,
                                                                  uint32_t room, int32_t chunk) {
    copy_out<copy_blocks64> out{row, rs + room};
    return unpack_row_with(in, out, rs, chunk);
}
// An RGB row as BGR.
__attribute__((target("avx512f,avx512bw,avx512vbmi"), flatten)) bool unpack_bgr_wide(packbits_input &in, uint8_t *row,
                                                                                    uint32_t rs, int32_t chunk) {
    window_out out{row, rs, 0};
    return unpack_row_with(in, out, rs, chunk);
}
const bool have_avx512 = __builtin_cpu_supports("avx512f");
bool wide_unpack = have_avx512;
#endif

int tiff_read_packbits(tiff_reader &r) {
    const uint32_t rs = r.row_size, height = r.rec.height;
    // Room for a few rows, so wide rows do not force a move after each one.
    const int32_t cap = static_cast<int32_t>(rs > READ_BUFFER_SIZE / 4 ? 4 * rs : READ_BUFFER_SIZE);
    packbits_input in{&r, nullptr, static_cast<uint8_t *>(scratch_alloc(static_cast<uint32_t>(cap) + PACKBITS_SLACK)), cap, 0, 0, 0, false};
    auto *row = static_cast<uint8_t *>(scratch_alloc((rs > READ_BUFFER_SIZE ? rs : READ_BUFFER_SIZE) + PACKBITS_SLACK));
    if (!in.own || !row) return IMG_ERR_MEMORY;
    const int32_t chunk = static_cast<int32_t>(rs) + 256 > 4096 ? static_cast<int32_t>(rs) + 256 : 4096;
    int32_t first_read = cap;  // what the next strip's first read asks for
    auto *unpack = unpack_row;
    bool (*unpack_bgr)(packbits_input &, uint8_t *, uint32_t, int32_t) = nullptr;
#if defined(__x86_64__) || defined(__i386__)
    if (wide_unpack) unpack = unpack_row_wide;
    if (wide_swap) unpack_bgr = unpack_bgr_wide;
#endif
    uint32_t strip = 0;
    for (r.plane = 0; r.plane < planes_of(r); r.plane++) {
        for (uint32_t y = 0; y < height; strip++) {
            if (int rc = tiff_strip_seek(r, strip); rc < 0) return rc;
            if (!in.begin(first_read)) return IMG_ERR_DATA;
            for (uint32_t left = rows_in(r, y); left; left--, y++) {
                // Plain RGB goes straight into the bitmap: swapped as it is
                // unpacked with whole-register byte permutes, else swapped
                // there after (with narrower vectors that is the faster way).
                if (uint8_t *target = r.plain_rgb ? load_row_target(r.put_row, r.user, static_cast<int>(y)) : nullptr) {
                    if (unpack_bgr) {
                        if (!unpack_bgr(in, target, rs, chunk)) return IMG_ERR_DATA;
                    } else {
                        if (!unpack(in, target, rs, 0, chunk)) return IMG_ERR_DATA;
                        rgb_to_bgr(target, target, r.rec.width);
                    }
                    if (int rc = deliver(r, target, static_cast<int>(y)); rc < 0) return rc;
                    continue;
                }
                if (!unpack(in, row, rs, PACKBITS_SLACK, chunk)) return IMG_ERR_DATA;
                if (int rc = tiff_row_convert(r, row, static_cast<int>(y)); rc < 0) return rc;
            }
            // Strips of an image tend to be alike: ask for this one's size and a margin.
            int64_t used = static_cast<int64_t>(in.taken) + in.pos;
            first_read = static_cast<int32_t>(used + used / 8 + 256 < cap ? used + used / 8 + 256 : cap);
        }
    }
    return 0;
}

struct ccitt_sink_state {
    tiff_reader *r;
};

int ccitt_row(void *context, uint8_t *row, int index, int) {
    auto *r = static_cast<tiff_reader *>(context);
    return deliver(*r, row, index);
}

int tiff_read_ccitt(tiff_reader &r) {
    const int32_t work_size = READ_BUFFER_SIZE + 300;
    auto *work = static_cast<uint8_t *>(scratch_alloc(work_size));
    ccitt_tables tables{};
    if (!work || !ccitt_tables_build(tables)) return IMG_ERR_MEMORY;
    ccitt_params p{};
    p.width = static_cast<int32_t>(r.rec.width);
    p.compression = r.rec.compression;
    p.photometric = r.rec.photometric;
    p.fill_order = r.rec.fill_order;
    p.pad_white = true;
    p.tables = &tables;
    int rc = 0;
    uint32_t strip = 0;
    for (uint32_t row = 0; row < r.rec.height && rc >= 0; strip++) {
        p.rows = static_cast<int32_t>(rows_in(r, row));
        p.first_row = static_cast<int32_t>(row);
        if (rc = tiff_strip_seek(r, strip); rc < 0) break;
        if (p.compression == 4)
            rc = ccitt_decode_g4(work, work_size, p, r.fd, ccitt_row, &r);
        else if (p.compression == TIFF_COMPRESSION_G3_2D)
            rc = ccitt_decode_g3_2d(work, work_size, p, r.fd, ccitt_row, &r);
        else
            rc = ccitt_decode_g3_1d(work, work_size, p, r.fd, ccitt_row, &r);
        row += static_cast<uint32_t>(p.rows);
    }
    ccitt_tables_free(tables);
    return rc;
}

int lzw_row(void *context, uint8_t *row, int index) {
    return tiff_row_convert(*static_cast<tiff_reader *>(context), row, index);
}

int tiff_read_lzw(tiff_reader &r) {
    const uint32_t rs = r.row_size, height = r.rec.height, rps = r.rec.rows_per_strip;
    const int32_t in_size = READ_BUFFER_SIZE + 1000;
    uint32_t row_buffer_size;
    if (!size_mul_add(rs, r.bits == 1 ? 10 : 4, 4200, &row_buffer_size)) return IMG_ERR_MEMORY;
    auto *in = static_cast<uint8_t *>(scratch_alloc(in_size));
    auto *rows = static_cast<uint8_t *>(scratch_alloc(row_buffer_size));
    tiff_lzw_state s{};
    if (!in || !rows || tiff_lzw_begin(s) < 0) return IMG_ERR_MEMORY;
    int rc = 0;
    uint32_t strip = 0;
    for (r.plane = 0; r.plane < planes_of(r) && rc >= 0; r.plane++) {
        for (uint32_t y = 0; y < height; strip++) {
            uint32_t n = rows_in(r, y);
            // No strips listed beyond here: the picture ends, as it does in the others.
            if (rc = tiff_strip_seek(r, strip); rc < 0) break;
            rc = tiff_lzw_decode_strip(s, r.fd, in, in_size, static_cast<int>(y), rs, rows, row_buffer_size,
                                       static_cast<int>(n), lzw_row, &r);
            y += n;
            // A damaged full-length strip is passed over; a short one ends the image.
            if (rc < 0 && (r.sink_failed || rc == IMG_ERR_MEMORY || n < rps)) break;
            rc = 0;
        }
    }
    tiff_lzw_end(s);
    return rc;
}

// ---- Planar reassembly ----------------------------------------------------------------------
// Sample x of one plane as a byte of the 24-bit row: nibbles in the high
// half, 2-bit values spread over 0-255, bits as 255 or 0.
template <int Bits>
inline uint8_t plane_sample(const uint8_t *s, uint32_t x) {
    if constexpr (Bits == 8)
        return s[x];
    else if constexpr (Bits == 4)
        return static_cast<uint8_t>(nibble(s, x) << 4);
    else if constexpr (Bits == 2)
        return static_cast<uint8_t>(((s[x >> 2] >> (6 - 2 * (x & 3))) & 3) * 85);
    else
        return static_cast<uint8_t>(0 - bit(s, x));
}

// Planes 0, 1 and 2 into pixels whose bytes come from planes 2, 1 and 0.
template <int Bits>
void interleave_planes(uint8_t *const plane[4], uint8_t *out, uint32_t width) {
    for (uint32_t x = 0; x < width; x++, out += 3) {
        out[0] = plane_sample<Bits>(plane[2], x);
        out[1] = plane_sample<Bits>(plane[1], x);
        out[2] = plane_sample<Bits>(plane[0], x);
    }
}

int reassemble(tiff_reader &r) {
    const uint32_t prb = r.plane_row_bytes, width = r.rec.width, height = r.rec.height;
    const int planes = static_cast<int>(r.samples < 4 ? r.samples : 4);
    auto *p = static_cast<uint8_t *>(scratch_alloc(4 * prb + 16));
    if (!p) return IMG_ERR_MEMORY;
    uint8_t *plane[4] = {p, p + prb, p + 2 * prb, p + 3 * prb};
    uint8_t *out = r.out;
    const uint32_t bits = r.bits == 16 ? 8 : r.bits;
    for (uint32_t y = 0; y < height; y++) {
        std::memset(p, 0, 4 * prb);
        for (int k = 0; k < planes; k++) {
            int64_t at = (static_cast<int64_t>(k) * height + y) * prb;
            if (os_seek(r.temp_fd, static_cast<int32_t>(at), 0) == at) os_read(r.temp_fd, plane[k], static_cast<int32_t>(prb));
        }
        if (bits == 1 && planes == 4) {
            std::memset(out, 0, r.rec.dib_row_bytes);
            for (uint32_t x = 0; x < width; x++) {
                int v = bit(plane[3], x) << 3 | bit(plane[0], x) << 2 | bit(plane[1], x) << 1 | bit(plane[2], x);
                out[x >> 1] |= static_cast<uint8_t>((x & 1) ? v : v << 4);
            }
        } else {
            switch (bits) {
            case 8: interleave_planes<8>(plane, out, width); break;
            case 4: interleave_planes<4>(plane, out, width); break;
            case 2: interleave_planes<2>(plane, out, width); break;
            case 1: interleave_planes<1>(plane, out, width); break;
            default: std::memset(out, 0, 3 * static_cast<size_t>(width)); break;  // no other plane depth is interleaved
            }
        }
        if (int rc = deliver(r, out, static_cast<int>(y)); rc < 0) return rc;
    }
    return 0;
}

struct temp_file_guard {
    tiff_reader &r;
    ~temp_file_guard() {
        if (r.temp_fd >= 0) {
            os_close(r.temp_fd);
            os_delete(r.temp_name);
            r.temp_fd = -1;
        }
    }
};

// ---- The decode --------------------------------------------------------------------------------
int decode(tiff_reader &r, uint32_t wanted, IMG_put_row_fn put_row, void *user, IMG_begin_image_fn begin_image) {
    if (int rc = walk(r, wanted); rc < 0) return rc;
    tiff_tag_record &t = r.rec;
    r.put_row = put_row;
    r.user = user;
    if (t.compression == 6 && t.jpeg_interchange) {
        int64_t at = static_cast<int64_t>(r.base) + t.jpeg_interchange;
        if (at > 0x7FFFFFFF) return IMG_ERR_HEADER;
        return jpeg_read_file(static_cast<int32_t>(at), put_row, user, begin_image, r.fd);
    }
    r.samples = t.samples_per_pixel;
    r.bits = t.bits_per_sample;
    r.planar = t.planar_config == 2;
    r.ycbcr_full = t.ycbcr_subsampling == 0x00010001;
    r.plain_rgb = !r.planar && r.samples == 3 && r.bits == 8 && t.predictor != 2 && t.photometric != 0 &&
                  t.photometric != 5 && t.photometric != 6 && t.photometric != 8;
    const int bits = dib_bits(r.samples, r.bits);
    if (t.width < 1 || t.width > 0x7FFFFFFF || t.height < 1 || t.height > 0x7FFFFFFF || r.samples == 0 ||
        r.bits == 0 || r.bits > 32 || r.samples > 64 || (bits != 1 && bits != 4 && bits != 8 && bits != 24))
        return IMG_ERR_HEADER;
    if (is_fax(t.compression) && bits != 1) return IMG_ERR_HEADER;
    // Subsampled strip rows hold two bytes a pixel, which only the 8-bit
    // YCbCr converter reads: any other picture claiming them cannot be decoded.
    if (t.ycbcr_subsampling && !r.ycbcr_full && !r.planar && t.compression != 6 &&
        (t.photometric != 6 || r.samples != 3 || r.bits != 8))
        return IMG_ERR_HEADER;
    if (t.rows_per_strip == 0) t.rows_per_strip = WHOLE_IMAGE;

    // Row sizes, refused as out of memory when a working row would be absurd.
    uint64_t plane_bits = static_cast<uint64_t>(t.width) * r.bits;
    uint64_t row_size = r.planar ? (plane_bits + 7) / 8
                        : t.ycbcr_subsampling && !r.ycbcr_full ? 2 * ((plane_bits + 7) / 8)
                                              : (plane_bits * r.samples + 7) / 8;
    uint64_t dib_row = ((static_cast<uint64_t>(t.width) * bits + 7) / 8 + 3) & ~uint64_t{3};
    if (row_size > MAX_ROW || dib_row > MAX_ROW || dib_row * t.height > 0x7FFFFFFF) return IMG_ERR_MEMORY;
    r.row_size = static_cast<uint32_t>(row_size);
    t.dib_row_bytes = static_cast<uint32_t>(dib_row);
    if (r.planar) {
        uint32_t pr = r.bits == 1 ? (t.width + 7) / 8 : r.bits == 4 ? (t.width + 1) / 2 : t.width;
        r.plane_row_bytes = (pr + 3) & ~3u;
        const uint64_t temp_bytes = static_cast<uint64_t>(r.plane_row_bytes) * t.height * r.samples;
        if (temp_bytes > 0x7FFFFFFF || !within_load_limit(temp_bytes)) return IMG_ERR_MEMORY;
    }

    // The header is valid and its sizes are checked: now the blocks are taken.
    auto *h = static_cast<dib_header *>(scratch_alloc(sizeof(dib_header)));
    if (!h) return IMG_ERR_MEMORY;
    dib_info &i = h->info;
    set_dib_size(i, t.width, t.height, bits);
    i.biSizeImage = static_cast<uint32_t>(dib_row * t.height);
    i.biXPelsPerMeter = static_cast<int32_t>(t.x_resolution);
    i.biYPelsPerMeter = static_cast<int32_t>(t.y_resolution);
    if (t.color_map && t.photometric == 3 && bits <= 8)
        read_palette(r, *h);
    else if (r.samples == 4 && r.bits == 1)
        set_named_palette(&i, "dither");
    else if (bits != 24)
        set_named_palette(&i, "tiff");

    // Working rows: the converter's copy and its 24-bit output.
    uint32_t big = static_cast<uint32_t>(row_size > dib_row ? row_size : dib_row);
    r.work = static_cast<uint8_t *>(scratch_alloc(big + 64));
    r.out = static_cast<uint8_t *>(scratch_alloc(static_cast<uint32_t>(dib_row) + 64));
    if (!r.work || !r.out) return IMG_ERR_MEMORY;

    if (t.compression == 6) {
        tiff_jpeg_source js{r.fd, r.base, r.size, r.mm, &t, r.strip_entry, r.jpeg, {}};
        std::memcpy(js.tables, jpeg_tables, sizeof js.tables);
        return tiff_read_jpeg_strips(js, h, put_row, user, begin_image);
    }
    if (int rc = begin_image(h, user); rc < 0) return rc;
    temp_file_guard guard{r};
    if (r.planar) {
        r.temp_fd = open_temp_file(r.temp_name, 0);
        if (r.temp_fd < 0) return IMG_ERR_CREATE;
    }
    int rc;
    switch (t.compression) {
    case 1: rc = tiff_read_uncompressed(r); break;
    case 32773: rc = tiff_read_packbits(r); break;
    case 2: case 3: case 4: case TIFF_COMPRESSION_G3_2D: rc = tiff_read_ccitt(r); break;
    case 5: rc = tiff_read_lzw(r); break;
    default: return 0;  // announced, no rows: a compression this reader does not know
    }
    if (rc < 0) return rc;
    if (r.planar) rc = reassemble(r);
    return rc < 0 ? rc : 0;
}

}  // namespace

BRIVANTA_READER(tiff_decompress) {
    int32_t base;
    uint32_t page = 0;
    if (where_is_page(where)) {
        base = file_seek(fd, 0, 1);
        page = static_cast<uint32_t>(where) & 0xFFFF;
    } else {
        base = where_page(where);
    }
    if (base < 0) return IMG_ERR_OPEN;
    tiff_reader r;
    if (!reader_open(r, fd, base)) return IMG_ERR_MEMORY;
    int rc = decode(r, page, put_row, context, begin_image);
    // Scratch blocks go at the end of the load; the temporary file went with its guard.
    scratch_free(r.entries);
    return rc;
}

int tiff_page_count(int fd) {
    tiff_reader r;
    if (!reader_open(r, fd, 0)) return IMG_ERR_MEMORY;
    uint32_t ifd, count;
    int rc = open_header(r, &ifd, &count);
    scratch_free(r.entries);
    if (rc < 0) return rc;
    uint32_t pages = 1, limit = ifd_limit(r);
    for (; pages < limit; pages++) {
        uint8_t b[4];
        read_at(r, ifd + 2 + 12 * count, b, 4);
        uint32_t next = u32(r, b);
        if (!next || read_at(r, next, b, 2) < 2) break;
        count = u16(r, b);
        if (count < LATER_IFD_MIN || count > LATER_IFD_MAX) break;
        ifd = next;
    }
    return static_cast<int>(pages);
}

int tiff_refine_type(int fd) {
    tiff_reader r;
    if (!reader_open(r, fd, 0)) return IMG_ERR_MEMORY;
    int rc = walk(r, 0);
    scratch_free(r.entries);
    if (rc < 0) return IMG_ERR_TYPE;
    switch (r.rec.compression) {
    case 1: return IMG_TYPE_TIFF;
    case 2: return IMG_TYPE_TIFF_HUFFMAN;
    case 3: return IMG_TYPE_TIFF_G3;
    case 5: return IMG_TYPE_TIFF_LZW;
    case 4: return IMG_TYPE_TIFF_G4;
    case 32773: return IMG_TYPE_TIFF_PACKBITS;
    case TIFF_COMPRESSION_G3_2D: return IMG_TYPE_TIFF_45;
    case 6: return IMG_TYPE_TIFF_JPEG;
    default: return IMG_ERR_TYPE;
    }
}

void tiff_reader_limit_vectors(int bits) {
#if defined(__x86_64__) || defined(__i386__)
    simd_swap = bits >= 128 && have_ssse3;
    wide_swap = bits >= 512 && have_vbmi;
    wide_unpack = bits >= 512 && have_avx512;
#else
    (void)bits;
#endif
}

}  // namespace brv
