// Resizing: worked cases of the enlarging ramps.  Replication, point
// sampling and the smoothing shrink (any picture made narrower) are checked
// against numpy models in interop/process_test.py.
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

// Rows count in storage order, bottom row first, as the operations count them.
picture grey8(int w, int h, std::vector<uint8_t> values) {
    picture p = grey_palette_picture(w, h, 8, 1);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) p.rows[h - 1 - y][x] = values[y * w + x];
    return p;
}

std::vector<uint8_t> values(const picture &p) {
    std::vector<uint8_t> v;
    for (auto r = p.rows.rbegin(); r != p.rows.rend(); ++r) v.insert(v.end(), r->begin(), r->begin() + p.width);
    return v;
}

}  // namespace

TEST(Resize, InterpolationCases) {
    const struct {
        int w, h;
        std::vector<uint8_t> in;
        int nw, nh;
        std::vector<uint8_t> want;
    } cases[] = {
        // A ramp from 0 to 255 over eight pixels.
        {2, 1, {0, 255}, 8, 1, {0, 63, 127, 191, 255, 255, 255, 255}},
        // Rows ramp as pixels do; the last row takes the last source row.
        {1, 2, {0, 200}, 1, 5, {0, 100, 200, 200, 200}},
        // Wider and lower: the enlarging path drops rows.
        {2, 4, {0, 0, 10, 10, 20, 20, 30, 30}, 4, 2, {10, 10, 10, 10, 30, 30, 30, 30}},
    };
    for (auto &c : cases) {
        int h = handle_of(grey8(c.w, c.h, c.in));
        ASSERT_EQ(IMG_resize_bitmap_interp(h, c.nw, c.nh), 0);
        EXPECT_EQ(values(picture_of(h)), c.want) << c.w << "x" << c.h << " to " << c.nw << "x" << c.nh;
        int cl, ct, cw, ch;
        IMG_get_croprect(h, &cl, &ct, &cw, &ch);
        EXPECT_EQ(std::vector<int>({cl, ct, cw, ch}), std::vector<int>({0, 0, c.nw, c.nh}));
        IMG_delete_bitmap(h);
    }
}
