// The TIFF reader: files built here in both byte orders for the header, page
// chain and tag rules (files from independent tools are decoded in
// interop/tiff_read_test.py, damaged strips in tiff_decode_golden_test.cpp).
#include "codecs/tiff_test_util.h"

#include "brivanta.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

bytes b(std::initializer_list<int> v) { return bytes(v.begin(), v.end()); }

bytes row_of(const decoded &d, int r, size_t n) {
    if (static_cast<size_t>(r) >= d.rows.size()) return {};
    return bytes(d.rows[r].begin(), d.rows[r].begin() + std::min(n, d.rows[r].size()));
}

tiff_page one_pixel(int v = 7) { return simple_page(1, 1, 8, 1, 1, 1, {b({v})}); }

int pages_counted(const bytes &file) {
    block_ref block(file);
    memory_source_set(block.data);
    return tiff_page_count(MEMORY_FD);
}

}  // namespace

// Layouts a bitmap cannot hold are refused; the version word is not checked,
// and offsets count from the file's start.  (Damaged headers are the tiff
// fuzz seeds and crash files, and the TIFF rows of hostile_test.cpp.)
TEST(TiffHeader, RefusedLayoutsAndKeptRules) {
    EXPECT_EQ(run_tiff(build_tiff({simple_page(1, 1, 16, 2, 1, 1, {b({7})})}, false)).rc, IMG_ERR_HEADER)
        << "grey with alpha of 16 bits has no DIB depth";
    EXPECT_EQ(run_tiff(build_tiff({simple_page(8, 1, 8, 1, 0, 4, {b({0})})}, false)).rc, IMG_ERR_HEADER)
        << "fax compression on 8-bit samples";
    EXPECT_EQ(row_of(run_tiff(build_tiff({one_pixel(5)}, true, 43)), 0, 1), b({5}));
    bytes shifted = build_tiff({one_pixel()}, false);
    shifted.insert(shifted.begin(), 100, 0xEE);
    EXPECT_EQ(row_of(run_tiff(shifted, 100), 0, 1), b({7}));
}

// Pages by number in both byte orders; a second IFD of fewer than 5 or more
// than 300 entries, or a chain that loops, ends the chain.
TEST(TiffPages, SelectionCountAndTheChainsEnd) {
    for (bool mm : {false, true}) {
        bytes file = build_tiff({one_pixel(10), one_pixel(20), one_pixel(30)}, mm);
        for (int page = 0; page < 3; page++)
            EXPECT_EQ(row_of(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | page)), 0, 1), b({10 * (page + 1)})) << page;
        EXPECT_EQ(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | 3)).rc, IMG_ERR_PAGE);
        EXPECT_EQ(pages_counted(file), 3);
    }
    for (size_t entries : {4, 301}) {
        tiff_page second = one_pixel();
        for (uint16_t i = 0; second.fields.size() < entries; i++) second.fields.push_back({static_cast<uint16_t>(40000 + i), 3, {0}});
        second.fields.resize(entries);
        bytes file = build_tiff({one_pixel(), second}, false);
        EXPECT_EQ(run_tiff(file, static_cast<int32_t>(WHERE_PAGE | 1)).rc, IMG_ERR_PAGE) << entries;
        EXPECT_EQ(pages_counted(file), 1) << entries;
    }
    bytes loop = build_tiff({one_pixel()}, false);
    uint32_t ifd = get32(loop.data() + 4);
    put32(loop.data() + ifd + 2 + 12 * get16(loop.data() + ifd), ifd);  // next IFD: itself
    EXPECT_EQ(run_tiff(loop, static_cast<int32_t>(WHERE_PAGE | 60000)).rc, IMG_ERR_PAGE);
    EXPECT_GT(pages_counted(loop), 0);
}

TEST(TiffTags, ResolutionColourMapAndResponseCurve) {
    for (bool mm : {false, true}) {
        // Centimetres scale by 2.567: trunc(100 * 2.567), trunc(150 * 2.567).
        tiff_page p = one_pixel();
        set_field(p, 282, 5, {100, 1});
        set_field(p, 283, 5, {300, 2});
        set_field(p, 296, 3, {3});
        decoded d = run_tiff(build_tiff({p}, mm));
        EXPECT_EQ(get32(d.header + 24), 256u);
        EXPECT_EQ(get32(d.header + 28), 385u);
        // Colour map entries of 8 bits are used as they are, of 16 shifted down.
        tiff_page m = simple_page(2, 1, 4, 1, 3, 1, {b({0x01})});
        std::vector<uint32_t> map(48);
        for (int i = 0; i < 16; i++) map[i] = i, map[16 + i] = 0x100 * i + 5, map[32 + i] = 255 - i;
        set_field(m, 320, 3, map);
        decoded c = run_tiff(build_tiff({m}, mm));
        ASSERT_EQ(c.bits(), 4);
        for (int i = 0; i < 16; i++)
            EXPECT_EQ(bytes(c.header + 40 + 4 * i, c.header + 43 + 4 * i), b({255 - i, i ? i : 5, i})) << i;
    }
    tiff_page p = simple_page(2, 1, 1, 1, 3, 1, {b({0x40})});
    set_field(p, 290, 3, {2});
    set_field(p, 291, 3, {0, 60, 0, 0, 0, 0});
    set_field(p, 320, 3, {0, 0, 0, 0, 0, 0});
    decoded d = run_tiff(build_tiff({p}, false));
    EXPECT_EQ(d.header[40], 255);  // 255 / 10^0
    EXPECT_EQ(d.header[44], static_cast<uint8_t>(std::trunc(255 / std::pow(10.0, 60 / 200.0))));
}

TEST(TiffTags, UnknownCompressionAnnouncesAndDeliversNothing) {
    for (uint32_t compression : {7u, 8u, 34712u}) {
        decoded d = run_tiff(build_tiff({simple_page(4, 4, 8, 1, 1, compression, {bytes(16, 1)})}, false));
        EXPECT_EQ(d.rc, 0);
        EXPECT_TRUE(d.announced);
        EXPECT_EQ(d.calls, 0);
    }
}

TEST(TiffTags, DateTimeAndArtistBecomeTheLibraryTexts) {
    tiff_page p = one_pixel();
    const char date[] = "2024:05:06 07:08:09", artist[] = "Someone at Brivanta";
    set_field(p, 306, 2, std::vector<uint32_t>(date, date + sizeof date));
    set_field(p, 315, 2, std::vector<uint32_t>(artist, artist + sizeof artist));
    char text[256], when[64], old_text[256], old_when[64];
    IMGLOW_get_bitmap_name(old_text, old_when);
    ASSERT_EQ(run_tiff(build_tiff({p}, true)).rc, 0);
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

TEST(TiffStrips, ShortOffsets) {
    for (bool mm : {false, true}) {
        // The builder puts the strips right after the header: offsets 8 and 10.
        tiff_page p = simple_page(2, 2, 8, 1, 1, 1, {b({1, 2}), b({3, 4})}, 1);
        set_field(p, 273, 3, {8, 10});
        set_field(p, 279, 3, {2, 2});
        decoded d = run_tiff(build_tiff({p}, mm));
        EXPECT_EQ(row_of(d, 0, 2), b({1, 2}));
        EXPECT_EQ(row_of(d, 1, 2), b({3, 4}));
    }
}

// A row callback's refusal removes the planar temporary file (cut files are
// swept with the other fault sweeps).
TEST(TiffDamage, RefusedRowsLeaveNoTemporaryFile) {
    const std::string temp = use_private_temp_dir("tiffdamage");
    for (int stop : {0, 5, 11}) {
        EXPECT_EQ(run_tiff(read_file(fixture("rgb_planar_lzw.tif")), 0, stop).rc, -5);
        EXPECT_EQ(temp_files_in(temp), 0);
    }
}
