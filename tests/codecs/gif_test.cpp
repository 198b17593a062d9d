// GIF: decoder behaviour on streams built here with an independent code
// packer: code streams, the decoder alone, the stream's start.
// Colour tables, interlacing and transparency are checked against other
// tools' files in the GIF rows of interop/readers_test.py.
#include "codecs/gif.h"
#include "frame/frame.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace {

// Packs (code, width) pairs least significant bit first.
bytes pack_codes(const std::vector<std::pair<int, int>> &codes) {
    bytes out;
    uint32_t acc = 0;
    int n = 0;
    for (auto [code, width] : codes) {
        acc |= static_cast<uint32_t>(code) << n;
        n += width;
        while (n >= 8) {
            out.push_back(static_cast<uint8_t>(acc));
            acc >>= 8;
            n -= 8;
        }
    }
    if (n) out.push_back(static_cast<uint8_t>(acc));
    return out;
}

// A stream that sends every pixel as its own root code and never clears, so
// the decoder's table fills up and stays full; widths follow the decoder.
bytes plain_lzw(const bytes &indices, int root) {
    const int clear = 1 << root;
    int width = root + 1, next = clear + 2;
    std::vector<std::pair<int, int>> codes{{clear, width}};
    for (size_t i = 0; i < indices.size(); i++) {
        codes.push_back({indices[i], width});
        if (i > 0 && next < 4096 && ++next == (1 << width) && width < 12) width++;
    }
    codes.push_back({clear + 1, width});
    return pack_codes(codes);
}

struct gif_recipe {
    bytes global;                 // RGB triples, 2^k of them; empty: no table
    std::vector<bytes> extensions;  // complete blocks placed before the image
    int width = 4, height = 2;
    int min_code = 8;
    bytes data;  // the LZW stream before it is cut into sub-blocks
};

int table_bits(const bytes &t) {
    int n = static_cast<int>(t.size() / 3), k = 0;
    while ((2 << k) < n) k++;
    return k;
}

bytes build(const gif_recipe &r) {
    bytes f = {'G', 'I', 'F', '8', '9', 'a'};
    f.insert(f.end(), {uint8_t(r.width), uint8_t(r.width >> 8), uint8_t(r.height), uint8_t(r.height >> 8)});
    f.push_back(r.global.empty() ? 0 : static_cast<uint8_t>(0x80 | table_bits(r.global)));
    f.insert(f.end(), {0, 0});
    f.insert(f.end(), r.global.begin(), r.global.end());
    for (auto &e : r.extensions) f.insert(f.end(), e.begin(), e.end());
    f.insert(f.end(), {',', 0, 0, 0, 0, uint8_t(r.width), uint8_t(r.width >> 8), uint8_t(r.height),
                       uint8_t(r.height >> 8)});
    f.push_back(0);  // no local table, not interlaced
    f.push_back(static_cast<uint8_t>(r.min_code));
    for (size_t i = 0; i < r.data.size(); i += 255) {
        size_t n = std::min<size_t>(255, r.data.size() - i);
        f.push_back(static_cast<uint8_t>(n));
        f.insert(f.end(), r.data.begin() + i, r.data.begin() + i + n);
    }
    f.insert(f.end(), {0, ';'});
    return f;
}

bytes ramp_table(int n) {
    bytes t;
    for (int i = 0; i < n; i++) t.insert(t.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i * 7)});
    return t;
}

}  // namespace

TEST(Gif, CodeStreams) {
    const bytes seq = {0, 1, 2, 3, 3, 2, 1, 0};
    bytes big(150 * 60);
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<uint8_t>(i * 37 >> 4);
    struct {
        const char *what;
        int width, height, colours, min_code;
        bytes data;
        std::vector<bytes> want_rows;  // leading bytes of each row
    } cases[] = {
        // Clear 4, End 5.  1, 1 adds 6 = "11"; 6 gives "11" and adds 7, which
        // widens codes to 4 bits; 8 is the entry being built: "11" + "1".  Then
        // a Clear (at 4 bits), 2 and 0 at 3 bits, and End before the last row.
        {"clear mid-stream, a string followed by itself, End early", 3, 4, 4, 2,
         pack_codes({{4, 3}, {1, 3}, {1, 3}, {6, 3}, {8, 4}, {4, 4}, {2, 3}, {0, 3}, {5, 3}}),
         {{0x11, 0x10}, {0x11, 0x10}, {0x12, 0x00}, {0, 0}}},
        // 9000 pixels through a table that fills at 4096 and is never cleared.
        {"full table without a clear", 150, 60, 256, 8, plain_lzw(big, 8), {}},
        {"minimum code size 0", 4, 2, 16, 0, plain_lzw(seq, 4), {{0x01, 0x23}, {0x32, 0x10}}},
        {"minimum code size 9", 4, 2, 16, 9, plain_lzw(seq, 4), {{0x01, 0x23}, {0x32, 0x10}}},
        {"minimum code size 12", 4, 2, 16, 12, plain_lzw(seq, 4), {{0x01, 0x23}, {0x32, 0x10}}},
    };
    for (auto &c : cases) {
        gif_recipe r;
        r.global = ramp_table(c.colours);
        r.width = c.width, r.height = c.height, r.min_code = c.min_code, r.data = c.data;
        picture p = load_pic(build(r));
        ASSERT_EQ(p.height, c.height) << c.what;
        for (int y = 0; y < c.height; y++) {
            const bytes want = c.want_rows.empty() ? bytes(big.begin() + c.width * y, big.begin() + c.width * (y + 1))
                                                   : c.want_rows[y];
            EXPECT_EQ(bytes(p.rows[y].begin(), p.rows[y].begin() + want.size()), want) << c.what << " row " << y;
        }
    }
    // A code past the table ends the decode quietly with the rows so far.
    gif_recipe r;
    r.global = ramp_table(256);
    r.width = 4, r.height = 3;
    r.data = pack_codes({{256, 9}, {1, 9}, {2, 9}, {3, 9}, {4, 9}, {5, 9}, {400, 9}, {6, 9}});
    jpeg_testing::sink s;
    block_ref file(build(r));
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(file.data, 0, jpeg_testing::sink_row, &s, jpeg_testing::sink_begin), 0);
    EXPECT_EQ(s.rows, std::vector<bytes>({{1, 2, 3, 4}, {}, {}}));
}

// A stream must start with a Clear code; a stray byte before the image
// separator is scanned past.  (Damaged and cut files are the gif fuzz seeds
// and the read budgets of check_load_faults.)
TEST(Gif, ClearFirstAndStrayBytesBeforeTheSeparator) {
    gif_recipe r;
    r.global = ramp_table(256);
    r.width = 20, r.height = 10;
    bytes px(200);
    for (size_t i = 0; i < px.size(); i++) px[i] = static_cast<uint8_t>(i);
    r.data = plain_lzw(px, 8);
    r.extensions = {{';'}};
    EXPECT_GE(load_code(build(r)), 0);
    r.data[0] = 7;
    EXPECT_EQ(load_code(build(r)), IMG_ERR_HEADER);
}

TEST(Gif, LzwDecoderDirectlyOverASource) {
    // The decoder alone, fed sub-blocks from memory: 4-bit rows pack two
    // indices to a byte and mask out-of-range indices to their low nibble.
    bytes stream;
    bytes codes = plain_lzw({1, 2, 0x1F, 4, 5, 6}, 8);
    stream.push_back(static_cast<uint8_t>(codes.size()));
    stream.insert(stream.end(), codes.begin(), codes.end());
    stream.push_back(0);
    block_ref b(stream);
    memory_source_set(b.data);
    byte_source src;
    ASSERT_TRUE(source_open(src, MEMORY_FD, 0, 512));
    dib_header h{};
    h.info.biWidth = 3, h.info.biHeight = 2, h.info.biBitCount = 4;
    jpeg_testing::sink s;
    s.rows.resize(2);
    EXPECT_EQ(gif_lzw_decode(src, &h, jpeg_testing::sink_row, &s, 3 | 8 << 8), 0);
    EXPECT_EQ(s.rows, std::vector<bytes>({{0x12, 0xF0, 0, 0}, {0x45, 0x60, 0, 0}}));
    scratch_free_all();
}
