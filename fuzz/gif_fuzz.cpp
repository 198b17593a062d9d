// Fuzz target: bytes read as a GIF (the signature is forced so every input
// reaches the reader), loaded low-level and into a handle; a loaded bitmap
// must survive a GIF save and reload unchanged.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 6 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "GIF", 3);
    int h = load_both(in.bytes);
    if (h < 0) return 0;
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    if (int64_t{w} * ht <= (1 << 20)) save_checked(h, IMG_TYPE_GIF, int64_t{w} * ht * 4 + 20000, true);
    IMG_delete_bitmap(h);
    return 0;
}
