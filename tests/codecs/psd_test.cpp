// Photoshop: what files from other tools do not show (Lab at known colours,
// the run-length repeat code 128, a short colour table).  Files from
// ImageMagick in every mode, CMYK included, are the Photoshop rows of
// tests/interop/readers_test.py.
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

// A document of equal-sized planes; data follows the compression code.
bytes document(int mode, int planes, int width, int height, const bytes &colour_data, int compression,
               const bytes &data) {
    bytes f = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(planes), 0, 0, 0,
               static_cast<uint8_t>(height), 0, 0, 0, static_cast<uint8_t>(width), 0, 8, 0, static_cast<uint8_t>(mode),
               0, 0, static_cast<uint8_t>(colour_data.size() >> 8), static_cast<uint8_t>(colour_data.size())};
    f.insert(f.end(), colour_data.begin(), colour_data.end());
    for (int i : {0, 0, 0, 0, 0, 0, 0, 0, 0, compression}) f.push_back(static_cast<uint8_t>(i));
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

int read_psd(const bytes &f, sink &s) { return run_reader_on(f, s, psd_read_file); }

}  // namespace

TEST(PsdRead, LabAtKnownColours) {
    // Planes as stored: L scaled to 255, a and b + 128.
    struct {
        int mode;
        std::vector<uint8_t> planes;
        uint8_t bgr[3];
        int tolerance;
    } cases[] = {
        {9, {255, 128, 128}, {255, 255, 255}, 1},       {9, {0, 128, 128}, {0, 0, 0}, 0},
        {9, {136, 208, 195}, {0, 0, 255}, 6},           {9, {82, 207, 20}, {255, 0, 0}, 8},  // sRGB red, blue
    };
    for (auto &c : cases) {
        bytes data;
        for (uint8_t v : c.planes) data.insert(data.end(), 6, v);
        sink s;
        ASSERT_EQ(read_psd(document(c.mode, static_cast<int>(c.planes.size()), 3, 2, {}, 0, data), s), 0);
        for (int k = 0; k < 3; k++) EXPECT_NEAR(s.rows[1][6 + k], c.bgr[k], c.tolerance) << "mode " << c.mode;
    }
}

TEST(PsdRead, RepeatCode128AndRowCounts) {
    // 0x80 repeats the next byte 129 times; a row's padding after its last
    // packet is passed over by its byte count.
    sink s;
    ASSERT_EQ(read_psd(document(1, 1, 129, 2, {}, 1, {0, 4, 0, 2, 0x80, 0x3C, 0x80, 0x80, 0x80, 0x3D}), s), 0);
    EXPECT_EQ(bytes(s.rows[0].begin(), s.rows[0].begin() + 129), bytes(129, 0x3C));
    EXPECT_EQ(bytes(s.rows[1].begin(), s.rows[1].begin() + 129), bytes(129, 0x3D));
    EXPECT_EQ(read_psd(document(2, 1, 2, 2, bytes(700, 1), 0, bytes(4, 0)), s), IMG_ERR_DATA);
}
