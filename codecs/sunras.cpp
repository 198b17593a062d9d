// Sun raster: 1-, 8-, 24- and 32-bit files, raw or byte-encoded run-length,
// with no colour map, an RGB-plane map or a raw map; and the writer of type 37.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr uint32_t SUNRAS_MAGIC = 0x59A66A95u;
constexpr int SUNRAS_HEADER = 32;
constexpr uint32_t TYPE_RLE = 2;
constexpr int RLE_ESCAPE = 0x80;

struct sunras_header {
    uint32_t magic, width, height, depth, length, type, map_type, map_length;
};

// A run may end past a row's end; what is left of it starts the next row.
struct rle_state {
    uint32_t left = 0;  // repeats of value still owed
    uint8_t value = 0;
};

int sunras_next_byte(byte_source &src) { return source_byte(src); }

int sunras_unpack_row(byte_source &src, rle_state &st, uint8_t *row, uint32_t n) {
    uint32_t done = 0;
    while (done < n) {
        if (st.left) {
            uint32_t k = st.left < n - done ? st.left : n - done;
            std::memset(row + done, st.value, k);
            done += k;
            st.left -= k;
            continue;
        }
        int b = sunras_next_byte(src);
        if (b < 0) return IMG_ERR_DATA;
        if (b != RLE_ESCAPE) {
            row[done++] = static_cast<uint8_t>(b);
            continue;
        }
        int count = sunras_next_byte(src);
        if (count < 0) return IMG_ERR_DATA;
        if (count == 0) {
            row[done++] = RLE_ESCAPE;
            continue;
        }
        int v = sunras_next_byte(src);
        if (v < 0) return IMG_ERR_DATA;
        st.value = static_cast<uint8_t>(v);
        st.left = static_cast<uint32_t>(count) + 1;
    }
    return 0;
}

int sunras_read_raw_row(byte_source &src, uint8_t *row, uint32_t n) {
    return source_read(src, row, static_cast<int32_t>(n)) == static_cast<int32_t>(n) ? 0 : IMG_ERR_DATA;
}

// A plane or raw map into the DIB table, read whole; without one, the
// default table of the depth.
int sunras_read_map(byte_source &src, const sunras_header &h, uint8_t *palette, scratch_set &mem) {
    if (h.map_type == 0) {
        if (h.depth == 1) {
            std::memset(palette, 255, 3);  // set bits are black
        } else if (h.depth == 8) {
            fill_grey_ramp(palette);
        }
        return 0;
    }
    // Other map types name no map: the rows follow the header.
    if (h.map_length == 0 || h.map_type > 2) return 0;
    // Only the first 256 entries of a plane map, and the first 1024 bytes
    // of a raw one, can reach the table; the rest is skipped unread.
    const uint32_t keep = h.map_length < 768 ? h.map_length : 768;
    auto *map = static_cast<uint8_t *>(mem.take(keep));
    if (!map) return IMG_ERR_MEMORY;
    if (h.map_type == 1) {
        const uint32_t n = h.map_length / 3;
        for (int plane = 0; plane < 3; plane++) {
            const uint32_t take = n < 256 ? n : 256;
            if (source_read(src, map, static_cast<int32_t>(take)) != static_cast<int32_t>(take)) return IMG_ERR_DATA;
            for (uint32_t i = 0; i < take; i++) palette[4 * i + 2 - plane] = map[i];
            if (!source_skip(src, n - take)) return IMG_ERR_DATA;
        }
        if (!source_skip(src, h.map_length - 3 * n)) return IMG_ERR_DATA;
    } else {
        if (source_read(src, map, static_cast<int32_t>(keep)) != static_cast<int32_t>(keep)) return IMG_ERR_DATA;
        // Raw maps land scattered through the table: each triple goes to
        // bytes 4i + 2, 4i + 5 and 4i + 8 from the first entry's blue.
        for (uint32_t i = 0; i + 2 < keep; i += 3)
            for (uint32_t k = 0; k < 3; k++) {
                const uint32_t at = 4 * i + 2 + 3 * k;
                if (at < 1024) palette[at] = map[i + k];
            }
        if (!source_skip(src, h.map_length - keep)) return IMG_ERR_DATA;
    }
    return 0;
}

}  // namespace

BRIVANTA_READER(sunras_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 4096)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t raw[SUNRAS_HEADER];
    if (source_read(src, raw, SUNRAS_HEADER) != SUNRAS_HEADER) return IMG_ERR_DATA;
    uint32_t f[8];
    for (int i = 0; i < 8; i++) f[i] = get32be(raw + 4 * i);
    const sunras_header h{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7]};
    if (h.magic != SUNRAS_MAGIC) return IMG_ERR_HEADER;
    if (h.depth != 1 && h.depth != 8 && h.depth != 24 && h.depth != 32) return IMG_ERR_TYPE;
    if (h.width == 0 || h.height == 0 || h.width > 0x7FFFFFFF || h.height > 0x7FFFFFFF ||
        h.map_length > 0x7FFFFFFF)
        return IMG_ERR_HEADER;
    const int bits = h.depth > 24 ? 24 : static_cast<int>(h.depth);
    const uint32_t out_len = row_bytes(h.width, bits);
    // A file row: width x depth bits, padded to 16 bits.
    const uint64_t file_row = (uint64_t{h.width} * h.depth + 15) / 16 * 2;
    uint32_t buf_len;
    if (!out_len || !size_mul_add(1, file_row > out_len ? file_row : out_len, 200, &buf_len))
        return IMG_ERR_HEADER;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    if (int rc = sunras_read_map(src, h, dib->palette, mem); rc < 0) return rc;
    dib_info &i = dib->info;
    set_dib_size(i, h.width, h.height, bits);
    if (!size_mul_add(out_len, h.height, 0, &i.biSizeImage)) i.biSizeImage = 0;
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    auto *row = static_cast<uint8_t *>(mem.take(buf_len));
    if (!row) return IMG_ERR_MEMORY;
    rle_state st;
    for (uint32_t r = 0; r < h.height; r++) {
        int rc = h.type == TYPE_RLE ? sunras_unpack_row(src, st, row, static_cast<uint32_t>(file_row))
                                    : sunras_read_raw_row(src, row, static_cast<uint32_t>(file_row));
        if (rc < 0) return rc;
        if (h.depth == 32)
            for (uint32_t x = 0; x < h.width; x++) std::memmove(row + 3 * x, row + 4 * x + 1, 3);
        if (rc = put_row(row, context, static_cast<int>(r), static_cast<int>(out_len)); rc < 0) return rc;
    }
    return 0;
}

namespace {

// One row as escape-coded runs: three or more equal bytes (and any escape
// byte) become escape, count - 1, value; other bytes stand for themselves.
// Runs stop at the row's end, so any reader's notion of rows is met.
uint32_t sunras_pack_row(const uint8_t *s, uint32_t n, uint8_t *out) {
    uint8_t *o = out;
    for (uint32_t i = 0; i < n;) {
        uint32_t run = 1;
        while (i + run < n && run < 256 && s[i + run] == s[i]) run++;
        if (run >= 3 || s[i] == RLE_ESCAPE) {
            *o++ = RLE_ESCAPE;
            *o++ = static_cast<uint8_t>(run - 1);
            if (run > 1) *o++ = s[i];
        } else {
            std::memset(o, s[i], run);
            o += run;
        }
        i += run;
    }
    return static_cast<uint32_t>(o - out);
}

}  // namespace

// 1-bit pictures go out without a map, the darker colour as set bits: the one
// form every reader shows alike (with a map, they differ on which entry a set
// bit takes).  4-bit pictures are widened to 8-bit with a 16-entry map.
// 24-bit rows go out blue, green, red: the standard type's order.
BRIVANTA_WRITER(sunras_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int32_t width = header->biWidth, height = header->biHeight;
    const uint32_t stride = row_bytes(width, bits);
    if (height <= 0 || !stride) return IMG_ERR_HEADER;
    const int depth = bits == 4 ? 8 : bits;
    const uint32_t file_row = static_cast<uint32_t>((uint64_t{static_cast<uint32_t>(width)} * depth + 15) / 16 * 2);
    uint32_t raw_length;
    // The buffers below add up two rows: each must stay well inside 32 bits.
    if (file_row > 0x3FFFFFF0u || stride > 0x3FFFFFF0u ||
        !size_mul_add(file_row, static_cast<uint32_t>(height), 0, &raw_length))
        return IMG_ERR_HEADER;
    const bool rle = settings.sunras_rle != 0;
    const auto *pal = reinterpret_cast<const uint8_t *>(header) + 40;
    const int colours = bits == 24 || bits == 1 ? 0 : 1 << bits;
    const bool invert = bits == 1 && bilevel_white_index(pal) == 1;

    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + file_row + 16));
    auto *packed = static_cast<uint8_t *>(rle ? mem.take(2 * file_row + 16) : row);
    auto *head = static_cast<uint8_t *>(mem.take(SUNRAS_HEADER + 768));
    if (!row || !packed || !head) return IMG_ERR_MEMORY;
    const uint32_t fields[8] = {SUNRAS_MAGIC, static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                                static_cast<uint32_t>(depth), raw_length, rle ? TYPE_RLE : 1u,
                                colours ? 1u : 0u, 3u * colours};
    for (int k = 0; k < 8; k++)
        for (int b = 0; b < 4; b++) head[4 * k + b] = static_cast<uint8_t>(fields[k] >> (24 - 8 * b));
    // The map in planes: all reds, all greens, all blues.
    for (int i = 0; i < colours; i++)
        for (int c = 0; c < 3; c++) head[SUNRAS_HEADER + c * colours + i] = pal[4 * i + 2 - c];
    const int32_t base = file_seek(fd, 0, 1);
    if (int rc = write_all(fd, head, SUNRAS_HEADER + 3 * colours); rc < 0) return rc;

    uint8_t *line = row + stride;  // the file row, built beside the DIB row
    uint32_t written = 0;
    for (int32_t r = 0; r < height; r++) {
        if (int rc = get_row(context, row, r, static_cast<int>(stride)); rc < 0) return rc;
        std::memset(line, 0, file_row);
        if (bits == 4) {
            for (int32_t x = 0; x < width; x++) line[x] = static_cast<uint8_t>(x & 1 ? row[x / 2] & 15 : row[x / 2] >> 4);
        } else {
            const uint32_t used = (static_cast<uint32_t>(width) * depth + 7) / 8;
            std::memcpy(line, row, used);
            if (invert)
                for (uint32_t k = 0; k < used; k++) line[k] = static_cast<uint8_t>(~line[k]);
            if (bits == 1 && width % 8)  // bits past the last pixel stay clear
                line[used - 1] = static_cast<uint8_t>(line[used - 1] & (0xFF00 >> (width % 8)));
        }
        const uint32_t n = rle ? sunras_pack_row(line, file_row, packed) : file_row;
        if (int rc = write_all(fd, rle ? packed : line, static_cast<int32_t>(n)); rc < 0) return rc;
        written += n;
    }
    if (!rle) return 0;
    // The length field holds the coded bytes, known only now.
    const int32_t end = file_seek(fd, 0, 1);
    for (int b = 0; b < 4; b++) head[b] = static_cast<uint8_t>(written >> (24 - 8 * b));
    if (base < 0 || end < 0 || file_seek(fd, base + 16, 0) < 0) return IMG_ERR_WRITE;
    if (int rc = write_all(fd, head, 4); rc < 0) return rc;
    return file_seek(fd, end, 0) < 0 ? IMG_ERR_WRITE : 0;
}

}  // namespace brv
