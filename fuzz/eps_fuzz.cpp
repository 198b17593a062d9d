// Fuzz target: bytes read as a binary EPS wrapper (the magic is forced so
// every input reaches the reader, which hands its preview to the TIFF
// reader), loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 4, [](uint8_t *p) { put32(p, 0xC6D3D0C5u); });
}
