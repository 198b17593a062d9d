// Convolution, sharpening and the grey conversion they lean on: the Part's
// worked cases.  The general sum-and-clamp rule is checked against a numpy
// model in interop/process_test.py.
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

picture flat(int bits, uint8_t v, int w = 5, int h = 4) {
    picture p = bits == 24 ? make_picture(w, h, 24, 1) : grey_palette_picture(w, h, bits, 1);
    if (bits == 8 || bits == 4)
        for (int i = 0; i < (1 << bits); i++) std::fill_n(&p.palette[4 * i], 3, static_cast<uint8_t>(i));
    for (auto &r : p.rows) {
        std::fill(r.begin(), r.end(), 0);
        std::fill_n(r.begin(), bits == 24 ? 3 * w : bits == 4 ? (w + 1) / 2 : w, bits == 4 ? static_cast<uint8_t>(v * 17) : v);
        if (bits == 4 && (w & 1)) r[w / 2] &= 0xF0;
    }
    return p;
}

bool interior_is(const picture &p, uint8_t v) {
    const int n = p.bits == 24 ? 3 : 1;
    for (int y = 1; y + 1 < p.height; y++)
        for (int x = n; x < (p.width - 1) * n; x++)
            if (p.rows[y][x] != v) return false;
    return true;
}

int filtered(const picture &p, int code, picture *out, const signed char *k = nullptr) {
    int h = handle_of(p);
    int r = IMG_process_bitmap(h, code, k);
    *out = picture_of(h);
    IMG_delete_bitmap(h);
    return r;
}

}  // namespace

TEST(Filter, UniformPictures) {
    const struct {
        int code;
        uint8_t in, out;
    } cases[] = {{7, 90, 90}, {2, 90, 0}, {1, 90, 0}, {8, 30, 210}, {9, 200, 0}, {3, 40, 0}};
    for (int bits : {8, 24})
        for (auto &c : cases) {
            picture out;
            ASSERT_EQ(filtered(flat(bits, c.in), c.code, &out), 0);
            EXPECT_TRUE(interior_is(out, c.out)) << "code " << c.code << ", " << bits << " bits";
            // The border is kept.
            EXPECT_EQ(out.rows[0], flat(bits, c.in).rows[0]);
        }
}

TEST(Filter, BrightPixelUnderLaplacian) {
    picture p = flat(8, 0, 5, 5);
    p.rows[2][2] = 50;
    picture out;
    ASSERT_EQ(filtered(p, 1, &out), 0);
    EXPECT_EQ(out.rows[2][2], 0);
    for (auto [x, y] : {std::pair{1, 2}, {3, 2}, {2, 1}, {2, 3}}) EXPECT_EQ(out.rows[y][x], 50);
    EXPECT_EQ(out.rows[1][1], 0);
}

// Asymmetric kernels read the picture the right way up: the top row of the
// kernel weighs the row above.
TEST(Filter, KernelOrientation) {
    picture p = flat(8, 0, 3, 3);
    p.rows[0][1] = 10;  // above the centre
    p.rows[1][0] = 3;   // left of it
    const signed char k[9] = {0, 2, 0, 5, 0, 0, 0, 0, 0};
    picture out;
    ASSERT_EQ(filtered(p, 0, &out, k), 0);
    EXPECT_EQ(out.rows[1][1], 35);
}

TEST(Filter, Refusals) {
    picture out;
    EXPECT_EQ(filtered(make_picture(5, 5, 4, 1), 1, &out), IMG_ERR_DEPTH);
    EXPECT_EQ(filtered(make_picture(5, 5, 1, 1), 1, &out), IMG_ERR_DEPTH);
    EXPECT_EQ(filtered(make_picture(5, 5, 24, 1), 10, &out), IMG_ERR_TYPE);
    EXPECT_EQ(filtered(make_picture(5, 5, 24, 1), 0, &out), IMG_ERR_TYPE);  // no kernel given
    EXPECT_EQ(filtered(make_picture(5, 5, 24, 1), -1, &out), IMG_ERR_TYPE);
}

// An 8-bit colour-table picture is filtered as its grey version.
TEST(Filter, ColourTableIsMadeGreyFirst) {
    picture p = make_picture(6, 5, 8, 7);
    int a = handle_of(p), b = handle_of(p);
    ASSERT_EQ(IMG_process_bitmap(a, 7, nullptr), 0);
    ASSERT_EQ(IMG_color_gray(b), 0);
    ASSERT_EQ(IMG_process_bitmap(b, 7, nullptr), 0);
    EXPECT_EQ(picture_of(a), picture_of(b));
    IMG_delete_bitmap(a);
    IMG_delete_bitmap(b);
}

TEST(Sharpen, UniformIsUnchangedAndLowBitsAreIgnored) {
    for (int bits : {4, 8, 24})
        for (int level = 0; level <= 128; level += 8) {
            picture p = flat(bits, bits == 4 ? 9 : 140, 6, 5);
            int h = handle_of(p);
            ASSERT_EQ(IMG_sharpen_bitmap(h, level), 0);
            EXPECT_EQ(picture_of(h), p) << bits << " bits, level " << level;
            IMG_delete_bitmap(h);
        }
    picture p = make_picture(9, 7, 24, 3);
    int a = handle_of(p);
    ASSERT_EQ(IMG_sharpen_bitmap(a, 0), 0);
    for (int level = 1; level < 16; level++) {
        int b = handle_of(p);
        ASSERT_EQ(IMG_sharpen_bitmap(b, level), 0);
        EXPECT_EQ(picture_of(b), picture_of(a)) << level;
        IMG_delete_bitmap(b);
    }
    EXPECT_NE(picture_of(a), p);
    IMG_delete_bitmap(a);
}

TEST(Sharpen, Refusals) {
    for (auto [bits, grey] : {std::pair{1, false}, {4, false}, {8, false}}) {
        int h = handle_of(grey ? grey_palette_picture(5, 5, bits, 1) : make_picture(5, 5, bits, 1));
        EXPECT_EQ(IMG_sharpen_bitmap(h, 32), IMG_ERR_TYPE) << bits;
        IMG_delete_bitmap(h);
    }
    // Levels past the strongest are the strongest, never a division by zero.
    picture p = make_picture(9, 7, 8, 3);
    for (int i = 0; i < 256; i++) std::fill_n(&p.palette[4 * i], 3, static_cast<uint8_t>(i));
    int a = handle_of(p), b = handle_of(p);
    ASSERT_EQ(IMG_sharpen_bitmap(a, 128), 0);
    for (int level : {200, -200, INT32_MIN, INT32_MAX}) {
        ASSERT_EQ(IMG_sharpen_bitmap(b, level), 0);
        EXPECT_EQ(picture_of(b), picture_of(a)) << level;
        IMG_delete_bitmap(b);
        b = handle_of(p);
    }
    IMG_delete_bitmap(a);
    IMG_delete_bitmap(b);
}

TEST(Grey, LuminanceOnTheIdentityRamp) {
    picture p = make_picture(3, 1, 24, 1);
    p.rows[0] = {255, 255, 255, 0, 0, 255, 10, 20, 30, 0, 0, 0};  // white, red, a mix
    int h = handle_of(p);
    ASSERT_EQ(IMG_color_gray(h), 0);
    picture g = picture_of(h);
    EXPECT_EQ(g.bits, 8);
    EXPECT_EQ(bytes(g.rows[0].begin(), g.rows[0].begin() + 3), (bytes{253, 75, (38 * 30 + 75 * 20 + 14 * 10) >> 7}));
    for (int i = 0; i < 256; i++) ASSERT_EQ(g.palette[4 * i + 2], i);
    IMG_delete_bitmap(h);
    h = handle_of(make_picture(8, 2, 1, 1));
    EXPECT_EQ(IMG_color_gray(h), IMG_ERR_TYPE);
    IMG_delete_bitmap(h);
}
