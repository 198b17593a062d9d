// Merging one handle's picture into another, and the look-up tables.
#include "test_util.h"

#include <gtest/gtest.h>

// Every raster operation at every depth, placed inside, across each edge and
// outside: each destination pixel checked against the rule.
TEST(Merge, RasterOperationsClipped) {
    for (int bits : {1, 4, 8, 24})
        for (int mode : {IMG_MERGE_COPY, IMG_MERGE_AND, IMG_MERGE_OR, IMG_MERGE_XOR})
            for (auto [left, top] : {std::pair{2, 1}, {-3, -2}, {9, 5}, {0, 0}, {20, 0}, {-7, 0}}) {
                picture d = make_picture(11, 7, bits, 1u + bits), s = make_picture(5, 4, bits, 2u + bits);
                int hd = handle_of(d), hs = handle_of(s);
                ASSERT_EQ(IMG_merge_bitmap(hd, hs, left, top, mode), 0);
                picture got = picture_of(hd);
                for (int y = 0; y < 7; y++)
                    for (int x = 0; x < 11; x++) {
                        uint32_t want = px(d, x, y);
                        const int sx = x - left, sy = y - top;
                        if (sx >= 0 && sx < 5 && sy >= 0 && sy < 4) {
                            uint32_t v = px(s, sx, sy);
                            want = mode == IMG_MERGE_COPY ? v : mode == IMG_MERGE_AND ? want & v : mode == IMG_MERGE_OR ? want | v : want ^ v;
                        }
                        ASSERT_EQ(px(got, x, y), want) << bits << " bits, mode " << mode << " at " << left << "," << top;
                    }
                EXPECT_EQ(got.palette, d.palette);
                EXPECT_EQ(picture_of(hs), s);
                IMG_delete_bitmap(hd);
                IMG_delete_bitmap(hs);
            }
}

TEST(Merge, Blend) {
    picture d = make_picture(4, 2, 24, 1), s = make_picture(4, 2, 24, 2);
    for (int a : {0, 255, 128}) {
        int hd = handle_of(d), hs = handle_of(s);
        ASSERT_EQ(IMG_merge_bitmap(hd, hs, 0, 0, IMG_MERGE_BLEND(a)), 0);
        picture got = picture_of(hd);
        for (int y = 0; y < 2; y++)
            for (int i = 0; i < 12; i++)
                ASSERT_EQ(got.rows[y][i], (s.rows[y][i] * a + d.rows[y][i] * (255 - a) + 127) / 255);
        IMG_delete_bitmap(hd);
        IMG_delete_bitmap(hs);
    }
}

TEST(Merge, Refusals) {
    const struct {
        picture into, from;
        int mode, want;
    } cases[] = {
        {make_picture(4, 4, 8, 1), make_picture(4, 4, 24, 1), IMG_MERGE_COPY, IMG_ERR_DEPTH},
        {make_picture(4, 4, 8, 1), make_picture(4, 4, 8, 1), IMG_MERGE_BLEND(9), IMG_ERR_TYPE},  // colour tables
        {make_picture(4, 4, 4, 1), make_picture(4, 4, 4, 1), IMG_MERGE_BLEND(9), IMG_ERR_TYPE},
        {make_picture(4, 4, 24, 1), make_picture(4, 4, 24, 1), 4, IMG_ERR_TYPE},
        {make_picture(4, 4, 24, 1), make_picture(4, 4, 24, 1), -1, IMG_ERR_TYPE},
    };
    for (auto &c : cases) {
        int a = handle_of(c.into), b = handle_of(c.from);
        EXPECT_EQ(IMG_merge_bitmap(a, b, 0, 0, c.mode), c.want);
        EXPECT_EQ(picture_of(a), c.into);
        IMG_delete_bitmap(a);
        IMG_delete_bitmap(b);
    }
    int a = handle_of(make_picture(4, 4, 8, 1));
    EXPECT_EQ(IMG_merge_bitmap(a, a, 0, 0, IMG_MERGE_COPY), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_merge_bitmap(a, 77, 0, 0, IMG_MERGE_COPY), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_merge_bitmap(77, a, 0, 0, IMG_MERGE_COPY), IMG_ERR_HANDLE);
    IMG_delete_bitmap(a);
}

TEST(Lut, TablesPerChannel) {
    unsigned char neg[256], half[256];
    for (int i = 0; i < 256; i++) neg[i] = static_cast<unsigned char>(255 - i), half[i] = static_cast<unsigned char>(i / 2);
    for (int bits : {1, 4, 8, 24}) {
        picture p = make_picture(5, 3, bits, 4);
        int h = handle_of(p);
        ASSERT_EQ(IMG_apply_lut(h, neg, nullptr, half), 0);
        const bytes a = appearance(p), b = appearance(picture_of(h));
        for (size_t i = 0; i < a.size(); i += 3) {
            ASSERT_EQ(b[i], 255 - a[i]) << bits;
            ASSERT_EQ(b[i + 1], a[i + 1]) << bits;
            ASSERT_EQ(b[i + 2], a[i + 2] / 2) << bits;
        }
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_apply_lut(-1, neg, neg, neg), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_set_lut(-1, 1, 1), IMG_ERR_HANDLE);
}
