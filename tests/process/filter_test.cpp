// Convolution, sharpening and the grey conversion they lean on: refusals,
// the grey-first rule and the strongest level.  Every kernel and level is
// checked against numpy models in interop/process_test.py.
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

int filtered(const picture &p, int code, picture *out, const signed char *k = nullptr) {
    int h = handle_of(p);
    int r = IMG_process_bitmap(h, code, k);
    *out = picture_of(h);
    IMG_delete_bitmap(h);
    return r;
}

}  // namespace

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
