// BMP: the resolution rule, and reader variants built from a small recipe
// (run-length deltas and records, bare headers; odd absolute blocks are in
// the RLE fixtures of interop/bmp_test.py).  Hostile files are the bmp
// crash files, replayed by the fuzz target and in interop/bmp_test.py.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

struct bmp_recipe {
    int width = 4, height = 2, bits = 8;
    uint32_t compression = 0;
    bool file_header = true;
    int32_t xppm = 0, yppm = 0;
    uint32_t clr_used = 0;
    bytes palette;  // quads
    bytes pixels;   // as stored in the file
};

bytes build(const bmp_recipe &r) {
    bytes info(40);
    put32(&info[0], 40), put32(&info[4], r.width), put32(&info[8], r.height);
    put16(&info[12], 1), put16(&info[14], r.bits), put32(&info[16], r.compression);
    put32(&info[24], r.xppm), put32(&info[28], r.yppm), put32(&info[32], r.clr_used);
    bytes out(r.file_header ? 14 : 0);
    if (r.file_header) {
        out[0] = 'B', out[1] = 'M';
        put32(&out[10], static_cast<uint32_t>(14 + info.size() + r.palette.size()));
    }
    out.insert(out.end(), info.begin(), info.end());
    out.insert(out.end(), r.palette.begin(), r.palette.end());
    out.insert(out.end(), r.pixels.begin(), r.pixels.end());
    return out;
}

bytes grey_quads(int n) {
    bytes p;
    for (int i = 0; i < n; i++) p.insert(p.end(), {uint8_t(i), uint8_t(i), uint8_t(i), 0});
    return p;
}

}  // namespace

TEST(Bmp, ResolutionConvertsBetweenMetresAndInches) {
    bmp_recipe r;
    r.xppm = 3780, r.yppm = 2835;
    r.palette = grey_quads(256);
    r.pixels = bytes(8, 1);
    int h = load_bytes(build(r));
    ASSERT_GE(h, 0);
    uint8_t header[1064];
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 96u) << "3780 ppm truncates to 96 dpi";
    EXPECT_EQ(get32(header + 28), 72u);
    bytes saved = save_bytes(h, IMG_TYPE_BMP);
    EXPECT_EQ(get32(&saved[38]), 3780u) << "96 dpi rounds back to 3780 ppm";
    EXPECT_EQ(get32(&saved[42]), 2835u);
    IMG_delete_bitmap(h);
    // A bare header with small values already holds dots per inch.
    r.file_header = false;
    r.xppm = 300, r.yppm = 300;
    h = load_bytes(build(r));
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 300u);
    IMG_delete_bitmap(h);
}

TEST(Bmp, ReaderVariants) {
    auto with = [](auto change) {
        bmp_recipe r;
        r.palette = grey_quads(256);
        change(r);
        return r;
    };
    struct {
        const char *what;
        bmp_recipe r;
        int want_bits;
        std::vector<bytes> want_rows;  // leading bytes of each row, top-down
    } cases[] = {
        {"bare header, used colours", with([](bmp_recipe &r) { r.file_header = false, r.height = 1, r.clr_used = 2;
                                                               r.palette = {10, 20, 30, 0, 40, 50, 60, 0}; r.pixels = {1, 0, 1, 1}; }),
         8, {{1, 0, 1, 1}}},
        // Two pixels, a delta of three rows, two more pixels, end of line, end of bitmap.
        {"RLE8 delta repeats the row being built over the skipped rows",
         with([](bmp_recipe &r) { r.height = 6, r.compression = 1; r.pixels = {2, 7, 0, 2, 0, 3, 2, 9, 0, 0, 0, 1}; }),
         8, {{0, 0, 0, 0}, {7, 7, 9, 9}, {7, 7, 9, 9}, {7, 7, 0, 0}, {7, 7, 0, 0}, {7, 7, 0, 0}}},
        {"RLE4 delta leaves skipped rows alone",
         with([](bmp_recipe &r) { r.height = 6, r.bits = 4, r.compression = 2; r.palette = grey_quads(16);
                                  r.pixels = {2, 0x77, 0, 2, 0, 3, 2, 0x99, 0, 0, 0, 1}; }),
         4, {{0}, {0x77, 0x99}, {0x77}, {0}, {0}, {0x77}}},
        {"records deliver whole records",
         with([](bmp_recipe &r) { r.width = 8, r.compression = 99; r.pixels = {6, 0, 1, 2, 3, 4, 4, 0, 9, 9}; }),
         8, {{6, 0, 1, 2, 3, 4, 0, 0}, {4, 0, 9, 9, 0, 0, 0, 0}}},
    };
    for (auto &c : cases) {
        picture p = load_pic(build(c.r));
        ASSERT_EQ(p.bits, c.want_bits) << c.what;
        ASSERT_EQ(p.rows.size(), c.want_rows.size()) << c.what;
        for (size_t y = 0; y < p.rows.size(); y++)
            EXPECT_EQ(bytes(p.rows[y].begin(), p.rows[y].begin() + c.want_rows[y].size()), c.want_rows[y]) << c.what << " row " << y;
    }
    // A bare header's used colours are its table.
    picture bare = load_pic(build(cases[0].r));
    EXPECT_EQ(bytes(bare.palette.begin(), bare.palette.begin() + 8), cases[0].r.palette);
}
