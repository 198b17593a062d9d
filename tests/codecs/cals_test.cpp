// CALS: the writer's fixed records and the reader's pel-count parsing.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

dib_info announced;
int IMG_CALLBACK keep_header(void *header, void *) {
    std::memcpy(&announced, header, sizeof announced);
    return IMG_ERR_STOPPED;
}
int IMG_CALLBACK no_row(unsigned char *, void *, int, int) { return 0; }

}  // namespace

TEST(CalsWrite, FixedRecords) {
    picture p = make_picture(2550, 3300, 1, 1);
    for (auto &row : p.rows) std::fill(row.begin(), row.end(), 0xFF);
    bytes f = save_pic(p, IMG_TYPE_CALS);
    std::string want;
    for (const char *t : {"srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE", "srcgph: NONE",
                          "doccls: NONE", "rtype: 1", "rorient: 090,270", "rpelcnt: 002550,003300", "rdensity: 200",
                          "notes: NONE", "", "", "", "", ""})
        want += t + std::string(128 - std::strlen(t), ' ');
    EXPECT_EQ(std::string(f.begin(), f.begin() + std::min<size_t>(f.size(), 2048)), want);
    // A white Group 4 page from byte 2,048: one V0 bit a row, then the end-of-block mark.
    EXPECT_EQ(f.size(), 2048u + (3300 + 24 + 7) / 8);
}

TEST(CalsRead, PelCount) {
    struct {
        std::string pelcnt;
        int code, width, height;
    } cases[] = {
        {"1728,2200", 0, 1728, 2200}, {"  12,7;", 0, 12, 7}, {"1728 2200", IMG_ERR_HEADER, 0, 0},
        {"000000,000010", IMG_ERR_HEADER, 0, 0},
        {"1," + std::string(29, '5'), IMG_ERR_HEADER, 0, 0},  // the height's digits reach the end
    };
    for (auto &c : cases) {
        std::string h(2048, ' ');
        h.replace(0, 3, "src");
        h.replace(1024, 9 + c.pelcnt.size(), "rpelcnt: " + c.pelcnt);
        block_ref b(bytes(h.begin(), h.end()));
        announced = {};
        int rc = IMGLOW_decompress_bitmap_mem(b.data, 0, no_row, nullptr, keep_header);
        EXPECT_EQ(rc == IMG_ERR_STOPPED ? 0 : rc, c.code) << c.pelcnt;
        EXPECT_EQ(std::tie(announced.biWidth, announced.biHeight), std::tie(c.width, c.height)) << c.pelcnt;
    }
}
