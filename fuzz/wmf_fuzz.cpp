// Fuzz target: bytes read as a placeable metafile (the key forced so
// detection names it), its records scanned for the first bitmap, loaded
// low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 40 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    put32(in.bytes, 0x9AC6CDD7u);
    int h = load_both(in.bytes);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
