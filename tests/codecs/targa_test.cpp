// Targa: reader variants built from a truth picture (types, depths, maps,
// origins, ID fields, run-length packets across row ends), row callback
// codes, faults, and refused headers; cut files are swept by the read
// budgets of check_load_faults.  Grey files from other tools are the Targa
// rows of interop/readers_test.py.
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

// A truth picture as the reader must deliver it: for 15/16-bit sources
// every channel is a multiple of 8, as those files can only hold.
picture truth(int width, int height, int bits, bool five_bit, uint32_t seed) {
    picture p = make_picture(width, height, bits, seed);
    if (five_bit) {
        for (bytes &r : p.rows)
            for (uint8_t &v : r) v &= 0xF8;
        for (uint8_t &v : p.palette) v &= 0xF8;
    }
    if (bits == 8)
        for (int i = 0; i < 256; i++) p.palette[4 * i + 3] = 0;
    return p;
}

struct recipe {
    int type;
    int depth;
    int map_bits = 0;  // 0: no colour map
    int map_length = 256;
    bool top_down = false;
    int id_length = 0;
};

void put_pixel(bytes &out, const uint8_t *bgr, int depth, uint32_t &seed) {
    if (depth == 15 || depth == 16) {
        uint32_t w = bgr[0] >> 3 | (bgr[1] >> 3) << 5 | (bgr[2] >> 3) << 10 | (lcg_next(seed) & 1) << 15;
        out.push_back(static_cast<uint8_t>(w));
        out.push_back(static_cast<uint8_t>(w >> 8));
    } else {
        out.insert(out.end(), bgr, bgr + 3);
        if (depth == 32) out.push_back(static_cast<uint8_t>(lcg_next(seed)));
    }
}

// Run-length packets over the whole pixel stream, so runs cross row ends.
bytes rle_encode(const bytes &px, int bpp) {
    bytes out;
    size_t n = px.size() / bpp, i = 0;
    auto same = [&](size_t a, size_t b) { return std::memcmp(&px[a * bpp], &px[b * bpp], bpp) == 0; };
    while (i < n) {
        size_t run = 1;
        while (i + run < n && run < 128 && same(i, i + run)) run++;
        if (run >= 2) {
            out.push_back(static_cast<uint8_t>(0x80 | (run - 1)));
            out.insert(out.end(), px.begin() + i * bpp, px.begin() + (i + 1) * bpp);
            i += run;
            continue;
        }
        size_t raw = 1;
        while (i + raw < n && raw < 128 && !(i + raw + 1 < n && same(i + raw, i + raw + 1))) raw++;
        out.push_back(static_cast<uint8_t>(raw - 1));
        out.insert(out.end(), px.begin() + i * bpp, px.begin() + (i + raw) * bpp);
        i += raw;
    }
    return out;
}

bytes build_targa(const picture &p, const recipe &r, uint32_t seed = 9) {
    bytes f(18, 0);
    f[0] = static_cast<uint8_t>(r.id_length);
    f[1] = r.map_bits ? 1 : 0;
    f[2] = static_cast<uint8_t>(r.type);
    put16(&f[5], r.map_bits ? r.map_length : 0);
    f[7] = static_cast<uint8_t>(r.map_bits);
    put16(&f[12], p.width);
    put16(&f[14], p.height);
    f[16] = static_cast<uint8_t>(r.depth);
    f[17] = r.top_down ? 0x20 : 0;
    for (int i = 0; i < r.id_length; i++) f.push_back(static_cast<uint8_t>('A' + i));
    for (int i = 0; i < (r.map_bits ? r.map_length : 0); i++) {
        const uint8_t *e = &p.palette[4 * (i % 256)];
        uint8_t junk[3] = {1, 2, 3};
        put_pixel(f, i < 256 ? e : junk, r.map_bits, seed);
        if (r.map_bits == 32) f.back() = 0;  // the reserved byte the reader copies
    }
    bytes px;
    for (int i = 0; i < p.height; i++) {
        const bytes &row = p.rows[r.top_down ? i : p.height - 1 - i];
        for (int x = 0; x < p.width; x++) {
            if (r.depth == 8)
                px.push_back(row[x]);
            else
                put_pixel(px, &row[3 * x], r.depth, seed);
        }
    }
    int bpp = r.depth == 8 ? 1 : r.depth == 24 ? 3 : r.depth == 32 ? 4 : 2;
    if (r.type >= 9) px = rle_encode(px, bpp);
    f.insert(f.end(), px.begin(), px.end());
    return f;
}

int read_targa(const bytes &file, sink &s) { return run_reader_on(file, s, targa_read_file); }

}  // namespace

TEST(TargaRead, ColourTypesDepthsMapsAndOrigins) {
    std::vector<recipe> recipes;
    for (int type : {2, 10})
        for (int depth : {15, 16, 24, 32})
            for (bool top : {false, true}) recipes.push_back({type, depth, 0, 256, top, top ? 7 : 0});
    for (int type : {1, 9})
        for (int map_bits : {15, 16, 24, 32}) recipes.push_back({type, 8, map_bits, 256, map_bits == 24, 3});
    recipes.push_back({1, 8, 24, 300});  // only the first 256 map entries count
    recipes.push_back({9, 8, 16, 1000, true, 0});
    for (const recipe &r : recipes)
        for (auto [w, h] : {std::pair{1, 1}, {5, 3}, {61, 120}, {1700, 3}, {3400, 2}}) {
            bool five = r.depth == 15 || r.depth == 16 || r.map_bits == 15 || r.map_bits == 16;
            picture want = truth(w, h, r.depth == 8 ? 8 : 24, five, w * 7 + h + r.type);
            sink s;
            ASSERT_EQ(read_targa(build_targa(want, r), s), 0)
                << "type " << r.type << " depth " << r.depth << " map " << r.map_bits << " " << w << "x" << h;
            EXPECT_EQ(s.bad_rows, 0);
            EXPECT_EQ(picture_of_sink(s), want)
                << "type " << r.type << " depth " << r.depth << " map " << r.map_bits << " top " << r.top_down << " "
                << w << "x" << h;
        }
}

TEST(TargaRead, RefusedHeadersEndWithCleanCodes) {
    picture p = make_picture(20, 6, 24, 3);
    struct {
        const char *what;
        recipe r;
        size_t at;
        uint8_t value;
        int code;
    } cases[] = {
        {"image type 4", {2, 24}, 2, 4, IMG_ERR_TYPE},
        {"image type 32", {2, 24}, 2, 32, IMG_ERR_TYPE},
        {"depth 1", {2, 24}, 16, 1, IMG_ERR_TYPE},
        {"depth 12", {2, 24}, 16, 12, IMG_ERR_TYPE},
        {"zero width", {2, 24}, 12, 0, IMG_ERR_HEADER},
    };
    for (auto &c : cases) {
        bytes f = build_targa(p, c.r);
        f[c.at] = c.value;
        if (c.at == 12) f[13] = 0;
        sink s;
        EXPECT_EQ(read_targa(f, s), c.code) << c.what;
        EXPECT_EQ(s.begin_calls, 0) << c.what;
    }
}

TEST(TargaRead, FaultsAndRowCodes) {
    bytes f = build_targa(make_picture(40, 10, 24, 5), {10, 24});
    check_load_faults(f, TRICKLES);
    sink s;
    s.fail_at_row = 9 - 4, s.fail_code = -31;  // bottom-up: the fifth row read
    EXPECT_EQ(read_targa(f, s), -31);
    EXPECT_TRUE(s.rows[4].empty());
}
