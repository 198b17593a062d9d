// Decoded-row checksums for the TIFF strip decoders and the row converter:
// LZW and PackBits strips made here from known pictures (compared with the
// source rows as well), odd and damaged streams, and every converter path.
#include "codecs/tiff_test_util.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <map>

namespace {

uint32_t lcg(uint32_t &s) {
    s = s * 1664525u + 1013904223u;
    return s >> 8;
}

// FNV-1a over the result, the number of rows and every delivered row.
uint64_t checksum(const decoded &d) {
    uint64_t h = 1469598103934665603ull;
    auto mix = [&h](uint8_t v) { h = (h ^ v) * 1099511628211ull; };
    for (int v : {d.rc, d.calls, d.bits()})
        for (int k = 0; k < 4; k++) mix(static_cast<uint8_t>(static_cast<uint32_t>(v) >> 8 * k));
    for (const bytes &row : d.rows) {
        mix(static_cast<uint8_t>(row.size()));
        mix(static_cast<uint8_t>(row.size() >> 8));
        for (uint8_t v : row) mix(v);
    }
    return h;
}

std::string hex(uint64_t v) {
    char s[24];
    std::snprintf(s, sizeof s, "0x%016" PRIx64, v);
    return s;
}

// ---- Strip makers -------------------------------------------------------------------------------
// Codes most significant bit first, the width growing when the encoder's
// next code reaches a power of two (the decoder's early change), a Clear
// when the table is full.
struct code_writer {
    bytes out;
    uint64_t acc = 0;
    int n = 0;
    void put(int code, int width) {
        acc = acc << width | static_cast<uint32_t>(code);
        n += width;
        while (n >= 8) {
            out.push_back(static_cast<uint8_t>(acc >> (n - 8)));
            n -= 8;
        }
    }
    bytes finish() {
        if (n) out.push_back(static_cast<uint8_t>(acc << (8 - n)));
        n = 0;
        return out;
    }
};

bytes lzw_encode(const bytes &data, bool end = true) {
    code_writer w;
    std::map<uint32_t, int> table;
    int next = 258, width = 9, prefix = -1;
    w.put(256, width);
    for (uint8_t c : data) {
        if (prefix < 0) {
            prefix = c;
            continue;
        }
        uint32_t key = static_cast<uint32_t>(prefix) << 8 | c;
        if (auto it = table.find(key); it != table.end()) {
            prefix = it->second;
            continue;
        }
        w.put(prefix, width);
        table[key] = next;
        if (++next == 4094) {
            w.put(256, width);
            table.clear();
            next = 258;
            width = 9;
        } else if (next == 1 << width) {
            width++;
        }
        prefix = c;
    }
    if (prefix >= 0) {
        w.put(prefix, width);
        if (++next == 1 << width && width < 12) width++;
    }
    if (end) w.put(257, width);
    return w.finish();
}

// Repeats of three or more become runs, the rest literals of up to 128.
bytes packbits_encode(const bytes &row) {
    bytes out;
    size_t i = 0;
    while (i < row.size()) {
        size_t run = 1;
        while (i + run < row.size() && run < 128 && row[i + run] == row[i]) run++;
        if (run >= 3) {
            out.push_back(static_cast<uint8_t>(257 - run));
            out.push_back(row[i]);
            i += run;
            continue;
        }
        size_t start = i, n = 0;
        while (i < row.size() && n < 128) {
            if (i + 2 < row.size() && row[i] == row[i + 1] && row[i] == row[i + 2]) break;
            i++, n++;
        }
        out.push_back(static_cast<uint8_t>(n - 1));
        out.insert(out.end(), row.begin() + static_cast<long>(start), row.begin() + static_cast<long>(i));
    }
    return out;
}

// Picture rows of a given kind: noise, flat runs, long repeats, or a mix.
enum class kind { noise, flat, repeats, mixed };
std::vector<bytes> rows_of(kind k, size_t row_bytes, size_t height, uint32_t seed) {
    std::vector<bytes> rows(height, bytes(row_bytes));
    uint32_t s = seed;
    for (size_t y = 0; y < height; y++)
        for (size_t x = 0; x < row_bytes; x++) {
            uint8_t v;
            switch (k) {
            case kind::noise: v = static_cast<uint8_t>(lcg(s)); break;
            case kind::flat: v = static_cast<uint8_t>(y / 3 * 40); break;
            case kind::repeats: v = static_cast<uint8_t>((x % 97) * 3 + (x / 1500)); break;
            default: v = (x / 37 + y) % 3 ? static_cast<uint8_t>((x / 11) * 7) : static_cast<uint8_t>(lcg(s) & 7); break;
            }
            rows[y][x] = v;
        }
    return rows;
}

bytes concat(const std::vector<bytes> &rows, size_t from, size_t count) {
    bytes out;
    for (size_t i = from; i < from + count && i < rows.size(); i++) out.insert(out.end(), rows[i].begin(), rows[i].end());
    return out;
}

// Strips of rows_per_strip rows each, one stream per strip.
std::vector<bytes> lzw_strips(const std::vector<bytes> &rows, size_t rps) {
    std::vector<bytes> strips;
    for (size_t y = 0; y < rows.size(); y += rps) strips.push_back(lzw_encode(concat(rows, y, rps)));
    return strips;
}
std::vector<bytes> packbits_strips(const std::vector<bytes> &rows, size_t rps) {
    std::vector<bytes> strips;
    for (size_t y = 0; y < rows.size(); y += rps) {
        bytes s;
        for (size_t i = y; i < y + rps && i < rows.size(); i++) {
            bytes r = packbits_encode(rows[i]);
            s.insert(s.end(), r.begin(), r.end());
        }
        strips.push_back(s);
    }
    return strips;
}

// The delivered row as the DIB holds it: gray as is, RGB swapped to BGR.
bytes expected_row(const bytes &src, uint32_t samples, uint32_t dib_row) {
    bytes out(dib_row, 0);
    if (samples == 3)
        for (size_t x = 0; x + 2 < src.size(); x += 3) out[x] = src[x + 2], out[x + 1] = src[x + 1], out[x + 2] = src[x];
    else
        std::copy(src.begin(), src.end(), out.begin());
    return out;
}

// ---- Strip decoders on pictures whose rows are known ------------------------------------------------
struct strip_case {
    const char *name;
    uint32_t compression, width, height, samples, rps;
    kind k;
    bool mm;
    uint64_t golden;
};

class TiffStripGolden : public ::testing::TestWithParam<strip_case> {};

TEST_P(TiffStripGolden, DecodesTheSourceRows) {
    const strip_case &c = GetParam();
    const uint32_t rb = c.width * c.samples;
    std::vector<bytes> rows = rows_of(c.k, rb, c.height, c.width * 31 + c.height);
    std::vector<bytes> strips = c.compression == 5 ? lzw_strips(rows, c.rps) : packbits_strips(rows, c.rps);
    tiff_page p = simple_page(c.width, c.height, 8, c.samples, c.samples == 3 ? 2 : 1, c.compression, strips, c.rps);
    decoded d = run_tiff(build_tiff({p}, c.mm));
    ASSERT_EQ(d.rc, 1);
    ASSERT_EQ(d.rows.size(), c.height);
    const uint32_t dib_row = (rb + 3) & ~3u;
    for (uint32_t y = 0; y < c.height; y++) ASSERT_EQ(d.rows[y], expected_row(rows[y], c.samples, dib_row)) << "row " << y;
    EXPECT_EQ(hex(checksum(d)), hex(c.golden));
    // A memory block is decoded where it stands, a file through reads: same bitmap.
    const bytes file = build_tiff({p}, c.mm);
    const std::string name = temp_path(std::string(c.name) + ".tif");
    write_file(name, file);
    int from_file = IMG_decompress_bitmap(name.c_str()), from_memory = load_bytes(file);
    ASSERT_GE(from_file, 0);
    ASSERT_GE(from_memory, 0);
    EXPECT_EQ(picture_of(from_file), picture_of(from_memory));
    IMG_delete_bitmap(from_file);
    IMG_delete_bitmap(from_memory);
    std::remove(name.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    TiffGolden, TiffStripGolden,
    ::testing::Values(
        // One long strip of noise: the table fills, the width passes 511, 1023
        // and 2047, Clear codes come mid-strip and codes straddle row ends.
        strip_case{"lzw_noise_one_strip", 5, 701, 40, 3, 0xFFFFFFFF, kind::noise, false, 0xd2ab640254247205ull},
        // Flat rows: nearly every code is the one being defined.
        strip_case{"lzw_flat_kwkwk", 5, 333, 30, 1, 7, kind::flat, true, 0x916ba5f2253f95d4ull},
        // Long strings that outgrow the row buffer and must be rebuilt after it moves.
        strip_case{"lzw_long_strings", 5, 3001, 12, 1, 0xFFFFFFFF, kind::repeats, false, 0x0296a86b91e4fdb6ull},
        strip_case{"lzw_mixed_small_strips", 5, 250, 50, 3, 3, kind::mixed, false, 0xa3a6a55fc487649bull},
        strip_case{"lzw_one_row_strips", 5, 2000, 9, 3, 1, kind::noise, true, 0xf949be5545be98b1ull},
        strip_case{"lzw_narrow", 5, 1, 70, 1, 9, kind::mixed, false, 0x74af69f6c4c3b9e5ull},
        // PackBits: rows wider than the read buffer, runs that straddle refills.
        strip_case{"packbits_noise_wide", 32773, 4001, 10, 3, 4, kind::noise, false, 0x65dd9c0f3c042256ull},
        strip_case{"packbits_mixed", 32773, 997, 60, 3, 7, kind::mixed, true, 0x037f4611a77646d1ull},
        strip_case{"packbits_flat", 32773, 5000, 20, 1, 0xFFFFFFFF, kind::flat, false, 0x2dd710328bdd5c2eull},
        strip_case{"packbits_one_row_strips", 32773, 2000, 9, 3, 1, kind::repeats, false, 0x7dcac92582bc06c5ull},
        strip_case{"packbits_narrow", 32773, 3, 33, 1, 5, kind::noise, false, 0x0e50eb241a187782ull}),
    [](const auto &info) { return std::string(info.param.name); });

// ---- Odd and damaged streams: what they decode to now ---------------------------------------------
struct stream_case {
    const char *name;
    uint32_t compression, width, height, bits, samples, rps, predictor;
    std::vector<bytes> strips;
    uint64_t golden;
    bool at_end = false;  // strips behind the IFD, so a short one meets the end of the file
};

bytes drop_tail(bytes b, size_t n) {
    b.resize(b.size() > n ? b.size() - n : 0);
    return b;
}
bytes poke(bytes b, size_t at, uint8_t v) {
    if (at < b.size()) b[at] = v;
    return b;
}

std::vector<stream_case> stream_cases() {
    const std::vector<bytes> noise = rows_of(kind::noise, 900, 6, 5), mixed = rows_of(kind::mixed, 900, 6, 6);
    const bytes whole = lzw_encode(concat(mixed, 0, 6));
    // A 128-byte literal for a 10-byte row, then a literal and a run.
    bytes overrun{0x7F};
    for (int v = 1; v <= 128; v++) overrun.push_back(static_cast<uint8_t>(v));
    for (int v : {0x02, 9, 8, 7, 0xF7, 6}) overrun.push_back(static_cast<uint8_t>(v));
    return {
        // An end code after two of three rows: the third repeats the buffer
        // (zero where no code reached, as the next test spells out).
        {"lzw_early_end", 5, 300, 3, 8, 3, 3, 1, {lzw_encode(concat(mixed, 0, 2))}, 0x4985a30a8e454dc0ull},
        // Runs out mid-strip: in a full strip passed over, in the last one an error.
        {"lzw_cut_full_strip", 5, 300, 6, 8, 3, 3, 1, {drop_tail(lzw_encode(concat(noise, 0, 3)), 200), lzw_encode(concat(noise, 3, 3))}, 0x9136a410abc98020ull},
        {"lzw_cut_last_strip", 5, 300, 5, 8, 3, 3, 1, {lzw_encode(concat(noise, 0, 3)), drop_tail(lzw_encode(concat(noise, 3, 2)), 100)}, 0x68cad360aaa77f2bull},
        // A code beyond the table part way through a strip.
        {"lzw_bad_code_mid_strip", 5, 900, 6, 8, 1, 6, 1, {poke(whole, whole.size() / 2, 0xFF)}, 0x35f3318bc0fa6940ull},
        // No end code: the next strip's bytes follow straight on.
        {"lzw_no_end_code", 5, 300, 4, 8, 3, 2, 1, {lzw_encode(concat(mixed, 0, 2), false), lzw_encode(concat(mixed, 2, 2), false)}, 0xbe535d42b74bba80ull},
        // Horizontal differencing over 8-bit RGB and 16-bit gray and RGB rows.
        {"lzw_predictor_rgb8", 5, 300, 6, 8, 3, 2, 2, {lzw_encode(concat(noise, 0, 2)), lzw_encode(concat(noise, 2, 2)), lzw_encode(concat(noise, 4, 2))}, 0xa376cf644703e760ull},
        {"lzw_predictor_gray16", 5, 450, 6, 16, 1, 6, 2, {lzw_encode(concat(mixed, 0, 6))}, 0x1b288762d96546e0ull},
        {"lzw_predictor_rgb16", 5, 150, 6, 16, 3, 6, 2, {lzw_encode(concat(noise, 0, 6))}, 0x5db2f1bea7777680ull},
        {"lzw_bilevel", 5, 7200, 6, 1, 1, 3, 1, {lzw_encode(concat(mixed, 0, 3)), lzw_encode(concat(mixed, 3, 3))}, 0xcaf90aacb2ae7380ull},
        // PackBits: 0x80 repeats 129 times, literals that run past the row end
        // are dropped, and data that ends mid-row.
        {"packbits_0x80", 32773, 300, 2, 8, 1, 2, 1, {{0x80, 0x55, 0x80, 0x66, 0xD8, 0x77, 0x80, 1, 0x80, 2, 0xFF, 3}}, 0x1ff32240917ca21bull},
        {"packbits_literal_overrun", 32773, 10, 3, 8, 1, 3, 1, {overrun}, 0x32d4fc5ec7c750a9ull},
        {"packbits_cut", 32773, 300, 4, 8, 3, 2, 1, {drop_tail(packbits_strips(noise, 2)[0], 700), packbits_strips(noise, 2)[1]}, 0x116f82d5b228db40ull},
        {"packbits_predictor_rgb", 32773, 300, 6, 8, 3, 3, 2, packbits_strips(mixed, 3), 0x5f5b4b673427df40ull},
        {"packbits_cut_at_end", 32773, 300, 4, 8, 3, 2, 1, {packbits_strips(noise, 2)[0], drop_tail(packbits_strips(noise, 2)[1], 700)}, 0xf2ffc0e37ac46c00ull, true},
        {"lzw_cut_at_end", 5, 300, 5, 8, 3, 3, 1, {lzw_encode(concat(noise, 0, 3)), drop_tail(lzw_encode(concat(noise, 3, 2)), 300)}, 0x16147e083847c920ull, true},
    };
}

// A strip cut short by its end code repeats its unfinished row, and the
// bytes no code reached are zero, not what an earlier strip left behind.
TEST(TiffGoldenLzw, EndCodeLeavesUndecodedBytesZero) {
    tiff_page p = simple_page(6, 4, 8, 1, 1, 5, {lzw_encode(bytes(12, 9)), lzw_encode({1, 2, 3})}, 2);
    for (bool mm : {false, true}) {
        decoded d = run_tiff(build_tiff({p}, mm));
        ASSERT_EQ(d.rc, 1);
        ASSERT_EQ(d.rows.size(), 4u);
        const bytes nines{9, 9, 9, 9, 9, 9, 0, 0}, cut{1, 2, 3, 0, 0, 0, 0, 0};
        EXPECT_EQ(d.rows[0], nines);
        EXPECT_EQ(d.rows[1], nines);
        EXPECT_EQ(d.rows[2], cut);
        EXPECT_EQ(d.rows[3], cut);
    }
}

class TiffStreamGolden : public ::testing::TestWithParam<size_t> {};

TEST_P(TiffStreamGolden, DecodesAsBefore) {
    const stream_case c = stream_cases()[GetParam()];
    tiff_page p = simple_page(c.width, c.height, c.bits, c.samples, c.samples == 3 ? 2 : 1, c.compression, c.strips, c.rps);
    if (c.predictor != 1) set_field(p, 317, 3, {c.predictor});
    uint64_t both = 0;
    std::string results;
    for (bool mm : {false, true}) {
        decoded d = run_tiff(c.at_end ? strips_at_end(p, p.strips, mm) : build_tiff({p}, mm));
        both = both * 31 + checksum(d);
        results += " " + std::to_string(d.rc) + "/" + std::to_string(d.calls);
    }
    EXPECT_EQ(hex(both), hex(c.golden)) << "results and rows:" << results;
}

INSTANTIATE_TEST_SUITE_P(TiffGolden, TiffStreamGolden, ::testing::Range<size_t>(0, stream_cases().size()),
                         [](const auto &info) { return std::string(stream_cases()[info.param].name); });

// ---- Every row converter path, through uncompressed strips ----------------------------------------
struct convert_case {
    const char *name;
    uint32_t bits, samples, photometric, predictor, planar, ycbcr;
    uint64_t golden;
};

class TiffConvertGolden : public ::testing::TestWithParam<convert_case> {};

TEST_P(TiffConvertGolden, ConvertsAsBefore) {
    const convert_case &c = GetParam();
    uint64_t all = 0;
    for (uint32_t width : {1u, 6u, 37u, 70u})
        for (bool mm : {false, true}) {
            const uint32_t height = 3;
            const uint64_t plane_bits = static_cast<uint64_t>(width) * c.bits;
            const size_t row = c.planar == 2 ? (plane_bits + 7) / 8 : (plane_bits * c.samples + 7) / 8;
            const size_t rows = c.planar == 2 ? height * c.samples : height;
            uint32_t s = width * 7 + c.bits;
            bytes strip(row * rows);
            for (uint8_t &v : strip) v = static_cast<uint8_t>(lcg(s));
            // Planar pages list one strip per plane.
            std::vector<bytes> strips;
            for (size_t at = 0; at < strip.size(); at += row * height)
                strips.emplace_back(strip.begin() + at, strip.begin() + at + (c.planar == 2 ? row * height : strip.size()));
            tiff_page p = simple_page(width, height, c.bits, c.samples, c.photometric, 1, strips);
            if (c.predictor != 1) set_field(p, 317, 3, {c.predictor});
            if (c.planar != 1) set_field(p, 284, 3, {c.planar});
            if (c.ycbcr) set_field(p, 530, 3, {c.ycbcr & 0xFFFF, c.ycbcr >> 16});
            decoded d = run_tiff(build_tiff({p}, mm));
            all = all * 31 + checksum(d);
        }
    EXPECT_EQ(hex(all), hex(c.golden));
}

INSTANTIATE_TEST_SUITE_P(
    TiffGolden, TiffConvertGolden,
    ::testing::Values(convert_case{"bilevel_white_is_zero", 1, 1, 0, 1, 1, 0, 0x075ef15f0d391480ull},
                      convert_case{"bilevel", 1, 1, 1, 1, 1, 0, 0x5d3d6750dd762680ull},
                      convert_case{"gray2", 2, 1, 1, 1, 1, 0, 0xd6b5742acbea9800ull},
                      convert_case{"gray4_white_is_zero", 4, 1, 0, 1, 1, 0, 0x5439c79e1c3512a0ull},
                      convert_case{"gray4_predictor", 4, 1, 1, 2, 1, 0, 0xa4009d5c532463a0ull},
                      convert_case{"gray8_white_is_zero", 8, 1, 0, 1, 1, 0, 0x1cac2da642fed6a0ull},
                      convert_case{"gray8_predictor", 8, 1, 1, 2, 1, 0, 0x218bdb5c3a502b00ull},
                      convert_case{"gray16", 16, 1, 1, 1, 1, 0, 0x48d70e9ebaf79ca0ull},
                      convert_case{"gray16_predictor", 16, 1, 1, 2, 1, 0, 0x4911b526e89c2400ull},
                      convert_case{"gray_alpha8", 8, 2, 1, 1, 1, 0, 0xd47d54d8cadfb6c0ull},
                      convert_case{"palette8", 8, 1, 3, 1, 1, 0, 0x0377d246e02f7320ull},
                      convert_case{"rgb8", 8, 3, 2, 1, 1, 0, 0x480e88023898d100ull},
                      convert_case{"rgb8_white_is_zero", 8, 3, 0, 1, 1, 0, 0x9b827c7797f8ccc0ull},
                      convert_case{"rgb8_predictor", 8, 3, 2, 2, 1, 0, 0xf362038892b88ce0ull},
                      convert_case{"rgb16", 16, 3, 2, 1, 1, 0, 0xe32edb7cb8a1d5a0ull},
                      convert_case{"rgb16_predictor", 16, 3, 2, 2, 1, 0, 0x791c1e1be9fdd800ull},
                      convert_case{"rgb4", 4, 3, 2, 1, 1, 0, 0x7d45d619e0d74e00ull},
                      convert_case{"rgb1", 1, 3, 2, 1, 1, 0, 0x6bc5f08d82db4200ull},
                      convert_case{"rgba8", 8, 4, 2, 1, 1, 0, 0x459a76befc749660ull},
                      convert_case{"rgba8_predictor", 8, 4, 2, 2, 1, 0, 0xd29d6c7fea2e8c00ull},
                      convert_case{"cmyk8", 8, 4, 5, 1, 1, 0, 0x4345a6d5cc6ab240ull},
                      convert_case{"cmyk_extra8", 8, 5, 5, 1, 1, 0, 0x8314505cd444e560ull},
                      convert_case{"ycbcr_subsampled", 8, 3, 6, 1, 1, 0x00010002, 0x46da7d999a56d040ull},
                      convert_case{"ycbcr_full", 8, 3, 6, 1, 1, 0x00010001, 0x15a7eb3abb739a60ull},
                      convert_case{"lab8", 8, 3, 8, 1, 1, 0, 0xb5974c17f343c4e0ull},
                      convert_case{"dither_index1x4", 1, 4, 2, 1, 1, 0, 0xc7ae7f689f81aa00ull},
                      convert_case{"rgba4", 4, 4, 2, 1, 1, 0, 0xf8c658721ba70200ull},
                      convert_case{"rgb8_planar", 8, 3, 2, 1, 2, 0, 0x42c747ade925e000ull},
                      convert_case{"rgb8_planar_predictor", 8, 3, 2, 2, 2, 0, 0xdcf47acd509dd880ull},
                      convert_case{"rgb16_planar", 16, 3, 2, 1, 2, 0, 0x4d20e690d62e8420ull},
                      convert_case{"rgb4_planar", 4, 3, 2, 1, 2, 0, 0xf945933cc41c3400ull},
                      convert_case{"rgb2", 2, 3, 2, 1, 1, 0, 0x52552ac924720ca0ull},
                      convert_case{"rgb2_planar", 2, 3, 2, 1, 2, 0, 0xa23df3c52e5616c0ull},
                      convert_case{"cmy8", 8, 3, 5, 1, 1, 0, 0x9b827c7797f8ccc0ull},
                      convert_case{"rgb1_planar", 1, 3, 2, 1, 2, 0, 0x797eab0dfa62c860ull},
                      convert_case{"cmyk1_planar", 1, 4, 2, 1, 2, 0, 0xd2e474a3a8e22ca0ull}),
    [](const auto &info) { return std::string(info.param.name); });

}  // namespace
