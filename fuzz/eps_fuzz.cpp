// Fuzz target: bytes read as a binary EPS wrapper (the magic is forced so
// every input reaches the reader, which hands its preview to the TIFF
// reader); a loaded bitmap goes through the EPS writer.
#include "fuzz/fuzz_support.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    put32(p, 0xC6D3D0C5u);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, 0)) : -1;
    if (h >= 0) {
        int w, ht, bits;
        IMG_bitmap_info(h, &w, &ht, &bits);
        if (static_cast<int64_t>(w) * ht <= (1 << 18)) {
            int out = IMG_mem_alloc(static_cast<int>(int64_t{w} * ht * 6 + int64_t{ht} * 4 + 16000));
            if (void *o = IMG_mem_lock(out)) {
                IMG_save_bitmap_mem(h, o, IMG_TYPE_EPS);
                IMG_mem_unlock(out);
            }
            IMG_mem_free(out);
        }
        IMG_delete_bitmap(h);
    }
    return 0;
}
