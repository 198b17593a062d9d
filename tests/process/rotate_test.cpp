// Turns, flips and inversion: the kept behaviours (the height limit, crop
// rectangles, zeroed tail bits).  Pixel-for-pixel agreement with other
// tools, and the anti-diagonal mirror for other angles, are in
// interop/process_test.py.
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

std::vector<int> crop_of(int h) {
    std::vector<int> c(4);
    IMG_get_croprect(h, &c[0], &c[1], &c[2], &c[3]);
    return c;
}

}  // namespace

// The crop rectangle follows the content it marked: turns of a 13 x 5
// picture, flips of a 10 x 8 one.
TEST(Geometry, CropRectangleFollowsTheContent) {
    const struct {
        int angle;  // 0: flip x, -1: flip y
        std::vector<int> crop, want;
    } cases[] = {{90, {2, 1, 6, 3}, {1, 2, 3, 6}},  {270, {2, 1, 6, 3}, {1, 5, 3, 6}},
                 {180, {2, 1, 6, 3}, {5, 1, 6, 3}}, {45, {2, 1, 6, 3}, {1, 5, 3, 6}},
                 {0, {1, 2, 3, 4}, {6, 2, 3, 4}}, {-1, {6, 2, 3, 4}, {6, 2, 3, 4}}, {-1, {1, 1, 3, 4}, {1, 3, 3, 4}}};
    for (auto &c : cases) {
        int h = c.angle > 0 ? handle_of(make_picture(13, 5, 8, 1)) : handle_of(make_picture(10, 8, 24, 1));
        IMG_set_croprect(h, c.crop[0], c.crop[1], c.crop[2], c.crop[3]);
        ASSERT_EQ(c.angle > 0 ? IMG_rotate_bitmap(h, c.angle) : c.angle ? IMG_flip_bitmapy(h) : IMG_flip_bitmapx(h), 0);
        EXPECT_EQ(crop_of(h), c.want) << c.angle;
        IMG_delete_bitmap(h);
    }
}

TEST(Rotate, HeightLimitOfAQuarterTurn) {
    for (int rows : {8180, 8181}) {
        int h = handle_of(make_picture(3, rows, 1, 2));
        EXPECT_EQ(IMG_rotate_bitmap(h, 90), rows == 8180 ? 0 : IMG_ERR_MEMORY);
        if (rows == 8181) {
            EXPECT_EQ(picture_of(h).height, 8181);
            EXPECT_EQ(IMG_rotate_bitmap(h, 180), 0);
        }
        IMG_delete_bitmap(h);
    }
}

// The mirror stops at the pixel width: bits after the last pixel are zero.
TEST(Flip, SubBytePixelsAndTheirTail) {
    picture p = make_picture(9, 1, 1, 0);
    p.rows[0] = {0xB1, 0x80, 0, 0};  // 1011 0001 1
    int h = handle_of(p);
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    EXPECT_EQ(picture_of(h, true).rows[0], (bytes{0xC6, 0x80, 0, 0}));
    IMG_delete_bitmap(h);

    picture q = make_picture(5, 1, 4, 0);
    q.rows[0] = {0x12, 0x34, 0x50, 0};
    h = handle_of(q);
    ASSERT_EQ(IMG_flip_bitmapx(h), 0);
    EXPECT_EQ(picture_of(h, true).rows[0], (bytes{0x54, 0x32, 0x10, 0}));
    IMG_delete_bitmap(h);
}

// Every stored byte, padding too; the values at each depth are in
// interop/process_test.py.
TEST(Invert, IndexesNotColoursAndTwiceIsIdentity) {
    int h = handle_of(grey_palette_picture(7, 3, 8, 4));
    const picture before = picture_of(h, true);
    ASSERT_EQ(IMG_invert_bitmap(h), 0);
    const picture inv = picture_of(h, true);
    EXPECT_EQ(inv.palette, before.palette) << "the table is never touched";
    for (size_t y = 0; y < inv.rows.size(); y++)
        for (size_t i = 0; i < inv.rows[y].size(); i++) ASSERT_EQ(inv.rows[y][i], static_cast<uint8_t>(~before.rows[y][i]));
    ASSERT_EQ(IMG_invert_bitmap(h), 0);
    EXPECT_EQ(picture_of(h, true), before) << "twice is the identity";
    IMG_delete_bitmap(h);
}
