// GIF: the reader (first image only, extension chain, interlaced rows, the
// transparent index in biClrUsed), its LZW decoder, and the GIF87a writer
// (type 4) with its own LZW encoder.
#include "codecs/codec_support.h"
#include "codecs/gif.h"

#include "colour/colour.h"

namespace brv {

namespace {

constexpr int MAX_CODES = 4096;        // 12-bit codes
constexpr int TABLE_ENTRIES = 4296;    // room past the last code, as read
constexpr int32_t SOURCE_SIZE = READ_BUFFER_SIZE + 300;

// ---- Sub-block bit reader -----------------------------------------------------
// Data sub-blocks are gathered into one contiguous run of bytes, from which
// codes are taken least significant bit first.
struct gif_bits {
    byte_source *src;
    uint8_t *data;
    int32_t cap, len = 0, pos = 0;
    uint64_t acc = 0;
    int nbits = 0;
    bool blocks_done = false;  // the zero-length terminator was seen, or the source ended
};

bool refill(gif_bits &b) {
    if (b.blocks_done) return false;
    b.len = 0;
    b.pos = 0;
    while (!b.blocks_done && b.cap - b.len >= 255) {
        int n = source_byte(*b.src);
        if (n <= 0) {
            b.blocks_done = true;
            break;
        }
        int32_t got = source_read(*b.src, b.data + b.len, n);
        b.len += got;
        if (got < n) b.blocks_done = true;
    }
    return b.len > 0;
}

// The next code of the given width, or -1 when the data ran out.
inline int next_code(gif_bits &b, int width) {
    while (b.nbits < width) {
        if (b.pos >= b.len && !refill(b)) return -1;
        b.acc |= static_cast<uint64_t>(b.data[b.pos++]) << b.nbits;
        b.nbits += 8;
    }
    int code = static_cast<int>(b.acc & ((1u << width) - 1));
    b.acc >>= width;
    b.nbits -= width;
    return code;
}

// ---- Row delivery ----------------------------------------------------------------
struct row_sink {
    IMG_put_row_fn put_row;
    void *user;
    int width, height, bits;
    uint32_t stride;
    uint8_t *row;
    bool interlaced;
    int delivered = 0;
    int pass = 0, next_row = 0;
};

constexpr int pass_start[4] = {0, 4, 2, 1};
constexpr int pass_step[4] = {8, 8, 4, 2};

// Delivers one row's worth of 8-bit indices; the row number follows the
// interlace passes when they apply.
int deliver(row_sink &s, const uint8_t *indices) {
    if (s.bits == 8) {
        std::memcpy(s.row, indices, static_cast<size_t>(s.width));
    } else {
        const int pairs = s.width / 2;
        for (int i = 0; i < pairs; i++)
            s.row[i] = static_cast<uint8_t>((indices[2 * i] & 15) << 4 | (indices[2 * i + 1] & 15));
        if (s.width & 1) s.row[pairs] = static_cast<uint8_t>((indices[s.width - 1] & 15) << 4);
    }
    int r = s.next_row;
    if (s.interlaced) {
        s.next_row += pass_step[s.pass];
        while (s.next_row >= s.height && s.pass < 3) s.next_row = pass_start[++s.pass];
    } else {
        s.next_row++;
    }
    s.delivered++;
    return s.put_row(s.row, s.user, r, static_cast<int>(s.stride));
}

// ---- LZW encoder -----------------------------------------------------------------
constexpr int HASH_BITS = 13;
constexpr uint32_t HASH_SIZE = 1u << HASH_BITS;
constexpr int OUT_SIZE = 8192;

struct gif_encoder {
    int fd;
    int root, clear, width;
    int next;          // our next free code
    int reader_next;   // the decoder's next free code, mirrored to time width changes
    bool after_clear;
    uint64_t acc = 0;
    int nbits = 0;
    uint8_t *out;      // pending sub-blocks
    int out_len = 0;
    int block_start = 0;  // where the open sub-block's size byte sits
    uint32_t *keys;       // prefix << 8 | byte, plus one; 0 = empty
    uint16_t *codes;
    bool failed = false;
};

void reset_table(gif_encoder &e) {
    std::memset(e.keys, 0, HASH_SIZE * sizeof(uint32_t));
    e.next = e.clear + 2;
}

bool flush_out(gif_encoder &e, bool all) {
    // Whole sub-blocks go out; an open one stays unless everything must go.
    int n = all ? e.out_len : e.block_start;
    if (n > 0) {
        if (file_write(e.fd, e.out, n) != n) e.failed = true;
        std::memmove(e.out, e.out + n, static_cast<size_t>(e.out_len - n));
        e.out_len -= n;
        e.block_start -= n;
    }
    return !e.failed;
}

inline void put_byte(gif_encoder &e, uint8_t v) {
    if (e.out_len == e.block_start) e.out[e.out_len++] = 0;  // open a sub-block
    e.out[e.out_len++] = v;
    if (++e.out[e.block_start] == 255) {
        e.block_start = e.out_len;
        if (e.out_len > OUT_SIZE - 300) flush_out(e, false);
    }
}

// Writes a code at the width the decoder will read it with, then follows the
// decoder's own table growth so the next width matches.
inline void emit(gif_encoder &e, int code) {
    e.acc |= static_cast<uint64_t>(code) << e.nbits;
    e.nbits += e.width;
    while (e.nbits >= 8) {
        put_byte(e, static_cast<uint8_t>(e.acc));
        e.acc >>= 8;
        e.nbits -= 8;
    }
    if (code == e.clear) {
        e.width = e.root + 1;
        e.reader_next = e.clear + 2;
        e.after_clear = true;
    } else if (e.after_clear) {
        e.after_clear = false;
    } else if (e.reader_next < MAX_CODES) {
        if (++e.reader_next == (1 << e.width) && e.width < 12) e.width++;
    }
}

inline uint32_t hash_of(uint32_t key) { return (key * 2654435761u) >> (32 - HASH_BITS); }

}  // namespace

// ---- Decoding --------------------------------------------------------------------

int gif_lzw_decode(byte_source &src, const dib_header *header, IMG_put_row_fn put_row, void *user, uint32_t flags) {
    const dib_info &h = header->info;
    const int packed = static_cast<int>(flags & 0xFF);
    int root = static_cast<int>((flags >> 8) & 0xFF);
    if (root == 0 || root > 8) root = (packed & 7) + 1;
    const int clear = 1 << root, end = clear + 1;
    const int width = h.biWidth, height = h.biHeight;
    if (width < 1 || height < 1) return IMG_ERR_HEADER;

    // A string may be 4095 bytes long, so the buffer holds a row plus one
    // whole string beyond it.
    uint32_t out_size = width < 200 ? static_cast<uint32_t>(width) * 10 + 500 : static_cast<uint32_t>(width) * 4;
    if (out_size < static_cast<uint32_t>(width) + MAX_CODES + 16) out_size = static_cast<uint32_t>(width) + MAX_CODES + 16;
    const uint32_t stride = row_bytes(width, h.biBitCount);
    // Suffix, prefix and length side by side: one cache line per step of a walk.
    struct entry {
        uint16_t prefix, length;
        uint8_t suffix;
    };
    auto *table = static_cast<entry *>(scratch_alloc(TABLE_ENTRIES * sizeof(entry)));
    auto *out = static_cast<uint8_t *>(scratch_alloc(out_size));
    auto *row = static_cast<uint8_t *>(scratch_alloc(stride + 16));
    auto *data = static_cast<uint8_t *>(scratch_alloc(SOURCE_SIZE));
    if (!table || !out || !row || !data || !stride) return IMG_ERR_MEMORY;
    for (int i = 0; i < 256; i++) {
        table[i] = {0xFFFF, 1, static_cast<uint8_t>(i)};
    }

    gif_bits bits{&src, data, SOURCE_SIZE};
    row_sink sink{put_row, user, width, height, h.biBitCount, stride, row, (packed & 0x40) && height >= 8};
    uint32_t fill = 0;  // indices waiting in out
    int code_width = root + 1, next = clear + 2, prev = -1;

    if (int first = next_code(bits, code_width); first != clear) return first < 0 ? IMG_ERR_DATA : IMG_ERR_HEADER;
    for (;;) {
        int code = next_code(bits, code_width);
        if (code < 0) return IMG_ERR_DATA;
        if (code == clear) {
            code_width = root + 1;
            next = clear + 2;
            prev = -1;
            continue;
        }
        if (code == end) return 0;
        if (prev < 0) {
            // The first code after a Clear stands for itself.
            if (code >= clear) return 0;
            out[fill++] = static_cast<uint8_t>(code);
            prev = code;
        } else {
            uint8_t *at = out + fill;
            int len;
            if (code < next) {
                len = table[code].length;
                int c = code;
                for (int i = len - 1; i > 0; i--) {
                    at[i] = table[c].suffix;
                    c = table[c].prefix;
                }
                at[0] = static_cast<uint8_t>(c);
            } else if (code == next) {
                int plen = table[prev].length, c = prev;
                for (int i = plen - 1; i > 0; i--) {
                    at[i] = table[c].suffix;
                    c = table[c].prefix;
                }
                at[0] = static_cast<uint8_t>(c);
                at[plen] = at[0];
                len = plen + 1;
            } else {
                return 0;  // a code past the table ends the image quietly
            }
            if (next < MAX_CODES) {
                table[next] = {static_cast<uint16_t>(prev), static_cast<uint16_t>(table[prev].length + 1), at[0]};
                if (++next == (1 << code_width) && code_width < 12) code_width++;
            }
            fill += static_cast<uint32_t>(len);
            prev = code;
        }
        if (fill >= static_cast<uint32_t>(width)) {
            uint32_t start = 0;
            while (fill - start >= static_cast<uint32_t>(width)) {
                if (int rc = deliver(sink, out + start); rc < 0) return rc;
                if (sink.delivered == height) return 0;
                start += static_cast<uint32_t>(width);
            }
            std::memmove(out, out + start, fill - start);
            fill -= start;
        }
    }
}

BRIVANTA_READER(gif_decompress) {
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, where, SOURCE_SIZE)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    uint8_t table[768] = {};

    uint8_t screen[13];
    if (source_read(src, screen, 13) != 13) return IMG_ERR_DATA;
    const bool has_global = screen[10] & 0x80;
    const int global_bits = screen[10] & 7;
    if (has_global) {
        int32_t n = 3 << (global_bits + 1);
        if (source_read(src, table, n) != n) return IMG_ERR_DATA;
    }

    // The extension chain of a version 89 file; anything else up to the image
    // separator is skipped by scanning for it.
    uint32_t transparent = 0;
    int b = source_byte(src);
    if (screen[3] == '8' && screen[4] == '9') {
        while (b == '!') {
            int label = source_byte(src);
            if (label < 0) return IMG_ERR_HEADER;
            if (label == 0xF9) {
                uint8_t gce[5];
                if (source_read(src, gce, 5) != 5) return IMG_ERR_HEADER;
                transparent = (gce[1] & 1) ? gce[4] : 0;
            }
            for (;;) {
                int n = source_byte(src);
                if (n < 0) return IMG_ERR_HEADER;
                if (n == 0) break;
                uint8_t skip[255];
                if (source_read(src, skip, n) != n) return IMG_ERR_HEADER;
            }
            b = source_byte(src);
        }
    }
    while (b != ',') {
        if (b < 0) return IMG_ERR_HEADER;
        b = source_byte(src);
    }

    // The descriptor, any local colour table, then the minimum code size.
    uint8_t desc[9];
    if (source_read(src, desc, 9) != 9) return IMG_ERR_DATA;
    int packed = desc[8];
    const bool has_local = packed & 0x80;
    bool has_table = has_global;
    if (has_local) {
        const int32_t n = 3 << ((packed & 7) + 1);
        uint8_t local[768];
        if (source_read(src, local, n) != n) return IMG_ERR_DATA;
        // The global table wins: a local one is passed over.
        if (!has_global) std::memcpy(table, local, static_cast<size_t>(n));
        has_table = true;
    }
    // With a global table the image's depth follows the global table's size.
    if (has_global) packed |= global_bits;
    const int min_code = source_byte(src);
    if (min_code < 0) return IMG_ERR_DATA;

    const int width = get16(desc + 4), height = get16(desc + 6);
    if (width < 1 || height < 1) return IMG_ERR_HEADER;

    auto *hdr = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!hdr) return IMG_ERR_MEMORY;
    dib_info &h = hdr->info;
    h.biSize = 40;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    const int colours = 2 << (packed & 7);
    h.biBitCount = colours >= 4 && colours <= 16 ? 4 : 8;  // two colours become 8 bits, deliberately
    if (!size_mul_add(row_bytes(h.biWidth, h.biBitCount), static_cast<uint32_t>(h.biHeight), 0, &h.biSizeImage))
        h.biSizeImage = 0;
    h.biClrUsed = transparent;
    if (has_table) {
        palette_from_rgb(hdr->palette, table, 1 << h.biBitCount);
    } else {
        set_named_palette(&h, "tiff");  // no colour table at all: indices read as grey levels
    }
    if (int rc = begin_image(hdr, context); rc < 0) return rc;
    return gif_lzw_decode(src, hdr, put_row, context, static_cast<uint32_t>(packed | min_code << 8));
}

// ---- Writing ---------------------------------------------------------------------

BRIVANTA_WRITER(gif_write) {
    const int bits = header->biBitCount;
    if (bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    const int width = header->biWidth, height = header->biHeight;
    const uint32_t stride = row_bytes(width, bits);
    if (width < 1 || height < 1 || !stride) return IMG_ERR_HEADER;
    if (width > 0xFFFF || height > 0xFFFF) return IMG_ERR_DEPTH;  // the screen holds 16-bit sizes

    uint8_t head[13] = {'G', 'I', 'F', '8', '7', 'a'};
    put16(head + 6, static_cast<uint32_t>(width));
    put16(head + 8, static_cast<uint32_t>(height));
    head[10] = static_cast<uint8_t>((bits - 1) | 0x80);
    if (file_write(fd, head, 13) != 13) return IMG_ERR_WRITE;
    const int colours = 1 << bits;
    uint8_t table[768];
    const auto *pal = reinterpret_cast<const uint8_t *>(header) + 40;
    for (int i = 0; i < colours; i++) {
        table[3 * i] = pal[4 * i + 2];
        table[3 * i + 1] = pal[4 * i + 1];
        table[3 * i + 2] = pal[4 * i];
    }
    if (file_write(fd, table, 3 * colours) != 3 * colours) return IMG_ERR_WRITE;
    uint8_t desc[11] = {','};
    put16(desc + 5, static_cast<uint32_t>(width));
    put16(desc + 7, static_cast<uint32_t>(height));
    desc[9] = static_cast<uint8_t>(bits - 1);
    desc[10] = static_cast<uint8_t>(bits);
    if (file_write(fd, desc, 11) != 11) return IMG_ERR_WRITE;

    gif_encoder e{};
    e.fd = fd;
    e.root = bits;
    e.clear = 1 << bits;
    e.width = bits + 1;
    e.out = static_cast<uint8_t *>(scratch_alloc(OUT_SIZE));
    e.keys = static_cast<uint32_t *>(scratch_alloc(HASH_SIZE * sizeof(uint32_t)));
    e.codes = static_cast<uint16_t *>(scratch_alloc(HASH_SIZE * sizeof(uint16_t)));
    auto *row = static_cast<uint8_t *>(scratch_alloc(stride + 16));
    auto *indices = static_cast<uint8_t *>(scratch_alloc(static_cast<uint32_t>(width) + 16));
    if (!e.out || !e.keys || !e.codes || !row || !indices) return IMG_ERR_MEMORY;

    emit(e, e.clear);
    reset_table(e);
    int prefix = -1;
    for (int r = 0; r < height; r++) {
        if (int rc = get_row(context, row, r, static_cast<int>(stride)); rc < 0) return rc;
        const uint8_t *px = row;
        if (bits == 4) {
            for (int x = 0; x < width; x++) indices[x] = (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
            px = indices;
        }
        int x = 0;
        if (prefix < 0) prefix = px[x++];
        for (; x < width; x++) {
            const uint32_t c = px[x];
            const uint32_t key = (static_cast<uint32_t>(prefix) << 8 | c) + 1;
            uint32_t slot = hash_of(key);
            while (e.keys[slot] && e.keys[slot] != key) slot = (slot + 1) & (HASH_SIZE - 1);
            if (e.keys[slot]) {
                prefix = e.codes[slot];
                continue;
            }
            emit(e, prefix);
            if (e.next < MAX_CODES) {
                e.keys[slot] = key;
                e.codes[slot] = static_cast<uint16_t>(e.next++);
            } else {
                emit(e, e.clear);
                reset_table(e);
            }
            prefix = static_cast<int>(c);
        }
        if (e.failed) return IMG_ERR_WRITE;
    }
    emit(e, prefix);
    emit(e, e.clear + 1);
    if (e.nbits > 0) put_byte(e, static_cast<uint8_t>(e.acc));
    // The block terminator and the trailer close the stream.
    e.out[e.out_len++] = 0;
    e.out[e.out_len++] = ';';
    e.block_start = e.out_len;
    if (!flush_out(e, true)) return IMG_ERR_WRITE;
    return 0;
}

}  // namespace brv
