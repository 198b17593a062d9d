// Fuzz target: bytes read as a PCX (the first byte is forced so every input
// reaches the reader), loaded low-level and into a handle, then saved as PCX
// and reloaded: what loaded must look the same after the round trip.
#include "fuzz/fuzz_support.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>


// The colour of pixel x of row y (bottom-up storage), as 0xRRGGBB.
static uint32_t colour_at(const uint8_t *dib, int w, int h, int bits, int x, int y) {
    int row = bits == 1 ? (w + 7) / 8 : bits == 4 ? (w + 1) / 2 : bits == 24 ? 3 * w : w;
    int stride = (row + 3) & ~3;
    int pal = bits == 24 ? 0 : 4 << bits;
    const uint8_t *r = dib + 40 + pal + (h - 1 - y) * stride;
    if (bits == 24) return uint32_t(r[3 * x + 2]) << 16 | r[3 * x + 1] << 8 | r[3 * x];
    int v = bits == 8 ? r[x] : bits == 4 ? (r[x / 2] >> (x & 1 ? 0 : 4)) & 15 : (r[x / 8] >> (7 - x % 8)) & 1;
    const uint8_t *q = dib + 40 + 4 * v;
    return uint32_t(q[2]) << 16 | q[1] << 8 | q[0];
}

static bool same_look(int a, int b) {
    int wa, ha, ba, wb, hb, bb;
    int blk_a = IMG_bitmap_info(a, &wa, &ha, &ba), blk_b = IMG_bitmap_info(b, &wb, &hb, &bb);
    if (blk_a <= 0 || blk_b <= 0 || wa != wb || ha != hb || ba != bb) return false;
    auto *da = static_cast<uint8_t *>(IMG_mem_lock(blk_a));
    auto *db = static_cast<uint8_t *>(IMG_mem_lock(blk_b));
    bool same = true;
    for (int y = 0; same && y < ha; y++)
        for (int x = 0; same && x < wa; x++) same = colour_at(da, wa, ha, ba, x, y) == colour_at(db, wb, hb, bb, x, y);
    IMG_mem_unlock(blk_a);
    IMG_mem_unlock(blk_b);
    return same;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    p[0] = 10;
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, 0)) : -1;
    if (h >= 0) {
        int w, ht, bits;
        IMG_bitmap_info(h, &w, &ht, &bits);
        if (static_cast<int64_t>(w) * ht <= (1 << 18)) {
            int out = IMG_mem_alloc(static_cast<int>(int64_t{w} * ht * 4 + 20000));
            void *o = IMG_mem_lock(out);
            int n = o ? IMG_save_bitmap_mem(h, o, IMG_TYPE_PCX) : -1;
            if (n > 0) {
                int back = reload_exact(o, n);
                if (back < 0 || !same_look(h, back)) std::abort();  // our own PCX must read back
                IMG_delete_bitmap(back);
            }
            IMG_mem_unlock(out);
            IMG_mem_free(out);
        }
        IMG_delete_bitmap(h);
    }
    return 0;
}
