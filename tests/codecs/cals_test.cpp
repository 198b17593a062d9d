// CALS: the writer's fixed records, the reader's pel-count parsing and what
// it refuses.
#include "frame/frame.h"
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// A header of spaces with a first record that detection takes and the
// given pel-count value.
bytes cals_header(const std::string &pelcnt) {
    std::string h(2048, ' ');
    h.replace(0, 14, "srcdocid: NONE");
    h.replace(1024, 9 + pelcnt.size(), "rpelcnt: " + pelcnt);
    return bytes(h.begin(), h.end());
}

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
    ASSERT_GT(f.size(), 2048u);
    const char *texts[] = {"srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE", "srcgph: NONE",
                           "doccls: NONE",   "rtype: 1",       "rorient: 090,270", "rpelcnt: 002550,003300",
                           "rdensity: 200",  "notes: NONE"};
    std::string want;
    for (const char *t : texts) want += t + std::string(128 - std::strlen(t), ' ');
    want += std::string(5 * 128, ' ');
    EXPECT_EQ(std::string(f.begin(), f.begin() + 2048), want);
    // An all-white Group 4 page: one V0 bit a row, then the end-of-block mark.
    EXPECT_EQ(f.size(), 2048u + (3300 + 24 + 7) / 8);
}

TEST(CalsWrite, RefusesDeepPicturesBeforeWriting) {
    int h = handle_of(make_picture(9, 9, 8, 2));
    std::string name = temp_path("deep.cal");
    std::remove(name.c_str());
    EXPECT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_CALS), IMG_ERR_DEPTH);
    EXPECT_TRUE(read_file(name).empty());
    IMG_delete_bitmap(h);
    std::remove(name.c_str());
}

TEST(CalsRead, PelCount) {
    struct {
        std::string pelcnt;
        int code, width, height;
    } cases[] = {
        {"1728,2200", 0, 1728, 2200},
        {"002550,003300", 0, 2550, 3300},
        {"  12,7;", 0, 12, 7},
        {"1728 2200", IMG_ERR_HEADER, 0, 0},
        {"000000,000010", IMG_ERR_HEADER, 0, 0},
        {"1," + std::string(29, '5'), IMG_ERR_HEADER, 0, 0},  // the height's digits reach the end
    };
    for (auto &c : cases) {
        block_ref b(cals_header(c.pelcnt));
        announced = {};
        int rc = IMGLOW_decompress_bitmap_mem(b.data, 0, no_row, nullptr, keep_header);
        EXPECT_EQ(rc == IMG_ERR_STOPPED ? 0 : rc, c.code) << c.pelcnt;
        if (c.code) continue;
        EXPECT_EQ(announced.biWidth, c.width) << c.pelcnt;
        EXPECT_EQ(announced.biHeight, c.height) << c.pelcnt;
        EXPECT_EQ(announced.biBitCount, 1);
    }
    // A page whose data stops short comes out white below what it held.
    int code = 0;
    picture p = load_pic(cals_header("000020,000003"), &code);
    ASSERT_EQ(code >= 0, true) << code;
    EXPECT_EQ(p.rows, std::vector<bytes>(3, bytes{0xFF, 0xFF, 0xF0, 0x00}));
}
