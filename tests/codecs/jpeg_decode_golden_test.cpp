// JPEG decoder output pinned on stored streams large enough to cross many
// input refills (every sampling layout, restart intervals, heavy 0xFF
// stuffing, long codes, coefficients past the transform's 16-bit range) and
// on damaged copies of them; every vector width of the kernels agrees.
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace jpeg_testing;

namespace {

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

// A list line's damage, in order: cut AT -, xor AT BYTE, del AT COUNT, ins AT HEXBYTES.
bytes damaged(bytes f, std::istream &ops) {
    std::string op, arg;
    size_t at;
    while (ops >> op >> at >> arg) {
        const auto pos = f.begin() + static_cast<std::ptrdiff_t>(std::min(at, f.size()));
        const bytes b = from_hex(arg);
        if (op == "cut") f.resize(at);
        else if (op == "del") f.erase(pos, pos + std::stoi(arg));
        else if (op == "xor") f.at(at) ^= b.at(0);
        else f.insert(pos, b.begin(), b.end());
    }
    return f;
}

struct lcg {
    uint32_t s;
    uint32_t next(uint32_t n) {
        s = s * 1664525u + 1013904223u;
        return static_cast<uint32_t>((uint64_t{s >> 8} * n) >> 24);
    }
};

}  // namespace

// Rows and checksum of each stream as stored and as damaged (restart markers
// moved, missing or behind junk, cuts, flipped bytes); the span entry agrees
// with the file entry, and on whole streams the narrower kernels (what
// processors without the wide units run) and the plain code agree too.
TEST(JpegDecodeGolden, StoredAndDamagedStreams) {
    int cases = 0;
    for (const std::string &line : data_lines("jpeg/golden.txt")) {
        std::istringstream in(line);
        std::string name, hash;
        outcome want;
        in >> name >> want.rc >> want.rows >> hash;
        const bytes f = damaged(read_file(data_path("jpeg/" + name)), in);
        const std::string what = name + " (line " + std::to_string(++cases) + ")";
        outcome o = decode_file(f), s = decode_file(f, true);
        EXPECT_EQ(std::make_tuple(o.rc, o.rows, o.hash), std::make_tuple(want.rc, want.rows, std::stoull(hash, nullptr, 16))) << what;
        EXPECT_EQ(std::tie(s.rc, s.hash), std::tie(o.rc, o.hash)) << what;
        if (line.compare(line.size() - 2, 2, " -") != 0) continue;
        for (int bits : {128, 0}) {
            jpeg_decoder_limit_vectors(bits);
            outcome n = decode_file(f);
            jpeg_decoder_limit_vectors(256);
            EXPECT_EQ(n.hash, o.hash) << what << " at " << bits << " bits";
        }
    }
    EXPECT_EQ(cases, 47);
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

