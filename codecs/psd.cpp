// Photoshop: the reader of a document's flattened composite (bitmap, grey,
// indexed, RGB, CMYK, Lab; raw or run-length) and the writer of save type
// 41, an uncompressed single-layer document in bitmap, indexed or RGB mode.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "colour/colour.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr int HEADER_SIZE = 30;
// Photoshop's own limit on a side for version 1 documents.
constexpr int32_t MAX_SIDE = 30000;
enum { MODE_BITMAP = 0, MODE_GREY = 1, MODE_INDEXED = 2, MODE_RGB = 3, MODE_CMYK = 4, MODE_LAB = 9 };

struct psd_header {
    int version, channels, mode, depth;
    int32_t width, height;
    uint32_t colour_data;
};

struct psd_layout {
    int bits;    // of the announced DIB
    int planes;  // channels read
};

// The DIB depth and the planes read for a colour mode; bits 0 when this
// reader does not take the mode at the file's depth.
psd_layout layout_of(const psd_header &h) {
    switch (h.mode) {
    case MODE_BITMAP: return {h.depth == 1 ? 1 : 0, 1};
    case MODE_GREY:
    case MODE_INDEXED: return {h.depth == 8 ? 8 : 0, 1};
    case MODE_RGB:
    case MODE_LAB: return {h.depth == 8 ? 24 : 0, 3};
    case MODE_CMYK: return {h.depth == 8 ? 24 : 0, 4};
    default: return {h.depth == 1 || h.depth == 8 ? h.depth : 0, 1};  // multichannel, duotone
    }
}

// Where decoded plane rows go: straight to the caller for one plane, else
// plane after plane into the temporary file.
struct plane_sink {
    IMG_put_row_fn put_row;
    void *context;
    int temp_fd;  // -1: rows go to put_row
    int32_t row_length;  // bytes delivered or stored per row
    int32_t height;
};

int plane_row_out(const plane_sink &s, uint8_t *row, int32_t k) {
    if (s.temp_fd < 0) return s.put_row(row, s.context, k, s.row_length);
    return os_write(s.temp_fd, row, s.row_length) == s.row_length ? 0 : IMG_ERR_CREATE;
}

// Rows of l packed bytes, height × planes of them.
int psd_read_raw_planes(byte_source &src, const plane_sink &s, int planes, int32_t l, uint8_t *row) {
    const int32_t rows = s.height * planes;
    for (int32_t k = 0; k < rows; k++) {
        if (source_read(src, row, l) != l) return IMG_ERR_DATA;
        if (int rc = plane_row_out(s, row, k); rc < 0) return rc;
    }
    return 1;
}

// PackBits rows, each unpacked until it holds at least l bytes; the row
// buffer has room for one packet past l.  Control byte 128 repeats 129
// times; the rows' byte counts say where each row starts, so the padding
// some writers put after a row's last packet is passed over.
int psd_read_rle_planes(byte_source &src, const plane_sink &s, int planes, int channels, int32_t l, uint8_t *row,
                        uint8_t *counts) {
    const int32_t rows = s.height * planes;
    if (source_read(src, counts, 2 * rows) != 2 * rows) return IMG_ERR_DATA;
    // The table goes on with the channels that are not read.
    int64_t next = int64_t{source_tell(src)} + 2 * int64_t{s.height} * (channels - planes);
    for (int32_t k = 0; k < rows; k++) {
        if (next > 0x7FFFFFFF) return IMG_ERR_DATA;
        source_seek(src, static_cast<int32_t>(next));
        next += get16be(counts + 2 * k);
        if (!source_unpack_runs(src, row, l)) return IMG_ERR_DATA;
        if (int rc = plane_row_out(s, row, k); rc < 0) return rc;
    }
    return 1;
}

// Blue, green, red bytes holding b + 128, a + 128 and L scaled to 0..255,
// converted in place.
void psd_lab_row_to_bgr(uint8_t *row, int32_t width) {
    for (int32_t x = 0; x < width; x++) {
        uint8_t *p = row + 3 * x;
        cielab_to_bgr(p[2] * (100.0 / 255.0), p[1] - 128, p[0] - 128, p);
    }
}

struct temp_plane_file {
    char name[TEMP_NAME_SIZE] = {};
    int fd = -1;
    ~temp_plane_file() {
        if (fd >= 0) {
            os_close(fd);
            os_delete(name);
        }
    }
};

// Interleaves the planes of the temporary file into 24-bit rows.
int deliver_planes(const psd_header &h, int planes, int temp_fd, uint8_t *out, uint8_t *plane_rows,
                   IMG_put_row_fn put_row, void *context) {
    const uint32_t rb8 = row_bytes(h.width, 8);
    const int32_t out_len = static_cast<int32_t>(row_bytes(h.width, 24));
    for (int32_t r = 0; r < h.height; r++) {
        uint8_t *pl[4];
        for (int p = 0; p < planes; p++) {
            pl[p] = plane_rows + p * rb8;
            const int64_t at = (int64_t{p} * h.height + r) * rb8;
            if (os_seek(temp_fd, static_cast<int32_t>(at), 0) != at ||
                os_read(temp_fd, pl[p], static_cast<int32_t>(rb8)) != static_cast<int32_t>(rb8))
                return IMG_ERR_DATA;
        }
        for (int32_t x = 0; x < h.width; x++) {
            uint8_t *o = out + 3 * x;
            if (h.mode == MODE_CMYK) {
                const unsigned k = pl[3][x];
                o[0] = static_cast<uint8_t>(k * pl[2][x] / 255);
                o[1] = static_cast<uint8_t>(pl[1][x] * k / 255);
                o[2] = static_cast<uint8_t>(pl[0][x] * k / 255);
            } else {
                o[0] = pl[2][x];
                o[1] = pl[1][x];
                o[2] = pl[0][x];
            }
        }
        if (h.mode == MODE_LAB) psd_lab_row_to_bgr(out, h.width);
        if (int rc = put_row(out, context, r, out_len); rc < 0) return rc;
    }
    return 0;
}

// Skips a section given by its 32-bit length.
bool skip_section(byte_source &src) {
    uint8_t n[4];
    if (source_read(src, n, 4) != 4) return false;
    const int64_t to = int64_t{source_tell(src)} + get32be(n);
    if (to > 0x7FFFFFFF) return false;
    source_seek(src, static_cast<int32_t>(to));
    return true;
}

}  // namespace

BRIVANTA_READER(psd_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 200)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t b[HEADER_SIZE];
    if (source_read(src, b, HEADER_SIZE) != HEADER_SIZE) return IMG_ERR_DATA;
    const psd_header h{get16be(b + 4), get16be(b + 12), get16be(b + 24), get16be(b + 22),
                       static_cast<int32_t>(get32be(b + 18)), static_cast<int32_t>(get32be(b + 14)), get32be(b + 26)};
    if (h.version != 1 || h.width < 1 || h.height < 1 || h.width > MAX_SIDE || h.height > MAX_SIDE)
        return IMG_ERR_HEADER;
    const psd_layout lay = layout_of(h);
    if (!lay.bits) return IMG_ERR_TYPE;
    if (h.channels < lay.planes || h.channels > 56) return IMG_ERR_HEADER;
    const uint32_t stride = row_bytes(h.width, lay.bits), rb8 = row_bytes(h.width, 8);
    if (lay.planes > 1 && !within_load_limit(uint64_t{rb8} * h.height * lay.planes)) return IMG_ERR_MEMORY;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!dib) return IMG_ERR_MEMORY;
    dib->info = {40, h.width, h.height, 1, static_cast<uint16_t>(lay.bits), 0, stride * static_cast<uint32_t>(h.height),
                 0, 0, 0, 0};
    if (h.mode == MODE_INDEXED) {
        uint8_t rgb[768];
        if (h.colour_data < 768 || source_read(src, rgb, 768) != 768) return IMG_ERR_DATA;
        for (int i = 0; i < 256; i++) {
            dib->palette[4 * i] = rgb[512 + i];
            dib->palette[4 * i + 1] = rgb[256 + i];
            dib->palette[4 * i + 2] = rgb[i];
        }
    }
    const int64_t to = int64_t{source_tell(src)} + h.colour_data - (h.mode == MODE_INDEXED ? 768 : 0);
    if (to > 0x7FFFFFFF) return IMG_ERR_DATA;
    source_seek(src, static_cast<int32_t>(to));
    if (h.mode != MODE_INDEXED) {
        if (lay.bits == 8) fill_grey_ramp(dib->palette);
        if (lay.bits == 1) std::memset(dib->palette + 4, 255, 3);  // 0 black, 1 white
    }
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    uint8_t c[2];
    if (!skip_section(src) || !skip_section(src) || source_read(src, c, 2) != 2) return IMG_ERR_DATA;
    const int compression = get16be(c);
    if (compression > 1) return IMG_ERR_TYPE;  // deflate-coded data is not read

    const int32_t l = lay.bits == 24 ? h.width : (lay.bits * h.width + 7) / 8;
    auto *row = static_cast<uint8_t *>(mem.take((stride > rb8 ? stride : rb8) + 200));
    if (!row) return IMG_ERR_MEMORY;
    temp_plane_file temp;
    plane_sink s{put_row, context, -1, static_cast<int32_t>(stride), h.height};
    if (lay.planes > 1) {
        temp.fd = open_temp_file(temp.name, 0);
        if (temp.fd < 0) return IMG_ERR_CREATE;
        s.temp_fd = temp.fd;
        s.row_length = static_cast<int32_t>(rb8);
    }
    auto *counts = compression == 1 ? static_cast<uint8_t *>(mem.take(2 * h.height * lay.planes)) : row;
    if (!counts) return IMG_ERR_MEMORY;
    int rc = compression == 0 ? psd_read_raw_planes(src, s, lay.planes, l, row)
                              : psd_read_rle_planes(src, s, lay.planes, h.channels, l, row, counts);
    if (rc < 0 || lay.planes == 1) return rc < 0 ? rc : 0;

    auto *out = static_cast<uint8_t *>(mem.take(row_bytes(h.width, 24) + 16));
    auto *plane_rows = static_cast<uint8_t *>(mem.take(rb8 * 4));
    if (!out || !plane_rows) return IMG_ERR_MEMORY;
    return deliver_planes(h, lay.planes, temp.fd, out, plane_rows, put_row, context);
}

BRIVANTA_WRITER(psd_write_file) {
    const int32_t width = header->biWidth, height = header->biHeight;
    const int bits = header->biBitCount;
    // The format has no 4-bit mode: a 4-bit picture is promoted to 8 bits first.
    if (bits != 1 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    if (width < 1 || height < 1 || width > MAX_SIDE || height > MAX_SIDE) return IMG_ERR_HEADER;
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    const int mode = bits == 24 ? MODE_RGB : bits == 1 ? MODE_BITMAP : MODE_INDEXED;

    scratch_set mem;
    const uint32_t stride = row_bytes(width, bits);
    auto *row = static_cast<uint8_t *>(mem.take(stride + 64));
    auto *out = static_cast<uint8_t *>(mem.take(row_bytes(width, 8) + 64));
    if (!row || !out) return IMG_ERR_MEMORY;

    uint8_t h[HEADER_SIZE] = {'8', 'B', 'P', 'S', 0, 1};
    h[13] = bits == 24 ? 3 : 1;
    for (int i = 0; i < 4; i++) {
        h[14 + i] = static_cast<uint8_t>(height >> (24 - 8 * i));
        h[18 + i] = static_cast<uint8_t>(width >> (24 - 8 * i));
    }
    h[23] = bits == 1 ? 1 : 8;
    h[25] = static_cast<uint8_t>(mode);
    if (mode == MODE_INDEXED) h[28] = 3;  // 768 bytes of colour data
    if (int rc = write_all(fd, h, HEADER_SIZE); rc < 0) return rc;
    if (mode == MODE_INDEXED) {
        uint8_t rgb[768];
        for (int i = 0; i < 256; i++) {
            rgb[i] = palette[4 * i + 2];
            rgb[256 + i] = palette[4 * i + 1];
            rgb[512 + i] = palette[4 * i];
        }
        if (int rc = write_all(fd, rgb, 768); rc < 0) return rc;
    }
    const uint8_t sections[10] = {};  // no resources, no layers, raw data
    if (int rc = write_all(fd, sections, 10); rc < 0) return rc;

    const int channels = bits == 24 ? 3 : 1;
    const int32_t length = bits == 1 ? (width + 7) / 8 : width;
    for (int ch = 0; ch < channels; ch++) {
        for (int32_t r = 0; r < height; r++) {
            if (int rc = get_row(context, row, r, static_cast<int>(stride)); rc < 0) return rc;
            if (bits == 24) {
                for (int32_t x = 0; x < width; x++) out[x] = row[3 * x + 2 - ch];
            } else {
                std::memcpy(out, row, length);
                // The pad bits past the width stay clear.
                if (bits == 1 && (width & 7)) out[length - 1] &= static_cast<uint8_t>(0xFF00 >> (width & 7));
            }
            if (int rc = write_all(fd, out, length); rc < 0) return rc;
        }
    }
    return 0;
}

}  // namespace brv
