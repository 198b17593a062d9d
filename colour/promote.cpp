// Depth promotions: indexes widened to bytes, or replaced by their colours.
#include "colour/pixels.h"
#include "colour/reshape.h"

namespace brv {

namespace {

template <int Bits>
inline int index_at(const uint8_t *row, int x) {
    if constexpr (Bits == 8) return row[x];
    else if constexpr (Bits == 4) return (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
    else return (row[x >> 3] >> (7 - (x & 7))) & 1;
}

int promote(int h, unsigned depths, int target) {
    reshape s(h, depths, target);
    if (s.result()) return s.result();
    // Entries past the source's table stay zero.
    if (target == 8) std::memcpy(s.new_palette(), s.palette(), palette_bytes(s.bits()));
    return by_depth(s.bits(), [&]<int B>() {
        if constexpr (B == 24) {
            return IMG_ERR_TYPE;  // not reached: the depth mask refuses it
        } else {
            for (int r = 0; r < s.height(); r++) {
                if (int st = s.status(); st < 0) return st;
                const uint8_t *in = s.row(r);
                uint8_t *out = s.new_row(r);
                for (int x = 0; x < s.width(); x++) {
                    int i = index_at<B>(in, x);
                    if (target == 8) {
                        out[x] = static_cast<uint8_t>(i);
                    } else {
                        std::memcpy(out + 3 * x, s.palette() + 4 * i, 3);
                    }
                }
            }
            return s.finish(0);
        }
    });
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_promote_8(int h) { return promote(h, 1u << 1 | 1u << 4, 8); }
int IMG_API IMG_promote_24(int h) { return promote(h, 1u << 1 | 1u << 4 | 1u << 8, 24); }

}  // extern "C"
