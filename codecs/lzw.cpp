// The TIFF LZW decoder: a string table of (prefix, suffix, length) entries,
// strings written backwards from their last byte straight into the row
// buffer, or copied from where they last stood when that is still there.
#include "codecs/lzw.h"

#include <bit>

namespace {

constexpr int CLEAR = 256;
constexpr int END = 257;
constexpr int FIRST_FREE = 258;
constexpr int TABLE = 4096;
constexpr uint32_t MAX_STRING = TABLE + 32;

// Codes come from a 64-bit window refilled eight bytes at a time; the input
// buffer keeps 16 bytes of slack so the wide loads never leave it.
struct code_reader {
    int fd;
    uint8_t *in;
    int32_t size;
    const uint8_t *ip, *iend;
    int32_t left;  // source bytes not yet read
    uint64_t acc;
    int nbits;

    // Moves the unread bytes to the front and reads more behind them.
    bool load() {
        int32_t keep = static_cast<int32_t>(iend - ip);
        std::memmove(in, ip, static_cast<size_t>(keep));
        ip = in;
        iend = in + keep;
        int32_t room = size - 16 - keep;
        if (left <= 0 || room <= 0) return false;
        int32_t want = room < left ? room : left;
        int32_t n = file_read(fd, in + keep, want);
        if (n <= 0) {
            left = 0;
            return false;
        }
        if (n > want) n = want;
        left -= n;
        iend += n;
        std::memset(in + keep + n, 0, 16);
        return true;
    }
    // Makes at least width bits ready; false when the data ran out.
    bool ready(int width) {
        if (nbits >= width) return true;
        if (iend - ip < 8) {
            load();
            while (nbits <= 56 && ip < iend) {
                acc |= static_cast<uint64_t>(*ip++) << (56 - nbits);
                nbits += 8;
            }
            return nbits >= width;
        }
        uint64_t v;
        std::memcpy(&v, ip, 8);
        if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
        acc |= v >> nbits;
        ip += (63 - nbits) >> 3;
        nbits |= 56;
        return true;
    }
    int take(int width) {
        int code = static_cast<int>(acc >> (64 - width));
        acc <<= width;
        nbits -= width;
        return code;
    }
    int next(int width) { return ready(width) ? take(width) : -1; }
};

}  // namespace

int tiff_lzw_begin(tiff_lzw_state &s) {
    s = tiff_lzw_state{};
    auto *p = static_cast<uint8_t *>(scratch_alloc(TABLE * 10 + 16));
    if (!p) return IMG_ERR_MEMORY;
    s.block = p;
    s.where = reinterpret_cast<uint32_t *>(p);
    s.prefix = reinterpret_cast<uint16_t *>(p + TABLE * 4);
    s.length = reinterpret_cast<uint16_t *>(p + TABLE * 6);
    s.suffix = p + TABLE * 8;
    s.first = p + TABLE * 9;
    for (int i = 0; i < 256; i++) {
        s.prefix[i] = 0xFFFF;
        s.length[i] = 1;
        s.suffix[i] = s.first[i] = static_cast<uint8_t>(i);
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
    int32_t here = file_seek(fd, 0, 1), end = file_size_hint(fd);
    r.left = here < 0 || end < here ? 0 : end - here;

    uint16_t *prefix = s.prefix, *length = s.length;
    uint8_t *suffix = s.suffix, *first = s.first;
    uint32_t *where = s.where;
    uint32_t start = 0, fill = 0;  // undelivered bytes are out[start, fill)
    uint32_t base = 0;             // the strip offset of out[0]
    uint32_t prev_at = 0;          // the strip offset of the previous code's string
    int done = 0;
    int next = FIRST_FREE, width = 9, prev = -1;

    int code = r.next(9);
    if (code < 0) return IMG_ERR_DATA;
    if (code != CLEAR) return IMG_ERR_HEADER;
    // The window lives in locals through the loop; the reader's own copy is
    // only brought up to date around a refill from the file.
    uint64_t acc = r.acc;
    int nbits = r.nbits;
    for (;;) {
        if (code < next && code != CLEAR && code != END) {
            // The common case: a string already in the table.
            const uint32_t at = base + fill;
            uint32_t n = length[code];
            uint8_t *dst = out + fill;
            if (code < 256) {
                *dst = static_cast<uint8_t>(code);
            } else if (where[code] >= base && at - where[code] >= 16) {
                // Still in the buffer: copy it, 16 bytes at a time into the slack.
                const uint8_t *src = out + (where[code] - base);
                for (uint32_t k = 0; k < n; k += 16) std::memcpy(dst + k, src + k, 16);
            } else {
                uint8_t *q = dst + n;
                int c = code;
                while (c >= 256) {
                    *--q = suffix[c];
                    c = prefix[c];
                }
                *--q = static_cast<uint8_t>(c);
            }
            fill += n;
            if (prev >= 0 && next < TABLE) {
                // The new string is the previous one and this one's first byte, where both stand.
                prefix[next] = static_cast<uint16_t>(prev);
                suffix[next] = first[code];
                first[next] = first[prev];
                length[next] = static_cast<uint16_t>(length[prev] + 1);
                where[next] = prev_at;
                next++;
                if (next == (1 << width) - 1 && width < 12) width++;
            }
            prev = code;
            prev_at = at;
        } else if (code == CLEAR) {
            next = FIRST_FREE;
            width = 9;
            prev = -1;
        } else if (code == END) {
            // The rest of the strip repeats the buffer as it stands.
            while (done < row_count) {
                if (int rc = sink(context, out + start, first_row + done); rc < 0) return rc;
                done++;
            }
            return 1;
        } else if (code == next && prev >= 0) {
            // The string being defined: the previous one and its own first byte.
            const uint32_t at = base + fill;
            uint32_t n = length[prev];
            uint8_t *q = out + fill + n;
            out[fill + n] = first[prev];
            int c = prev;
            while (c >= 256) {
                *--q = suffix[c];
                c = prefix[c];
            }
            *--q = static_cast<uint8_t>(c);
            fill += n + 1;
            if (next < TABLE) {
                prefix[next] = static_cast<uint16_t>(prev);
                suffix[next] = first[prev];
                first[next] = first[prev];
                length[next] = static_cast<uint16_t>(n + 1);
                where[next] = prev_at;
                next++;
                if (next == (1 << width) - 1 && width < 12) width++;
            }
            prev = code;
            prev_at = at;
        } else {
            return IMG_ERR_HEADER;  // beyond the table, or a string code right after Clear
        }
        if (fill - start >= row_bytes) {
            do {
                if (int rc = sink(context, out + start, first_row + done); rc < 0) return rc;
                start += row_bytes;
                if (++done >= row_count) return 1;
            } while (fill - start >= row_bytes);
        }
        if (out_size - fill < MAX_STRING) {
            std::memmove(out, out + start, fill - start);
            fill -= start;
            base += start;
            start = 0;
        }
        if (nbits < width) {
            if (r.iend - r.ip >= 8) {
                uint64_t v;
                std::memcpy(&v, r.ip, 8);
                if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
                acc |= v >> nbits;
                r.ip += (63 - nbits) >> 3;
                nbits |= 56;
            } else {
                r.acc = acc;
                r.nbits = nbits;
                bool ok = r.ready(width);
                acc = r.acc;
                nbits = r.nbits;
                if (!ok) return IMG_ERR_DATA;
            }
        }
        code = static_cast<int>(acc >> (64 - width));
        acc <<= width;
        nbits -= width;
    }
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
