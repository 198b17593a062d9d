// JPEG encoder: a DIB as a baseline JFIF file with fixed Huffman tables,
// quality-scaled quantisers, the fixed-point forward DCT and chroma taken
// from every other sample; and the quality setting those tables follow.
#include "codecs/codec_support.h"
#include "codecs/jpeg.h"
#include "codecs/jpeg_lanes.h"

#include <algorithm>
#include <bit>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace brv {

namespace {

constexpr int32_t ROW_LIMIT = 65280;
constexpr int32_t FLUSH_SIZE = 10000;
// Room for one more unit's worth of coded bytes past the flush size (four
// blocks of at most 64 codes of 26 bits, every byte stuffed: under 1,700).
constexpr int32_t OUTPUT_SIZE = FLUSH_SIZE + 4096;

constexpr uint8_t base_luma[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
// The fourth and fifth entries of the first row (46, 66) are ours, not the
// usual example table's.
constexpr uint8_t base_chroma[64] = {
    17, 18, 24, 46, 66, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99, 24, 26, 56, 99, 99, 99,
    99, 99, 47, 66, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// The typical Huffman tables, as BITS and HUFFVAL go into the DHT segments.
constexpr uint8_t dc_luma_bits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
constexpr uint8_t dc_chroma_bits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
constexpr uint8_t dc_values[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr uint8_t ac_luma_bits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
constexpr uint8_t ac_luma_values[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
constexpr uint8_t ac_chroma_bits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
constexpr uint8_t ac_chroma_values[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// Each symbol's code above its length (the low 8 bits), one load a symbol.
struct code_table {
    uint32_t entry[256];
};

// Canonical codes: consecutive within a length, doubled for the next one.
void build_code_table(code_table &t, const uint8_t *bits, const uint8_t *values) {
    std::memset(&t, 0, sizeof t);
    uint32_t code = 0;
    int k = 0;
    for (int l = 1; l <= 16; l++) {
        for (int i = 0; i < bits[l - 1]; i++, k++) t.entry[values[k]] = code++ << 8 | static_cast<uint32_t>(l);
        code <<= 1;
    }
}

code_table dc_luma_codes, dc_chroma_codes, ac_luma_codes, ac_chroma_codes;

void jpeg_build_code_tables() {
    build_code_table(dc_luma_codes, dc_luma_bits, dc_values);
    build_code_table(dc_chroma_codes, dc_chroma_bits, dc_values);
    build_code_table(ac_luma_codes, ac_luma_bits, ac_luma_values);
    build_code_table(ac_chroma_codes, ac_chroma_bits, ac_chroma_values);
}

// ---- Output ------------------------------------------------------------------------

// Bits gather in a 64-bit accumulator and leave eight bytes at a time,
// high byte first; a word without an 0xFF byte (nearly all) skips the
// stuffing.  Copied into a local for each block, so its fields stay in
// registers rather than being reloaded after every byte stored.
struct bit_writer {
    uint8_t *out;
    int32_t len;
    uint64_t acc;
    int room;  // bits acc can take before it is sent: 1..64

    void emit(uint32_t byte) {
        out[len++] = static_cast<uint8_t>(byte);
        if (byte == 0xFF) out[len++] = 0;
    }
    // bits holds no more than its n (at most 32) low bits.
    __attribute__((always_inline)) void put(int n, uint32_t bits) {
        if (n < room) {
            acc = acc << n | bits;
            room -= n;
            return;
        }
        // Fill the word and send it; acc keeps bits whole, and the part
        // already sent leaves the top of acc before the next word is full.
        const int rest = n - room;
        const uint64_t word = acc << room | uint64_t{bits} >> rest;
        acc = bits;
        room = 64 - rest;
        // A byte of ~word is zero exactly where word has an 0xFF byte.
        const uint64_t inv = ~word;
        if (((inv - 0x0101010101010101u) & ~inv & 0x8080808080808080u) == 0) {
            const uint64_t be = __builtin_bswap64(word);
            std::memcpy(out + len, &be, 8);
            len += 8;
        } else {
            for (int shift = 56; shift >= 0; shift -= 8) emit(static_cast<uint32_t>(word >> shift) & 0xFF);
        }
    }
    // The data ends on a whole 16-bit word, padded with zero bits.
    void finish() {
        int pending = 64 - room;
        const int pad = (16 - pending % 16) % 16;
        for (; pending >= 8; pending -= 8) emit(static_cast<uint32_t>(acc >> (pending - 8)) & 0xFF);
        const uint32_t tail = static_cast<uint32_t>(acc & ((1u << pending) - 1)) << pad;
        for (int left = pending + pad; left >= 8; left -= 8) emit(tail >> (left - 8) & 0xFF);
    }
};

// Bits of |v|, 0 for 0: 2|v| + 1 is never zero, so the scan needs no test.
inline int significant_bits(int v) {
    const unsigned a = static_cast<unsigned>(v < 0 ? -v : v);
    return 31 - __builtin_clz(2 * a + 1);
}

// Code (run, value): the symbol run*16 + size, then the value's low bits
// (one less when negative).
__attribute__((always_inline)) inline void jpeg_encode_value(bit_writer &bw, int run, int value, const code_table &t) {
    const int s = significant_bits(value);
    const uint32_t e = t.entry[run * 16 + s];
    const uint32_t extra = static_cast<uint32_t>(value + (value >> 31)) & ((1u << s) - 1);
    bw.put(static_cast<int>(e & 0xFF) + s, (e >> 8) << s | extra);
}

// A symbol with no value bits: end of block (0) or sixteen zeros (0xF0).
__attribute__((always_inline)) inline void jpeg_encode_symbol(bit_writer &bw, int symbol, const code_table &t) {
    const uint32_t e = t.entry[symbol];
    bw.put(static_cast<int>(e & 0xFF), e >> 8);
}

// ---- Transform -------------------------------------------------------------------------

// The 1-D kernel, on plain integers or on eight lanes at once; pass 1
// takes 181/256 for the 1/sqrt(2) factor and scales F0 and F4 by it, pass 2
// takes 724/1024 and rounds every output down by 4.
// (A macro rather than a lambda: a lambda left out of line would pass wide
// lanes between functions of different vector widths.)
#define c(v) (Pass == 1 ? (181 * (v)) >> 8 : (724 * (v)) >> 10)
template <int Pass, typename T>
__attribute__((always_inline)) inline void fdct_kernel(const T *x, T *F) {
    T s07 = x[0] + x[7], s16 = x[1] + x[6], s25 = x[2] + x[5], s34 = x[3] + x[4];
    T d07 = x[0] - x[7], d16 = x[1] - x[6], d25 = x[2] - x[5], d34 = x[3] - x[4];
    T a = s07 + s34, b = s16 + s25;
    T m = (553 * (s07 - s34)) >> 10, n = (1338 * (s16 - s25)) >> 10;
    T F6 = (724 * (m - n)) >> 10;
    T F2 = m + n + F6;
    T p = (261 * d07) >> 9, q = (41 * d34) >> 4, r = (77 * d16) >> 7, t = (461 * d25) >> 9;
    T P = p + q, Q = r + t;
    T u = (553 * (p - q)) >> 10, w = (1338 * (r - t)) >> 10;
    T F7 = c(u - w);
    T G = u + w + F7;
    T H = c(P - Q);
    T F1 = Q + G + P, F3 = H + G, F5 = H + F7;
    if (Pass == 1) {
        F[0] = (181 * (a + b)) >> 8;
        F[4] = (181 * (a - b)) >> 8;
        F[1] = F1, F[2] = F2, F[3] = F3, F[5] = F5, F[6] = F6, F[7] = F7;
    } else {
        F[0] = ((a + b) * 362 + 2048) >> 11;
        F[4] = ((a - b) * 724 + 4096) >> 12;
        F[1] = (F1 + 2) >> 2, F[2] = (F2 + 2) >> 2, F[3] = (F3 + 2) >> 2;
        F[5] = (F5 + 2) >> 2, F[6] = (F6 + 2) >> 2, F[7] = (F7 + 2) >> 2;
    }
}
#undef c

}  // namespace

// 8x8 samples at the given stride to 64 coefficients in natural order.
void jpeg_fdct_8x8(const int16_t *src, int stride, int16_t *coef) {
    int16_t work[8][8];
    int x[8], F[8];
    for (int i = 0; i < 8; i++) {
        for (int k = 0; k < 8; k++) x[k] = src[i * stride + k];
        fdct_kernel<1>(x, F);
        for (int k = 0; k < 8; k++) work[k][i] = static_cast<int16_t>(F[k]);
    }
    for (int k = 0; k < 8; k++) {
        for (int i = 0; i < 8; i++) x[i] = work[k][i];
        fdct_kernel<2>(x, F);
        for (int m = 0; m < 8; m++) coef[m * 8 + k] = static_cast<int16_t>(F[m]);
    }
}

namespace {

// The forward transform eight 32-bit lanes at a time, through the same
// kernel, so the coefficients are the same bit for bit: the plain path, and
// the reference the 16-bit paths below are held to.  Pass 1 runs the eight
// sample rows side by side (lane i: row i, by a transpose of the rows as
// loaded), giving work row k in F[k]; pass 2 runs the work rows side by side
// after a transpose, giving coefficient row m in lanes k.  The coefficients
// leave quantised (jpeg_quantise_one on each lane), AC clamped to 1023.
using flanes8 = float __attribute__((vector_size(32)));
using short8 = int16_t __attribute__((vector_size(16)));
void fdct_lanes(const int16_t *src, int stride, const float *recip, int16_t *coef) {
    lanes8 x[8], F[8];
    int dc = 0;
    for (int i = 0; i < 8; i++) {
        short8 r;
        std::memcpy(&r, src + i * stride, 16);
        F[i] = __builtin_convertvector(r, lanes8);
    }
    transpose_lanes8(F, x);
    fdct_kernel<1>(x, F);
    for (auto &v : F) v = (v << 16) >> 16;  // the work block is 16-bit
    transpose_lanes8(F, x);
    fdct_kernel<2>(x, F);
    for (int m = 0; m < 8; m++) {
        lanes8 v = (F[m] << 16) >> 16;
        lanes8 sign = v >> 31;
        flanes8 f = __builtin_convertvector((v ^ sign) - sign, flanes8), q;
        std::memcpy(&q, recip + 8 * m, 32);
        lanes8 a = __builtin_convertvector((f + 0.5f) * q, lanes8);
        if (m == 0) dc = (a[0] ^ sign[0]) - sign[0];
        // At most 1023 (what the AC code sizes reach), in arithmetic the
        // plain build can vectorise too.
        lanes8 over = a - 1023;
        a -= over & ~(over >> 31);
        v = (a ^ sign) - sign;
        short8 out = __builtin_convertvector(v, short8);
        std::memcpy(coef + 8 * m, &out, 16);
    }
    coef[0] = static_cast<int16_t>(dc);
}

int fdct_group_plain(const int16_t *const *src, int stride, const jpeg_quant_set &set, int16_t (*coef)[64],
                     uint64_t *nonzero) {
    fdct_lanes(src[0], stride, set.recip[0], coef[0]);
    nonzero[0] = 0;
    for (int k = 0; k < 64; k++) nonzero[0] |= uint64_t{coef[0][jpeg_zigzag[k]] != 0} << k;
    return 1;
}

#if defined(__x86_64__) || defined(__i386__)
// The same transform in 16-bit lanes, one block per 128-bit part of the
// vector.  Every product (v * K) >> s becomes v (or 3v) plus a high-half
// multiply by a constant that fits 16 bits, which is the floor of the exact
// product, so each step equals the 32-bit kernel's while its values fit 16
// bits.  They do with room to spare: carried as linear forms of the 64
// samples (-129..128) plus rounding intervals, no value in either pass
// exceeds 6,700 in magnitude, nor any coefficient 1,040.
//
// The quantiser divides |v| (below 2^11) by q as |v| * m >> (11 + l), with
// l = ceil(log2 q) and m = ceil(2^(11 + l) / q) (below 2^12): the quotient
// truncated, as jpeg_quantise_one gives, for every numerator below 2^11.
// In 16 bits: (|v| << 5) * (m << 4) >> 16 is |v| * m >> 7, and a high-half
// multiply by 2^(12 - l) shifts it on by 4 + l.
// v + v * k / 65536, floored: (v * K) >> s where K / 2^s = 1 + k / 65536.
#define FDCT16_SCALE(P, v, k) P##add_epi16(v, P##mulhi_epi16(v, P##set1_epi16(k)))
#define FDCT16(ATTR, NAME, V, P, BITS, SIGN)                                                                         \
    ATTR __attribute__((always_inline)) inline void NAME##_pass(const V *x, V *F, bool first) {                      \
        const V s07 = P##add_epi16(x[0], x[7]), s16 = P##add_epi16(x[1], x[6]);                                      \
        const V s25 = P##add_epi16(x[2], x[5]), s34 = P##add_epi16(x[3], x[4]);                                      \
        const V d07 = P##sub_epi16(x[0], x[7]), d16 = P##sub_epi16(x[1], x[6]);                                      \
        const V d25 = P##sub_epi16(x[2], x[5]), d34 = P##sub_epi16(x[3], x[4]);                                      \
        const V a = P##add_epi16(s07, s34), b = P##add_epi16(s16, s25);                                              \
        const V m = FDCT16_SCALE(P, P##sub_epi16(s07, s34), -30144); /* 553 >> 10 */                                 \
        const V n = FDCT16_SCALE(P, P##sub_epi16(s16, s25), 20096);  /* 1338 >> 10 */                                \
        const V F6 = FDCT16_SCALE(P, P##sub_epi16(m, n), -19200);    /* 724 >> 10 */                                 \
        const V F2 = P##add_epi16(P##add_epi16(m, n), F6);                                                           \
        const V p = FDCT16_SCALE(P, d07, -32128); /* 261 >> 9 */                                                     \
        const V q = P##add_epi16(P##add_epi16(P##add_epi16(d34, d34), d34),                                          \
                                 P##mulhi_epi16(d34, P##set1_epi16(-28672))); /* 41 >> 4 */                          \
        const V r = FDCT16_SCALE(P, d16, -26112); /* 77 >> 7 */                                                      \
        const V t = FDCT16_SCALE(P, d25, -6528);  /* 461 >> 9 */                                                     \
        const V Pq = P##add_epi16(p, q), Q = P##add_epi16(r, t);                                                     \
        const V u = FDCT16_SCALE(P, P##sub_epi16(p, q), -30144), w = FDCT16_SCALE(P, P##sub_epi16(r, t), 20096);     \
        /* 181 >> 8 in pass 1 and 724 >> 10 in pass 2 are the same step. */                                          \
        const V F7 = FDCT16_SCALE(P, P##sub_epi16(u, w), -19200);                                                    \
        const V G = P##add_epi16(P##add_epi16(u, w), F7);                                                            \
        const V H = FDCT16_SCALE(P, P##sub_epi16(Pq, Q), -19200);                                                    \
        const V F1 = P##add_epi16(P##add_epi16(Q, G), Pq), F3 = P##add_epi16(H, G), F5 = P##add_epi16(H, F7);        \
        if (first) {                                                                                                 \
            F[0] = FDCT16_SCALE(P, P##add_epi16(a, b), -19200), F[4] = FDCT16_SCALE(P, P##sub_epi16(a, b), -19200);  \
            F[1] = F1, F[2] = F2, F[3] = F3, F[5] = F5, F[6] = F6, F[7] = F7;                                        \
            return;                                                                                                  \
        }                                                                                                            \
        /* (v * 362 + 2048) >> 11 and (v * 724 + 4096) >> 12: 181 >> 10, plus one. */                                \
        const V one = P##set1_epi16(1), two = P##set1_epi16(2);                                                      \
        F[0] = P##add_epi16(P##mulhi_epi16(P##add_epi16(a, b), P##set1_epi16(11584)), one);                          \
        F[4] = P##add_epi16(P##mulhi_epi16(P##sub_epi16(a, b), P##set1_epi16(11584)), one);                          \
        F[1] = P##srai_epi16(P##add_epi16(F1, two), 2), F[2] = P##srai_epi16(P##add_epi16(F2, two), 2);              \
        F[3] = P##srai_epi16(P##add_epi16(F3, two), 2), F[5] = P##srai_epi16(P##add_epi16(F5, two), 2);              \
        F[6] = P##srai_epi16(P##add_epi16(F6, two), 2), F[7] = P##srai_epi16(P##add_epi16(F7, two), 2);              \
    }                                                                                                                \
    TRANSPOSE16_8X8(ATTR, NAME##_transpose, V, P)                                                                    \
    /* Rows (one block per 128-bit part) to quantised coefficient rows. */                                           \
    ATTR __attribute__((always_inline)) inline void NAME(V *x, const jpeg_quant_set &set) {                          \
        V F[8];                                                                                                      \
        NAME##_transpose(x, F);                                                                                      \
        NAME##_pass(F, x, true);                                                                                     \
        NAME##_transpose(x, F);                                                                                      \
        NAME##_pass(F, x, false);                                                                                    \
        for (int m = 0; m < 8; m++) {                                                                                \
            const V a = P##abs_epi16(x[m]);                                                                          \
            V r = P##mulhi_epu16(P##slli_epi16(a, 5), P##load_si##BITS(reinterpret_cast<const V *>(set.mult[m])));   \
            r = P##mulhi_epu16(r, P##load_si##BITS(reinterpret_cast<const V *>(set.shift[m])));                      \
            r = P##min_epi16(r, P##load_si##BITS(reinterpret_cast<const V *>(set.limit[m])));                        \
            x[m] = SIGN(r, x[m]);                                                                                    \
        }                                                                                                            \
    }

#define SIGN128(r, v) _mm_sign_epi16(r, v)
#define SIGN256(r, v) _mm256_sign_epi16(r, v)
FDCT16(__attribute__((target("ssse3"))), fdct16, __m128i, _mm_, 128, SIGN128)
FDCT16(__attribute__((target("avx2"))), fdct16x2, __m256i, _mm256_, 256, SIGN256)
#undef SIGN128
#undef SIGN256
#undef FDCT16
#undef FDCT16_SCALE

// The not-zero bits in zig-zag order come from the coefficient rows packed
// to bytes (saturation keeps a non-zero one non-zero), pair of rows q in
// packed[q], natural position 16q + i at byte i.  Zig-zag positions 16c to
// 16c + 15 are gathered from packed[q] for q from first[c] to last[c] by
// byte shuffles, one block per 128-bit part.
struct zigzag_gather {
    int8_t shuffle[4][4][16];
    constexpr zigzag_gather() : shuffle{} {
        for (int c = 0; c < 4; c++)
            for (int q = 0; q < 4; q++)
                for (int i = 0; i < 16; i++) {
                    const int natural = jpeg_zigzag[16 * c + i];
                    shuffle[c][q][i] = static_cast<int8_t>(natural / 16 == q ? natural % 16 : -128);
                }
    }
    static constexpr int first[4] = {0, 0, 0, 1}, last[4] = {2, 3, 3, 3};
};
constexpr zigzag_gather zigzag_gathers;

// Two 16-byte loads as the halves of one vector.
__attribute__((target("avx2"))) inline __m256i load_halves(const void *lo, const void *hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(static_cast<const __m128i *>(lo))),
                                   _mm_loadu_si128(static_cast<const __m128i *>(hi)), 1);
}

__attribute__((target("ssse3"))) int fdct_group_ssse3(const int16_t *const *src, int stride, const jpeg_quant_set &set,
                                                      int16_t (*coef)[64], uint64_t *nonzero) {
    __m128i x[8], packed[4];
    for (int k = 0; k < 8; k++) x[k] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src[0] + k * stride));
    fdct16(x, set);
    for (int k = 0; k < 8; k++) _mm_storeu_si128(reinterpret_cast<__m128i *>(coef[0] + 8 * k), x[k]);
    for (int q = 0; q < 4; q++) packed[q] = _mm_packs_epi16(x[2 * q], x[2 * q + 1]);
    uint64_t zero = 0;
    for (int c = 0; c < 4; c++) {
        __m128i z = _mm_setzero_si128();
        for (int q = zigzag_gather::first[c]; q <= zigzag_gather::last[c]; q++)
            z = _mm_or_si128(z, _mm_shuffle_epi8(packed[q], _mm_loadu_si128(reinterpret_cast<const __m128i *>(
                                                                zigzag_gathers.shuffle[c][q]))));
        zero |= uint64_t(uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(z, _mm_setzero_si128())))) << 16 * c;
    }
    nonzero[0] = ~zero;
    return 1;
}

__attribute__((target("avx2"))) int fdct_group_avx2(const int16_t *const *src, int stride, const jpeg_quant_set &set,
                                                    int16_t (*coef)[64], uint64_t *nonzero) {
    __m256i x[8], packed[4];
    for (int k = 0; k < 8; k++) x[k] = load_halves(src[0] + k * stride, src[1] + k * stride);
    fdct16x2(x, set);
    for (int k = 0; k < 8; k++) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(coef[0] + 8 * k), _mm256_castsi256_si128(x[k]));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(coef[1] + 8 * k), _mm256_extracti128_si256(x[k], 1));
    }
    for (int q = 0; q < 4; q++) packed[q] = _mm256_packs_epi16(x[2 * q], x[2 * q + 1]);
    uint64_t zero[2] = {};
    for (int c = 0; c < 4; c++) {
        __m256i z = _mm256_setzero_si256();
        for (int q = zigzag_gather::first[c]; q <= zigzag_gather::last[c]; q++)
            z = _mm256_or_si256(z, _mm256_shuffle_epi8(packed[q], _mm256_broadcastsi128_si256(_mm_loadu_si128(
                                                                      reinterpret_cast<const __m128i *>(
                                                                          zigzag_gathers.shuffle[c][q])))));
        const uint32_t m = uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(z, _mm256_setzero_si256())));
        zero[0] |= uint64_t(m & 0xFFFF) << 16 * c, zero[1] |= uint64_t(m >> 16) << 16 * c;
    }
    nonzero[0] = ~zero[0], nonzero[1] = ~zero[1];
    return 2;
}
#endif

}  // namespace

void jpeg_fill_quant_set(jpeg_quant_set &set, const uint8_t *const *tables) {
    for (int s = 0; s < 2; s++)
        for (int i = 0; i < 64; i++) {
            const int q = tables[s][i];
            const int l = q > 1 ? 32 - std::countl_zero(static_cast<unsigned>(q - 1)) : 0;
            const int m = ((2048 << l) + q - 1) / q;
            set.mult[i / 8][8 * s + i % 8] = static_cast<int16_t>(m << 4);
            set.shift[i / 8][8 * s + i % 8] = static_cast<int16_t>(4096 >> l);
            set.limit[i / 8][8 * s + i % 8] = static_cast<int16_t>(i == 0 ? 32767 : 1023);
            set.recip[s][i] = 1.0f / static_cast<float>(q);
        }
}

namespace {

// ---- Colour --------------------------------------------------------------------------------

// Luma for every sample; chroma from the even samples only, positions 0-7
// of every 16-sample span holding the span's eight (the rest go unread).
// W is a multiple of 16; eight samples go through lanes at a time.
void bgr_to_ycc_plain(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
// (Macros, not lambdas: see the transform kernel.)
#define CHANNEL(p, step)                                                                                        \
    lanes8 { (p)[0], (p)[step], (p)[2 * (step)], (p)[3 * (step)], (p)[4 * (step)], (p)[5 * (step)], (p)[6 * (step)], \
             (p)[7 * (step)] }
#define STORE(dst, v)                                          \
    do {                                                       \
        short8 o = __builtin_convertvector(v, short8);         \
        std::memcpy(dst, &o, 16);                              \
    } while (0)
    for (int s = 0; s < W; s += 16) {
        for (int h = 0; h < 16; h += 8) {
            const uint8_t *p = buf + 3 * (s + h);
            lanes8 B = CHANNEL(p, 3), G = CHANNEL(p + 1, 3), R = CHANNEL(p + 2, 3);
            STORE(y + s + h, ((308 * R + 603 * G + 120 * B) >> 10) - 128);
        }
        const uint8_t *p = buf + 3 * s;
        lanes8 B = CHANNEL(p, 6), G = CHANNEL(p + 1, 6), R = CHANNEL(p + 2, 6);
        STORE(cb + s, (512 * B - 339 * G - 178 * R) >> 10);
        STORE(cr + s, (512 * R - 429 * G - 83 * B) >> 10);
    }
}
#undef CHANNEL
#undef STORE

#if defined(__x86_64__) || defined(__i386__)
// Two 16-bit weights as the one 32-bit constant a pair multiply takes.
constexpr int pair16(int first, int second) {
    return static_cast<int>(static_cast<uint32_t>(second) << 16 | static_cast<uint16_t>(first));
}

// The same sums by pairs of 16-bit products (blue and green words side by
// side, red beside a zero word), eight pixels per 128-bit part: lo holds
// the part's first 16 bytes, hi its bytes 8 to 23.  Luma comes out as eight
// words, chroma of pixels 0, 2, 4 and 6 as four 32-bit sums each.  WIDE
// repeats a 128-bit byte shuffle across the vector.
#define YCC16(ATTR, NAME, V, P, BITS, WIDE)                                                                          \
    ATTR __attribute__((always_inline)) inline void NAME(V lo, V hi, V &y, V &cb, V &cr) {                           \
        const V bg03 = P##shuffle_epi8(lo, WIDE(_mm_setr_epi8(0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1))); \
        const V r03 = P##shuffle_epi8(lo, WIDE(_mm_setr_epi8(2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1))); \
        const V bg47 = P##shuffle_epi8(hi, WIDE(_mm_setr_epi8(4, -1, 5, -1, 7, -1, 8, -1, 10, -1, 11, -1, 13, -1, 14, -1))); \
        const V r47 = P##shuffle_epi8(hi, WIDE(_mm_setr_epi8(6, -1, -1, -1, 9, -1, -1, -1, 12, -1, -1, -1, 15, -1, -1, -1))); \
        const V bge = P##or_si##BITS(                                                                                \
            P##shuffle_epi8(lo, WIDE(_mm_setr_epi8(0, -1, 1, -1, 6, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1, -1))),    \
            P##shuffle_epi8(hi, WIDE(_mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 4, -1, 5, -1, 10, -1, 11, -1)))); \
        const V re = P##or_si##BITS(                                                                                 \
            P##shuffle_epi8(lo, WIDE(_mm_setr_epi8(2, -1, -1, -1, 8, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1))),  \
            P##shuffle_epi8(hi, WIDE(_mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 6, -1, -1, -1, 12, -1, -1, -1)))); \
        const V kbg = P##set1_epi32(pair16(120, 603)), kr = P##set1_epi32(pair16(308, 0));                           \
        const V y03 = P##add_epi32(P##madd_epi16(bg03, kbg), P##madd_epi16(r03, kr));                                \
        const V y47 = P##add_epi32(P##madd_epi16(bg47, kbg), P##madd_epi16(r47, kr));                                \
        y = P##sub_epi16(P##packs_epi32(P##srai_epi32(y03, 10), P##srai_epi32(y47, 10)), P##set1_epi16(128));        \
        cb = P##srai_epi32(P##add_epi32(P##madd_epi16(bge, P##set1_epi32(pair16(512, -339))),                        \
                                        P##madd_epi16(re, P##set1_epi32(pair16(-178, 0)))), 10);                     \
        cr = P##srai_epi32(P##add_epi32(P##madd_epi16(bge, P##set1_epi32(pair16(-83, -429))),                        \
                                        P##madd_epi16(re, P##set1_epi32(pair16(512, 0)))), 10);                      \
    }
#define NARROW(m) (m)
YCC16(__attribute__((target("ssse3"))), ycc8, __m128i, _mm_, 128, NARROW)
YCC16(__attribute__((target("avx2"))), ycc8x2, __m256i, _mm256_, 256, _mm256_broadcastsi128_si256)
#undef NARROW
#undef YCC16

__attribute__((target("ssse3"))) void bgr_to_ycc_ssse3(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
    for (int s = 0; s < W; s += 16) {
        const uint8_t *p = buf + 3 * s;
        __m128i y0, y1, cb0, cb1, cr0, cr1;
        ycc8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)),
             _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 8)), y0, cb0, cr0);
        ycc8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 24)),
             _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 32)), y1, cb1, cr1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(y + s), y0);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(y + s + 8), y1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cb + s), _mm_packs_epi32(cb0, cb1));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cr + s), _mm_packs_epi32(cr0, cr1));
    }
}

// Pixels 0-7 of each span in the low half, 8-15 in the high half.
__attribute__((target("avx2"))) void bgr_to_ycc_avx2(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
    for (int s = 0; s < W; s += 16) {
        const uint8_t *p = buf + 3 * s;
        __m256i yv, cbv, crv;
        ycc8x2(load_halves(p, p + 24), load_halves(p + 8, p + 32), yv, cbv, crv);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(y + s), yv);
        // Per half: four blue-difference words, then four red; gather each colour's eight.
        const __m256i c = _mm256_permute4x64_epi64(_mm256_packs_epi32(cbv, crv), 0xD8);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cb + s), _mm256_castsi256_si128(c));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cr + s), _mm256_extracti128_si256(c, 1));
    }
}
#endif

// The paths the encoder runs, chosen by the processor's features and
// narrowed by jpeg_encoder_limit_vectors.
using fdct_group_fn = int (*)(const int16_t *const *, int, const jpeg_quant_set &, int16_t (*)[64], uint64_t *);
using ycc_fn = void (*)(const uint8_t *, int, int16_t *, int16_t *, int16_t *);
struct encoder_paths {
    fdct_group_fn fdct;
    ycc_fn ycc;
    int group;  // blocks per transform call
};

encoder_paths paths_for(int bits) {
#if defined(__x86_64__) || defined(__i386__)
    // Static initialisers must ask for the processor's features themselves.
    __builtin_cpu_init();
    if (bits >= 256 && __builtin_cpu_supports("avx2")) return {fdct_group_avx2, bgr_to_ycc_avx2, 2};
    if (bits >= 128 && __builtin_cpu_supports("ssse3")) return {fdct_group_ssse3, bgr_to_ycc_ssse3, 1};
#endif
    (void)bits;
    return {fdct_group_plain, bgr_to_ycc_plain, 1};
}
encoder_paths paths = paths_for(256);

}  // namespace

int jpeg_fdct_quantise_group(const int16_t *const *src, int stride, const jpeg_quant_set &set, int16_t (*coef)[64],
                             uint64_t *nonzero) {
    return paths.fdct(src, stride, set, coef, nonzero);
}

void jpeg_encoder_limit_vectors(int bits) { paths = paths_for(bits); }

namespace {

struct component {
    int16_t predictor;
    const code_table *dc, *ac;
};

// One block's quantised coefficients (natural order) with their not-zero
// bits in zig-zag order.
void encode_block(bit_writer &to, component &c, const int16_t *coef, uint64_t nonzero) {
    bit_writer bw = to;
    // The typical tables code DC differences up to 11 bits and AC values up
    // to 10; the extremes of saturated colour at quality 100 could exceed them.
    int diff = coef[0] - c.predictor;
    if (diff > 2047) diff = 2047;
    if (diff < -2047) diff = -2047;
    c.predictor = static_cast<int16_t>(c.predictor + diff);
    jpeg_encode_value(bw, 0, diff, *c.dc);
    nonzero &= ~uint64_t{1};
    // Sixteen zeros in a row take the (15, 0) code.
    int prev = 0;
    while (nonzero) {
        int k = std::countr_zero(nonzero);
        nonzero &= nonzero - 1;
        int run = k - prev - 1;
        for (; run >= 16; run -= 16) jpeg_encode_symbol(bw, 0xF0, *c.ac);
        jpeg_encode_value(bw, run, coef[jpeg_zigzag[k]], *c.ac);
        prev = k;
    }
    if (prev < 63) jpeg_encode_symbol(bw, 0, *c.ac);
    to = bw;
}

// ---- Rows ----------------------------------------------------------------------------------

void jpeg_expand_palette_row(uint8_t *buf, int width, const uint8_t *palette) {
    const uint8_t *idx = buf + 2 * width;
    for (int i = 0; i < width; i++) {
        const uint8_t *e = palette + 4 * idx[i];
        uint8_t b = e[0], g = e[1], r = e[2];
        buf[3 * i] = b, buf[3 * i + 1] = g, buf[3 * i + 2] = r;
    }
}

int write_segment(int fd, const uint8_t *p, int32_t n) { return write_all(fd, p, n); }

int jpeg_write_headers(int fd, const dib_info *h, bool colour) {
    static constexpr uint8_t soi[2] = {0xFF, 0xD8};
    if (int rc = write_segment(fd, soi, 2); rc < 0) return rc;
    uint8_t app0[18] = {0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0, 1, 0, 1};
    int32_t xd = h->biXPelsPerMeter, yd = h->biYPelsPerMeter;
    if (xd == 0) xd = yd = 96;
    app0[12] = static_cast<uint8_t>(xd >> 8), app0[13] = static_cast<uint8_t>(xd);
    app0[14] = static_cast<uint8_t>(yd >> 8), app0[15] = static_cast<uint8_t>(yd);
    if (int rc = write_segment(fd, app0, 18); rc < 0) return rc;
    uint8_t dqt[134] = {0xFF, 0xDB, 0, 132, 0};
    dqt[69] = 1;
    for (int k = 0; k < 64; k++) {
        dqt[5 + k] = jpeg_quant_luma[jpeg_zigzag[k]];
        dqt[70 + k] = jpeg_quant_chroma[jpeg_zigzag[k]];
    }
    if (int rc = write_segment(fd, dqt, 134); rc < 0) return rc;
    uint8_t sof[19] = {0xFF, 0xC0, 0, static_cast<uint8_t>(colour ? 17 : 11), 8};
    sof[5] = static_cast<uint8_t>(h->biHeight >> 8), sof[6] = static_cast<uint8_t>(h->biHeight);
    sof[7] = static_cast<uint8_t>(h->biWidth >> 8), sof[8] = static_cast<uint8_t>(h->biWidth);
    if (colour) {
        static constexpr uint8_t comps[10] = {3, 1, 0x21, 0, 2, 0x11, 1, 3, 0x11, 1};
        std::memcpy(sof + 9, comps, 10);
    } else {
        static constexpr uint8_t comps[4] = {1, 1, 0x11, 0};
        std::memcpy(sof + 9, comps, 4);
    }
    if (int rc = write_segment(fd, sof, colour ? 19 : 13); rc < 0) return rc;
    struct dht {
        uint8_t id;
        const uint8_t *bits, *values;
        int count;
    };
    const dht tables[4] = {{0x00, dc_luma_bits, dc_values, 12},
                           {0x10, ac_luma_bits, ac_luma_values, 162},
                           {0x01, dc_chroma_bits, dc_values, 12},
                           {0x11, ac_chroma_bits, ac_chroma_values, 162}};
    for (int i = 0; i < (colour ? 4 : 2); i++) {
        uint8_t seg[183] = {0xFF, 0xC4, 0, static_cast<uint8_t>(19 + tables[i].count), tables[i].id};
        std::memcpy(seg + 5, tables[i].bits, 16);
        std::memcpy(seg + 21, tables[i].values, tables[i].count);
        if (int rc = write_segment(fd, seg, 21 + tables[i].count); rc < 0) return rc;
    }
    if (colour) {
        static constexpr uint8_t sos[14] = {0xFF, 0xDA, 0, 12, 3, 1, 0x00, 2, 0x11, 3, 0x11, 0, 63, 0};
        return write_segment(fd, sos, 14);
    }
    static constexpr uint8_t sos[10] = {0xFF, 0xDA, 0, 8, 1, 1, 0x00, 0, 63, 0};
    return write_segment(fd, sos, 10);
}

// Writes 10,000 bytes once that many are waiting.
int flush_full(int fd, bit_writer &bw) {
    if (bw.len < FLUSH_SIZE) return 0;
    if (file_write(fd, bw.out, FLUSH_SIZE) != FLUSH_SIZE) return IMG_ERR_WRITE;
    std::memmove(bw.out, bw.out + FLUSH_SIZE, bw.len - FLUSH_SIZE);
    bw.len -= FLUSH_SIZE;
    return 0;
}

}  // namespace

uint8_t jpeg_quant_luma[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
uint8_t jpeg_quant_chroma[64] = {
    17, 18, 24, 46, 66, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99, 24, 26, 56, 99, 99, 99,
    99, 99, 47, 66, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

int jpeg_scale_quant_tables(int quality) {
    if (quality > 100) quality = 100;
    if (quality <= 0) quality = 1;
    int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
    auto scale_table = [scale](const uint8_t *base, uint8_t *out) {
        for (int i = 0; i < 64; i++) {
            int v = (base[i] * scale + 50) / 100;
            out[i] = static_cast<uint8_t>(v < 1 ? 1 : v > 255 ? 255 : v);
        }
    };
    scale_table(base_luma, jpeg_quant_luma);
    scale_table(base_chroma, jpeg_quant_chroma);
    return 0;
}

BRIVANTA_WRITER(jpeg_write_file) {
    const int bits = header->biBitCount;
    if (bits < 5) return IMG_ERR_DEPTH;
    // Only 8- and 24-bit rows are laid out as this encoder reads them.
    if (bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    const int width = header->biWidth, height = header->biHeight;
    if (width < 1 || height < 1 || width > 65535 || height > 65535) return IMG_ERR_HEADER;
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    const bool colour = bits == 24 || !palette_is_grey(palette, 1 << bits);
    const bool expand = colour && bits == 8;
    // The quality setting is read now, as every save starts.
    jpeg_scale_quant_tables(settings.comp_quality);
    if (int rc = jpeg_write_headers(fd, header, colour); rc < 0) return rc;

    const int mcu = colour ? 16 : 8;
    const int32_t W = (width + mcu - 1) / mcu * mcu;
    const int comps = colour ? 3 : 1;
    const int64_t row_size = int64_t{W} * comps + 100;
    if (row_size >= ROW_LIMIT) return IMG_ERR_MEMORY;
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(static_cast<uint32_t>(row_size)));
    auto *planes = static_cast<int16_t *>(mem.take(static_cast<uint32_t>(3 * 8 * W * 2)));
    auto *out = static_cast<uint8_t *>(mem.take(OUTPUT_SIZE));
    if (!row || !planes || !out) return IMG_ERR_MEMORY;
    jpeg_build_code_tables();
    // A colour unit's two luma blocks go through the transform together,
    // then its two chroma blocks; grey units two at a time (or one by one
    // on the narrower paths).
    const encoder_paths path = paths;
    alignas(32) jpeg_quant_set luma, chroma;
    {
        const uint8_t *const l[2] = {jpeg_quant_luma, jpeg_quant_luma};
        const uint8_t *const c[2] = {jpeg_quant_chroma, jpeg_quant_chroma};
        jpeg_fill_quant_set(luma, l), jpeg_fill_quant_set(chroma, c);
    }
    int16_t *const y_plane = planes, *const cb_plane = planes + 8 * W, *const cr_plane = planes + 16 * W;
    component comp[3] = {{0, &dc_luma_codes, &ac_luma_codes},
                         {0, &dc_chroma_codes, &ac_chroma_codes},
                         {0, &dc_chroma_codes, &ac_chroma_codes}};
    alignas(32) int16_t coef[4][64];
    uint64_t nonzero[4];
    bit_writer bw{out, 0, 0, 64};
    const int fetch_bytes = static_cast<int>(row_bytes(width, bits));
    const int px = colour ? 3 : 1;
    // Rows needing no padding or expansion are read where the handle keeps them.
    const bool in_place = !expand && width == W;
    const uint8_t *current = row;
    int next_row = 0;
    for (int top = 0; top < height; top += 8) {
        for (int i = 0; i < 8; i++) {
            // Past the last row current still holds it: the padding repeats it.
            if (next_row < height) {
                int rc = in_place ? save_row_view(get_row, context, next_row, fetch_bytes, &current) : 0;
                if (rc < 0) return rc;
                if (rc == 0) {
                    uint8_t *dst = expand ? row + 2 * width : row;
                    if (rc = get_row(context, dst, next_row, fetch_bytes); rc < 0) return rc;
                    if (expand) jpeg_expand_palette_row(row, width, palette);
                    for (int x = width; x < W; x++) std::memcpy(row + px * x, row + px * (width - 1), px);
                    current = row;
                }
                next_row++;
            }
            int16_t *y = y_plane + i * W;
            if (colour) {
                path.ycc(current, W, y, cb_plane + i * W, cr_plane + i * W);
            } else {
                for (int x = 0; x < W; x++) y[x] = static_cast<int16_t>(current[x] - 128);
            }
        }
        if (colour) {
            for (int x = 0; x < W; x += 16) {
                const int16_t *const src[4] = {y_plane + x, y_plane + x + 8, cb_plane + x, cr_plane + x};
                for (int b = 0; b < 4; b += path.group) path.fdct(src + b, W, b < 2 ? luma : chroma, coef + b, nonzero + b);
                encode_block(bw, comp[0], coef[0], nonzero[0]);
                encode_block(bw, comp[0], coef[1], nonzero[1]);
                encode_block(bw, comp[1], coef[2], nonzero[2]);
                encode_block(bw, comp[2], coef[3], nonzero[3]);
                if (int rc = flush_full(fd, bw); rc < 0) return rc;
            }
        } else {
            // A group running past the right edge repeats the last block.
            for (int x = 0; x < W; x += 8 * path.group) {
                const int16_t *const src[2] = {y_plane + x, y_plane + std::min(x + 8, W - 8)};
                path.fdct(src, W, luma, coef, nonzero);
                for (int b = 0; b < path.group && x + 8 * b < W; b++) encode_block(bw, comp[0], coef[b], nonzero[b]);
                if (int rc = flush_full(fd, bw); rc < 0) return rc;
            }
        }
    }
    bw.finish();
    if (bw.len && file_write(fd, out, bw.len) != bw.len) return IMG_ERR_WRITE;
    static constexpr uint8_t eoi[2] = {0xFF, 0xD9};
    return write_all(fd, eoi, 2);
}

}  // namespace brv
