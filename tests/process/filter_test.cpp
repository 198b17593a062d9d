// Convolution and the grey conversion it leans on: the grey-first rule
// (refusals are in replace_block_test.cpp).  Every kernel and sharpening
// level is checked against numpy models in interop/process_test.py.
#include "test_util.h"

#include <gtest/gtest.h>

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
}
