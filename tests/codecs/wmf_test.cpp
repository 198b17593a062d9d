// Metafile output against the layout's own figures: sizes in words, the
// placeable header's checksum, the picture record's head.  (Played back by
// ImageMagick in tests/interop/writers_test.py, by the system under Wine in
// tests/windows.)
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

TEST(Metafile, LayoutOfAHundredByFiftyPicture) {
    for (int bits : {8, 24}) {
        const bytes f = save_pic(make_picture(100, 50, bits, 1), IMG_TYPE_WMF);
        const uint32_t records = bits == 8 ? 3046 : (15000 + 68) / 2;  // the picture record, in words
        ASSERT_EQ(f.size(), 22 + 2 * (records + 36u));
        EXPECT_EQ(get16(&f[20]), 0xCDD7 ^ 0x9AC6 ^ 100 ^ 50 ^ 96) << "checksum";
        EXPECT_EQ(get32(&f[22 + 6]), records + 36) << "file size";
        EXPECT_EQ(get32(&f[22 + 12]), records) << "largest record";
        EXPECT_EQ(get32(&f[88]), records) << "the picture record's size";
        EXPECT_EQ(bytes(f.begin() + 92, f.begin() + 98), (bytes{0x43, 0x0F, 0x20, 0, 0xCC, 0})) << "StretchDIBits, SRCCOPY";
    }
}
