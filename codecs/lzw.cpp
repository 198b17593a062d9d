// The TIFF LZW decoder: a string table of (prefix, suffix, length) entries,
// strings written backwards from their last byte straight into the row buffer.
#include "codecs/lzw.h"

namespace {

constexpr int CLEAR = 256;
constexpr int END = 257;
constexpr int FIRST_FREE = 258;
constexpr int TABLE = 4096;
constexpr uint32_t MAX_STRING = TABLE + 8;

struct code_reader {
    int fd;
    uint8_t *in;
    int32_t size, pos, len;
    int32_t left;  // source bytes not yet read
    uint64_t acc;
    int nbits;

    bool load() {
        if (left <= 0) return false;
        int32_t want = size < left ? size : left;
        int32_t n = file_read(fd, in, want);
        if (n <= 0) {
            left = 0;
            return false;
        }
        if (n > want) n = want;
        left -= n;
        pos = 0;
        len = n;
        return true;
    }
    // The next code of the given width, or -1 when the data ran out.
    int next(int width) {
        if (nbits < width) {
            while (nbits <= 56) {
                if (pos >= len && !load()) break;
                acc |= static_cast<uint64_t>(in[pos++]) << (56 - nbits);
                nbits += 8;
            }
            if (nbits < width) return -1;
        }
        int code = static_cast<int>(acc >> (64 - width));
        acc <<= width;
        nbits -= width;
        return code;
    }
};

}  // namespace

int tiff_lzw_begin(tiff_lzw_state &s) {
    s = tiff_lzw_state{};
    auto *p = static_cast<uint8_t *>(scratch_alloc(TABLE * 6 + 16));
    if (!p) return IMG_ERR_MEMORY;
    s.block = p;
    s.prefix = reinterpret_cast<uint16_t *>(p);
    s.length = reinterpret_cast<uint16_t *>(p + TABLE * 2);
    s.suffix = p + TABLE * 4;
    s.first = p + TABLE * 5;
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
    if (!s.block || row_bytes == 0 || out_size < row_bytes + MAX_STRING || in_size < 16) return IMG_ERR_MEMORY;
    code_reader r{};
    r.fd = fd;
    r.in = in;
    r.size = in_size;
    int32_t here = file_seek(fd, 0, 1), end = file_size_hint(fd);
    r.left = here < 0 || end < here ? 0 : end - here;

    uint16_t *prefix = s.prefix, *length = s.length;
    uint8_t *suffix = s.suffix, *first = s.first;
    uint32_t start = 0, fill = 0;  // undelivered bytes are out[start, fill)
    int done = 0;
    int next = FIRST_FREE, width = 9, prev = -1;

    auto flush = [&]() -> int {
        while (fill - start >= row_bytes && done < row_count) {
            if (int rc = sink(context, out + start, first_row + done); rc < 0) return rc;
            start += row_bytes;
            done++;
        }
        if (out_size - fill < MAX_STRING) {
            std::memmove(out, out + start, fill - start);
            fill -= start;
            start = 0;
        }
        return 0;
    };

    int code = r.next(9);
    if (code < 0) return IMG_ERR_DATA;
    if (code != CLEAR) return IMG_ERR_HEADER;
    while (done < row_count) {
        if (code == CLEAR) {
            next = FIRST_FREE;
            width = 9;
            do code = r.next(9);
            while (code == CLEAR);
            if (code < 0) return IMG_ERR_DATA;
            if (code == END) continue;
            if (code > 255) return IMG_ERR_HEADER;
            out[fill++] = static_cast<uint8_t>(code);
            prev = code;
        } else if (code == END) {
            // The rest of the strip repeats the buffer as it stands.
            while (done < row_count) {
                if (int rc = sink(context, out + start, first_row + done); rc < 0) return rc;
                done++;
            }
            return 1;
        } else {
            int add_first;
            if (code < next) {
                uint32_t n = length[code];
                uint8_t *p = out + fill + n;
                int c = code;
                while (c >= 256) {
                    *--p = suffix[c];
                    c = prefix[c];
                }
                *--p = static_cast<uint8_t>(c);
                fill += n;
                add_first = first[code];
            } else if (code == next && prev >= 0) {
                uint32_t n = length[prev];
                uint8_t *p = out + fill + n;
                out[fill + n] = first[prev];
                int c = prev;
                while (c >= 256) {
                    *--p = suffix[c];
                    c = prefix[c];
                }
                *--p = static_cast<uint8_t>(c);
                fill += n + 1;
                add_first = first[prev];
            } else {
                return IMG_ERR_HEADER;
            }
            if (prev >= 0 && next < TABLE) {
                prefix[next] = static_cast<uint16_t>(prev);
                suffix[next] = static_cast<uint8_t>(add_first);
                first[next] = first[prev];
                length[next] = static_cast<uint16_t>(length[prev] + 1);
                next++;
                if (next == (1 << width) - 1 && width < 12) width++;
            }
            prev = code;
        }
        if (fill - start >= row_bytes || out_size - fill < MAX_STRING)
            if (int rc = flush(); rc < 0) return rc;
        if (done >= row_count) break;
        code = r.next(width);
        if (code < 0) return IMG_ERR_DATA;
    }
    return 1;
}
