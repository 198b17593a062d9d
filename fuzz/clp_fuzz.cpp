// Fuzz target: bytes read as a clipboard file (its identifier forced),
// loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 4, [](uint8_t *p) { p[0] = 0x50, p[1] = 0xC3; });
}
