// Fuzz target: any bytes, placed in a real memory block, through the
// low-level memory load and the handle-level load.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = check_loaded(IMG_decompress_bitmap_mem(p, 0));
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
