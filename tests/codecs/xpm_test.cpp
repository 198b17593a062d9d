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

}  // namespace

TEST(XpmRead, ColoursKeysDepthsAndTransparency) {
    std::vector<std::string> many;  // 300 colours: 24 bits
    for (int i = 0; i < 300; i++)
        many.push_back(std::string{char('A' + i / 26), char('a' + i % 26)} + " c #" + "0123456789ABCDEF"[i % 16] + "07");
    many.push_back("Lc");  // entry 288: #0, 0, 7 as 00, 00, 77
    struct {
        std::string file;
        int bits, transparent;
        bytes look;  // red, green, blue by pixel, top row first
    } cases[] = {
        {xpm("3 1 2 1", {"a c #FFF", "b c #000000", "aba"}), 1, IMG_ERR_NO_TRANSPARENT,
         {255, 255, 255, 0, 0, 0, 255, 255, 255}},
        // 16-bit channels keep their top byte; names fold case, spaces and grey; the colour visual wins
        {xpm("4 1 4 1 0 0",
             {". c #FFFF80000123", "x s sym c Light Goldenrod", "o m black c GREY50", "- g4 white g Red3", ".xo-"}),
         4, IMG_ERR_NO_TRANSPARENT, {255, 128, 1, 238, 221, 130, 127, 127, 127, 205, 0, 0}},
        // three-character keys, one holding a space; nine digits; an unknown name is black; None moves off index 0
        {xpm("2 2 3 3", {"a b c #102030405", "zzz c None", "+++ c no such colour", "a bzzz", "+++a b"}), 4, 2,
         {16, 3, 64, 255, 255, 255, 0, 0, 0, 16, 3, 64}},
        {xpm("1 1 300 2", many), 24, IMG_ERR_NO_TRANSPARENT, {0, 0, 0x77}},
    };
    for (auto &c : cases) {
        int h = load_bytes(bytes(c.file.begin(), c.file.end()));
        ASSERT_GE(h, 0) << c.file.substr(0, 200);
        picture p = picture_of(h);
        EXPECT_EQ(p.bits, c.bits) << c.file.substr(0, 200);
        EXPECT_EQ(appearance(p), c.look) << c.file.substr(0, 200);
        EXPECT_EQ(IMGLOW_get_transp_color(h), c.transparent);
        IMG_delete_bitmap(h);
    }
}

TEST(XpmRead, Refusals) {
    struct {
        std::string file;
        int code;
    } cases[] = {
        {xpm("2 1 1 9", {"a c red", "aa"}), IMG_ERR_HEADER},        // keys past the limit
        {xpm("2 1 9999999 2", {"a c red", "aa"}), IMG_ERR_HEADER},  // more colours than the file holds
        {xpm("2 1 1 1", {"a c #12345", "aa"}), IMG_ERR_HEADER},     // digits not in threes
        {xpm("2 1 1 1", {"a c red", "ab"}), IMG_ERR_HEADER},        // a key with no colour
        {xpm("2 1 1 1", {"a c red", "a"}), IMG_ERR_HEADER},         // a short row
        {xpm("2 2 1 1", {"a c red", "aa"}), IMG_ERR_DATA},          // a row missing
    };
    for (auto &c : cases) {
        EXPECT_EQ(load_code(bytes(c.file.begin(), c.file.end())), c.code) << c.file;
    }
}
