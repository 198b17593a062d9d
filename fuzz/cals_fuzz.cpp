// Fuzz target: bytes read as a CALS raster (the "src" the probe wants is
// forced), loaded low-level and into a handle, then saved as CALS.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    return fuzz_load(data, size, 3, [](uint8_t *p) { std::memcpy(p, "src", 3); },
                     [](int h) { save_checked(h, IMG_TYPE_CALS, 1 << 22); });
}
