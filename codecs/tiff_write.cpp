// TIFF writers (uncompressed, fax, LZW, PackBits, and strips from an outside
// encoder) and the raw fax outputs: one IFD layout shared by all of them, and
// page append to an existing file.
#include "codecs/ccitt.h"
#include "codecs/codecs.h"
#include "codecs/lzw.h"
#include "codecs/tiff.h"

#include <utility>

namespace brv {

namespace {

enum class out_kind { plain, huffman, g3, lzw, g4, packbits, raw_g3, raw_g4, encoded };

uint32_t compression_of(out_kind k) {
    switch (k) {
    case out_kind::huffman: return 2;
    case out_kind::g3: return 3;
    case out_kind::g4: return 4;
    case out_kind::lzw: return 5;
    case out_kind::packbits: return 32773;
    default: return 1;
    }
}

const uint8_t *palette_of(const dib_info *h) { return reinterpret_cast<const uint8_t *>(h) + 40; }

// 4-bit: entry i is (17i, 17i, 17i).  8-bit: equal components, green at
// most index + 128 (a loose test, kept as the file format's users expect).
bool gray_ramp(const dib_info *h) {
    const uint8_t *p = palette_of(h);
    int n = 1 << h->biBitCount;
    for (int i = 0; i < n; i++) {
        const uint8_t *e = p + 4 * i;
        if (h->biBitCount == 4) {
            if (e[0] != 17 * i || e[1] != 17 * i || e[2] != 17 * i) return false;
        } else if (e[0] != e[1] || e[1] != e[2] || e[1] > i + 128) {
            return false;
        }
    }
    return true;
}

struct layout {
    int32_t base;        // where the file starts (offsets count from here)
    uint32_t P;          // the new IFD
    uint32_t n, E;
    uint32_t data_start;
    uint32_t counts_at;  // StripByteCounts value field, or its array
    uint32_t offsets_at; // StripOffsets array (several strips only)
    uint32_t strips, rows_per_strip;
    int32_t link_at;     // next-IFD field to point at P; -1 for a new file
};

struct entry_writer {
    uint8_t *p;
    void operator()(uint16_t tag, uint16_t type, uint32_t count, uint32_t value) {
        put16(p, tag);
        put16(p + 2, type);
        put32(p + 4, count);
        put32(p + 8, value);
        p += 12;
    }
};

// Finds where the existing chain ends, or writes a new header: 0 or a code.
int start_file(int fd, layout &L) {
    L.base = file_seek(fd, 0, 1);
    L.link_at = -1;
    uint8_t head[8] = {};
    int32_t got = fd == MEMORY_FD ? 0 : file_read(fd, head, 8);
    if (got == 8 && get16(head) == TIFF_II) {
        uint32_t at = get32(head + 4);
        for (int guard = 0;; guard++) {
            uint8_t b[4];
            if (guard > 65535 || at < 8 || file_seek(fd, L.base + static_cast<int32_t>(at), 0) < 0 ||
                file_read(fd, b, 2) != 2)
                return IMG_ERR_HEADER;
            uint32_t link = at + 2 + 12u * get16(b);
            if (file_seek(fd, L.base + static_cast<int32_t>(link), 0) < 0 || file_read(fd, b, 4) != 4)
                return IMG_ERR_HEADER;
            if (get32(b) == 0) {
                L.link_at = static_cast<int32_t>(link);
                break;
            }
            at = get32(b);
        }
        int32_t end = file_seek(fd, 0, 2);
        if (end < L.base + 8) return IMG_ERR_HEADER;
        L.P = static_cast<uint32_t>(end - L.base);
        if (L.P & 1) {  // IFDs start on a word boundary
            static const uint8_t zero = 0;
            if (int rc = write_all(fd, &zero, 1); rc < 0) return rc;
            L.P++;
        }
        return 0;
    }
    file_seek(fd, L.base, 0);
    static const uint8_t header[8] = {'I', 'I', 42, 0, 8, 0, 0, 0};
    L.P = 8;
    return write_all(fd, header, 8);
}

void plan(const dib_info *h, uint32_t compression, layout &L) {
    int bits = h->biBitCount;
    bool color_map = (bits == 4 || bits == 8) && !gray_ramp(h);
    L.n = 18 + (color_map ? 1 : 0) + (compression == 3 || compression == 6 ? 1 : 0);
    L.E = color_map ? 6u << bits : bits == 24 ? 6 : 0;
    L.strips = 1;
    L.rows_per_strip = static_cast<uint32_t>(h->biHeight);
    if (compression == 5) {
        uint32_t rps = 8000 / row_bytes(h->biWidth, bits);
        L.rows_per_strip = rps < 1 ? 1 : rps > L.rows_per_strip ? L.rows_per_strip : rps;
        L.strips = (static_cast<uint32_t>(h->biHeight) + L.rows_per_strip - 1) / L.rows_per_strip;
    }
}

// Bytes of the IFD and everything written after it before the image data.
uint32_t ifd_bytes(const layout &L) { return 12 * L.n + 262 + L.E + (L.strips > 1 ? 8 * L.strips : 0); }

// Lays out the IFD at L.P with its value blocks and writes it: 0 or -9.
int tiff_write_ifd(int fd, const dib_info *h, uint32_t compression, layout &L, uint8_t *block) {
    const int bits = h->biBitCount;
    const uint32_t P = L.P, n = L.n, E = L.E, w = static_cast<uint32_t>(h->biWidth);
    const uint32_t height = static_cast<uint32_t>(h->biHeight);
    const bool color_map = E > 6 || (E == 6 && bits != 24);
    const uint32_t total = ifd_bytes(L);
    std::memset(block, 0, total);
    put16(block, n);
    entry_writer e{block + 2};
    const uint32_t after = P + 12 * n + 6;  // first byte after the next-IFD field
    uint32_t photometric = bits == 24 ? 2 : color_map ? 3 : (compression >= 2 && compression <= 4) ? 0 : 1;
    uint32_t strip_data = P + 12 * n + 262 + E;
    L.data_start = strip_data + (L.strips > 1 ? 8 * L.strips : 0);
    e(TAG_NEW_SUBFILE_TYPE, TIFF_LONG, 1, 0);
    e(TAG_IMAGE_WIDTH, TIFF_SHORT, 1, w);
    e(TAG_IMAGE_LENGTH, TIFF_SHORT, 1, height);
    e(TAG_BITS_PER_SAMPLE, TIFF_SHORT, bits == 24 ? 3 : 1, bits == 24 ? P + 12 * n + 22 : static_cast<uint32_t>(bits));
    e(TAG_COMPRESSION, TIFF_SHORT, 1, compression);
    e(TAG_PHOTOMETRIC, TIFF_SHORT, 1, photometric);
    e(TAG_FILL_ORDER, TIFF_SHORT, 1, compression == 3 || compression == 4 ? 2 : 1);
    if (L.strips > 1) {
        L.offsets_at = strip_data;
        L.counts_at = strip_data + 4 * L.strips;
        e(TAG_STRIP_OFFSETS, TIFF_LONG, L.strips, L.offsets_at);
    } else {
        e(TAG_STRIP_OFFSETS, TIFF_LONG, 1, L.data_start);
    }
    e(TAG_ORIENTATION, TIFF_SHORT, 1, 1);
    e(TAG_SAMPLES_PER_PIXEL, TIFF_SHORT, 1, bits == 24 ? 3 : 1);
    e(TAG_ROWS_PER_STRIP, TIFF_LONG, 1, L.rows_per_strip);
    if (L.strips > 1) {
        e(TAG_STRIP_BYTE_COUNTS, TIFF_LONG, L.strips, L.counts_at);
    } else {
        L.counts_at = static_cast<uint32_t>(e.p - block) + P + 8;
        e(TAG_STRIP_BYTE_COUNTS, TIFF_LONG, 1, height * ((static_cast<uint32_t>(bits) * w + 7) / 8));
    }
    e(TAG_X_RESOLUTION, TIFF_RATIONAL, 1, after);
    e(TAG_Y_RESOLUTION, TIFF_RATIONAL, 1, after + 8);
    e(TAG_PLANAR_CONFIG, TIFF_SHORT, 1, 1);
    if (compression == 3) e(TAG_T4_OPTIONS, TIFF_LONG, 1, 4);
    if (compression == 6) e(TAG_JPEG_INTERCHANGE, TIFF_LONG, 1, P + 12 * n + 268);
    e(TAG_RESOLUTION_UNIT, TIFF_SHORT, 1, 2);
    e(TAG_DATE_TIME, TIFF_ASCII, 20, after + 16 + E);
    uint32_t name_length = static_cast<uint32_t>(strnlen(settings.bitmap_name, sizeof settings.bitmap_name)) + 1;
    e(TAG_ARTIST, TIFF_ASCII, name_length, after + 56 + E);
    if (color_map) e(TAG_COLOR_MAP, TIFF_SHORT, 3u << bits, P + 12 * n + 22);

    uint8_t *v = e.p + 4;  // next-IFD offset stays 0
    uint32_t xr = 640, xd = 9, yr = 480, yd = 7;
    if (h->biXPelsPerMeter && h->biYPelsPerMeter) {
        xr = static_cast<uint32_t>(h->biXPelsPerMeter), yr = static_cast<uint32_t>(h->biYPelsPerMeter), xd = yd = 1;
    } else if (compression == 3 && !h->biXPelsPerMeter && !h->biYPelsPerMeter) {
        xr = yr = 200, xd = yd = 1;
    }
    put32(v, xr), put32(v + 4, xd), put32(v + 8, yr), put32(v + 12, yd);
    v += 16;
    if (color_map) {
        const uint8_t *pal = palette_of(h);
        const uint32_t N = 1u << bits;
        for (uint32_t i = 0; i < N; i++) {
            put16(v + 2 * i, pal[4 * i + 2] * 256u);
            put16(v + 2 * (N + i), pal[4 * i + 1] * 256u);
            put16(v + 2 * (2 * N + i), pal[4 * i] * 256u);
        }
    } else if (bits == 24) {
        put16(v, 8), put16(v + 2, 8), put16(v + 4, 8);
    }
    v += E;
    std::memcpy(v, settings.bitmap_date, strnlen(settings.bitmap_date, sizeof settings.bitmap_date));
    std::memcpy(v + 40, settings.bitmap_name, name_length - 1);
    return write_all(fd, block, static_cast<int32_t>(total));
}

// Points the last IFD of the chain at the new one; the chain was found by
// start_file, and the link is made only once the new page is complete.
int tiff_append_link(int fd, const layout &L) {
    if (L.link_at < 0) return 0;
    uint8_t b[4];
    put32(b, L.P);
    if (file_seek(fd, L.base + L.link_at, 0) < 0) return IMG_ERR_WRITE;
    return write_all(fd, b, 4);
}

}  // namespace

uint32_t packbits_row(const uint8_t *s, uint32_t n, uint8_t *out) {
    uint8_t *o = out;
    uint32_t i = 0;
    while (i < n) {
        uint32_t run = 1;
        while (i + run < n && run < 128 && s[i + run] == s[i]) run++;
        if (run >= 3 || (run == 2 && i + 2 >= n)) {
            *o++ = static_cast<uint8_t>(257 - run);
            *o++ = s[i];
            i += run;
            continue;
        }
        // Literal bytes up to the next run of three.
        uint32_t start = i;
        while (i < n && i - start < 128) {
            if (i + 2 < n && s[i] == s[i + 1] && s[i] == s[i + 2]) break;
            i++;
        }
        *o++ = static_cast<uint8_t>(i - start - 1);
        std::memcpy(o, s + start, i - start);
        o += i - start;
    }
    return static_cast<uint32_t>(o - out);
}

namespace {

// encoded: the strip comes whole from encode, under the given compression.
int write_image(out_kind kind, int fd, const dib_info *h, IMG_get_row_fn get_row, void *context,
                uint32_t encoded_compression = 0, tiff_strip_encoder encode = nullptr) {
    const int bits = h->biBitCount;
    const bool fax = kind == out_kind::huffman || kind == out_kind::g3 || kind == out_kind::g4 ||
                     kind == out_kind::raw_g3 || kind == out_kind::raw_g4;
    const bool raw = kind == out_kind::raw_g3 || kind == out_kind::raw_g4;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    if (fax && bits != 1) return IMG_ERR_DEPTH;
    if (h->biWidth <= 0 || h->biHeight <= 0 || h->biWidth > 0xFFFF || h->biHeight > 0xFFFF) return IMG_ERR_DEPTH;
    const uint32_t compression = kind == out_kind::encoded ? encoded_compression : compression_of(kind);
    const uint32_t stride = row_bytes(h->biWidth, bits);
    const uint32_t packed = (static_cast<uint32_t>(bits) * static_cast<uint32_t>(h->biWidth) + 7) / 8;

    // Everything is allocated before the file is touched.
    layout L{};
    plan(h, compression, L);
    uint8_t *row = static_cast<uint8_t *>(scratch_alloc(stride + 16));
    uint8_t *ifd = raw ? nullptr : static_cast<uint8_t *>(scratch_alloc(ifd_bytes(L)));
    uint8_t *out = kind == out_kind::packbits ? static_cast<uint8_t *>(scratch_alloc(packed + packed / 128 + 16)) : nullptr;
    uint32_t *strip_table = L.strips > 1 ? static_cast<uint32_t *>(scratch_alloc(8 * L.strips)) : nullptr;
    if (!row || (!raw && !ifd) || (kind == out_kind::packbits && !out) || (L.strips > 1 && !strip_table))
        return IMG_ERR_MEMORY;
    ccitt_encoder fe{};
    tiff_lzw_encoder le{};
    if (fax) {
        ccitt_kind ck = kind == out_kind::huffman ? CCITT_MH_ALIGNED
                        : (kind == out_kind::g4 || kind == out_kind::raw_g4) ? CCITT_G4
                                                                              : CCITT_G3_EOL;
        if (ccitt_encode_begin(fe, fd, h->biWidth, ck, compression == 3 || compression == 4, palette_of(h)) < 0) return IMG_ERR_MEMORY;
    }
    if (kind == out_kind::lzw && tiff_lzw_encode_begin(le, fd) < 0) return IMG_ERR_MEMORY;

    int rc = 0;
    if (!raw) {
        if ((rc = start_file(fd, L)) < 0) return rc;
        if ((rc = tiff_write_ifd(fd, h, compression, L, ifd)) < 0) return rc;
    }
    if (kind == out_kind::encoded && (rc = encode(fd, h, get_row, context)) < 0) return rc;
    for (int y = 0; kind != out_kind::encoded && y < h->biHeight; y++) {
        if ((rc = get_row(context, row, y, static_cast<int>(stride))) < 0) return rc;
        if (bits == 24)
            for (uint32_t x = 0; x < packed; x += 3) std::swap(row[x], row[x + 2]);
        switch (kind) {
        case out_kind::plain: rc = write_all(fd, row, static_cast<int32_t>(packed)); break;
        case out_kind::packbits: rc = write_all(fd, out, static_cast<int32_t>(packbits_row(row, packed, out))); break;
        case out_kind::lzw: {
            uint32_t strip = static_cast<uint32_t>(y) / L.rows_per_strip;
            if (static_cast<uint32_t>(y) % L.rows_per_strip == 0) {
                if (y && (rc = tiff_lzw_encode_strip_end(le)) < 0) return rc;
                if (strip_table) strip_table[strip] = static_cast<uint32_t>(file_seek(fd, 0, 1) - L.base);
                tiff_lzw_encode_strip_start(le);
            }
            rc = tiff_lzw_encode(le, row, packed);
            break;
        }
        default: rc = ccitt_encode_row(fe, row); break;
        }
        if (rc < 0) return rc;
    }
    if (fax) rc = ccitt_encode_end(fe, kind == out_kind::raw_g3);
    if (kind == out_kind::lzw) rc = tiff_lzw_encode_strip_end(le);
    if (rc < 0 || raw) return rc;

    const int32_t end = file_seek(fd, 0, 1);
    uint8_t b[4];
    if (strip_table) {
        for (uint32_t s = 0; s < L.strips; s++) {
            uint32_t next = s + 1 < L.strips ? strip_table[s + 1] : static_cast<uint32_t>(end - L.base);
            put32(reinterpret_cast<uint8_t *>(strip_table + L.strips + s), next - strip_table[s]);
        }
        for (uint32_t s = 0; s < L.strips; s++) put32(reinterpret_cast<uint8_t *>(strip_table + s), strip_table[s]);
        file_seek(fd, L.base + static_cast<int32_t>(L.offsets_at), 0);
        if ((rc = write_all(fd, strip_table, static_cast<int32_t>(8 * L.strips))) < 0) return rc;
    } else if (kind != out_kind::plain) {
        put32(b, static_cast<uint32_t>(end - L.base) - L.data_start);
        file_seek(fd, L.base + static_cast<int32_t>(L.counts_at), 0);
        if ((rc = write_all(fd, b, 4)) < 0) return rc;
    }
    file_seek(fd, end, 0);
    if ((end - L.base) & 1) {  // keeps the next appended IFD on a word boundary
        static const uint8_t zero = 0;
        if ((rc = write_all(fd, &zero, 1)) < 0) return rc;
    }
    const int32_t final_end = file_seek(fd, 0, 1);
    if ((rc = tiff_append_link(fd, L)) < 0) return rc;
    file_seek(fd, final_end, 0);
    return 0;
}

}  // namespace

BRIVANTA_WRITER(tiff_write_uncompressed) { return write_image(out_kind::plain, fd, header, get_row, context); }
BRIVANTA_WRITER(tiff_write_huffman) { return write_image(out_kind::huffman, fd, header, get_row, context); }
BRIVANTA_WRITER(tiff_write_g3) { return write_image(out_kind::g3, fd, header, get_row, context); }
BRIVANTA_WRITER(tiff_write_lzw) { return write_image(out_kind::lzw, fd, header, get_row, context); }
BRIVANTA_WRITER(tiff_write_g4) { return write_image(out_kind::g4, fd, header, get_row, context); }
BRIVANTA_WRITER(tiff_write_packbits) { return write_image(out_kind::packbits, fd, header, get_row, context); }
BRIVANTA_WRITER(fax_write_g3) { return write_image(out_kind::raw_g3, fd, header, get_row, context); }
BRIVANTA_WRITER(fax_write_g4) { return write_image(out_kind::raw_g4, fd, header, get_row, context); }

int tiff_write_encoded(int fd, const dib_info *header, uint32_t compression, tiff_strip_encoder encode,
                       IMG_get_row_fn get_row, void *context) {
    return write_image(out_kind::encoded, fd, header, get_row, context, compression, encode);
}

}  // namespace brv
