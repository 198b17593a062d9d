// JPEG: decoder output pinned by golden checksums of files from independent
// tools, the tables kept between streams, refusals and hostile streams;
// encoder round trips, headers, quality scaling, golden output bytes; and
// allocation, short-read and short-write injection for both.
#include "jpeg_support.h"

#include <gtest/gtest.h>

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

// Position of the first entropy-coded byte.
size_t scan_start(const bytes &f) {
    for (const segment &s : segments(f))
        if (s.marker == 0xFFDA) return s.at + 2 + s.length;
    return f.size();
}

// Bytes of the DQT segment (both tables: id byte then 64 entries, twice).
bytes dqt_of(const bytes &f) {
    size_t at = find_segment(f, 0xFFDB);
    return bytes(f.begin() + at + 4, f.begin() + at + 4 + 130);
}

}  // namespace

// ---- Decoder ----------------------------------------------------------------------

TEST(JpegDecode, FixturesFromIndependentToolsMatchGoldenChecksums) {
    struct {
        const char *file;
        int bits, xdpi;
        uint64_t hash;
    } cases[] = {
        {"c420.jpg", 24, 1, 0x112f304f45651ce},
        {"c422.jpg", 24, 1, 0xcae9db384202d602},
        {"c444.jpg", 24, 1, 0x155317c5dcd556f8},
        {"cgrey.jpg", 8, 1, 0xe66534be90eb7acc},
        {"crestart.jpg", 24, 1, 0x112f304f45651ce},
        {"im422_300dpi.jpg", 24, 300, 0xe9b6ef1790c0f8e2},
        {"im420_72dpi.jpg", 24, 72, 0x20ef3fdf670205d2},
        {"cmyk.jpg", 24, 0, 0xacdc9878deb0e829},
    };
    for (auto &c : cases) {
        sink s;
        ASSERT_EQ(decode(fixture_bytes(c.file), s), 0) << c.file;
        EXPECT_EQ(s.begin_calls, 1);
        EXPECT_EQ(s.info.biWidth, 67) << c.file;
        EXPECT_EQ(s.info.biHeight, 45) << c.file;
        EXPECT_EQ(s.info.biBitCount, c.bits) << c.file;
        EXPECT_EQ(s.info.biXPelsPerMeter, c.xdpi) << c.file << ": densities pass through unconverted";
        EXPECT_EQ(s.info.biYPelsPerMeter, c.xdpi) << c.file;
        EXPECT_EQ(s.bad_rows, 0);
        for (const bytes &r : s.rows) ASSERT_EQ(r.size(), row_bytes(67, c.bits)) << c.file;
        EXPECT_EQ(pixel_hash(s), c.hash) << c.file;
    }
}

TEST(JpegDecode, GreyFilesGetARampPaletteAndNeverReachBlack) {
    sink s;
    ASSERT_EQ(decode(fixture_bytes("cgrey.jpg"), s), 0);
    for (int i = 0; i < 256; i++) {
        EXPECT_EQ(s.palette[4 * i], i);
        EXPECT_EQ(s.palette[4 * i + 2], i);
    }
    // A black picture: the transform's clamp at -127 leaves level 1.
    picture p = smooth_picture(16, 8, kind::grey8, 0);
    for (bytes &r : p.rows) std::fill(r.begin(), r.end(), 0);
    IMGLOW_set_comp_quality(100);
    bytes f = save_picture(p, IMG_TYPE_JPEG);
    IMGLOW_set_comp_quality(50);
    sink b;
    ASSERT_EQ(decode(f, b), 0);
    EXPECT_EQ(b.rows[0][0], 1);
}

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
        // cjpeg codes the same coefficients with and without restart intervals.
        {"restart markers", fixture_bytes("crestart.jpg"), 0, c420, 0},
        {"1 byte of garbage before the SOI", after(1, 0x5A, c420), 0, c420, 0},
        {"17 bytes of garbage", after(17, 0x5A, c420), 0, c420, 0},
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
    // The refusal reaches the handle-level load too.
    EXPECT_EQ(load_bytes(fixture_bytes("cprogressive.jpg")), IMG_ERR_TYPE);
}

TEST(JpegDecode, TablesAreKeptForStreamsThatDoNotDefineThem) {
    bytes full = save_picture(smooth_picture(40, 24, kind::rgb24, 3), IMG_TYPE_JPEG);
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

TEST(JpegDecode, HostileStreamsEndWithCleanCodes) {
    const bytes base = fixture_bytes("c420.jpg");
    const size_t sof = find_segment(base, 0xFFC0), dqt = find_segment(base, 0xFFDB),
                 dht = find_segment(base, 0xFFC4), sos = find_segment(base, 0xFFDA);
    ASSERT_TRUE(sof && dqt && dht && sos);
    struct {
        const char *what;
        size_t at;
        std::vector<uint8_t> value;
        int code;
        int begins;
    } cases[] = {
        {"two components", sof + 9, {2}, IMG_ERR_TYPE, 0},
        {"five components", sof + 9, {5}, IMG_ERR_TYPE, 0},
        {"zero width", sof + 7, {0, 0}, IMG_ERR_HEADER, 0},
        {"zero height", sof + 5, {0, 0}, IMG_ERR_HEADER, 0},
        {"zero sampling", sof + 11, {0x00}, IMG_ERR_HEADER, 0},
        {"quantiser precision 2", dqt + 4, {0x20}, IMG_ERR_HEADER, 0},
        {"table class 1, id 3", dht + 4, {0x13}, IMG_ERR_HEADER, 0},
        {"more than 256 codes", dht + 5, {255, 255}, IMG_ERR_HEADER, 0},
        {"no scan components", sos + 4, {0}, IMG_ERR_HEADER, 1},
        {"five scan components", sos + 4, {5}, IMG_ERR_HEADER, 1},
        {"chroma sampled finer than luma", sof + 14, {0x44}, IMG_ERR_HEADER, 1},
        {"plane over its limit", sof + 7, {0x20, 0x10}, IMG_ERR_MEMORY, 1},
        {"segment length runs off the end", 4, {0xFF, 0xF0}, IMG_ERR_DATA, 0},
    };
    const int live = mem_live_blocks();
    for (auto &c : cases) {
        bytes f = base;
        std::copy(c.value.begin(), c.value.end(), f.begin() + c.at);
        sink s;
        EXPECT_EQ(decode(f, s), c.code) << c.what;
        EXPECT_EQ(s.begin_calls, c.begins) << c.what;
        EXPECT_EQ((scratch_free_all(), mem_live_blocks()), live) << c.what;
    }
    sink one;
    EXPECT_EQ(decode(bytes{0xFF}, one), IMG_ERR_DATA) << "no first word";
    sink two;
    EXPECT_EQ(decode(bytes{0xFF, 0xD8}, two), IMG_ERR_DATA) << "nothing after the SOI";
}

TEST(JpegDecode, EveryTruncationAndByteFlipEndsCleanly) {
    const int live = mem_live_blocks();
    for (const char *name : {"c420.jpg", "cgrey.jpg", "crestart.jpg", "cmyk.jpg"}) {
        const bytes f = fixture_bytes(name);
        for (size_t n = 1; n < f.size(); n += 7) {  // a zero-size block has no known size
            sink s;
            int rc = decode(bytes(f.begin(), f.begin() + n), s);
            EXPECT_TRUE(rc == 0 || rc == IMG_ERR_DATA || rc == IMG_ERR_HEADER) << name << " cut at " << n << ": " << rc;
            EXPECT_EQ(s.bad_rows, 0);
        }
        for (size_t i = 2; i < f.size(); i += 3) {
            bytes g = f;
            g[i] ^= static_cast<uint8_t>(0x55 + i);
            sink s;
            int rc = decode(g, s);
            EXPECT_LE(rc, 0) << name << " flip at " << i;
            EXPECT_EQ(s.bad_rows, 0);
        }
    }
    EXPECT_EQ((scratch_free_all(), mem_live_blocks()), live);
}

TEST(JpegDecode, CallbackCodesStopTheDecode) {
    const bytes f = fixture_bytes("c422.jpg");
    sink s;
    s.fail_at_row = 20, s.fail_code = -5;
    EXPECT_EQ(decode(f, s), -5);
    EXPECT_TRUE(s.rows[21].empty()) << "no row after the refusal";
}

TEST(JpegDecode, AllocationFailuresReturnMinusOneAndLeakNothing) {
    const bytes f = fixture_bytes("c420.jpg");
    EXPECT_GE(count_alloc_failures([&](int k) { sink s; return decode(f, s, 0, k); }), 5)
        << "header, planes, row and input buffers each fail";
}

namespace {
bytes hook_data;
int32_t hook_pos;
int IMG_CALLBACK trickle_read(int, void *buffer, int count) {
    // Short reads of 1 to 7 bytes; nothing past the end.
    int n = std::min<int>({count, 1 + hook_pos % 7, static_cast<int>(hook_data.size()) - hook_pos});
    if (n <= 0) return 0;
    std::memcpy(buffer, hook_data.data() + hook_pos, n);
    hook_pos += n;
    return n;
}
int IMG_CALLBACK trickle_seek(int, int offset, int origin) {
    hook_pos = origin == 0 ? offset : origin == 1 ? hook_pos + offset : static_cast<int>(hook_data.size()) + offset;
    return hook_pos;
}
}  // namespace

TEST(JpegDecode, ShortReadsThroughTheHooksDecodeTheSame) {
    for (const char *name : {"c420.jpg", "crestart.jpg", "cgrey.jpg"}) {
        sink ref;
        ASSERT_EQ(decode(fixture_bytes(name), ref), 0);
        hook_data = fixture_bytes(name);
        hook_pos = 0;
        IMGLOW_set_fileio(trickle_read, nullptr, trickle_seek);
        sink s;
        int rc = jpeg_read_file(0, sink_row, &s, sink_begin, 3);
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        EXPECT_EQ(scratch_count(), 0);
        ASSERT_EQ(rc, 0) << name;
        EXPECT_EQ(s.rows, ref.rows) << name;
    }
}

// ---- Encoder ---------------------------------------------------------------------------

TEST(JpegEncode, RoundTripEveryKindAndAwkwardSize) {
    // Measured floors: our encoder and decoder together stay above these.
    struct {
        kind k;
        int quality;
        double floor;
    } cases[] = {{kind::rgb24, 25, 28.5}, {kind::rgb24, 75, 33.5}, {kind::rgb24, 95, 35.5},
                 {kind::grey8, 25, 33},   {kind::grey8, 95, 44},   {kind::palette8, 75, 30.5}};
    for (auto &c : cases)
        for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {8, 8}, {17, 9}, {33, 16}, {64, 23}}) {
            picture p = smooth_picture(w, h, c.k, w + h);
            IMGLOW_set_comp_quality(c.quality);
            int n = 0;
            bytes f = save_picture(p, IMG_TYPE_JPEG, &n);
            ASSERT_GT(n, 0) << w << "x" << h;
            sink s;
            ASSERT_EQ(decode(f, s), 0);
            EXPECT_EQ(s.info.biWidth, w);
            EXPECT_EQ(s.info.biHeight, h);
            EXPECT_EQ(s.info.biBitCount, c.k == kind::grey8 ? 8 : 24);
            if (w >= 8 && h >= 8) {
                EXPECT_GT(psnr(rgb_of(s), rgb_of(p)), c.floor) << w << "x" << h << " q" << c.quality;
            }
        }
    IMGLOW_set_comp_quality(50);
}

TEST(JpegEncode, HeadersForColourAndGrey) {
    for (kind k : {kind::rgb24, kind::palette8, kind::grey8}) {
        bool colour = k != kind::grey8;
        bytes f = save_picture(smooth_picture(20, 10, k, 1), IMG_TYPE_JPEG);
        std::vector<std::pair<int, int>> expect = {{0xFFE0, 16}, {0xFFDB, 132}, {0xFFC0, colour ? 17 : 11},
                                                   {0xFFC4, 31}, {0xFFC4, 181}};
        if (colour) expect.insert(expect.end(), {{0xFFC4, 31}, {0xFFC4, 181}});
        expect.push_back({0xFFDA, colour ? 12 : 8});
        std::vector<std::pair<int, int>> got;
        for (const segment &s : segments(f)) got.push_back({s.marker, s.length});
        EXPECT_EQ(got, expect);
        size_t sof = find_segment(f, 0xFFC0);
        EXPECT_EQ(f[sof + 9], colour ? 3 : 1);
        EXPECT_EQ(f[sof + 11], colour ? 0x21 : 0x11) << "luma sampling";
        EXPECT_EQ(get16be(&f[sof + 5]), 10);
        EXPECT_EQ(get16be(&f[sof + 7]), 20);
        EXPECT_EQ(f[f.size() - 2], 0xFF);
        EXPECT_EQ(f[f.size() - 1], 0xD9);
    }
}

TEST(JpegEncode, DensitiesAreWrittenAsDotsPerInch) {
    picture p = smooth_picture(8, 8, kind::rgb24, 0);
    struct {
        int x, y, want_x, want_y;
    } cases[] = {{300, 200, 300, 200}, {0, 150, 96, 96}, {72, 72, 72, 72}};
    for (auto &c : cases) {
        int n = 0;
        bytes f = save_picture(p, IMG_TYPE_JPEG, &n, c.x, c.y);
        ASSERT_GT(n, 20);
        EXPECT_EQ(std::string(f.begin() + 6, f.begin() + 11), std::string("JFIF\0", 5));
        EXPECT_EQ(f[13], 1) << "units: dots per inch";
        EXPECT_EQ(get16be(&f[14]), c.want_x);
        EXPECT_EQ(get16be(&f[16]), c.want_y);
    }
}

TEST(JpegEncode, QualityScalesBothTablesAndClamps) {
    picture p = smooth_picture(8, 8, kind::rgb24, 0);
    auto tables_at = [&](int q) {
        IMGLOW_set_comp_quality(q);
        return dqt_of(save_picture(p, IMG_TYPE_JPEG));
    };
    bytes q50 = tables_at(50);
    // First rows in natural order sit at zig-zag positions 0, 1, 5, 6, 14, 15, 27, 28.
    const int first_row[8] = {0, 1, 5, 6, 14, 15, 27, 28};
    const uint8_t luma[8] = {16, 11, 10, 16, 24, 40, 51, 61}, chroma[8] = {17, 18, 24, 46, 66, 99, 99, 99};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(q50[1 + first_row[i]], luma[i]);
        EXPECT_EQ(q50[66 + first_row[i]], chroma[i]);
    }
    EXPECT_EQ(q50[0], 0);
    EXPECT_EQ(q50[65], 1);
    bytes q100 = tables_at(100);
    for (int i = 0; i < 64; i++) EXPECT_EQ(q100[1 + i] + q100[66 + i], 2);
    EXPECT_EQ(tables_at(150), q100);
    bytes q1 = tables_at(1);
    EXPECT_EQ(tables_at(0), q1);
    EXPECT_EQ(tables_at(-40), q1);
    EXPECT_EQ(q1[66 + 63], 255);
    bytes q25 = tables_at(25);
    EXPECT_EQ(q25[1], 32) << "5000 / 25 = 200%";
    EXPECT_EQ(q25[66 + 1], 36);
    IMGLOW_set_comp_quality(50);
}

TEST(JpegEncode, EntropyDataIsStuffedAndPaddedToWholeWords) {
    IMGLOW_set_comp_quality(100);
    for (uint32_t seed : {1u, 2u, 3u}) {
        // Noise at quality 100 produces long codes and many 0xFF bytes.
        picture p = make_picture(45, 19, 24, seed);
        bytes f = save_picture(p, IMG_TYPE_JPEG);
        size_t start = scan_start(f), end = f.size() - 2;
        ASSERT_EQ(f[end], 0xFF);
        size_t ff = 0, data = 0;
        for (size_t i = start; i < end; i++) {
            data++;
            if (f[i] == 0xFF) {
                ff++;
                ASSERT_LT(i + 1, end);
                EXPECT_EQ(f[i + 1], 0x00) << "at " << i;
                i++;
            }
        }
        EXPECT_GT(ff, 0u) << "the check saw no 0xFF byte";
        EXPECT_EQ(data % 2, 0u) << "zero padding to a whole 16-bit word";
    }
    IMGLOW_set_comp_quality(50);
}

TEST(JpegEncode, GoldenOutputBytes) {
    struct {
        kind k;
        int w, h, quality;
        uint64_t hash;
    } cases[] = {{kind::rgb24, 37, 21, 75, 0xf3bcab4ff44b7e2f},
                 {kind::grey8, 37, 21, 75, 0xcb259f5082ab4576},
                 {kind::palette8, 30, 17, 25, 0xe29e20fb7d264bf8},
                 {kind::rgb24, 64, 16, 95, 0xc213da358248343c}};
    for (auto &c : cases) {
        IMGLOW_set_comp_quality(c.quality);
        bytes f = save_picture(smooth_picture(c.w, c.h, c.k, 5), IMG_TYPE_JPEG);
        EXPECT_EQ(byte_hash(f), c.hash) << c.w << "x" << c.h << " q" << c.quality;
    }
    IMGLOW_set_comp_quality(50);
}

TEST(JpegEncode, ShortWritesReturnMinusNineWherever) {
    picture p = smooth_picture(600, 200, kind::rgb24, 4);  // more than one 10,000-byte flush
    IMGLOW_set_comp_quality(95);
    int total = 0;
    ASSERT_GT(save_failing_write(p, IMG_TYPE_JPEG, 0, &total), 20000);
    EXPECT_GE(total, 12) << "header segments, two flushes, the rest and the EOI";
    const int live = mem_live_blocks();
    for (int k = 1; k <= total; k++) {
        EXPECT_EQ(save_failing_write(p, IMG_TYPE_JPEG, k), IMG_ERR_WRITE) << "write " << k;
        EXPECT_EQ(mem_live_blocks(), live);
    }
    IMGLOW_set_comp_quality(50);
    for (int bits : {1, 4}) {
        int writes = 0;
        EXPECT_EQ(save_failing_write(make_picture(9, 9, bits, 1), IMG_TYPE_JPEG, 0, &writes), IMG_ERR_DEPTH);
        EXPECT_EQ(writes, 0) << "refused before writing anything";
    }
}

namespace {
int IMG_CALLBACK refuse(void *, unsigned char *, int r, int) { return r == 11 ? -42 : 0; }
}  // namespace

TEST(JpegEncode, AllocationFailuresAndRowCodes) {
    picture p = smooth_picture(40, 20, kind::palette8, 1);
    const int live = mem_live_blocks();
    EXPECT_GE(count_alloc_failures([&](int k) { int n = 0; save_picture(p, IMG_TYPE_JPEG, &n, 0, 0, k); return n; }), 3);
    // A row callback's code comes back unchanged.
    bytes h = header_of(p);
    {
        block_ref out(uint32_t{1u << 20});
        EXPECT_EQ(IMGLOW_save_bitmap_mem(out.data, h.data(), IMG_TYPE_JPEG, refuse, nullptr), -42);
    }
    EXPECT_EQ(mem_live_blocks(), live);
}

TEST(JpegEncode, TooWideForTheRowBufferIsMinusOne) {
    picture p;
    p.width = 21800, p.height = 1, p.bits = 24;
    p.rows.assign(1, bytes(stride_of(p.width, 24), 0));
    int n = 0;
    save_picture(p, IMG_TYPE_JPEG, &n);
    EXPECT_EQ(n, IMG_ERR_MEMORY);
}

// ---- Transforms -------------------------------------------------------------------------

TEST(JpegTransform, LaneKernelsEqualTheScalarOnesBitForBit) {
    uint32_t seed = 12345;
    auto rnd = [&seed](int range) {
        seed = seed * 1664525u + 1013904223u;
        return static_cast<int>(seed >> 8) % (2 * range + 1) - range;
    };
    for (int it = 0; it < 20000; it++) {
        // Inverse: mostly dequantised-size values, some at the 16-bit
        // extremes, some sparse.
        int range = it % 10 == 0 ? 32767 : it % 3 == 0 ? 2047 : 300;
        int16_t coef[64], coefT[64];
        for (int i = 0; i < 64; i++) {
            coef[i] = static_cast<int16_t>(it % 4 == 1 && i > 10 ? 0 : rnd(range));
            coefT[(i & 7) * 8 + (i >> 3)] = coef[i];
        }
        int8_t a[64], b[64];
        jpeg_idct_8x8(coef, 0xFF, a, 8);
        jpeg_idct_8x8_transposed(coefT, b, 8);
        ASSERT_EQ(std::memcmp(a, b, 64), 0) << "inverse, block " << it;
        // Forward: level-shifted samples (the colour weights reach 128), at a stride.
        int16_t s[8 * 13];
        for (auto &v : s) v = static_cast<int16_t>(it % 5 == 0 ? (rnd(1) < 0 ? 128 : -129) : rnd(128) - (rnd(1) > 0));
        int16_t fa[64], fb[64];
        jpeg_fdct_8x8(s + 3, 13, fa);
        jpeg_fdct_8x8_lanes(s + 3, 13, fb);
        ASSERT_EQ(std::memcmp(fa, fb, sizeof fa), 0) << "forward, block " << it;
    }
}

TEST(JpegTransform, BothTransformsStayCloseToTheExactDct) {
    // Measured: forward within 7 of the exact transform (RMS 0.9), inverse
    // within 7 (RMS 1.0); a wrong constant or output order is far outside.
    uint32_t seed = 7;
    double fmax = 0, imax = 0, fse = 0, ise = 0;
    int n = 0;
    for (int it = 0; it < 500; it++) {
        int16_t s[64], c[64];
        for (int i = 0; i < 64; i++) {
            seed = seed * 1664525u + 1013904223u;
            s[i] = static_cast<int16_t>(it % 2 ? (seed >> 24) - 128 : (i % 8) * 20 + (i / 8) * 9 - 128 + (seed >> 30));
        }
        jpeg_fdct_8x8(s, 8, c);
        int8_t o[64];
        jpeg_idct_8x8(c, 0xFF, o, 8);
        for (int v = 0; v < 8; v++)
            for (int u = 0; u < 8; u++) {
                double f = 0, p = 0;
                for (int y = 0; y < 8; y++)
                    for (int x = 0; x < 8; x++) {
                        f += s[y * 8 + x] * std::cos((2 * x + 1) * u * M_PI / 16) * std::cos((2 * y + 1) * v * M_PI / 16);
                        p += (x ? 1 : M_SQRT1_2) * (y ? 1 : M_SQRT1_2) * c[y * 8 + x] *
                             std::cos((2 * u + 1) * x * M_PI / 16) * std::cos((2 * v + 1) * y * M_PI / 16);
                    }
                f *= (u ? 1 : M_SQRT1_2) * (v ? 1 : M_SQRT1_2) / 4;
                p = std::clamp(p / 4, -127.0, 127.0);
                double fe = std::abs(f - c[v * 8 + u]), ie = std::abs(p - o[v * 8 + u]);
                fmax = std::max(fmax, fe), imax = std::max(imax, ie);
                fse += fe * fe, ise += ie * ie, n++;
            }
    }
    EXPECT_LT(fmax, 8.0);
    EXPECT_LT(std::sqrt(fse / n), 1.1);
    EXPECT_LT(imax, 8.0);
    EXPECT_LT(std::sqrt(ise / n), 1.2);
}
