// JPEG decoder output pinned on generated streams large enough to cross many
// input refills: every sampling layout, restart markers found, moved, missing
// or behind junk, heavy 0xFF stuffing, long codes, coefficients that overflow
// the transform's 16-bit range, truncated and damaged data; every vector
// width of the kernels gives the same bytes.
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

// A prefix code over the symbols: as many short codes as `want` asks for per
// length while the rest still fit within 16 bits; the unused code space is
// then filled with extra entries of the first symbol (which the encoder never
// writes), so damaged data keeps decoding instead of stopping at once.
struct code_table {
    uint8_t bits[17] = {};
    std::vector<uint8_t> values;
    uint16_t code[256] = {};
    uint8_t length[256] = {};
};

code_table make_code(const std::vector<uint8_t> &symbols, const int (&want)[17]) {
    code_table t;
    int count[17] = {}, filler[17] = {};
    int64_t free_units = 65536;  // of 2^-16; one unit stays for the all-ones code
    int left = static_cast<int>(symbols.size()), total = left;
    for (int l = 1; l <= 16; l++) {
        int64_t unit = int64_t{1} << (16 - l);
        int c = l == 16 ? left : std::min(want[l], left);
        while (c > 0 && free_units - c * unit < (left - c) + 1) c--;
        count[l] = c;
        free_units -= c * unit;
        left -= c;
    }
    EXPECT_EQ(left, 0);
    for (int l = 2; l <= 16; l++) {
        int64_t unit = int64_t{1} << (16 - l);
        while (free_units - unit >= 1 && total < 256) filler[l]++, free_units -= unit, total++;
    }
    uint32_t code = 0;
    size_t k = 0;
    for (int l = 1; l <= 16; l++) {
        t.bits[l] = static_cast<uint8_t>(count[l] + filler[l]);
        for (int i = 0; i < count[l]; i++, k++) {
            t.values.push_back(symbols[k]);
            t.code[symbols[k]] = static_cast<uint16_t>(code++);
            t.length[symbols[k]] = static_cast<uint8_t>(l);
        }
        for (int i = 0; i < filler[l]; i++, code++) t.values.push_back(symbols[0]);
        code <<= 1;
    }
    return t;
}

// Bits most significant first, 0xFF followed by a stuffed zero.
struct bit_writer {
    bytes &out;
    uint32_t acc = 0;
    int n = 0;
    void put(uint32_t v, int len) {
        for (int i = len - 1; i >= 0; i--) {
            acc = acc << 1 | (v >> i & 1);
            if (++n == 8) {
                out.push_back(static_cast<uint8_t>(acc));
                if ((acc & 0xFF) == 0xFF) out.push_back(0);
                acc = 0, n = 0;
            }
        }
    }
    void flush() {
        while (n) put(1, 1);
    }
};

enum mix { natural, dense, ones, flat, strong };

struct stream_recipe {
    const char *name;
    int width, height, nf, h1, v1;
    int restart;   // MCUs per interval, 0 = none
    mix content;
    bool wide_quant;  // 16-bit quantisers up to 4000: products wrap
    int ta3;          // AC selector of scan slot 3 (0, 1 or 2)
};

struct lcg {
    uint32_t s;
    uint32_t next(uint32_t n) {
        s = s * 1664525u + 1013904223u;
        return static_cast<uint32_t>((uint64_t{s >> 8} * n) >> 24);
    }
};

// Quantised coefficients of one block in zig-zag order.
void make_block(lcg &r, mix m, int16_t (&z)[64]) {
    std::fill(std::begin(z), std::end(z), 0);
    auto value = [&](int size, bool all_ones) {
        int mag = all_ones ? (1 << size) - 1 : (1 << (size - 1)) + static_cast<int>(r.next(1u << (size - 1)));
        return static_cast<int16_t>(!all_ones && r.next(2) ? -mag : mag);
    };
    mix kind = m == natural ? static_cast<mix>(r.next(10) < 6 ? natural : r.next(3) ? flat : ones) : m;
    z[0] = static_cast<int16_t>(static_cast<int>(r.next(161)) - 80);
    if (kind == flat) return;
    if (kind == strong) {
        // A few large coefficients: with the quantisers below, blocks whose
        // magnitudes sum to either side of the transform's 16-bit limit.
        for (int i = 2 + static_cast<int>(r.next(9)); i > 0; i--) z[1 + r.next(20)] = value(6 + static_cast<int>(r.next(4)), false);
        return;
    }
    for (int k = 1; k < 64; k++) {
        if (kind == dense) {
            z[k] = value(1 + static_cast<int>(r.next(10)), false);
        } else if (kind == ones) {
            if (r.next(3) == 0) z[k] = value(1 + static_cast<int>(r.next(10)), true);
        } else if (static_cast<int>(r.next(64)) > 8 + 4 * k) {
            z[k] = value(1 + static_cast<int>(r.next(k < 6 ? 7 : 4)), false);
        }
    }
}

int magnitude_bits(int v) {
    int a = v < 0 ? -v : v, s = 0;
    while (a) s++, a >>= 1;
    return s;
}

void put_value(bit_writer &w, int v, int s) {
    if (s) w.put(static_cast<uint32_t>(v < 0 ? v + (1 << s) - 1 : v), s);
}

void encode_block(bit_writer &w, const int16_t (&z)[64], int &pred, const code_table &dc, const code_table &ac) {
    int diff = z[0] - pred, s = magnitude_bits(diff);
    pred = z[0];
    w.put(dc.code[s], dc.length[s]);
    put_value(w, diff, s);
    int run = 0;
    for (int k = 1; k < 64; k++) {
        if (!z[k]) {
            run++;
            continue;
        }
        for (; run >= 16; run -= 16) w.put(ac.code[0xF0], ac.length[0xF0]);
        int sz = magnitude_bits(z[k]), rs = run << 4 | sz;
        w.put(ac.code[rs], ac.length[rs]);
        put_value(w, z[k], sz);
        run = 0;
    }
    if (run) w.put(ac.code[0], ac.length[0]);
}

void put_segment(bytes &f, int marker, const bytes &body) {
    size_t len = body.size() + 2;
    f.insert(f.end(), {0xFF, static_cast<uint8_t>(marker), static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)});
    f.insert(f.end(), body.begin(), body.end());
}

bytes dht_body(int id, const code_table &t) {
    bytes b{static_cast<uint8_t>(id)};
    b.insert(b.end(), t.bits + 1, t.bits + 17);
    b.insert(b.end(), t.values.begin(), t.values.end());
    return b;
}

struct built {
    bytes file;
    std::vector<size_t> restarts;  // positions of the RST markers' 0xFF
};

// A stream in the decoder's own reading of the SOS selectors (scan slot i is
// frame component i; slots 3 and 4 take their DC table by the AC selector).
built build_stream(const stream_recipe &c, uint32_t seed) {
    lcg r{seed};
    std::vector<uint8_t> dc_syms, ac_syms;
    for (int s = 0; s <= 11; s++) dc_syms.push_back(static_cast<uint8_t>(s));
    ac_syms = {0x00, 0x01, 0x02, 0x11, 0x03, 0x04, 0x21, 0xF0};
    for (int run = 0; run < 16; run++)
        for (int s = 1; s <= 10; s++) {
            uint8_t rs = static_cast<uint8_t>(run << 4 | s);
            if (std::find(ac_syms.begin(), ac_syms.end(), rs) == ac_syms.end()) ac_syms.push_back(rs);
        }
    const int short_dc[17] = {0, 0, 2, 3, 2, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    const int even_dc[17] = {0, 0, 0, 0, 4, 4, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
    const int short_ac[17] = {0, 0, 2, 2, 3, 4, 5, 6, 8, 10, 12, 14, 16, 20, 24, 28, 0};
    const int flat_ac[17] = {0, 0, 0, 1, 2, 3, 4, 5, 6, 8, 10, 12, 14, 20, 30, 40, 0};
    std::vector<uint8_t> ac_alt(ac_syms.rbegin(), ac_syms.rend());
    code_table dc[2] = {make_code(dc_syms, short_dc), make_code(dc_syms, even_dc)};
    code_table ac[3] = {make_code(ac_syms, short_ac), make_code(ac_syms, flat_ac), make_code(ac_alt, short_ac)};

    built b;
    bytes &f = b.file;
    f = {0xFF, 0xD8};
    put_segment(f, 0xE0, {'J', 'F', 'I', 'F', 0, 1, 1, 1, 0, 96, 0, 96, 0, 0});
    for (int t = 0; t < 2; t++) {
        bytes q{static_cast<uint8_t>((c.wide_quant ? 0x10 : 0) | t)};
        for (int i = 0; i < 64; i++) {
            int v = c.wide_quant ? 200 + static_cast<int>(r.next(3800)) : 1 + static_cast<int>(r.next(t ? 40 : 24));
            if (c.wide_quant) q.insert(q.end(), {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)});
            else q.push_back(static_cast<uint8_t>(v));
        }
        put_segment(f, 0xDB, q);
    }
    put_segment(f, 0xC4, dht_body(0x00, dc[0]));
    put_segment(f, 0xC4, dht_body(0x01, dc[1]));
    for (int t = 0; t < 3; t++) put_segment(f, 0xC4, dht_body(0x10 | t, ac[t]));
    bytes sof{8, static_cast<uint8_t>(c.height >> 8), static_cast<uint8_t>(c.height), static_cast<uint8_t>(c.width >> 8),
              static_cast<uint8_t>(c.width), static_cast<uint8_t>(c.nf)};
    for (int i = 0; i < c.nf; i++)
        sof.insert(sof.end(), {static_cast<uint8_t>(i + 1), static_cast<uint8_t>(i ? 0x11 : c.h1 << 4 | c.v1),
                               static_cast<uint8_t>(i ? 1 : 0)});
    put_segment(f, 0xC0, sof);
    if (c.restart) put_segment(f, 0xDD, {static_cast<uint8_t>(c.restart >> 8), static_cast<uint8_t>(c.restart)});
    // Selectors: slots 1 and 2 by Td/Ta, slot 3 by its Ta alone, slot 4 by Ta.
    const uint8_t sel[4] = {0x00, 0x11, static_cast<uint8_t>(c.ta3), 0x01};
    const code_table *dct[4] = {&dc[0], &dc[1], &dc[c.ta3 ? 1 : 0], &dc[1]};
    const code_table *act[4] = {&ac[0], &ac[1], &ac[c.ta3], &ac[1]};
    bytes sos{static_cast<uint8_t>(c.nf)};
    for (int i = 0; i < c.nf; i++) sos.insert(sos.end(), {static_cast<uint8_t>(i + 1), sel[i]});
    sos.insert(sos.end(), {0, 63, 0});
    put_segment(f, 0xDA, sos);

    bit_writer w{f};
    const int mcus_x = (c.width + 8 * c.h1 - 1) / (8 * c.h1), mcus_y = (c.height + 8 * c.v1 - 1) / (8 * c.v1);
    int pred[4] = {}, in_interval = 0, rst = 0;
    for (int m = 0; m < mcus_x * mcus_y; m++) {
        if (c.restart && in_interval == c.restart) {
            w.flush();
            b.restarts.push_back(f.size());
            f.insert(f.end(), {0xFF, static_cast<uint8_t>(0xD0 | (rst++ & 7))});
            std::fill(std::begin(pred), std::end(pred), 0);
            in_interval = 0;
        }
        in_interval++;
        for (int i = 0; i < c.nf; i++) {
            int blocks = i ? 1 : c.h1 * c.v1;
            for (int k = 0; k < blocks; k++) {
                int16_t z[64];
                make_block(r, c.content, z);
                encode_block(w, z, pred[i], *dct[i], *act[i]);
            }
        }
    }
    w.flush();
    f.insert(f.end(), {0xFF, 0xD9});
    return b;
}

struct outcome {
    int rc;
    int rows;
    uint64_t hash;
};

// Through the file entry, or (span) the entry for a stream in memory.
outcome decode_file(const bytes &f, bool span = false) {
    sink s;
    int rc = span ? jpeg_decode_buffer(f.data(), static_cast<int32_t>(f.size()), sink_row, &s, sink_begin)
                  : run_reader_on(f, s, jpeg_read_file);
    scratch_free_all();
    int rows = 0;
    for (const bytes &row : s.rows) rows += !row.empty();
    return {rc, rows, pixel_hash(s)};
}

// Puts k bytes of junk (never a marker) in front of the n-th restart marker.
bytes pad_restart(const built &b, size_t n, size_t k) {
    bytes f = b.file;
    f.insert(f.begin() + static_cast<std::ptrdiff_t>(b.restarts.at(n)), k, 0x5A);
    return f;
}

// Moves the n-th restart marker by `by` bytes further into the data.
bytes move_restart(const built &b, size_t n, size_t by) {
    bytes f = b.file;
    size_t at = b.restarts.at(n);
    uint8_t m0 = f[at], m1 = f[at + 1];
    f.erase(f.begin() + static_cast<std::ptrdiff_t>(at), f.begin() + static_cast<std::ptrdiff_t>(at) + 2);
    f.insert(f.begin() + static_cast<std::ptrdiff_t>(at + by), {m0, m1});
    return f;
}

// Each stream with its seed and what it decodes to: rows and a checksum.
struct golden_stream {
    stream_recipe recipe;
    uint32_t seed;
    int rows;
    uint64_t hash;
};
const golden_stream streams[] = {
    {{"420", 517, 389, 3, 2, 2, 0, natural, false, 1}, 1, 389, 0xdbddaf3896d095f6ull},
    {{"420 restart 7", 517, 389, 3, 2, 2, 7, natural, false, 1}, 2, 389, 0xadf263a2cc473bb6ull},
    {{"422 restart 1", 333, 250, 3, 2, 1, 1, natural, false, 0}, 3, 250, 0xd7188eb14f386b42ull},
    {{"444", 301, 203, 3, 1, 1, 0, natural, false, 2}, 4, 203, 0x9918dd4d353799b2ull},
    {{"411", 403, 200, 3, 4, 1, 0, natural, false, 1}, 5, 200, 0xe3ea8f4f41ed8d46ull},
    {{"440", 250, 301, 3, 1, 2, 0, natural, false, 1}, 6, 301, 0xde9c0635b2713a9full},
    {{"410 tall", 203, 371, 3, 4, 2, 5, natural, false, 1}, 7, 371, 0x716f52b509606d84ull},
    {{"three wide", 301, 230, 3, 3, 1, 0, natural, false, 1}, 8, 230, 0x78e78728f7ba255bull},
    {{"grey", 611, 407, 1, 1, 1, 0, natural, false, 0}, 9, 407, 0x2e7a59b3e846e42bull},
    {{"grey 2x2 restart 13", 401, 219, 1, 2, 2, 13, natural, false, 0}, 10, 219, 0x8bfe579e729f8596ull},
    {{"ycck 444 restart 3", 170, 177, 4, 1, 1, 3, natural, false, 1}, 12, 177, 0x942a8dedcc166d09ull},
    {{"stuffing restart 2", 400, 300, 3, 2, 2, 2, ones, false, 1}, 14, 300, 0x967d9f7bc6de07ddull},
    {{"dense wrapping quantisers", 260, 200, 3, 2, 2, 4, dense, true, 1}, 16, 200, 0x939a3176291c895ull},
    {{"grey dense wrapping", 300, 200, 1, 1, 1, 0, dense, true, 0}, 17, 200, 0xcac9a5578241fde3ull},
    {{"flat", 1600, 1200, 3, 2, 2, 0, flat, false, 1}, 18, 1200, 0x9995efa0c5556943ull},
    {{"strong 420", 320, 240, 3, 2, 2, 0, strong, false, 1}, 19, 240, 0x4173a4cc4a2797d3ull},
    {{"strong 444 restart 5", 240, 160, 3, 1, 1, 5, strong, false, 1}, 20, 160, 0xf40ef8c72a859ca0ull},
};

}  // namespace

// Hashes pin the rows the decoder delivers; the span entry must agree with
// the file entry byte for byte, and the narrower kernels (what processors
// without the wide units run) and the plain code give the same bytes.
TEST(JpegDecodeGolden, GeneratedStreamsAcrossManyRefills) {
    for (const golden_stream &g : streams) {
        built b = build_stream(g.recipe, g.seed);
        EXPECT_GT(b.file.size(), 20000u) << g.recipe.name << ": must cross input refills";
        outcome o = decode_file(b.file), s = decode_file(b.file, true);
        EXPECT_EQ(o.rc, 0) << g.recipe.name;
        EXPECT_EQ(o.rows, g.rows) << g.recipe.name;
        EXPECT_EQ(o.hash, g.hash) << g.recipe.name;
        EXPECT_EQ(s.rc, o.rc) << g.recipe.name;
        EXPECT_EQ(s.hash, o.hash) << g.recipe.name;
        for (int bits : {128, 0}) {
            jpeg_decoder_limit_vectors(bits);
            outcome n = decode_file(b.file);
            jpeg_decoder_limit_vectors(256);
            EXPECT_EQ(n.hash, o.hash) << g.recipe.name << " at " << bits << " bits";
        }
    }
}

// Restart markers a few bytes off, beyond the search window, or gone; the
// stream cut short (the tail decodes from what the last refill left) and
// single damaged bytes (corrupt codes stop the scan at a fixed block).
TEST(JpegDecodeGolden, MovedMissingTruncatedAndDamagedStreams) {
    built r = build_stream(streams[1].recipe, 2);
    built s = build_stream(streams[11].recipe, 14);
    built g = build_stream(streams[9].recipe, 10);
    ASSERT_GT(r.restarts.size(), 40u);
    ASSERT_GT(s.restarts.size(), 40u);
    auto cut = [](const bytes &f, size_t keep) { return bytes(f.begin(), f.begin() + static_cast<std::ptrdiff_t>(keep)); };
    auto flip = [](bytes f, size_t at, uint8_t x) {
        f[at] ^= x;
        return f;
    };
    auto drop = [](const built &b, size_t n) {
        bytes f = b.file;
        f.erase(f.begin() + static_cast<std::ptrdiff_t>(b.restarts[n]), f.begin() + static_cast<std::ptrdiff_t>(b.restarts[n]) + 2);
        return f;
    };
    struct {
        const char *name;
        bytes file;
        outcome want;
    } cases[] = {
        {"marker 3 bytes late", move_restart(r, 5, 3), {-3, 16, 0xfccf6336dac3391eull}},
        {"1 junk byte before a marker", pad_restart(r, 20, 1), {0, 389, 0xadf263a2cc473bb6ull}},
        {"47 junk bytes before a marker", pad_restart(s, 70, 47), {0, 300, 0x967d9f7bc6de07ddull}},
        {"48 junk bytes before a marker", pad_restart(r, 21, 48), {0, 389, 0xadf263a2cc473bb6ull}},
        {"49 junk bytes before a marker", pad_restart(s, 72, 49), {-3, 80, 0xa4a0cdb0ac4769bcull}},
        {"80 junk bytes before a marker", pad_restart(r, 22, 80), {-3, 80, 0x4095be7a05389ec1ull}},
        {"marker 60 bytes late", move_restart(r, 30, 60), {-3, 96, 0x24bc92d79cc7396full}},
        {"marker dropped", drop(r, 11), {0, 389, 0x7b552fca6eb8afa2ull}},
        {"every third marker dropped", [&] {
             built t = s;
             for (size_t n = t.restarts.size(); n-- > 0;)
                 if (n % 3 == 1) t.file = drop(t, n);
             return t.file;
         }(), {-3, 0, 0x14650fb0739d0383ull}},
        {"grey marker late", move_restart(g, 4, 20), {-3, 32, 0x63cc2b6beb329bbbull}},
        {"cut at 60%", cut(r.file, r.file.size() * 6 / 10), {-3, 224, 0x31474bbf80288e34ull}},
        {"cut inside stuffing", cut(s.file, s.file.size() / 3), {-3, 96, 0xc6c56a0a7a7678dull}},
        {"byte flipped early", flip(r.file, 2000, 0x5A), {0, 389, 0x4be3220712762023ull}},
        {"byte flipped late", flip(s.file, s.file.size() - 5000, 0xFF), {-3, 288, 0xfb5e95aa8d5021d0ull}},
        {"byte flipped in grey", flip(g.file, 12345, 0x81), {-3, 112, 0xae7ad18fe0dead6bull}},
    };
    for (auto &c : cases) {
        outcome o = decode_file(c.file), sp = decode_file(c.file, true);
        EXPECT_EQ(o.rc, c.want.rc) << c.name;
        EXPECT_EQ(o.rows, c.want.rows) << c.name;
        EXPECT_EQ(o.hash, c.want.hash) << c.name;
        EXPECT_EQ(sp.rc, o.rc) << c.name;
        EXPECT_EQ(sp.hash, o.hash) << c.name;
    }
}

// The block transform takes a 16-bit route for blocks whose coefficient
// magnitudes sum to at most 16000: blocks of 12000 to 36000, with
// their weight in a few coefficients of either sign, must come out exactly
// as the scalar kernel gives them.
TEST(JpegDecodeGolden, TransformIsExactAroundItsSixteenBitLimit) {
    lcg r{77};
    for (int it = 0; it < 200000; it++) {
        int16_t coef[64] = {}, coefT[64];
        const int total = 12000 + static_cast<int>(r.next(24000)), n = 1 + static_cast<int>(r.next(it % 7 == 0 ? 64 : 9));
        const int row = static_cast<int>(r.next(8));
        int left = total;
        for (int i = 0; i < n && left > 0; i++) {
            // Half the blocks keep their weight in one coefficient row.
            int at = it % 2 ? row * 8 + static_cast<int>(r.next(8)) : static_cast<int>(r.next(64));
            int v = i == n - 1 ? left : std::min(left, static_cast<int>(r.next(static_cast<uint32_t>(left) + 1)));
            coef[at] = static_cast<int16_t>(std::clamp(coef[at] + (r.next(2) ? v : -v), -32768, 32767));
            left -= v;
        }
        for (int i = 0; i < 64; i++) coefT[(i & 7) * 8 + (i >> 3)] = coef[i];
        int8_t a[64], b[64];
        jpeg_idct_8x8(coef, 0xFF, a, 8);
        for (int bits : {256, 128, 0}) {
            jpeg_decoder_limit_vectors(bits);
            jpeg_idct_8x8_transposed(coefT, b, 8);
            jpeg_decoder_limit_vectors(256);
            ASSERT_EQ(std::memcmp(a, b, 64), 0) << "block " << it << " weight " << total << " at " << bits << " bits";
        }
    }
}
