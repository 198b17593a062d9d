// Fuzz target: bytes read as a CALS raster (the "src" the probe wants is
// forced), loaded into a handle, then saved as CALS.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3 || size > (1u << 20)) return 0;
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "src", 3);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h < 0) return 0;
    save_checked(h, IMG_TYPE_CALS, 1 << 22);
    IMG_delete_bitmap(h);
    return 0;
}
