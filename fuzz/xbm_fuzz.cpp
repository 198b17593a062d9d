// Fuzz target: bytes read as an X bitmap (the "#define" the probe wants is
// forced), loaded into a handle, then saved as X bitmap and X pixmap.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 7 || size > (1u << 20)) return 0;
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "#define", 7);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    save_checked(h, IMG_TYPE_XBM, 1 << 22);
    save_checked(h, IMG_TYPE_XPM, 1 << 22);
    IMG_delete_bitmap(h);
    return 0;
}
