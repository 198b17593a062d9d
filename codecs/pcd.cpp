// PhotoCD image packs: the base image, 768 x 512, stored uncompressed from
// sector 96 as pairs of luma rows followed by one row each of the two
// half-resolution chroma channels, in PhotoYCC.  The orientation byte is left
// to IMGLOW_get_image_orientation, so rows come as stored.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

namespace brv {

namespace {

constexpr int32_t PCD_WIDTH = 768, PCD_HEIGHT = 512;
constexpr int32_t PCD_BASE_OFFSET = 0x30000;
constexpr int32_t PCD_SIGNATURE_OFFSET = 0x800;
constexpr int32_t PCD_PAIR_BYTES = PCD_WIDTH * 3;  // two luma rows, two half rows of chroma

// The published PhotoYCC to RGB conversion, in 16.16 fixed point.
constexpr int32_t fixed(double v) { return static_cast<int32_t>(v * 65536 + (v < 0 ? -0.5 : 0.5)); }
constexpr int32_t K_LUMA = fixed(1.3584), K_C1 = fixed(2.2179), K_C2 = fixed(1.8215);
constexpr int32_t K_G_C1 = fixed(0.194), K_G_C2 = fixed(0.509);

uint8_t clamp_channel(int64_t v) { return static_cast<uint8_t>(v < 0 ? 0 : v > (255 << 16) ? 255 : (v + 32768) >> 16); }

void ycc_row(const uint8_t *luma, const uint8_t *c1, const uint8_t *c2, uint8_t *bgr) {
    for (int32_t x = 0; x < PCD_WIDTH; x++) {
        const int64_t l = int64_t{K_LUMA} * luma[x];
        const int64_t a = int64_t{K_C1} * (c1[x >> 1] - 156), b = int64_t{K_C2} * (c2[x >> 1] - 137);
        bgr[3 * x] = clamp_channel(l + a);
        bgr[3 * x + 1] = clamp_channel(l - (K_G_C1 * a >> 16) - (K_G_C2 * b >> 16));
        bgr[3 * x + 2] = clamp_channel(l + b);
    }
}

}  // namespace

BRIVANTA_READER(pcd_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start + PCD_SIGNATURE_OFFSET, READ_BUFFER_SIZE + PCD_PAIR_BYTES)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t signature[7];
    if (source_read(src, signature, 7) != 7) return IMG_ERR_OPEN;
    if (std::memcmp(signature, "PCD_IPI", 7) != 0) return IMG_ERR_HEADER;

    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    auto *pair = static_cast<uint8_t *>(mem.take(PCD_PAIR_BYTES));
    auto *row = static_cast<uint8_t *>(mem.take(PCD_WIDTH * 3));
    if (!dib || !pair || !row) return IMG_ERR_MEMORY;
    dib_info &h = dib->info;
    set_dib_size(h, PCD_WIDTH, PCD_HEIGHT, 24);
    h.biSizeImage = row_bytes(PCD_WIDTH, 24) * PCD_HEIGHT;
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    source_seek(src, start + PCD_BASE_OFFSET);
    const uint8_t *c1 = pair + 2 * PCD_WIDTH, *c2 = c1 + PCD_WIDTH / 2;
    for (int32_t y = 0; y < PCD_HEIGHT; y += 2) {
        if (source_read(src, pair, PCD_PAIR_BYTES) != PCD_PAIR_BYTES) return IMG_ERR_DATA;
        for (int32_t k = 0; k < 2; k++) {
            ycc_row(pair + k * PCD_WIDTH, c1, c2, row);
            if (int rc = put_row(row, context, y + k, PCD_WIDTH * 3); rc < 0) return rc;
        }
    }
    return 0;
}

}  // namespace brv
