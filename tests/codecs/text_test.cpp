// Text import: the layout record and arithmetic, pagination at the page
// boundary, the rendered page's geometry and decoding, and faults.
#include "test_util.h"
#include "text/text.h"

#include <gtest/gtest.h>

#include <string>

// Fontconfig keeps part of its parsed configuration unreachable for the
// life of the process: not the library's leak.
#ifndef _WIN32
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
#endif

namespace {

struct Text : ::testing::Test {
    int was_on = 0;
    void SetUp() override {
        text_settings_reset();
        was_on = IMGLOW_set_auto_detect(IMG_TYPE_TEXT);
    }
    void TearDown() override {
        text_settings_reset();
        if (!was_on) IMGLOW_unset_auto_detect(IMG_TYPE_TEXT);
    }
};

bytes text_of(const std::string &s) { return bytes(s.begin(), s.end()); }

// A small page keeps the sweeps quick: 300 x 200 pixels at 100 dpi,
// 20-pixel margins, a 20-pixel font.
void use_small_page() {
    IMG_ascii_attributes a{};
    a.mask = IMG_ASCII_XRES | IMG_ASCII_YRES | IMG_ASCII_MARGINS | IMG_ASCII_PAGE_WIDTH | IMG_ASCII_PAGE_HEIGHT |
             IMG_ASCII_FONT_HEIGHT;
    a.x_dpi = a.y_dpi = 100;
    a.margins[0] = a.margins[1] = a.margins[2] = a.margins[3] = 200;
    a.page_width = 3000, a.page_height = 2000, a.font_height = 20;
    IMGLOW_set_ascii_attributes(&a);
}

// The current font's line height, or 0 when this build draws no text.
int32_t line_height() {
    const text_layout l = text_layout_of(text_settings);
    os_font *f = nullptr;
    if (os_font_open(text_font_request(text_settings, l), &f) < 0) return 0;
    const int32_t h = os_font_line_height(f, text_settings.tab);
    os_font_close(f);
    return h;
}

#define NEED_FONTS()                                         \
    if (line_height() <= 0) GTEST_SKIP() << "no font system in this build"

// Rows (from the top) holding ink, and the columns inked anywhere.
struct ink {
    std::vector<int> rows;
    int left = INT32_MAX, right = -1;
};
ink ink_of(const picture &p) {
    ink k;
    for (int y = 0; y < p.height; y++) {
        bool any = false;
        for (int x = 0; x < p.width; x++)
            if (!(p.rows[y][x >> 3] & (0x80 >> (x & 7)))) any = true, k.left = std::min(k.left, x), k.right = std::max(k.right, x);
        if (any) k.rows.push_back(y);
    }
    return k;
}
// Which text lines (bands of the line height from the top margin) hold ink.
std::vector<int> inked_lines(const picture &p) {
    const text_layout l = text_layout_of(text_settings);
    const int lh = line_height();
    std::vector<int> lines;
    for (int y : ink_of(p).rows) {
        int line = static_cast<int>((y - l.top) / lh);
        EXPECT_GE(y, l.top) << "ink above the top margin";
        if (lines.empty() || lines.back() != line) lines.push_back(line);
    }
    return lines;
}

TEST_F(Text, AttributeRecordAndLayout) {
    // The defaults: a letter page at 200 dpi and the font that fits 60 lines of 80.
    text_layout l = text_layout_of(text_settings);
    EXPECT_EQ(std::vector<int64_t>({l.page_width, l.page_height, l.left, l.top, l.right, l.bottom, l.font_height, l.font_width}),
              std::vector<int64_t>({1700, 2200, 200, 150, 200, 150, 31, 16}));
    // Setting only the face leaves every other field; a 40-character name is cut to 31.
    IMG_ascii_attributes a{};
    a.mask = IMG_ASCII_FACE;
    a.x_dpi = 999, a.font_height = 77;
    std::memset(a.face, 'x', sizeof a.face);
    IMGLOW_set_ascii_attributes(&a);
    IMG_ascii_attributes got{};
    got.mask = 0x0FFF;
    IMGLOW_get_ascii_attributes(&got);
    EXPECT_EQ(std::string(got.face), std::string(31, 'x'));
    EXPECT_EQ(+got.x_dpi, 200);
    EXPECT_EQ(+got.font_height, -1);
    EXPECT_EQ(+got.margins[3], 750);
    // Getting fills the selected fields only.
    IMG_ascii_attributes some{};
    some.mask = IMG_ASCII_PAGE_LINES | IMG_ASCII_TAB;
    IMGLOW_get_ascii_attributes(&some);
    EXPECT_EQ(+some.page_lines, 60);
    EXPECT_EQ(+some.tab, 4);
    EXPECT_EQ(+some.page_width, 0);
    EXPECT_EQ(+some.line_chars, 0);
    // A set font height gives width 0; zero counts give a zero size.
    a.mask = IMG_ASCII_FONT_HEIGHT | IMG_ASCII_LINE_CHARS;
    a.font_height = 24, a.line_chars = 0;
    IMGLOW_set_ascii_attributes(&a);
    l = text_layout_of(text_settings);
    EXPECT_EQ(l.font_height, 24);
    EXPECT_EQ(l.font_width, 0);
    a.font_height = -1;
    IMGLOW_set_ascii_attributes(&a);
    EXPECT_EQ(text_layout_of(text_settings).font_width, 0);
}

// Pages counted by line feeds: with the default page and a 32-pixel line a
// page takes 59 line feeds.
TEST_F(Text, PaginationAtThePageBoundary) {
    const text_layout l = text_layout_of(text_settings);
    EXPECT_EQ(lines_per_page(l, 32), 59);
    struct {
        int feeds;
        bool tail;  // text after the last line feed
        int pages;
    } cases[] = {{0, false, 0}, {0, true, 0}, {1, false, 1}, {58, true, 1}, {59, false, 1},
                 {59, true, 1}, {60, false, 2}, {118, false, 2}, {119, false, 3}};
    for (auto c : cases) {
        std::string s;
        for (int i = 0; i < c.feeds; i++) s += "line\n";
        if (c.tail) s += "tail";
        pagination p = pagination_start(l, 32);
        // Fed in pieces, as the file is read.
        for (size_t at = 0; at < s.size(); at += 7)
            ASSERT_EQ(pagination_feed(p, reinterpret_cast<const uint8_t *>(s.data()) + at,
                                      static_cast<int32_t>(std::min<size_t>(7, s.size() - at))), 0);
        EXPECT_EQ(pagination_end(p), c.pages) << c.feeds << " feeds";
    }
    pagination p = pagination_start(l, 32);
    EXPECT_EQ(pagination_feed(p, reinterpret_cast<const uint8_t *>("ab\0c"), 4), IMG_ERR_HEADER);
}

// The same boundary through the exports, with the real font: the last
// page that the count reports loads, the next does not.
TEST_F(Text, PagesOfFilesEndingOnTheBoundary) {
    NEED_FONTS();
    use_small_page();
    const int per_page = lines_per_page(text_layout_of(text_settings), line_height());
    ASSERT_GE(per_page, 2);
    for (int lines : {per_page - 1, per_page, per_page + 1, 2 * per_page}) {
        std::string s;
        for (int i = 0; i < lines; i++) s += "Row " + std::to_string(i) + "\n";
        block_ref b(text_of(s));
        const int pages = IMGLOW_get_pages_mem(b.data);
        EXPECT_EQ(pages, (lines + per_page - 1) / per_page) << lines << " lines";
        int code = 0;
        picture last = load_pic(text_of(s), &code, pages - 1);
        ASSERT_GE(code, 0) << lines;
        const int on_last = lines - (pages - 1) * per_page;
        EXPECT_EQ(inked_lines(last).size(), static_cast<size_t>(on_last)) << lines << " lines";
        EXPECT_EQ(load_code(text_of(s), pages), IMG_ERR_PAGE) << lines << " lines";
    }
}

// Layout of the page: lines in their bands, margins, wrapping, form feeds,
// carriage returns, control characters and the two encodings.
TEST_F(Text, RenderedPage) {
    NEED_FONTS();
    use_small_page();
    int code = 0;
    const picture three = load_pic(text_of("One\nTwo\n\nFour"), &code);
    ASSERT_GE(code, 0);
    EXPECT_EQ(three.width, 300);
    EXPECT_EQ(three.height, 200);
    EXPECT_EQ(three.bits, 1);
    EXPECT_EQ(bytes(three.palette.begin(), three.palette.begin() + 8), (bytes{0, 0, 0, 0, 255, 255, 255, 0}))
        << "black ink on white paper";
    EXPECT_EQ(inked_lines(three), (std::vector<int>{0, 1, 3}));
    EXPECT_GE(ink_of(three).left, 20);
    // A paragraph longer than the line wraps inside the margins.
    const picture wrapped = load_pic(text_of("aaaa bbbb cccc dddd eeee ffff gggg hhhh iiii jjjj"), &code);
    EXPECT_GT(inked_lines(wrapped).size(), 1u);
    EXPECT_LT(ink_of(wrapped).right, 280);
    // The same text in other spellings renders the same.
    struct {
        const char *a, *b;
        bool same;
    } pairs[] = {
        {"Caf\xE9 au lait \x80", "Caf\xC3\xA9 au lait \xE2\x82\xAC", true},  // Windows-1252 and UTF-8
        {"Text a\x01" "b\x1B" "c..", "Text abc..", true},     // control characters skipped
        {"line one\r\ntwo", "line one\ntwo", true},
        {"xxxxxxx\r_______", "_______\rxxxxxxx", true},      // overprinted either way round
        {"tabbed\t\there", "tabbed here", false},
        {"first page\fnext", "first page\nnext", false},
    };
    for (auto &p : pairs) {
        int code_b = 0;
        picture x = load_pic(text_of(p.a), &code), y = load_pic(text_of(p.b), &code_b);
        ASSERT_GE(std::min(code, code_b), 0) << p.a;
        EXPECT_EQ(x == y, p.same) << p.a;
    }
    // A form feed starts a new page; one at the top of a page adds none.
    EXPECT_EQ(inked_lines(load_pic(text_of("first\fsecond\n\f"), &code, 1)), (std::vector<int>{0}));
    EXPECT_EQ(load_code(text_of("first\fsecond\n\f"), 2), IMG_ERR_PAGE);
    // A zero byte anywhere is not text (bold and italic faces are held
    // against Pillow's in interop/text_test.py).
    EXPECT_EQ(load_code(text_of(std::string("Some text, then\n\0", 17))), IMG_ERR_HEADER);
}

TEST_F(Text, FaultsAndPageWidth) {
    NEED_FONTS();
    use_small_page();
    // Detection needs ten bytes from its first read: text is never found
    // through hooks that trickle, so the sweep reads in whole pieces.
    check_load_faults(text_of("Faults in\ttext:\nwrapped lines and pages, a long paragraph to wrap\f\nand a second page"),
                      0, 1);
    // The widest line, 20 characters, between 20-pixel margins at 100 dpi.
    const std::string name = temp_path("width.txt");
    write_file(name, text_of("short\n12345678901234567890\nmid"));
    const int advance = [] {
        os_font *f = nullptr;
        os_font_open(text_font_request(text_settings, text_layout_of(text_settings)), &f);
        int a = os_font_advance(f, '0');
        os_font_close(f);
        return a;
    }();
    EXPECT_EQ(IMGLOW_get_ascii_page_width(name.c_str()), ((20 * advance + 40) * 1000 + 99) / 100);
    EXPECT_EQ(IMGLOW_get_ascii_page_width("/nonexistent/file.txt"), IMG_ERR_OPEN);
    // Import needs no detection switched on.
    IMGLOW_unset_auto_detect(IMG_TYPE_TEXT);
    int h = IMG_import_ascii(name.c_str(), 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(inked_lines(picture_of(h)), (std::vector<int>{0, 1, 2}));
    IMG_delete_bitmap(h);
    EXPECT_EQ(IMGLOW_get_auto_detect(IMG_TYPE_TEXT), 0);
    EXPECT_EQ(IMG_import_ascii(name.c_str(), 1), IMG_ERR_PAGE);
}

}  // namespace
