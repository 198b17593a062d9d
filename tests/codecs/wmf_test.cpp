// Metafile output: the placeable header, the metafile header, the setup
// records and the one picture record, byte for byte; every short write.
// (Playback through the system's own metafile player: tests/windows.)
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

bytes metafile_of(const picture &p, int dpi = 0) {
    block_ref dib(dib_of_picture(p, dpi, dpi));
    int h = IMG_create_handle(dib.data);
    bytes f = save_bytes(h, IMG_TYPE_WMF);
    IMG_delete_bitmap(h);
    return f;
}

std::vector<uint16_t> words(const bytes &f, size_t at, int n) {
    std::vector<uint16_t> w;
    for (int i = 0; i < n; i++) w.push_back(get16(&f[at + 2 * i]));
    return w;
}

}  // namespace

TEST(Metafile, LayoutOfAnEightBitPicture) {
    picture p = make_picture(100, 50, 8, 1);
    bytes f = metafile_of(p, 300);
    ASSERT_EQ(f.size(), 6186u);
    EXPECT_EQ(words(f, 0, 11), (std::vector<uint16_t>{0xCDD7, 0x9AC6, 0, 0, 0, 100, 50, 96, 0, 0,
                                                      0xCDD7 ^ 0x9AC6 ^ 100 ^ 50 ^ 96}));
    // Metafile header: type, 9 words, version, size 3082 words, one object, largest record 3046 words.
    EXPECT_EQ(words(f, 22, 9), (std::vector<uint16_t>{1, 9, 0x0300, 3082, 0, 1, 3046, 0, 0}));
    EXPECT_EQ(words(f, 40, 24), (std::vector<uint16_t>{5, 0, 0x020B, 0, 0,  5, 0, 0x020D, 0, 0,
                                                       5, 0, 0x020C, 50, 100, 5, 0, 0x020E, 50, 100,
                                                       4, 0, 0x0103, 1}));
    EXPECT_EQ(words(f, 88, 14), (std::vector<uint16_t>{3046, 0, 0x0F43, 0x0020, 0x00CC, 0, 50, 100, 0, 0, 50, 100,
                                                       0, 0}));
    const size_t dib = 116;
    EXPECT_EQ(get32(&f[dib]), 40u);
    EXPECT_EQ(words(f, dib + 4, 8), (std::vector<uint16_t>{100, 0, 50, 0, 1, 8, 0, 0}));
    EXPECT_EQ(get32(&f[dib + 20]), 5000u) << "the image size";
    EXPECT_EQ(get32(&f[dib + 24]), 11811u) << "pixels per metre";
    EXPECT_EQ(bytes(f.begin() + dib + 40, f.begin() + dib + 40 + 1024), p.palette);
    for (int y = 0; y < 50; y++)
        EXPECT_EQ(bytes(f.begin() + dib + 1064 + 100 * (49 - y), f.begin() + dib + 1064 + 100 * (50 - y)), p.rows[y]);
    EXPECT_EQ(bytes(f.end() - 6, f.end()), (bytes{3, 0, 0, 0, 0, 0}));
}

TEST(Metafile, SizesAtEveryDepth) {
    for (int bits : {1, 4, 8, 24})
        for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {33, 2}}) {
            const uint32_t s = stride_of(w, bits) * h, pal = bits == 24 ? 0 : 4u << bits, r = (s + 68 + pal) / 2;
            bytes f = metafile_of(make_picture(w, h, bits, 3));
            EXPECT_EQ(f.size(), 22 + 18 + 48 + 28 + 40 + pal + s + 6) << bits << " bits, " << w << "x" << h;
            EXPECT_EQ(get32(&f[22 + 6]), r + 36);
            EXPECT_EQ(get32(&f[88]), r);
        }
    // Sizes a metafile's 16-bit fields cannot hold are refused.
    int code = 0;
    picture wide = make_picture(40000, 1, 1, 1);
    save_pic(wide, IMG_TYPE_WMF, &code);
    EXPECT_EQ(code, IMG_ERR_HEADER);
}

TEST(Metafile, Faults) {
    int h = handle_of(make_picture(50, 20, 4, 2));
    check_save_faults(h, IMG_TYPE_WMF);
    IMG_delete_bitmap(h);
}
