// GEM raster images and PhotoCD base images, from files built here from the
// formats' published layouts.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

namespace {

bytes gem(std::initializer_list<int> header_words, std::initializer_list<int> data) {
    bytes f;
    for (int w : header_words) f.push_back(static_cast<uint8_t>(w >> 8)), f.push_back(static_cast<uint8_t>(w));
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

// One plane of 12 pixels: a solid run and a bit string, then a pattern run
// replicated on two lines.
const bytes gem_mono = gem({1, 8, 1, 2, 85, 85, 12, 3}, {0x81, 0x80, 0x01, 0xA5, 0, 0, 0xFF, 2, 0, 1, 0x0F, 0xF0});

}  // namespace

TEST(GemRead, RunsPlanesAndReplication) {
    struct {
        bytes file;
        int bits;
        bytes look;
    } cases[] = {
        {gem_mono, 1, [] {
             bytes b;  // 1 is ink
             for (int bits : {0xFFA, 0x0FF, 0x0FF})
                 for (int i = 11; i >= 0; i--) b.insert(b.end(), 3, (bits >> i) & 1 ? 0 : 255);
             return b;
         }()},
        // two planes through the standard pens: 3 green, 2 red, 1 black, 0 white
        {gem({1, 8, 2, 1, 85, 85, 4, 1}, {0x80, 1, 0xA0, 0x80, 1, 0xC0}), 4,
         {0, 255, 0, 255, 0, 0, 0, 0, 0, 255, 255, 255}},
        // six planes as grey levels, 37 and 21 of 63, behind a nine-word header
        {gem({1, 9, 6, 1, 85, 85, 2, 1, 0}, {0x81, 0x01, 0x81, 0x01, 0x80, 1, 0x40, 0x80, 1, 0x80}), 8,
         {149, 149, 149, 85, 85, 85}},
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(c.file, &code);
        ASSERT_EQ(code, 0);
        EXPECT_EQ(p.bits, c.bits);
        EXPECT_EQ(appearance(p), c.look) << c.bits;
    }
}

TEST(GemRead, ColourTableExtension) {
    // 17 header words: "XIMG", the RGB model, red and blue in thousandths.
    bytes f = gem({1, 17, 1, 1, 85, 85, 8, 1, 'X' << 8 | 'I', 'M' << 8 | 'G', 0, 1000, 0, 0, 0, 0, 1000},
                  {0x80, 1, 0xF0});
    EXPECT_EQ(load_code(f), IMG_ERR_TYPE) << "detection names GEM only for headers of eight or nine words";
    jpeg_testing::sink s;
    EXPECT_EQ(jpeg_testing::run_reader_on(f, s, brv::gem_read_file), 0);
    EXPECT_EQ(bytes(s.palette.begin(), s.palette.begin() + 8), bytes({0, 0, 255, 0, 255, 0, 0, 0}));
}

TEST(GemRead, Refusals) {
    struct {
        bytes file;
        int code;
    } cases[] = {
        {gem({1, 8, 9, 1, 85, 85, 8, 1}, {0x81}), IMG_ERR_TYPE},                   // more planes than 8
        {gem({1, 8, 1, 1, 85, 85, 8, 1}, {0, 0, 0xFE, 1, 0x81}), IMG_ERR_HEADER},  // not a replication mark
        {gem({1, 8, 1, 2, 85, 85, 8, 1}, {0, 1, 0xAA}), IMG_ERR_DATA},             // a pattern cut short
    };
    for (auto &c : cases) EXPECT_EQ(load_code(c.file), c.code);
}

namespace {

// An image pack: the FF lead-in, the signature, and a base image whose row
// pairs all hold one luma and one chroma pair.
bytes pcd_file(int y, int c1, int c2) {
    constexpr size_t base = 0x30000, pair = 768 * 3;
    bytes f(base + 256 * pair, 0);
    std::fill(f.begin(), f.begin() + 0x800, 0xFF);
    std::memcpy(f.data() + 0x800, "PCD_IPI", 7);
    for (size_t p = 0; p < 256; p++) {
        uint8_t *at = f.data() + base + p * pair;
        std::memset(at, y, 2 * 768);
        std::memset(at + 2 * 768, c1, 384);
        std::memset(at + 2 * 768 + 384, c2, 384);
    }
    return f;
}

}  // namespace

TEST(PcdRead, BaseImageThroughThePublishedConversion) {
    struct {
        int y, c1, c2;
        bytes look;
    } cases[] = {
        {100, 156, 137, {136, 136, 136}},  // neutral chroma: 1.3584 Y
        {100, 200, 100, {68, 151, 233}},
        {10, 0, 255, {229, 0, 0}},  // clamped
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(pcd_file(c.y, c.c1, c.c2), &code);
        ASSERT_EQ(code, 0);
        ASSERT_EQ(std::tie(p.width, p.height, p.bits), std::make_tuple(768, 512, 24));
        bytes look = appearance(p);
        EXPECT_EQ(bytes(look.end() - 3, look.end()), c.look) << c.y << " " << c.c1 << " " << c.c2;
    }
    bytes unsigned_pack = pcd_file(100, 156, 137);
    unsigned_pack[0x801] = 'X';
    EXPECT_EQ(load_code(unsigned_pack), IMG_ERR_HEADER);
    check_load_faults(pcd_file(90, 140, 150), TRICKLES);
}
