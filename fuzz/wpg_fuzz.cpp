// Fuzz target: bytes read as WordPerfect graphics (the signature forced),
// loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 4, [](uint8_t *p) { std::memcpy(p + 1, "WPC", 3); });
}
