// MSP: version 1 rows and version 2 coded rows from recipes, the kept row
// buffer behind an early row end, runs past a row's end, truncation, faults.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

bytes msp(const char *key, int width, int height, const bytes &body) {
    bytes f(32, 0);
    std::memcpy(f.data(), key, 4);
    put16(&f[4], width), put16(&f[6], height);
    if (key[0] == 'L') f.resize(f.size() + 2 * height, 0xEE);  // the row map, skipped
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

int read(const bytes &f, sink &s) { return run_reader_on(f, s, msp_decompress); }

}  // namespace

TEST(Msp, VersionsAndCodedRowQuirks) {
    struct {
        const char *what;
        bytes file;
        std::vector<bytes> rows;  // the first bytes each row must hold
    } cases[] = {
        {"version 1 rows as stored", msp("DanM", 12, 2, {1, 2, 3, 4}), {{1, 2, 0, 0}, {3, 4, 0, 0}}},
        {"literal, run", msp("LinS", 24, 2, {2, 0xAA, 0xBB, 0, 1, 0xCC, 0, 3, 0x11}), {{0xAA, 0xBB, 0xCC}, {0x11, 0x11, 0x11}}},
        // The 0, 0 pair ends row 1 after one byte: the rest is row 0's.
        {"early row end keeps the old bytes", msp("LinS", 24, 2, {3, 1, 2, 3, 1, 9, 0, 0}), {{1, 2, 3}, {9, 2, 3}}},
        // A run of 6 into a 3-byte row: delivered once, nothing carried.
        {"run past the row's end", msp("LinS", 24, 2, {0, 6, 0x77, 3, 4, 5, 6}), {{0x77, 0x77, 0x77, 0x77}, {4, 5, 6, 0x77}}},
        {"run of 255 into a 1-byte row", msp("LinS", 8, 2, {0, 255, 0x33, 1, 0x44}), {{0x33, 0x33, 0x33, 0x33}, {0x44}}},
    };
    for (auto &c : cases) {
        sink s;
        ASSERT_EQ(read(c.file, s), 0) << c.what;
        EXPECT_EQ(bytes(s.palette.begin(), s.palette.begin() + 8), (bytes{0, 0, 0, 0, 255, 255, 255, 0}));
        for (size_t r = 0; r < c.rows.size(); r++)
            EXPECT_EQ(bytes(s.rows[r].begin(), s.rows[r].begin() + c.rows[r].size()), c.rows[r]) << c.what << " row " << r;
    }
}

TEST(Msp, RefusalsTruncationFaultsAndRowCodes) {
    sink z;
    EXPECT_EQ(read(msp("LinS", 0, 2, {}), z), IMG_ERR_HEADER);
    EXPECT_EQ(z.begin_calls, 0);
    bytes body;
    for (int r = 0; r < 30; r++) body.insert(body.end(), {0, 5, static_cast<uint8_t>(r), 2, 1, 2});
    const bytes f = msp("LinS", 50, 30, body), v1 = msp("DanM", 50, 30, bytes(7 * 30, 0x5A));
    for (const bytes *file : {&f, &v1})
        for (size_t n = 1; n < file->size(); n += 5) {
            sink s;
            EXPECT_EQ(read(bytes(file->begin(), file->begin() + n), s), IMG_ERR_DATA) << "cut at " << n;
        }
    check_load_faults(f, TRICKLES);
    check_load_faults(v1, TRICKLES);
    sink s;
    s.fail_at_row = 2, s.fail_code = -31;
    EXPECT_EQ(read(f, s), -31);
    EXPECT_TRUE(s.rows[3].empty());
}
