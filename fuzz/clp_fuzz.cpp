// Fuzz target: bytes read as a clipboard file (its identifier forced),
// loaded low-level and into a handle; a loaded bitmap saved as a clipboard
// file must load back at its size and depth.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    p[0] = 0x50, p[1] = 0xC3;
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, 0)) : -1;
    if (h < 0) return 0;
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    if (int64_t{w} * ht <= (1 << 20)) {
        const int room = static_cast<int>(int64_t{w} * ht * 4 + 20000);
        int out = IMG_mem_alloc(room);
        void *o = IMG_mem_lock(out);
        int n = o ? IMG_save_bitmap_mem(h, o, IMG_TYPE_CLIPBOARD) : -1;
        if (o && n <= 0) std::abort();  // a loaded bitmap always saves
        if (n > 0) {
            int back = reload_exact(o, n);
            int w2, h2, b2;
            if (back < 0 || IMG_bitmap_info(back, &w2, &h2, &b2) <= 0 || w2 != w || h2 != ht || b2 != bits)
                std::abort();  // our own file must read back as it was saved
            IMG_delete_bitmap(back);
        }
        IMG_mem_unlock(out);
        IMG_mem_free(out);
    }
    IMG_delete_bitmap(h);
    return 0;
}
