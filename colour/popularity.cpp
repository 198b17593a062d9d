// The popularity palette: the 255 most frequent 12-bit colours beside black,
// and a nearest-colour mapping onto them without dithering.
#include "colour/reshape.h"

namespace brv {

namespace {

constexpr int KEYS = 4096;

inline int key_of(const uint8_t *bgr) { return (bgr[2] & 0xF0) << 4 | (bgr[1] & 0xF0) | bgr[0] >> 4; }

// The entry nearest to key k on components reduced to (c >> 4) * 2; the
// first of equals wins and an exact match ends the search.
int nearest_entry(int k, const uint16_t keys[256]) {
    const int r = (k >> 8) * 2, g = (k >> 4 & 15) * 2, b = (k & 15) * 2;
    int best = 65535, index = 0;
    for (int i = 0; i < 256; i++) {
        const int e = keys[i];
        const int dr = r - (e >> 8) * 2, dg = g - (e >> 4 & 15) * 2, db = b - (e & 15) * 2;
        const int d = dr * dr + dg * dg + db * db;
        if (d < best) {
            best = d;
            index = i;
            if (d == 0) break;
        }
    }
    return index;
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_popularity_color(int h) {
    reshape s(h, 1u << 24, 8);
    if (s.result()) return s.result();
    scratch_array<uint16_t> count(KEYS);
    // The mapping depends only on a pixel's key, so it is made once per key.
    scratch_array<uint8_t> map(KEYS);
    if (!count || !map) return IMG_ERR_MEMORY;
    for (int r = 0; r < s.height(); r++) {
        const uint8_t *p = s.row(r);
        // Counters wrap at 65536 by design.
        for (int x = 0; x < s.width(); x++, p += 3) count[key_of(p)]++;
    }
    uint16_t keys[256];
    keys[0] = 0;
    for (int n = 1; n < 256; n++) {
        int best = 0, best_count = 0;
        // Greater or equal: among equal counts the highest key wins, and an
        // exhausted histogram yields key 4095.
        for (int k = 0; k < KEYS; k++)
            if (count[k] >= best_count) best_count = count[k], best = k;
        keys[n] = static_cast<uint16_t>(best);
        count[best] = 0;
    }
    uint8_t *pal = s.new_palette();
    for (int i = 0; i < 256; i++) {
        pal[4 * i] = static_cast<uint8_t>(keys[i] << 4 & 0xF0);
        pal[4 * i + 1] = static_cast<uint8_t>(keys[i] & 0xF0);
        pal[4 * i + 2] = static_cast<uint8_t>(keys[i] >> 4 & 0xF0);
    }
    for (int k = 0; k < KEYS; k++) map[k] = static_cast<uint8_t>(nearest_entry(k, keys));
    for (int r = 0; r < s.height(); r++) {
        if (int st = s.status(); st < 0) return st;
        const uint8_t *p = s.row(r);
        uint8_t *out = s.new_row(r);
        for (int x = 0; x < s.width(); x++, p += 3) out[x] = map[key_of(p)];
    }
    return s.finish(0);
}

}  // extern "C"
