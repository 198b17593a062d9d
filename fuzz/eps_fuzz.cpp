// Fuzz target: bytes read as a binary EPS wrapper (the magic is forced so
// every input reaches the reader, which hands its preview to the TIFF
// reader), loaded low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    put32(in.bytes, 0xC6D3D0C5u);
    int h = load_both(in.bytes);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
