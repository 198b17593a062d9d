// X bitmaps: both declaration forms and the quirks of value scanning in the
// reader, and the writer's exact text and line layout.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace {

bytes text(const std::string &s) { return bytes(s.begin(), s.end()); }
std::string as_text(const bytes &b) { return std::string(b.begin(), b.end()); }

std::string xbm(int w, int h, const char *decl, const char *values, const char *extra = "") {
    return "#define a_width " + std::to_string(w) + "\n#define a_height " + std::to_string(h) + "\n" + extra +
           decl + " a_bits[] = {\n" + values + "};\n";
}

}  // namespace

TEST(XbmRead, Forms) {
    struct {
        const char *what;
        std::string file;
        int code;
        std::vector<bytes> rows;  // top-down, padding bits masked
    } cases[] = {
        {"byte 0x01: leftmost black", xbm(8, 1, "static char", "0x01"), 0, {{0x7F, 0, 0, 0}}},
        {"words, 9 wide: one value a row", xbm(9, 2, "static short", " 0x0102, 0x0304 "), 0,
         {{0xBF, 0, 0, 0}, {0xDF, 0, 0, 0}}},
        {"words, 17 wide: two values a row", xbm(17, 1, "static short", "0x0001,0x0080"), 0, {{0x7F, 0xFF, 0x80, 0}}},
        {"unsigned char", xbm(8, 1, "static unsigned char", "0xfe"), 0, {{0x80, 0, 0, 0}}},
        {"hot spot lines, CRLF, upper case", "#define a_width 8\r\n#define a_height 2\r\n#define a_x_hot 1\r\n"
         "static char a_bits[] = {\r\n0XFF,\r\n  0X0F };\r\n", 0, {{0x00, 0, 0, 0}, {0x0F, 0, 0, 0}}},
        {"one-digit value misread", xbm(8, 1, "static char", "0x1"), 0, {{0x07, 0, 0, 0}}},
        {"no static line", xbm(8, 1, "char", "0x01"), IMG_ERR_HEADER, {}},
        {"neither short nor char", xbm(8, 1, "static long", "0x01"), IMG_ERR_HEADER, {}},
        {"values run out", xbm(8, 3, "static char", "0x01, 0x02"), IMG_ERR_HEADER, {}},
        {"zero width", xbm(0, 1, "static char", "0x01"), IMG_ERR_HEADER, {}},
        {"no height number", "#define a_width 8\n#define a_height\nstatic char a_bits[] = {\n0x01};\n",
         IMG_ERR_HEADER, {}},
        {"number past 80 characters", "#define a_width " + std::string(70, ' ') + "8\n#define a_height 1\n"
         "static char a_bits[] = {\n0x01};\n", IMG_ERR_HEADER, {}},
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(text(c.file), &code);
        EXPECT_EQ(code < 0 ? code : 0, c.code) << c.what;
        if (c.code) continue;
        ASSERT_EQ(p.bits, 1) << c.what;
        EXPECT_EQ(p.palette, bytes({0, 0, 0, 0, 255, 255, 255, 0})) << c.what;
        EXPECT_EQ(p.rows, c.rows) << c.what;
    }
}

TEST(XbmWrite, TextAndLayout) {
    picture p = make_picture(16, 1, 1, 3);
    p.rows[0] = {0x80, 0x01, 0, 0};
    EXPECT_EQ(as_text(save_pic(p, IMG_TYPE_XBM)), "#define untitled_width 16\n#define untitled_height 1\n"
                                                  "static char untitled_bits[] = {\n    0xfe, 0x7f};\n");
    // 13 values: a full line of 12 ending in a comma, then one with the end.
    p = make_picture(104, 1, 1, 3);
    std::string s = as_text(save_pic(p, IMG_TYPE_XBM));
    auto body = s.substr(s.find("{\n") + 2);
    ASSERT_EQ(body.size(), 4 + 12 * 6 + 4 + 4 + 3u);
    EXPECT_EQ(body.substr(0, 4), "    ");
    EXPECT_EQ(body.substr(4 + 12 * 6 - 2, 2), ",\n");
    EXPECT_EQ(body.substr(body.size() - 3), "};\n");
    for (int bits : {4, 8, 24}) {
        int code = 0;
        EXPECT_TRUE(save_pic(make_picture(5, 5, bits, 1), IMG_TYPE_XBM, &code).empty());
        EXPECT_EQ(code, IMG_ERR_DEPTH) << bits;
    }
}

TEST(XbmWrite, LightFirstPaletteKeepsItsLook) {
    picture p = make_picture(19, 5, 1, 9);
    p.palette = {255, 255, 255, 0, 0, 0, 0, 0};
    picture back = load_pic(save_pic(p, IMG_TYPE_XBM));
    EXPECT_EQ(appearance(back), appearance(p));
}
