// Fuzz target: bytes read as a Photoshop document (the signature is forced
// so every input reaches the reader), loaded low-level and into a handle,
// which is then saved as a Photoshop document.
#include "fuzz/fuzz_support.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "8BPS", 4);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(in.bytes, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0)) : -1;
    if (h >= 0 && announced_pixels <= (1 << 20)) {
        int out = IMG_mem_alloc(static_cast<int>(announced_pixels * 3 + 2000));
        if (void *o = IMG_mem_lock(out)) {
            IMG_save_bitmap_mem(h, o, IMG_TYPE_PSD);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
