// Fuzz target: bytes read as a clipboard file (its identifier forced),
// loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    in.bytes[0] = 0x50, in.bytes[1] = 0xC3;
    int h = load_both(in.bytes);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
