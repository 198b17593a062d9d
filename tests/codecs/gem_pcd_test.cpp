// GEM raster images and PhotoCD base images, from files built here from the
// formats' published layouts.
#include "codecs/codecs.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace {

bytes gem(std::initializer_list<int> header_words, std::initializer_list<int> data) {
    bytes f;
    for (int w : header_words) f.push_back(static_cast<uint8_t>(w >> 8)), f.push_back(static_cast<uint8_t>(w));
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

bytes rgb(std::initializer_list<int> v) { return bytes(v.begin(), v.end()); }

// What the reader announces and delivers when called directly.
struct capture {
    bytes header;
    std::vector<bytes> rows;
};
int IMG_CALLBACK keep_header(void *h, void *c) {
    auto *d = static_cast<const dib_info *>(h);
    static_cast<capture *>(c)->header.assign(static_cast<uint8_t *>(h), static_cast<uint8_t *>(h) + 40 + (4 << d->biBitCount));
    return 0;
}
int IMG_CALLBACK keep_row(unsigned char *row, void *c, int, int n) {
    static_cast<capture *>(c)->rows.emplace_back(row, row + n);
    return 0;
}

}  // namespace

TEST(GemRead, RunsPlanesAndReplication) {
    struct {
        const char *what;
        bytes file;
        int bits;
        bytes look;
    } cases[] = {
        {"solid run, bit string; replicated pattern run",
         gem({1, 8, 1, 2, 85, 85, 12, 3}, {0x81, 0x80, 0x01, 0xA5, 0, 0, 0xFF, 2, 0, 1, 0x0F, 0xF0}), 1,
         [] {
             bytes b;  // 1 is ink (black)
             auto put = [&](int bits, int n) {
                 for (int i = n - 1; i >= 0; i--) b.insert(b.end(), 3, (bits >> i) & 1 ? 0 : 255);
             };
             put(0xFFA, 12);
             put(0x0FF, 12);
             put(0x0FF, 12);
             return b;
         }()},
        {"two planes, standard pens", gem({1, 8, 2, 1, 85, 85, 4, 1}, {0x80, 1, 0xA0, 0x80, 1, 0xC0}), 4,
         rgb({0, 255, 0, 255, 0, 0, 0, 0, 0, 255, 255, 255})},
        {"six planes: grey levels", gem({1, 9, 6, 1, 85, 85, 2, 1, 0}, {0x81, 0x01, 0x81, 0x01, 0x80, 1, 0x40, 0x80, 1, 0x80}),
         8, rgb({149, 149, 149, 85, 85, 85})},  // 37 and 21 of 63
        // A run past the line's end is cut there.
        {"overlong run", gem({1, 8, 1, 1, 85, 85, 8, 2}, {0x85, 0x01}), 1, [] {
             bytes b(8 * 3, 0);
             b.insert(b.end(), 8 * 3, 255);
             return b;
         }()},
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(c.file, &code);
        ASSERT_EQ(code, 0) << c.what;
        EXPECT_EQ(p.bits, c.bits) << c.what;
        EXPECT_EQ(appearance(p), c.look) << c.what;
    }
}

TEST(GemRead, ColourTableExtension) {
    // Header of 17 words: 8, "XIMG", RGB model, two colours in thousandths.
    bytes f = gem({1, 17, 1, 1, 85, 85, 8, 1, 'X' << 8 | 'I', 'M' << 8 | 'G', 0, 1000, 0, 0, 0, 0, 1000}, {0x80, 1, 0xF0});
    // Detection names GEM only for headers of eight or nine words.
    int code = 0;
    load_pic(f, &code);
    EXPECT_EQ(code, IMG_ERR_TYPE);
    block_ref b(f);
    memory_source_set(b.data);
    capture got;
    EXPECT_EQ(brv::gem_read_file(0, keep_row, &got, keep_header, MEMORY_FD), 0);
    memory_source_end();
    scratch_free_all();
    ASSERT_EQ(got.header.size(), 48u);
    EXPECT_EQ(bytes(got.header.begin() + 40, got.header.end()), rgb({0, 0, 255, 0, 255, 0, 0, 0}));
    ASSERT_EQ(got.rows.size(), 1u);
    EXPECT_EQ(got.rows[0][0], 0xF0);
}

TEST(GemRead, Refusals) {
    struct {
        bytes file;
        int code;
    } cases[] = {
        {gem({1, 8, 9, 1, 85, 85, 8, 1}, {0x81}), IMG_ERR_TYPE},          // more planes than 8
        {gem({1, 8, 1, 1, 85, 85, 0, 1}, {0x81}), IMG_ERR_HEADER},        // no width
        {gem({1, 8, 1, 0, 85, 85, 8, 1}, {0x81}), IMG_ERR_HEADER},        // no pattern length
        {gem({1, 8, 1, 1, 85, 85, 8, 1}, {0, 0, 0xFE, 1, 0x81}), IMG_ERR_HEADER},  // not a replication mark
        {gem({1, 8, 1, 1, 85, 85, 8, 2}, {0x81}), IMG_ERR_DATA},          // a line missing
        {gem({1, 8, 1, 2, 85, 85, 8, 1}, {0, 1, 0xAA}), IMG_ERR_DATA},    // a pattern cut short
    };
    for (auto &c : cases) {
        int code = 0;
        load_pic(c.file, &code);
        EXPECT_EQ(code, c.code) << ::testing::PrintToString(c.file);
    }
}

namespace {

constexpr size_t PCD_BASE = 0x30000, PCD_PAIR = 768 * 3;

// An image pack: the FF lead-in, the signature, the attribute byte, and a
// base image whose row pairs all carry one luma and one chroma pair, except
// the first luma sample.
bytes pcd_file(int orientation, int y, int c1, int c2) {
    bytes f(PCD_BASE + 256 * PCD_PAIR, 0);
    std::fill(f.begin(), f.begin() + 0x800, 0xFF);
    std::memcpy(f.data() + 0x800, "PCD_IPI", 7);
    f[0xE02] = static_cast<uint8_t>(orientation);
    for (size_t p = 0; p < 256; p++) {
        uint8_t *pair = f.data() + PCD_BASE + p * PCD_PAIR;
        std::memset(pair, y, 2 * 768);
        std::memset(pair + 2 * 768, c1, 384);
        std::memset(pair + 2 * 768 + 384, c2, 384);
    }
    f[PCD_BASE] = 200;
    return f;
}

}  // namespace

TEST(PcdRead, BaseImageThroughThePublishedConversion) {
    struct {
        int y, c1, c2;
        bytes look;  // red, green, blue of the pixel right of the first
    } cases[] = {
        {100, 156, 137, rgb({136, 136, 136})},  // neutral chroma: 1.3584 Y
        {100, 200, 100, rgb({68, 151, 233})},
        {10, 0, 255, rgb({229, 0, 0})},  // clamped
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(pcd_file(0, c.y, c.c1, c.c2), &code);
        ASSERT_EQ(code, 0);
        ASSERT_EQ(p.width, 768);
        ASSERT_EQ(p.height, 512);
        ASSERT_EQ(p.bits, 24);
        bytes look = appearance(p);
        EXPECT_EQ(bytes(look.begin() + 3, look.begin() + 6), c.look) << c.y << " " << c.c1 << " " << c.c2;
        EXPECT_EQ(bytes(look.end() - 3, look.end()), c.look);
    }
    picture p = load_pic(pcd_file(0, 100, 156, 137));
    EXPECT_EQ(appearance(p)[0], 255);  // 1.3584 x 200, clamped
}

TEST(PcdRead, OrientationIsReportedNotApplied) {
    std::string name = temp_path("orient.pcd");
    for (auto [byte, degrees] : {std::pair{0, 0}, {1, 270}, {2, 180}, {3, 90}}) {
        write_file(name, pcd_file(byte, 100, 156, 137));
        EXPECT_EQ(IMGLOW_get_image_orientation(name.c_str()), degrees);
        int h = IMG_decompress_bitmap(name.c_str());
        ASSERT_GE(h, 0);
        EXPECT_EQ(picture_of(h).width, 768);
        IMG_delete_bitmap(h);
    }
    std::remove(name.c_str());
}

TEST(PcdRead, Refusals) {
    bytes good = pcd_file(0, 100, 156, 137);
    bytes unsigned_pack = good, cut = good;
    unsigned_pack[0x801] = 'X';
    cut.resize(good.size() - 1);
    bytes lead_only(0x800, 0xFF);
    struct {
        bytes file;
        int code;
    } cases[] = {{unsigned_pack, IMG_ERR_HEADER}, {cut, IMG_ERR_DATA}, {lead_only, IMG_ERR_OPEN}};
    for (auto &c : cases) {
        int code = 0;
        load_pic(c.file, &code);
        EXPECT_EQ(code, c.code) << c.file.size();
    }
}

TEST(GemPcdRead, FaultSweeps) {
    check_load_faults(gem({1, 8, 4, 1, 85, 85, 10, 3}, {0x81, 0x81, 0x80, 2, 1, 2, 0, 2, 0x55, 0x82, 0, 0, 0xFF, 2, 0x02,
                                                          0x80, 2, 0xF0, 0x0F, 0x81, 0x01, 0x01, 0x81}),
                      TRICKLES);
    check_load_faults(pcd_file(0, 90, 140, 150), TRICKLES);
}

