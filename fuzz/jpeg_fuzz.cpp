// Fuzz target: any bytes through the JPEG decoder, straight and after the
// kept tables of the previous input, and every decoded picture back through
// the encoder.
#include "codecs/jpeg.h"

#include <cstdlib>

namespace {

struct decoded {
    int width = 0, height = 0, bits = 0;
    uint8_t header[1064];
    uint8_t *pixels = nullptr;  // top-down, row_bytes each
};

int IMG_CALLBACK begin(void *header, void *context) {
    auto *d = static_cast<decoded *>(context);
    std::memcpy(d->header, header, sizeof d->header);
    auto *h = static_cast<dib_info *>(header);
    // Bound the work a hostile header can ask for.
    if (static_cast<int64_t>(h->biWidth) * h->biHeight > (1 << 20)) return IMG_ERR_STOPPED;
    d->width = h->biWidth, d->height = h->biHeight, d->bits = h->biBitCount;
    d->pixels = static_cast<uint8_t *>(std::calloc(row_bytes(d->width, d->bits), d->height));
    return d->pixels ? 0 : IMG_ERR_MEMORY;
}

int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int n) {
    auto *d = static_cast<decoded *>(context);
    uint32_t stride = row_bytes(d->width, d->bits);
    if (r < 0 || r >= d->height || static_cast<uint32_t>(n) != stride) std::abort();
    std::memcpy(d->pixels + static_cast<size_t>(r) * stride, row, stride);
    return 0;
}

int IMG_CALLBACK get_row(void *context, unsigned char *buffer, int r, int n) {
    auto *d = static_cast<decoded *>(context);
    if (r < 0 || r >= d->height || static_cast<uint32_t>(n) > row_bytes(d->width, d->bits)) std::abort();
    std::memcpy(buffer, d->pixels + static_cast<size_t>(r) * n, n);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    int block = IMG_mem_alloc(static_cast<int>(size));
    void *p = IMG_mem_lock(block);
    if (!p) return 0;
    std::memcpy(p, data, size);
    int live = mem_live_blocks();
    memory_source_set(p);
    decoded d;
    int rc = jpeg_read_file(0, put_row, &d, begin, MEMORY_FD);
    if (scratch_count() != 0) std::abort();  // the decoder frees what it takes
    if (rc == 0 && d.pixels) {
        int out = IMG_mem_alloc(static_cast<int>(row_bytes(d.width, 24) * d.height * 2 + 4096));
        void *q = IMG_mem_lock(out);
        if (q) {
            IMGLOW_save_bitmap_mem(q, d.header, IMG_TYPE_JPEG, get_row, &d);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    std::free(d.pixels);
    scratch_free_all();
    if (mem_live_blocks() != live) std::abort();
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    return 0;
}
