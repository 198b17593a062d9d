// Fuzz target: bytes read as WordPerfect graphics (the signature forced),
// loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    std::memcpy(p + 1, "WPC", 3);
    int h = load_both(p);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
