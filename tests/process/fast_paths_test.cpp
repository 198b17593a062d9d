// The vector row kernels against the plain ones on random rows at odd
// widths: every byte must agree, and nothing past the row be touched.
#include "process/process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <random>

static bytes random_bytes(std::mt19937 &rng, size_t n) {
    bytes b(n);
    for (auto &v : b) v = static_cast<uint8_t>(rng());
    return b;
}

TEST(FastPaths, MirrorAndInvertMatchThePlainRows) {
    std::mt19937 rng(7);
    for (int w : {1, 2, 5, 6, 7, 15, 16, 17, 31, 33, 101, 257}) {
        for (int bits : {1, 4, 8, 24}) {
            const size_t n = (static_cast<size_t>(w) * bits + 7) / 8;
            bytes in = random_bytes(rng, n), plain(n + 16, 0xA5), fast(n + 16, 0xA5);
            brv::mirror_kernel(bits, false)(in.data(), plain.data(), w);
            brv::mirror_kernel(bits, true)(in.data(), fast.data(), w);
            EXPECT_EQ(plain, fast) << bits << " bits, width " << w;
        }
        bytes plain = random_bytes(rng, w + 4), fast = plain;
        brv::invert_bytes(plain.data(), w, false);
        brv::invert_bytes(fast.data(), w, true);
        EXPECT_EQ(plain, fast) << w;
    }
}

// Weights at the vector path's limit (magnitudes adding to 128) and past it.
TEST(FastPaths, ConvolveMatchesThePlainRow) {
    std::mt19937 rng(9);
    const int kernels[][9] = {{-1, -1, -1, -1, 8, -1, -1, -1, -1}, {1, 1, 1, 0, 0, 1, 1, 1, 1},
                              {-16, 16, -16, 16, -16, 16, -16, 16, 0}, {-128, 127, -128, 0, 5, 0, 0, 0, 3}};
    for (int bits : {8, 24})
        for (const auto &k : kernels)
            for (int w : {3, 5, 6, 7, 15, 16, 17, 33, 101}) {
                const size_t n = static_cast<size_t>(w) * bits / 8;
                bytes up = random_bytes(rng, n), at = random_bytes(rng, n), down = random_bytes(rng, n);
                bytes plain = random_bytes(rng, n + 16), fast = plain;
                brv::convolve_kernel(bits, k, false)(k, up.data(), at.data(), down.data(), plain.data(), w);
                brv::convolve_kernel(bits, k, true)(k, up.data(), at.data(), down.data(), fast.data(), w);
                EXPECT_EQ(plain, fast) << bits << " bits, width " << w << ", k0 " << k[0];
            }
}

// Point sampling through the offset table against the plain sampler, at
// shrinking and enlarging steps; the source is exactly one row long so a
// load past it would show under ASan.
TEST(FastPaths, SampleRowAtMatchesThePlainRow) {
    std::mt19937 rng(11);
    for (int bits : {8, 24})
        for (int w : {1, 2, 3, 5, 7, 33, 101})
            for (int ow : {1, 2, 3, 4, 9, 50, 203}) {
                const uint32_t n = static_cast<uint32_t>(bits / 8), step = static_cast<uint32_t>((int64_t{w} << 16) / ow);
                bytes in = random_bytes(rng, n * w), plain(n * ow + 8, 0xA5), fast = plain;
                std::vector<uint32_t> at(ow);
                for (int i = 0; i < ow; i++) at[i] = n * static_cast<uint32_t>((uint64_t{uint32_t(i)} * step) >> 16);
                if (bits == 8) brv::sample_row<8>(in.data(), plain.data(), ow, step);
                else brv::sample_row<24>(in.data(), plain.data(), ow, step);
                brv::sample_row_at(bits, in.data(), n * w, fast.data(), at.data(), ow);
                EXPECT_EQ(plain, fast) << bits << " bits, " << w << " to " << ow;
            }
}
