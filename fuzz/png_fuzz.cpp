// Fuzz target: bytes read as PNG (the signature is forced so every input
// reaches the reader), loaded low-level and into a handle, which is then
// saved as PNG.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 8, [](uint8_t *p) { std::memcpy(p, "\x89PNG\r\n\x1a\n", 8); }, [](int h) {
        if (announced_pixels <= (1 << 20)) save_checked(h, IMG_TYPE_PNG, announced_pixels * 4 + 4000);
    });
}
