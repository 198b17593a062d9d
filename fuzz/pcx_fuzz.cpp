// Fuzz target: bytes read as a PCX (the first byte is forced so every input
// reaches the reader), loaded low-level and into a handle, then saved as PCX
// and reloaded: what loaded must look the same after the round trip.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 1, [](uint8_t *p) { p[0] = 10; },
                     [](int h) { save_reloaded(h, IMG_TYPE_PCX, 1 << 18); });
}
