// The TIFF LZW decoder: a string table whose entries remember where each
// string last stood in the output, so a code's string is copied forward from
// there in 16-byte blocks; only a string the output has moved past is
// rebuilt backwards from its last byte through the prefix chain.
#include "codecs/lzw.h"
#include "frame/byte_source.h"

#include <bit>

namespace brv {

namespace {

constexpr int CLEAR = 256;
constexpr int END = 257;
constexpr int FIRST_FREE = 258;
constexpr int TABLE = 4096;
// The most one code adds to the output, with room for the block copies' overshoot.
constexpr uint32_t MAX_STRING = TABLE + 32;
constexpr int32_t LATER_READ = 4096;

// One table entry in one word: where the string last stood (as an offset
// into the strip's output), its length, its first byte and its last byte.
constexpr uint64_t make_entry(uint32_t where, uint32_t length, uint32_t first, uint32_t last) {
    return where | uint64_t{length} << 32 | uint64_t{first} << 48 | uint64_t{last} << 56;
}
constexpr uint32_t where_of(uint64_t e) { return static_cast<uint32_t>(e); }
constexpr uint32_t length_of(uint64_t e) { return static_cast<uint32_t>(e >> 32) & 0xFFFF; }
constexpr uint32_t first_of(uint64_t e) { return static_cast<uint32_t>(e >> 48) & 0xFF; }
constexpr uint32_t last_of(uint64_t e) { return static_cast<uint32_t>(e >> 56); }

using block16 = uint8_t __attribute__((vector_size(16)));
// n bytes in 16-byte blocks, each loaded before it is stored: right for a
// source that ends at least n bytes before dst, whatever the overshoot reads.
inline void copy_blocks(uint8_t *dst, const uint8_t *src, uint32_t n) {
    for (uint32_t k = 0; k < n; k += 16) {
        block16 t;
        std::memcpy(&t, src + k, 16);
        std::memcpy(dst + k, &t, 16);
    }
}

// The string of code c (a literal or a table entry), written backwards from
// its last byte so that it ends just before end.
inline void walk_back(const uint64_t *entries, const uint16_t *prefix, int c, uint8_t *end) {
    while (c >= 256) {
        *--end = static_cast<uint8_t>(last_of(entries[c]));
        c = prefix[c];
    }
    *--end = static_cast<uint8_t>(c);
}

// Codes are read at a bit position in an input window: eight bytes at a
// time while eight remain, the window's tail through the buffer, which
// reads more behind it.  The input is read in blocks, the first of a strip
// sized by what the previous strip took.
struct code_reader {
    int fd;
    uint8_t *in;
    int32_t size;
    const uint8_t *ip, *iend;  // the window
    int32_t left;              // source bytes not yet read
    int32_t chunk;             // the most the next read asks for
    int32_t taken;             // bytes read in this strip
    uint64_t pos;              // bits of the window already used
    int64_t limit;             // the last pos at which eight bytes can be loaded

    // Moves the unread bytes to the front and reads more behind them.
    bool load() {
        int32_t keep = static_cast<int32_t>(iend - ip);
        std::memmove(in, ip, static_cast<size_t>(keep));
        ip = in;
        iend = in + keep;
        int32_t want = size - keep;
        if (want > chunk) want = chunk;
        if (want > left) want = left;
        chunk = LATER_READ;
        if (want <= 0) return false;
        int32_t n = read_once(fd, in + keep, want);
        if (n <= 0) {
            left = 0;
            return false;
        }
        left -= n;
        taken += n;
        iend += n;
        return true;
    }
    void set_limit() { limit = iend - ip >= 8 ? (iend - ip - 8) * 8 + 7 : -1; }
    // A code of width bits where fewer than eight bytes are left, reading
    // more first; -1 when the data ran out.
    int fetch_tail(int width) {
        ip += pos >> 3;
        pos &= 7;
        if (iend - ip < 8) load();
        set_limit();
        if (pos + static_cast<uint64_t>(width) > static_cast<uint64_t>(iend - ip) * 8) return -1;
        uint64_t v = 0;
        for (int k = 0; k < 8 && ip + k < iend; k++) v |= uint64_t{ip[k]} << (56 - 8 * k);
        pos += static_cast<uint64_t>(width);
        return static_cast<int>((v << (pos - static_cast<uint64_t>(width))) >> (64 - width));
    }
    // Bytes of this strip's reads that codes have used.
    int32_t used() const { return taken - static_cast<int32_t>(iend - ip) + static_cast<int32_t>((pos + 7) >> 3); }
};

}  // namespace

int tiff_lzw_begin(tiff_lzw_state &s) {
    s = tiff_lzw_state{};
    auto *p = static_cast<uint8_t *>(scratch_alloc(TABLE * 10 + 256 + 16));
    if (!p) return IMG_ERR_MEMORY;
    s.block = p;
    s.entries = reinterpret_cast<uint64_t *>(p);
    s.prefix = reinterpret_cast<uint16_t *>(p + TABLE * 8);
    s.literals = p + TABLE * 10;
    for (int i = 0; i < 256; i++) {
        s.entries[i] = make_entry(0, 1, static_cast<uint32_t>(i), static_cast<uint32_t>(i));
        s.literals[i] = static_cast<uint8_t>(i);
    }
    return 0;
}

void tiff_lzw_end(tiff_lzw_state &s) {
    if (s.block) scratch_free(s.block);
    s = tiff_lzw_state{};
}

int tiff_lzw_decode_strip(tiff_lzw_state &s, int fd, uint8_t *in, int32_t in_size, int first_row, uint32_t row_bytes,
                          uint8_t *out, uint32_t out_size, int row_count, lzw_sink sink, void *context) {
    if (!s.block || row_bytes == 0 || out_size < row_bytes + MAX_STRING || in_size < 64) return IMG_ERR_MEMORY;
    code_reader r{};
    r.fd = fd;
    r.in = in;
    r.size = in_size;
    r.ip = r.iend = in;
    r.chunk = s.next_read > 0 ? s.next_read : in_size;
    int32_t count;
    if (const uint8_t *m = file_map(fd, &count)) {
        // A memory block is read where it stands; only its last few bytes
        // go through the buffer.
        r.ip = m;
        r.iend = m + count;
    } else {
        r.left = bytes_left(fd, file_size_hint(fd));
    }
    int code = r.fetch_tail(9);
    if (code < 0) return IMG_ERR_DATA;
    if (code != CLEAR) return IMG_ERR_HEADER;

    // All three tables in one block, at fixed distances from the first.
    uint64_t *const entries = s.entries;
    uint16_t *const prefix = reinterpret_cast<uint16_t *>(entries + TABLE);
    const uint8_t *const literals = reinterpret_cast<const uint8_t *>(entries) + TABLE * 10;
    const uint32_t room = out_size - MAX_STRING;  // past this the undelivered bytes move to the front
    uint32_t start = 0, fill = 0;                // undelivered bytes are out[start, fill)
    uint32_t base = 0;                           // the strip offset of out[0]
    uint32_t check_at = row_bytes < room ? row_bytes : room;  // the next fill that needs a look
    int done = 0, rc = 0;
    int width = 9, grow_at = 511;
    // The next free code, which every code below stands for; -1 right after
    // a Clear, when the next code must stand for itself.
    int next = -1;
    // The previous code, and the entry its string would make with one byte
    // more (where it stands, length + 1, first byte); unused right after a Clear.
    int prev = -1;
    uint64_t prev_entry = 0;
    // The window and the bit position live in locals through the loop;
    // the reader's own copies are brought up to date around its tail.
    const uint8_t *ip = r.ip;
    uint64_t pos = r.pos;
    int64_t limit = r.limit;
    constexpr uint64_t LENGTH_AND_FIRST = 0x00FFFFFF00000000ull, ONE_LONGER = 1ull << 32, LAST = 0xFFull << 56;
    // Enters the string after prev as the next free code; the code width
    // grows one code early.
    auto define = [&](uint64_t entry) {
        if (next >= TABLE) return;
        entries[next] = entry;
        prefix[next] = static_cast<uint16_t>(prev);
        if (++next == grow_at) {
            width++;
            grow_at = width < 12 ? (1 << width) - 1 : 0;
        }
    };
    for (;;) {
        const uint32_t at = base + fill;
        uint8_t *const dst = out + fill;
        if (code < next && static_cast<unsigned>(code - CLEAR) > 1u) {
            // The common case: a literal or a string already in the table.
            const uint64_t e = entries[code];
            const uint32_t n = length_of(e), off = where_of(e) - base;
            // Literals come from their own table, chosen without a branch:
            // which kind of code comes next is anyone's guess.
            const uintptr_t literal = uintptr_t{0} - static_cast<uintptr_t>(code < 256);
            const auto *src = reinterpret_cast<const uint8_t *>((reinterpret_cast<uintptr_t>(literals + code) & literal) |
                                                                (reinterpret_cast<uintptr_t>(out + off) & ~literal));
            if (__builtin_expect((literal | (static_cast<uint64_t>(off) + n <= fill)) != 0, 1)) {
                copy_blocks(dst, src, 16);
                if (n > 16) copy_blocks(dst + 16, src + 16, n - 16);
            } else {
                walk_back(entries, prefix, code, dst + n);  // the output has moved past it
            }
            fill += n;
            // The new string is the previous one and this one's first byte, where both stand.
            define(prev_entry | ((e << 8) & LAST));
            prev = code;
            prev_entry = at | ((e & LENGTH_AND_FIRST) + ONE_LONGER);
        } else if (code == next) {
            // The string being defined: the previous one and its own first byte.
            const uint32_t n = length_of(prev_entry) - 1, off = where_of(prev_entry) - base;
            const uint8_t first = static_cast<uint8_t>(first_of(prev_entry));
            if (static_cast<uint64_t>(off) + n <= fill)
                copy_blocks(dst, out + off, n);
            else
                walk_back(entries, prefix, prev, dst + n);
            dst[n] = first;
            fill += n + 1;
            define(prev_entry | static_cast<uint64_t>(first) << 56);
            prev = code;
            prev_entry = at | ((prev_entry & LENGTH_AND_FIRST) + ONE_LONGER);
        } else if (code == CLEAR) {
            next = -1;
            width = 9;
            grow_at = 511;
        } else if (code == END) {
            // The rest of the strip repeats the buffer as it stands; what no
            // code reached is zero.
            std::memset(out + fill, 0, start + row_bytes - fill);
            for (; done < row_count; done++)
                if (rc = sink(context, out + start, first_row + done); rc < 0) goto finish;
            rc = 0;
            goto finish;
        } else if (code < 256 && next < 0) {
            // The first code after a Clear stands for itself.
            *dst = static_cast<uint8_t>(code);
            fill++;
            prev = code;
            next = FIRST_FREE;
            prev_entry = at | make_entry(0, 2, static_cast<uint32_t>(code), 0);
        } else {
            rc = IMG_ERR_HEADER;  // beyond the table, or a string code right after Clear
            goto finish;
        }
        if (fill >= check_at) {
            while (fill - start >= row_bytes) {
                if (rc = sink(context, out + start, first_row + done); rc < 0) goto finish;
                start += row_bytes;
                if (++done >= row_count) {
                    rc = 0;
                    goto finish;
                }
            }
            if (fill > room) {
                std::memmove(out, out + start, fill - start);
                fill -= start;
                base += start;
                start = 0;
            }
            check_at = start + row_bytes < room ? start + row_bytes : room;
        }
        if (static_cast<int64_t>(pos) <= limit) {
            uint64_t v;
            std::memcpy(&v, ip + (pos >> 3), 8);
            if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
            code = static_cast<int>((v << (pos & 7)) >> (64 - width));
            pos += static_cast<uint64_t>(width);
        } else {
            r.ip = ip, r.pos = pos;
            code = r.fetch_tail(width);
            ip = r.ip, pos = r.pos, limit = r.limit;
            if (code < 0) {
                rc = IMG_ERR_DATA;
                goto finish;
            }
        }
    }
finish:
    // The next strip's first read: what this one took, and a margin.
    r.ip = ip, r.pos = pos;
    if (const int32_t used = r.used(); used > 0) s.next_read = used + used / 8 + 256;
    return rc;
}

// ---- Encoder ---------------------------------------------------------------------
namespace {

constexpr uint32_t HASH_SIZE = 8192;  // a power of two above the 4096 codes
constexpr uint32_t OUT_SIZE = 16384;


inline void put_code(tiff_lzw_encoder &e, int code) {
    e.acc = e.acc << e.width | static_cast<uint32_t>(code);
    e.nbits += e.width;
    while (e.nbits >= 8) {
        e.nbits -= 8;
        e.out[e.used++] = static_cast<uint8_t>(e.acc >> e.nbits);
    }
}

void reset_table(tiff_lzw_encoder &e) {
    std::memset(e.keys, 0, HASH_SIZE * sizeof *e.keys);
    e.width = 9;
    e.next = 258;
}

int flush_out(tiff_lzw_encoder &e) {
    int32_t n = static_cast<int32_t>(e.used);
    e.used = 0;
    return file_write(e.fd, e.out, n) == n ? 0 : IMG_ERR_WRITE;
}

// After a code goes out the decoder adds an entry one step behind the
// encoder: the width grows when the next free code reaches a power of two.
inline void count_entry(tiff_lzw_encoder &e) {
    if (++e.next == 4094) {
        put_code(e, CLEAR);
        reset_table(e);
    } else if (e.next == (1 << e.width)) {
        e.width++;
    }
}

}  // namespace

int tiff_lzw_encode_begin(tiff_lzw_encoder &e, int fd) {
    e = {};
    e.block = scratch_alloc(HASH_SIZE * 6 + OUT_SIZE);
    if (!e.block) return IMG_ERR_MEMORY;
    e.fd = fd;
    e.keys = static_cast<uint32_t *>(e.block);
    e.codes = reinterpret_cast<uint16_t *>(e.keys + HASH_SIZE);
    e.out = reinterpret_cast<uint8_t *>(e.codes + HASH_SIZE);
    e.prefix = -1;
    return 0;
}

void tiff_lzw_encode_strip_start(tiff_lzw_encoder &e) {
    e.width = 9;
    put_code(e, CLEAR);
    reset_table(e);
    e.prefix = -1;
}

int tiff_lzw_encode(tiff_lzw_encoder &e, const uint8_t *data, uint32_t count) {
    uint32_t i = 0;
    if (e.prefix < 0 && count) e.prefix = data[i++];
    int prefix = e.prefix;
    for (; i < count; i++) {
        uint32_t key = static_cast<uint32_t>(prefix) << 8 | data[i];
        uint32_t h = (key * 2654435761u) >> 19;  // 13 bits
        for (;;) {
            uint32_t k = e.keys[h];
            if (k == key + 1) {
                prefix = e.codes[h];
                break;
            }
            if (k == 0) {
                put_code(e, prefix);
                e.keys[h] = key + 1;
                e.codes[h] = static_cast<uint16_t>(e.next);
                count_entry(e);
                prefix = data[i];
                break;
            }
            h = (h + 1) & (HASH_SIZE - 1);
        }
        if (e.used > OUT_SIZE - 64)
            if (int rc = flush_out(e); rc < 0) return rc;
    }
    e.prefix = prefix;
    return 0;
}

int tiff_lzw_encode_strip_end(tiff_lzw_encoder &e) {
    if (e.prefix >= 0) {
        put_code(e, e.prefix);
        if (++e.next == (1 << e.width) && e.width < 12) e.width++;
    }
    put_code(e, END);
    if (e.nbits) e.out[e.used++] = static_cast<uint8_t>(e.acc << (8 - e.nbits));
    e.nbits = 0;
    e.prefix = -1;
    return flush_out(e);
}

void tiff_lzw_encode_free(tiff_lzw_encoder &e) {
    if (e.block) scratch_free(e.block);
    e.block = nullptr;
}

}  // namespace brv
