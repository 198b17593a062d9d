// BMP: the reader (file header or bare DIB, OS/2 core header, 16- and 32-bit
// rows, top-down, RLE4, RLE8, the private record format 99) and the writers
// of plain (type 1) and run-length (type 12) files.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "codecs/dib_rows.h"
#include "frame/byte_source.h"
#include "frame/load.h"

namespace brv {

namespace {

enum class row_mode { plain, invert, top_down, from16, from32 };

struct bmp_reader {
    int32_t where;
    IMG_put_row_fn put_row;
    void *context;
    int fd;
    dib_info *info;
    int width, height, file_bits;
    row_mode mode;
    bool top_down;  // honoured by the 32-bit conversion only
};

// Plain rows, read up to 10000 bytes at a time and delivered bottom row first.
int read_plain(bmp_reader &b) {
    const int w = b.width;
    uint32_t L, tmp;
    if (b.file_bits == 16 || b.file_bits == 32) {
        // 16-bit rows are not padded, deliberately.
        if (!size_mul_add(static_cast<uint32_t>(w), b.file_bits / 8, 0, &L)) return IMG_ERR_HEADER;
    } else {
        L = row_bytes(w, b.file_bits);
    }
    uint32_t out_len = row_bytes(w, b.info->biBitCount);
    // A row too wide to store cannot be delivered either.
    if (!L || !out_len) return IMG_ERR_HEADER;
    uint32_t k = L > READ_BUFFER_SIZE ? 1 : READ_BUFFER_SIZE / L;
    uint32_t buf_size;
    if (!size_mul_add(k, L, 2000 + uint64_t{out_len}, &buf_size)) return IMG_ERR_MEMORY;
    scratch_set mem;
    auto *buf = static_cast<uint8_t *>(mem.take(buf_size));
    bool convert = b.mode == row_mode::from16 || b.mode == row_mode::from32;
    uint8_t *out = convert ? static_cast<uint8_t *>(mem.take(out_len + 16)) : nullptr;
    if (!buf || (convert && !out)) return IMG_ERR_MEMORY;
    int32_t available = bytes_left(b.fd, file_size_hint(b.fd));
    int delivered = 0;
    while (delivered < b.height) {
        uint32_t rows = static_cast<uint32_t>(b.height - delivered) < k ? b.height - delivered : k;
        if (!size_mul_add(rows, L, 0, &tmp)) return IMG_ERR_MEMORY;
        // Never ask past the source's end: a truncated file ends cleanly.
        if (available <= 0) return IMG_ERR_DATA;
        // Data that ends inside a chunk with rows after it can only end in
        // -12: stop before decoding rows that would be thrown away.
        if (available < int64_t{tmp} && static_cast<uint32_t>(b.height - delivered) > rows) return IMG_ERR_DATA;
        int32_t got = read_fully(b.fd, buf, static_cast<int32_t>(tmp));
        if (got <= 0) return IMG_ERR_DATA;
        // A short read leaves zeros; rows are converted only as far as the
        // data reaches, the rest takes what zeros convert to.
        const uint32_t valid = static_cast<uint32_t>(got) < tmp ? static_cast<uint32_t>(got) : tmp;
        if (valid < tmp) std::memset(buf + valid, 0, tmp - valid);
        available -= static_cast<int32_t>(tmp);
        for (uint32_t i = 0; i < rows; i++, delivered++) {
            uint8_t *row = buf + i * L;
            const uint32_t have = valid <= i * L ? 0 : valid - i * L < L ? valid - i * L : L;
            int r = b.height - 1 - delivered;
            switch (b.mode) {
            case row_mode::invert:
                for (uint32_t j = 0; j < have; j++) row[j] = static_cast<uint8_t>(~row[j]);
                std::memset(row + have, 0xFF, L - have);
                break;
            case row_mode::top_down: r = delivered; break;
            case row_mode::from16: {
                const int n = static_cast<int>((have + 1) / 2);
                row_from15(row, out, n);
                std::memset(out + 3 * static_cast<size_t>(n), 0, 3 * static_cast<size_t>(w - n));
                row = out;
                break;
            }
            case row_mode::from32: {
                const int n = static_cast<int>((have + 3) / 4);
                row_from32(row, out, n);
                std::memset(out + 3 * static_cast<size_t>(n), 0, 3 * static_cast<size_t>(w - n));
                row = out;
                if (b.top_down) r = delivered;
                break;
            }
            case row_mode::plain: break;
            }
            if (int rc = b.put_row(row, b.context, r, static_cast<int>(out_len)); rc < 0) return rc;
        }
    }
    return 0;
}

// Run-length decoding shared by RLE8 and RLE4; Nibbles selects RLE4.
template <bool Nibbles>
int read_rle(bmp_reader &b) {
    const uint32_t rb = row_bytes(b.width, Nibbles ? 4 : 8);
    // RLE8 drops writes past rb + 1000; RLE4 keeps four rows' worth of room.
    uint32_t cap;
    if (!rb || !size_mul_add(rb, Nibbles ? 4 : 1, Nibbles ? 16 : 3016, &cap)) return IMG_ERR_MEMORY;
    cap -= 16;
    const uint32_t limit = Nibbles ? 2 * (cap - 1) : rb + 1000;  // in pixels
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(cap + 16));
    byte_source src;
    if (!row || !source_open(src, b.fd, file_seek(b.fd, 0, 1), READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    auto put = [&](uint32_t x, int v) {
        if (x >= limit) return;
        if constexpr (Nibbles) {
            uint8_t &byte = row[x >> 1];
            byte = (x & 1) ? static_cast<uint8_t>((byte & 0xF0) | (v & 15)) : static_cast<uint8_t>((byte & 0x0F) | v << 4);
        } else {
            row[x] = static_cast<uint8_t>(v);
        }
    };
    int r = b.height - 1;
    uint32_t x = 0;
    auto deliver = [&]() { return r >= 0 ? b.put_row(row, b.context, r, static_cast<int>(rb)) : 0; };
    while (r >= 0) {
        int n = source_byte(src), v = source_byte(src);
        if (n < 0 || v < 0) return 0;  // the data ran out: what arrived stands
        if (n > 0) {
            for (int i = 0; i < n; i++, x++) put(x, Nibbles ? ((i & 1) ? v & 15 : v >> 4) : v);
            continue;
        }
        if (v == 0) {  // end of line
            if (int rc = deliver(); rc < 0) return rc;
            r--;
            x = 0;
        } else if (v == 1) {  // end of bitmap
            x = static_cast<uint32_t>(b.width);
            int rc = deliver();
            return rc < 0 ? rc : 0;
        } else if (v == 2) {  // delta
            int dx = source_byte(src), dy = source_byte(src);
            if (dx < 0 || dy < 0) return 0;
            x += static_cast<uint32_t>(dx);
            if (dy) {
                if constexpr (Nibbles) {
                    // Skipped rows are not delivered at all.
                    if (int rc = deliver(); rc < 0) return rc;
                    r -= dy;
                } else {
                    // Skipped rows repeat the row being built.
                    for (int i = 0; i < dy && r >= 0; i++, r--)
                        if (int rc = deliver(); rc < 0) return rc;
                }
            }
        } else {  // absolute run of v pixels, padded to a 16-bit boundary
            int bytes = Nibbles ? (v + 1) / 2 : v;
            int pair = 0;
            for (int i = 0; i < v; i++, x++) {
                int c;
                if constexpr (Nibbles) {
                    if (!(i & 1)) pair = source_byte(src);
                    c = pair < 0 ? 0 : (i & 1) ? pair & 15 : pair >> 4;
                } else {
                    c = source_byte(src);
                    if (c < 0) c = 0;
                }
                put(x, c);
            }
            if (bytes & 1) source_byte(src);
        }
    }
    return 0;
}

// Compression 99: top-down records, each led by its own signed 16-bit length.
int read_records(bmp_reader &b) {
    uint32_t rb = row_bytes(b.width, b.info->biBitCount);
    uint32_t size = (rb > 32768 ? rb : 32768) + 16;
    scratch_set mem;
    auto *rec = static_cast<uint8_t *>(mem.take(size));
    byte_source src;
    if (!rec || !source_open(src, b.fd, file_seek(b.fd, 0, 1), READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    for (int r = 0; r < b.height; r++) {
        if (source_read(src, rec, 2) != 2) return IMG_ERR_DATA;
        int len = static_cast<int16_t>(get16(rec));
        if (len < 2) return IMG_ERR_DATA;
        // Clear what a record can reach (a row of up to 32768 bytes whole):
        // clearing a wider row for every two-byte record would cost its full
        // width each time; past 32768 only a sink rewriting rows keeps bytes.
        std::memset(rec + 2, 0, (size < 32768 + 16 ? size : 32768 + 16) - 2);
        if (source_read(src, rec + 2, len - 2) != len - 2) return IMG_ERR_DATA;
        // Callers' sinks are told the record's length; the frame's own sink,
        // which stores whole rows, is told the whole cleared row it gets.
        const int count = b.put_row == handle_put_row && static_cast<uint32_t>(len) < rb ? static_cast<int>(rb) : len;
        if (int rc = b.put_row(rec, b.context, r, count); rc < 0) return rc;
    }
    return 0;
}

}  // namespace

int bmp_refine_type(int fd) {
    uint8_t file_header[14], info[40] = {};
    file_seek(fd, 0, 0);
    read_once(fd, file_header, 14);
    read_once(fd, info, 40);
    // A bare header is judged by the wrong field; callers are used to it.
    return get32(info + 16) ? IMG_TYPE_BMP_RLE : IMG_TYPE_BMP;
}

BRIVANTA_READER(bmp_read) {
    // Header: the file header when there is one, then the info header.
    uint8_t fh[14] = {};
    file_seek(fd, where, 0);
    if (read_once(fd, fh, 14) != 14) return IMG_ERR_OPEN;
    bool has_file_header = fh[0] == 'B' && fh[1] == 'M';
    int32_t info_start = where + (has_file_header ? 14 : 0);
    if (!has_file_header) file_seek(fd, where, 0);
    uint8_t raw[40] = {};
    if (read_once(fd, raw, 40) < 12) return IMG_ERR_OPEN;
    dib_info h;
    uint32_t header_size = get32(raw);
    int32_t table_at;
    bool triples = false;
    if (header_size == 12) {
        h = dib_info{};
        h.biWidth = get16(raw + 4);
        h.biHeight = get16(raw + 6);
        h.biBitCount = get16(raw + 10);
        table_at = info_start + 12;
        triples = true;
    } else {
        std::memcpy(&h, raw, 40);
        // Later header versions keep their colour table after the whole header.
        bool known_longer = header_size == 52 || header_size == 56 || header_size == 64 || header_size == 108 ||
                            header_size == 124;
        table_at = info_start + (known_longer ? static_cast<int32_t>(header_size) : 40);
        if (header_size == 40 && (h.biCompression == 3 || h.biCompression == 6) &&
            (h.biBitCount == 16 || h.biBitCount == 32))
            table_at += h.biCompression == 3 ? 12 : 16;  // bit-field masks
    }
    const int file_bits = h.biBitCount;
    if (file_bits != 1 && file_bits != 4 && file_bits != 8 && file_bits != 16 && file_bits != 24 && file_bits != 32)
        return IMG_ERR_HEADER;
    bool top_down = h.biHeight < 0;
    if (h.biHeight == INT32_MIN || h.biWidth < 1 || h.biHeight == 0) return IMG_ERR_HEADER;
    if (top_down) h.biHeight = -h.biHeight;
    if (file_bits >= 16) h.biBitCount = 24;
    h.biSize = 40;
    h.biPlanes = 1;
    uint32_t colour_count = h.biClrUsed;
    h.biClrUsed = h.biClrImportant = 0;
    uint32_t stride = row_bytes(h.biWidth, h.biBitCount);
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(h.biHeight), 0, &h.biSizeImage)) h.biSizeImage = 0;
    if (h.biXPelsPerMeter && h.biYPelsPerMeter && (has_file_header || h.biXPelsPerMeter > 2000)) {
        // A bare header with small values already holds dots per inch.
        h.biXPelsPerMeter = static_cast<int32_t>(h.biXPelsPerMeter * METRE_INCH);
        h.biYPelsPerMeter = static_cast<int32_t>(h.biYPelsPerMeter * METRE_INCH);
    }
    uint32_t compression = h.biCompression;
    h.biCompression = 0;

    scratch_set mem;
    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    hdr->info = h;
    if (file_bits <= 8) {
        file_seek(fd, table_at, 0);
        if (triples) {
            uint8_t t[768] = {};
            int n = 1 << file_bits;
            read_once(fd, t, 3 * n);
            for (int i = 0; i < n; i++) std::memcpy(hdr->palette + 4 * i, t + 3 * i, 3);
        } else {
            read_once(fd, hdr->palette, static_cast<int32_t>(palette_bytes(file_bits)));
        }
    }
    bool invert = false;
    if (file_bits == 1) {
        const uint8_t *p = hdr->palette;
        invert = p[0] == 255 && p[1] == 255 && p[2] == 255 && p[4] == 0 && p[5] == 0 && p[6] == 0;
        // Bilevel images are always stored black-on-white with index 0 black.
        std::memset(hdr->palette, 0, 4);
        std::memset(hdr->palette + 4, 255, 3);
        hdr->palette[7] = 0;
    }
    if (int rc = begin_image(hdr, context); rc < 0) return rc;

    // Rows.
    if (has_file_header) {
        // An offset past the largest position lands past the end, not before the start.
        int64_t pixels = int64_t{where} + get32(fh + 10);
        file_seek(fd, static_cast<int32_t>(pixels > INT32_MAX ? INT32_MAX : pixels), 0);
    }
    else if (colour_count && colour_count <= 0x10000)
        file_seek(fd, where + 40 + 4 * static_cast<int32_t>(colour_count), 0);
    else
        file_seek(fd, table_at + (file_bits <= 8 ? (triples ? 3 << file_bits : 4 << file_bits) : 0), 0);

    bmp_reader b{where, put_row, context, fd, &hdr->info, h.biWidth, h.biHeight, file_bits, row_mode::plain, top_down};
    // The markers do not combine: inversion wins over top-down, which wins
    // over the 16-bit conversion (a top-down 16-bit file arrives unconverted).
    if (file_bits == 16) b.mode = row_mode::from16;
    if (top_down) b.mode = row_mode::top_down;
    if (invert) b.mode = row_mode::invert;
    if (file_bits == 32) b.mode = row_mode::from32;
    if (compression == 2 && file_bits == 4) return read_rle<true>(b);
    if (compression == 1 && file_bits == 8) return read_rle<false>(b);
    if (compression == 99) return read_records(b);
    return read_plain(b);
}

bool bmp_info_bytes(uint8_t *h, const dib_info *header, uint32_t compression) {
    int bits = header->biBitCount;
    uint32_t stride = row_bytes(header->biWidth, bits);
    uint32_t image;
    if (!stride || header->biHeight < 1 || !size_mul_add(stride, header->biHeight, 0, &image)) return false;
    std::memset(h, 0, 40);
    put32(h, 40);
    put32(h + 4, static_cast<uint32_t>(header->biWidth));
    put32(h + 8, static_cast<uint32_t>(header->biHeight));
    put16(h + 12, 1);
    put16(h + 14, static_cast<uint32_t>(bits));
    put32(h + 16, compression);
    put32(h + 20, image);  // the uncompressed size, for RLE files too
    if (header->biXPelsPerMeter && header->biYPelsPerMeter) {
        put32(h + 24, static_cast<uint32_t>(static_cast<int32_t>(header->biXPelsPerMeter / METRE_INCH + 0.5)));
        put32(h + 28, static_cast<uint32_t>(static_cast<int32_t>(header->biYPelsPerMeter / METRE_INCH + 0.5)));
    }
    return true;
}

namespace {

// An embedded DIB header as it is announced: 16 and 32 bits as 24, size
// 40, one plane, no colour counts, the image size of its rows, resolutions
// in dots per inch, compression 0.
int normalise_embedded(dib_info &h) {
    const int bits = h.biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32) return IMG_ERR_HEADER;
    if (h.biWidth < 1 || h.biHeight < 1) return IMG_ERR_HEADER;
    if (bits > 8) h.biBitCount = 24;
    h.biSize = 40;
    h.biPlanes = 1;
    h.biClrUsed = h.biClrImportant = 0;
    const uint32_t stride = row_bytes(h.biWidth, h.biBitCount);
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(h.biHeight), 0, &h.biSizeImage)) return IMG_ERR_HEADER;
    if (h.biXPelsPerMeter && h.biYPelsPerMeter) {
        h.biXPelsPerMeter = static_cast<int32_t>(h.biXPelsPerMeter * METRE_INCH);
        h.biYPelsPerMeter = static_cast<int32_t>(h.biYPelsPerMeter * METRE_INCH);
    }
    h.biCompression = 0;
    return 0;
}

}  // namespace

int dib_read_embedded(int32_t at, const dib_embedding &how, IMG_put_row_fn put_row, void *context,
                      IMG_begin_image_fn begin_image, int fd) {
    const int32_t end = file_size_hint(fd);
    if (at < 0 || at > INT32_MAX - 4096) return IMG_ERR_HEADER;
    scratch_set mem;
    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    dib_info &h = hdr->info;
    if (read_fully_at(fd, end, at, &h, 40) != 40) return IMG_ERR_DATA;
    // Images kept as streams of another format (PNG in icons) have no such header.
    if (get32be(&h) == 0x89504E47u) return IMG_ERR_TYPE;
    // Later header versions keep their colour table after the whole header.
    if (h.biSize < 40 || h.biSize > 124) return IMG_ERR_HEADER;
    const int32_t table_at = at + static_cast<int32_t>(h.biSize);
    // An icon's header counts the AND mask in its height; icons are taken as square.
    if (how.square) h.biHeight = h.biWidth;
    const int file_bits = h.biBitCount;
    const uint32_t compression = h.biCompression, colours_used = h.biClrUsed;
    if (int rc = normalise_embedded(h); rc < 0) return rc;
    int32_t table = 0;
    bool invert = false;
    if (file_bits <= 8) {
        if (how.table_of_colours_used && colours_used > 256) return IMG_ERR_HEADER;
        table = how.table_of_colours_used && colours_used ? static_cast<int32_t>(4 * colours_used)
                                                           : static_cast<int32_t>(palette_bytes(file_bits));
        if (read_fully_at(fd, end, table_at, hdr->palette, table) != table) return IMG_ERR_DATA;
        // A bilevel table whose first entry is not dark anywhere is made black,
        // white, and the rows inverted to keep the picture.
        const uint8_t *p = hdr->palette;
        if (file_bits == 1 && p[0] && p[1] && p[2]) {
            invert = true;
            std::memset(hdr->palette, 0, 4);
            std::memset(hdr->palette + 4, 255, 3);
            hdr->palette[7] = 0;
        }
    }
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    file_seek(fd, table_at + table, 0);
    bmp_reader b{at, put_row, context, fd, &h, h.biWidth, h.biHeight, file_bits, row_mode::plain, false};
    if (file_bits == 16) b.mode = row_mode::from16;
    if (file_bits == 32) b.mode = row_mode::from32;
    if (invert) b.mode = row_mode::invert;
    int rc = compression == 0                     ? read_plain(b)
             : compression == 2 && file_bits == 4 ? read_rle<true>(b)
             : compression == 1 && file_bits == 8 ? read_rle<false>(b)
                                                  : IMG_ERR_HEADER;
    return rc < 0 ? rc : 1;
}

namespace {

int write_headers(int fd, const dib_info *header, uint32_t compression) {
    uint8_t h[54] = {'B', 'M'};
    if (!bmp_info_bytes(h + 14, header, compression)) return IMG_ERR_HEADER;
    const uint32_t pb = palette_bytes(header->biBitCount);
    put32(h + 2, get32(h + 34) + pb + 54);
    put32(h + 10, pb + 54);
    if (file_write(fd, h, 14) != 14) return IMG_ERR_WRITE;
    if (file_write(fd, h + 14, 40) != 40) return IMG_ERR_WRITE;
    if (pb && file_write(fd, reinterpret_cast<const uint8_t *>(header) + 40, static_cast<int32_t>(pb)) !=
                  static_cast<int32_t>(pb))
        return IMG_ERR_WRITE;
    return 0;
}

bool depth_ok(int bits) { return bits == 1 || bits == 4 || bits == 8 || bits == 24; }

// RLE8: a run when the next pixel repeats or the row is nearly done,
// otherwise an absolute block of at least three pixels.
uint32_t encode_rle8(const uint8_t *px, int width, uint8_t *out) {
    uint32_t o = 0;
    int i = 0;
    while (i < width) {
        if ((i + 1 < width && px[i + 1] == px[i]) || i >= width - 3) {
            int n = 1;
            while (i + n < width && n < 255 && px[i + n] == px[i]) n++;
            out[o++] = static_cast<uint8_t>(n);
            out[o++] = px[i];
            i += n;
        } else {
            out[o++] = 0;
            uint32_t count_at = o++;
            int n = 3;
            std::memcpy(out + o, px + i, 3);
            o += 3;
            while (i + n < width && n < 255 && px[i + n] != px[i + n - 1]) out[o++] = px[i + n++];
            out[count_at] = static_cast<uint8_t>(n);
            if (n & 1) out[o++] = 0;
            i += n;
        }
    }
    out[o++] = 0;
    out[o++] = 0;
    return o;
}

inline int nibble(const uint8_t *row, int x) { return (x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4; }

// RLE4: runs repeat a pair of nibbles; a run is taken when the pixel two on
// matches (the pair pattern repeats) or the row is nearly done, otherwise an
// absolute block of at least three pixels that stops before the next run.
uint32_t encode_rle4(const uint8_t *row, int width, uint8_t *out) {
    uint32_t o = 0;
    int i = 0;
    auto run_length = [&](int at) {
        int n = 1;
        int a = nibble(row, at), b = at + 1 < width ? nibble(row, at + 1) : a;
        while (at + n < width && n < 255 && nibble(row, at + n) == ((n & 1) ? b : a)) n++;
        return n;
    };
    while (i < width) {
        int run = run_length(i);
        if (run >= 4 || i >= width - 3) {
            int a = nibble(row, i), b = i + 1 < width ? nibble(row, i + 1) : 0;
            out[o++] = static_cast<uint8_t>(run);
            out[o++] = static_cast<uint8_t>(a << 4 | b);
            i += run;
        } else {
            int n = 3;
            while (i + n < width && n < 255 && run_length(i + n) < 4) n++;
            out[o++] = 0;
            out[o++] = static_cast<uint8_t>(n);
            int bytes = (n + 1) / 2;
            for (int k = 0; k < bytes; k++) {
                int hi = nibble(row, i + 2 * k), lo = 2 * k + 1 < n ? nibble(row, i + 2 * k + 1) : 0;
                out[o++] = static_cast<uint8_t>(hi << 4 | lo);
            }
            if (bytes & 1) out[o++] = 0;
            i += n;
        }
    }
    out[o++] = 0;
    out[o++] = 0;
    return o;
}

}  // namespace

int dib_write_rows(int fd, const dib_info *header, IMG_get_row_fn get_row, void *context) {
    const uint32_t stride = row_bytes(header->biWidth, header->biBitCount);
    auto *row = static_cast<uint8_t *>(scratch_alloc(stride + 10));
    if (!row) return IMG_ERR_MEMORY;
    for (int i = 0; i < header->biHeight; i++) {
        if (int rc = get_row(context, row, header->biHeight - i - 1, static_cast<int>(stride)); rc < 0) return rc;
        if (int rc = write_all(fd, row, static_cast<int32_t>(stride)); rc < 0) return rc;
    }
    return 0;
}

BRIVANTA_WRITER(bmp_write) {
    if (!depth_ok(header->biBitCount)) return IMG_ERR_DEPTH;
    if (int rc = write_headers(fd, header, 0); rc < 0) return rc;
    return dib_write_rows(fd, header, get_row, context);
}

BRIVANTA_WRITER(bmp_write_rle) {
    int bits = header->biBitCount;
    if (bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (int rc = write_headers(fd, header, bits == 4 ? 2 : 1); rc < 0) return rc;
    const int w = header->biWidth;
    uint32_t stride = row_bytes(w, bits);
    uint32_t out_size;
    if (!size_mul_add(4, static_cast<uint32_t>(w), 16, &out_size)) return IMG_ERR_MEMORY;
    auto *row = static_cast<uint8_t *>(scratch_alloc(stride + 10));
    auto *out = static_cast<uint8_t *>(scratch_alloc(out_size));
    if (!row || !out) return IMG_ERR_MEMORY;
    for (int i = 0; i < header->biHeight; i++) {
        if (int rc = get_row(context, row, header->biHeight - i - 1, static_cast<int>(stride)); rc < 0) return rc;
        uint32_t n = bits == 8 ? encode_rle8(row, w, out) : encode_rle4(row, w, out);
        if (file_write(fd, out, static_cast<int32_t>(n)) != static_cast<int32_t>(n)) return IMG_ERR_WRITE;
    }
    static const uint8_t end_of_bitmap[2] = {0, 1};
    return write_all(fd, end_of_bitmap, 2);
}

}  // namespace brv
