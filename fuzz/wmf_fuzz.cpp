// Fuzz target: bytes read as a placeable metafile (the key forced so
// detection names it), its records scanned for the first bitmap, loaded
// low-level and into a handle.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 40 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    put32(in.bytes, 0x9AC6CDD7u);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(in.bytes, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0)) : -1;
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
