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

}  // namespace
