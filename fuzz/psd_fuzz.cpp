// Fuzz target: bytes read as a Photoshop document (the signature is forced
// so every input reaches the reader), loaded low-level and into a handle; a
// loaded 8- or 24-bit bitmap must survive a Photoshop save and reload.
#include "fuzz/fuzz_support.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

// The pixels (padding left out) and colour tables of two handles agree.
static bool same_pixels(int a, int b) {
    int wa, ha, ba, wb, hb, bb;
    int blk_a = IMG_bitmap_info(a, &wa, &ha, &ba), blk_b = IMG_bitmap_info(b, &wb, &hb, &bb);
    if (blk_a <= 0 || blk_b <= 0 || wa != wb || ha != hb || ba != bb) return false;
    auto *da = static_cast<uint8_t *>(IMG_mem_lock(blk_a));
    auto *db = static_cast<uint8_t *>(IMG_mem_lock(blk_b));
    const size_t used = ba == 24 ? 3 * size_t(wa) : size_t(wa), stride = row_bytes(wa, ba), pal = palette_bytes(ba);
    bool same = std::memcmp(da + 40, db + 40, pal) == 0;
    for (int y = 0; same && y < ha; y++) same = std::memcmp(da + 40 + pal + y * stride, db + 40 + pal + y * stride, used) == 0;
    IMG_mem_unlock(blk_a);
    IMG_mem_unlock(blk_b);
    return same;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    std::memcpy(p, "8BPS", 4);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, 0)) : -1;
    if (h >= 0) {
        int w, ht, bits;
        IMG_bitmap_info(h, &w, &ht, &bits);
        if (bits != 1 && static_cast<int64_t>(w) * ht <= (1 << 20)) {
            int out = IMG_mem_alloc(static_cast<int>(int64_t{w} * ht * 3 + 2000));
            void *o = IMG_mem_lock(out);
            int n = o ? IMG_save_bitmap_mem(h, o, IMG_TYPE_PSD) : -1;
            if (n > 0) {
                int back = reload_exact(o, n);
                if (back < 0 || !same_pixels(h, back)) std::abort();  // our own document must read back
                IMG_delete_bitmap(back);
            }
            IMG_mem_unlock(out);
            IMG_mem_free(out);
        }
        IMG_delete_bitmap(h);
    }
    return 0;
}
