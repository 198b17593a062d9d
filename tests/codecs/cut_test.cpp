// CUT: coded lines from recipes (runs, literals, empty items, short lines
// that keep the previous row's tail), overlong lines, truncation, faults.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

bytes cut(int width, int height, const std::vector<bytes> &lines) {
    bytes f(6, 0);
    put16(&f[0], width), put16(&f[2], height);
    for (const bytes &l : lines) {
        f.insert(f.end(), {static_cast<uint8_t>(l.size()), static_cast<uint8_t>(l.size() >> 8)});
        f.insert(f.end(), l.begin(), l.end());
    }
    return f;
}

int read(const bytes &f, sink &s) { return run_reader_on(f, s, cut_decompress); }

}  // namespace

TEST(Cut, LinesGiveTheirRowsThroughTheGreyPalette) {
    // Row 0: a run of 3, an empty run, a literal of 2, an empty literal.
    // Row 1 writes only two bytes: the rest stays as row 0 left it.
    sink s;
    ASSERT_EQ(read(cut(5, 2, {{0x83, 9, 0x80, 7, 2, 4, 5, 0}, {0x82, 1, 0}}), s), 0);
    EXPECT_EQ(s.info.biBitCount, 8);
    EXPECT_EQ(s.rows[0], (bytes{9, 9, 9, 4, 5, 0, 0, 0}));
    EXPECT_EQ(bytes(s.rows[1].begin(), s.rows[1].begin() + 5), (bytes{1, 1, 9, 4, 5}));
    for (int i : {0, 77, 255}) EXPECT_EQ(bytes(&s.palette[4 * i], &s.palette[4 * i + 3]), bytes(3, uint8_t(i)));
}

TEST(Cut, RefusalsTruncationFaultsAndRowCodes) {
    struct {
        const char *what;
        bytes file;
        int code;
    } cases[] = {
        {"header of 5 bytes", {7, 0, 1, 0, 0}, IMG_ERR_DATA},
        {"no lines", cut(7, 1, {}), IMG_ERR_DATA},
        {"zero width", cut(0, 1, {{0}}), IMG_ERR_HEADER},
        {"run past twice the row", cut(3, 1, {{0x85, 1, 0x84, 2}}), IMG_ERR_HEADER},  // 4-byte rows: 9 > 8
        {"literal past twice the row", cut(3, 1, {{9, 1, 2, 3, 4, 5, 6, 7, 8, 9}}), IMG_ERR_HEADER},
        {"line cut short", cut(3, 2, {{0x83, 1, 0}, {0x83}}), IMG_ERR_DATA},
    };
    for (auto &c : cases) {
        sink s;
        EXPECT_EQ(read(c.file, s), c.code) << c.what;
    }
    std::vector<bytes> lines;
    for (int r = 0; r < 20; r++) lines.push_back({0x90, static_cast<uint8_t>(r), 4, 1, 2, 3, 4, 0x90, 7, 0});
    const bytes f = cut(36, 20, lines);
    for (size_t n = 1; n < f.size(); n += 3) {
        sink s;
        EXPECT_EQ(read(bytes(f.begin(), f.begin() + n), s), IMG_ERR_DATA) << "cut at " << n;
    }
    check_load_faults(f, TRICKLES);
    sink s;
    s.fail_at_row = 4, s.fail_code = -31;
    EXPECT_EQ(read(f, s), -31);
    EXPECT_TRUE(s.rows[5].empty());
}
