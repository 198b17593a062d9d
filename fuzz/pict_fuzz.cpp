// Fuzz target: bytes read as a PICT file (the first ten bytes cleared and a
// version 1 or 2 opcode forced after the 512-byte header, by the input's
// first bit, so detection names it), loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 526, [](uint8_t *p) {
        const bool version1 = p[0] & 1;
        std::memset(p, 0, 10);
        static const uint8_t v1[2] = {0x11, 0x01}, v2[4] = {0x00, 0x11, 0x02, 0xFF};
        std::memcpy(p + 522, version1 ? v1 : v2, version1 ? 2 : 4);
    });
}
