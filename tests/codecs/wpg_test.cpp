// WordPerfect graphics: record heads of every size, each control byte of
// the bitmap packing, which bitmap and colour map count, and hostile files.
// (Pictures as another reader sees them: tests/interop/wpg_test.py.)
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

bytes record(uint8_t type, const bytes &data, int head = 0) {
    const size_t n = data.size();
    bytes r = {type};
    if (!head) head = n < 255 ? 2 : n < 0x8000 ? 4 : 6;
    if (head == 2) r.push_back(static_cast<uint8_t>(n));
    if (head == 4) r.insert(r.end(), {255, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)});
    if (head == 6)
        r.insert(r.end(), {255, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(0x80 | n >> 24),
                           static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)});
    r.insert(r.end(), data.begin(), data.end());
    return r;
}

bytes words(std::initializer_list<int> w) {
    bytes b;
    for (int v : w) b.insert(b.end(), {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)});
    return b;
}

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

const bytes HEAD = {0xFF, 'W', 'P', 'C', 16, 0, 0, 0, 1, 0x16, 1, 0, 0, 0, 0, 0};
const bytes START = record(15, {1, 0, 10, 0, 10, 0});
const bytes END = record(16, {});

bytes bitmap(int w, int h, int depth, const bytes &packed) { return record(11, cat({words({w, h, depth, 75, 75}), packed})); }
bytes grey_map(int n, int first = 0) {
    bytes m = words({first, n});
    for (int i = 0; i < n; i++) m.insert(m.end(), {static_cast<uint8_t>(i), static_cast<uint8_t>(2 * i), static_cast<uint8_t>(3 * i)});
    return record(14, m);
}

// The stored rows' first n bytes.
std::vector<bytes> rows_of(const picture &p, size_t n) {
    std::vector<bytes> r;
    for (const bytes &row : p.rows) r.emplace_back(row.begin(), row.begin() + static_cast<long>(n));
    return r;
}

}  // namespace

TEST(Wpg, ControlBytesAndRecordHeads) {
    // Row 0 by a literal block, row 1 by 0x80 0x05 (five 0xFF), repeated
    // three times by 0x00 0x03, then a run that crosses into the last row.
    const bytes packed = {5, 1, 2, 3, 4, 5, 0x80, 5, 0, 3, 0x80 | 7, 9, 3, 6, 6, 6};
    for (int head : {2, 4, 6}) {
        bytes f = cat({HEAD, START, record(2, bytes(head == 6 ? 65538 : head == 4 ? 300 : 100, 0x77), head), grey_map(256, 40),
                       bitmap(5, 6, 8, packed), END});
        int code = 0;
        picture p = load_pic(f, &code);
        ASSERT_EQ(code, 0) << "head " << head;
        ASSERT_EQ(p.height, 6);
        EXPECT_EQ(rows_of(p, 5), (std::vector<bytes>{{1, 2, 3, 4, 5}, bytes(5, 0xFF), bytes(5, 0xFF), bytes(5, 0xFF),
                                                     bytes(5, 0xFF), {9, 9, 9, 9, 9}}));
        EXPECT_EQ(bytes(p.palette.begin() + 4 * 10, p.palette.begin() + 4 * 11), (bytes{30, 20, 10, 0}))
            << "entry i is the map's i-th, blue first, whatever the start index";
    }
    // The 65538 of a long head: 0xFF, then 0x8001 and 0x0002.
    const bytes long_record = record(2, bytes(65538, 0));
    EXPECT_EQ(bytes(long_record.begin() + 1, long_record.begin() + 6), (bytes{0xFF, 0x01, 0x80, 0x02, 0x00}));
}

TEST(Wpg, WhichBitmapAndTable) {
    const bytes first = bitmap(8, 1, 8, {0x88, 1}), last = bitmap(16, 2, 1, {0x84, 0xF0});
    picture p = load_pic(cat({HEAD, START, first, last, END}));
    EXPECT_EQ(std::tie(p.width, p.height, p.bits), std::make_tuple(16, 2, 1)) << "the last bitmap counts";
    EXPECT_EQ(p.palette, (bytes{0, 0, 0, 0, 255, 255, 255, 0})) << "a bilevel picture without a map";
    EXPECT_EQ(rows_of(p, 2), (std::vector<bytes>{{0xF0, 0xF0}, {0xF0, 0xF0}}));
    // 24-bit rows come as packed, not reordered.
    picture c = load_pic(cat({HEAD, START, bitmap(2, 1, 24, {6, 1, 2, 3, 4, 5, 6}), END}));
    EXPECT_EQ(rows_of(c, 6), (std::vector<bytes>{{1, 2, 3, 4, 5, 6}}));
    // The second bitmap kind's size sits after ten bytes of placement.
    picture k = load_pic(cat({HEAD, START, record(20, cat({words({0, 0, 0, 3, 1, 3, 1, 8, 0, 0}), bytes{3, 7, 8, 9}})), END}));
    EXPECT_EQ(rows_of(k, 3), (std::vector<bytes>{{7, 8, 9}}));
}

TEST(Wpg, HostileFilesEndWithCleanCodes) {
    const bytes good_bitmap = bitmap(4, 2, 8, {0x88, 1});
    struct {
        const char *what;
        bytes file;
        int want;
    } cases[] = {
        {"vectors only", cat({HEAD, START, record(2, bytes(8, 1)), END}), IMG_ERR_EPS_PREVIEW},
        {"no end record", cat({HEAD, START, good_bitmap}), IMG_ERR_HEADER},
        {"depth 2", cat({HEAD, START, bitmap(4, 2, 2, {0x82, 1}), END}), IMG_ERR_HEADER},
        {"zero width", cat({HEAD, START, bitmap(0, 2, 8, {0x82, 1}), END}), IMG_ERR_HEADER},
        {"packing cut short", cat({HEAD, START, bitmap(4, 2, 8, {0x84, 1, 3, 1}), END}), IMG_ERR_DATA},
        {"record longer than the file", cat({HEAD, START, record(2, bytes(4, 0)), END, bytes{0}}), IMG_ERR_HEADER},
        {"bitmap head cut", cat({HEAD, START, record(11, words({4, 2}))}), IMG_ERR_HEADER},
        {"header only", bytes(HEAD.begin(), HEAD.begin() + 10), IMG_ERR_OPEN},
    };
    cases[5].file[HEAD.size() + START.size() + 1] = 200;
    for (auto &c : cases) {
        int code = 0;
        load_pic(c.file, &code);
        EXPECT_EQ(code, c.want) << c.what;
    }
}

TEST(Wpg, Faults) {
    bytes packed;
    for (int y = 0; y < 40; y++) packed.insert(packed.end(), {0x80 | 20, static_cast<uint8_t>(y), 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    check_load_faults(cat({HEAD, START, grey_map(256), bitmap(30, 40, 8, packed), END}), TRICKLES);
}
