// JPEG decoder: the marker walk, the kept DQT/DHT tables, one baseline
// Huffman scan, the fixed-point inverse DCT and the table-driven colour
// conversion that hands DIB rows to the load pipeline.
#include "codecs/codec_support.h"
#include "codecs/jpeg.h"
#include "codecs/jpeg_lanes.h"
#include "frame/byte_source.h"

#include <algorithm>
#include <bit>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace brv {

jpeg_decoder_tables jpeg_tables;

namespace {

constexpr int32_t PLANE_LIMIT = 65280;
constexpr int32_t HEADER_BUFFER = 4096;
// Zero bytes behind the input buffer's fill area: a block read near the end
// of the buffer runs on into them instead of past the allocation.
constexpr int32_t INPUT_SPARE = 1024;
constexpr int32_t REFILL_MARGIN = 200;
constexpr int RESTART_SEARCH = 50;

// ---- Fixed tables ---------------------------------------------------------------

// clamp(i + 128) for i in -1024..1023; the documented range is -384..367 and
// the wider one only keeps the YCCK sums (which reach beyond it) in bounds.
struct range_table {
    uint8_t v[2048];
    constexpr range_table() : v() {
        for (int i = -1024; i < 1024; i++) v[i + 1024] = static_cast<uint8_t>(i + 128 < 0 ? 0 : i + 128 > 255 ? 255 : i + 128);
    }
};
constexpr range_table range_storage;
inline const uint8_t *const jpeg_range_limit = range_storage.v + 1024;

// Chroma products truncated toward zero, indexed by the sample byte.
struct chroma_table {
    int16_t v[256];
    constexpr chroma_table(int num, int den) : v() {
        for (int b = 0; b < 256; b++) {
            int c = b < 128 ? b : b - 256;
            v[b] = static_cast<int16_t>(c * num / den);
        }
    }
};
constexpr chroma_table jpeg_cr_r(1402, 1000), jpeg_cb_g(34414, 100000), jpeg_cr_g(71414, 100000),
    jpeg_cb_b(1772, 1000);

// ---- Per-stream header records ----------------------------------------------------

struct frame_component {
    uint8_t id, h, v, tq;
};
struct frame_record {
    uint8_t precision;
    uint16_t height, width;
    uint8_t nf;
    frame_component comp[4];
};
struct jfif_record {
    uint8_t ident[5];
    uint16_t version;
    uint8_t units;
    uint16_t xdensity, ydensity;
    uint8_t thumb_w, thumb_h;
};

struct stream_headers {
    frame_record frame;
    bool have_frame;
    jfif_record jfif;
    bool have_jfif;
    uint16_t restart_interval;
    uint16_t sos_length;
    jpeg_decoder_tables tables;  // the kept tables as this stream leaves them
};
stream_headers headers;

int read_u8(byte_source &s) { return source_byte(s); }
int read_u16(byte_source &s) {
    int a = source_byte(s), b = source_byte(s);
    return a < 0 || b < 0 ? -1 : a << 8 | b;
}

// ---- Huffman tables -----------------------------------------------------------------

// Canonical codes per length and the three derived arrays, all kept as the
// 16-bit numbers the bit-serial decode compares.
void derive_table(jpeg_huffman_table &t) {
    uint32_t code = 0, k = 0;
    for (int l = 1; l <= 16; l++) {
        t.valptr[l] = static_cast<int16_t>(k - code);
        t.mincode[l] = static_cast<int16_t>(code);
        if (t.bits[l]) {
            code += t.bits[l];
            k += t.bits[l];
            t.maxcode[l] = static_cast<int16_t>(code - 1);
        } else {
            t.maxcode[l] = -1;
        }
        code <<= 1;
    }
    t.maxcode[16] = t.maxcode[17] = 32767;
}

jpeg_huffman_table empty_table() {
    jpeg_huffman_table t{};
    derive_table(t);
    return t;
}

int read_dqt(byte_source &s, int length, jpeg_decoder_tables &tab) {
    int remaining = length - 2, selected = 0;
    while (remaining >= 1) {
        int pqtq = read_u8(s);
        if (pqtq < 0) return IMG_ERR_DATA;
        if ((pqtq & 15) < 4) selected = pqtq & 15;
        uint16_t *q = tab.quant[selected];
        if (pqtq >> 4 == 0) {
            uint8_t raw[64];
            if (source_read(s, raw, 64) != 64) return IMG_ERR_DATA;
            for (int i = 0; i < 64; i++) q[i] = raw[i];
            remaining -= 65;
        } else if (pqtq >> 4 == 1) {
            uint8_t raw[128];
            if (source_read(s, raw, 128) != 128) return IMG_ERR_DATA;
            for (int i = 0; i < 64; i++) q[i] = get16be(raw + 2 * i);
            remaining -= 129;
        } else {
            return IMG_ERR_HEADER;
        }
    }
    return 0;
}

int read_dht(byte_source &s, int length, jpeg_decoder_tables &tab) {
    int remaining = length - 2;
    while (remaining >= 1) {
        int tcth = read_u8(s);
        if (tcth < 0) return IMG_ERR_DATA;
        jpeg_huffman_table *t;
        switch (tcth) {
        case 0x00: case 0x01: case 0x02: t = &tab.dc[tcth]; break;
        case 0x10: case 0x11: case 0x12: t = &tab.ac[tcth - 0x10]; break;
        default: return IMG_ERR_HEADER;
        }
        uint8_t counts[16];
        if (source_read(s, counts, 16) != 16) return IMG_ERR_DATA;
        int total = 0;
        for (int i = 0; i < 16; i++) total += counts[i];
        if (total > 256) return IMG_ERR_HEADER;
        std::memcpy(t->bits + 1, counts, 16);
        if (source_read(s, t->huffval, total) != total) return IMG_ERR_DATA;
        derive_table(*t);
        remaining -= 17 + total;
    }
    return 0;
}

// Walks the segments from the SOI up to the SOS (or the EOI when only tables
// are wanted), into `headers`.  The next marker must stand exactly where
// the segment length says.
int walk_markers(byte_source &s, int32_t offset, bool tables_only) {
    source_seek(s, offset);
    int b0 = read_u8(s), b1 = read_u8(s);
    if (b0 < 0 || b1 < 0) return IMG_ERR_DATA;
    int32_t pos = offset;
    while (!(b0 == 0xFF && b1 == 0xD8)) {
        if (pos - offset >= 1000) return IMG_ERR_HEADER;
        b0 = b1;
        b1 = read_u8(s);
        if (b1 < 0) return IMG_ERR_HEADER;
        pos++;
    }
    pos += 2;
    headers.have_frame = headers.have_jfif = false;
    headers.restart_interval = 0;
    headers.tables = jpeg_tables;
    for (;;) {
        if (pos > 0x7FFFFFFF - 0x10004) return IMG_ERR_HEADER;
        source_seek(s, pos);
        int marker = read_u16(s);
        if (marker < 0) return IMG_ERR_DATA;
        if (tables_only && marker == 0xFFD9) return 0;
        int length = read_u16(s);
        if (length < 0) return IMG_ERR_DATA;
        if (marker == 0xFFDA) {
            headers.sos_length = static_cast<uint16_t>(length);
            return 0;
        }
        int rc = 0;
        switch (marker) {
        case 0xFFC0:
        case 0xFFC1: {
            uint8_t f[18];
            if (source_read(s, f, 18) != 18) return IMG_ERR_DATA;
            frame_record &fr = headers.frame;
            fr.precision = f[0];
            fr.height = get16be(f + 1);
            fr.width = get16be(f + 3);
            fr.nf = f[5];
            for (int i = 0; i < 4; i++) {
                const uint8_t *c = f + 6 + 3 * i;
                fr.comp[i] = {c[0], static_cast<uint8_t>(c[1] >> 4), static_cast<uint8_t>(c[1] & 15), c[2]};
            }
            headers.have_frame = true;
            break;
        }
        case 0xFFDB: rc = read_dqt(s, length, headers.tables); break;
        case 0xFFC4: rc = read_dht(s, length, headers.tables); break;
        case 0xFFDD: {
            int ri = read_u16(s);
            if (ri < 0) return IMG_ERR_DATA;
            headers.restart_interval = static_cast<uint16_t>(ri);
            break;
        }
        case 0xFFE0: {
            uint8_t a[14];
            if (source_read(s, a, 14) != 14) return IMG_ERR_DATA;
            jfif_record &j = headers.jfif;
            std::memcpy(j.ident, a, 5);
            j.version = get16be(a + 5);
            j.units = a[7];
            j.xdensity = get16be(a + 8);
            j.ydensity = get16be(a + 10);
            j.thumb_w = a[12];
            j.thumb_h = a[13];
            headers.have_jfif = true;
            break;
        }
        default: break;  // other frames, APPn, COM, DNL, ...: skipped by length
        }
        if (rc == IMG_ERR_DATA) return rc;
        if (rc < 0) return IMG_ERR_HEADER;
        pos += length + 2;
    }
}

// ---- Bit reader -----------------------------------------------------------------------

// Bits come most significant first from the byte at the read pointer; after
// a byte is used up the pointer moves on by two over a stuffed FF 00 pair,
// else by one.  Bytes are fetched ahead into a 64-bit word.  The exact read
// pointer matters only at refills and restart points, so it is recovered
// then: bytes fetched since `linear` lie back to back just behind p, and only
// bytes fetched one at a time (near a 0xFF or the buffer's end) have their
// address noted.
// Eight raw bytes without a 0xFF advance one by one: takes the whole bytes
// that fit in one step, or answers false to leave them to the byte-at-a-time
// refill.
__attribute__((always_inline)) inline bool fill_word(uint64_t &acc, int &nbits, const uint8_t *&p, unsigned &fetched,
                                                    const uint8_t *limit) {
    if (p + 8 > limit) return false;
    uint64_t w;
    std::memcpy(&w, p, 8);
    const uint64_t x = ~w;
    if ((x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull) return false;
    if constexpr (std::endian::native == std::endian::little) w = __builtin_bswap64(w);
    acc |= w >> nbits;
    const int k = (64 - nbits) >> 3;
    p += k;
    fetched += k;
    nbits += 8 * k;
    return true;
}

struct bit_reader {
    uint64_t acc;          // unread bits, left-aligned; below them the next byte's bits or zeros
    int nbits;
    const uint8_t *p;      // next raw byte to fetch
    unsigned fetched;      // bytes fetched so far
    unsigned linear;       // bytes fetched from this count on lie back to back before p
    const uint8_t *limit;  // fetches stop here and give zero bits
    const uint8_t *ring[8];  // addresses of the last bytes fetched before `linear`

    void fill() {
        if (!fill_word(acc, nbits, p, fetched, limit)) fill_bytes();
    }
    void fill_bytes() {
        for (unsigned i = fetched - (fetched - linear < 8 ? fetched - linear : 8); i != fetched; i++)
            ring[i & 7] = p - (fetched - i);
        while (nbits <= 56) {
            uint8_t b = 0;
            ring[fetched++ & 7] = p;
            if (p < limit) {
                b = *p;
                p += (b == 0xFF && p[1] == 0x00) ? 2 : 1;
            }
            acc |= static_cast<uint64_t>(b) << (56 - nbits);
            nbits += 8;
        }
        linear = fetched;
    }
    // The byte holding the next unread bit, and that bit's mask.
    const uint8_t *pointer(int &mask) const {
        const int whole = nbits >> 3, part = nbits & 7;
        const unsigned idx = fetched - whole - (part ? 1 : 0);
        mask = part ? 1 << (part - 1) : 0x80;
        return idx - linear < 0x80000000u ? p - (fetched - idx) : ring[idx & 7];
    }
    void reset(const uint8_t *at, int mask) {
        p = at;
        acc = 0;
        nbits = 0;
        linear = fetched;
        fill();
        int used = 0;
        while (mask < 0x80 && used < 8) mask <<= 1, used++;
        acc <<= used;
        nbits -= used;
    }
};

// ---- Huffman decoding ------------------------------------------------------------------

// The bit-serial decode of one table, precomputed for every 10-bit prefix.
// An entry's low 5 bits count the bits it uses, the next 3 its kind; a full
// entry also holds the zero run (bits 8-11) and the extended value (top 16
// bits) when the code and its value bits fit the prefix together; a symbol
// entry holds the symbol (bits 8-15) when only the code does.
constexpr int LOOKAHEAD = 10;
constexpr uint32_t ENTRY_FULL = 0x00, ENTRY_SYMBOL = 0x20, ENTRY_END = 0x40, ENTRY_CORRUPT = 0x60, ENTRY_LONG = 0xE0,
                   ENTRY_KIND = 0xE0;

struct decode_table {
    const jpeg_huffman_table *t;
    uint32_t look[1 << LOOKAHEAD];
};

inline int extend(int v, int s) { return s == 0 ? 0 : v < (1 << (s - 1)) ? v - ((1 << s) - 1) : v; }

// The bit-serial decode stops at the first length l whose code is at most
// maxcode[l]; the prefixes that stop there form the range from 0 up to
// (maxcode[l] + 1) << (LOOKAHEAD - l), so each length claims the part of that
// range the shorter lengths left, and what no length claims needs more bits.
void build_decode_table(decode_table &d, const jpeg_huffman_table &t, bool dc) {
    d.t = &t;
    uint32_t claimed = 0;
    for (int l = 1; l <= LOOKAHEAD; l++) {
        const int32_t top = t.maxcode[l] + 1;
        const uint32_t bound = top <= 0 ? 0 : std::min<uint32_t>(static_cast<uint32_t>(top) << (LOOKAHEAD - l), 1u << LOOKAHEAD);
        // Both ends are whole codes of this length: every prefix of one code
        // gets the same entry, save for the value bits of a full entry.
        const int spare = LOOKAHEAD - l;
        for (uint32_t code = claimed >> spare; code < bound >> spare; code++) {
            uint32_t *out = d.look + (code << spare);
            const uint16_t idx = static_cast<uint16_t>(t.valptr[l] + code);
            uint32_t e;
            if (idx >= 256) {
                e = ENTRY_CORRUPT | l;
            } else {
                const int sym = t.huffval[idx], s = sym & 15, r = dc ? 0 : sym >> 4;
                if (!dc && sym == 0) {
                    e = ENTRY_END | l;
                } else if ((dc || s) && s <= spare) {
                    for (uint32_t v = 0; v < (1u << spare); v++) {
                        const int bits = static_cast<int>(v >> (spare - s));
                        out[v] = ENTRY_FULL | (l + s) | r << 8 | static_cast<uint32_t>(extend(bits, s)) << 16;
                    }
                    continue;
                } else {
                    e = ENTRY_SYMBOL | l | sym << 8;
                }
            }
            for (uint32_t v = 0; v < (1u << spare); v++) out[v] = e;
        }
        claimed = std::max(claimed, bound);
    }
    for (uint32_t v = claimed; v < (1u << LOOKAHEAD); v++) d.look[v] = ENTRY_LONG;
}

// A code longer than the prefix, bit by bit, from the next 16 bits: the
// symbol, or -1 for a value index outside the table; its length in len.
__attribute__((noinline)) int decode_long(uint32_t v16, const jpeg_huffman_table &t, int &len) {
    for (int l = LOOKAHEAD + 1; l <= 16; l++) {
        uint32_t code = v16 >> (16 - l);
        if (static_cast<int16_t>(code) <= t.maxcode[l]) {
            len = l;
            uint16_t idx = static_cast<uint16_t>(t.valptr[l] + code);
            return idx < 256 ? t.huffval[idx] : -1;
        }
    }
    len = 16;
    return -1;  // unreachable: maxcode[16] stops every code
}

// The reader's moving parts in locals for the length of one block, so that
// they stay in registers; the byte-at-a-time refill works on the record.
struct bits_local {
    bit_reader &br;
    uint64_t acc;
    int nbits;
    const uint8_t *p;
    unsigned fetched;
    explicit bits_local(bit_reader &b) : br(b), acc(b.acc), nbits(b.nbits), p(b.p), fetched(b.fetched) {}
    void save() const { br.acc = acc, br.nbits = nbits, br.p = p, br.fetched = fetched; }
    __attribute__((always_inline)) void fill() {
        if (fill_word(acc, nbits, p, fetched, br.limit)) return;
        save();
        br.fill_bytes();
        acc = br.acc, nbits = br.nbits, p = br.p, fetched = br.fetched;
    }
    uint32_t peek(int n) const { return static_cast<uint32_t>(acc >> (64 - n)); }
    void skip(int n) {
        acc <<= n;
        nbits -= n;
    }
    int receive_extend(int s) {
        if (!s) return 0;
        int v = static_cast<int>(peek(s));
        skip(s);
        return v < (1 << (s - 1)) ? v - ((1 << s) - 1) : v;
    }
    int decode_long_code(const jpeg_huffman_table &t) {
        int len;
        int sym = decode_long(peek(16), t, len);
        skip(len);
        return sym;
    }
};

// ---- Inverse DCT -------------------------------------------------------------------------

// The 1-D kernel, on plain integers or on eight lanes at once; c selects
// the 1/sqrt(2) factor of the pass (724/1024 first, 181/256 second).  Every
// product is rounded down by an arithmetic shift.  (A macro rather than a
// lambda: a lambda left out of line would pass wide lanes between functions
// of different vector widths.)
#define c(v) (Pass == 1 ? ((v) * 724) >> 10 : ((v) * 181) >> 8)
template <int Pass, typename T>
__attribute__((always_inline)) inline void idct_kernel(const T *x, T *y) {
    T e0 = c(x[0]) + c(x[4]), e1 = c(x[0]) - c(x[4]);
    T p = x[2] + x[6];
    T m = ((x[2] + c(p)) * 553) >> 10;
    T n = ((x[2] - c(p)) * 1338) >> 10;
    T E0 = e0 + m, E3 = e0 - m, E1 = e1 + n, E2 = e1 - n;
    T a = x[3] + x[5], b = x[1] + x[3], d = x[5] + x[7] + b;
    T g = ((c(d) + b) * 553) >> 10;
    T h = x[1] + c(a);
    T O0 = ((g + h) * 261) >> 9, O3 = ((h - g) * 2624) >> 10;
    T k = ((b - c(d)) * 1338) >> 10;
    T j = x[1] - c(a);
    T O1 = ((j + k) * 77) >> 7, O2 = ((j - k) * 461) >> 9;
    y[0] = E0 + O0, y[1] = E1 + O1, y[2] = E2 + O2, y[3] = E3 + O3;
    y[4] = E3 - O3, y[5] = E2 - O2, y[6] = E1 - O1, y[7] = E0 - O0;
}
#undef c

inline int8_t clamp_sample(int v) {
    v >>= 2;
    return static_cast<int8_t>(v > 127 ? 127 : v < -127 ? -127 : v);
}

}  // namespace

// coef: natural order; rows: bit i set when coefficient row i may be non-zero.
void jpeg_idct_8x8(const int16_t *coef, unsigned rows, int8_t *dst, int stride) {
    if (rows == 0) {
        for (int k = 0; k < 8; k++) std::memset(dst + k * stride, 0, 8);
        return;
    }
    int16_t work[8][8];
    int x[8], y[8];
    for (int i = 0; i < 8; i++) {
        if (!(rows >> i & 1)) {
            for (int jx = 0; jx < 8; jx++) work[jx][i] = 0;
            continue;
        }
        for (int k = 0; k < 8; k++) x[k] = coef[8 * i + k];
        idct_kernel<1>(x, y);
        for (int jx = 0; jx < 8; jx++) work[jx][i] = static_cast<int16_t>(y[jx]);
    }
    for (int jx = 0; jx < 8; jx++) {
        for (int k = 0; k < 8; k++) x[k] = work[jx][k];
        idct_kernel<2>(x, y);
        for (int k = 0; k < 8; k++) dst[k * stride + jx] = clamp_sample(y[k]);
    }
}

namespace {

// coefT: coefficient (row i, column k) at k * 8 + i.  Pass 1 runs the eight
// coefficient rows side by side, pass 2 the eight work rows.
__attribute__((always_inline)) inline void idct_lanes(const int16_t *coefT, int8_t *dst, int stride) {
    using short8 = int16_t __attribute__((vector_size(16)));
    using byte8 = int8_t __attribute__((vector_size(8)));
    lanes8 x[8], y[8];
    for (int k = 0; k < 8; k++) {
        short8 v;
        std::memcpy(&v, coefT + 8 * k, sizeof v);
        x[k] = __builtin_convertvector(v, lanes8);
    }
    idct_kernel<1>(x, y);
    // y[j] holds work row j (lanes: columns i), kept to 16 bits; pass 2 runs
    // the work rows side by side, so its input m is column m: a transpose.
    for (auto &v : y) v = (v << 16) >> 16;
    transpose_lanes8(y, x);
    idct_kernel<2>(x, y);
    for (int k = 0; k < 8; k++) {
        lanes8 v = y[k] >> 2;
        v = v > 127 ? 127 : v;
        v = v < -127 ? -127 : v;
        byte8 out = __builtin_convertvector(v, byte8);
        std::memcpy(dst + k * stride, &out, sizeof out);
    }
}

void idct_lanes_plain(const int16_t *coefT, int8_t *dst, int stride) { idct_lanes(coefT, dst, stride); }

using idct_fn = void (*)(const int16_t *, int8_t *, int);

#if defined(__x86_64__) || defined(__i386__)
// The same transform in 16-bit lanes.  Each product (v * K) >> s becomes
// v (or a small multiple) plus a high-half multiply by a constant that fits
// 16 bits, equal to the floor of the exact product; sums may wrap, as they
// cancel modulo 2^16.  That is exact while every multiplied value and every
// output fits 16 bits: no intermediate exceeds 1.93 times the sum of its
// inputs' magnitudes, so a block whose coefficient magnitudes sum to at
// most IDCT16_LIMIT stays in range through both passes.
constexpr int IDCT16_LIMIT = 16000;

// One 1-D pass and the 8x8 transpose, written once for both vector widths
// (the wide form runs two blocks side by side, one per 128-bit half).
#define IDCT16_PASS(ATTR, NAME, V, P)                                                                 \
    ATTR __attribute__((always_inline)) inline void NAME(const V *x, V *y) {                          \
        /* c(v) = v * 724 >> 10 (equally v * 181 >> 8): v - 300v/1024, floored. */                   \
        const V c0 = P##add_epi16(x[0], P##mulhi_epi16(x[0], P##set1_epi16(-19200)));                 \
        const V c4 = P##add_epi16(x[4], P##mulhi_epi16(x[4], P##set1_epi16(-19200)));                 \
        const V e0 = P##add_epi16(c0, c4), e1 = P##sub_epi16(c0, c4);                                 \
        const V p = P##add_epi16(x[2], x[6]);                                                         \
        const V cp = P##add_epi16(p, P##mulhi_epi16(p, P##set1_epi16(-19200)));                        \
        const V t = P##add_epi16(x[2], cp), u = P##sub_epi16(x[2], cp);                               \
        const V m = P##add_epi16(t, P##mulhi_epi16(t, P##set1_epi16(-30144))); /* 553 >> 10 */       \
        const V n = P##add_epi16(u, P##mulhi_epi16(u, P##set1_epi16(20096)));  /* 1338 >> 10 */      \
        const V E0 = P##add_epi16(e0, m), E3 = P##sub_epi16(e0, m);                                   \
        const V E1 = P##add_epi16(e1, n), E2 = P##sub_epi16(e1, n);                                   \
        const V a = P##add_epi16(x[3], x[5]), b = P##add_epi16(x[1], x[3]);                           \
        const V d = P##add_epi16(P##add_epi16(x[5], x[7]), b);                                        \
        const V cd = P##add_epi16(d, P##mulhi_epi16(d, P##set1_epi16(-19200)));                       \
        const V ca = P##add_epi16(a, P##mulhi_epi16(a, P##set1_epi16(-19200)));                       \
        const V gs = P##add_epi16(cd, b);                                                             \
        const V g = P##add_epi16(gs, P##mulhi_epi16(gs, P##set1_epi16(-30144))); /* 553 >> 10 */     \
        const V h = P##add_epi16(x[1], ca);                                                           \
        const V gh = P##add_epi16(g, h), hg = P##sub_epi16(h, g);                                     \
        const V O0 = P##add_epi16(gh, P##mulhi_epi16(gh, P##set1_epi16(-32128))); /* 261 >> 9 */     \
        const V O3 = P##add_epi16(P##add_epi16(P##mulhi_epi16(hg, P##set1_epi16(-28672)), hg),        \
                                  P##add_epi16(hg, hg)); /* 2624 >> 10 */                             \
        const V w = P##sub_epi16(b, cd);                                                              \
        const V k = P##add_epi16(w, P##mulhi_epi16(w, P##set1_epi16(20096))); /* 1338 >> 10 */       \
        const V j = P##sub_epi16(x[1], ca);                                                           \
        const V jk = P##add_epi16(j, k), jmk = P##sub_epi16(j, k);                                    \
        const V O1 = P##add_epi16(jk, P##mulhi_epi16(jk, P##set1_epi16(-26112)));  /* 77 >> 7 */     \
        const V O2 = P##add_epi16(jmk, P##mulhi_epi16(jmk, P##set1_epi16(-6528))); /* 461 >> 9 */    \
        y[0] = P##add_epi16(E0, O0), y[1] = P##add_epi16(E1, O1);                                     \
        y[2] = P##add_epi16(E2, O2), y[3] = P##add_epi16(E3, O3);                                     \
        y[4] = P##sub_epi16(E3, O3), y[5] = P##sub_epi16(E2, O2);                                     \
        y[6] = P##sub_epi16(E1, O1), y[7] = P##sub_epi16(E0, O0);                                     \
    }                                                                                                 \
    TRANSPOSE16_8X8(ATTR, NAME##_transpose, V, P)

IDCT16_PASS(, idct_kernel_16, __m128i, _mm_)
IDCT16_PASS(__attribute__((target("avx2"))), idct_kernel_16x2, __m256i, _mm256_)
#undef IDCT16_PASS

// False, having written nothing, when the block is too strong for 16 bits.
__attribute__((always_inline)) inline bool idct_16(const int16_t *coefT, int8_t *dst, int stride) {
    __m128i x[8], y[8];
    __m128i sum = _mm_setzero_si128();
    for (int k = 0; k < 8; k++) {
        x[k] = _mm_load_si128(reinterpret_cast<const __m128i *>(coefT + 8 * k));
        // |v| as an unsigned 16-bit number (32768 for -32768), summed saturating.
        sum = _mm_adds_epu16(sum, _mm_max_epi16(x[k], _mm_sub_epi16(_mm_setzero_si128(), x[k])));
    }
    const __m128i zero = _mm_setzero_si128();
    __m128i s32 = _mm_add_epi32(_mm_unpacklo_epi16(sum, zero), _mm_unpackhi_epi16(sum, zero));
    s32 = _mm_add_epi32(s32, _mm_shuffle_epi32(s32, 0x4E));
    s32 = _mm_add_epi32(s32, _mm_shuffle_epi32(s32, 0xB1));
    if (_mm_cvtsi128_si32(s32) > IDCT16_LIMIT) return false;
    idct_kernel_16(x, y);
    idct_kernel_16_transpose(y, x);
    idct_kernel_16(x, y);
    const __m128i lo = _mm_set1_epi16(-127), hi = _mm_set1_epi16(127);
    for (int k = 0; k < 8; k += 2) {
        __m128i a = _mm_min_epi16(_mm_max_epi16(_mm_srai_epi16(y[k], 2), lo), hi);
        __m128i b = _mm_min_epi16(_mm_max_epi16(_mm_srai_epi16(y[k + 1], 2), lo), hi);
        __m128i ab = _mm_packs_epi16(a, b);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + k * stride), ab);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + (k + 1) * stride), _mm_unpackhi_epi64(ab, ab));
    }
    return true;
}

void idct_best_sse2(const int16_t *coefT, int8_t *dst, int stride) {
    if (!idct_16(coefT, dst, stride)) idct_lanes_plain(coefT, dst, stride);
}
__attribute__((target("avx2"))) void idct_best_avx2(const int16_t *coefT, int8_t *dst, int stride) {
    if (!idct_16(coefT, dst, stride)) idct_lanes(coefT, dst, stride);
}

// Two blocks at once, one per 128-bit half; either too strong for 16 bits
// sends both through the one-block route.
__attribute__((target("avx2"))) void idct_pair_avx2(const int16_t *coefA, int8_t *dstA, int strideA,
                                                    const int16_t *coefB, int8_t *dstB, int strideB) {
    __m256i x[8], y[8];
    __m256i sum = _mm256_setzero_si256();
    for (int k = 0; k < 8; k++) {
        x[k] = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(coefA + 8 * k))),
                                       _mm_load_si128(reinterpret_cast<const __m128i *>(coefB + 8 * k)), 1);
        sum = _mm256_adds_epu16(sum, _mm256_abs_epi16(x[k]));
    }
    const __m256i zero = _mm256_setzero_si256();
    __m256i s32 = _mm256_add_epi32(_mm256_unpacklo_epi16(sum, zero), _mm256_unpackhi_epi16(sum, zero));
    s32 = _mm256_add_epi32(s32, _mm256_shuffle_epi32(s32, 0x4E));
    s32 = _mm256_add_epi32(s32, _mm256_shuffle_epi32(s32, 0xB1));
    if (_mm256_cvtsi256_si32(s32) > IDCT16_LIMIT || _mm_cvtsi128_si32(_mm256_extracti128_si256(s32, 1)) > IDCT16_LIMIT) {
        idct_best_avx2(coefA, dstA, strideA);
        idct_best_avx2(coefB, dstB, strideB);
        return;
    }
    idct_kernel_16x2(x, y);
    idct_kernel_16x2_transpose(y, x);
    idct_kernel_16x2(x, y);
    const __m256i lo = _mm256_set1_epi16(-127), hi = _mm256_set1_epi16(127);
    for (int k = 0; k < 8; k += 2) {
        __m256i a = _mm256_min_epi16(_mm256_max_epi16(_mm256_srai_epi16(y[k], 2), lo), hi);
        __m256i b = _mm256_min_epi16(_mm256_max_epi16(_mm256_srai_epi16(y[k + 1], 2), lo), hi);
        __m256i ab = _mm256_packs_epi16(a, b);  // per half: row k, then row k + 1
        __m128i ra = _mm256_castsi256_si128(ab), rb = _mm256_extracti128_si256(ab, 1);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dstA + k * strideA), ra);
        _mm_storeh_pd(reinterpret_cast<double *>(dstA + (k + 1) * strideA), _mm_castsi128_pd(ra));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dstB + k * strideB), rb);
        _mm_storeh_pd(reinterpret_cast<double *>(dstB + (k + 1) * strideB), _mm_castsi128_pd(rb));
    }
}

using idct_pair_fn = void (*)(const int16_t *, int8_t *, int, const int16_t *, int8_t *, int);
// Static initialisers must ask for the processor's features themselves.
const bool have_avx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2"));
idct_fn idct_best = have_avx2 ? idct_best_avx2 : idct_best_sse2;
idct_pair_fn idct_pair = have_avx2 ? idct_pair_avx2 : nullptr;
#else
idct_fn idct_best = idct_lanes_plain;
using idct_pair_fn = void (*)(const int16_t *, int8_t *, int, const int16_t *, int8_t *, int);
idct_pair_fn idct_pair = nullptr;
#endif

}  // namespace

void jpeg_idct_8x8_transposed(const int16_t *coefT, int8_t *dst, int stride) { idct_best(coefT, dst, stride); }

namespace {

// A block whose only non-zero coefficient is the DC comes out flat.
inline void idct_dc_only(int16_t dc, int8_t *dst, int stride) {
    int v = ((dc * 724) >> 10);
    int8_t s = clamp_sample((v * 181) >> 8);
    for (int k = 0; k < 8; k++) std::memset(dst + k * stride, static_cast<uint8_t>(s), 8);
}

// ---- Scan decoding -------------------------------------------------------------------------

// Zig-zag index to the transposed natural index the block transform reads;
// positions past the block (a run beyond coefficient 63) land on a spare
// slot after it, and the block is refused once its loop ends.
constexpr int SPARE_SLOT = 64, POSITIONS = 80;
struct transposed_order {
    uint8_t v[POSITIONS];
    constexpr transposed_order() : v() {
        for (int k = 0; k < POSITIONS; k++)
            v[k] = static_cast<uint8_t>(k < 64 ? (jpeg_zigzag[k] & 7) * 8 + (jpeg_zigzag[k] >> 3) : SPARE_SLOT);
    }
};
constexpr transposed_order transposed_storage;
inline const uint8_t *const zigzag_transposed = transposed_storage.v;

struct scan_slot {
    int16_t predictor;
    int8_t *plane;
    const uint16_t *quant;
    int16_t q[POSITIONS];  // the quantiser by zig-zag position, zero past the block
    int h, v;
    const decode_table *dc, *ac;
    int column;
    int stride;
};

struct input_buffer {
    uint8_t *base;
    int32_t cap;  // the fill area; INPUT_SPARE zero bytes follow
};

// Huffman decode and dequantise one block into coef (transposed, cleared
// beforehand); true in dc_only when no AC symbol came before the end of block.
__attribute__((always_inline)) inline int decode_coefficients(bit_reader &ref, scan_slot &sl, int16_t *coef,
                                                                  bool &dc_only) {
    bits_local br(ref);
    if (br.nbits < 32) br.fill();
    uint32_t e = sl.dc->look[br.peek(LOOKAHEAD)];
    int diff;
    if ((e & ENTRY_KIND) == ENTRY_FULL) {
        br.skip(e & 31);
        diff = static_cast<int32_t>(e) >> 16;
    } else {
        int sym;
        if ((e & ENTRY_KIND) == ENTRY_SYMBOL) {
            br.skip(e & 31);
            sym = (e >> 8) & 0xFF;
        } else if ((e & ENTRY_KIND) == ENTRY_LONG) {
            sym = br.decode_long_code(*sl.dc->t);
        } else {
            sym = -1;
        }
        if (sym < 0) return br.save(), IMG_ERR_HEADER;
        diff = br.receive_extend(sym & 15);
    }
    sl.predictor = static_cast<int16_t>(sl.predictor + diff);
    coef[0] = static_cast<int16_t>(sl.predictor * sl.quant[0]);
    const uint32_t *look = sl.ac->look;
    const int16_t *q = sl.q;
    int k = 1;
    while (k < 64) {
        if (br.nbits < 32) br.fill();
        e = look[br.peek(LOOKAHEAD)];
        if ((e & ENTRY_KIND) == ENTRY_FULL) {
            br.skip(e & 31);
            k += (e >> 8) & 15;
            coef[zigzag_transposed[k]] = static_cast<int16_t>((static_cast<int32_t>(e) >> 16) * q[k]);
            k++;
            continue;
        }
        if ((e & ENTRY_KIND) == ENTRY_END) {
            br.skip(e & 31);
            break;
        }
        int rs;
        if ((e & ENTRY_KIND) == ENTRY_SYMBOL) {
            br.skip(e & 31);
            rs = (e >> 8) & 0xFF;
        } else if ((e & ENTRY_KIND) == ENTRY_LONG) {
            rs = br.decode_long_code(*sl.ac->t);
            if (rs < 0) return br.save(), IMG_ERR_HEADER;
            if (rs == 0) break;
        } else {
            return br.save(), IMG_ERR_HEADER;
        }
        const int r = rs >> 4, sz = rs & 15;
        if (sz) {
            int v = br.receive_extend(sz);
            k += r;
            coef[zigzag_transposed[k]] = static_cast<int16_t>(v * q[k]);
            k++;
        } else {
            // A run with no value (ZRL among them) may end exactly at the block's end.
            if (k + r > 64) return br.save(), IMG_ERR_HEADER;
            k = k + r + 1 > 64 ? 64 : k + r + 1;
        }
    }
    // A value placed beyond coefficient 63 went to the spare slot.
    br.save();
    if (k > 64) return IMG_ERR_HEADER;
    dc_only = k == 1;
    return 0;
}

// Clears a block the transform has read: eight stores written out, since
// compilers turn a cleared loop into a slow string store.
inline void clear_block(int16_t *coef) {
#if defined(__x86_64__) || defined(__i386__)
    __m128i *c = reinterpret_cast<__m128i *>(coef);
    const __m128i z = _mm_setzero_si128();
    _mm_store_si128(c + 0, z), _mm_store_si128(c + 1, z), _mm_store_si128(c + 2, z), _mm_store_si128(c + 3, z);
    _mm_store_si128(c + 4, z), _mm_store_si128(c + 5, z), _mm_store_si128(c + 6, z), _mm_store_si128(c + 7, z);
#else
    std::memset(coef, 0, 64 * sizeof(int16_t));
#endif
}

// Coefficient blocks, cleared between uses; with the wide transform a block
// waits here for a partner so that two are transformed together.
struct block_queue {
    alignas(32) int16_t coef[2][POSITIONS];
    int cur;
    bool waiting;
    int8_t *dst;
    int stride;
};

void flush_blocks(block_queue &q) {
    if (!q.waiting) return;
    int16_t *coef = q.coef[q.cur ^ 1];
    idct_best(coef, q.dst, q.stride);
    clear_block(coef);
    q.waiting = false;
}

// One block: Huffman decode, dequantise, inverse transform into the plane
// (perhaps later, at the next block or flush_blocks).
inline int decode_block(bit_reader &br, scan_slot &sl, block_queue &q, int8_t *dst) {
    int16_t *coef = q.coef[q.cur];
    bool dc_only;
    int rc = decode_coefficients(br, sl, coef, dc_only);
    if (rc < 0) return rc;
    if (dc_only) {
        idct_dc_only(coef[0], dst, sl.stride);
        coef[0] = 0;
    } else if (!idct_pair) {
        idct_best(coef, dst, sl.stride);
        clear_block(coef);
    } else if (q.waiting) {
        int16_t *other = q.coef[q.cur ^ 1];
        idct_pair(other, q.dst, q.stride, coef, dst, sl.stride);
        clear_block(other);
        clear_block(coef);
        q.waiting = false;
    } else {
        q.waiting = true;
        q.dst = dst;
        q.stride = sl.stride;
        q.cur ^= 1;
    }
    return 0;
}

// Keeps at least the margin of unread bytes ahead of the read pointer.
void maybe_refill(bit_reader &br, input_buffer &in, byte_source &src) {
    const uint8_t *threshold = in.base + in.cap - REFILL_MARGIN;
    if (br.p < threshold) return;  // the exact pointer never runs ahead of p
    int mask;
    const uint8_t *ptr = br.pointer(mask);
    if (ptr < threshold) return;
    int32_t tail = static_cast<int32_t>(in.base + in.cap - ptr);
    if (tail < 0) tail = 0;
    std::memmove(in.base, ptr, tail);
    source_read(src, in.base + tail, in.cap - tail);
    br.reset(in.base, mask);
}

// At a restart point: find FF D0..D7 within 50 bytes of the read pointer;
// found, skip it and reset the predictors; not found, carry on as before.
void restart(bit_reader &br, scan_slot *slots) {
    int mask;
    const uint8_t *ptr = br.pointer(mask);
    for (int i = 0; i < RESTART_SEARCH && ptr + i + 1 < br.limit; i++) {
        if (ptr[i] == 0xFF && (ptr[i + 1] & 0xF8) == 0xD0) {
            br.reset(ptr + i + 2, 0x80);
            for (int k = 0; k < 4; k++) slots[k].predictor = 0;
            return;
        }
    }
}

// ---- Colour conversion -------------------------------------------------------------------------

// Samples stay within -127..127, so adding 128 is flipping the top bit.
void grey_row(const int8_t *__restrict y, uint8_t *__restrict out, int width) {
    using bytes16 = uint8_t __attribute__((vector_size(16)));
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        bytes16 v;
        std::memcpy(&v, y + x, 16);
        v ^= 0x80;
        std::memcpy(out + x, &v, 16);
    }
    for (; x < width; x++) out[x] = static_cast<uint8_t>(y[x] + 128);
}

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("ssse3"))) inline void chroma_terms(__m128i c8, __m128i r8, __m128i &ob, __m128i &og,
                                                         __m128i &orr) {
    const __m128i m_cr_r = _mm_set1_epi16(91879 - 65536), m_cb_b = _mm_set1_epi16(static_cast<short>(116126 - 65536));
    const __m128i m_cb_g = _mm_set1_epi16(22551), m_cr_g = _mm_set1_epi16(static_cast<short>(46735));
    __m128i c = _mm_srai_epi16(_mm_unpacklo_epi8(c8, c8), 8), r = _mm_srai_epi16(_mm_unpacklo_epi8(r8, r8), 8);
    __m128i ca = _mm_abs_epi16(c), ra = _mm_abs_epi16(r);
    ob = _mm_sign_epi16(_mm_add_epi16(ca, _mm_mulhi_epu16(ca, m_cb_b)), c);
    orr = _mm_sign_epi16(_mm_add_epi16(ra, _mm_mulhi_epu16(ra, m_cr_r)), r);
    og = _mm_add_epi16(_mm_sign_epi16(_mm_mulhi_epu16(ca, m_cb_g), c), _mm_sign_epi16(_mm_mulhi_epu16(ra, m_cr_g), r));
}

// Byte shuffles interleaving B, G and R into three 16-byte stores.
alignas(16) const int8_t interleave_mask[9][16] = {
    {0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1, -1, 5},
    {-1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1, -1},
    {-1, -1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1},
    {-1, -1, 6, -1, -1, 7, -1, -1, 8, -1, -1, 9, -1, -1, 10, -1},
    {5, -1, -1, 6, -1, -1, 7, -1, -1, 8, -1, -1, 9, -1, -1, 10},
    {-1, 5, -1, -1, 6, -1, -1, 7, -1, -1, 8, -1, -1, 9, -1, -1},
    {-1, 11, -1, -1, 12, -1, -1, 13, -1, -1, 14, -1, -1, 15, -1, -1},
    {-1, -1, 11, -1, -1, 12, -1, -1, 13, -1, -1, 14, -1, -1, 15, -1},
    {10, -1, -1, 11, -1, -1, 12, -1, -1, 13, -1, -1, 14, -1, -1, 15},
};

__attribute__((target("ssse3"))) inline __m128i interleave3(__m128i b, __m128i g, __m128i r, int part) {
    auto *m = reinterpret_cast<const __m128i *>(interleave_mask[3 * part]);
    return _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b, _mm_load_si128(m)), _mm_shuffle_epi8(g, _mm_load_si128(m + 1))),
                        _mm_shuffle_epi8(r, _mm_load_si128(m + 2)));
}

// Sixteen pixels at a time.  The chroma products come from multiplies that
// equal the tables' truncated values for every sample (|c| * M >> 16 with
// the sign put back), and the saturating pack is the range limit.
template <int H>
__attribute__((target("ssse3"))) int ycc_row_ssse3(const int8_t *y, const uint8_t *cb, const uint8_t *cr,
                                                   uint8_t *out, int width) {
    const __m128i bias = _mm_set1_epi16(128);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        __m128i y8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(y + x));
        __m128i ylo = _mm_srai_epi16(_mm_unpacklo_epi8(y8, y8), 8), yhi = _mm_srai_epi16(_mm_unpackhi_epi8(y8, y8), 8);
        __m128i ob_lo, og_lo, or_lo, ob_hi, og_hi, or_hi;
        if (H == 2) {
            __m128i c8 = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(cb + x / 2));
            __m128i r8 = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(cr + x / 2));
            __m128i ob, og, orr;
            chroma_terms(c8, r8, ob, og, orr);
            ob_lo = _mm_unpacklo_epi16(ob, ob), ob_hi = _mm_unpackhi_epi16(ob, ob);
            og_lo = _mm_unpacklo_epi16(og, og), og_hi = _mm_unpackhi_epi16(og, og);
            or_lo = _mm_unpacklo_epi16(orr, orr), or_hi = _mm_unpackhi_epi16(orr, orr);
        } else {
            __m128i c8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(cb + x));
            __m128i r8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(cr + x));
            chroma_terms(c8, r8, ob_lo, og_lo, or_lo);
            chroma_terms(_mm_srli_si128(c8, 8), _mm_srli_si128(r8, 8), ob_hi, og_hi, or_hi);
        }
        ylo = _mm_add_epi16(ylo, bias), yhi = _mm_add_epi16(yhi, bias);
        __m128i B = _mm_packus_epi16(_mm_add_epi16(ylo, ob_lo), _mm_add_epi16(yhi, ob_hi));
        __m128i G = _mm_packus_epi16(_mm_sub_epi16(ylo, og_lo), _mm_sub_epi16(yhi, og_hi));
        __m128i R = _mm_packus_epi16(_mm_add_epi16(ylo, or_lo), _mm_add_epi16(yhi, or_hi));
        __m128i o0 = interleave3(B, G, R, 0), o1 = interleave3(B, G, R, 1), o2 = interleave3(B, G, R, 2);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 3 * x), o0);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 3 * x + 16), o1);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 3 * x + 32), o2);
    }
    return x;
}
#endif

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) inline void chroma_terms_x16(__m256i c, __m256i r, __m256i &ob, __m256i &og, __m256i &orr) {
    const __m256i m_cr_r = _mm256_set1_epi16(91879 - 65536), m_cb_b = _mm256_set1_epi16(static_cast<short>(116126 - 65536));
    const __m256i m_cb_g = _mm256_set1_epi16(22551), m_cr_g = _mm256_set1_epi16(static_cast<short>(46735));
    __m256i ca = _mm256_abs_epi16(c), ra = _mm256_abs_epi16(r);
    ob = _mm256_sign_epi16(_mm256_add_epi16(ca, _mm256_mulhi_epu16(ca, m_cb_b)), c);
    orr = _mm256_sign_epi16(_mm256_add_epi16(ra, _mm256_mulhi_epu16(ra, m_cr_r)), r);
    og = _mm256_add_epi16(_mm256_sign_epi16(_mm256_mulhi_epu16(ca, m_cb_g), c),
                          _mm256_sign_epi16(_mm256_mulhi_epu16(ra, m_cr_g), r));
}

// Thirty-two pixels at a time, the same arithmetic as the 16-pixel form; the
// packs work per 128-bit half, so their results are put back in pixel order
// before the three-way interleave.
template <int H>
__attribute__((target("avx2"))) int ycc_row_avx2(const int8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *out,
                                                 int width) {
    const __m256i bias = _mm256_set1_epi16(128);
    auto load16 = [](const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); };
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i ylo = _mm256_add_epi16(_mm256_cvtepi8_epi16(load16(y + x)), bias);
        __m256i yhi = _mm256_add_epi16(_mm256_cvtepi8_epi16(load16(y + x + 16)), bias);
        __m256i ob_lo, og_lo, or_lo, ob_hi, og_hi, or_hi;
        if (H == 2) {
            __m256i ob, og, orr;
            chroma_terms_x16(_mm256_cvtepi8_epi16(load16(cb + x / 2)), _mm256_cvtepi8_epi16(load16(cr + x / 2)), ob, og, orr);
            // Each term twice, for the two pixels its sample covers.
            ob = _mm256_permute4x64_epi64(ob, 0xD8), og = _mm256_permute4x64_epi64(og, 0xD8);
            orr = _mm256_permute4x64_epi64(orr, 0xD8);
            ob_lo = _mm256_unpacklo_epi16(ob, ob), ob_hi = _mm256_unpackhi_epi16(ob, ob);
            og_lo = _mm256_unpacklo_epi16(og, og), og_hi = _mm256_unpackhi_epi16(og, og);
            or_lo = _mm256_unpacklo_epi16(orr, orr), or_hi = _mm256_unpackhi_epi16(orr, orr);
        } else {
            chroma_terms_x16(_mm256_cvtepi8_epi16(load16(cb + x)), _mm256_cvtepi8_epi16(load16(cr + x)), ob_lo, og_lo, or_lo);
            chroma_terms_x16(_mm256_cvtepi8_epi16(load16(cb + x + 16)), _mm256_cvtepi8_epi16(load16(cr + x + 16)), ob_hi,
                             og_hi, or_hi);
        }
        __m256i B = _mm256_packus_epi16(_mm256_add_epi16(ylo, ob_lo), _mm256_add_epi16(yhi, ob_hi));
        __m256i G = _mm256_packus_epi16(_mm256_sub_epi16(ylo, og_lo), _mm256_sub_epi16(yhi, og_hi));
        __m256i R = _mm256_packus_epi16(_mm256_add_epi16(ylo, or_lo), _mm256_add_epi16(yhi, or_hi));
        B = _mm256_permute4x64_epi64(B, 0xD8), G = _mm256_permute4x64_epi64(G, 0xD8), R = _mm256_permute4x64_epi64(R, 0xD8);
        for (int half = 0; half < 2; half++) {
            __m128i b = half ? _mm256_extracti128_si256(B, 1) : _mm256_castsi256_si128(B);
            __m128i g = half ? _mm256_extracti128_si256(G, 1) : _mm256_castsi256_si128(G);
            __m128i r = half ? _mm256_extracti128_si256(R, 1) : _mm256_castsi256_si128(R);
            uint8_t *o = out + 3 * (x + 16 * half);
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o), interleave3(b, g, r, 0));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 16), interleave3(b, g, r, 1));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 32), interleave3(b, g, r, 2));
        }
    }
    return x;
}

bool simd_colour = (__builtin_cpu_init(), __builtin_cpu_supports("ssse3"));
bool wide_colour = (__builtin_cpu_init(), __builtin_cpu_supports("avx2"));
#endif

inline uint8_t limit(int i) { return static_cast<uint8_t>(i < -128 ? 0 : i > 127 ? 255 : i + 128); }

// The three chroma terms are looked up once per chroma sample and shared by
// the H pixels it covers; limit() is the range-limit table's rule.
template <int H>
void ycc_row(const int8_t *y, const uint8_t *cb, const uint8_t *cr, uint8_t *out, int width) {
    int x = 0;
#if defined(__x86_64__) || defined(__i386__)
    if constexpr (H <= 2) {
        if (wide_colour)
            x = ycc_row_avx2<H>(y, cb, cr, out, width);
        else if (simd_colour)
            x = ycc_row_ssse3<H>(y, cb, cr, out, width);
    }
#endif
    for (int cx = x / H; x + H <= width; cx++) {
        int b = cb[cx], r = cr[cx];
        int ob = jpeg_cb_b.v[b], og = -(jpeg_cb_g.v[b] + jpeg_cr_g.v[r]), orr = jpeg_cr_r.v[r];
        for (int k = 0; k < H; k++, x++) {
            int Y = y[x];
            out[3 * x] = limit(Y + ob);
            out[3 * x + 1] = limit(Y + og);
            out[3 * x + 2] = limit(Y + orr);
        }
    }
    for (; x < width; x++) {
        int b = cb[x / H], r = cr[x / H], Y = y[x];
        out[3 * x] = limit(Y + jpeg_cb_b.v[b]);
        out[3 * x + 1] = limit(Y - (jpeg_cb_g.v[b] + jpeg_cr_g.v[r]));
        out[3 * x + 2] = limit(Y + jpeg_cr_r.v[r]);
    }
}

// YCCK: each channel is K minus what the YCbCr equations give.
template <int H>
void ycck_row(const int8_t *y, const uint8_t *cb, const uint8_t *cr, const int8_t *k, uint8_t *out, int width) {
    const uint8_t *lim = jpeg_range_limit;
    for (int x = 0; x < width; x++) {
        int b = cb[x / H], r = cr[x / H];
        int Y = y[x] + 128, K = k[x];
        out[3 * x] = lim[K - (Y + jpeg_cb_b.v[b])];
        out[3 * x + 1] = lim[(jpeg_cb_g.v[b] + jpeg_cr_g.v[r]) - Y + K];
        out[3 * x + 2] = lim[K - (Y + jpeg_cr_r.v[r])];
    }
}

using ycc_fn = void (*)(const int8_t *, const uint8_t *, const uint8_t *, uint8_t *, int);
using ycck_fn = void (*)(const int8_t *, const uint8_t *, const uint8_t *, const int8_t *, uint8_t *, int);

int decode_scan(byte_source &src, IMG_put_row_fn put_row, void *context) {
    const frame_record &fr = headers.frame;
    const int width = fr.width, height = fr.height, nf = fr.nf;
    const int H1 = fr.comp[0].h, V1 = fr.comp[0].v;
    const int32_t W = (width + 8 * H1 - 1) / (8 * H1) * (8 * H1);
    const int64_t plane_size = int64_t{8} * V1 * W + 200;
    if (plane_size >= PLANE_LIMIT) return IMG_ERR_MEMORY;
    const uint32_t row_len = row_bytes(width, nf == 1 ? 8 : 24);
    scratch_set mem;
    int8_t *planes[4];
    for (auto &p : planes)
        if (!(p = static_cast<int8_t *>(mem.take(static_cast<uint32_t>(plane_size))))) return IMG_ERR_MEMORY;
    auto *row = static_cast<uint8_t *>(mem.take(row_len + 200));
    input_buffer in{static_cast<uint8_t *>(mem.take(READ_BUFFER_SIZE + INPUT_SPARE + 64)), READ_BUFFER_SIZE};
    if (!row || !in.base) return IMG_ERR_MEMORY;

    // The rest of the SOS header: Ns, then (component id, Td/Ta) pairs.
    int sos_bytes = headers.sos_length - 2;
    uint8_t sos[16] = {};
    int want = sos_bytes < 16 ? sos_bytes : 16;
    const int32_t sos_at = source_tell(src);
    if (sos_bytes <= 0 || source_read(src, sos, want) <= 0) return IMG_ERR_DATA;
    source_seek(src, sos_at + sos_bytes);
    const int ns = sos[0];
    if (ns < 1 || ns > 4 || sos_bytes < 1 + 2 * ns) return IMG_ERR_HEADER;

    // Scan slot i takes frame component i whatever the ids say; slots 3 and 4
    // pick their DC table by the AC selector and slot 4 its quantiser by
    // component 3.
    static decode_table dc_tables[2], ac_tables[3];
    const jpeg_decoder_tables &tab = jpeg_tables;
    scan_slot slots[4] = {};
    for (int i = 0; i < 4; i++) {
        scan_slot &sl = slots[i];
        const frame_component &c = fr.comp[i];
        int td = sos[2 + 2 * i] >> 4, ta = sos[2 + 2 * i] & 15;
        sl.plane = planes[i];
        sl.h = c.h;
        sl.v = c.v;
        const frame_component &qc = fr.comp[i < 3 ? i : 2];
        sl.quant = tab.quant[qc.tq ? 1 : 0];
        for (int k = 0; k < POSITIONS; k++) sl.q[k] = static_cast<int16_t>(k < 64 ? sl.quant[k] : 0);
        if (i < 2) {
            sl.dc = &dc_tables[td == 0 ? 0 : 1];
            sl.ac = &ac_tables[ta ? 1 : 0];
        } else if (i == 2) {
            sl.dc = &dc_tables[ta ? 1 : 0];
            sl.ac = &ac_tables[ta == 0 ? 0 : ta == 2 ? 2 : 1];
        } else {
            sl.dc = &dc_tables[ta ? 1 : 0];
            sl.ac = &ac_tables[ta ? 1 : 0];
        }
        if (i < ns && (sl.h < 1 || sl.v < 1 || sl.h > H1 || sl.v > V1)) return IMG_ERR_HEADER;
        sl.stride = sl.h * W / H1;
    }
    // Only the tables the scan reads are expanded: a stream of many small
    // strips pays for two or three, not five.
    bool built[5] = {};
    for (int i = 0; i < ns; i++) {
        const int d = static_cast<int>(slots[i].dc - dc_tables), a = static_cast<int>(slots[i].ac - ac_tables);
        if (!built[d]) build_decode_table(dc_tables[d], tab.dc[d], true), built[d] = true;
        if (!built[2 + a]) build_decode_table(ac_tables[a], tab.ac[a], false), built[2 + a] = true;
    }

    int32_t got = source_read(src, in.base, in.cap);
    if (got <= 0) return IMG_ERR_DATA;
    block_queue blocks{};
    bit_reader br{};
    br.limit = in.base + in.cap + INPUT_SPARE;
    br.reset(in.base, 0x80);

    ycc_fn ycc = H1 == 1 ? ycc_row<1> : H1 == 2 ? ycc_row<2> : H1 == 4 ? ycc_row<4> : nullptr;
    ycck_fn ycck = H1 == 1 ? ycck_row<1> : H1 == 2 ? ycck_row<2> : H1 == 4 ? ycck_row<4> : nullptr;
    const int chroma_step = W / H1;
    unsigned mcu_count = 0;
    const unsigned interval = headers.restart_interval;
    int delivered = 0;
    while (delivered < height) {
        for (auto &sl : slots) sl.column = 0;
        for (int32_t x = 0; x < W; x += 8 * H1) {
            for (int i = 0; i < ns; i++) {
                scan_slot &sl = slots[i];
                for (int v = 0; v < sl.v; v++) {
                    if (v) sl.column -= 8 * sl.h;
                    for (int h = 0; h < sl.h; h++) {
                        if (int rc = decode_block(br, sl, blocks, sl.plane + v * 8 * W + sl.column); rc < 0) return rc;
                        sl.column += 8;
                        maybe_refill(br, in, src);
                    }
                }
            }
            if (interval && ++mcu_count == interval) {
                mcu_count = 0;
                restart(br, slots);
            }
        }
        flush_blocks(blocks);
        for (int r = 0; r < 8 * V1 && delivered < height; r++, delivered++) {
            const int8_t *y = planes[0] + r * W;
            if (nf == 1) {
                grey_row(y, row, width);
            } else {
                int32_t c = V1 == 2 ? (r >> 1) * (W / 2) : V1 == 4 ? (r >> 2) * (W / 4) : r * chroma_step;
                auto *cb = reinterpret_cast<const uint8_t *>(planes[1] + c);
                auto *cr = reinterpret_cast<const uint8_t *>(planes[2] + c);
                if (nf == 3 && ycc) ycc(y, cb, cr, row, width);
                if (nf == 4 && ycck) ycck(y, cb, cr, planes[3] + r * W, row, width);
            }
            if (int rc = put_row(row, context, delivered, static_cast<int>(row_len)); rc < 0) return rc;
        }
    }
    return 0;
}

}  // namespace

void jpeg_decoder_limit_vectors(int bits) {
#if defined(__x86_64__) || defined(__i386__)
    const bool wide = bits >= 256 && have_avx2, narrow = bits >= 128;
    idct_best = wide ? idct_best_avx2 : narrow ? idct_best_sse2 : idct_lanes_plain;
    idct_pair = wide ? idct_pair_avx2 : nullptr;
    simd_colour = narrow && __builtin_cpu_supports("ssse3");
    wide_colour = wide;
#else
    (void)bits;
#endif
}

void jpeg_reset_tables() {
    std::memset(&jpeg_tables, 0, sizeof jpeg_tables);
    for (auto &t : jpeg_tables.dc) t = empty_table();
    for (auto &t : jpeg_tables.ac) t = empty_table();
}

namespace {
// The kept tables start empty: every code decodes as corrupt.
const bool tables_ready = (jpeg_reset_tables(), true);
}  // namespace

int jpeg_read_tables(int fd, int32_t offset) {
    (void)tables_ready;
    byte_source src;
    scratch_set mem;
    if (!source_open(src, fd, offset, HEADER_BUFFER)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    int rc = walk_markers(src, offset, true);
    if (rc < 0) return rc;
    jpeg_tables = headers.tables;
    return 0;
}

namespace {
int decode_from(byte_source &src, int32_t offset, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image) {
    scratch_set mem;
    if (int rc = walk_markers(src, offset, false); rc < 0) return rc;
    const frame_record &fr = headers.frame;
    // Progressive, lossless and arithmetic-coded streams have no frame we
    // decode: refuse them before the kept tables or the caller see anything.
    if (!headers.have_frame) return IMG_ERR_TYPE;
    if (fr.nf != 1 && fr.nf != 3 && fr.nf != 4) return IMG_ERR_TYPE;
    if (!fr.width || !fr.height || !fr.comp[0].h || !fr.comp[0].v) return IMG_ERR_HEADER;
    jpeg_tables = headers.tables;

    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    dib_info &h = hdr->info;
    set_dib_size(h, fr.width, fr.height, fr.nf == 1 ? 8 : 24);
    if (!size_mul_add(row_bytes(fr.width, h.biBitCount), fr.height, 0, &h.biSizeImage)) h.biSizeImage = 0;
    // Densities pass through as stored, whatever the units byte says.
    if (headers.have_jfif && headers.jfif.ident[0] == 'J' && headers.jfif.ident[1] == 'F') {
        h.biXPelsPerMeter = headers.jfif.xdensity;
        h.biYPelsPerMeter = headers.jfif.ydensity;
    }
    if (fr.nf == 1)
        fill_grey_ramp(hdr->palette);
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    return decode_scan(src, put_row, context);
}
}  // namespace

int jpeg_decode_stream(int fd, int32_t offset, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image) {
    byte_source src;
    scratch_set mem;
    if (!source_open(src, fd, offset, HEADER_BUFFER)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    return decode_from(src, offset, put_row, context, begin_image);
}

int jpeg_decode_buffer(const uint8_t *data, int32_t size, IMG_put_row_fn put_row, void *context,
                       IMG_begin_image_fn begin_image) {
    byte_source src;
    source_open_span(src, data, size);
    return decode_from(src, 0, put_row, context, begin_image);
}

BRIVANTA_READER(jpeg_read_file) {
    int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    return jpeg_decode_stream(fd, start, put_row, context, begin_image);
}

}  // namespace brv
