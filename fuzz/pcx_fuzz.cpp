// Fuzz target: bytes read as a PCX (the first byte is forced so every input
// reaches the reader), loaded low-level and into a handle, then saved as PCX
// and reloaded: what loaded must look the same after the round trip.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    in.bytes[0] = 10;
    int h = load_both(in.bytes);
    if (h < 0) return 0;
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    if (int64_t{w} * ht <= (1 << 18)) save_checked(h, IMG_TYPE_PCX, int64_t{w} * ht * 4 + 20000, true);
    IMG_delete_bitmap(h);
    return 0;
}
