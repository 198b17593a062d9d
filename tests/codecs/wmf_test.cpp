// Metafile output against the layout's own figures: sizes in words, the
// placeable header's checksum, the picture record's head.  (Played back by
// ImageMagick in tests/interop/writers_test.py, by the system under Wine in
// tests/windows.)
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

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

// The reader takes the first record carrying a DIB, with or without the
// placeable header (called itself: detection takes a bare header for Targa);
// a blit without one is passed over, and no bitmap at all is -7.
TEST(Metafile, ReaderFindsTheFirstBitmapRecord) {
    const picture p = make_picture(13, 7, 8, 3);
    const bytes ours = save_pic(p, IMG_TYPE_WMF);
    const bytes dib(ours.begin() + 22 + 18 + 4 * 10 + 8 + 28, ours.end() - 6);  // our StretchDIBits record's
    // A bare header, then records of a function, its parameter words and data, then the end record.
    auto metafile = [](std::initializer_list<std::tuple<uint16_t, int, bytes>> records) {
        bytes f(18, 0);
        put16(&f[0], 1), put16(&f[2], 9);
        for (auto &[function, params, data] : records) {
            bytes r(6 + 2 * params, 0);
            put32(&r[0], static_cast<uint32_t>(3 + params + data.size() / 2)), put16(&r[4], function);
            r.insert(r.end(), data.begin(), data.end());
            f.insert(f.end(), r.begin(), r.end());
        }
        f.insert(f.end(), {3, 0, 0, 0, 0, 0});
        return f;
    };
    const std::tuple<uint16_t, int, bytes> line{0x0213, 2, {}}, bare_blit{0x0940, 9, {}};
    bytes broken = metafile({line});
    put32(&broken[18], 0);
    for (auto [file, code] : {std::pair{ours, 0}, {metafile({line, bare_blit, {0x0940, 8, dib}}), 0},
                              {metafile({{0x0B41, 10, dib}, line}), 0}, {metafile({line, bare_blit}), IMG_ERR_TYPE},
                              {broken, IMG_ERR_HEADER}}) {
        jpeg_testing::sink s;
        EXPECT_EQ(std::min(0, jpeg_testing::run_reader_on(file, s, brv::wmf_read_file)), code);
        if (code == 0) {
            EXPECT_EQ(jpeg_testing::picture_of_sink(s), p);
        }
    }
}
