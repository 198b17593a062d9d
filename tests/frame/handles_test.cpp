// Bitmap handles: numbering and reuse, deletion, crop rectangles, palettes,
// adopted blocks, and the small queries.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

TEST(Handles, LowestFreeSlotIsReusedAndEmptyTableStartsOver) {
    picture p = make_picture(4, 4, 8, 1);
    int h0 = handle_of(p), h1 = handle_of(p), h2 = handle_of(p);
    ASSERT_EQ(std::vector<int>({h0, h1, h2}), std::vector<int>({0, 1, 2}));
    EXPECT_EQ(IMG_delete_bitmap(h1), 0);
    EXPECT_EQ(handle_of(p), 1);
    EXPECT_EQ(IMG_delete_bitmap(0), 0);
    EXPECT_EQ(handle_of(p), 0) << "the first slot is reused too";
    for (int h : {2, 1, 0}) EXPECT_EQ(IMG_delete_bitmap(h), 0);
    EXPECT_EQ(handle_of(p), 0) << "an emptied table starts again at slot 0";
    EXPECT_EQ(IMG_delete_bitmap(0), 0);
}

TEST(Handles, InvalidHandlesAreRefusedEverywhere) {
    int h = handle_of(make_picture(4, 4, 8, 1));
    ASSERT_EQ(IMG_delete_bitmap(h), 0);
    int w, ht, b, l, t;
    uint8_t buf[1064];
    for (int bad : {h, -1, 1000}) {
        EXPECT_EQ(IMG_delete_bitmap(bad), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMG_delete_bitmap_keep(bad), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMG_bitmap_info(bad, &w, &ht, &b), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMG_get_croprect(bad, &l, &t, &w, &ht), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMG_set_croprect(bad, 0, 0, 1, 1), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMGLOW_get_palette(bad, buf), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMGLOW_put_palette(bad, buf), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMGLOW_get_bitmap_header(bad, buf), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMGLOW_get_transp_color(bad), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMGLOW_set_rop(bad, 0), IMG_ERR_HANDLE) << bad;
        EXPECT_EQ(IMG_save_bitmap_mem(bad, buf, IMG_TYPE_BMP), IMG_ERR_HANDLE) << bad;
    }
}

TEST(Handles, InfoPaletteAndHeaderCopies) {
    picture p = make_picture(33, 7, 8, 2);
    int h = handle_of(p);
    int w = 0, ht = 0, b = 0;
    int block = IMG_bitmap_info(h, &w, &ht, &b);
    EXPECT_GT(IMG_mem_size(block), 40);
    EXPECT_EQ(std::vector<int>({w, ht, b}), std::vector<int>({33, 7, 8}));
    bytes pal(1024), hdr(1064);
    ASSERT_EQ(IMGLOW_get_palette(h, pal.data()), 0);
    EXPECT_EQ(pal, p.palette);
    ASSERT_EQ(IMGLOW_get_bitmap_header(h, hdr.data()), 0);
    EXPECT_EQ(get32(hdr.data()), 40u);
    EXPECT_EQ(bytes(hdr.begin() + 40, hdr.end()), p.palette);
    std::reverse(pal.begin(), pal.end());
    ASSERT_EQ(IMGLOW_put_palette(h, pal.data()), 0);
    EXPECT_EQ(picture_of(h).palette, pal);
    EXPECT_EQ(picture_of(h).rows, p.rows);
    EXPECT_EQ(IMGLOW_get_transp_color(h), IMG_ERR_NO_TRANSPARENT);
    EXPECT_EQ(IMGLOW_set_rop(h, 0x00EE0086), 0);
    IMG_delete_bitmap(h);
}

TEST(Handles, CropRectangleIsClippedOrIgnored) {
    const int W = 40, H = 30;
    int h = handle_of(make_picture(W, H, 24, 3));
    struct {
        int l, t, w, h;
        int want[4];
    } cases[] = {
        {10, 10, W, H, {10, 10, W - 10, H - 10}},  // clipped to the bitmap
        {W, 0, 1, 1, {10, 10, W - 10, H - 10}},    // left beyond the width: ignored
        {0, H, 1, 1, {10, 10, W - 10, H - 10}},    // top beyond the height: ignored
        {0, 0, W + 1, 1, {10, 10, W - 10, H - 10}},  // wider than the bitmap: ignored
        {5, 6, 7, 8, {5, 6, 7, 8}},
    };
    int l, t, w, ht;
    ASSERT_EQ(IMG_get_croprect(h, &l, &t, &w, &ht), 0);
    EXPECT_EQ(std::vector<int>({l, t, w, ht}), std::vector<int>({0, 0, W, H})) << "a load crops nothing";
    for (auto &c : cases) {
        EXPECT_EQ(IMG_set_croprect(h, c.l, c.t, c.w, c.h), 0);
        IMG_get_croprect(h, &l, &t, &w, &ht);
        EXPECT_EQ(std::vector<int>({l, t, w, ht}), std::vector<int>(c.want, c.want + 4))
            << c.l << "," << c.t << "," << c.w << "," << c.h;
    }
    IMG_delete_bitmap(h);
}

TEST(Handles, KeepAdoptsTheCallersBlockAndFixesWhiteFirstPalettes) {
    picture p = make_picture(16, 3, 1, 5);
    p.palette = {255, 255, 255, 0, 0, 0, 0, 0};
    bytes dib = dib_of_picture(p);
    int block = IMG_mem_alloc(static_cast<int>(dib.size()));
    auto *addr = static_cast<uint8_t *>(IMG_mem_lock(block));
    std::memcpy(addr, dib.data(), dib.size());
    int live = mem_live_blocks();
    int h = IMG_create_handle_keep(addr);
    ASSERT_GE(h, 0);
    EXPECT_EQ(IMG_bitmap_info(h, nullptr, nullptr, nullptr), block) << "no copy was made";
    picture got = picture_of(h);
    EXPECT_EQ(got.palette, bytes({0, 0, 0, 0, 255, 255, 255, 0}));
    EXPECT_EQ(got.rows, p.rows) << "only the palette changes";
    EXPECT_EQ(IMG_delete_bitmap_keep(h), 0);
    EXPECT_EQ(mem_live_blocks(), live) << "the record goes, the caller's block stays";
    EXPECT_EQ(IMG_mem_size(block), static_cast<int>(dib.size()));
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    // An empty header is refused, but the failed adoption's slot stays taken.
    bytes empty(40 + 8, 0);
    put32(empty.data(), 40), put32(empty.data() + 8, 4), put16(empty.data() + 14, 1);
    block_ref b(empty);
    int before = handle_of(make_picture(2, 2, 8, 1));
    EXPECT_EQ(IMG_create_handle_keep(b.data), IMG_ERR_HEADER);
    int next = handle_of(make_picture(2, 2, 8, 1));
    EXPECT_EQ(next, before + 2);
    IMG_delete_bitmap(next);
    IMG_delete_bitmap(before);
    IMG_delete_bitmap_keep(before + 1);
}

TEST(Handles, AllocationFailureLeavesNothingBehind) {
    block_ref b(dib_of_picture(make_picture(9, 9, 24, 6)));
    for (int k = 1;; k++) {
        int live = mem_live_blocks();
        mem_fail_after(k);
        int h = IMG_create_handle(b.data);
        mem_fail_after(0);
        if (h >= 0) {
            EXPECT_GT(k, 1) << "creation takes at least one block";
            IMG_delete_bitmap(h);
            EXPECT_EQ(mem_live_blocks(), live);
            break;
        }
        EXPECT_EQ(h, IMG_ERR_MEMORY) << "k=" << k;
        EXPECT_EQ(mem_live_blocks(), live) << "k=" << k;
        ASSERT_LT(k, 50);
    }
}

TEST(Queries, OrientationAndBitmapName) {
    std::string name = temp_path("orientation");
    struct {
        size_t size;
        uint8_t attribute;
        int want;
    } cases[] = {{100, 0, 0}, {3587, 0, 0}, {3587, 1, 270}, {3587, 2, 180}, {3587, 7, 90}};
    for (auto &c : cases) {
        bytes f(c.size, 0);
        if (c.size > 3586) f[3586] = c.attribute;
        write_file(name, f);
        EXPECT_EQ(IMGLOW_get_image_orientation(name.c_str()), c.want) << c.size << "/" << int(c.attribute);
    }
    std::remove(name.c_str());
    EXPECT_EQ(IMGLOW_get_image_orientation(name.c_str()), IMG_ERR_OPEN);

    char text[64], date[16];
    ASSERT_EQ(IMGLOW_get_bitmap_name(text, date), 0);
    EXPECT_LE(std::strlen(text), 38u);
    EXPECT_EQ(std::strlen(date), 10u);
    std::string old_text = text, old_date = date;
    IMGLOW_set_bitmap_name("scan", "01-02-2003");
    IMGLOW_get_bitmap_name(text, date);
    EXPECT_STREQ(text, "scan");
    EXPECT_STREQ(date, "01-02-2003");
    IMGLOW_set_bitmap_name(old_text.c_str(), old_date.c_str());
}
