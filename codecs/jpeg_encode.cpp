// JPEG encoder: a DIB as a baseline JFIF file with fixed Huffman tables,
// quality-scaled quantisers, the fixed-point forward DCT and chroma taken
// from every other sample; and the quality setting those tables follow.
#include "codecs/codec_support.h"
#include "codecs/jpeg.h"
#include "codecs/jpeg_lanes.h"

namespace brv {

namespace {

constexpr int32_t ROW_LIMIT = 65280;
constexpr int32_t FLUSH_SIZE = 10000;
// Room for one more component's worth of coded bytes past the flush size.
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

struct code_table {
    uint8_t length[256];
    uint16_t code[256];
};

// Canonical codes: consecutive within a length, doubled for the next one.
void build_code_table(code_table &t, const uint8_t *bits, const uint8_t *values) {
    std::memset(&t, 0, sizeof t);
    uint32_t code = 0;
    int k = 0;
    for (int l = 1; l <= 16; l++) {
        for (int i = 0; i < bits[l - 1]; i++, k++) {
            t.length[values[k]] = static_cast<uint8_t>(l);
            t.code[values[k]] = static_cast<uint16_t>(code++);
        }
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

// Bits gather in a 64-bit accumulator and leave four bytes at a time, high
// byte first; a word without an 0xFF byte (nearly all) skips the stuffing.
struct bit_writer {
    uint8_t *out;
    int32_t len;
    uint64_t acc;
    int pending;

    void emit(uint32_t byte) {
        out[len++] = static_cast<uint8_t>(byte);
        if (byte == 0xFF) out[len++] = 0;
    }
    // bits holds no more than its n (at most 32) low bits.
    void put(int n, uint32_t bits) {
        acc = acc << n | bits;
        pending += n;
        if (pending < 32) return;
        pending -= 32;
        uint32_t word = static_cast<uint32_t>(acc >> pending);
        // A byte of ~word is zero exactly where word has an 0xFF byte.
        uint32_t inv = ~word;
        if (((inv - 0x01010101u) & ~inv & 0x80808080u) == 0) {
            out[len] = static_cast<uint8_t>(word >> 24), out[len + 1] = static_cast<uint8_t>(word >> 16);
            out[len + 2] = static_cast<uint8_t>(word >> 8), out[len + 3] = static_cast<uint8_t>(word);
            len += 4;
        } else {
            emit(word >> 24), emit((word >> 16) & 0xFF), emit((word >> 8) & 0xFF), emit(word & 0xFF);
        }
    }
    // The data ends on a whole 16-bit word, padded with zero bits.
    void finish() {
        int pad = (16 - pending % 16) % 16;
        acc <<= pad;
        pending += pad;
        while (pending >= 8) {
            pending -= 8;
            emit(static_cast<uint32_t>(acc >> pending) & 0xFF);
        }
    }
};

inline int significant_bits(int v) {
    unsigned a = static_cast<unsigned>(v < 0 ? -v : v);
    return a ? 32 - std::countl_zero(a) : 0;
}

// Code (run, value): the symbol run*16 + size, then the value's low bits
// (one less when negative).
inline void jpeg_encode_value(bit_writer &bw, int run, int value, const code_table &t) {
    int s = significant_bits(value);
    int sym = run * 16 + s;
    uint32_t extra = static_cast<uint32_t>(value < 0 ? value - 1 : value) & ((1u << s) - 1);
    bw.put(t.length[sym] + s, static_cast<uint32_t>(t.code[sym]) << s | extra);
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

// The forward transform eight lanes at a time, through the same kernel, so
// the coefficients are the same bit for bit.  Pass 1 runs the eight sample
// rows side by side (lane i: row i, by a transpose of the rows as loaded),
// giving work row k in F[k]; pass 2 runs the work rows side by side after a
// transpose, giving coefficient row m in lanes k.  With recip, the
// coefficients leave quantised (jpeg_quantise_one on each lane), AC
// clamped to 1023, and the result has bit 8m+k set where (m, k) is not zero.
using flanes8 = float __attribute__((vector_size(32)));
using short8 = int16_t __attribute__((vector_size(16)));
__attribute__((always_inline)) inline uint64_t fdct_lanes(const int16_t *src, int stride, const float *recip,
                                                         int16_t *coef) {
    lanes8 x[8], F[8], lo{}, hi{};
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
        if (recip) {
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
            // Bit m*8+k of the mask: coefficient (m, k) is not zero.
            lanes8 nz = (a != 0) & (lanes8{1, 2, 4, 8, 16, 32, 64, 128} << (m % 4 * 8));
            (m < 4 ? lo : hi) |= nz;
        }
        short8 out = __builtin_convertvector(v, short8);
        std::memcpy(coef + 8 * m, &out, 16);
    }
    if (!recip) return 0;
    coef[0] = static_cast<int16_t>(dc);
    uint32_t l = 0, h = 0;
    for (int k = 0; k < 8; k++) l |= static_cast<uint32_t>(lo[k]), h |= static_cast<uint32_t>(hi[k]);
    return uint64_t{h} << 32 | l;
}

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) uint64_t fdct_lanes_avx2(const int16_t *src, int stride, const float *recip,
                                                         int16_t *coef) {
    return fdct_lanes(src, stride, recip, coef);
}
#endif
uint64_t fdct_lanes_plain(const int16_t *src, int stride, const float *recip, int16_t *coef) {
    return fdct_lanes(src, stride, recip, coef);
}

using fdct_fn = uint64_t (*)(const int16_t *, int, const float *, int16_t *);
#if defined(__x86_64__) || defined(__i386__)
// Static initialisers must ask for the processor's features themselves.
const bool have_avx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2"));
fdct_fn fdct_best = have_avx2 ? fdct_lanes_avx2 : fdct_lanes_plain;
#else
fdct_fn fdct_best = fdct_lanes_plain;
#endif

}  // namespace

void jpeg_fdct_8x8_lanes(const int16_t *src, int stride, int16_t *coef) { fdct_best(src, stride, nullptr, coef); }
uint64_t jpeg_fdct_quantise_lanes(const int16_t *src, int stride, const float *recip, int16_t *coef) {
    return fdct_best(src, stride, recip, coef);
}

void jpeg_encoder_limit_vectors(int bits) {
#if defined(__x86_64__) || defined(__i386__)
    fdct_best = bits >= 256 && have_avx2 ? fdct_lanes_avx2 : fdct_lanes_plain;
#else
    (void)bits;
#endif
}

namespace {

// Row m's eight not-zero bits (natural order) as bits in zigzag order.
struct zigzag_table {
    uint64_t t[8][256];
    constexpr zigzag_table() : t{} {
        for (int k = 0; k < 64; k++)
            for (int b = 0; b < 256; b++)
                if (b >> (jpeg_zigzag[k] % 8) & 1) t[jpeg_zigzag[k] / 8][b] |= uint64_t{1} << k;
    }
};
constexpr zigzag_table zigzag_bits;

struct component {
    int16_t predictor;
    int16_t *plane;
    const float *recip;  // 1/q per natural-order position
    int h;
    const code_table *dc, *ac;
};

void encode_block(bit_writer &bw, component &c, const int16_t *samples, int stride) {
    alignas(16) int16_t coef[64];
    const uint64_t natural = fdct_best(samples, stride, c.recip, coef);
    // The typical tables code DC differences up to 11 bits and AC values up
    // to 10; the extremes of saturated colour at quality 100 could exceed them.
    int diff = coef[0] - c.predictor;
    if (diff > 2047) diff = 2047;
    if (diff < -2047) diff = -2047;
    c.predictor = static_cast<int16_t>(c.predictor + diff);
    jpeg_encode_value(bw, 0, diff, *c.dc);
    uint64_t nonzero = 0;
    for (int m = 0; m < 8; m++) nonzero |= zigzag_bits.t[m][(natural >> 8 * m) & 0xFF];
    nonzero &= ~uint64_t{1};
    // Sixteen zeros in a row take the (15, 0) code.
    int prev = 0;
    while (nonzero) {
        int k = std::countr_zero(nonzero);
        nonzero &= nonzero - 1;
        int run = k - prev - 1;
        for (; run >= 16; run -= 16) jpeg_encode_value(bw, 15, 0, *c.ac);
        jpeg_encode_value(bw, run, coef[jpeg_zigzag[k]], *c.ac);
        prev = k;
    }
    if (prev < 63) jpeg_encode_value(bw, 0, 0, *c.ac);
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

// Luma for every sample; chroma from the even samples only, positions 0-7
// of every 16-sample span holding the span's eight (the rest go unread).
// W is a multiple of 16; eight samples go through lanes at a time.
__attribute__((always_inline)) inline void bgr_to_ycc(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
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
__attribute__((target("avx2"))) void bgr_to_ycc_avx2(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
    bgr_to_ycc(buf, W, y, cb, cr);
}
#endif
void jpeg_bgr_to_ycc(const uint8_t *buf, int W, int16_t *y, int16_t *cb, int16_t *cr) {
#if defined(__x86_64__) || defined(__i386__)
    if (fdct_best == fdct_lanes_avx2) return bgr_to_ycc_avx2(buf, W, y, cb, cr);
#endif
    bgr_to_ycc(buf, W, y, cb, cr);
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
    float recip_luma[64], recip_chroma[64];
    for (int i = 0; i < 64; i++) recip_luma[i] = 1.0f / jpeg_quant_luma[i], recip_chroma[i] = 1.0f / jpeg_quant_chroma[i];

    component comp[3] = {
        {0, planes, recip_luma, colour ? 2 : 1, &dc_luma_codes, &ac_luma_codes},
        {0, planes + 8 * W, recip_chroma, 1, &dc_chroma_codes, &ac_chroma_codes},
        {0, planes + 16 * W, recip_chroma, 1, &dc_chroma_codes, &ac_chroma_codes},
    };
    bit_writer bw{out, 0, 0, 0};
    const int fetch_bytes = static_cast<int>(row_bytes(width, bits));
    const int px = colour ? 3 : 1;
    int next_row = 0;
    for (int top = 0; top < height; top += 8) {
        for (int i = 0; i < 8; i++) {
            // Past the last row the buffer still holds it: the padding repeats it.
            if (next_row < height) {
                uint8_t *dst = expand ? row + 2 * width : row;
                if (int rc = get_row(context, dst, next_row++, fetch_bytes); rc < 0) return rc;
                if (expand) jpeg_expand_palette_row(row, width, palette);
                for (int x = width; x < W; x++) std::memcpy(row + px * x, row + px * (width - 1), px);
            }
            int16_t *y = comp[0].plane + i * W;
            if (colour) {
                int16_t *cb = comp[1].plane + i * W, *cr = comp[2].plane + i * W;
                jpeg_bgr_to_ycc(row, W, y, cb, cr);
            } else {
                for (int x = 0; x < W; x++) y[x] = static_cast<int16_t>(row[x] - 128);
            }
        }
        for (int x = 0; x < W; x += mcu) {
            for (int c = 0; c < comps; c++) {
                for (int h = 0; h < comp[c].h; h++) encode_block(bw, comp[c], comp[c].plane + x + 8 * h, W);
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
