// The Sun raster, X window dump, MacPaint, MSP and CUT readers on files
// built here: the behaviours kept on purpose, the variants no tool writes,
// hostile headers, faults.  The interop scripts check tool-made files.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <array>

using namespace jpeg_testing;

namespace {

bytes be32s(std::initializer_list<uint32_t> words, const bytes &tail = {}) {
    bytes f;
    for (uint32_t v : words)
        for (int s = 24; s >= 0; s -= 8) f.push_back(static_cast<uint8_t>(v >> s));
    f.insert(f.end(), tail.begin(), tail.end());
    return f;
}
// w x h, depth, type, map type, map and data.
bytes sun(uint32_t w, uint32_t h, uint32_t depth, uint32_t type, uint32_t map_type, const bytes &map, const bytes &data) {
    bytes f = be32s({0x59A66A95u, w, h, depth, 0, type, map_type, uint32_t(map.size())}, map);
    f.insert(f.end(), data.begin(), data.end());
    return f;
}
// Z pixmap of depth in bpp-bit pixels, most significant first, no name.
bytes xwd(uint32_t version, uint32_t format, uint32_t depth, uint32_t w, uint32_t bpp, uint32_t bpl, const bytes &data,
          uint32_t order = 1, std::array<uint32_t, 3> rgb = {0xFF0000, 0xFF00, 0xFF}) {
    return be32s({100, version, format, depth, w, 2, 0, order, 32, order, 32, bpp, bpl, 4, rgb[0], rgb[1], rgb[2], 8,
                  0, 0, w, 2, 0, 0, 0}, data);
}
bytes with_head(bytes head, const bytes &data) {
    head.insert(head.end(), data.begin(), data.end());
    return head;
}
bytes macpaint(const bytes &head, bytes rows) {
    for (int r = 0; r < 718; r++) rows.insert(rows.end(), {0xB9, 0x00});  // white rows
    return with_head(head, rows);
}
bytes msp(const char *key, int w, int h, const bytes &data) {
    bytes f(32 + (key[0] == 'L' ? 2 * h : 0), 0);
    std::memcpy(f.data(), key, 4);
    put16(&f[4], w), put16(&f[6], h);
    return with_head(f, data);
}
bytes cut(int w, int h, const bytes &lines) { return with_head({uint8_t(w), uint8_t(w >> 8), uint8_t(h), 0, 0, 0}, lines); }

}  // namespace

TEST(PlainReaders, KeptBehavioursAndHostileFiles) {
    struct {
        const char *what;
        reader_fn reader;
        bytes file;
        int code;
        bytes row0{}, row1{}, palette{};  // the first bytes each must hold
    } cases[] = {
        {"sun: 0x80 n v is n + 1 bytes, 0x80 0 one 0x80; runs cross rows", sunras_read_file,
         sun(4, 2, 8, 2, 0, {}, {0x80, 0x04, 0x33, 0x80, 0x00, 0x80, 0x01, 7, 9}), 0, {0x33, 0x33, 0x33, 0x33},
         {0x33, 0x80, 7, 7}, {0, 0, 0, 0, 1, 1, 1}},
        {"sun: a raw map lands scattered", sunras_read_file, sun(1, 2, 8, 1, 2, {1, 2, 3, 4, 5, 6}, {0, 0, 0, 0}), 0,
         {0}, {0}, {0, 0, 1, 0, 0, 2, 0, 0, 3}},
        {"sun: a map past the end", sunras_read_file, be32s({0x59A66A95u, 1, 1, 8, 0, 1, 1, 0x7FFFFFF0}), IMG_ERR_DATA},
        {"xwd: 1 bit, least significant bit first", xwd_read_file, xwd(7, 2, 1, 9, 1, 4, {0x01, 0x01, 0, 0, 0x48, 0, 0, 0}, 0),
         0, {0x80, 0x80}, {0x12, 0}},
        {"xwd: 5-6-5 masks stretch to eight bits", xwd_read_file,
         xwd(7, 2, 24, 1, 32, 4, {0, 0, 0xF8, 0x1F, 0, 0, 0x07, 0xE0}, 1, {0xF800, 0x7E0, 0x1F}), 0, {255, 0, 255}, {0, 255, 0}},
        {"xwd: version 6", xwd_read_file, xwd(6, 2, 8, 1, 8, 4, bytes(8)), IMG_ERR_HEADER},
        {"xwd: line longer than any padding", xwd_read_file, xwd(7, 2, 8, 1, 8, 100000, bytes(8)), IMG_ERR_HEADER},
        {"mac: overlong runs are dropped; 0xB9 0 is white", macpaint_read_file,
         macpaint(bytes(512), {0x80, 0xFF, 0xBD, 0x0F, 0x03, 1, 2, 3, 4}), 0, bytes(72, 0),
         with_head(bytes(68, 0xF0), {0xFE, 0xFD, 0xFC, 0xFB}), {0, 0, 0, 0, 255, 255, 255}},
        {"msp: 0, 0 ends a row early, which keeps the bytes before", msp_decompress,
         msp("LinS", 24, 2, {3, 1, 2, 3, 1, 9, 0, 0}), 0, {1, 2, 3}, {9, 2, 3}},
        {"msp: a run past the row is delivered once", msp_decompress, msp("LinS", 8, 2, {0, 255, 0x33, 1, 0x44}), 0,
         {0x33}, {0x44}},
        {"cut: empty items; a short line keeps the old tail; grey", cut_decompress,
         cut(5, 2, {8, 0, 0x83, 9, 0x80, 7, 2, 4, 5, 0, 3, 0, 0, 0x82, 1}), 0, {9, 9, 9, 4, 5}, {1, 1, 9, 4, 5},
         {0, 0, 0, 0, 1, 1, 1, 0, 2, 2, 2}},
        {"cut: a line past twice the row", cut_decompress, cut(3, 1, {4, 0, 0x85, 1, 0x84, 2}), IMG_ERR_HEADER},
    };
    for (auto &c : cases) {
        sink s;
        ASSERT_EQ(run_reader_on(c.file, s, c.reader), c.code) << c.what;
        if (c.code) continue;
        for (auto [got, want] : {std::pair{&s.rows[0], &c.row0}, {&s.rows[1], &c.row1}, {&s.palette, &c.palette}})
            EXPECT_EQ(bytes(got->begin(), got->begin() + std::min(got->size(), want->size())), *want) << c.what;
    }
}

TEST(PlainReaders, AllocationAndReadFaults) {
    bytes sun_rows, msp_rows, cut_rows;
    for (int r = 0; r < 30; r++) sun_rows.insert(sun_rows.end(), {0x80, 38, uint8_t(r), 0x80, 0});
    for (int r = 0; r < 30; r++) msp_rows.insert(msp_rows.end(), {0, 5, uint8_t(r), 2, 1, 2});
    for (int r = 0; r < 30; r++) cut_rows.insert(cut_rows.end(), {7, 0, 0x90, uint8_t(r), 2, 1, 2, 0x90, 0});
    struct {
        bytes file;
        int how;  // detection of a dump looks at byte 7, past a seven-byte read
    } cases[] = {
        {sun(40, 30, 8, 2, 1, bytes(768, 9), sun_rows), TRICKLES},
        {xwd(7, 2, 24, 30, 32, 120, bytes(240, 5)), 0},
        {macpaint(bytes(512), {0xB9, 0x55, 0xB9, 0xAA}), TRICKLES},
        {msp("LinS", 40, 30, msp_rows), TRICKLES},
        {cut(36, 30, cut_rows), TRICKLES},
    };
    for (auto &c : cases) check_load_faults(c.file, c.how);
}
