// X bitmaps and pixmaps: the reader's declaration forms and value-scanning
// quirks, and both writers' exact text (plain files from other tools are
// read in interop/fixtures_test.py).
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

std::string xbm(int w, int h, const char *decl, const char *values, const char *extra = "") {
    return "#define a_width " + std::to_string(w) + "\n#define a_height " + std::to_string(h) + "\n" + extra +
           decl + " a_bits[] = {\n" + values + "};\n";
}

}  // namespace

TEST(XbmRead, FormsAndRefusals) {
    struct {
        std::string file;
        int code;
        std::vector<bytes> rows;  // top-down, padding bits masked
    } cases[] = {
        {xbm(9, 2, "static short", " 0x0102, 0x0304 "), 0, {{0xBF, 0, 0, 0}, {0xDF, 0, 0, 0}}},
        {xbm(17, 1, "static short", "0x0001,0x0080"), 0, {{0x7F, 0xFF, 0x80, 0}}},
        {xbm(8, 2, "static unsigned char", "0XFE,\r\n  0x0F ", "#define a_x_hot 1\r\n"), 0,
         {{0x80, 0, 0, 0}, {0x0F, 0, 0, 0}}},
        {xbm(8, 1, "static char", "0x1"), 0, {{0x07, 0, 0, 0}}},  // digits by position: misread
        {xbm(8, 1, "char", "0x01"), IMG_ERR_HEADER, {}},
        {xbm(8, 1, "static long", "0x01"), IMG_ERR_HEADER, {}},
        {xbm(8, 3, "static char", "0x01, 0x02"), IMG_ERR_HEADER, {}},
        {"#define a_width " + std::string(70, ' ') + xbm(8, 1, "static char", "0x01").substr(16), IMG_ERR_HEADER, {}},
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(bytes(c.file.begin(), c.file.end()), &code);
        EXPECT_EQ(code < 0 ? code : 0, c.code) << c.file;
        EXPECT_EQ(p.rows, c.rows) << c.file;
    }
}

TEST(XWrite, ExactText) {
    picture wide = make_picture(104, 1, 1, 3), four = make_picture(3, 1, 4, 5), ends = make_picture(16, 1, 1, 3);
    std::fill(wide.rows[0].begin(), wide.rows[0].end(), 0xFF);
    four.rows[0] = {0x01, 0xF0, 0, 0};
    std::fill_n(four.palette.begin(), 64, 0);
    ends.rows[0] = {0x80, 0x01, 0, 0};
    for (auto [type, p, file] : {std::tuple{IMG_TYPE_XBM, ends, "xbm_16x1.xbm"}, {IMG_TYPE_XBM, wide, "xbm_104x1.xbm"},
                                 {IMG_TYPE_XPM, four, "xpm_3x1.xpm"}})
        EXPECT_EQ(save_pic(p, type), read_file(data_path(std::string("text_out/") + file))) << file;
}
