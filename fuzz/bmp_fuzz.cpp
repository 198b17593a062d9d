// Fuzz target: bytes read as a BMP (or, when the last byte says so, a bare
// DIB), loaded low-level and into a handle under the load settings that the
// last byte picks; a loaded bitmap must survive a plain and, at 4 and 8 bits,
// a run-length BMP save and reload looking the same.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 16 || size > (1u << 20)) return 0;
    // The last byte: bits 0-1 the load reduction (none, 8, 4, 1), bit 2 a
    // shrink to 16 x 12, bit 3 a bare DIB (the "BM" is not forced).
    const uint8_t knobs = data[size - 1];
    static constexpr int reductions[4] = {0, 8, 4, 1};
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    if (!(knobs & 8)) std::memcpy(in.bytes, "BM", 2);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(in.bytes, 0, accept_row, nullptr, accept_header);
    IMGLOW_set_decomp_reduction(reductions[knobs & 3]);
    if (knobs & 4) IMGLOW_set_decompsize(16, 12);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0)) : -1;
    IMGLOW_set_decomp_reduction(0);
    IMGLOW_set_decompsize(0, 0);
    if (h < 0) return 0;
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    const int64_t room = int64_t{w} * ht * 4 + 20000;
    for (int type : {IMG_TYPE_BMP, IMG_TYPE_BMP_RLE}) {
        if (int64_t{w} * ht > (1 << 20) || (type == IMG_TYPE_BMP_RLE && bits != 4 && bits != 8)) continue;
        // A BMP of this picture fits the block, so the save cannot fail.
        const int n = save_checked(h, type, room, true);
        if (n > room || (n <= 0 && n != IMG_ERR_DEPTH)) std::abort();
    }
    IMG_delete_bitmap(h);
    return 0;
}
