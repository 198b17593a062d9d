// JPEG: decoder output pinned by golden checksums of files from independent
// tools, the tables kept between streams and refusals (header fields it
// refuses are lines of tests/data/jpeg/golden.txt);
// encoder densities, quality scaling, golden output bytes and writes cut
// short at every call (the interop tables check its pictures).
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <tuple>

using namespace jpeg_testing;

namespace {

int decode(const bytes &file, sink &s, int32_t offset = 0, int fail_after = 0) {
    return run_reader_on(file, s, jpeg_read_file, offset, fail_after);
}

struct segment {
    int marker;
    size_t at;  // position of the 0xFF
    int length;
};

// The segments up to and including the SOS (no fill bytes in these files).
std::vector<segment> segments(const bytes &f) {
    std::vector<segment> out;
    size_t p = 2;
    while (p + 4 <= f.size()) {
        int m = f[p] << 8 | f[p + 1], len = f[p + 2] << 8 | f[p + 3];
        out.push_back({m, p, len});
        if (m == 0xFFDA) break;
        p += 2 + len;
    }
    return out;
}

size_t find_segment(const bytes &f, int marker) {
    for (const segment &s : segments(f))
        if (s.marker == marker) return s.at;
    return 0;
}

}  // namespace

// ---- Decoder ----------------------------------------------------------------------

TEST(JpegDecode, FixturesFromIndependentToolsMatchGoldenChecksums) {
    int files = 0;
    for (const std::string &line : data_lines("jpeg/fixtures.txt")) {
        std::istringstream in(line);
        std::string file, hash;
        int bits, xdpi;
        in >> file >> bits >> xdpi >> hash;
        sink s;
        ASSERT_EQ(decode(fixture_bytes(file), s), 0) << file;
        EXPECT_EQ(s.begin_calls, 1);
        EXPECT_EQ(std::tie(s.info.biWidth, s.info.biHeight, s.info.biBitCount), std::tuple(67, 45, bits)) << file;
        EXPECT_EQ(std::tie(s.info.biXPelsPerMeter, s.info.biYPelsPerMeter), std::tuple(xdpi, xdpi))
            << file << ": densities pass through unconverted";
        EXPECT_EQ(s.bad_rows, 0);
        for (const bytes &r : s.rows) ASSERT_EQ(r.size(), row_bytes(67, bits)) << file;
        EXPECT_EQ(pixel_hash(s), std::stoull(hash, nullptr, 16)) << file;
        files++;
    }
    EXPECT_EQ(files, 8);
}

// A black picture: the transform's clamp at -127 leaves level 1.
TEST(JpegDecode, BlackNeverReachesZero) {
    picture p = smooth_picture(16, 8, kind::grey8, 0);
    for (bytes &r : p.rows) std::fill(r.begin(), r.end(), 0);
    IMGLOW_set_comp_quality(100);
    picture back = load_pic(save_pic(p, IMG_TYPE_JPEG));
    IMGLOW_set_comp_quality(50);
    ASSERT_EQ(back.height, 8);
    EXPECT_EQ(back.rows[0][0], 1);
}

// The SOI search's limit and a stream at an offset (restart intervals and a
// short lead are held against djpeg in interop/jpeg_test.py).
TEST(JpegDecode, SameCoefficientsDecodeTheSame) {
    const bytes c420 = fixture_bytes("c420.jpg"), c422 = fixture_bytes("c422.jpg");
    auto after = [](size_t n, uint8_t fill, const bytes &f) {
        bytes g(n, fill);
        g.insert(g.end(), f.begin(), f.end());
        return g;
    };
    struct {
        const char *what;
        bytes file;
        int32_t offset;
        const bytes &reference;
        int want;
    } cases[] = {
        {"1000 bytes of garbage", after(1000, 0x5A, c420), 0, c420, 0},
        {"1001 bytes of garbage: past the search", after(1001, 0x5A, c420), 0, c420, IMG_ERR_HEADER},
        {"a stream at an offset in a larger file", after(5000, 0xFF, c422), 5000, c422, 0},
    };
    for (auto &c : cases) {
        sink ref, s;
        ASSERT_EQ(decode(c.reference, ref), 0);
        ASSERT_EQ(decode(c.file, s, c.offset), c.want) << c.what;
        if (c.want == 0) EXPECT_EQ(s.rows, ref.rows) << c.what;
        else EXPECT_EQ(s.begin_calls, 0) << c.what;
    }
}

TEST(JpegDecode, ProgressiveArithmeticAndLosslessAreRefusedBeforeAnyStateIsUsed) {
    sink warm;
    ASSERT_EQ(decode(fixture_bytes("c444.jpg"), warm), 0);
    const jpeg_decoder_tables before = jpeg_tables;
    bytes lossless = fixture_bytes("c420.jpg");
    lossless[find_segment(lossless, 0xFFC0) + 1] = 0xC3;
    for (const bytes &f : {fixture_bytes("cprogressive.jpg"), fixture_bytes("carithmetic.jpg"), lossless}) {
        sink s;
        EXPECT_EQ(decode(f, s), IMG_ERR_TYPE);
        EXPECT_EQ(s.begin_calls, 0);
        EXPECT_EQ(std::memcmp(&before, &jpeg_tables, sizeof before), 0) << "the kept tables changed";
    }
}

TEST(JpegDecode, TablesAreKeptForStreamsThatDoNotDefineThem) {
    bytes full = save_pic(smooth_picture(40, 24, kind::rgb24, 3), IMG_TYPE_JPEG);
    ASSERT_FALSE(full.empty());
    // Split into a tables-only stream and an abbreviated image stream.
    bytes tables = {0xFF, 0xD8}, image = {0xFF, 0xD8};
    for (const segment &s : segments(full)) {
        bytes &dst = s.marker == 0xFFDB || s.marker == 0xFFC4 ? tables : image;
        if (s.marker == 0xFFDA) break;
        dst.insert(dst.end(), full.begin() + s.at, full.begin() + s.at + 2 + s.length);
    }
    image.insert(image.end(), full.begin() + find_segment(full, 0xFFDA), full.end());
    tables.insert(tables.end(), {0xFF, 0xD9});

    sink ref;
    ASSERT_EQ(decode(full, ref), 0);
    sink kept;
    ASSERT_EQ(decode(image, kept), 0) << "tables from the previous stream";
    EXPECT_EQ(kept.rows, ref.rows);

    jpeg_reset_tables();
    sink none;
    EXPECT_EQ(decode(image, none), IMG_ERR_HEADER) << "no tables: every code is invalid";

    block_ref b(tables);
    memory_source_set(b.data);
    EXPECT_EQ(jpeg_read_tables(MEMORY_FD, 0), 0);
    EXPECT_EQ(scratch_count(), 0);
    sink loaded;
    ASSERT_EQ(decode(image, loaded), 0);
    EXPECT_EQ(loaded.rows, ref.rows);
}

TEST(JpegDecode, CallbackCodesStopTheDecode) {
    const bytes f = fixture_bytes("c422.jpg");
    sink s;
    s.fail_at_row = 20, s.fail_code = -5;
    EXPECT_EQ(decode(f, s), -5);
    EXPECT_TRUE(s.rows[21].empty()) << "no row after the refusal";
}

// ---- Encoder ---------------------------------------------------------------------------

TEST(JpegEncode, DensitiesAreWrittenAsDotsPerInch) {
    picture p = smooth_picture(8, 8, kind::rgb24, 0);
    for (auto [x, y, want_x, want_y] : {std::array{300, 200, 300, 200}, {0, 150, 96, 96}}) {
        bytes f = save_at_dpi(p, IMG_TYPE_JPEG, x, y);
        ASSERT_GT(f.size(), 20u);
        EXPECT_EQ(std::string(f.begin() + 6, f.begin() + 11), std::string("JFIF\0", 5));
        EXPECT_EQ(f[13], 1) << "units: dots per inch";
        EXPECT_EQ(get16be(&f[14]), want_x);
        EXPECT_EQ(get16be(&f[16]), want_y);
    }
}

// Qualities are pinned by the golden bytes below; out of range they clamp.
TEST(JpegEncode, QualityClamps) {
    picture p = smooth_picture(8, 8, kind::rgb24, 0);
    auto at = [&](int q) {
        IMGLOW_set_comp_quality(q);
        return save_pic(p, IMG_TYPE_JPEG);
    };
    EXPECT_EQ(at(150), at(100));
    EXPECT_EQ(at(0), at(1));
    EXPECT_EQ(at(-40), at(1));
    EXPECT_NE(at(1), at(100));
    IMGLOW_set_comp_quality(50);
}

// Output pinned across the depths a save takes (8-bit grey and mapped,
// 24-bit; 4- and 32-bit handles are converted or refused on the way), sizes
// padding the right and bottom edges, and qualities 1 to 100 (noise at 100
// makes long codes and stuffed 0xFF bytes): each row's hash runs on through
// the bytes of every quality, and the lane kernels must give the same bytes
// as the plain ones.
TEST(JpegEncode, GoldenOutputAcrossDepthsSizesAndQualities) {
    struct {
        int width, height, bits;  // bits 0: smooth 24-bit, -1: smooth grey, -2: smooth mapped
        uint64_t hash;
    } cases[] = {{1, 1, 24, 0x98d525db37d22066}, {17, 9, 24, 0x8dcecdc0c262af3b}, {33, 31, 24, 0xfa105d13f5a96a8},
                 {16, 8, 8, 0x11d69d5e2ae90890}, {23, 15, 8, 0x6711475ec2e60a0f}, {9, 40, 4, 0x14650fb08c62fc68},
                 {19, 7, 32, 0xdfee688995236e1b}, {71, 29, 0, 0x5dee4ecdbbbefcf1}, {64, 48, -1, 0x597444a103030b27},
                 {41, 25, -2, 0x924bdec5d76b139a}, {7, 3, -1, 0x32c4817f95ec60bc}, {130, 17, 0, 0xf9ef7ef3f6ced3ae}};
    for (auto &c : cases) {
        picture p = c.bits > 0    ? make_picture(c.width, c.height, c.bits, static_cast<uint32_t>(c.width))
                    : c.bits == 0 ? smooth_picture(c.width, c.height, kind::rgb24, 2)
                                  : smooth_picture(c.width, c.height, c.bits == -1 ? kind::grey8 : kind::palette8, 3);
        for (int vector_bits : {256, 128, 0}) {
            jpeg_encoder_limit_vectors(vector_bits);
            uint64_t h = 1469598103934665603ull;
            for (int q : {1, 4, 12, 25, 38, 50, 63, 75, 85, 90, 95, 99, 100}) {
                IMGLOW_set_comp_quality(q);
                int code = 0;
                h = byte_hash(save_pic(p, IMG_TYPE_JPEG, &code), h) ^ static_cast<uint32_t>(code);
            }
            EXPECT_EQ(h, c.hash) << c.width << "x" << c.height << " bits " << c.bits << " vectors " << vector_bits
                                 << std::hex << " got 0x" << h;
        }
    }
    jpeg_encoder_limit_vectors(256);
    IMGLOW_set_comp_quality(50);
}

namespace {
int IMG_CALLBACK refuse(void *, unsigned char *, int r, int) { return r == 11 ? -42 : 0; }
int IMG_CALLBACK rows_of_picture(void *context, unsigned char *buffer, int r, int n) {
    const bytes &row = static_cast<const picture *>(context)->rows[r];
    std::memcpy(buffer, row.data(), std::min(row.size(), static_cast<size_t>(n)));
    return 0;
}
int stops_seen = 0;
int IMG_CALLBACK stop_on_fifth_row(void *, int) { return ++stops_seen == 5 ? -100 : 0; }
}  // namespace

// Writes cut short anywhere across several 10,000-byte flushes.
TEST(JpegEncode, ShortWritesReturnMinusNineWherever) {
    int h = handle_of(smooth_picture(600, 200, kind::rgb24, 4));
    IMGLOW_set_comp_quality(95);
    const size_t size = save_bytes(h, IMG_TYPE_JPEG).size();
    ASSERT_GT(size, 20000u);
    for (size_t budget = 0; budget < size; budget += 997)
        EXPECT_EQ(save_with_write_budget(h, IMG_TYPE_JPEG, budget), IMG_ERR_WRITE) << budget;
    IMGLOW_set_comp_quality(50);
    IMG_delete_bitmap(h);
}

// A handle's rows that need no padding are read where the handle keeps
// them: the file is the one a copy of the same rows gives, crop included,
// and the status hook still sees each row and can stop the save.
TEST(JpegEncode, RowsReadInPlaceEqualRowsCopied) {
    struct {
        picture p;
        int left, top;  // a 16 x 16 crop when left >= 0
    } cases[] = {{smooth_picture(32, 16, kind::rgb24, 6), -1, 0},
                 {smooth_picture(48, 24, kind::grey8, 6), -1, 0},
                 {smooth_picture(40, 24, kind::rgb24, 7), 8, 5}};
    IMGLOW_set_comp_quality(80);
    for (auto &c : cases) {
        int h = handle_of(c.p);
        picture want = c.p;
        if (c.left >= 0) {
            ASSERT_EQ(IMG_set_croprect(h, c.left, c.top, 16, 16), 0);
            want.width = want.height = 16;
            want.rows.clear();
            const int px = c.p.bits / 8;
            for (int y = c.top; y < c.top + 16; y++) {
                bytes r(c.p.rows[y].begin() + c.left * px, c.p.rows[y].begin() + (c.left + 16) * px);
                r.resize(stride_of(16, c.p.bits));
                want.rows.push_back(r);
            }
        }
        bytes dib = dib_of_picture(want);
        block_ref out(uint32_t{1u << 20});
        const int n = IMGLOW_save_bitmap_mem(out.data, dib.data(), IMG_TYPE_JPEG, rows_of_picture, &want);
        ASSERT_GT(n, 0);
        EXPECT_EQ(save_bytes(h, IMG_TYPE_JPEG), bytes(static_cast<uint8_t *>(out.data), static_cast<uint8_t *>(out.data) + n))
            << c.p.width << "x" << c.p.height;
        stops_seen = 0;
        IMG_set_statusbar(nullptr, stop_on_fifth_row, 1);
        int code = 0;
        save_bytes(h, IMG_TYPE_JPEG, &code);
        IMG_set_statusbar(nullptr, nullptr, 0);
        EXPECT_EQ(code, -100);
        EXPECT_EQ(stops_seen, 5);
        IMG_delete_bitmap(h);
    }
    IMGLOW_set_comp_quality(50);
}

TEST(JpegEncode, RowCodesAndTooWideARow) {
    bytes dib = dib_of_picture(smooth_picture(40, 20, kind::palette8, 1));
    block_ref out(uint32_t{1u << 20});
    EXPECT_EQ(IMGLOW_save_bitmap_mem(out.data, dib.data(), IMG_TYPE_JPEG, refuse, nullptr), -42);
    picture wide;
    wide.width = 21800, wide.height = 1, wide.bits = 24;
    wide.rows.assign(1, bytes(stride_of(wide.width, 24), 0));
    int n = 0;
    save_pic(wide, IMG_TYPE_JPEG, &n);
    EXPECT_EQ(n, IMG_ERR_MEMORY) << "too wide for the row buffer";
}

// The encoder's transform and quantiser at every vector width against the
// scalar transform and jpeg_quantise_one, each block of a group with its
// own quantisers: random level-shifted samples (the colour weights reach
// -129 and 128), the extremes in random sign patterns and in the patterns
// of the cosines themselves, which drive the coefficients to their peaks.
TEST(JpegTransform, ForwardVectorPathsEqualTheScalarOne) {
    uint32_t seed = 12345;
    auto rnd = [&seed](int range) {
        seed = seed * 1664525u + 1013904223u;
        return static_cast<int>(seed >> 8) % (2 * range + 1) - range;
    };
    auto cosine_sign = [](int u, int n) { return std::cos((2 * n + 1) * u * M_PI / 16) >= 0; };
    for (int bits : {256, 128, 0}) {
        jpeg_encoder_limit_vectors(bits);
        for (int it = 0; it < 60000; it++) {
            int16_t s[2][8 * 13];
            uint8_t tables[2][64];
            for (int j = 0; j < 2; j++) {
                const int u = rnd(8) & 7, v = rnd(8) & 7;
                for (int i = 0; i < 8 * 13; i++) {
                    const int row = (i - 3) / 13, col = (i - 3) % 13;
                    s[j][i] = static_cast<int16_t>(it % 5 == 0   ? (rnd(1) < 0 ? 128 : -129)
                                                   : it % 5 == 1 ? (cosine_sign(u, col & 7) == cosine_sign(v, row & 7) ? 128 : -129)
                                                                 : rnd(128) - (rnd(1) > 0));
                }
                // Quantisers 1 to 255, often small (as at high qualities), at times all 1.
                const int top = it % 7 == 0 ? 1 : it % 3 == 0 ? 16 : 255;
                for (auto &q : tables[j]) q = static_cast<uint8_t>(1 + (rnd(127) + 127) % top);
            }
            const uint8_t *const slots[2] = {tables[0], tables[1]};
            jpeg_quant_set set;
            jpeg_fill_quant_set(set, slots);
            const int16_t *const src[2] = {s[0] + 3, s[1] + 3};
            int16_t got[2][64];
            uint64_t got_nonzero[2];
            for (int j = 0; j < 2;) {
                const int n = jpeg_fdct_quantise_group(src + j, 13, set, got + j, got_nonzero + j);
                ASSERT_TRUE(n == 1 || n == 2);
                for (int b = j; b < j + n; b++) {
                    int16_t f[64], want[64];
                    jpeg_fdct_8x8(src[b], 13, f);
                    uint64_t nonzero = 0;
                    for (int k = 0; k < 64; k++) {
                        const int q = jpeg_quantise_one(f[k], 1.0f / tables[b - j][k]);
                        want[k] = static_cast<int16_t>(k == 0 ? q : std::clamp(q, -1023, 1023));
                    }
                    for (int k = 0; k < 64; k++) nonzero |= uint64_t{want[jpeg_zigzag[k]] != 0} << k;
                    ASSERT_EQ(std::memcmp(want, got[b], sizeof want), 0) << "block " << it << "/" << b << " at " << bits;
                    ASSERT_EQ(got_nonzero[b], nonzero) << "block " << it << "/" << b << " at " << bits;
                }
                j += n;
            }
        }
    }
    jpeg_encoder_limit_vectors(256);
}

// The quantisers against division: the plain path's float reciprocal over
// the whole 16-bit range, and the vector paths' two high-half multiplies (as
// the quantiser set lays them out) over every magnitude the transform gives.
TEST(JpegTransform, QuantiserMultiplyEqualsTruncatingDivision) {
    for (int q = 1; q <= 255; q++) {
        const float recip = 1.0f / static_cast<float>(q);
        for (int v = -32768; v <= 32767; v++)
            if (jpeg_quantise_one(v, recip) != v / q) FAIL() << v << " / " << q;
        uint8_t table[64];
        std::memset(table, q, 64);
        const uint8_t *const slots[2] = {table, table};
        jpeg_quant_set set;
        jpeg_fill_quant_set(set, slots);
        const uint32_t mult = static_cast<uint16_t>(set.mult[0][0]), shift = static_cast<uint16_t>(set.shift[0][0]);
        for (uint32_t a = 0; a < 2048; a++)
            if ((((a << 5) * mult) >> 16) * shift >> 16 != a / q) FAIL() << a << " / " << q << " in 16-bit lanes";
    }
}
