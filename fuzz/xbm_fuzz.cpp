// Fuzz target: bytes read as an X bitmap (the "#define" the probe wants is
// forced), loaded into a handle, then saved as X bitmap and X pixmap.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 7 || size > (1u << 20)) return 0;
    static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    (void)limit;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "#define", 7);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    int out = IMG_mem_alloc(1 << 22);
    if (void *o = IMG_mem_lock(out)) {
        IMG_save_bitmap_mem(h, o, IMG_TYPE_XBM);
        IMG_save_bitmap_mem(h, o, IMG_TYPE_XPM);
        IMG_mem_unlock(out);
    }
    IMG_mem_free(out);
    IMG_delete_bitmap(h);
    return 0;
}
