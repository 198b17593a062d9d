// Fuzz target: bytes read as PNG (the signature is forced so every input
// reaches the reader), loaded low-level and into a handle, which is then
// saved as PNG.
#include "fuzz/fuzz_support.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 8 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "\x89PNG\r\n\x1a\n", 8);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(in.bytes, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0)) : -1;
    if (h >= 0 && announced_pixels <= (1 << 20)) {
        int out = IMG_mem_alloc(static_cast<int>(announced_pixels * 4 + 4000));
        if (void *o = IMG_mem_lock(out)) {
            IMG_save_bitmap_mem(h, o, IMG_TYPE_PNG);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
