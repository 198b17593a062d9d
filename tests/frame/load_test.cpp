// The load pipeline: dispatch, callbacks, shrinking, reduction and the status hook.
#include "colour/colour.h"
#include "frame/frame.h"
#include "codecs/tiff_test_util.h"
#include "test_util.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <gtest/gtest.h>

namespace {

struct settings_guard {
    ~settings_guard() {
        IMGLOW_set_decompsize(0, 0);
        IMGLOW_set_decomp_reduction(0);
        IMGLOW_set_dithermode(0);
        IMG_set_statusbar(nullptr, nullptr, 0);
    }
};

// The picture as a BMP file, made with shrinking and reduction off.
bytes bmp_of(const picture &p) {
    IMGLOW_set_decompsize(0, 0);
    IMGLOW_set_decomp_reduction(0);
    int h = handle_of(p);
    bytes b = save_bytes(h, IMG_TYPE_BMP);
    IMG_delete_bitmap(h);
    return b;
}

// A picture whose pixel at (x, y) names its own column and row, so point
// sampling can be checked pixel by pixel.
picture coordinates(int w, int h) {
    picture p;
    p.width = w, p.height = h, p.bits = 24;
    for (int y = 0; y < h; y++) {
        bytes row(stride_of(w, 24), 0);
        for (int x = 0; x < w; x++) {
            row[3 * x] = static_cast<uint8_t>(x);
            row[3 * x + 1] = static_cast<uint8_t>(x >> 8);
            row[3 * x + 2] = static_cast<uint8_t>(y);
        }
        p.rows.push_back(row);
    }
    return p;
}

struct recorded {
    std::vector<int> rows;
    uint8_t header[40];
};

int IMG_CALLBACK record_header(void *header, void *context) {
    std::memcpy(static_cast<recorded *>(context)->header, header, 40);
    return 0;
}
int IMG_CALLBACK record_row(unsigned char *, void *context, int r, int) {
    static_cast<recorded *>(context)->rows.push_back(r);
    return 0;
}
int IMG_CALLBACK stop_row(unsigned char *, void *, int, int) { return -5; }
int IMG_CALLBACK stop_header(void *, void *) { return IMG_ERR_STOPPED; }

int status_calls = 0;
int IMG_CALLBACK stop_on_fifth(void *value, int total) {
    EXPECT_EQ(value, &status_calls);
    EXPECT_GT(total, 0);
    return ++status_calls == 5 ? -100 : 0;
}

}  // namespace

// A bitmap larger than the size in both directions is shrunk to it: each
// stored pixel is the first source pixel of its block (BMP delivers the
// bottom row first, so the last source row of each block arrives first).
TEST(Load, ShrinkSamplesEveryDepthWhenLargerInBothDirections) {
    settings_guard g;
    struct {
        picture src;
        int w, h, step;  // step 0: not shrunk
    } cases[] = {
        {make_picture(64, 40, 1, 7), 16, 10, 4}, {make_picture(64, 40, 4, 7), 16, 10, 4},
        {make_picture(64, 40, 8, 7), 16, 10, 4}, {coordinates(2000, 1000), 200, 100, 10},
        {make_picture(15, 100, 8, 1), 20, 10, 0}, {make_picture(30, 9, 8, 1), 20, 10, 0},
        {make_picture(30, 30, 8, 1), 0, 0, 0},
    };
    for (auto &c : cases) {
        bytes file = bmp_of(c.src);
        IMGLOW_set_decompsize(c.w, c.h);
        int h = load_bytes(file);
        int l, t, cw, ch;
        IMG_get_croprect(h, &l, &t, &cw, &ch);
        IMG_delete_bitmap(h);
        picture got = load_pic(file);
        if (!c.step) {
            EXPECT_EQ(got, c.src) << c.src.width << "x" << c.src.height;
            continue;
        }
        ASSERT_EQ(std::vector<int>({got.width, got.height, cw, ch}), std::vector<int>({c.w, c.h, c.w, c.h}));
        for (int y = 0; y < c.h; y++)
            for (int x = 0; x < c.w; x++)
                ASSERT_EQ(px(got, x, y), px(c.src, x * c.step, y * c.step + c.step - 1)) << c.src.bits << ": " << x << "," << y;
    }
}

TEST(Load, ReductionRulesByDepth) {
    settings_guard g;
    struct {
        int from, reduce, stored;
    } cases[] = {
        {24, 8, 8}, {24, 4, 4}, {24, 1, 1}, {8, 8, 8}, {8, 4, 4}, {8, 1, 1}, {4, 8, 4}, {4, 4, 4}, {4, 1, 1}, {1, 8, 1},
    };
    for (int mode : {0, 1})
        for (auto &c : cases) {
            bytes file = bmp_of(make_picture(37, 9, c.from, 3));
            IMGLOW_set_decomp_reduction(c.reduce);
            IMGLOW_set_dithermode(mode);
            int h = load_bytes(file);
            ASSERT_GE(h, 0);
            picture got = picture_of(h);
            IMG_delete_bitmap(h);
            EXPECT_EQ(got.bits, c.stored) << c.from << "->" << c.reduce;
            if (c.stored == c.from) continue;
            dib_header want{};
            want.info.biBitCount = static_cast<uint16_t>(c.stored);
            set_named_palette(&want.info, c.stored == 8 ? "332" : c.stored == 4 ? "dither" : "tiff");
            EXPECT_EQ(got.palette, bytes(want.palette, want.palette + palette_bytes(c.stored)))
                << c.from << "->" << c.reduce;
        }
}

// Primaries, an orange and an azure whose grey level falls either side of
// the 1-bit threshold only with red weighed more than blue, and a dark red
// nearer black than the 4-bit table's dark red; the row padding is cleared.
TEST(Load, NearestReductionMapsColoursExactly) {
    settings_guard g;
    picture p;
    p.width = 7, p.height = 1, p.bits = 24;
    // white, black, red, blue, orange, azure, dark red in blue-green-red order
    p.rows = {{255, 255, 255, 0, 0, 0, 0, 0, 255, 255, 0, 0, 0, 100, 255, 255, 100, 0, 0, 0, 100, 0, 0, 0}};
    bytes file = bmp_of(p);
    struct {
        int reduce;
        std::vector<int> want;
    } cases[] = {{8, {255, 0, 0xE0, 0x03, 0xEC, 0x0F, 0x60}}, {4, {15, 0, 9, 12, 9, 12, 0}}, {1, {1, 0, 0, 0, 1, 0, 0}}};
    for (auto &c : cases) {
        IMGLOW_set_decomp_reduction(c.reduce);
        int h = load_bytes(file);
        ASSERT_GE(h, 0);
        // The stored row, padding included (the reader's buffer held source bytes there).
        const picture got = picture_of(h, true);
        const bytes &row = got.rows[0];
        IMG_delete_bitmap(h);
        for (int x = 0; x < 7; x++) EXPECT_EQ(px(got, x, 0), static_cast<uint32_t>(c.want[x])) << "reduce " << c.reduce << " pixel " << x;
        const size_t used = c.reduce == 8 ? 7 : c.reduce == 4 ? 4 : 1;
        EXPECT_EQ(bytes(row.begin() + used, row.end()), bytes(row.size() - used, 0)) << "reduce " << c.reduce << ": padding";
    }
}

TEST(Load, OrderedReductionOfMidGreyFillsHalfOfEachTile) {
    settings_guard g;
    picture p;
    p.width = 16, p.height = 16, p.bits = 24;
    for (int y = 0; y < 16; y++) p.rows.push_back(bytes(48, 128));
    bytes file = bmp_of(p);
    IMGLOW_set_decomp_reduction(1);
    IMGLOW_set_dithermode(1);
    int h = load_bytes(file);
    ASSERT_EQ(picture_of(h).bits, 1);
    picture got = picture_of(h);
    IMG_delete_bitmap(h);
    int white = 0;
    for (auto &row : got.rows) white += __builtin_popcount(row[0]) + __builtin_popcount(row[1]);
    EXPECT_EQ(white, 4 * 32) << "gray 128 passes 32 of the 64 thresholds in each 8 x 8 tile";
}

TEST(Load, UnknownTypeLeavesNoHandle) {
    bytes junk(64, 0x55);
    int live = mem_live_blocks();
    EXPECT_EQ(load_bytes(junk), IMG_ERR_TYPE);
    block_ref b(junk);
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(b.data, 0, record_row, nullptr, record_header), IMG_ERR_TYPE);
    EXPECT_EQ(mem_live_blocks(), live + 1) << "only the test's own block is alive";
    EXPECT_EQ(handle_of(make_picture(1, 1, 8, 1)), 0) << "no slot was left taken";
    IMG_delete_bitmap(0);
}

TEST(Load, LowLevelCallbacksSeeHeaderAndRows) {
    bytes file = bmp_of(make_picture(7, 5, 24, 2));
    block_ref b(file);
    recorded rec;
    ASSERT_EQ(IMGLOW_decompress_bitmap_mem(b.data, 0, record_row, &rec, record_header), 0);
    EXPECT_EQ(get32(rec.header + 4), 7u);
    EXPECT_EQ(get32(rec.header + 8), 5u);
    EXPECT_EQ(rec.rows, std::vector<int>({4, 3, 2, 1, 0})) << "bottom row first";
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(b.data, 0, stop_row, &rec, record_header), -5);
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(b.data, 0, record_row, &rec, stop_header), IMG_ERR_STOPPED);
    EXPECT_EQ(scratch_count(), 0);
}

TEST(Load, FileInfoStopsAfterTheHeader) {
    std::string name = temp_path("info.bmp");
    write_file(name, bmp_of(make_picture(11, 6, 4, 2)));
    uint8_t header[40] = {};
    EXPECT_EQ(IMGLOW_get_fileinfo(name.c_str(), header), 0);
    EXPECT_EQ(get32(header + 4), 11u);
    EXPECT_EQ(get16(header + 14), 4u);
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 1);
    std::remove(name.c_str());
    EXPECT_EQ(IMGLOW_get_fileinfo(name.c_str(), header), IMG_ERR_OPEN);
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), IMG_ERR_OPEN);
    EXPECT_EQ(IMG_decompress_bitmap(name.c_str()), IMG_ERR_OPEN);
    EXPECT_EQ(IMG_decompress_bitmap(""), IMG_ERR_OPEN);
}

TEST(Status, NegativeAnswerAbortsLoadAndSave) {
    settings_guard g;
    bytes file = bmp_of(make_picture(8, 20, 8, 1));
    status_calls = 0;
    IMG_set_statusbar(&status_calls, stop_on_fifth, 1);
    int live = mem_live_blocks();
    EXPECT_EQ(load_bytes(file), -100);
    EXPECT_EQ(status_calls, 5);
    EXPECT_EQ(mem_live_blocks(), live);
    IMG_set_statusbar(&status_calls, stop_on_fifth, 0);
    int h = load_bytes(file);
    ASSERT_GE(h, 0);
    EXPECT_EQ(status_calls, 5) << "a disabled hook is not called";
    IMG_set_statusbar(&status_calls, stop_on_fifth, 1);
    status_calls = 0;
    int r = 0;
    save_bytes(h, IMG_TYPE_BMP, &r);
    EXPECT_EQ(r, -100);
    IMG_delete_bitmap(h);
}

// Plain loads are swept in test_faults.cpp; here a shrinking one.
TEST(Load, AllocationFailureWhileShrinkingLeavesNothing) {
    settings_guard g;
    bytes file = bmp_of(make_picture(300, 40, 8, 1));
    IMGLOW_set_decompsize(100, 20);
    EXPECT_GE(sweep_load_alloc_failures(file, load_pic(file)), 2);
}

#if defined(__GLIBC__)
// Blocks handed out uncleared are filled with a pattern while this is held,
// as they are under the address sanitizer anyway.
struct dirty_blocks {
    dirty_blocks() { mallopt(M_PERTURB, 0x55); }
    ~dirty_blocks() { mallopt(M_PERTURB, 0); }
};

// What no reader wrote reads as zero even when the memory under the bitmap
// was not clear: rows a short file never reached, and the pad bytes after
// rows a reader wrote in place.
TEST(Load, WhatNoReaderWroteIsClear) {
    settings_guard g;
    const dirty_blocks dirty;
    // An 8-bit run-length BMP that ends after its bottom seven rows of 16.
    picture runs{16, 12, 8, {}, std::vector<bytes>(12, bytes(16, 0))};
    bytes rle_bmp = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 14 + 40, 4, 0, 0, 40, 0, 0, 0, 16, 0, 0, 0, 12, 0, 0, 0,
                     1, 0, 8, 0, 1, 0, 0, 0};
    rle_bmp.resize(14 + 40 + 1024);
    for (int i = 0; i < 256; i++) runs.palette.insert(runs.palette.end(), {uint8_t(i), uint8_t(i), uint8_t(i), 0});
    std::copy(runs.palette.begin(), runs.palette.end(), rle_bmp.begin() + 54);
    for (int y = 11; y >= 5; y--) {
        runs.rows[y] = bytes(16, static_cast<uint8_t>(10 + y));
        rle_bmp.insert(rle_bmp.end(), {16, static_cast<uint8_t>(10 + y)});
        rle_bmp.insert(rle_bmp.end(), {0, static_cast<uint8_t>(y > 5 ? 0 : 1)});  // end of line, then of bitmap
    }
    // Plain RGB TIFF rows are written in place, with one pad byte each.
    picture rgb = make_picture(5, 6, 24, 4);
    std::vector<bytes> strips;
    for (const bytes &row : rgb.rows) strips.push_back(rgb_row(row, 5));
    struct {
        const char *what;
        bytes file;
        picture want;
    } cases[] = {
        {"short run-length BMP", rle_bmp, runs},
        {"RGB TIFF", build_tiff({simple_page(5, 6, 8, 3, 2, 1, strips, 1)}, false), rgb},
    };
    for (auto &c : cases) {
        int h = load_bytes(c.file);
        ASSERT_GE(h, 0) << c.what;
        EXPECT_EQ(picture_of(h, true).rows, c.want.rows) << c.what;
        IMG_delete_bitmap(h);
    }
}
#endif
