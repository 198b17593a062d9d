// TIFF writers: grey ramps without colour maps, page append, and saves that
// leave an existing file alone.  (Raw fax output is decoded by
// g3topbm and Pillow in tests/interop/writers_test.py.)
#include "codecs/tiff_test_util.h"

#include "codecs/tiff.h"

#include <gtest/gtest.h>

namespace {

// A picture with structure as well as noise: diagonal bands, blocks, and
// random rows, so fax coding meets vertical, pass and horizontal modes.
picture bilevel_page(int w, int h, uint32_t seed) {
    picture p = make_picture(w, h, 1, seed);
    for (int y = 0; y < h / 2; y++) {
        bytes &row = p.rows[y];
        std::fill(row.begin(), row.end(), 0);
        for (int x = 0; x < w; x++) {
            bool black = ((x + y) / 7) % 3 == 0 || (x > w / 3 && x < w / 3 + y % 40) || (x % 97 == y % 97);
            if (black) row[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
        }
    }
    return p;
}

// Grey ramps are written without a colour map: an 8-bit ramp comes back
// as it was, a 4-bit one as the loader's own ramp, which steps by 16.
TEST(TiffWrite, GreyRampsGoWithoutAColourMap) {
    for (int bits : {4, 8}) {
        picture p = grey_palette_picture(37, 23, bits, 6);
        for (int type : {0, 9, 16}) {
            picture back = load_pic(save_pic(p, type));
            ASSERT_EQ(back.palette.size(), 4u << bits) << bits << " bits, type " << type << ": the load failed";
            EXPECT_EQ(back.rows, p.rows) << bits << " bits, type " << type;
            for (int i = 0; i < (1 << bits); i++)
                EXPECT_EQ(back.palette[4 * i], bits == 8 ? i : 16 * i) << bits << " bits, type " << type << ", entry " << i;
        }
    }
    // Flat rows compress.
    picture flat = make_picture(1000, 200, 8, 22);
    for (auto &row : flat.rows) std::fill(row.begin(), row.end(), 7);
    EXPECT_LT(save_pic(flat, IMG_TYPE_TIFF_LZW).size(), 40000u);
}

// A second save appends a page at a word boundary.  (Both pages in Pillow,
// and big-endian files overwritten, are checked in interop/tiff_write_test.py.)
TEST(TiffWrite, SecondSaveAppendsAWordAlignedPage) {
    std::string name = temp_path("append.tif");
    std::remove(name.c_str());
    int ha = handle_of(bilevel_page(120, 40, 1)), hb = handle_of(make_picture(33, 17, 24, 2));
    ASSERT_EQ(IMG_save_bitmap(ha, name.c_str(), IMG_TYPE_TIFF_G4), 0);
    size_t first_size = read_file(name).size();
    ASSERT_EQ(IMG_save_bitmap(hb, name.c_str(), IMG_TYPE_TIFF_LZW), 0);
    bytes f = read_file(name);
    ifd_view first = parse_ifd(f, 8);
    EXPECT_EQ(first.next, first_size + (first_size & 1));
    EXPECT_EQ(parse_ifd(f, first.next).next, 0u);
    // A chain that cannot be followed (past the end, or in a loop) is not
    // appended to; the file stays as it was.
    for (bytes broken : {bytes{'I', 'I', 42, 0, 0xF0, 0xFF, 0, 0}, bytes{'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 8, 0, 0, 0}}) {
        write_file(name, broken);
        EXPECT_EQ(IMG_save_bitmap(hb, name.c_str(), 0), IMG_ERR_HEADER);
        EXPECT_EQ(read_file(name), broken);
    }
    std::remove(name.c_str());
    IMG_delete_bitmap(ha), IMG_delete_bitmap(hb);
}

// A page added to a file fails at each allocation in turn: -1, and the file
// keeps its one page untouched.
TEST(TiffWrite, FailedAppendLeavesTheFileAlone) {
    picture p = bilevel_page(500, 80, 9);
    int hp = handle_of(p);
    std::string name = temp_path("short.tif");
    for (int type : {0, 8, 9, 10, 16, 40}) {
        std::remove(name.c_str());
        int first = handle_of(make_picture(20, 10, 24, 3));
        ASSERT_EQ(IMG_save_bitmap(first, name.c_str(), IMG_TYPE_TIFF), 0);
        int h = type == 40 ? first : hp;
        bytes before = read_file(name);
        for (int k = 1;; k++) {
            int live = mem_live_blocks();
            mem_fail_after(k);
            int r = IMG_save_bitmap(h, name.c_str(), type);
            mem_fail_after(0);
            EXPECT_EQ(mem_live_blocks(), live) << "k=" << k;
            if (r >= 0) break;
            EXPECT_EQ(r, IMG_ERR_MEMORY) << "type " << type << " k=" << k;
            EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 1) << "type " << type << " k=" << k;
            if (type != 40) {
                EXPECT_EQ(read_file(name), before) << "type " << type << " k=" << k;
            }
            ASSERT_LT(k, 30);
        }
        EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 2) << type;
        IMG_delete_bitmap(first);
    }
    std::remove(name.c_str());
    IMG_delete_bitmap(hp);
}

}  // namespace
