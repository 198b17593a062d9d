// Fuzz target: the load settings with the input.  The first four bytes pick
// the shrink size (either side may be 0 or negative), the load reduction,
// the dither mode and the page; the rest is a file of any type, loaded into
// a handle and through the low-level load.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    static const int sizes[8] = {0, 1, 2, 3, 17, 100, -1, 0x7FFFFFFF};
    static const int reductions[8] = {0, 1, 4, 8, 0, 24, 2, -8};
    IMGLOW_set_decompsize(sizes[data[0] & 7], sizes[(data[0] >> 3) & 7]);
    IMGLOW_set_decomp_reduction(reductions[data[1] & 7]);
    IMGLOW_set_dithermode(static_cast<int8_t>(data[2]));
    const int page = data[3] & 7;
    fuzz_input in(data + 4, size - 4);
    if (in.bytes) {
        IMGLOW_decompress_bitmap_mem(in.bytes, page, accept_row, nullptr, accept_header);
        int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, page));
        if (h >= 0) IMG_delete_bitmap(h);
    }
    IMGLOW_set_decompsize(0, 0);
    IMGLOW_set_decomp_reduction(0);
    IMGLOW_set_dithermode(0);
    return 0;
}
