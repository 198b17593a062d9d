// IFF pictures: the reader of planar (ILBM) and chunky (PBM) forms of 1 to 8
// planes, 24-plane true colour, hold-and-modify and extra-half-brite, plain
// or ByteRun1-packed, mask planes passed over; and the ILBM writer of type 26.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr uint32_t MODE_EHB = 0x80;
constexpr uint32_t MODE_HAM = 0x800;
constexpr int MASK_PLANE = 1;
constexpr int BMHD_SIZE = 20;

struct iff_header {
    uint32_t width = 0, height = 0;
    int planes = 0, masking = 0, compression = 0;
};

bool tag_is(const uint8_t *b, const char *tag) { return std::memcmp(b, tag, 4) == 0; }

// ByteRun1 packets may run past a row's end (some writers pack a whole row of
// planes, or the whole body, as one stream): what is owed carries over.
struct unpack_state {
    uint32_t literal = 0, run = 0;
    uint8_t value = 0;
};

int iff_unpack(byte_source &src, unpack_state &st, uint8_t *out, uint32_t n) {
    for (uint32_t done = 0; done < n;) {
        if (st.literal) {
            const uint32_t k = st.literal < n - done ? st.literal : n - done;
            if (source_read(src, out + done, static_cast<int32_t>(k)) != static_cast<int32_t>(k)) return IMG_ERR_DATA;
            st.literal -= k;
            done += k;
        } else if (st.run) {
            const uint32_t k = st.run < n - done ? st.run : n - done;
            std::memset(out + done, st.value, k);
            st.run -= k;
            done += k;
        } else {
            const int c = source_byte(src);
            if (c < 0) return IMG_ERR_DATA;
            if (c < 128) {
                st.literal = static_cast<uint32_t>(c) + 1;
            } else if (c > 128) {  // 128 is a no-op
                const int v = source_byte(src);
                if (v < 0) return IMG_ERR_DATA;
                st.value = static_cast<uint8_t>(v);
                st.run = 257 - static_cast<uint32_t>(c);
            }
        }
    }
    return 0;
}

// Pixel x's value gathered from the planes of one file row, plane 0 lowest.
uint32_t gather(const uint8_t *row, uint32_t plane_bytes, int planes, uint32_t x) {
    uint32_t v = 0;
    const uint8_t bit = static_cast<uint8_t>(0x80 >> (x & 7));
    for (int p = 0; p < planes; p++)
        if (row[p * plane_bytes + (x >> 3)] & bit) v |= 1u << p;
    return v;
}

// A hold-and-modify row: each pixel takes a palette colour or changes one
// channel of its left neighbour; a row starts from the background colour.
void ham_row(const uint8_t *row, uint32_t plane_bytes, int planes, uint32_t width, const uint8_t *pal,
             uint8_t *out) {
    const int data_bits = planes - 2;
    const uint32_t data_mask = (1u << data_bits) - 1;
    uint8_t b = pal[0], g = pal[1], r = pal[2];
    for (uint32_t x = 0; x < width; x++) {
        const uint32_t v = gather(row, plane_bytes, planes, x), d = v & data_mask;
        // The data bits become the channel's top bits, repeated below.
        const uint8_t level = static_cast<uint8_t>(data_bits == 4 ? d * 17 : (d << 2) | (d >> 4));
        switch (v >> data_bits) {
        case 0: b = pal[4 * d], g = pal[4 * d + 1], r = pal[4 * d + 2]; break;
        case 1: b = level; break;
        case 2: r = level; break;
        default: g = level; break;
        }
        out[3 * x] = b, out[3 * x + 1] = g, out[3 * x + 2] = r;
    }
}

}  // namespace

BRIVANTA_READER(iff_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t b[BMHD_SIZE];
    if (source_read(src, b, 12) != 12) return IMG_ERR_DATA;
    if (!tag_is(b, "FORM")) return IMG_ERR_HEADER;
    const bool chunky = tag_is(b + 8, "PBM ");
    if (!chunky && !tag_is(b + 8, "ILBM")) return IMG_ERR_TYPE;
    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;

    iff_header h;
    uint32_t mode = 0, colours = 0;
    bool have_header = false;
    for (;;) {  // chunks up to the body
        if (source_read(src, b, 8) != 8) return have_header ? IMG_ERR_DATA : IMG_ERR_HEADER;
        const uint32_t len = get32be(b + 4), padded = len + (len & 1);
        if (tag_is(b, "BODY")) break;
        uint32_t used = 0;
        if (tag_is(b, "BMHD") && len >= BMHD_SIZE) {
            if (source_read(src, b, BMHD_SIZE) != BMHD_SIZE) return IMG_ERR_DATA;
            h.width = get16be(b), h.height = get16be(b + 2);
            h.planes = b[8], h.masking = b[9], h.compression = b[10];
            have_header = true;
            used = BMHD_SIZE;
        } else if (tag_is(b, "CMAP")) {
            colours = len / 3 < 256 ? len / 3 : 256;
            for (uint32_t i = 0; i < colours; i++) {
                if (source_read(src, b, 3) != 3) return IMG_ERR_DATA;
                palette_from_rgb(dib->palette + 4 * i, b, 1);
            }
            used = 3 * colours;
        } else if (tag_is(b, "CAMG") && len >= 4) {
            if (source_read(src, b, 4) != 4) return IMG_ERR_DATA;
            mode = get32be(b);
            used = 4;
        }
        if (!source_skip(src, padded - used)) return IMG_ERR_DATA;
    }
    if (!have_header || !h.width || !h.height) return IMG_ERR_HEADER;
    if (h.compression > 1) return IMG_ERR_TYPE;
    const bool ham = !chunky && (mode & MODE_HAM) && (h.planes == 6 || h.planes == 8);
    const bool ehb = !chunky && !ham && (mode & MODE_EHB) && h.planes == 6;
    if (chunky ? h.planes != 8 : !(h.planes >= 1 && h.planes <= 8) && h.planes != 24) return IMG_ERR_TYPE;
    const int bits = ham || h.planes == 24 ? 24 : h.planes == 1 ? 1 : h.planes <= 4 ? 4 : 8;

    if (bits != 24 || ham) {
        const uint32_t entries = 1u << (ham ? h.planes - 2 : h.planes);
        if (!colours) {  // no map: evenly spaced greys
            for (uint32_t i = 0; i < entries; i++) std::memset(dib->palette + 4 * i, static_cast<int>(i * 255 / (entries - 1)), 3);
        }
        if (ehb)
            for (int i = 0; i < 32; i++)
                for (int c = 0; c < 3; c++) dib->palette[4 * (32 + i) + c] = dib->palette[4 * i + c] >> 1;
    }
    const uint32_t out_len = row_bytes(h.width, bits);
    const uint32_t plane_bytes = (h.width + 15) / 16 * 2;
    const uint32_t file_row = chunky ? h.width + (h.width & 1) + (h.masking == MASK_PLANE ? plane_bytes : 0)
                                     : plane_bytes * static_cast<uint32_t>(h.planes + (h.masking == MASK_PLANE));
    dib_info &i = dib->info;
    set_dib_size(i, h.width, h.height, bits);
    if (!size_mul_add(out_len, h.height, 0, &i.biSizeImage)) i.biSizeImage = 0;
    uint8_t palette[1024];  // HAM takes its base colours from here
    std::memcpy(palette, dib->palette, sizeof palette);
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    auto *row = static_cast<uint8_t *>(mem.take(file_row + 16));
    auto *out = static_cast<uint8_t *>(mem.take(out_len + 16));
    if (!row || !out) return IMG_ERR_MEMORY;
    unpack_state st;
    for (uint32_t y = 0; y < h.height; y++) {
        if (h.compression) {
            if (int rc = iff_unpack(src, st, row, file_row); rc < 0) return rc;
        } else if (source_read(src, row, static_cast<int32_t>(file_row)) != static_cast<int32_t>(file_row)) {
            return IMG_ERR_DATA;
        }
        if (chunky || bits == 1) {
            std::memcpy(out, row, chunky ? h.width : plane_bytes);
        } else if (ham) {
            ham_row(row, plane_bytes, h.planes, h.width, palette, out);
        } else if (bits == 24) {
            for (uint32_t x = 0; x < h.width; x++) {
                const uint32_t v = gather(row, plane_bytes, 24, x);
                out[3 * x] = static_cast<uint8_t>(v >> 16), out[3 * x + 1] = static_cast<uint8_t>(v >> 8);
                out[3 * x + 2] = static_cast<uint8_t>(v);
            }
        } else if (bits == 4) {
            std::memset(out, 0, out_len);
            for (uint32_t x = 0; x < h.width; x++)
                out[x / 2] = static_cast<uint8_t>(out[x / 2] | gather(row, plane_bytes, h.planes, x) << (x & 1 ? 0 : 4));
        } else {
            for (uint32_t x = 0; x < h.width; x++) out[x] = static_cast<uint8_t>(gather(row, plane_bytes, h.planes, x));
        }
        if (int rc = put_row(out, context, static_cast<int>(y), static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

// ILBM with one plane per bit (24 for true colour, red's planes first), each
// plane row packed by itself; the chunk sizes are filled in at the end.
BRIVANTA_WRITER(iff_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int32_t width = header->biWidth, height = header->biHeight;
    if (width <= 0 || height <= 0 || width > 0xFFFF || height > 0xFFFF) return IMG_ERR_HEADER;
    const uint32_t stride = row_bytes(width, bits), plane_bytes = (static_cast<uint32_t>(width) + 15) / 16 * 2;
    const auto *pal = reinterpret_cast<const uint8_t *>(header) + 40;
    const int colours = bits == 24 ? 0 : 1 << bits;

    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 16));
    auto *planes = static_cast<uint8_t *>(mem.take(plane_bytes * static_cast<uint32_t>(bits) + 16));
    auto *packed = static_cast<uint8_t *>(mem.take(plane_bytes + plane_bytes / 128 + 16));
    auto *head = static_cast<uint8_t *>(mem.take(12 + 8 + BMHD_SIZE + 8 + 768 + 8));
    if (!row || !planes || !packed || !head) return IMG_ERR_MEMORY;
    uint8_t *p = head;
    auto put = [&p](const char *tag, uint32_t len) {
        std::memcpy(p, tag, 4);
        for (int k = 0; k < 4; k++) p[4 + k] = static_cast<uint8_t>(len >> (24 - 8 * k));
        p += 8;
    };
    auto put16be = [&p](uint32_t v) {
        p[0] = static_cast<uint8_t>(v >> 8), p[1] = static_cast<uint8_t>(v);
        p += 2;
    };
    put("FORM", 0);
    std::memcpy(p, "ILBM", 4);
    p += 4;
    put("BMHD", BMHD_SIZE);
    put16be(static_cast<uint32_t>(width)), put16be(static_cast<uint32_t>(height)), put16be(0), put16be(0);
    const uint8_t fields[8] = {static_cast<uint8_t>(bits), 0, 1, 0, 0, 0, 1, 1};  // planes, no mask, ByteRun1; square pixels
    std::memcpy(p, fields, 8);
    p += 8;
    put16be(static_cast<uint32_t>(width)), put16be(static_cast<uint32_t>(height));
    if (colours) {
        put("CMAP", 3u * colours);
        for (int i = 0; i < colours; i++, p += 3) p[0] = pal[4 * i + 2], p[1] = pal[4 * i + 1], p[2] = pal[4 * i];
    }
    put("BODY", 0);
    const int32_t base = file_seek(fd, 0, 1);
    const int32_t head_len = static_cast<int32_t>(p - head);
    if (int rc = write_all(fd, head, head_len); rc < 0) return rc;

    uint64_t body = 0;
    for (int32_t y = 0; y < height; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        std::memset(planes, 0, plane_bytes * static_cast<uint32_t>(bits));
        if (bits == 1) {
            std::memcpy(planes, row, (static_cast<uint32_t>(width) + 7) / 8);
            if (width % 8) planes[width / 8] = static_cast<uint8_t>(planes[width / 8] & (0xFF00 >> (width % 8)));
        } else {
            for (int32_t x = 0; x < width; x++) {
                const uint32_t v = bits == 24 ? row[3 * x + 2] | row[3 * x + 1] << 8 | row[3 * x] << 16
                                   : bits == 8 ? row[x]
                                               : (row[x / 2] >> (x & 1 ? 0 : 4)) & 15u;
                const uint8_t bit = static_cast<uint8_t>(0x80 >> (x & 7));
                for (int k = 0; k < bits; k++)
                    if (v >> k & 1) planes[k * plane_bytes + x / 8] |= bit;
            }
        }
        for (int k = 0; k < bits; k++) {
            const uint32_t n = packbits_row(planes + k * plane_bytes, plane_bytes, packed);
            if (int rc = write_all(fd, packed, static_cast<int32_t>(n)); rc < 0) return rc;
            body += n;
        }
    }
    if (body > 0x7FFFFFF0u - static_cast<uint32_t>(head_len)) return IMG_ERR_HEADER;
    if (body & 1)
        if (int rc = write_all(fd, "", 1); rc < 0) return rc;
    const int32_t end = file_seek(fd, 0, 1);
    if (base < 0 || end < 0) return IMG_ERR_WRITE;
    const int32_t at[2] = {4, head_len - 4};
    const uint32_t value[2] = {static_cast<uint32_t>(end - base - 8), static_cast<uint32_t>(body)};
    for (int f = 0; f < 2; f++) {
        uint8_t len[4];
        for (int k = 0; k < 4; k++) len[k] = static_cast<uint8_t>(value[f] >> (24 - 8 * k));
        if (file_seek(fd, base + at[f], 0) < 0) return IMG_ERR_WRITE;
        if (int rc = write_all(fd, len, 4); rc < 0) return rc;
    }
    return file_seek(fd, end, 0) < 0 ? IMG_ERR_WRITE : 0;
}

}  // namespace brv
