// Fuzz target: bytes read as an X bitmap (the "#define" the probe wants is
// forced), loaded low-level and into a handle, then saved as X bitmap and
// X pixmap.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    return fuzz_load(data, size, 7, [](uint8_t *p) { std::memcpy(p, "#define", 7); }, [](int h) {
        save_checked(h, IMG_TYPE_XBM, 1 << 22);
        save_checked(h, IMG_TYPE_XPM, 1 << 22);
    });
}
