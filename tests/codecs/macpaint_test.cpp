// MacPaint: packed rows after a 512-byte header or a MacBinary wrapper,
// runs that overshoot a row, the fixed header, truncation and faults.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

// Rows 0-2 as given, the rest packed white (0xB9 0x00: 72 zero bytes).
bytes packed_rows(const bytes &first) {
    bytes d = first;
    for (int r = 3; r < 720; r++) d.insert(d.end(), {0xB9, 0x00});
    return d;
}

bytes plain(const bytes &rows) {
    bytes f(512, 0);
    f.insert(f.end(), rows.begin(), rows.end());
    return f;
}

bytes wrapped(const bytes &rows) {
    bytes f(128, 0);
    std::memcpy(&f[65], "PNTGMPNT", 8);
    f.insert(f.end(), rows.begin(), rows.end());
    return f;
}

int read(const bytes &f, sink &s) { return run_reader_on(f, s, macpaint_read_file); }

}  // namespace

TEST(MacPaint, PlainAndWrappedFilesGiveTheirRows) {
    // Row 0: a literal of 72 bytes; row 1: a run of 129 0xFF (57 too many,
    // dropped); row 2: a run of 0x0F then a literal.
    bytes first{71};
    for (int i = 0; i < 72; i++) first.push_back(static_cast<uint8_t>(i));
    first.insert(first.end(), {0x80, 0xFF, 0xBD, 0x0F, 0x03, 1, 2, 3, 4});
    bytes want0(72), want1(72, 0x00), want2(72, 0xF0);
    for (int i = 0; i < 72; i++) want0[i] = static_cast<uint8_t>(~i);
    want2[68] = 0xFE, want2[69] = 0xFD, want2[70] = 0xFC, want2[71] = 0xFB;
    for (const bytes &f : {plain(packed_rows(first)), wrapped(packed_rows(first))}) {
        sink s;
        ASSERT_EQ(read(f, s), 0);
        EXPECT_EQ(std::tie(s.info.biWidth, s.info.biHeight, s.info.biBitCount, s.info.biSizeImage),
                  std::tuple(576, 720, uint16_t{1}, 64800u));
        EXPECT_EQ(bytes(s.palette.begin(), s.palette.begin() + 8), (bytes{0, 0, 0, 0, 255, 255, 255, 0}));
        EXPECT_EQ(s.rows[0], want0);
        EXPECT_EQ(s.rows[1], want1);
        EXPECT_EQ(s.rows[2], want2);
        EXPECT_EQ(s.rows[719], bytes(72, 0xFF)) << "0xB9 0x00 is a white row";
    }
}

TEST(MacPaint, TruncationFaultsAndRowCodes) {
    bytes f = plain(packed_rows({0xB9, 0x55, 0xB9, 0xAA, 0xB9, 0x00}));
    for (size_t n : {size_t{1}, size_t{200}, size_t{512}, size_t{513}, size_t{600}, f.size() - 1}) {
        sink s;
        EXPECT_EQ(read(bytes(f.begin(), f.begin() + n), s), IMG_ERR_DATA) << "cut at " << n;
    }
    check_load_faults(f, TRICKLES);
    sink s;
    s.fail_at_row = 1, s.fail_code = -31;
    EXPECT_EQ(read(f, s), -31);
    EXPECT_TRUE(s.rows[2].empty());
}
