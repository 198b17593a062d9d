// Sun raster: files built from recipes (depths, raw and run-length data,
// every map type) against the rows they must give, run edge cases, faults
// and hostile headers.
#include "codecs/codecs.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

void put32be(bytes &f, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) f.push_back(static_cast<uint8_t>(v >> s));
}

// Byte-encoded runs over the whole stream, so runs cross row ends.
bytes rle(const bytes &d) {
    bytes out;
    for (size_t i = 0; i < d.size();) {
        size_t n = 1;
        while (i + n < d.size() && n < 256 && d[i + n] == d[i]) n++;
        if (n >= 3 || d[i] == 0x80) {
            if (n == 1) {
                out.insert(out.end(), {0x80, 0x00});
            } else {
                out.insert(out.end(), {0x80, static_cast<uint8_t>(n - 1), d[i]});
            }
            i += n;
        } else {
            out.push_back(d[i++]);
        }
    }
    return out;
}

bytes build(uint32_t w, uint32_t h, uint32_t depth, uint32_t type, uint32_t map_type, const bytes &map,
            const bytes &data) {
    bytes f;
    for (uint32_t v : {0x59A66A95u, w, h, depth, uint32_t(data.size()), type, map_type, uint32_t(map.size())})
        put32be(f, v);
    f.insert(f.end(), map.begin(), map.end());
    bytes body = type == 2 ? rle(data) : data;
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

int read(const bytes &f, sink &s) { return run_reader_on(f, s, sunras_read_file); }

uint8_t pattern(uint32_t i) { return static_cast<uint8_t>(i * 7 % 5 == 0 ? 0x80 : (i / 9) * 31 + i % 3); }

}  // namespace

TEST(SunRaster, DepthsTypesAndMapsGiveTheirRows) {
    struct recipe {
        uint32_t depth, map_type;
    };
    for (recipe r : {recipe{1, 0}, {8, 0}, {8, 1}, {24, 0}, {32, 0}, {1, 1}})
        for (uint32_t type : {1u, 2u, 3u})
            for (auto [w, h] : {std::pair{1u, 1u}, {13u, 5u}, {301u, 4u}}) {
                const uint32_t file_row = (w * r.depth + 15) / 16 * 2;
                const int bits = r.depth > 24 ? 24 : static_cast<int>(r.depth);
                bytes data(file_row * h);
                for (uint32_t i = 0; i < data.size(); i++) data[i] = pattern(i + w);
                bytes map;
                const uint32_t n = r.depth == 1 ? 2 : 256;
                if (r.map_type == 1)
                    for (uint32_t i = 0; i < 3 * n; i++) map.push_back(static_cast<uint8_t>(i * 13 + 5));
                sink s;
                ASSERT_EQ(read(build(w, h, r.depth, type, r.map_type, map, data), s), 0)
                    << r.depth << " bits, type " << type << ", " << w << "x" << h;
                EXPECT_EQ(s.info.biBitCount, bits);
                for (uint32_t y = 0; y < h; y++) {
                    bytes want(row_bytes(w, bits));
                    const uint8_t *in = &data[y * file_row];
                    for (uint32_t x = 0; x < (r.depth == 32 ? w : 0); x++) std::memcpy(&want[3 * x], in + 4 * x + 1, 3);
                    if (r.depth != 32) std::memcpy(want.data(), in, std::min<size_t>(file_row, want.size()));
                    ASSERT_EQ(s.rows[y].size(), want.size());
                    // Bytes past the pixels are padding, not checked.
                    const size_t used = (uint64_t{w} * bits + 7) / 8;
                    EXPECT_TRUE(std::equal(want.begin(), want.begin() + used, s.rows[y].begin()))
                        << r.depth << " bits, type " << type << ", row " << y;
                }
                for (uint32_t i = 0; i < (bits == 24 ? 0 : n); i++) {
                    const uint8_t *e = &s.palette[4 * i];
                    uint8_t b = r.map_type ? map[2 * n + i] : bits == 8 ? i : 255 * (1 - i);
                    uint8_t g = r.map_type ? map[n + i] : b, red = r.map_type ? map[i] : b;
                    ASSERT_EQ(bytes(e, e + 3), (bytes{b, g, red})) << r.depth << " bits, map " << r.map_type << " entry " << i;
                }
            }
}

TEST(SunRaster, RunsEscapesAndRawMaps) {
    struct {
        const char *what;
        bytes coded;
        bytes rows;  // two rows of four bytes (8 pixels of 8 bits, width 4)
    } cases[] = {
        {"0x80 5 v is six bytes", {0x80, 0x05, 0x33, 1, 2}, {0x33, 0x33, 0x33, 0x33, 0x33, 0x33, 1, 2}},
        {"0x80 0 is one 0x80", {0x80, 0x00, 9, 9, 9, 0x80, 0x00, 4, 5, 6}, {0x80, 9, 9, 9, 0x80, 4, 5, 6}},
        {"a run ends mid-row", {7, 0x80, 0x02, 0x11, 0x80, 0x02, 0x22, 8}, {7, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 8}},
    };
    for (auto &c : cases) {
        bytes f = build(4, 2, 8, 1, 0, {}, {});
        f[23] = 2;  // run-length, the coded bytes as given
        f.insert(f.end(), c.coded.begin(), c.coded.end());
        sink s;
        ASSERT_EQ(read(f, s), 0) << c.what;
        EXPECT_EQ(s.rows[0], bytes(c.rows.begin(), c.rows.begin() + 4)) << c.what;
        EXPECT_EQ(s.rows[1], bytes(c.rows.begin() + 4, c.rows.end())) << c.what;
    }
    // A raw map of six bytes lands at table bytes 2, 5, 8 and 14, 17, 20.
    sink s;
    ASSERT_EQ(read(build(2, 1, 8, 1, 2, {1, 2, 3, 4, 5, 6}, {0, 1}), s), 0);
    bytes want(24);
    want[2] = 1, want[5] = 2, want[8] = 3, want[14] = 4, want[17] = 5, want[20] = 6;
    EXPECT_EQ(bytes(s.palette.begin(), s.palette.begin() + 24), want);
}

TEST(SunRaster, HostileFilesFaultsAndRowCodes) {
    bytes good = build(40, 10, 8, 2, 1, bytes(768, 7), bytes(400, 0x41));
    struct {
        const char *what;
        size_t at;
        uint32_t value;
        int code;
    } cases[] = {
        {"magic", 0, 0x59A66A96u, IMG_ERR_HEADER},     {"zero width", 4, 0, IMG_ERR_HEADER},
        {"zero height", 8, 0, IMG_ERR_HEADER},         {"huge width", 4, 0xFFFFFFF0u, IMG_ERR_HEADER},
        {"width past rows", 4, 0x7FFFFFFFu, IMG_ERR_HEADER}, {"depth 4", 12, 4, IMG_ERR_TYPE},
        {"map past the end", 28, 0x7FFFFFF0u, IMG_ERR_DATA},  {"rows past the end", 8, 50000, IMG_ERR_DATA},
    };
    for (auto &c : cases) {
        bytes f = good;
        for (int k = 0; k < 4; k++) f[c.at + k] = static_cast<uint8_t>(c.value >> (24 - 8 * k));
        sink s;
        EXPECT_EQ(read(f, s), c.code) << c.what;
    }
    for (size_t n = 1; n < good.size(); n += 7) {
        sink s;
        int rc = read(bytes(good.begin(), good.begin() + n), s);
        EXPECT_EQ(rc, IMG_ERR_DATA) << "cut at " << n;
        EXPECT_EQ(s.bad_rows, 0);
    }
    check_load_faults(good, TRICKLES);
    sink s;
    s.fail_at_row = 3, s.fail_code = -31;
    EXPECT_EQ(read(good, s), -31);
    EXPECT_TRUE(s.rows[4].empty());
}
