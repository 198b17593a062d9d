// BMP: writer round trips, every reader variant built from a small recipe,
// and hostile headers.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

struct bmp_recipe {
    int width = 4, height = 2, bits = 8;
    uint32_t compression = 0;
    bool file_header = true;
    bool top_down = false;
    bool core_header = false;  // OS/2 12-byte header with 3-byte colours
    int32_t xppm = 0, yppm = 0;
    uint32_t clr_used = 0;
    bytes palette;  // quads (or triples for the core header)
    bytes pixels;   // as stored in the file
};

bytes build(const bmp_recipe &r) {
    bytes info;
    if (r.core_header) {
        info.resize(12);
        put32(&info[0], 12), put16(&info[4], r.width), put16(&info[6], r.height), put16(&info[8], 1),
            put16(&info[10], r.bits);
    } else {
        info.resize(40);
        put32(&info[0], 40), put32(&info[4], r.width), put32(&info[8], r.top_down ? -r.height : r.height);
        put16(&info[12], 1), put16(&info[14], r.bits), put32(&info[16], r.compression);
        put32(&info[24], r.xppm), put32(&info[28], r.yppm), put32(&info[32], r.clr_used);
    }
    bytes out;
    if (r.file_header) {
        out.resize(14);
        out[0] = 'B', out[1] = 'M';
        put32(&out[10], static_cast<uint32_t>(14 + info.size() + r.palette.size()));
    }
    out.insert(out.end(), info.begin(), info.end());
    out.insert(out.end(), r.palette.begin(), r.palette.end());
    out.insert(out.end(), r.pixels.begin(), r.pixels.end());
    return out;
}

bytes grey_quads(int n) {
    bytes p;
    for (int i = 0; i < n; i++) p.insert(p.end(), {uint8_t(i), uint8_t(i), uint8_t(i), 0});
    return p;
}

picture load_picture(const bytes &file, int *code = nullptr) {
    int h = load_bytes(file);
    if (code) *code = h;
    if (h < 0) return {};
    picture p = picture_of(h);
    IMG_delete_bitmap(h);
    return p;
}

}  // namespace

TEST(Bmp, WriterRoundTripEveryTypeAndDepth) {
    struct {
        int type, bits;
    } cases[] = {{IMG_TYPE_BMP, 1}, {IMG_TYPE_BMP, 4},     {IMG_TYPE_BMP, 8},
                 {IMG_TYPE_BMP, 24}, {IMG_TYPE_BMP_RLE, 4}, {IMG_TYPE_BMP_RLE, 8}};
    for (auto &c : cases)
        for (int width : {1, 2, 3, 7, 33, 64, 300}) {
            picture p = make_picture(width, 5, c.bits, width * 31 + c.bits);
            int h = handle_of(p);
            int n = 0;
            bytes file = save_bytes(h, c.type, &n);
            IMG_delete_bitmap(h);
            ASSERT_GT(n, 54) << c.type << "/" << c.bits << "/" << width;
            EXPECT_EQ(load_picture(file), p) << "type " << c.type << " bits " << c.bits << " width " << width;
        }
}

TEST(Bmp, RunLengthRefusesOneAndTwentyFourBitsBeforeWriting) {
    std::string name = temp_path("refused.bmp");
    for (int bits : {1, 24}) {
        int h = handle_of(make_picture(10, 10, bits, 1));
        EXPECT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_BMP_RLE), IMG_ERR_DEPTH);
        EXPECT_EQ(read_file(name).size(), 0u) << bits;
        IMG_delete_bitmap(h);
    }
    std::remove(name.c_str());
}

TEST(Bmp, RunLengthSavesAreSmallerOnFlatPictures) {
    picture p = make_picture(200, 50, 8, 3);
    for (auto &row : p.rows) std::fill(row.begin(), row.end(), 7);
    int h = handle_of(p);
    bytes plain = save_bytes(h, IMG_TYPE_BMP), rle = save_bytes(h, IMG_TYPE_BMP_RLE);
    IMG_delete_bitmap(h);
    const size_t headers = 14 + 40 + 1024;
    EXPECT_LT((rle.size() - headers) * 10, plain.size() - headers);
    EXPECT_EQ(get32(&rle[34]), get32(&plain[34])) << "the image size field stays the uncompressed size";
    EXPECT_EQ(load_picture(rle), p);
}

TEST(Bmp, ResolutionConvertsBetweenMetresAndInches) {
    bmp_recipe r;
    r.xppm = 3780, r.yppm = 2835;
    r.palette = grey_quads(256);
    r.pixels = bytes(8, 1);
    int h = load_bytes(build(r));
    ASSERT_GE(h, 0);
    uint8_t header[1064];
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 96u) << "3780 ppm truncates to 96 dpi";
    EXPECT_EQ(get32(header + 28), 72u);
    bytes saved = save_bytes(h, IMG_TYPE_BMP);
    EXPECT_EQ(get32(&saved[38]), 3780u) << "96 dpi rounds back to 3780 ppm";
    EXPECT_EQ(get32(&saved[42]), 2835u);
    IMG_delete_bitmap(h);
    // A bare header with small values already holds dots per inch.
    r.file_header = false;
    r.xppm = 300, r.yppm = 300;
    h = load_bytes(build(r));
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 300u);
    IMG_delete_bitmap(h);
}

TEST(Bmp, BilevelPalettesAreNormalisedToBlackFirst) {
    struct {
        bytes palette;
        uint8_t stored_first_byte;
    } cases[] = {
        {{255, 255, 255, 0, 0, 0, 0, 0}, 0x3C},  // white first: pixels complemented
        {{0, 0, 255, 0, 255, 0, 0, 0}, 0xC3},    // red, blue: taken as black, white
        {{0, 0, 0, 0, 255, 255, 255, 0}, 0xC3},
    };
    for (auto &c : cases) {
        bmp_recipe r;
        r.width = 8, r.height = 1, r.bits = 1;
        r.palette = c.palette;
        r.pixels = {0xC3, 0, 0, 0};
        picture p = load_picture(build(r));
        EXPECT_EQ(p.palette, bytes({0, 0, 0, 0, 255, 255, 255, 0}));
        EXPECT_EQ(p.rows[0][0], c.stored_first_byte);
    }
}

TEST(Bmp, TopDownRowsAreStoredTheRightWayUp) {
    bmp_recipe r;
    r.width = 4, r.height = 3, r.top_down = true;
    r.palette = grey_quads(256);
    r.pixels = {1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3};
    picture p = load_picture(build(r));
    ASSERT_EQ(p.height, 3);
    EXPECT_EQ(p.rows[0][0], 1);
    EXPECT_EQ(p.rows[2][0], 3);
}

TEST(Bmp, BareHeaderPixelsFollowTheUsedColours) {
    bmp_recipe r;
    r.file_header = false;
    r.width = 4, r.height = 1;
    r.clr_used = 2;
    r.palette = {10, 20, 30, 0, 40, 50, 60, 0};
    r.pixels = {1, 0, 1, 1};
    picture p = load_picture(build(r));
    ASSERT_EQ(p.width, 4);
    EXPECT_EQ(p.rows[0], bytes({1, 0, 1, 1}));
    EXPECT_EQ(bytes(p.palette.begin(), p.palette.begin() + 8), r.palette);
}

TEST(Bmp, CoreHeaderWithTripleColours) {
    bmp_recipe r;
    r.core_header = true;
    r.width = 3, r.height = 2, r.bits = 4;
    for (int i = 0; i < 16; i++) r.palette.insert(r.palette.end(), {uint8_t(i), uint8_t(2 * i), uint8_t(3 * i)});
    r.pixels = {0x12, 0x30, 0, 0, 0xFE, 0xD0, 0, 0};
    picture p = load_picture(build(r));
    ASSERT_EQ(p.bits, 4);
    EXPECT_EQ(p.palette[4 * 5 + 1], 10);
    EXPECT_EQ(p.palette[4 * 5 + 2], 15);
    EXPECT_EQ(p.rows[0][0], 0xFE) << "first file row is the bottom one";
    EXPECT_EQ(p.rows[1][0], 0x12);
}

TEST(Bmp, SixteenAndThirtyTwoBitRowsBecomeTwentyFourBits) {
    bmp_recipe r;
    r.width = 2, r.height = 1, r.bits = 16;
    r.pixels = {0xFF, 0x7F, 0x1F, 0x00};  // white, then pure blue in 5-5-5
    picture p = load_picture(build(r));
    ASSERT_EQ(p.bits, 24);
    EXPECT_EQ(bytes(p.rows[0].begin(), p.rows[0].begin() + 6), bytes({248, 248, 248, 248, 0, 0}));
    r.bits = 32;
    r.pixels = {1, 2, 3, 99, 4, 5, 6, 99};
    p = load_picture(build(r));
    ASSERT_EQ(p.bits, 24);
    EXPECT_EQ(bytes(p.rows[0].begin(), p.rows[0].begin() + 6), bytes({1, 2, 3, 4, 5, 6}));
}

TEST(Bmp, RunLengthDeltaDiffersBetweenRle8AndRle4) {
    // Two pixels, a delta of three rows, two more pixels, end of line, end of bitmap.
    bmp_recipe r;
    r.width = 4, r.height = 6;
    r.palette = grey_quads(256);
    r.compression = 1;
    r.pixels = {2, 7, 0, 2, 0, 3, 2, 9, 0, 0, 0, 1};
    picture p8 = load_picture(build(r));
    ASSERT_EQ(p8.height, 6);
    std::vector<bytes> want8 = {{0, 0, 0, 0}, {7, 7, 9, 9}, {7, 7, 9, 9}, {7, 7, 0, 0}, {7, 7, 0, 0}, {7, 7, 0, 0}};
    EXPECT_EQ(p8.rows, want8) << "RLE8 repeats the row being built over the skipped rows";

    r.bits = 4, r.compression = 2;
    r.palette = grey_quads(16);
    r.pixels = {2, 0x77, 0, 2, 0, 3, 2, 0x99, 0, 0, 0, 1};
    picture p4 = load_picture(build(r));
    ASSERT_EQ(p4.height, 6);
    std::vector<uint8_t> first(6);
    for (int y = 0; y < 6; y++) first[y] = p4.rows[y][0];
    EXPECT_EQ(first, std::vector<uint8_t>({0, 0x77, 0x77, 0, 0, 0x77})) << "RLE4 leaves skipped rows alone";
    EXPECT_EQ(p4.rows[1][1], 0x99);
}

TEST(Bmp, RunLengthAbsoluteBlocksArePaddedToWords) {
    bmp_recipe r;
    r.width = 5, r.height = 1;
    r.palette = grey_quads(256);
    r.compression = 1;
    r.pixels = {0, 3, 1, 2, 3, 0, 2, 8, 0, 1};
    EXPECT_EQ(load_picture(build(r)).rows[0], bytes({1, 2, 3, 8, 8, 0, 0, 0}));
    r.bits = 4, r.compression = 2;
    r.palette = grey_quads(16);
    r.pixels = {0, 3, 0x12, 0x30, 2, 0x88, 0, 1};
    EXPECT_EQ(load_picture(build(r)).rows[0], bytes({0x12, 0x38, 0x80, 0}));
}

TEST(Bmp, RecordCompressionDeliversWholeRecords) {
    bmp_recipe r;
    r.width = 8, r.height = 2, r.compression = 99;
    r.palette = grey_quads(256);
    r.pixels = {6, 0, 1, 2, 3, 4, 4, 0, 9, 9};
    picture p = load_picture(build(r));
    ASSERT_EQ(p.height, 2);
    EXPECT_EQ(p.rows[0], bytes({6, 0, 1, 2, 3, 4, 0, 0}));
    EXPECT_EQ(p.rows[1], bytes({4, 0, 9, 9, 0, 0, 0, 0}));
}

TEST(Bmp, HostileHeadersEndWithCleanCodes) {
    auto base = [] {
        bmp_recipe r;
        r.width = 16, r.height = 16;
        r.palette = grey_quads(256);
        r.pixels = bytes(256, 5);
        return r;
    };
    struct {
        const char *what;
        bmp_recipe r;
        size_t cut;  // 0: keep the whole file
    } cases[] = {
        {"zero width", [&] { auto r = base(); r.width = 0; return r; }(), 0},
        {"depth 3", [&] { auto r = base(); r.bits = 3; return r; }(), 0},
        {"huge", [&] { auto r = base(); r.width = 0x7FFFFFFF; r.height = 0x7FFFFFFF; return r; }(), 0},
        {"tall and thin", [&] { auto r = base(); r.width = 1; r.height = 0x3FFFFFFF; return r; }(), 0},
        {"truncated pixels", base(), 14 + 40 + 1024 + 100},
        {"truncated header", base(), 30},
        {"endless RLE", [&] { auto r = base(); r.compression = 1; r.pixels = bytes(4000, 3); return r; }(), 0},
        {"bad records", [&] { auto r = base(); r.compression = 99; r.pixels = {1, 0}; return r; }(), 0},
    };
    for (auto &c : cases) {
        bytes file = build(c.r);
        if (c.cut) file.resize(c.cut);
        int live = mem_live_blocks();
        int code = 0;
        picture p = load_picture(file, &code);
        EXPECT_EQ(mem_live_blocks(), live) << c.what;
        EXPECT_EQ(scratch_count(), 0) << c.what;
        if (code >= 0) EXPECT_EQ(p.width, c.r.width) << c.what << " loaded with a sane size";
        else EXPECT_TRUE(code == IMG_ERR_HEADER || code == IMG_ERR_MEMORY || code == IMG_ERR_DATA ||
                         code == IMG_ERR_OPEN) << c.what << " gave " << code;
    }
}
