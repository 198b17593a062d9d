// Fuzz target: bytes read as an icon (the directory's type and the first
// entry's width are forced so detection names it), loaded low-level and
// into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 8 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    static const uint8_t head[4] = {0, 0, 1, 0};
    std::memcpy(p, head, 4);
    p[6] = 32;
    int h = load_both(p);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
