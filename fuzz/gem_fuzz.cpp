// Fuzz target: bytes read as a GEM raster image (the version and header
// length the probe wants are forced, eight or nine words by the input),
// loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);  // giant announced sizes stop at the header
    return fuzz_load(data, size, 16, [](uint8_t *p) {
        const uint8_t words = p[3] & 1 ? 9 : 8;
        std::memcpy(p, "\0\1\0", 3);
        p[3] = words;
    });
}
