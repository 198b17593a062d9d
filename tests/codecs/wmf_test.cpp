// Metafile output against the layout's own figures: sizes in words, the
// placeable header's checksum, the picture record's head.  (Played back by
// ImageMagick in tests/interop/writers_test.py, by the system under Wine in
// tests/windows.)
#include "codecs/codecs.h"
#include "jpeg_support.h"

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

// The reader takes the first record carrying a DIB, placeable header or
// not; a blit without one is passed over, and no bitmap at all is -7.
// (Detection takes a bare header of nine words for Targa: the reader is
// called itself.)
TEST(Metafile, ReaderFindsTheFirstBitmapRecord) {
    const picture p = make_picture(13, 7, 8, 3);
    const bytes ours = save_pic(p, IMG_TYPE_WMF);
    // Our StretchDIBits record's DIB, and the parameter words each blit puts before it.
    const bytes dib(ours.begin() + 22 + 18 + 4 * 10 + 8 + 28, ours.end() - 6);
    auto record = [](uint16_t function, int params, const bytes &data) {
        bytes r(6 + 2 * params, 0);
        put32(&r[0], static_cast<uint32_t>(3 + params + data.size() / 2));
        put16(&r[4], function);
        r.insert(r.end(), data.begin(), data.end());
        return r;
    };
    auto metafile = [](std::initializer_list<bytes> records) {
        bytes f(18, 0);
        put16(&f[0], 1), put16(&f[2], 9), put16(&f[4], 0x0300);
        for (const bytes &r : records) f.insert(f.end(), r.begin(), r.end());
        f.insert(f.end(), {3, 0, 0, 0, 0, 0});
        return f;
    };
    const bytes line = record(0x0213, 2, {}), bare_blit = record(0x0940, 9, {});
    const struct {
        const char *name;
        bytes file;
        int code;
    } cases[] = {
        {"ours, placeable", ours, 0},
        {"DIBBitBlt after a bare one", metafile({line, bare_blit, record(0x0940, 8, dib)}), 0},
        {"DIBStretchBlt", metafile({record(0x0B41, 10, dib), line}), 0},
        {"no bitmap", metafile({line, bare_blit}), IMG_ERR_TYPE},
        {"a record of no length", metafile({bytes{0, 0, 0, 0, 0x13, 0x02}}), IMG_ERR_HEADER},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        jpeg_testing::sink s;
        const int code = jpeg_testing::run_reader_on(c.file, s, brv::wmf_read_file);
        EXPECT_EQ(code >= 0 ? 0 : code, c.code);
        if (code >= 0) {
            EXPECT_EQ(jpeg_testing::picture_of_sink(s), p);
        }
    }
}
