// The fax decoders: raw streams made by pbmtog3 and by libtiff's encoders
// (taken from their TIFF strips), the EOL and RTC rules, fill order, and
// allocation failures.  Cut streams are swept through their TIFF files in
// test_faults.cpp and replayed by the fax fuzz target.
#include "codecs/tiff_test_util.h"

#include "brivanta.h"
#include "codecs/ccitt.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

namespace {

// Decodes a raw stream from a memory block at an offset.
int decode_fax(const bytes &data, int width, int height, int type, int fill = 1) {
    block_ref block(data.empty() ? bytes{0} : data);
    memory_source_set(block.data);
    file_seek(MEMORY_FD, 0, 0);
    return IMG_decompress_fax(MEMORY_FD, width, height, type, fill);
}

picture fax_picture(const bytes &data, int width, int height, int type, int fill = 1) {
    int h = decode_fax(data, width, height, type, fill);
    EXPECT_GE(h, 0);
    if (h < 0) return {};
    picture p = picture_of(h);
    IMG_delete_bitmap(h);
    return p;
}

picture with_white_rows(picture p, int rows) {
    bytes white(p.rows[0].size(), 0);
    size_t used = (p.width + 7) / 8;
    for (size_t i = 0; i < used; i++) white[i] = 0xFF;
    if (p.width & 7) white[used - 1] &= static_cast<uint8_t>(0xFF00 >> (p.width & 7));
    for (int i = 0; i < rows; i++) p.rows.push_back(white);
    p.height += rows;
    return p;
}

struct stream_case {
    const char *name;
    bytes data;
    int type;
};

std::vector<stream_case> page_streams() {
    return {
        {"Group 3 with EOLs and RTC (pbmtog3)", read_file(fixture("page.g3")), 3},
        {"Group 4 (libtiff)", joined_strips(read_file(fixture("page_g4.tif"))), 4},
        {"Group 3 two-dimensional (libtiff, strips joined)", joined_strips(read_file(fixture("page_g3_2d.tif"))), 2},
    };
}

TEST(CcittFax, StreamsDecodeToTheSourcePage) {
    picture page = fixture_page();
    for (const stream_case &c : page_streams()) {
        EXPECT_TRUE(fax_picture(c.data, 200, 60, c.type) == page) << c.name;
        // Height 0 takes the rows the data holds; an end of page before the
        // stated height pads white.
        EXPECT_TRUE(fax_picture(c.data, 200, 0, c.type) == page) << c.name;
        EXPECT_TRUE(fax_picture(c.data, 200, 75, c.type) == with_white_rows(page, 15)) << c.name;
        // Fill order 2 reads bit-reversed bytes.
        bytes reversed = c.data;
        for (uint8_t &v : reversed) {
            uint8_t r = 0;
            for (int k = 0; k < 8; k++) r |= static_cast<uint8_t>(((v >> k) & 1) << (7 - k));
            v = r;
        }
        EXPECT_TRUE(fax_picture(reversed, 200, 60, c.type, 2) == page) << c.name;
    }
}

// Codes most significant bit first.
struct bit_writer {
    bytes out;
    uint32_t acc = 0;
    int n = 0;
    void put(ccitt_code c) {
        for (int i = c.length - 1; i >= 0; i--) {
            acc = acc << 1 | ((c.bits >> i) & 1);
            if (++n % 8 == 0) out.push_back(static_cast<uint8_t>(acc));
        }
    }
};

TEST(CcittFax, LostEolAfterARowPadsWhite) {
    // One good row, then 3000 codes without an EOL: the stated rows come white.
    bit_writer w;
    for (ccitt_code c : {ccitt_code{1, 12}, ccitt_terminating(0, 8), ccitt_terminating(1, 8)}) w.put(c);
    for (int i = 0; i < 3001; i++) w.put(ccitt_terminating(0, 2));
    while (w.n % 8) w.put({0, 1});
    picture got = fax_picture(w.out, 16, 4, 3);
    ASSERT_EQ(got.height, 4);
    EXPECT_EQ(got.rows[0][0], 0xFF);
    EXPECT_EQ(got.rows[0][1], 0x00);
    for (int y = 1; y < 4; y++) EXPECT_EQ(got.rows[y][0] & got.rows[y][1], 0xFF) << y;
}

TEST(CcittFax, BadArgumentsAndEmptyData) {
    EXPECT_EQ(decode_fax(bytes(10, 0x55), 0, 10, 4), IMG_ERR_HEADER);
    EXPECT_EQ(decode_fax(bytes(10, 0x55), 10, -1, 4), IMG_ERR_HEADER);
    for (int type : {2, 3, 4, 1}) EXPECT_EQ(decode_fax(bytes(), 100, 0, type), IMG_ERR_DATA) << type;
}

TEST(CcittFax, AllocationFailureAtEveryStep) {
    block_ref g4(joined_strips(read_file(fixture("page_g4.tif"))));
    int live = mem_live_blocks();
    int failures = 0;
    for (int k = 1; k < 50; k++) {
        memory_source_set(g4.data);
        file_seek(MEMORY_FD, 0, 0);
        mem_fail_after(k);
        int h = IMG_decompress_fax(MEMORY_FD, 200, 0, 4, 1);
        mem_fail_after(0);
        if (h >= 0) {
            IMG_delete_bitmap(h);
            ASSERT_EQ(mem_live_blocks(), live);
            break;
        }
        EXPECT_EQ(h, IMG_ERR_MEMORY) << k;
        ASSERT_EQ(mem_live_blocks(), live) << k;
        failures++;
    }
    EXPECT_GE(failures, 5);  // handle, header, work, DIB, tables, row, lists
}

}  // namespace
