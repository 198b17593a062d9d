// PNG: malformed files and the deflate level.
// Files from other tools in every colour type and depth, and our output in
// other decoders, are in tests/interop/png_test.py; the fault sweeps run
// from the shared tables in tests/test_faults.cpp.
#include "frame/frame.h"
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

// A build without the system's PNG codec has no PNG to test.
#ifndef BRIVANTA_NO_PNG

namespace {

uint32_t crc_of(const uint8_t *p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; i++) {
        c ^= p[i];
        for (int k = 0; k < 8; k++) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    }
    return ~c;
}

void put_be(bytes &f, size_t at, uint32_t v) {
    for (int k = 0; k < 4; k++) f[at + k] = static_cast<uint8_t>(v >> (24 - 8 * k));
}

// A small file of our writer's, which the cases then damage.
bytes sample(int bits) {
    int code = 0;
    bytes f = save_pic(make_picture(37, 11, bits, 7), IMG_TYPE_PNG, &code);
    EXPECT_GT(f.size(), 40u) << code;
    return f;
}

// The CRC of the chunk at `at` made right again.
void fix_crc(bytes &f, size_t at) {
    const uint32_t n = f[at] << 24 | f[at + 1] << 16 | f[at + 2] << 8 | f[at + 3];
    put_be(f, at + 8 + n, crc_of(f.data() + at + 4, n + 4));
}

// The header's field at offset `at` (from the file's start) set.
bytes with_header(bytes f, size_t at, std::initializer_list<uint8_t> values) {
    std::copy(values.begin(), values.end(), f.begin() + static_cast<long>(at));
    fix_crc(f, 8);
    return f;
}

// A load that must fail with a code: the system's codec on Windows tells
// fewer faults apart, so there any negative code will do.
void expect_load_fails(const bytes &file, int code, const char *what) {
    const int live = mem_live_blocks();
#ifdef _WIN32
    (void)code;
    EXPECT_LT(load_bytes(file), 0) << what;
#else
    EXPECT_EQ(load_bytes(file), code) << what;
#endif
    EXPECT_EQ(scratch_count(), 0) << what;
    EXPECT_EQ(mem_live_blocks(), live) << what;
}

}  // namespace

TEST(PngRead, MalformedFilesGiveCodesAndLeaveNothing) {
    const bytes rgb = sample(24), mapped = sample(8);
    bytes bad_crc = rgb, bad_data = rgb, no_palette = mapped, bad_data_crc = rgb;
    bad_crc[20] ^= 1;
    // The chunk after the header: the image data of the 24-bit file, whose
    // first deflate block (past the 2-byte zlib header) gets a reserved type.
    ASSERT_EQ(std::string(rgb.begin() + 37, rgb.begin() + 41), "IDAT");
    bad_data[41 + 2] = 0xFF;
    fix_crc(bad_data, 33);
    // A flipped bit in the data's own checksum, its last byte: the inflater
    // does not check that one, so the chunk's CRC has to catch it.
    bad_data_crc[41 + (rgb[35] << 8 | rgb[36]) - 1] ^= 0x10;
    // The 8-bit file's palette renamed to an ancillary chunk nobody knows.
    ASSERT_EQ(std::string(mapped.begin() + 37, mapped.begin() + 41), "PLTE");
    no_palette[37] = 'p';
    fix_crc(no_palette, 33);
    struct {
        const char *what;
        bytes file;
        int code;
    } cases[] = {
        {"signature only", bytes(rgb.begin(), rgb.begin() + 8), IMG_ERR_DATA},
        {"cut in the header", bytes(rgb.begin(), rgb.begin() + 20), IMG_ERR_DATA},
        {"cut in the data", bytes(rgb.begin(), rgb.begin() + static_cast<long>(rgb.size() / 2)), IMG_ERR_DATA},
        {"header CRC", bad_crc, IMG_ERR_HEADER},
        {"width 0", with_header(rgb, 16, {0, 0, 0, 0}), IMG_ERR_HEADER},
        {"depth 3", with_header(rgb, 24, {3}), IMG_ERR_HEADER},
        {"palette at 16 bits", with_header(mapped, 24, {16, 3}), IMG_ERR_HEADER},
        {"interlace method 2", with_header(rgb, 28, {2}), IMG_ERR_HEADER},
        {"width over a 31-bit row", with_header(rgb, 16, {0x7F, 0, 0, 0}), IMG_ERR_MEMORY},
        // 2.7 GB at 24 bits: over any limit, refused before its data.
        {"30000 x 30000", with_header(rgb, 16, {0, 0, 0x75, 0x30, 0, 0, 0x75, 0x30}), IMG_ERR_MEMORY},
        {"bad deflate block", bad_data, IMG_ERR_DATA},
        {"image data CRC", bad_data_crc, IMG_ERR_DATA},
        {"palette missing", no_palette, IMG_ERR_HEADER},
    };
    for (auto &c : cases) expect_load_fails(c.file, c.code, c.what);
}

TEST(PngRead, FileCutAfterItsImageDataStillLoads) {
    const bytes rgb = sample(24);
    ASSERT_EQ(std::string(rgb.end() - 8, rgb.end() - 4), "IEND");
    int h = load_bytes(bytes(rgb.begin(), rgb.end() - 12));
    EXPECT_GE(h, 0);
    IMG_delete_bitmap(h);
}

// On Windows the level picks the system encoder's row filter (none at 0,
// the best a row at 9), which a gradient shows; elsewhere the deflate level.
TEST(PngWrite, LevelSettingChangesTheOutput) {
    EXPECT_EQ(IMGLOW_set_png_level(10), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_png_level(-1), IMG_ERR_TYPE);
    EXPECT_EQ(IMGLOW_set_png_level(0), 6);
    const bytes stored = sample(8);
    EXPECT_EQ(IMGLOW_set_png_level(9), 0);
    const bytes smallest = sample(8);
    picture ramp;
    ramp.width = 40, ramp.height = 12, ramp.bits = 24;
    for (int y = 0; y < ramp.height; y++) {
        bytes row(stride_of(ramp.width, 24), 0);
        for (int x = 0; x < ramp.width; x++)
            row[3 * x] = static_cast<uint8_t>(6 * x), row[3 * x + 1] = static_cast<uint8_t>(20 * y),
                    row[3 * x + 2] = static_cast<uint8_t>(x + y);
        ramp.rows.push_back(row);
    }
    const bytes ramp_best = save_pic(ramp, IMG_TYPE_PNG);
    IMGLOW_set_png_level(0);
    const bytes ramp_fast = save_pic(ramp, IMG_TYPE_PNG);
    IMGLOW_set_png_level(6);
    EXPECT_NE(ramp_fast, ramp_best);
    EXPECT_EQ(load_pic(ramp_fast), ramp);
    EXPECT_EQ(load_pic(ramp_best), ramp);
#ifndef _WIN32
    // 37 x 11 bytes of noise plus filter bytes: stored blocks hold them all.
    EXPECT_GT(stored.size(), 37u * 11);
    EXPECT_NE(stored, smallest);
#endif
}

#endif  // BRIVANTA_NO_PNG
