// Fuzz target: bytes read as a placeable metafile (the key forced so
// detection names it), its records scanned for the first bitmap, loaded
// low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 40, [](uint8_t *p) { put32(p, 0x9AC6CDD7u); });
}
