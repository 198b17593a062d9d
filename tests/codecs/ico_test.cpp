// Icons: the first image at every depth and compression the row decoders
// take, the kept treatment of height and bilevel tables, hostile files and
// the fault sweeps.
#include "embedded_dib.h"

#include <gtest/gtest.h>

namespace {

// An icon file: directory, then an entry per image (the first entry says 32
// wide, which detection looks for), each DIB with its height doubled for
// the AND mask that follows it.
bytes icon_of(const std::vector<bytes> &dibs) {
    bytes f = {0, 0, 1, 0, static_cast<uint8_t>(dibs.size()), 0};
    uint32_t at = 6 + 16 * static_cast<uint32_t>(dibs.size());
    bytes body;
    for (const bytes &d : dibs) {
        bytes e(16, 0);
        e[0] = e[1] = 32;
        put16(&e[4], 1);
        put16(&e[6], get16(&d[14]));
        bytes img = d;
        const int32_t w = static_cast<int32_t>(get32(&d[4])), h = static_cast<int32_t>(get32(&d[8]));
        put32(&img[8], static_cast<uint32_t>(2 * h));
        img.resize(img.size() + row_bytes(w, 1) * h, 0xA5);  // the AND mask, never read
        put32(&e[8], static_cast<uint32_t>(img.size()));
        put32(&e[12], at + static_cast<uint32_t>(body.size()));
        body.insert(body.end(), img.begin(), img.end());
        f.insert(f.end(), e.begin(), e.end());
    }
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

}  // namespace

TEST(Ico, FirstImageAtEveryDepthAndCompression) {
    for (int side : {1, 3, 16, 33}) {
        for (int bits : {1, 4, 8, 24}) {
            picture p = make_picture(side, side, bits, side * 5 + bits);
            picture other = make_picture(side + 2, side + 2, 8, 77);
            int code = 0;
            EXPECT_EQ(load_pic(icon_of({plain_dib(p), plain_dib(other)}), &code), p) << bits << " bits, " << side;
            EXPECT_EQ(code, 0);
            if (bits == 4 || bits == 8) {
                EXPECT_EQ(load_pic(icon_of({rle_dib(p)})), p) << "RLE at " << bits << " bits, " << side;
            }
        }
    }
    // 16-bit rows are read unpadded (the BMP decoder's kept reading), which
    // only even widths meet.
    picture c = five_bit(make_picture(16, 16, 24, 16));
    EXPECT_EQ(load_pic(icon_of({dib16(c)})), c);
}

TEST(Ico, KeptTreatments) {
    // The height comes from the width, whatever the header counts.
    picture p = make_picture(20, 20, 8, 3);
    bytes tall = plain_dib(p);
    bytes f = icon_of({tall});
    put32(&f[22 + 8], 7);
    EXPECT_EQ(load_pic(f), p);

    // A bilevel table whose first entry is light anywhere becomes black,
    // white with the rows inverted; a dark first entry stays as given.
    picture bw = make_picture(32, 32, 1, 9);
    picture light = bw;
    light.palette = {200, 1, 30, 0, 0, 0, 0, 0};
    for (bytes &r : light.rows)
        for (uint8_t &v : r) v = static_cast<uint8_t>(~v);
    EXPECT_EQ(load_pic(icon_of({plain_dib(light)})), bw);
    picture dark = bw;
    dark.palette = {0, 200, 30, 0, 9, 9, 9, 0};
    EXPECT_EQ(load_pic(icon_of({plain_dib(dark)})), dark);

    // Pixels per metre become dots per inch.
    dib_info info = announced(icon_of({plain_dib(p, 3780, 11811)}));
    EXPECT_EQ(info.biXPelsPerMeter, 96);
    EXPECT_EQ(info.biYPelsPerMeter, 299);
}

TEST(Ico, HostileFilesEndWithCleanCodes) {
    picture p = make_picture(16, 16, 4, 5);
    const bytes good = icon_of({plain_dib(p)});
    struct {
        const char *what;
        size_t at;  // from the image header when below 40, else absolute
        uint32_t value;
        int width;  // 4 or 2 bytes
        int want;
    } cases[] = {
        {"RLE8 at 4 bits", 16, 1, 4, IMG_ERR_HEADER},
        {"bit fields", 16, 3, 4, IMG_ERR_HEADER},
        {"depth 2", 14, 2, 2, IMG_ERR_HEADER},
        {"zero width", 4, 0, 4, IMG_ERR_HEADER},
        {"negative width", 4, 0xFFFFFFF0u, 4, IMG_ERR_HEADER},
        {"huge width", 4, 0x7FFFFFFFu, 4, IMG_ERR_HEADER},
        {"not a DIB header", 0, 0x474E5089u, 4, IMG_ERR_TYPE},
    };
    for (auto &c : cases) {
        bytes f = good;
        (c.width == 4 ? put32 : put16)(&f[22 + c.at], c.value);
        int code = 0;
        load_pic(f, &code);
        EXPECT_EQ(code, c.want) << c.what;
    }
    int code = 0;
    for (uint32_t offset : {1u << 24, 0x7FFFFFF0u}) {
        bytes far = good;
        put32(&far[18], offset);
        load_pic(far, &code);
        EXPECT_EQ(code, offset == 1u << 24 ? IMG_ERR_DATA : IMG_ERR_HEADER) << "an image offset past the end";
    }
    for (size_t cut : {size_t{3}, size_t{21}, size_t{30}, size_t{22 + 40 + 20}}) {
        load_pic(bytes(good.begin(), good.begin() + cut), &code);
        EXPECT_LT(code, 0) << "cut at " << cut;
    }
}

TEST(Ico, Faults) {
    check_load_faults(icon_of({plain_dib(make_picture(32, 32, 8, 1))}), TRICKLES);
    check_load_faults(icon_of({rle_dib(make_picture(32, 32, 4, 2))}), TRICKLES);
}
