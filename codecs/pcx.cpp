// PCX and DCX: the PCX reader (1-bit, planar 4-bit, 8-bit with a trailing
// palette, planar 24-bit), the DCX page reader and page counter, and the
// writers of types 2 (PCX) and 11 (DCX, adding one page per save).
#include "codecs/codec_support.h"
#include "codecs/pcx.h"

#include "colour/colour.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr uint32_t DCX_MAGIC = 0x3ADE68B1;  // 987654321
constexpr int DCX_SLOTS = 100;              // page offsets in the table we create
constexpr int32_t DCX_TABLE_BYTES = 4 + 4 * DCX_SLOTS;
constexpr int32_t COPY_CHUNK = 4000;

// Spreads the bits of one plane byte, most significant first, over eight
// 4-bit pixels packed two to a byte (bit 0 of each pixel; callers shift).
constexpr auto spread_table = [] {
    struct { uint64_t v[256]; } t{};
    for (int b = 0; b < 256; b++)
        for (int i = 0; i < 8; i++)
            if ((b >> (7 - i)) & 1) t.v[b] |= uint64_t{1} << (8 * (i / 2) + ((i & 1) ? 0 : 4));
    return t;
}();

// The reverse: a byte holding two 4-bit pixels, to bit k of each pixel at
// bits 7 (first pixel) and 6 (second) of byte k.
constexpr auto gather_table = [] {
    struct { uint32_t v[256]; } t{};
    for (int b = 0; b < 256; b++)
        for (int k = 0; k < 4; k++) {
            uint32_t bits = static_cast<uint32_t>(((b >> (4 + k)) & 1) << 7 | ((b >> k) & 1) << 6);
            t.v[b] |= bits << (8 * k);
        }
    return t;
}();

enum class row_kind { none, as_is, planar4, invert1, planar24 };

// Puts the palette of the image into the header: named tables for grey and
// old-version files, else the file's own triples (normalised for 1 bit).
// Returns whether 1-bit rows must be inverted.
bool build_palette(dib_header *hdr, const uint8_t *triples, int version, int palette_info) {
    dib_info *h = &hdr->info;
    if (palette_info == 2) {
        set_named_palette(h, "tiff");
        return false;
    }
    if (version == 0 || version == 3) {
        set_named_palette(h, "pcx");
        return false;
    }
    palette_from_rgb(hdr->palette, triples, static_cast<int>(palette_bytes(h->biBitCount) / 4));
    if (h->biBitCount != 1) return false;
    const uint8_t *e0 = triples, *e1 = triples + 3;
    const bool e0_lit = e0[0] && e0[1] && e0[2];
    const bool e1_black = !e1[0] && !e1[1] && !e1[2];
    const bool e0_black = !e0[0] && !e0[1] && !e0[2];
    const bool both_white = (e0[0] & e0[1] & e0[2] & e1[0] & e1[1] & e1[2]) == 255;
    if ((e0_lit && e1_black) || (e0_black && e1_black) || both_white) {
        set_named_palette(h, "tiff");
        return e0_lit && e1_black;
    }
    return false;
}

// Decodes one scanline of length bytes; runs are cut at its end.
int decode_scanline(byte_source &src, uint8_t *dst, uint32_t length) {
    uint32_t filled = 0;
    uint64_t consumed = 0;
    const uint64_t limit = 2 * static_cast<uint64_t>(length);
    while (filled < length) {
        if (src.pos >= src.len && !source_fill(src)) return IMG_ERR_DATA;
        const uint8_t b = src.buf[src.pos++];
        if (b >= 0xC0) {
            int v = source_byte(src);
            if (v < 0) return IMG_ERR_DATA;
            uint32_t n = b & 63u;
            if (n > length - filled) n = length - filled;
            std::memset(dst + filled, v, n);
            filled += n;
            consumed += 2;
        } else {
            dst[filled++] = b;
            consumed++;
        }
        if (consumed > limit) return IMG_ERR_HEADER;
    }
    return 0;
}

void planar_to_nibbles(const uint8_t *scan, uint32_t bpl, int planes, uint8_t *row, uint32_t row_len) {
    // Eight pixels (four output bytes) per plane byte.
    for (uint32_t i = 0; i < bpl && 4 * i < row_len; i++) {
        uint64_t v = 0;
        for (int k = 0; k < planes; k++) v |= spread_table.v[scan[k * bpl + i]] << k;
        uint8_t bytes[8];
        std::memcpy(bytes, &v, 8);
        const uint32_t n = row_len - 4 * i < 4 ? row_len - 4 * i : 4;
        std::memcpy(row + 4 * i, bytes, n);
    }
}

void planar_to_bgr(const uint8_t *scan, uint32_t bpl, int width, uint8_t *row) {
    const uint8_t *r = scan, *g = scan + bpl, *b = scan + 2 * static_cast<size_t>(bpl);
    const uint32_t n = static_cast<uint32_t>(width) < bpl ? static_cast<uint32_t>(width) : bpl;
    for (uint32_t x = 0; x < n; x++) {
        row[3 * x] = b[x];
        row[3 * x + 1] = g[x];
        row[3 * x + 2] = r[x];
    }
}

}  // namespace

namespace {

// palette_end: where the image's bytes end, for the trailing palette; -1
// for the end of the file.
int pcx_read(int32_t where, int32_t palette_end, IMG_put_row_fn put_row, void *context,
             IMG_begin_image_fn begin_image, int fd) {
    // The blocks stay until the load ends and frees them all: a guard's
    // cleanup paths cost the row loop below some six per cent.
    byte_source src;
    if (!source_open(src, fd, where, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    uint8_t ph[128];
    if (source_read(src, ph, 128) != 128) return IMG_ERR_OPEN;

    const int version = ph[1];
    int bpp = ph[3];
    const int planes = ph[65];
    if (planes == 4 && bpp == 4) bpp = 1;
    if (bpp == 16) bpp = 4;
    const int factor = planes == 3 && bpp == 1 ? 4 : planes;
    const int depth = planes == 3 && bpp == 1 ? 4 : bpp * planes;  // how the scanline decodes
    const uint32_t bpl = get16(ph + 66);

    dib_info h{};
    set_dib_size(h, static_cast<int32_t>(get16(ph + 8)) - get16(ph + 4) + 1,
                 static_cast<int32_t>(get16(ph + 10)) - get16(ph + 6) + 1, bpp * factor);
    if (h.biWidth < 1 || h.biHeight < 1 || h.biBitCount == 0) return IMG_ERR_HEADER;
    // A scan line too short for the width cannot hold the picture, and one of
    // no bytes would make every row from no data at all.
    if (bpl == 0 || bpl < (static_cast<uint32_t>(h.biWidth) * static_cast<uint32_t>(bpp) + 7) / 8) return IMG_ERR_HEADER;
    const uint32_t stride = row_bytes(h.biWidth, h.biBitCount);
    if (!size_mul_add(stride, static_cast<uint32_t>(h.biHeight), 0, &h.biSizeImage)) h.biSizeImage = 0;
    h.biXPelsPerMeter = get16(ph + 12);
    h.biYPelsPerMeter = get16(ph + 14);

    auto *hdr = static_cast<dib_header *>(scratch_alloc(sizeof(dib_header)));
    auto *triples = static_cast<uint8_t *>(scratch_alloc(768));
    if (!hdr || !triples) return IMG_ERR_MEMORY;
    hdr->info = h;
    if (depth <= 4) {
        std::memcpy(triples, ph + 16, 48);
    } else if (h.biBitCount != 24) {
        // The trailing palette; its 0x0C marker is not required.
        int32_t at = palette_end < 0 ? file_seek(fd, -768, 2) : file_seek(fd, palette_end - 768, 0);
        if (at >= 0) read_fully(fd, triples, 768);
        source_restart(src, where + 128);
    }
    const bool invert = build_palette(hdr, triples, version, get16(ph + 68));

    row_kind kind = row_kind::none;
    if (depth == 4 && planes > 1) kind = row_kind::planar4;
    else if (depth == 4 || depth == 8) kind = row_kind::as_is;
    else if (depth == 1) kind = invert ? row_kind::invert1 : row_kind::as_is;
    else if (depth == 24) kind = row_kind::planar24;

    if (int rc = begin_image(hdr, context); rc < 0) return rc;

    const uint32_t length = bpl * static_cast<uint32_t>(planes);
    uint32_t scan_size, row_size;
    if (!size_mul_add(bpl, planes > 4 ? planes : 4, 300, &scan_size) || !size_mul_add(stride, 1, 100, &row_size))
        return IMG_ERR_MEMORY;
    auto *scan = static_cast<uint8_t *>(scratch_alloc(scan_size));
    auto *row = static_cast<uint8_t *>(scratch_alloc(row_size));
    if (!scan || !row) return IMG_ERR_MEMORY;
    if (source_at_end(src)) return IMG_ERR_DATA;

    const uint32_t copy = length < stride ? length : stride;
    const int use_planes = planes < 4 ? planes : 4;
    for (int r = 0; r < h.biHeight; r++) {
        if (int rc = decode_scanline(src, scan, length); rc < 0) return rc;
        switch (kind) {
        case row_kind::none: continue;
        case row_kind::as_is: std::memcpy(row, scan, copy); break;
        case row_kind::invert1:
            for (uint32_t i = 0; i < copy; i++) row[i] = static_cast<uint8_t>(~scan[i]);
            break;
        case row_kind::planar4: planar_to_nibbles(scan, bpl, use_planes, row, stride); break;
        case row_kind::planar24: planar_to_bgr(scan, bpl, h.biWidth, row); break;
        }
        if (int rc = put_row(row, context, r, static_cast<int>(stride)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(pcx_decompress) { return pcx_read(where, -1, put_row, context, begin_image, fd); }

int pcx_encode_row(int fd, const uint8_t *bytes, int n) {
    uint8_t out[1024];
    int o = 0, rc = 0;
    for (int i = 0; i < n;) {
        const uint8_t v = bytes[i];
        int run = 1;
        while (run < 63 && i + run < n && bytes[i + run] == v) run++;
        if (run == 1 && v < 0xC0) {
            out[o++] = v;
        } else {
            out[o++] = static_cast<uint8_t>(0xC0 | run);
            out[o++] = v;
        }
        i += run;
        if (o > static_cast<int>(sizeof out) - 2) {
            if (file_write(fd, out, o) != o) rc = IMG_ERR_WRITE;
            o = 0;
        }
    }
    if (o && file_write(fd, out, o) != o) rc = IMG_ERR_WRITE;
    return rc;
}

BRIVANTA_WRITER(pcx_write) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int width = header->biWidth, height = header->biHeight;
    const uint32_t stride = row_bytes(width, bits);
    if (width < 1 || height < 1 || width > 0x10000 || height > 0x10000 || !stride) return IMG_ERR_HEADER;
    const auto *pal = reinterpret_cast<const uint8_t *>(header) + 40;

    const int planes = bits == 4 ? 4 : bits == 24 ? 3 : 1;
    const int bpl = bits == 4 ? (width + 7) / 8 : bits == 24 ? width : (bits * width + 7) / 8;
    // The bytes-per-line field is 16 bits wide: a 65536-pixel 8-bit row cannot be described.
    if (bpl > 0xFFFF) return IMG_ERR_HEADER;
    uint8_t ph[128] = {10};
    ph[1] = bits <= 4 ? 2 : 5;
    ph[2] = 1;
    ph[3] = static_cast<uint8_t>(bits == 4 ? 1 : bits == 24 ? 8 : bits);
    put16(ph + 8, static_cast<uint32_t>(width - 1));
    put16(ph + 10, static_cast<uint32_t>(height - 1));
    put16(ph + 12, static_cast<uint32_t>(header->biXPelsPerMeter));
    put16(ph + 14, static_cast<uint32_t>(header->biYPelsPerMeter));
    if (bits <= 4)
        for (int i = 0; i < (1 << bits); i++) {
            ph[16 + 3 * i] = pal[4 * i + 2];
            ph[17 + 3 * i] = pal[4 * i + 1];
            ph[18 + 3 * i] = pal[4 * i];
        }
    ph[65] = static_cast<uint8_t>(planes);
    put16(ph + 66, static_cast<uint32_t>(bpl));
    put16(ph + 68, bits == 24 ? 0 : 1);
    if (file_write(fd, ph, 128) != 128) return IMG_ERR_WRITE;

    auto *row = static_cast<uint8_t *>(scratch_alloc(stride + 64));
    auto *planar = static_cast<uint8_t *>(scratch_alloc(stride + 64));
    if (!row || !planar) return IMG_ERR_MEMORY;
    for (int r = 0; r < height; r++) {
        if (int rc = get_row(context, row, r, static_cast<int>(stride)); rc < 0) return rc;
        const uint8_t *data = row;
        if (bits == 4) {
            for (int i = 0; i < bpl; i++) {
                const uint8_t *s = row + 4 * i;
                uint32_t v = gather_table.v[s[0]] | gather_table.v[s[1]] >> 2 | gather_table.v[s[2]] >> 4 |
                             gather_table.v[s[3]] >> 6;
                for (int k = 0; k < 4; k++) planar[k * bpl + i] = static_cast<uint8_t>(v >> (8 * k));
            }
            data = planar;
        } else if (bits == 24) {
            for (int x = 0; x < width; x++) {
                planar[x] = row[3 * x + 2];
                planar[bpl + x] = row[3 * x + 1];
                planar[2 * bpl + x] = row[3 * x];
            }
            data = planar;
        }
        // Only the last plane's result counts.
        int rc = 0;
        for (int k = 0; k < planes; k++) rc = pcx_encode_row(fd, data + k * bpl, bpl);
        if (rc < 0) return IMG_ERR_WRITE;
    }
    if (bits == 8) {
        uint8_t tail[769] = {12};
        for (int i = 0; i < 256; i++) {
            tail[1 + 3 * i] = pal[4 * i + 2];
            tail[2 + 3 * i] = pal[4 * i + 1];
            tail[3 + 3 * i] = pal[4 * i];
        }
        if (file_write(fd, tail, 769) != 769) return IMG_ERR_WRITE;
    }
    scratch_free(planar);
    scratch_free(row);
    return 0;
}

// ---- DCX -------------------------------------------------------------------------

BRIVANTA_READER(dcx_decompress) {
    const bool paged = where_is_page(where);
    const int32_t start = paged ? 0 : where;
    const uint32_t page = paged ? static_cast<uint32_t>(where) & 0xFFFF : 0;
    byte_source src;
    if (!source_open(src, fd, start, 4096)) return IMG_ERR_MEMORY;
    scratch_set mem;
    mem.adopt(src.buf);
    uint8_t word[4];
    if (source_read(src, word, 4) != 4 || get32(word) != DCX_MAGIC) return IMG_ERR_HEADER;
    uint32_t offset = 0;
    for (uint32_t i = 0; i <= page; i++) {
        if (source_read(src, word, 4) != 4) return IMG_ERR_PAGE;
        offset = get32(word);
        if (!offset) return IMG_ERR_PAGE;
    }
    // A page's trailing palette ends where the next page starts; the last
    // page's ends with the file.
    uint32_t next = source_read(src, word, 4) == 4 ? get32(word) : 0;
    int32_t end = next > offset && next <= 0x7FFFFFFF ? static_cast<int32_t>(next) : -1;
    mem.free_all();
    return pcx_read(static_cast<int32_t>(offset), end, put_row, context, begin_image, fd);
}

int dcx_page_count(int fd) {
    byte_source src;
    if (!source_open(src, fd, 0, 4096)) return IMG_ERR_MEMORY;
    scratch_set mem;
    mem.adopt(src.buf);
    uint8_t word[4];
    if (source_read(src, word, 4) != 4 || get32(word) != DCX_MAGIC) return IMG_ERR_HEADER;
    int pages = 0;
    while (source_read(src, word, 4) == 4 && get32(word)) pages++;
    return pages;
}

namespace {

// Adds the PCX image in tmp as a page of the container at the output's
// current position.
int append_page(int fd, int tmp) {
    auto *buf = static_cast<uint8_t *>(scratch_alloc(COPY_CHUNK));
    if (!buf) return IMG_ERR_MEMORY;
    const int32_t p = file_seek(fd, 0, 1);
    read_fully(fd, buf, DCX_TABLE_BYTES);
    uint8_t word[4];
    if (get32(buf) == DCX_MAGIC) {
        int slot = 1;
        while (slot <= DCX_SLOTS && get32(buf + 4 * slot)) slot++;
        // The table must keep a zero entry to end it.
        if (slot >= DCX_SLOTS) return IMG_ERR_PAGE;
        const int32_t end = file_seek(fd, 0, 2);
        put32(word, static_cast<uint32_t>(end));
        file_seek(fd, p + 4 * slot, 0);
        if (file_write(fd, word, 4) != 4) return IMG_ERR_WRITE;
        file_seek(fd, end, 0);
    } else {
        std::memset(buf, 0, DCX_TABLE_BYTES);
        file_seek(fd, p, 0);
        if (file_write(fd, buf, DCX_TABLE_BYTES) != DCX_TABLE_BYTES) return IMG_ERR_WRITE;
        file_seek(fd, p, 0);
        put32(word, DCX_MAGIC);
        if (file_write(fd, word, 4) != 4) return IMG_ERR_WRITE;
        put32(word, static_cast<uint32_t>(p + DCX_TABLE_BYTES));
        if (file_write(fd, word, 4) != 4) return IMG_ERR_WRITE;
        file_seek(fd, p + DCX_TABLE_BYTES, 0);
    }
    // Exactly the bytes the page took, whatever size the reads come in.
    int32_t left = file_seek(tmp, 0, 1);
    file_seek(tmp, 0, 0);
    while (left > 0) {
        int32_t n = file_read(tmp, buf, left < COPY_CHUNK ? left : COPY_CHUNK);
        if (n <= 0 || n > left) return IMG_ERR_CREATE;
        if (file_write(fd, buf, n) != n) return IMG_ERR_WRITE;
        left -= n;
    }
    scratch_free(buf);
    return 0;
}

}  // namespace

BRIVANTA_WRITER(dcx_write) {
    char name[TEMP_NAME_SIZE];
    int tmp = open_temp_file(name, 0);
    if (tmp < 0) return IMG_ERR_CREATE;
    int rc = pcx_write(tmp, header, get_row, context);
    if (rc >= 0) rc = append_page(fd, tmp);
    os_close(tmp);
    os_delete(name);
    return rc < 0 ? rc : 0;
}

}  // namespace brv
