// Fuzz target: bytes read as a BMP (or, when the last byte says so, a bare
// DIB), loaded low-level and into a handle under the load settings that the
// last byte picks; a loaded bitmap must survive a plain and, at 4 and 8 bits,
// a run-length BMP save and reload unchanged.
#include "fuzz/fuzz_support.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>


static int stride_of(int w, int bits) {
    int64_t n = bits == 24 ? int64_t{w} * 3 : bits == 8 ? w : bits == 4 ? (int64_t{w} + 1) / 2 : (int64_t{w} + 7) / 8;
    return static_cast<int>((n + 3) & ~int64_t{3});
}

// The reload equals the original: same size and depth, the same colour
// table at 4 and 8 bits, the same pixels (padding bits aside).  A bilevel
// table of white then black is read back inverted and normalised, so the
// pixels are compared through that inversion.
static bool same_bitmap(int a, int b) {
    int wa, ha, ba, wb, hb, bb;
    int blk_a = IMG_bitmap_info(a, &wa, &ha, &ba), blk_b = IMG_bitmap_info(b, &wb, &hb, &bb);
    if (blk_a <= 0 || blk_b <= 0 || wa != wb || ha != hb || ba != bb) return false;
    auto *da = static_cast<uint8_t *>(IMG_mem_lock(blk_a));
    auto *db = static_cast<uint8_t *>(IMG_mem_lock(blk_b));
    const int pal = ba == 24 ? 0 : 4 << ba, stride = stride_of(wa, ba);
    bool same = ba == 1 || std::memcmp(da + 40, db + 40, pal) == 0;
    uint8_t flip = 0;
    if (ba == 1) {
        const uint8_t *p = da + 40;
        bool white_first = p[0] == 255 && p[1] == 255 && p[2] == 255 && p[4] == 0 && p[5] == 0 && p[6] == 0;
        flip = white_first ? 0xFF : 0;
    }
    const int64_t bits_used = int64_t{wa} * ba;
    const int full = static_cast<int>(bits_used / 8), rest = static_cast<int>(bits_used % 8);
    const uint8_t last_mask = static_cast<uint8_t>(0xFF00 >> rest);
    for (int y = 0; same && y < ha; y++) {
        const uint8_t *ra = da + 40 + pal + int64_t{y} * stride, *rb = db + 40 + pal + int64_t{y} * stride;
        for (int i = 0; same && i < full; i++) same = static_cast<uint8_t>(ra[i] ^ flip) == rb[i];
        if (same && rest) same = ((ra[full] ^ flip) & last_mask) == (rb[full] & last_mask);
    }
    IMG_mem_unlock(blk_a);
    IMG_mem_unlock(blk_b);
    return same;
}

static void round_trip(int h, int type) {
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    if (type == IMG_TYPE_BMP_RLE && bits != 4 && bits != 8) return;
    const int room = static_cast<int>(int64_t{w} * ht * 4 + 20000);
    int out = IMG_mem_alloc(room);
    void *o = IMG_mem_lock(out);
    int n = o ? IMG_save_bitmap_mem(h, o, type) : -1;
    if (n > room) std::abort();  // a BMP of this picture cannot be larger
    if (n > 0) {
        int back = reload_exact(o, n);
        if (back < 0 || !same_bitmap(h, back)) std::abort();  // our own BMP must read back
        IMG_delete_bitmap(back);
    } else if (n != IMG_ERR_DEPTH) {
        std::abort();  // saving a loaded bitmap into a large enough block cannot fail
    }
    IMG_mem_unlock(out);
    IMG_mem_free(out);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 16 || size > (1u << 20)) return 0;
    // The last byte: bits 0-1 the load reduction (none, 8, 4, 1), bit 2 a
    // shrink to 16 x 12, bit 3 a bare DIB (the "BM" is not forced).
    const uint8_t knobs = data[size - 1];
    static constexpr int reductions[4] = {0, 8, 4, 1};
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    if (!(knobs & 8)) std::memcpy(p, "BM", 2);
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    IMGLOW_set_decomp_reduction(reductions[knobs & 3]);
    if (knobs & 4) IMGLOW_set_decompsize(16, 12);
    int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, 0)) : -1;
    IMGLOW_set_decomp_reduction(0);
    IMGLOW_set_decompsize(0, 0);
    if (h >= 0) {
        int w, ht, bits;
        IMG_bitmap_info(h, &w, &ht, &bits);
        if (int64_t{w} * ht <= (1 << 20)) {
            round_trip(h, IMG_TYPE_BMP);
            round_trip(h, IMG_TYPE_BMP_RLE);
        }
        IMG_delete_bitmap(h);
    }
    return 0;
}
