// Fuzz target: bytes read as a GIF (the signature is forced so every input
// reaches the reader), loaded low-level and into a handle; a loaded bitmap
// must survive a GIF save and reload unchanged.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 6, [](uint8_t *p) { std::memcpy(p, "GIF", 3); },
                     [](int h) { save_reloaded(h, IMG_TYPE_GIF, 1 << 20); });
}
