// X pixmaps: the writer's exact text and its keys at each depth.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>

TEST(XpmWrite, TextAndKeys) {
    picture p = make_picture(3, 2, 4, 5);
    p.rows = {{0x01, 0xF0, 0, 0}, {0x23, 0x40, 0, 0}};
    for (int i = 0; i < 16; i++) p.palette[4 * i] = 0, p.palette[4 * i + 1] = uint8_t(i * 16), p.palette[4 * i + 2] = 0xAB;
    bytes f = save_pic(p, IMG_TYPE_XPM);
    std::string want = "/* XPM */\nstatic char *untitled[] = {\n/* width height ncolors cpp [x_hot] [y_hot] */\n"
                       "\"3 2 16 1 -1 -1\",\n/* colors */\n";
    for (int i = 0; i < 16; i++) {
        char line[40];
        std::snprintf(line, sizeof line, "\"%c\tc #AB%02X00\",\n", '^' + i, i * 16);
        want += line;
    }
    want += "/* pixels */\n\"^_m\",\n\"`ab\"};\n";
    EXPECT_EQ(std::string(f.begin(), f.end()), want);

    struct {
        int bits;
        const char *first_colour, *last_colour;
        size_t pixel_line;  // length of a pixel row's line, 5 pixels wide
    } depths[] = {{1, "\"^\tc #", "\"_\tc #", 5 + 4}, {8, "\"^^\tc #", "\"e}\tc #", 10 + 4}};
    for (auto &d : depths) {
        std::string s;
        for (uint8_t c : save_pic(make_picture(5, 3, d.bits, 2), IMG_TYPE_XPM)) s += char(c);
        auto colours = s.substr(s.find("/* colors */\n") + 13);
        EXPECT_EQ(colours.find(d.first_colour), 0u) << d.bits;
        auto pixels = colours.substr(colours.find("/* pixels */\n"));
        auto last = colours.substr(0, colours.size() - pixels.size());
        last = last.substr(last.rfind("\n", last.size() - 2) + 1);
        EXPECT_EQ(last.find(d.last_colour), 0u) << d.bits;
        EXPECT_EQ(pixels.find('\n', 13) - 13 + 1, d.pixel_line) << d.bits;
    }
    int code = 0;
    EXPECT_TRUE(save_pic(make_picture(5, 5, 24, 1), IMG_TYPE_XPM, &code).empty());
    EXPECT_EQ(code, IMG_ERR_DEPTH);
}
