// X window dumps: dumps built from recipes (byte and bit orders, pixel
// sizes, masks, XY planes, colour records) against the rows they must give,
// refused variants, faults.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

struct dump {
    uint32_t format = 2, depth = 8, width = 3, height = 2, byte_order = 1, unit = 32, bit_order = 1, bpp = 8,
             bpl = 4, masks[3] = {0xFF0000, 0xFF00, 0xFF}, version = 7;
    std::vector<std::array<uint32_t, 4>> colours{};  // pixel, red, green, blue
    bytes data;
};

void be32(bytes &f, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) f.push_back(static_cast<uint8_t>(v >> s));
}

bytes build(const dump &d) {
    bytes f;
    const uint32_t fields[25] = {104, d.version, d.format, d.depth, d.width, d.height, 0, d.byte_order, d.unit,
                                 d.bit_order, 32, d.bpp, d.bpl, 4, d.masks[0], d.masks[1], d.masks[2], 8,
                                 uint32_t(d.colours.size()), uint32_t(d.colours.size()), d.width, d.height};
    for (uint32_t v : fields) be32(f, v);
    f.insert(f.end(), {'x', 'w', 'd', 0});
    for (auto &c : d.colours) {
        be32(f, c[0]);
        for (int k = 1; k < 4; k++) f.insert(f.end(), {uint8_t(c[k] >> 8), uint8_t(c[k])});
        f.insert(f.end(), {7, 0});
    }
    f.insert(f.end(), d.data.begin(), d.data.end());
    return f;
}

int read(const bytes &f, sink &s) { return run_reader_on(f, s, xwd_read_file); }

}  // namespace

TEST(Xwd, LayoutsGiveTheirRows) {
    struct {
        const char *what;
        dump d;
        bytes row0, row1;  // the pixels the rows must start with
    } cases[] = {
        {"24 in 32, MSB first: 0 R G B",
         {.depth = 24, .width = 2, .bpp = 32, .bpl = 8, .data = {0, 1, 2, 3, 9, 4, 5, 6, 0, 7, 8, 9, 0, 10, 11, 12}},
         {3, 2, 1, 6, 5, 4},
         {9, 8, 7, 12, 11, 10}},
        {"24 in 32, LSB first: B G R 0",
         {.depth = 24, .width = 1, .byte_order = 0, .bpp = 32, .bpl = 4, .data = {1, 2, 3, 0, 4, 5, 6, 0}},
         {1, 2, 3},
         {4, 5, 6}},
        {"24 in 24, LSB first, padded lines",
         {.depth = 24, .width = 1, .byte_order = 0, .bpp = 24, .bpl = 4, .data = {1, 2, 3, 99, 4, 5, 6, 99}},
         {1, 2, 3},
         {4, 5, 6}},
        {"16-bit masks scale to 8 bits",
         {.depth = 24, .width = 1, .bpp = 32, .bpl = 4, .masks = {0xF800, 0x7E0, 0x1F}, .data = {0, 0, 0xF8, 0x1F, 0, 0, 0x07, 0xE0}},
         {255, 0, 255},
         {0, 255, 0}},
        {"8 bits straight", {.width = 3, .data = {1, 2, 3, 0, 4, 5, 6, 0}}, {1, 2, 3}, {4, 5, 6}},
        {"1 bit MSB first", {.depth = 1, .width = 9, .bpp = 1, .bpl = 2, .data = {0x81, 0x80, 0x12, 0}}, {0x81, 0x80}, {0x12, 0}},
        {"1 bit LSB first, 32-bit units in MSB order",
         {.depth = 1, .width = 9, .unit = 32, .bit_order = 0, .bpp = 1, .bpl = 4, .data = {0, 0, 0x01, 0x81, 0, 0, 0, 0x48}},
         {0x81, 0x80},
         {0x12, 0}},
        {"XY pixmap: plane 0 is the top bit",
         {.format = 1, .width = 9, .bpp = 1, .bpl = 2,
          .data = {0x80, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xFF}},
         {0x80, 0, 0, 0, 0, 0, 0, 0, 0x80},
         {0, 0x10, 0, 0, 0, 0, 0, 1, 1}},
    };
    for (auto &c : cases) {
        sink s;
        ASSERT_EQ(read(build(c.d), s), 0) << c.what;
        ASSERT_EQ(s.rows.size(), 2u) << c.what;
        EXPECT_EQ(bytes(s.rows[0].begin(), s.rows[0].begin() + c.row0.size()), c.row0) << c.what;
        EXPECT_EQ(bytes(s.rows[1].begin(), s.rows[1].begin() + c.row1.size()), c.row1) << c.what;
    }
}

TEST(Xwd, ColourRecordsRefusalsFaultsAndRowCodes) {
    dump d;
    d.colours = {{5, 0xFF00, 0x1200, 0x3400}, {300, 1, 2, 3}, {0, 0x8000, 0x8000, 0x8000}};
    d.data = bytes(8, 5);
    sink s;
    ASSERT_EQ(read(build(d), s), 0);
    EXPECT_EQ(bytes(s.palette.begin() + 20, s.palette.begin() + 23), (bytes{0x34, 0x12, 0xFF}));
    EXPECT_EQ(bytes(s.palette.begin(), s.palette.begin() + 3), (bytes{0x80, 0x80, 0x80}));
    struct {
        const char *what;
        void (*change)(dump &);
        int code;
    } cases[] = {
        {"version 6", [](dump &x) { x.version = 6; }, IMG_ERR_HEADER},
        {"16-bit pixels", [](dump &x) { x.depth = 16, x.bpp = 16; }, IMG_ERR_TYPE},
        {"8 bits in 32-bit pixels", [](dump &x) { x.bpp = 32; }, IMG_ERR_TYPE},
        {"XY pixmap of 4 planes", [](dump &x) { x.format = 1, x.depth = 4, x.bpp = 1; }, IMG_ERR_TYPE},
        {"zero width", [](dump &x) { x.width = 0; }, IMG_ERR_HEADER},
        {"line too short", [](dump &x) { x.bpl = 2; }, IMG_ERR_HEADER},
        {"line far too long", [](dump &x) { x.bpl = 100000; }, IMG_ERR_HEADER},
        {"rows past the end", [](dump &x) { x.height = 3; }, IMG_ERR_DATA},
        {"XY planes past the end", [](dump &x) { x.format = 1, x.bpp = 1, x.bpl = 1; }, IMG_ERR_DATA},
    };
    for (auto &c : cases) {
        dump x = d;
        c.change(x);
        sink t;
        EXPECT_EQ(read(build(x), t), c.code) << c.what;
    }
    bytes f = build(d);
    for (size_t n = 1; n < f.size(); n++) {
        sink t;
        EXPECT_EQ(read(bytes(f.begin(), f.begin() + n), t), IMG_ERR_DATA) << "cut at " << n;
    }
    dump big = d;
    big.width = 50, big.height = 40, big.bpl = 52;
    big.data = bytes(52 * 40, 3);
    check_load_faults(build(big), 0);  // detection needs byte 7, past a seven-byte read
    sink t;
    t.fail_at_row = 1, t.fail_code = -31;
    EXPECT_EQ(read(build(big), t), -31);
    EXPECT_TRUE(t.rows[2].empty());
}
