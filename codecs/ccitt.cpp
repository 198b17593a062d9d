// Group 3 (one- and two-dimensional) and Group 4 fax decoders, their code
// tables, and the raw fax load into a new handle (IMG_decompress_fax).
#include "codecs/ccitt.h"

#include "codecs/codec_support.h"
#include "codecs/tiff.h"
#include "frame/byte_source.h"
#include "frame/load.h"

#include <bit>
#include <cstring>
#include <utility>

namespace brv {

namespace {

// ---- Code tables -------------------------------------------------------------
// Terminating codes for runs 0-63, then make-up codes for 64-1728 step 64.
constexpr const char *white_terminating[64] = {
    "00110101", "000111",   "0111",     "1000",     "1011",     "1100",     "1110",     "1111",
    "10011",    "10100",    "00111",    "01000",    "001000",   "000011",   "110100",   "110101",
    "101010",   "101011",   "0100111",  "0001100",  "0001000",  "0010111",  "0000011",  "0000100",
    "0101000",  "0101011",  "0010011",  "0100100",  "0011000",  "00000010", "00000011", "00011010",
    "00011011", "00010010", "00010011", "00010100", "00010101", "00010110", "00010111", "00101000",
    "00101001", "00101010", "00101011", "00101100", "00101101", "00000100", "00000101", "00001010",
    "00001011", "01010010", "01010011", "01010100", "01010101", "00100100", "00100101", "01011000",
    "01011001", "01011010", "01011011", "01001010", "01001011", "00110010", "00110011", "00110100",
};
constexpr const char *white_makeup[27] = {
    "11011",     "10010",     "010111",    "0110111",   "00110110",  "00110111",  "01100100",
    "01100101",  "01101000",  "01100111",  "011001100", "011001101", "011010010", "011010011",
    "011010100", "011010101", "011010110", "011010111", "011011000", "011011001", "011011010",
    "011011011", "010011000", "010011001", "010011010", "011000",    "010011011",
};
constexpr const char *black_terminating[64] = {
    "0000110111",   "010",          "11",           "10",           "011",          "0011",
    "0010",         "00011",        "000101",       "000100",       "0000100",      "0000101",
    "0000111",      "00000100",     "00000111",     "000011000",    "0000010111",   "0000011000",
    "0000001000",   "00001100111",  "00001101000",  "00001101100",  "00000110111",  "00000101000",
    "00000010111",  "00000011000",  "000011001010", "000011001011", "000011001100", "000011001101",
    "000001101000", "000001101001", "000001101010", "000001101011", "000011010010", "000011010011",
    "000011010100", "000011010101", "000011010110", "000011010111", "000001101100", "000001101101",
    "000011011010", "000011011011", "000001010100", "000001010101", "000001010110", "000001010111",
    "000001100100", "000001100101", "000001010010", "000001010011", "000000100100", "000000110111",
    "000000111000", "000000100111", "000000101000", "000001011000", "000001011001", "000000101011",
    "000000101100", "000001011010", "000001100110", "000001100111",
};
constexpr const char *black_makeup[27] = {
    "0000001111",    "000011001000",  "000011001001",  "000001011011",  "000000110011",  "000000110100",
    "000000110101",  "0000001101100", "0000001101101", "0000001001010", "0000001001011", "0000001001100",
    "0000001001101", "0000001110010", "0000001110011", "0000001110100", "0000001110101", "0000001110110",
    "0000001110111", "0000001010010", "0000001010011", "0000001010100", "0000001010101", "0000001011010",
    "0000001011011", "0000001100100", "0000001100101",
};
// Make-up codes for 1792-2560, shared by both colours.
constexpr const char *extended_makeup[13] = {
    "00000001000",  "00000001100",  "00000001101",  "000000010010", "000000010011",
    "000000010100", "000000010101", "000000010110", "000000010111", "000000011100",
    "000000011101", "000000011110", "000000011111",
};
constexpr const char *eol_code = "000000000001";
constexpr uint16_t EOL_VALUE = 4095;
constexpr uint16_t VALID = 0x8000;

constexpr ccitt_code code_of(const char *s) {
    ccitt_code c{0, 0};
    for (; *s; s++) {
        c.bits = static_cast<uint16_t>(c.bits << 1 | (*s == '1'));
        c.length++;
    }
    return c;
}

// Table sizes: white lengths 4-9, 11, 12; black lengths 2-13.
constexpr int white_lengths[] = {4, 5, 6, 7, 8, 9, 11, 12};
constexpr int black_lengths[] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
constexpr uint32_t table_entries() {
    uint32_t n = 0;
    for (int l : white_lengths) n += 1u << l;
    for (int l : black_lengths) n += 1u << l;
    return n;
}

void enter(uint16_t **tables, const char *code, uint16_t value) {
    ccitt_code c = code_of(code);
    tables[c.length][c.bits] = static_cast<uint16_t>(VALID | value);
}

// ---- Two-dimensional modes -------------------------------------------------------
enum mode_kind : int8_t { V0 = 0, VR1 = 1, VR2 = 2, VR3 = 3, VL1 = -1, VL2 = -2, VL3 = -3, HORIZONTAL = 4, PASS = 5 };
struct mode_entry {
    int8_t mode;
    uint8_t bits;
};

// Indexed by the next 8 bits; an EOL or extension prefix reads as V0 of one bit.
constexpr auto mode_table = [] {
    struct table {
        mode_entry e[256];
    } t{};
    for (int i = 0; i < 256; i++) {
        mode_entry m{V0, 1};
        if (i & 0x80) m = {V0, 1};
        else if ((i & 0xE0) == 0x60) m = {VR1, 3};
        else if ((i & 0xE0) == 0x40) m = {VL1, 3};
        else if ((i & 0xE0) == 0x20) m = {HORIZONTAL, 3};
        else if ((i & 0xF0) == 0x10) m = {PASS, 4};
        else if ((i & 0xFC) == 0x0C) m = {VR2, 6};
        else if ((i & 0xFC) == 0x08) m = {VL2, 6};
        else if ((i & 0xFE) == 0x06) m = {VR3, 7};
        else if ((i & 0xFE) == 0x04) m = {VL3, 7};
        t.e[i] = m;
    }
    return t;
}();

// ---- Bit reader --------------------------------------------------------------------
// Bits come most significant first from a 64-bit window.  Past the end of
// the source the window fills with zero bits, which match no run code, and
// `exhausted` tells the decoders that they are reading beyond the data.
struct bit_reader {
    int fd;
    uint8_t *buf;
    int32_t cap, pos, len;
    int32_t left;  // source bytes not yet read into buf
    bool reverse;
    uint64_t acc;
    int nbits;
    int64_t consumed, available;  // in bits

    void start(int f, uint8_t *b, int32_t c, bool rev) {
        fd = f;
        buf = b;
        cap = c;
        pos = len = 0;
        reverse = rev;
        acc = 0;
        nbits = 0;
        consumed = available = 0;
        left = bytes_left(fd, file_size_hint(fd));
    }
    bool load() {
        if (left <= 0) return false;
        int32_t n = read_once(fd, buf, cap < left ? cap : left);
        if (n <= 0) {
            left = 0;
            return false;
        }
        left -= n;
        if (reverse)
            for (int32_t i = 0; i < n; i++) buf[i] = bit_reversed.b[buf[i]];
        pos = 0;
        len = n;
        return true;
    }
    void refill() {
        if (len - pos >= 8) {
            // Eight bytes at once, most significant first: 56 to 63 bits end up ready.
            uint64_t v;
            std::memcpy(&v, buf + pos, 8);
            if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
            acc |= v >> nbits;
            const int bytes = (63 - nbits) >> 3;
            pos += bytes;
            available += 8 * bytes;
            nbits += 8 * bytes;
            return;
        }
        while (nbits <= 56) {
            if (pos >= len && !load()) {
                nbits = 64;  // the zero bits past the end
                return;
            }
            acc |= static_cast<uint64_t>(buf[pos++]) << (56 - nbits);
            nbits += 8;
            available += 8;
        }
    }
    uint32_t peek(int n) {
        if (nbits < n) refill();
        return static_cast<uint32_t>(acc >> (64 - n));
    }
    void skip(int n) {
        if (nbits < n) refill();
        acc <<= n;
        nbits -= n;
        consumed += n;
    }
    bool exhausted() const { return consumed > available; }
    // True when nothing but zero bits remains: no row can start there.
    bool only_zeros_left() {
        refill();
        int64_t remaining = available - consumed;
        if (remaining <= 0) return true;
        if (remaining > 56 || left > 0 || pos < len) return false;
        return (acc >> (64 - remaining)) == 0;
    }
    void align() { skip(static_cast<int>((8 - (consumed & 7)) & 7)); }
};

constexpr int CODE_EOL = -2;
constexpr int CODE_NONE = -1;
constexpr int32_t MAX_RUN = 1 << 28;

struct decoder {
    const ccitt_params *p;
    const ccitt_tables *t;
    bit_reader br;
    uint8_t *row;
    uint32_t row_size;   // bytes delivered per row
    int32_t *ref, *cur;  // transition lists
    int32_t ncur;
    ccitt_sink sink;
    void *context;
    int delivered;
};

// One code of a colour: a run, CODE_EOL, or CODE_NONE after dropping a bit.
int read_code(decoder &d, int colour) {
    uint32_t bits = d.br.peek(16);
    if (colour == 0) {
        for (int l : white_lengths) {
            uint16_t e = d.t->white[l][bits >> (16 - l)];
            if (e) {
                d.br.skip(l);
                e &= 0xFFF;
                return e == EOL_VALUE ? CODE_EOL : e;
            }
        }
    } else {
        for (int l : black_lengths) {
            uint16_t e = d.t->black[l][bits >> (16 - l)];
            if (e) {
                d.br.skip(l);
                e &= 0xFFF;
                return e == EOL_VALUE ? CODE_EOL : e;
            }
        }
    }
    d.br.skip(1);
    return CODE_NONE;
}

// A whole run: make-up codes added up to the terminating code.  A code that
// is not a run ends it with what was gathered.
int read_run(decoder &d, int colour) {
    int32_t total = 0;
    for (;;) {
        int c = read_code(d, colour);
        if (c < 0) return total;
        total += c;
        if (c < 64 || total > MAX_RUN || d.br.exhausted()) return total;
    }
}

// Transitions stay strictly increasing: two changes at one place cancel.
inline void append(decoder &d, int32_t x) {
    if (d.ncur > 0 && d.cur[d.ncur - 1] == x)
        d.ncur--;
    else
        d.cur[d.ncur++] = x;
}

void close_line(decoder &d) {
    int32_t w = d.p->width;
    d.cur[d.ncur] = d.cur[d.ncur + 1] = d.cur[d.ncur + 2] = w;
}

// Bits [a, b) of a row, most significant first, set to 1 (set) or 0.
template <bool set>
void paint_bits(uint8_t *row, int32_t a, int32_t b) {
    if (a >= b) return;
    const int32_t ab = a >> 3, bb = b >> 3;
    const auto head = static_cast<uint8_t>(0xFF >> (a & 7));  // bits at and after a
    const auto tail = static_cast<uint8_t>(0xFF >> (b & 7));  // bits at and after b
    auto apply = [row](int32_t i, uint8_t mask) {
        if constexpr (set)
            row[i] |= mask;
        else
            row[i] &= static_cast<uint8_t>(~mask);
    };
    if (ab == bb) {
        apply(ab, static_cast<uint8_t>(head & ~tail));
        return;
    }
    apply(ab, head);
    if (bb - ab > 1) std::memset(row + ab + 1, set ? 0xFF : 0, static_cast<size_t>(bb - ab - 1));
    if (b & 7) apply(bb, static_cast<uint8_t>(~tail));
}

// A coding line in one polarity: black runs between the transition pairs
// are set bits on a clear row (0 is white) or cleared bits on a set row.
template <bool black_is_set>
void paint_line(uint8_t *row, uint32_t size, const int32_t *cur, int32_t count) {
    std::memset(row, black_is_set ? 0 : 0xFF, size);
    for (int32_t i = 0; i + 1 < count; i += 2) paint_bits<black_is_set>(row, cur[i], cur[i + 1]);
}

// Paints the coding line in the row's own polarity and hands it on.
int deliver(decoder &d) {
    if (d.p->photometric == 0)
        paint_line<true>(d.row, d.row_size, d.cur, d.ncur + 2);
    else
        paint_line<false>(d.row, d.row_size, d.cur, d.ncur + 2);
    int rc = d.sink(d.context, d.row, d.p->first_row + d.delivered, static_cast<int>(d.row_size));
    d.delivered++;
    return rc < 0 ? rc : 0;
}

int pad_white(decoder &d) {
    if (!d.p->pad_white) return 0;
    d.ncur = 0;
    close_line(d);
    while (d.delivered < d.p->rows)
        if (int rc = deliver(d); rc < 0) return rc;
    return 0;
}

enum row_status { ROW_DONE, ROW_RTC, ROW_END };

// One-dimensional row.  EOLs inside are counted when count_eols is set; the
// third in a row is the end of the page.
row_status decode_1d_row(decoder &d, bool count_eols, int &eols) {
    const int32_t w = d.p->width;
    int32_t a0 = 0;
    int colour = 0;
    d.ncur = 0;
    while (a0 < w) {
        int c = read_code(d, colour);
        if (d.br.exhausted()) return ROW_END;
        if (c == CODE_EOL) {
            if (count_eols && ++eols >= 3) return ROW_RTC;
            continue;
        }
        if (c == CODE_NONE) continue;
        int32_t run = c;
        if (c >= 64) run += read_run(d, colour);
        eols = 0;
        int64_t next = static_cast<int64_t>(a0) + run;
        a0 = next > w ? w : static_cast<int32_t>(next);
        append(d, a0);
        colour ^= 1;
    }
    close_line(d);
    return ROW_DONE;
}

// Two-dimensional row against the reference line.
row_status decode_2d_row(decoder &d) {
    const int32_t w = d.p->width;
    const int32_t *ref = d.ref;
    int32_t a0 = -1, bi = 0;
    int colour = 0;
    d.ncur = 0;
    while (a0 < w) {
        while (ref[bi] <= a0) bi += 2;
        int32_t b1 = ref[bi];
        mode_entry m = mode_table.e[d.br.peek(8)];
        d.br.skip(m.bits);
        if (m.mode == PASS) {
            a0 = ref[bi + 1];
            bi += 2;
        } else if (m.mode == HORIZONTAL) {
            int32_t start = a0 < 0 ? 0 : a0;
            int32_t r1 = read_run(d, colour);
            int32_t r2 = read_run(d, colour ^ 1);
            int64_t a1 = static_cast<int64_t>(start) + r1;
            if (a1 > w) a1 = w;
            int64_t a2 = a1 + r2;
            if (a2 > w) a2 = w;
            append(d, static_cast<int32_t>(a1));
            append(d, static_cast<int32_t>(a2));
            a0 = static_cast<int32_t>(a2);
        } else {
            int32_t lo = a0 < 0 ? 0 : a0;
            int32_t a1 = b1 + m.mode;
            if (a1 < lo) a1 = lo;
            if (a1 > w) a1 = w;
            append(d, a1);
            a0 = a1;
            colour ^= 1;
            bi += bi > 0 ? -1 : 1;
        }
        if (d.br.exhausted()) return ROW_END;
    }
    close_line(d);
    return ROW_DONE;
}

void swap_lines(decoder &d) {
    int32_t *t = d.ref;
    d.ref = d.cur;
    d.cur = t;
}

// Sets up buffers and tables for one call; a negative code on failure.
int open_decoder(decoder &d, uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink,
                 void *context, ccitt_tables &own) {
    d.p = &p;
    d.sink = sink;
    d.context = context;
    d.delivered = 0;
    if (p.width < 1 || p.width > (1 << 24) || p.rows < 0 || !work || work_size < 16) return IMG_ERR_HEADER;
    d.row_size = row_bytes(p.width, 1);
    d.row = static_cast<uint8_t *>(scratch_alloc(d.row_size + 1000));
    uint32_t list = (static_cast<uint32_t>(p.width) + 16) * 4;
    d.ref = static_cast<int32_t *>(scratch_alloc(list));
    d.cur = static_cast<int32_t *>(scratch_alloc(list));
    if (!d.row || !d.ref || !d.cur) return IMG_ERR_MEMORY;
    if (p.tables) {
        d.t = p.tables;
    } else {
        if (!ccitt_tables_build(own)) return IMG_ERR_MEMORY;
        d.t = &own;
    }
    // The reference line of the first row is all white.
    d.ref[0] = d.ref[1] = d.ref[2] = p.width;
    d.br.start(fd, work, work_size, p.fill_order == 2);
    return 0;
}

void close_decoder(decoder &d, ccitt_tables &own) {
    ccitt_tables_free(own);
    scratch_free(d.row);
    scratch_free(d.ref);
    scratch_free(d.cur);
}

// Finds the EOL that starts the next row, reading at most limit codes.
// 1: found; 0: not within the limit; -1: the data ended.
int find_eol(decoder &d, int limit) {
    for (int k = 0; k < limit; k++) {
        int c = read_code(d, 0);
        if (d.br.exhausted()) return -1;
        if (c == CODE_EOL) return 1;
    }
    return 0;
}

int run_g3_1d(decoder &d) {
    const ccitt_params &p = *d.p;
    int eols = 0;
    while (d.delivered < p.rows) {
        if (d.br.only_zeros_left()) return pad_white(d);
        row_status s = decode_1d_row(d, p.compression == 3 || p.compression == TIFF_COMPRESSION_G3_2D, eols);
        if (s == ROW_RTC || s == ROW_END) return pad_white(d);
        if (int rc = deliver(d); rc < 0) return rc;
        if (d.delivered >= p.rows) break;
        if (p.compression == 3) {
            if (find_eol(d, 3000) <= 0) return pad_white(d);
            eols = 1;
        } else if (p.compression == 2) {
            d.br.align();
        }
    }
    return 0;
}

}  // namespace

// ---- Tables ------------------------------------------------------------------------
bool ccitt_tables_build(ccitt_tables &t) {
    t = ccitt_tables{};
    t.storage = static_cast<uint16_t *>(scratch_alloc(table_entries() * 2));
    if (!t.storage) return false;
    uint16_t *p = t.storage;
    for (int l : white_lengths) {
        t.white[l] = p;
        p += 1u << l;
    }
    for (int l : black_lengths) {
        t.black[l] = p;
        p += 1u << l;
    }
    for (int i = 0; i < 64; i++) {
        enter(t.white, white_terminating[i], static_cast<uint16_t>(i));
        enter(t.black, black_terminating[i], static_cast<uint16_t>(i));
    }
    for (int i = 0; i < 27; i++) {
        enter(t.white, white_makeup[i], static_cast<uint16_t>(64 * (i + 1)));
        enter(t.black, black_makeup[i], static_cast<uint16_t>(64 * (i + 1)));
    }
    for (int i = 0; i < 13; i++) {
        enter(t.white, extended_makeup[i], static_cast<uint16_t>(1792 + 64 * i));
        enter(t.black, extended_makeup[i], static_cast<uint16_t>(1792 + 64 * i));
    }
    enter(t.white, eol_code, EOL_VALUE);
    enter(t.black, eol_code, EOL_VALUE);
    return true;
}

void ccitt_tables_free(ccitt_tables &t) {
    if (t.storage) scratch_free(t.storage);
    t = ccitt_tables{};
}

ccitt_code ccitt_terminating(int colour, int run) {
    if (run < 0 || run > 63) return {0, 0};
    return code_of(colour ? black_terminating[run] : white_terminating[run]);
}

ccitt_code ccitt_makeup(int colour, int run) {
    if (run < 64 || run > 2560 || run % 64) return {0, 0};
    if (run >= 1792) return code_of(extended_makeup[(run - 1792) / 64]);
    return code_of(colour ? black_makeup[run / 64 - 1] : white_makeup[run / 64 - 1]);
}

// ---- Decoders ------------------------------------------------------------------------
namespace {

int run_g3_2d(decoder &d) {
    while (d.delivered < d.p->rows) {
        int f = d.br.only_zeros_left() ? -1 : find_eol(d, 2000);
        if (f < 0) return pad_white(d);  // the data ended: the end of the page
        if (f == 0) return 0;            // no EOL within the limit: decoding stops without padding
        bool one_d = d.br.peek(1) != 0;
        d.br.skip(1);
        if (d.br.peek(12) == 1) return pad_white(d);  // a second EOL: the end of the page
        int eols = 0;
        row_status s = one_d ? decode_1d_row(d, true, eols) : decode_2d_row(d);
        if (s == ROW_RTC || s == ROW_END) return pad_white(d);
        if (int rc = deliver(d); rc != 0) return rc;
        swap_lines(d);
    }
    return 0;
}

int run_g4(decoder &d) {
    while (d.delivered < d.p->rows) {
        // EOFB, or the end of the data: the end of the page.
        if (d.br.only_zeros_left() || d.br.peek(12) == 1 || decode_2d_row(d) == ROW_END) return pad_white(d);
        if (int rc = deliver(d); rc != 0) return rc;
        swap_lines(d);
    }
    return 0;
}

// Opens the decoder on the caller's work buffer, runs one coding scheme and
// releases what opening took, whichever way the run ended.
int decode_with(int (*run)(decoder &), uint8_t *work, int32_t work_size, const ccitt_params &p, int fd,
                ccitt_sink sink, void *context) {
    decoder d{};
    ccitt_tables own{};
    int rc = open_decoder(d, work, work_size, p, fd, sink, context, own);
    if (rc == 0) rc = run(d);
    close_decoder(d, own);
    return rc;
}

}  // namespace

int ccitt_decode_g3_1d(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink,
                       void *context) {
    return decode_with(run_g3_1d, work, work_size, p, fd, sink, context);
}

int ccitt_decode_g3_2d(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink,
                       void *context) {
    return decode_with(run_g3_2d, work, work_size, p, fd, sink, context);
}

int ccitt_decode_g4(uint8_t *work, int32_t work_size, const ccitt_params &p, int fd, ccitt_sink sink,
                    void *context) {
    return decode_with(run_g4, work, work_size, p, fd, sink, context);
}

// ---- Raw fax into a handle -------------------------------------------------------------
namespace {

struct fax_params {
    int width, height, fax_type, fill_order;
};

struct fax_sink_state {
    IMG_put_row_fn put_row;
    void *context;
    int rows;
};

int fax_sink(void *context, uint8_t *row, int row_index, int byte_count) {
    auto *s = static_cast<fax_sink_state *>(context);
    int rc = s->put_row(row, s->context, row_index, byte_count);
    if (rc < 0) return rc;
    s->rows++;
    return 0;
}

// A reader of raw fax data from the source's current position, as a 1-bit
// picture with entry 0 black; height 0 takes the rows the data holds.
int fax_read(const void *params, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image, int fd) {
    const auto &f = *static_cast<const fax_params *>(params);
    auto *header = static_cast<dib_header *>(scratch_alloc(sizeof(dib_header)));
    uint32_t work_size = READ_BUFFER_SIZE + 500;
    auto *work = static_cast<uint8_t *>(scratch_alloc(work_size));
    if (!header || !work) return IMG_ERR_MEMORY;
    const int rows = f.height ? f.height : 2048;
    if (!fill_bilevel_header(*header, f.width, rows)) return IMG_ERR_MEMORY;
    int rc = begin_image(header, context);
    if (rc < 0) return rc;
    ccitt_params p{};
    p.width = f.width;
    p.rows = rows;
    p.photometric = 1;
    p.fill_order = static_cast<uint32_t>(f.fill_order);
    p.pad_white = f.height != 0;
    fax_sink_state s{put_row, context, 0};
    if (f.fax_type == 4) {
        p.compression = 4;
        rc = ccitt_decode_g4(work, static_cast<int32_t>(work_size), p, fd, fax_sink, &s);
    } else if (f.fax_type == 2) {
        p.compression = TIFF_COMPRESSION_G3_2D;
        rc = ccitt_decode_g3_2d(work, static_cast<int32_t>(work_size), p, fd, fax_sink, &s);
    } else {
        p.compression = static_cast<uint32_t>(f.fax_type);
        rc = ccitt_decode_g3_1d(work, static_cast<int32_t>(work_size), p, fd, fax_sink, &s);
    }
    if (rc < 0) return rc;
    if (f.height == 0) {
        if (s.rows == 0) return IMG_ERR_DATA;
        load_keep_top_rows(put_row, context, s.rows);
    }
    return 0;
}

}  // namespace

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" int IMG_API IMG_decompress_fax(int fd, int width, int height, int fax_type, int fill_order) {
    if (width < 1 || height < 0) return IMG_ERR_HEADER;
    const fax_params params{width, height, fax_type, fill_order};
    return load_raw_into_handle(fd, fax_read, &params);
}

namespace brv {

// ---- Encoders ------------------------------------------------------------------
namespace {

constexpr uint32_t ENCODE_FLUSH_AT = 8192;

inline void put_bits(ccitt_encoder &e, uint32_t bits, int length) {
    e.acc = e.acc << length | bits;
    e.nbits += length;
    while (e.nbits >= 8) {
        e.nbits -= 8;
        uint8_t b = static_cast<uint8_t>(e.acc >> e.nbits);
        e.out[e.used++] = e.reverse ? bit_reversed.b[b] : b;
    }
}

inline void put_code(ccitt_encoder &e, ccitt_code c) { put_bits(e, c.bits, c.length); }

void put_run(ccitt_encoder &e, int colour, int32_t run) {
    while (run >= 2560) {
        put_code(e, ccitt_makeup(colour, 2560));
        run -= 2560;
    }
    if (run >= 64) {
        put_code(e, ccitt_makeup(colour, run & ~63));
        run &= 63;
    }
    put_code(e, ccitt_terminating(colour, run));
}

void align_byte(ccitt_encoder &e) {
    if (e.nbits & 7) put_bits(e, 0, 8 - (e.nbits & 7));
}

void put_eol(ccitt_encoder &e, bool aligned) {
    // Fill bits so that the EOL ends on a byte boundary.
    if (aligned) put_bits(e, 0, (8 - ((e.nbits + 12) & 7)) & 7);
    put_bits(e, 1, 12);
}

int flush(ccitt_encoder &e, uint32_t at) {
    if (e.used < at) return 0;
    int32_t n = static_cast<int32_t>(e.used);
    e.used = 0;
    return file_write(e.fd, e.out, n) == n ? 0 : IMG_ERR_WRITE;
}

// Next position at or after x whose pixel differs from colour (1 = black).
int32_t next_change(const uint8_t *row, int32_t x, int32_t width, int colour) {
    const uint8_t skip = colour ? 0xFF : 0x00;
    while (x < width) {
        if ((x & 7) == 0 && row[x >> 3] == skip) {
            x += 8;
            continue;
        }
        if (((row[x >> 3] >> (7 - (x & 7))) & 1) != colour) return x;
        x++;
    }
    return width;
}

// Transitions of a row, closed with the width four times.
void transitions(const uint8_t *row, int32_t width, int32_t *list, int white) {
    int32_t x = 0, k = 0;
    int colour = white;
    while ((x = next_change(row, x, width, colour)) < width) {
        list[k++] = x;
        colour ^= 1;
    }
    for (int i = 0; i < 4; i++) list[k++] = width;
}

void encode_1d(ccitt_encoder &e, const int32_t *t) {
    int32_t x = 0;
    int colour = 0;
    for (int k = 0; x < e.width; k++, colour ^= 1) {
        put_run(e, colour, t[k] - x);
        x = t[k];
    }
}

constexpr ccitt_code vertical_codes[7] = {
    {0x02, 7}, {0x02, 6}, {0x02, 3}, {0x01, 1}, {0x03, 3}, {0x03, 6}, {0x03, 7},  // VL3 .. VR3
};

void encode_2d(ccitt_encoder &e) {
    const int32_t *r = e.ref, *c = e.cur, w = e.width;
    int32_t a0 = -1;
    int colour = 0, i = 0, j = 0;
    while (a0 < w) {
        // b1: the first reference change right of a0 of the colour opposite a0's.
        while (r[j] <= a0 && r[j] < w) j++;
        if ((j & 1) != colour) j++;
        int32_t b1 = r[j] < w ? r[j] : w, b2 = r[j + 1] < w ? r[j + 1] : w;
        int32_t a1 = c[i];
        if (b2 < a1) {  // pass
            put_bits(e, 1, 4);
            a0 = b2;
        } else if (a1 - b1 <= 3 && b1 - a1 <= 3) {
            put_code(e, vertical_codes[a1 - b1 + 3]);
            a0 = a1;
            colour ^= 1;
            i++;
        } else {
            int32_t a2 = c[i + 1];
            put_bits(e, 1, 3);
            put_run(e, colour, a1 - (a0 < 0 ? 0 : a0));
            put_run(e, colour ^ 1, a2 - a1);
            a0 = a2;
            i += 2;
        }
        if (j > 0 && r[j - 1] > a0) j--;  // b1 may lie left of the last one found after a pass
        while (j > 0 && r[j - 1] > a0) j--;
    }
}

}  // namespace

int ccitt_encode_begin(ccitt_encoder &e, int fd, int32_t width, ccitt_kind kind, bool reverse,
                       const uint8_t *palette) {
    e = {};
    if (width <= 0 || width > 0xFFFFFF) return IMG_ERR_MEMORY;
    uint32_t lists = (static_cast<uint32_t>(width) + 8) * 4;
    // One worst-case row past the flush mark, kept a multiple of 4 for the lists after it.
    uint32_t out = (ENCODE_FLUSH_AT + static_cast<uint32_t>(width) * 3 + 64) & ~3u;
    e.block = scratch_alloc(out + 2 * lists);
    if (!e.block) return IMG_ERR_MEMORY;
    e.fd = fd;
    e.width = width;
    e.kind = kind;
    e.reverse = reverse;
    e.white = bilevel_white_index(palette);
    e.out = static_cast<uint8_t *>(e.block);
    e.ref = reinterpret_cast<int32_t *>(e.out + out);
    e.cur = e.ref + lists / 4;
    for (int i = 0; i < 4; i++) e.ref[i] = width;  // all-white line above the first
    return 0;
}

int ccitt_encode_row(ccitt_encoder &e, const uint8_t *row) {
    transitions(row, e.width, e.cur, e.white);
    switch (e.kind) {
    case CCITT_MH_ALIGNED:
        encode_1d(e, e.cur);
        align_byte(e);
        break;
    case CCITT_G3_EOL:
        put_eol(e, true);
        encode_1d(e, e.cur);
        break;
    case CCITT_G4:
        encode_2d(e);
        std::swap(e.ref, e.cur);
        break;
    }
    return flush(e, ENCODE_FLUSH_AT);
}

int ccitt_encode_end(ccitt_encoder &e, bool rtc) {
    if (e.kind == CCITT_G4) {
        put_bits(e, 1, 12);
        put_bits(e, 1, 12);
    } else if (rtc) {
        for (int i = 0; i < 6; i++) put_eol(e, i == 0);
    }
    align_byte(e);
    return flush(e, 1);
}

void ccitt_encode_free(ccitt_encoder &e) {
    if (e.block) scratch_free(e.block);
    e.block = nullptr;
}

}  // namespace brv
