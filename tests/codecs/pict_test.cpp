// Pictures built from the published opcode layout, for the paths files from
// other tools seldom take: version 1 bit maps without the file header, 2-bit
// maps, 16-bit word runs, region forms, odd-length opcodes before a bitmap,
// and broken ones.  ImageMagick's pictures are the PICT rows of
// tests/interop/readers_test.py.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

struct pic {
    bytes b;
    pic &u8(std::initializer_list<int> v) {
        for (int x : v) b.push_back(static_cast<uint8_t>(x));
        return *this;
    }
    pic &u16(std::initializer_list<int> v) {
        for (int x : v) u8({x >> 8 & 255, x & 255});
        return *this;
    }
    pic &rect(int h, int w) { return u16({0, 0, h, w}); }
    // Version 2 start: size, frame, version, header opcode.
    static pic v2(bool file_header) {
        pic p;
        if (file_header) p.b.assign(512, 0);
        p.u16({0}).rect(1, 1).u16({0x0011, 0x02FF, 0x0C00, 0xFFFE, 0}).b.resize(p.b.size() + 20);
        return p;
    }
    // The rest of a pixel map after its row bytes and bounds.
    pic &pixmap(int pack_type, int pixel_type, int pixel_size, int cmp_count, int cmp_size) {
        return u16({0, pack_type, 0, 0, 72, 0, 72, 0, pixel_type, pixel_size, cmp_count, cmp_size, 0, 0, 0, 0, 0, 0});
    }
    pic &rects_and_mode(int h, int w) { return rect(h, w).rect(h, w).u16({0}); }
};

bytes row_of(const bytes &r, size_t n) { return bytes(r.begin(), r.begin() + static_cast<long>(n)); }

}  // namespace

TEST(Pict, BitmapOpcodes) {
    // Version 1, no file header: comments, clip, pen size and text first;
    // a bit map's 1 is black, so the rows come inverted over black first.
    pic v1;
    v1.u16({0}).rect(2, 9).u8({0x11, 0x01, 0xA0, 0, 5, 0x01}).u16({10}).rect(2, 9);
    v1.u8({0x07, 0, 1, 0, 1, 0x28, 0, 0, 0, 0, 3, 'a', 'b', 'c', 0x90}).u16({2}).rect(2, 9).rects_and_mode(2, 9);
    v1.u8({0xA5, 0x80, 0x0F, 0x00, 0xFF});

    // Version 2 with the file header: a 2-bit map widened to 4, its device
    // table in order, packed rows; odd-length opcodes before it.
    pic two = pic::v2(true);
    two.u16({0x0004}).u8({1, 0}).u16({0x00A1, 100, 3}).u8({1, 2, 3, 0});
    two.u16({0x0098, 0x8000 | 10}).rect(2, 40).pixmap(0, 0, 2, 1, 2).u16({0, 0, 0x8000, 3});
    for (int i = 0; i < 4; i++) two.u16({i, i * 0x4040, 0x1111, (0xFF - i) * 0x101});
    two.rects_and_mode(2, 40).u8({2, 0xF7, 0x1B, 11, 9}).u8({0x00, 0x55, 0xAA, 0xFF, 0, 0, 0, 0, 0, 0xE4}).u8({0});
    two.u16({0x00FF});

    // 16-bit direct pixels in word runs; a long reserved opcode and a
    // counted one before it.
    pic sixteen = pic::v2(false);
    sixteen.u16({0x8201, 0, 3}).u8({1, 2, 3, 0}).u16({0x0200, 0, 0});
    sixteen.u16({0x009A, 0, 0xFF, 0x8000 | 12}).rect(1, 6).pixmap(3, 16, 16, 3, 5).rects_and_mode(1, 6);
    sixteen.u8({3, 0xFB, 0x7C, 0x00}).u16({0x00FF});

    // 32-bit planes, red, green, blue, of the region form.
    pic planes = pic::v2(false);
    planes.u16({0x009B, 0, 0xFF, 0x8000 | 12}).rect(1, 3).pixmap(4, 16, 32, 3, 8).rects_and_mode(1, 3);
    planes.u16({10}).rect(1, 3).u8({10, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0}).u16({0x00FF});

    pic vectors = pic::v2(false);
    vectors.u16({0x0030}).rect(5, 5).u16({0x00FF});
    bytes truncated = two.b;
    truncated.resize(truncated.size() - 12);

    bytes wide;
    for (int i = 0; i < 10; i++) wide.insert(wide.end(), {0x01, 0x23});

    const struct {
        const char *name;
        bytes file;
        int code, bits;
        std::vector<bytes> rows;  // the used bytes of each row
        bytes colours;            // blue, green, red, reserved of the first entries
    } cases[] = {
        {"version 1 bit map", v1.b, 0, 1, {{0x5A, 0x7F}, {0xF0, 0xFF}}, {0, 0, 0, 0, 255, 255, 255, 0}},
        {"2-bit map", two.b, 0, 4, {wide, {0, 0, 0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x32, 0x10}},
         {0xFF, 0x11, 0x00, 0, 0xFE, 0x11, 0x40, 0}},
        {"16-bit word runs", sixteen.b, 0, 24, {{0, 0, 0xFF, 0, 0, 0xFF, 0, 0, 0xFF, 0, 0, 0xFF, 0, 0, 0xFF, 0, 0, 0xFF}}, {}},
        {"32-bit planes, region form", planes.b, 0, 24, {{7, 4, 1, 8, 5, 2, 9, 6, 3}}, {}},
        {"vectors only", vectors.b, IMG_ERR_TYPE, 0, {}, {}},
        {"truncated rows", truncated, IMG_ERR_DATA, 4, {}, {}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        sink s;
        ASSERT_EQ(run_reader_on(c.file, s, brv::pict_read_file), c.code);
        EXPECT_EQ(s.begin_calls, c.bits != 0);
        if (c.code < 0) continue;
        EXPECT_EQ(s.info.biBitCount, c.bits);
        ASSERT_EQ(s.rows.size(), c.rows.size());
        for (size_t r = 0; r < c.rows.size(); r++)
            if (!c.rows[r].empty()) {
                EXPECT_EQ(row_of(s.rows[r], c.rows[r].size()), c.rows[r]) << "row " << r;
            }
        if (!c.colours.empty()) {
            EXPECT_EQ(row_of(s.palette, c.colours.size()), c.colours);
        }
    }
}
