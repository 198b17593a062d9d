// Fuzz target: bytes read as an icon (the directory's type and the first
// entry's width are forced so detection names it), loaded low-level and
// into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 8, [](uint8_t *p) {
        static const uint8_t head[4] = {0, 0, 1, 0};
        std::memcpy(p, head, 4);
        p[6] = 32;
    });
}
