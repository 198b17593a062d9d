// PNG, type 43: the reader picks the nearest DIB for every colour type and
// depth and mattes transparency against the file's background (white when
// it names none); the writer stores 1, 4 and 8 bits as grey or palette and
// 24 bits as RGB.  The system's codec (platform/png_codec.h) does the
// compression on either side.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"
#include "platform/png_codec.h"

namespace brv {

namespace {

int32_t read_source(void *user, uint8_t *dst, int32_t n) { return source_read(*static_cast<byte_source *>(user), dst, n); }

bool write_fd(void *user, const uint8_t *src, int32_t n) { return write_all(*static_cast<int *>(user), src, n) == 0; }

struct decoder_guard {
    png_decoder *d;
    ~decoder_guard() { png_decode_close(d); }
};

struct encoder_guard {
    png_encoder *e;
    ~encoder_guard() { png_encode_close(e); }
};

uint8_t matte(uint32_t c, uint32_t alpha, uint32_t back) {
    return static_cast<uint8_t>((c * alpha + back * (255 - alpha) + 127) / 255);
}

// The DIB depth of a packed picture: 2-bit samples widen to 4.
int packed_dib_bits(int depth) { return depth == 1 ? 1 : depth == 8 ? 8 : 4; }

// The colour table of a packed picture, transparent entries matted.
void packed_palette(const png_info &in, const uint8_t *back, uint8_t *palette) {
    if (in.colour_type == 3) {
        for (int i = 0; i < in.palette_count; i++) {
            const uint8_t *e = in.palette[i];
            palette[4 * i] = matte(e[2], e[3], back[2]);
            palette[4 * i + 1] = matte(e[1], e[3], back[1]);
            palette[4 * i + 2] = matte(e[0], e[3], back[0]);
        }
        return;
    }
    const int top = (1 << in.bit_depth) - 1;
    for (int i = 0; i <= top; i++) std::memset(palette + 4 * i, i * 255 / top, 3);
    if (in.grey_key >= 0 && in.grey_key <= top) palette_from_rgb(palette + 4 * in.grey_key, back, 1);
}

void convert_row(const png_info &in, const uint8_t *src, uint8_t *out, int bits, const uint8_t *back) {
    const uint32_t w = in.width;
    if (in.packed) {
        if (in.bit_depth != 2) {
            const size_t used = static_cast<size_t>(w) * in.bit_depth;
            std::memcpy(out, src, (used + 7) / 8);
            // The bits past the last pixel are the encoder's (or the system
            // decoder's) choice: cleared, so both systems store the same row.
            if (used % 8) out[used / 8] &= static_cast<uint8_t>(0xFF00 >> (used % 8));
            return;
        }
        for (uint32_t x = 0; x < w; x += 2) {
            int a = src[x / 4] >> (6 - 2 * (x % 4)) & 3;
            int b = x + 1 < w ? src[x / 4] >> (4 - 2 * (x % 4)) & 3 : 0;
            out[x / 2] = static_cast<uint8_t>(a << 4 | b);
        }
        return;
    }
    if (bits == 8) {
        for (uint32_t x = 0; x < w; x++) out[x] = matte(src[4 * x], src[4 * x + 3], back[0]);
        return;
    }
    for (uint32_t x = 0; x < w; x++) {
        const uint8_t *p = src + 4 * x;
        out[3 * x] = matte(p[2], p[3], back[2]);
        out[3 * x + 1] = matte(p[1], p[3], back[1]);
        out[3 * x + 2] = matte(p[0], p[3], back[0]);
    }
}

}  // namespace

BRIVANTA_READER(png_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);

    png_info in;
    int rc = 0;
    // An RGBA row of the widest picture must still fit a 31-bit size.
    decoder_guard dec{png_decode_open(read_source, &src, 0x7FFFFFF0u / 4, 0x7FFFFFFFu, &in, &rc)};
    if (!dec.d) return rc;

    const bool grey_out = in.colour_type == 0 || in.colour_type == 4;
    const int bits = in.packed ? packed_dib_bits(in.bit_depth) : grey_out ? 8 : 24;
    const uint32_t out_len = row_bytes(in.width, bits);
    const uint32_t in_len = in.packed ? (in.width * static_cast<uint32_t>(in.bit_depth) + 7) / 8 : in.width * (in.rgb ? 3 : 4);
    uint32_t image_size = 0;
    if (!out_len || !size_mul_add(out_len, in.height, 0, &image_size)) return IMG_ERR_MEMORY;
    uint32_t decoded_size = 0;
    if (in.interlaced && (!size_mul_add(in_len, in.height, 0, &decoded_size) || !within_load_limit(decoded_size)))
        return IMG_ERR_MEMORY;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    auto *out = static_cast<uint8_t *>(mem.take(out_len + 8));
    auto *row = static_cast<uint8_t *>(mem.take(in_len + 8));
    if (!dib || !out || !row) return IMG_ERR_MEMORY;
    static constexpr uint8_t white[3] = {255, 255, 255};
    const uint8_t *back = in.has_background ? in.background : white;
    dib_info &h = dib->info;
    set_dib_size(h, in.width, in.height, bits);
    h.biSizeImage = image_size;
    h.biXPelsPerMeter = in.dpi_x;
    h.biYPelsPerMeter = in.dpi_y;
    if (in.packed) packed_palette(in, back, dib->palette);
    else if (grey_out) fill_grey_ramp(dib->palette);
    if ((rc = begin_image(dib, context)) < 0) return rc;

    for (uint32_t y = 0; y < in.height; y++) {
        // Opaque RGB comes straight into the DIB row (the handle's own, when
        // the sink allows): only red and blue trade places.
        uint8_t *dst = in.rgb ? load_row_target(put_row, context, static_cast<int>(y)) : nullptr;
        if (!dst) dst = out;
        if ((rc = png_decode_row(dec.d, in.rgb ? dst : row)) < 0) return rc;
        if (in.rgb)
            swap_red_blue(dst, dst, in.width);
        else
            convert_row(in, row, out, bits, back);
        if ((rc = put_row(dst, context, static_cast<int>(y), static_cast<int>(out_len))) < 0) return rc;
    }
    return 0;
}

BRIVANTA_WRITER(png_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_HEADER;
    const uint32_t width = static_cast<uint32_t>(header->biWidth);
    const uint32_t fetch = row_bytes(width, bits);
    if (!fetch) return IMG_ERR_HEADER;

    auto *p = static_cast<png_encode_params *>(scratch_alloc(sizeof(png_encode_params)));
    if (!p) return IMG_ERR_MEMORY;
    scratch_set mem;
    mem.adopt(p);
    p->width = width;
    p->height = static_cast<uint32_t>(header->biHeight);
    p->dpi_x = header->biXPelsPerMeter;
    p->dpi_y = header->biYPelsPerMeter;
    p->level = settings.png_level;
    if (bits == 24) {
        p->bit_depth = 8;
        p->colour_type = 2;
    } else {
        const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
        const int count = 1 << bits;
        bool ramp = true;
        for (int i = 0; i < count && ramp; i++) {
            const uint8_t *e = palette + 4 * i;
            ramp = e[0] == i * 255 / (count - 1) && palette_is_grey(e, 1);
        }
        p->bit_depth = bits;
        p->colour_type = ramp ? 0 : 3;
        p->palette_count = count;
        for (int i = 0; i < count; i++) {
            p->palette[i][0] = palette[4 * i + 2];
            p->palette[i][1] = palette[4 * i + 1];
            p->palette[i][2] = palette[4 * i];
        }
    }
    auto *row = static_cast<uint8_t *>(mem.take(fetch + 8));
    if (!row) return IMG_ERR_MEMORY;
    int rc = 0;
    encoder_guard enc{png_encode_open(*p, write_fd, &fd, &rc)};
    if (!enc.e) return rc;
    for (int y = 0; y < header->biHeight; y++) {
        if ((rc = get_row(context, row, y, static_cast<int>(fetch))) < 0) return rc;
        if (bits == 24) swap_red_blue(row, row, width);
        if ((rc = png_encode_row(enc.e, row)) < 0) return rc;
    }
    return png_encode_finish(enc.e);
}

}  // namespace brv
