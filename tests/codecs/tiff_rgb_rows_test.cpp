// Chunky 8-bit RGB rows, plain and PackBits, at widths that end in each part
// of the row converter: the wide byte-permute steps, the 16-pixel shuffle
// steps and the single pixels after them, with each narrower kernel set too.
#include "codecs/tiff_test_util.h"

#include <gtest/gtest.h>

namespace {

// PackBits as literal runs of up to 128 bytes with a repeat run of three
// every so often, so copies start at every offset.
bytes packbits(const bytes &row) {
    bytes out;
    size_t i = 0;
    for (int k = 0; i < row.size(); k++) {
        if (k % 5 == 4 && i + 3 <= row.size() && row[i] == row[i + 1] && row[i] == row[i + 2]) {
            out.push_back(static_cast<uint8_t>(257 - 3)), out.push_back(row[i]);
            i += 3;
            continue;
        }
        const size_t n = std::min<size_t>(k % 3 == 0 ? 128 : 1 + k * 37 % 128, row.size() - i);
        out.push_back(static_cast<uint8_t>(n - 1));
        out.insert(out.end(), row.begin() + static_cast<long>(i), row.begin() + static_cast<long>(i + n));
        i += n;
    }
    return out;
}

// The reader's kernels held to a width for one scope, whatever the outcome.
struct vector_limit {
    explicit vector_limit(int bits) { tiff_reader_limit_vectors(bits); }
    ~vector_limit() { tiff_reader_limit_vectors(512); }
};

TEST(TiffRgbRows, EveryWidthLoadsAsItsPixels) {
    for (int vectors : {512, 128, 0})
    for (uint32_t compression : {1u, 32773u})
        for (int width : {1, 2, 5, 15, 16, 17, 31, 63, 64, 65, 84, 85, 86, 100, 127, 128, 129, 170, 171, 200, 257, 300}) {
            SCOPED_TRACE("compression " + std::to_string(compression) + " width " + std::to_string(width) +
                         " vectors " + std::to_string(vectors));
            const vector_limit limit(vectors);
            const picture want = make_picture(width, 6, 24, static_cast<uint32_t>(width));  // rows at several alignments
            std::vector<bytes> strips;
            for (const bytes &bgr : want.rows) {
                bytes rgb = rgb_row(bgr, width);
                if (width % 7 == 1)  // some rows with runs to repeat
                    std::fill(rgb.begin(), rgb.begin() + std::min(9, 3 * width), uint8_t{77});
                strips.push_back(compression == 1 ? rgb : packbits(rgb));
            }
            picture expected = want;
            if (width % 7 == 1)
                for (bytes &row : expected.rows) std::fill(row.begin(), row.begin() + std::min(9, 3 * width), uint8_t{77});
            int code = 0;
            const picture got = load_pic(build_tiff({simple_page(width, 6, 8, 3, 2, compression, strips, 1)}, false), &code);
            ASSERT_GE(code, 0);
            EXPECT_EQ(got.rows, expected.rows);
        }
}

// Random PackBits strips, one per row or one per page: runs of every kind
// and length that split pixels, and runs past a row's end, whose surplus
// is dropped.  The rows the strips make are kept as they are generated; a
// load swapping as it unpacks (widest vectors) and one swapping after both
// give them.
TEST(TiffRgbRows, RandomPackBitsStripsLoadAsTheirRows) {
    uint32_t s = 5;
    auto next = [&s](uint32_t n) { return ((s = s * 1664525u + 1013904223u) >> 8) % n; };
    for (int round = 0; round < 48; round++) {
        const uint32_t samples = round % 2 ? 3 : 1, width = 1 + next(round < 24 ? 12 : 200), height = 1 + next(5);
        const uint32_t rows_per_strip = round % 4 < 2 ? 1 : height, row_bytes = width * samples;
        std::vector<bytes> strips, want(height, bytes(row_bytes));
        for (uint32_t y = 0; y < height; y++) {
            if (y % rows_per_strip == 0) strips.emplace_back();
            for (uint32_t x = 0; x < row_bytes;) {
                const uint32_t c = next(3) ? (next(2) ? next(4) : 255 - next(3)) : next(256);
                const uint32_t count = c < 128 ? c + 1 : (257 - c) & 0xFF;  // 128 repeats 129 times
                strips.back().push_back(static_cast<uint8_t>(c));
                for (uint32_t k = 0; k < count; k++, x++) {
                    if (c < 128 || k == 0) strips.back().push_back(static_cast<uint8_t>(next(256)));
                    if (x < row_bytes) want[y][samples == 3 ? x + 2 - x % 3 * 2 : x] = strips.back().back();  // BGR
                }
            }
        }
        const bytes file =
            build_tiff({simple_page(width, height, 8, samples, samples == 3 ? 2 : 1, 32773, strips, rows_per_strip)}, false);
        for (int vectors : {512, 0}) {
            const vector_limit limit(vectors);
            int code = 0;
            const picture got = load_pic(file, &code);
            ASSERT_GE(code, 0) << round;
            for (uint32_t y = 0; y < height; y++)
                EXPECT_TRUE(std::equal(want[y].begin(), want[y].end(), got.rows.at(y).begin())) << round << ", " << y;
        }
    }
}

}  // namespace
