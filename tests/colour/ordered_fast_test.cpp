// The vector ordered-dither rows against the plain ones on random 24-bit
// rows at odd widths and every threshold row, in place as the load does too.
#include "colour/colour.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <random>

TEST(OrderedFast, RowsMatchThePlainKernels) {
    std::mt19937 rng(11);
    for (int target : {1, 4})
        for (const uint8_t *table : {brv::bayer_thresholds, brv::halftone_thresholds})
            for (int w : {1, 7, 8, 9, 15, 17, 33, 101})
                for (int r = 0; r < 8; r++) {
                    bytes src(3 * w + 8), plain(3 * w + 8, 0x5A), fast = plain;
                    for (auto &v : src) v = static_cast<uint8_t>(rng());
                    uint8_t t[8];
                    brv::row_thresholds(table, r, t);
                    auto kernel = target == 1 ? brv::ordered_mono_kernel : brv::ordered_colour_kernel;
                    kernel(24, false)(src.data(), nullptr, plain.data(), w, t);
                    kernel(24, true)(src.data(), nullptr, fast.data(), w, t);
                    EXPECT_EQ(plain, fast) << target << " bits, width " << w << ", row " << r;
                    kernel(24, true)(src.data(), nullptr, src.data(), w, t);
                    EXPECT_TRUE(std::equal(plain.begin(), plain.begin() + (w * target + 7) / 8, src.begin()));
                }
}
