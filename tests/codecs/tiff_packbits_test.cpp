// The PackBits writer's strips read as any other reader reads them, where a
// 0x80 header is a no-op (our reader's 129-byte repeat would hide one).
#include "codecs/tiff_test_util.h"

#include <gtest/gtest.h>

TEST(TiffPackBits, RunsOfEveryLengthReadAsOtherReadersReadThem) {
    picture p = make_picture(2400, 3, 8, 5);
    for (bytes &row : p.rows) {
        size_t x = 0;
        for (size_t run : {1, 2, 3, 127, 128, 129, 130, 131, 255, 256, 257, 258, 300})
            for (size_t i = 0; i < run && x < row.size(); i++) row[x++] = static_cast<uint8_t>(run);
    }
    const bytes strips = joined_strips(save_pic(p, IMG_TYPE_TIFF_PACKBITS));
    bytes unpacked;
    for (size_t i = 0; i < strips.size();) {
        const int n = strips[i++];
        if (n < 128) {
            unpacked.insert(unpacked.end(), strips.begin() + i, strips.begin() + std::min(strips.size(), i + n + 1));
            i += n + 1;
        } else if (n > 128) {
            unpacked.insert(unpacked.end(), 257 - n, strips.at(i++));
        }
    }
    bytes source;
    for (const bytes &row : p.rows) source.insert(source.end(), row.begin(), row.begin() + p.width);
    EXPECT_EQ(unpacked, source);
}
