// X pixmap reader: colour forms and names, key lengths, depths by colour
// count, the transparent entry, refusals; and the writer's files read back.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string xpm(const std::string &values, const std::vector<std::string> &lines) {
    std::string s = "/* XPM */\nstatic char *a[] = {\n/* values */\n\"" + values + "\",\n";
    for (auto &l : lines) s += "\"" + l + "\",\n";
    return s + "};\n";
}

bytes rgb(std::initializer_list<int> v) { return bytes(v.begin(), v.end()); }

}  // namespace

TEST(XpmRead, ColoursKeysAndDepths) {
    std::string many = "1 1 300 2";
    std::vector<std::string> many_lines;
    for (int i = 0; i < 300; i++) {
        char line[32];
        std::snprintf(line, sizeof line, "%c%c c #%02X%02X%02X", 'A' + i / 26, 'a' + i % 26, i & 255, i >> 8, 7);
        many_lines.push_back(line);
    }
    many_lines.push_back("Lc");  // entry 11 * 26 + 2 = 288
    struct {
        std::string file;
        int bits;
        bytes look;  // red, green, blue by pixel, top row first
    } cases[] = {
        {xpm("3 1 2 1", {"a c #FFF", "b c #000000", "aba"}), 1, rgb({255, 255, 255, 0, 0, 0, 255, 255, 255})},
        // 16-bit channels keep their top byte; names fold case, spaces and grey
        {xpm("4 1 4 1 0 0", {". c #FFFF80000123", "x s sym c Light Goldenrod", "o c GREY50", "- c red3", ".xo-"}), 4,
         rgb({255, 128, 1, 238, 221, 130, 127, 127, 127, 205, 0, 0})},
        // the colour visual wins over grey and mono, grey over mono
        {xpm("2 1 2 1", {"a m black g #808080 c blue", "b m white g4 black g gray10", "ab"}), 1,
         rgb({0, 0, 255, 26, 26, 26})},
        // three-character keys, one holding a space; # with 9 digits; a name outside the table is black
        {xpm("2 2 3 3", {"a b c #102030405", "zzz c no such colour", "+++ c white", "a bzzz", "+++a b"}), 4,
         rgb({16, 3, 64, 0, 0, 0, 255, 255, 255, 16, 3, 64})},
        {xpm(many, many_lines), 24, rgb({288 & 255, 1, 7})},
    };
    for (auto &c : cases) {
        int code = 0;
        picture p = load_pic(bytes(c.file.begin(), c.file.end()), &code);
        ASSERT_EQ(code, 0) << c.file.substr(0, 200);
        EXPECT_EQ(p.bits, c.bits) << c.file.substr(0, 200);
        EXPECT_EQ(appearance(p), c.look) << c.file.substr(0, 200);
    }
}

TEST(XpmRead, NoneIsTheTransparentIndex) {
    struct {
        std::string file;
        int transparent;
        bytes look;
    } cases[] = {
        // moved off index 0, which reads as none; shown white
        {xpm("3 1 3 1", {"  c None", ". c #FF0000", "x c #00FF00", " .x"}), 2, rgb({255, 255, 255, 255, 0, 0, 0, 255, 0})},
        {xpm("2 1 2 1", {". c #FF0000", "x c none", ".x"}), 1, rgb({255, 0, 0, 255, 255, 255})},
        {xpm("2 1 2 1", {". c #FF0000", "x c #00FF00", ".x"}), IMG_ERR_NO_TRANSPARENT, rgb({255, 0, 0, 0, 255, 0})},
    };
    for (auto &c : cases) {
        int h = load_bytes(bytes(c.file.begin(), c.file.end()));
        ASSERT_GE(h, 0) << c.file;
        EXPECT_EQ(IMGLOW_get_transp_color(h), c.transparent) << c.file;
        EXPECT_EQ(appearance(picture_of(h)), c.look) << c.file;
        IMG_delete_bitmap(h);
    }
}

TEST(XpmRead, Refusals) {
    struct {
        std::string file;
        int code;
    } cases[] = {
        {xpm("2 1 1", {"a c red", "aa"}), IMG_ERR_HEADER},                        // three values
        {xpm("2 1 1 0", {"a c red", "aa"}), IMG_ERR_HEADER},                      // no key characters
        {xpm("2 1 1 9", {"a c red", "aa"}), IMG_ERR_HEADER},                      // keys past the limit
        {xpm("2 1 300 1", {"a c red", "aa"}), IMG_ERR_HEADER},                    // more colours than keys
        {xpm("2 1 9999999 2", {"a c red", "aa"}), IMG_ERR_HEADER},                // more than the file holds
        {xpm("2 1 1 1", {"a c #12345", "aa"}), IMG_ERR_HEADER},                   // digits not in threes
        {xpm("2 1 1 1", {"a q red", "aa"}), IMG_ERR_HEADER},                      // no visual
        {xpm("2 1 1 1", {"a c red", "ab"}), IMG_ERR_HEADER},                      // a key with no colour
        {xpm("2 1 1 1", {"a c red", "a"}), IMG_ERR_HEADER},                       // a short row
        {xpm("2 2 1 1", {"a c red", "aa"}), IMG_ERR_DATA},                        // a row missing
        {"/* XPM */\nstatic char *a[] = {\n\"2 1 1 1\",\n\"a c red\",\n\"a", IMG_ERR_DATA},  // cut inside a row
    };
    for (auto &c : cases) {
        int code = 0;
        load_pic(bytes(c.file.begin(), c.file.end()), &code);
        EXPECT_EQ(code, c.code) << c.file;
    }
}

TEST(XpmRead, WritersOwnFiles) {
    for (int bits : {1, 4, 8}) {
        picture p = make_picture(23, 5, bits, 40 + bits);
        int code = 0;
        picture back = load_pic(save_pic(p, IMG_TYPE_XPM), &code);
        ASSERT_EQ(code, 0) << bits;
        EXPECT_EQ(back, p) << bits;
    }
}
