// Fuzz target: bytes read as an X pixmap (the "/* XPM */" the probe wants is
// forced), loaded into a handle, then saved as X pixmap again.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 9 || size > (1u << 20)) return 0;
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "/* XPM */", 9);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    IMGLOW_get_transp_color(h);
    save_checked(h, IMG_TYPE_XPM, 1 << 22);
    IMG_delete_bitmap(h);
    return 0;
}
