// Fuzz target: bytes read as an X pixmap (the "/* XPM */" the probe wants is
// forced), loaded into a handle, then saved as X pixmap again.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 9 || size > (1u << 20)) return 0;
    static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    (void)limit;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "/* XPM */", 9);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    IMGLOW_get_transp_color(h);
    int out = IMG_mem_alloc(1 << 22);
    if (void *o = IMG_mem_lock(out)) {
        IMG_save_bitmap_mem(h, o, IMG_TYPE_XPM);
        IMG_mem_unlock(out);
    }
    IMG_mem_free(out);
    IMG_delete_bitmap(h);
    return 0;
}
