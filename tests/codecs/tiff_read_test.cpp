// The TIFF reader: files built here in both byte orders for the header,
// tag, palette and row-conversion rules, files made by independent tools
// for the decoders, and truncated and damaged files.
#include "codecs/tiff_test_util.h"

#include "brivanta.h"
#include "codecs/lzw.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

namespace {

bytes b(std::initializer_list<int> v) {
    bytes out;
    for (int x : v) out.push_back(static_cast<uint8_t>(x));
    return out;
}

// 9-bit LZW codes, most significant bit first, for hand-made strips.
bytes lzw_codes(const std::vector<int> &codes) {
    bytes out;
    uint32_t acc = 0;
    int n = 0;
    for (int c : codes) {
        acc = acc << 9 | static_cast<uint32_t>(c);
        n += 9;
        while (n >= 8) {
            out.push_back(static_cast<uint8_t>(acc >> (n - 8)));
            n -= 8;
        }
    }
    if (n) out.push_back(static_cast<uint8_t>(acc << (8 - n)));
    return out;
}

// Clear, every byte as its own code, then End.
bytes literal_lzw(const bytes &data) {
    std::vector<int> codes{256};
    codes.insert(codes.end(), data.begin(), data.end());
    codes.push_back(257);
    return lzw_codes(codes);
}

bytes row_of(const decoded &d, int r, size_t n) {
    EXPECT_LT(static_cast<size_t>(r), d.rows.size());
    if (static_cast<size_t>(r) >= d.rows.size()) return {};
    return bytes(d.rows[r].begin(), d.rows[r].begin() + std::min(n, d.rows[r].size()));
}

bool temp_file_exists() {
    char dir[100];
    os_temp_dir(dir, sizeof dir);
    return std::filesystem::exists(std::string(dir) + "img0001.tmp");
}

// ---- Row conversion, in both byte orders ------------------------------------------------------
struct conversion_case {
    const char *name;
    uint32_t width, bits, samples, photometric;
    bytes strip;
    int dib_bits;
    bytes expect;  // the first delivered row's leading bytes
    uint32_t predictor = 1;
};

class TiffConversion : public ::testing::TestWithParam<std::tuple<conversion_case, bool>> {};

TEST_P(TiffConversion, DeliversTheConvertedRow) {
    const auto &[c, mm] = GetParam();
    tiff_page p = simple_page(c.width, 1, c.bits, c.samples, c.photometric, 1, {c.strip});
    if (c.predictor != 1) set_field(p, 317, 3, {c.predictor});
    decoded d = run_tiff(build_tiff({p}, mm));
    ASSERT_EQ(d.rc, 1) << c.name;
    EXPECT_EQ(d.bits(), c.dib_bits) << c.name;
    EXPECT_EQ(row_of(d, 0, c.expect.size()), c.expect) << c.name;
}

uint8_t ycc(int y, double v) {
    int r = y + static_cast<int>(v);
    return static_cast<uint8_t>(r < 0 ? 0 : r > 255 ? 255 : r);
}

const conversion_case conversion_cases[] = {
    {"gray 8", 4, 8, 1, 1, b({0, 50, 200, 255}), 8, b({0, 50, 200, 255})},
    {"gray 8 white is zero", 4, 8, 1, 0, b({0, 50, 200, 255}), 8, b({255, 205, 55, 0})},
    {"gray 4 white is zero", 4, 4, 1, 0, b({0x1E, 0x70}), 4, b({0xE1, 0x8F})},
    {"bilevel white is zero", 8, 1, 1, 0, b({0xF0}), 1, b({0x0F})},
    {"gray 2: v becomes 4v, a partial last byte stays raw", 6, 2, 1, 1, b({0x1B, 0xB0}), 4, b({0x04, 0x8C, 0, 0})},
    {"gray 16: the first byte of each sample", 2, 16, 1, 1, b({0x12, 0x34, 0x56, 0x78}), 8, b({0x12, 0x56})},
    {"gray with alpha drops the alpha", 2, 8, 2, 1, b({10, 255, 20, 128}), 8, b({10, 20})},
    {"RGB to BGR", 2, 8, 3, 2, b({1, 2, 3, 4, 5, 6}), 24, b({3, 2, 1, 6, 5, 4})},
    {"RGBA drops alpha", 2, 8, 4, 2, b({1, 2, 3, 9, 4, 5, 6, 9}), 24, b({3, 2, 1, 6, 5, 4})},
    {"RGB predictor 2", 2, 8, 3, 2, b({10, 20, 30, 1, 2, 3}), 24, b({30, 20, 10, 33, 22, 11}), 2},
    {"gray predictor 2", 3, 8, 1, 1, b({10, 1, 250}), 8, b({10, 11, 5}), 2},
    {"CMYK", 2, 8, 4, 5, b({10, 20, 30, 40, 200, 0, 0, 100}), 24, b({185, 195, 205, 155, 155, 0})},
    {"RGB 4-bit samples", 2, 4, 3, 2, b({0x12, 0x3F, 0xE0}), 24, b({0x30, 0x20, 0x10, 0x00, 0xE0, 0xF0})},
    {"RGB 1-bit samples", 2, 1, 3, 2, b({0xB0}), 24, b({128, 0, 128, 0, 0, 128})},
    {"YCbCr Y1 Y2 Cb Cr", 2, 8, 3, 6, b({100, 150, 148, 98}), 24,
     b({ycc(100, 1.772 * 20), ycc(100, -(0.71414 * -30 + 0.34414 * 20)), ycc(100, 1.402 * -30),
        ycc(150, 1.772 * 20), ycc(150, -(0.71414 * -30 + 0.34414 * 20)), ycc(150, 1.402 * -30)})},
    {"CIELab white, black and mid grey", 3, 8, 3, 8, b({255, 0, 0, 0, 0, 0, 128, 0, 0}), 24,
     b({255, 255, 255, 0, 0, 0, 119, 119, 119})},
};

TEST(TiffConversion, YCbCrNeedsSubsampling) {
    tiff_page p = simple_page(2, 1, 8, 3, 6, 1, {b({100, 150, 148, 98})});
    set_field(p, 530, 3, {2, 1});
    decoded d = run_tiff(build_tiff({p}, false));
    ASSERT_EQ(d.rc, 1);
    EXPECT_EQ(row_of(d, 0, 1), b({ycc(100, 1.772 * 20)}));
}

INSTANTIATE_TEST_SUITE_P(Rows, TiffConversion,
                         ::testing::Combine(::testing::ValuesIn(conversion_cases), ::testing::Bool()));

// ---- Header, IFD walk and tags ------------------------------------------------------------------
TEST(TiffHeader, BadHeadersGiveTheirCodes) {
    bytes good = build_tiff({simple_page(1, 1, 8, 1, 1, 1, {b({7})})}, false);
    struct {
        const char *name;
        bytes file;
        int code;
    } cases[] = {
        {"seven bytes", bytes(good.begin(), good.begin() + 7), IMG_ERR_HEADER},
        {"byte order XX", [&] { bytes f = good; f[0] = f[1] = 'X'; return f; }(), IMG_ERR_TYPE},
        {"551 entries", [&] { bytes f = good; put16(f.data() + get32(f.data() + 4), 551); return f; }(), IMG_ERR_HEADER},
        {"negative entry count", [&] { bytes f = good; put16(f.data() + get32(f.data() + 4), 0x8001); return f; }(),
         IMG_ERR_HEADER},
        {"no strip offsets", build_tiff({[] { tiff_page p = simple_page(1, 1, 8, 1, 1, 1, {b({7})});
                                              p.fields.erase(p.fields.begin() + 5);
                                              return p; }()}, false), IMG_ERR_DATA},
        {"width 0", build_tiff({simple_page(0, 1, 8, 1, 1, 1, {b({7})})}, false), IMG_ERR_HEADER},
        {"gray with alpha of 16 bits has no DIB depth", build_tiff({simple_page(1, 1, 16, 2, 1, 1, {b({7})})}, false),
         IMG_ERR_HEADER},
        {"an absurd row", build_tiff({[] { tiff_page p = simple_page(1, 1, 8, 3, 2, 1, {b({7})});
                                           set_field(p, 256, 4, {0x7FFFFFFF});
                                           return p; }()}, false), IMG_ERR_MEMORY},
        {"strip beyond the end", build_tiff({[] { tiff_page p = simple_page(100, 10, 8, 1, 1, 1, {bytes(50, 1)});
                                                  set_field(p, 273, 4, {1000000});
                                                  return p; }()}, false), IMG_ERR_DATA},
        {"fax compression on 8-bit samples", build_tiff({simple_page(8, 1, 8, 1, 0, 4, {b({0})})}, false),
         IMG_ERR_HEADER},
    };
    for (const auto &c : cases) EXPECT_EQ(run_tiff(c.file).rc, c.code) << c.name;
}

TEST(TiffHeader, VersionWordIsNotCheckedAndOffsetsAreRelative) {
    decoded d = run_tiff(build_tiff({simple_page(2, 1, 8, 1, 1, 1, {b({5, 6})})}, true, 43));
    ASSERT_EQ(d.rc, 1);
    EXPECT_EQ(row_of(d, 0, 2), b({5, 6}));
    bytes file = build_tiff({simple_page(2, 1, 8, 1, 1, 1, {b({5, 6})})}, false);
    bytes shifted(100 + file.size(), 0xEE);
    std::copy(file.begin(), file.end(), shifted.begin() + 100);
    decoded at = run_tiff(shifted, 100);
    ASSERT_EQ(at.rc, 1);
    EXPECT_EQ(row_of(at, 0, 2), b({5, 6}));
}

TEST(TiffPages, PageSelectionAndCount) {
    for (bool mm : {false, true}) {
        std::vector<tiff_page> pages;
        for (int i = 0; i < 3; i++) pages.push_back(simple_page(1, 1, 8, 1, 1, 1, {b({10 * (i + 1)})}));
        bytes file = build_tiff(pages, mm);
        for (int page = 0; page < 3; page++) {
            decoded d = run_tiff(file, static_cast<int32_t>(WHERE_PAGE | page));
            ASSERT_EQ(d.rc, 1) << page;
            EXPECT_EQ(row_of(d, 0, 1), b({10 * (page + 1)})) << page;
        }
        EXPECT_EQ(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | 3)).rc, IMG_ERR_PAGE);
        block_ref block(file);
        memory_source_set(block.data);
        EXPECT_EQ(tiff_page_count(MEMORY_FD), 3);
    }
}

TEST(TiffPages, ASecondIfdOutsideFiveToThreeHundredEndsTheChain) {
    for (size_t entries : {4, 301}) {
        tiff_page second = simple_page(1, 1, 8, 1, 1, 1, {b({1})});
        for (uint16_t i = 0; second.fields.size() < entries; i++) second.fields.push_back({static_cast<uint16_t>(40000 + i), 3, {0}});
        second.fields.resize(entries);
        const size_t extra = entries;
        bytes file = build_tiff({simple_page(1, 1, 8, 1, 1, 1, {b({1})}), second}, false);
        EXPECT_EQ(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | 1)).rc, IMG_ERR_PAGE) << extra;
        block_ref block(file);
        memory_source_set(block.data);
        EXPECT_EQ(tiff_page_count(MEMORY_FD), 1) << extra;
    }
}

TEST(TiffPages, ALoopingChainEnds) {
    bytes file = build_tiff({simple_page(1, 1, 8, 1, 1, 1, {b({1})})}, false);
    uint32_t ifd = get32(file.data() + 4);
    put32(file.data() + ifd + 2 + 12 * get16(file.data() + ifd), ifd);  // next IFD: itself
    EXPECT_EQ(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | 60000)).rc, IMG_ERR_PAGE);
    block_ref block(file);
    memory_source_set(block.data);
    EXPECT_GT(tiff_page_count(MEMORY_FD), 0);
}

TEST(TiffTags, ResolutionUnitCentimetreScalesBy2567) {
    tiff_page p = simple_page(1, 1, 8, 1, 1, 1, {b({1})});
    set_field(p, 282, 5, {100, 1});
    set_field(p, 283, 5, {300, 2});
    set_field(p, 296, 3, {3});
    for (bool mm : {false, true}) {
        decoded d = run_tiff(build_tiff({p}, mm));
        ASSERT_EQ(d.rc, 1);
        EXPECT_EQ(get32(d.header + 24), 256u);  // trunc(100 * 2.567)
        EXPECT_EQ(get32(d.header + 28), 385u);  // trunc(150 * 2.567)
    }
}

TEST(TiffTags, UnknownCompressionAnnouncesAndDeliversNothing) {
    for (uint32_t compression : {7u, 8u, 34712u}) {
        decoded d = run_tiff(build_tiff({simple_page(4, 4, 8, 1, 1, compression, {bytes(16, 1)})}, false));
        EXPECT_EQ(d.rc, 1);
        EXPECT_TRUE(d.announced);
        EXPECT_EQ(d.calls, 0);
    }
}

TEST(TiffTags, ColorMapEightAndSixteenBitValues) {
    tiff_page p = simple_page(2, 1, 4, 1, 3, 1, {b({0x01})});
    std::vector<uint32_t> map(48);
    for (int i = 0; i < 16; i++) {
        map[i] = i;                  // red: 8-bit values, used as they are
        map[16 + i] = 0x100 * i + 5;  // green: 16-bit values, shifted down
        map[32 + i] = 255 - i;
    }
    set_field(p, 320, 3, map);
    for (bool mm : {false, true}) {
        decoded d = run_tiff(build_tiff({p}, mm));
        ASSERT_EQ(d.rc, 1);
        ASSERT_EQ(d.bits(), 4);
        const uint8_t *pal = d.header + 40;
        for (int i = 0; i < 16; i++) {
            EXPECT_EQ(pal[4 * i + 2], i);
            EXPECT_EQ(pal[4 * i + 1], i ? i : 5);  // (0x100 i + 5) >> 8; entry 0 holds 5, below 256
            EXPECT_EQ(pal[4 * i], 255 - i);
        }
    }
}

TEST(TiffTags, GrayResponseCurveBuildsTheRamp) {
    tiff_page p = simple_page(2, 1, 1, 1, 3, 1, {b({0x40})});
    set_field(p, 290, 3, {2});
    std::vector<uint32_t> curve{0, 60, 0, 0, 0, 0};
    set_field(p, 291, 3, curve);
    set_field(p, 320, 3, {0, 0, 0, 0, 0, 0});
    decoded d = run_tiff(build_tiff({p}, false));
    ASSERT_EQ(d.rc, 1);
    EXPECT_EQ(d.header[40], 255);  // 255 / 10^0
    EXPECT_EQ(d.header[44], static_cast<uint8_t>(std::trunc(255 / std::pow(10.0, 60 / 200.0))));
}

TEST(TiffTags, StandardPalettes) {
    decoded four = run_tiff(build_tiff({simple_page(1, 1, 4, 1, 1, 1, {b({0})})}, false));
    ASSERT_EQ(four.rc, 1);
    EXPECT_EQ(four.header[40 + 4 * 15], 240);  // the "tiff" ramp steps by 16
    decoded dither = run_tiff(build_tiff({simple_page(2, 1, 1, 4, 5, 1, {b({0x5A})})}, false));
    ASSERT_EQ(dither.rc, 1);
    EXPECT_EQ(dither.bits(), 4);
    EXPECT_EQ(row_of(dither, 0, 1), b({0x5A}));
}

TEST(TiffTags, DateTimeAndArtistBecomeTheLibraryTexts) {
    tiff_page p = simple_page(1, 1, 8, 1, 1, 1, {b({1})});
    const char date[] = "2024:05:06 07:08:09";
    const char artist[] = "Someone at Brivanta";
    set_field(p, 306, 2, std::vector<uint32_t>(date, date + sizeof date));
    set_field(p, 315, 2, std::vector<uint32_t>(artist, artist + sizeof artist));
    char text[256], when[64], old_text[256], old_when[64];
    IMGLOW_get_bitmap_name(old_text, old_when);
    ASSERT_EQ(run_tiff(build_tiff({p}, true)).rc, 1);
    IMGLOW_get_bitmap_name(text, when);
    EXPECT_STREQ(text, artist);
    EXPECT_EQ(std::string(when), std::string(date).substr(0, std::strlen(when)));
    EXPECT_GE(std::strlen(when), 10u);
    IMGLOW_set_bitmap_name(old_text, old_when);
}

TEST(TiffTags, T4OptionsTwoDimensionalOnlyRefinesGroup3) {
    struct {
        uint32_t compression, t4;
        int type;
    } cases[] = {{1, 0, 0}, {2, 1, 7}, {3, 0, 8}, {3, 1, 17}, {4, 0, 10}, {5, 0, 9}, {32773, 0, 16}, {6, 0, 40},
                 {7, 0, IMG_ERR_TYPE}};
    for (const auto &c : cases) {
        tiff_page p = simple_page(8, 1, 1, 1, 0, c.compression, {b({0})});
        if (c.t4) set_field(p, 292, 4, {c.t4});
        block_ref block(build_tiff({p}, false));
        EXPECT_EQ(IMGLOW_get_filetype_mem(block.data), c.type) << c.compression;
    }
}

TEST(TiffStrips, ShortStripOffsetsWithCountTwo) {
    for (bool mm : {false, true}) {
        tiff_page p = simple_page(2, 2, 8, 1, 1, 1, {b({1, 2}), b({3, 4})}, 1);
        bytes probe = build_tiff({p}, mm);
        // The builder puts the strips right after the header: offsets 8 and 10.
        set_field(p, 273, 3, {8, 10});
        set_field(p, 279, 3, {2, 2});
        decoded d = run_tiff(build_tiff({p}, mm));
        ASSERT_EQ(d.rc, 1);
        EXPECT_EQ(row_of(d, 0, 2), b({1, 2}));
        EXPECT_EQ(row_of(d, 1, 2), b({3, 4}));
        EXPECT_EQ(probe[8], 1);
    }
}

TEST(TiffStrips, TiledImageIsOneTileChosenByPage) {
    tiff_page p = simple_page(4, 2, 8, 1, 1, 1, {b({1, 1, 1, 1}), b({2, 2, 2, 2})});
    p.fields.erase(std::remove_if(p.fields.begin(), p.fields.end(), [](const tiff_field &f) { return f.tag == 273 || f.tag == 279; }),
                   p.fields.end());
    set_field(p, 322, 3, {2});
    set_field(p, 323, 3, {2});
    set_field(p, 324, 4, {});
    bytes file = build_tiff({p}, false);
    for (int page : {0, 1}) {
        decoded d = run_tiff(file, static_cast<int32_t>(WHERE_PAGE | page));
        ASSERT_EQ(d.rc, 1);
        EXPECT_EQ(d.width(), 2);
        EXPECT_EQ(row_of(d, 0, 2), b({page + 1, page + 1}));
    }
}

TEST(TiffLzw, DamagedStrips) {
    bytes good = literal_lzw(b({1, 2, 3, 4}));
    struct {
        const char *name;
        bytes first, second;
        uint32_t height;
        int rc;
    } cases[] = {
        // A full-length strip that fails is passed over.
        {"first code not Clear in a full strip", lzw_codes({7, 257}), good, 4, 1},
        {"code beyond the table in a full strip", lzw_codes({256, 300}), good, 4, 1},
        // The last, shorter strip ends the decode with its error.
        {"first code not Clear in the short strip", good, lzw_codes({7, 257}), 3, IMG_ERR_HEADER},
        {"code beyond the table in the short strip", good, lzw_codes({256, 1, 400}), 3, IMG_ERR_HEADER},
        {"data runs out in the short strip", good, lzw_codes({256, 1}), 3, IMG_ERR_DATA},
    };
    for (const auto &c : cases) {
        decoded d = run_tiff(strips_at_end(simple_page(2, c.height, 8, 1, 1, 5, {}, 2), {c.first, c.second}));
        EXPECT_EQ(d.rc, c.rc) << c.name;
        if (c.rc == 1) {
            EXPECT_EQ(row_of(d, 2, 2), b({1, 2})) << c.name;
        }
    }
}

// ---- Files made by independent tools ---------------------------------------------------------------
picture load_fixture(const std::string &name, int page = 0) {
    int code = 0;
    picture p = load_pic(read_file(fixture(name)), &code, page);
    EXPECT_GE(code, 0) << name;
    return p;
}

TEST(TiffFixtures, FaxCompressionsMatchTheSourcePage) {
    picture page = read_pbm("page.pbm");
    for (const char *name : {"page_g4.tif", "page_g3_2d.tif", "page_g3_lsb.tif", "page_mh.tif"})
        EXPECT_TRUE(load_fixture(name) == page) << name;
}

TEST(TiffFixtures, ColourFilesMatchTheSourcePicture) {
    picture rgb = read_ppm("rgb.ppm");
    for (const char *name : {"rgb_raw.tif", "rgb_lzw2_mm.tif", "rgb_planar_lzw.tif", "rgb_packbits.tif"})
        EXPECT_TRUE(load_fixture(name) == rgb) << name;
    EXPECT_FALSE(temp_file_exists());
}

TEST(TiffFixtures, MultiPageFile) {
    EXPECT_EQ(IMGLOW_get_pages(fixture("two_pages.tif").c_str()), 3);
    EXPECT_TRUE(load_fixture("two_pages.tif", 1) == read_pbm("page.pbm"));
    EXPECT_TRUE(load_fixture("two_pages.tif", 2) == read_ppm("rgb.ppm"));
    EXPECT_EQ(IMGLOW_get_filetype(fixture("page_g4.tif").c_str()), IMG_TYPE_TIFF_G4);
    EXPECT_EQ(IMGLOW_get_filetype(fixture("page_g3_2d.tif").c_str()), IMG_TYPE_TIFF_45);
    EXPECT_EQ(IMGLOW_get_filetype(fixture("page_mh.tif").c_str()), IMG_TYPE_TIFF_HUFFMAN);
}

// ---- Bad input, failing memory, failing I/O ------------------------------------------------------------
const char *const damage_files[] = {"page_g4.tif",     "page_g3_2d.tif",     "page_g3_lsb.tif", "page_mh.tif",
                                    "rgb_lzw2_mm.tif", "rgb_planar_lzw.tif", "rgb_packbits.tif", "two_pages.tif"};

TEST(TiffDamage, EveryTruncationEndsCleanly) {
    for (const char *name : damage_files) {
        bytes f = read_file(fixture(name));
        int live = mem_live_blocks();
        for (size_t n = 0; n < f.size(); n += 3) {
            int h = 0;
            load_pic(bytes(f.begin(), f.begin() + n), &h);
            EXPECT_TRUE(h >= 0 || h == IMG_ERR_HEADER || h == IMG_ERR_DATA || h == IMG_ERR_TYPE || h == IMG_ERR_OPEN)
                << name << " cut at " << n << ": " << h;
            ASSERT_EQ(mem_live_blocks(), live) << name << " cut at " << n;
        }
        EXPECT_FALSE(temp_file_exists()) << name;
    }
}

TEST(TiffDamage, RowCallbackFailureRemovesThePlanarTemporaryFile) {
    bytes f = read_file(fixture("rgb_planar_lzw.tif"));
    for (int stop : {0, 5, 11}) {
        decoded d = run_tiff(f, 0, stop);
        EXPECT_EQ(d.rc, -5);
        EXPECT_FALSE(temp_file_exists());
    }
}

}  // namespace
