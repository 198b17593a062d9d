// JPEG inside TIFF: the compression 6 strip decoder (strips that are bare
// entropy-coded segments with their tables in the IFD, or whole streams) and
// the type 40 writer, which stores the JPEG encoder's stream as the one strip.
#include "codecs/codecs.h"
#include "codecs/jpeg.h"
#include "codecs/tiff.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

// SOI to SOS of a stream built from the IFD's tables: at most 2 + 134 +
// 5 x 277 + 19 + 6 + 14 bytes.
constexpr uint32_t HEADER_ROOM = 1600;
constexpr uint32_t MAX_FRAME = 65535;  // a frame's width and height are 16-bit

struct huffman_definition {
    uint8_t bits[16];
    uint8_t values[256];
    int total;
    bool operator==(const huffman_definition &o) const {
        return total == o.total && !std::memcmp(bits, o.bits, 16) && !std::memcmp(values, o.values, total);
    }
};

struct table_set {
    uint8_t quant[3][64];  // zig-zag order, as stored in the file
    huffman_definition dc[3], ac[3];
};

int32_t read_at(const tiff_jpeg_source &s, uint64_t offset, void *buf, int32_t n) {
    if (n <= 0 || offset > 0x7FFFFFFF) return 0;
    return read_once_at(s.fd, s.size, static_cast<int64_t>(s.base) + static_cast<int64_t>(offset), buf, n);
}

// Value k of an offsets or counts entry: 0, or IMG_ERR_DATA when the entry
// has no such value or it lies outside the file.
int entry_value(const tiff_jpeg_source &s, const tiff_ifd_entry &e, uint32_t k, uint32_t *out) {
    if (k >= e.count) return IMG_ERR_DATA;
    uint8_t b[4];
    if (e.type == TIFF_SHORT) {
        if (e.count <= 2) {
            *out = k ? e.value >> 16 : e.value & 0xFFFF;
            return 0;
        }
        if (read_at(s, e.value + 2ull * k, b, 2) != 2) return IMG_ERR_DATA;
        *out = s.mm ? get16be(b) : get16(b);
        return 0;
    }
    if (e.type != TIFF_LONG) return IMG_ERR_DATA;
    if (e.count == 1) {
        *out = e.value;
        return 0;
    }
    if (read_at(s, e.value + 4ull * k, b, 4) != 4) return IMG_ERR_DATA;
    *out = s.mm ? get32be(b) : get32(b);
    return 0;
}

// The table tags hold one offset per component: the offset itself for one
// component, else the place of an array of them.
int table_offset(const tiff_jpeg_source &s, int which, uint32_t samples, uint32_t k, uint32_t *out) {
    tiff_ifd_entry e{0, TIFF_LONG, samples, s.tables[which]};
    if (!s.tables[which] || entry_value(s, e, k, out) < 0 || !*out) return IMG_ERR_HEADER;
    return 0;
}

int read_huffman(const tiff_jpeg_source &s, uint32_t offset, huffman_definition &h) {
    if (read_at(s, offset, h.bits, 16) != 16) return IMG_ERR_HEADER;
    h.total = 0;
    for (uint8_t n : h.bits) h.total += n;
    if (h.total < 1 || h.total > 256) return IMG_ERR_HEADER;
    if (read_at(s, offset + 16ull, h.values, h.total) != h.total) return IMG_ERR_HEADER;
    return 0;
}

int read_tables(const tiff_jpeg_source &s, uint32_t components, table_set &t) {
    for (uint32_t c = 0; c < components; c++) {
        uint32_t q, dc, ac;
        if (table_offset(s, 0, components, c, &q) < 0 || table_offset(s, 1, components, c, &dc) < 0 ||
            table_offset(s, 2, components, c, &ac) < 0)
            return IMG_ERR_HEADER;
        if (read_at(s, q, t.quant[c], 64) != 64) return IMG_ERR_HEADER;
        if (int rc = read_huffman(s, dc, t.dc[c]); rc < 0) return rc;
        if (int rc = read_huffman(s, ac, t.ac[c]); rc < 0) return rc;
    }
    return 0;
}

struct stream_writer {
    uint8_t *p;
    void byte(uint32_t v) { *p++ = static_cast<uint8_t>(v); }
    void word(uint32_t v) {
        byte(v >> 8);
        byte(v);
    }
    void copy(const uint8_t *src, int n) {
        std::memcpy(p, src, static_cast<size_t>(n));
        p += n;
    }
    void huffman(uint32_t class_id, const huffman_definition &h) {
        word(0xFFC4);
        word(2 + 17 + static_cast<uint32_t>(h.total));
        byte(class_id);
        copy(h.bits, 16);
        copy(h.values, h.total);
    }
};

// Builds SOI..SOS for the frame the IFD describes into out; the frame's
// height (two bytes at *height_at) is set per strip.  Bytes written, or a
// negative code for tables this decoder cannot bind.  Slot 1 uses table 0;
// slot 2 table 1; slot 3 its own AC table 2, but the decoder gives it DC
// table 1 and quantiser 0 or 1, so those must match what it asks for.
int build_header(const tiff_jpeg_source &s, const table_set &t, uint32_t components, uint32_t h, uint32_t v,
                 uint8_t *out, uint32_t *height_at) {
    uint32_t q3 = 0, select3 = 0x00;
    if (components == 3) {
        if (!std::memcmp(t.quant[2], t.quant[1], 64))
            q3 = 1;
        else if (std::memcmp(t.quant[2], t.quant[0], 64))
            return IMG_ERR_TYPE;
        if (t.dc[2] == t.dc[1])
            select3 = 0x02;  // DC 1, AC 2
        else if (!(t.dc[2] == t.dc[0] && t.ac[2] == t.ac[0]))
            return IMG_ERR_TYPE;
    }
    stream_writer w{out};
    w.word(0xFFD8);
    w.word(0xFFDB);
    w.word(2 + 65 * (components == 3 ? 2 : 1));
    for (uint32_t c = 0; c < (components == 3 ? 2u : 1u); c++) {
        w.byte(c);
        w.copy(t.quant[c], 64);
    }
    w.word(0xFFC0);
    w.word(8 + 3 * components);
    w.byte(8);
    *height_at = static_cast<uint32_t>(w.p - out);
    w.word(0);
    w.word(s.rec->width);
    w.byte(components);
    w.byte(1), w.byte(h << 4 | v), w.byte(0);
    if (components == 3) {
        w.byte(2), w.byte(0x11), w.byte(1);
        w.byte(3), w.byte(0x11), w.byte(q3);
    }
    w.huffman(0x00, t.dc[0]);
    w.huffman(0x10, t.ac[0]);
    if (components == 3) {
        w.huffman(0x01, t.dc[1]);
        w.huffman(0x11, t.ac[1]);
        w.huffman(0x12, t.ac[2]);
    }
    if (s.tags.restart_interval & 0xFFFF) {
        w.word(0xFFDD);
        w.word(4);
        w.word(s.tags.restart_interval & 0xFFFF);
    }
    w.word(0xFFDA);
    w.word(6 + 2 * components);
    w.byte(components);
    w.byte(1), w.byte(0x00);
    if (components == 3) {
        w.byte(2), w.byte(0x11);
        w.byte(3), w.byte(select3);
    }
    w.byte(0), w.byte(63), w.byte(0);
    return static_cast<int>(w.p - out);
}

// Sampling of the luma component: YCbCrSubSampling, 2 x 2 when absent from
// a YCbCr image.  Only the layouts the decoder's colour rows handle pass.
int luma_sampling(const tiff_jpeg_source &s, uint32_t *h, uint32_t *v) {
    const tiff_tag_record &t = *s.rec;
    *h = *v = 1;
    if (t.samples_per_pixel == 1) return 0;
    if (t.ycbcr_subsampling) {
        *h = t.ycbcr_subsampling & 0xFFFF;
        *v = t.ycbcr_subsampling >> 16;
    } else if (t.photometric == 6) {
        *h = *v = 2;
    }
    bool ok = (*v == 1 && (*h == 1 || *h == 2 || *h == 4)) || (*v == *h && (*h == 2 || *h == 4));
    return ok ? 0 : IMG_ERR_TYPE;
}

// Rows of one strip's stream, renumbered from the strip's first image row.
struct strip_sink {
    IMG_put_row_fn put_row;
    void *user;
    uint32_t first, rows, delivered;
    int32_t width;
    uint16_t bits;
};

int IMG_CALLBACK strip_begin(void *header, void *context) {
    auto *k = static_cast<strip_sink *>(context);
    const auto *h = static_cast<const dib_info *>(header);
    // A whole stream in a strip must agree with what the IFD announced.
    return h->biWidth == k->width && h->biBitCount == k->bits ? 0 : IMG_ERR_HEADER;
}

int IMG_CALLBACK strip_row(unsigned char *row, void *context, int index, int count) {
    auto *k = static_cast<strip_sink *>(context);
    if (index < 0 || static_cast<uint32_t>(index) >= k->rows) return 0;
    k->delivered++;
    return k->put_row(row, k->user, static_cast<int>(k->first + static_cast<uint32_t>(index)), count);
}

}  // namespace

int tiff_read_jpeg_strips(const tiff_jpeg_source &s, dib_header *header, IMG_put_row_fn put_row, void *user,
                          IMG_begin_image_fn begin_image) {
    const tiff_tag_record &t = *s.rec;
    const uint32_t components = t.samples_per_pixel;
    uint32_t h, v;
    // Baseline only (JPEGProc 1), 8-bit samples, grey or three chunky components.
    if (t.bits_per_sample != 8 || (components != 1 && components != 3) || (components == 3 && t.planar_config == 2) ||
        (s.tags.proc != 0 && s.tags.proc != 1) || t.width > MAX_FRAME)
        return IMG_ERR_TYPE;
    if (int rc = luma_sampling(s, &h, &v); rc < 0) return rc;
    if (int rc = begin_image(header, user); rc < 0) return rc;

    uint8_t *buf = nullptr;
    uint32_t cap = 0, header_bytes = 0, height_at = 0;
    strip_sink sink{put_row, user, 0, 0, 0, header->info.biWidth, header->info.biBitCount};
    const uint32_t height = t.height, rps = t.tiled ? height : t.rows_per_strip;
    for (uint32_t k = 0; sink.first < height; k++, sink.first += sink.rows) {
        sink.rows = rps < height - sink.first ? rps : height - sink.first;
        sink.delivered = 0;
        uint32_t offset, count;
        if (sink.rows > MAX_FRAME) return IMG_ERR_TYPE;
        if (int rc = entry_value(s, s.offsets, t.tiled ? t.tiled : k, &offset); rc < 0) return rc;
        if (int rc = entry_value(s, s.tags.counts, t.tiled ? t.tiled : k, &count); rc < 0) return rc;
        // Strips are read whole, so their byte counts must lie within the source.
        if (count == 0 || static_cast<int64_t>(s.base) + offset + count > s.size) return IMG_ERR_DATA;
        uint32_t need;
        if (!size_mul_add(count, 1, HEADER_ROOM + 2, &need)) return IMG_ERR_MEMORY;
        if (need > cap) {
            if (buf) scratch_free(buf);
            cap = need + need / 4 < 0x7FFFFFF0 ? need + need / 4 : need;
            if (!(buf = static_cast<uint8_t *>(scratch_alloc(cap)))) return IMG_ERR_MEMORY;
            header_bytes = 0;  // the header is rebuilt in the new block
        }
        uint8_t *data = buf + HEADER_ROOM;
        if (read_at(s, offset, data, static_cast<int32_t>(count)) != static_cast<int32_t>(count)) return IMG_ERR_DATA;
        int rc;
        if (count >= 2 && data[0] == 0xFF && data[1] == 0xD8) {
            rc = jpeg_decode_buffer(data, static_cast<int32_t>(count), strip_row, &sink, strip_begin);
        } else {
            // Bare entropy-coded data: put the IFD's tables and this strip's
            // frame in front of it and an EOI behind it.
            if (components == 3 && t.photometric != 6) return IMG_ERR_TYPE;  // RGB-coded components
            if (!header_bytes) {
                table_set tables;
                if ((rc = read_tables(s, components, tables)) < 0) return rc;
                uint8_t head[HEADER_ROOM];
                if ((rc = build_header(s, tables, components, h, v, head, &height_at)) < 0) return rc;
                header_bytes = static_cast<uint32_t>(rc);
                std::memcpy(data - header_bytes, head, header_bytes);
            }
            uint8_t *start = data - header_bytes;
            start[height_at] = static_cast<uint8_t>(sink.rows >> 8);
            start[height_at + 1] = static_cast<uint8_t>(sink.rows);
            data[count] = 0xFF, data[count + 1] = 0xD9;
            rc = jpeg_decode_buffer(start, static_cast<int32_t>(header_bytes + count + 2), strip_row, &sink, strip_begin);
        }
        if (rc < 0) return rc;
        if (sink.delivered < sink.rows) return IMG_ERR_DATA;
    }
    return 0;
}

BRIVANTA_WRITER(tiff_write_jpeg) {
    // The encoder refuses these depths; refuse them before the file is touched.
    if (header->biBitCount < 5) return IMG_ERR_DEPTH;
    return tiff_write_encoded(fd, header, 6, jpeg_write_file, get_row, context);
}

}  // namespace brv
