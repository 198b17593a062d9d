// Fuzz target: bytes read as a CALS raster (the "src" the probe wants is
// forced), loaded into a handle, then saved as CALS and reloaded: the page
// must come back with the same pixels.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3 || size > (1u << 20)) return 0;
    static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    (void)limit;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "src", 3);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    int w, ht, bits;
    int block = IMG_bitmap_info(h, &w, &ht, &bits);
    if (block > 0 && int64_t{w} * ht <= (1 << 20)) {
        int out = IMG_mem_alloc(static_cast<int>(int64_t{w} * ht / 2 + 8192));
        void *o = IMG_mem_lock(out);
        int n = o ? IMG_save_bitmap_mem(h, o, IMG_TYPE_CALS) : -1;
        if (n > 0) {
            int back = reload_exact(o, n);
            auto *a = static_cast<uint8_t *>(IMG_mem_lock(block));
            int w2 = 0, h2 = 0, bits2 = 0;
            int bb = back >= 0 ? IMG_bitmap_info(back, &w2, &h2, &bits2) : 0;
            auto *b = bb > 0 && w2 == w && h2 == ht ? static_cast<uint8_t *>(IMG_mem_lock(bb)) : nullptr;
            const size_t sz = 40 + 8 + size_t{row_bytes(w, 1)} * ht;
            if (!b || std::memcmp(a + 40, b + 40, sz - 40) != 0) std::abort();
            IMG_mem_unlock(bb);
            IMG_mem_unlock(block);
            IMG_delete_bitmap(back);
        }
        IMG_mem_unlock(out);
        IMG_mem_free(out);
    }
    IMG_delete_bitmap(h);
    return 0;
}
