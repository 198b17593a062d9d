// Rotation by quarter and half turns, mirroring in x and y, and inversion,
// in place on a handle.
#include "process/process.h"

#include <array>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define BRV_X86 1
#endif

namespace brv {

namespace {

constexpr std::array<uint8_t, 256> bit_reversed = [] {
    std::array<uint8_t, 256> t{};
    for (int i = 0; i < 256; i++)
        for (int b = 0; b < 8; b++)
            if (i & (1 << b)) t[i] |= static_cast<uint8_t>(0x80 >> b);
    return t;
}();

// Writes the pixels of in, mirrored, to out (in != out): exact to the pixel
// width; at 1 and 4 bits the bits after the last pixel come out zero.
template <int Bits>
void mirror_row(const uint8_t *in, uint8_t *out, int width) {
    if constexpr (Bits == 8) {
        for (int i = 0; i < width; i++) out[i] = in[width - 1 - i];
    } else if constexpr (Bits == 24) {
        const uint8_t *p = in + 3 * (width - 1);
        for (int i = 0; i < width; i++, p -= 3, out += 3) {
            out[0] = p[0];
            out[1] = p[1];
            out[2] = p[2];
        }
    } else if constexpr (Bits == 4) {
        const int k = (width - 1) / 2;  // the byte holding the last pixel
        if (width % 2 == 0) {
            for (int j = 0; j <= k; j++) out[j] = static_cast<uint8_t>(in[k - j] << 4 | in[k - j] >> 4);
        } else {
            for (int j = 0; j < k; j++) out[j] = static_cast<uint8_t>((in[k - j] & 0xF0) | (in[k - j - 1] & 0x0F));
            out[k] = in[0] & 0xF0;
        }
    } else {
        // Reversed bytes hold the picture s bits late; shift it to the front.
        const int n = (width + 7) / 8, s = 8 * n - width;
        for (int j = 0; j < n; j++) {
            unsigned hi = bit_reversed[in[n - 1 - j]];
            unsigned lo = j + 1 < n ? bit_reversed[in[n - 2 - j]] : 0;
            out[j] = static_cast<uint8_t>((hi << s | lo >> (8 - s)) & 0xFF);
        }
    }
}

#ifdef BRV_X86
// Sixteen bytes or five pixels a step through pshufb, each load ending at
// the last byte still to go so that nothing past the row is read; the rest
// goes through the plain path.
template <int Bits>
__attribute__((target("ssse3"))) void mirror_row_ssse3(const uint8_t *in, uint8_t *out, int width) {
    int i = 0;
    if constexpr (Bits == 8) {
        const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
        for (; width - i >= 16; i += 16) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + width - i - 16));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_shuffle_epi8(v, rev));
        }
        mirror_row<8>(in, out + i, width - i);
    } else {
        // Byte 0 of each load belongs to a pixel not in this step; byte 15 of
        // each store is the first of the next step's pixels, so at least one
        // pixel must remain after it.
        const __m128i rev = _mm_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, 1, 2, 3, -1);
        for (; width - i >= 6; i += 5) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + 3 * (width - i) - 16));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 3 * i), _mm_shuffle_epi8(v, rev));
        }
        mirror_row<24>(in, out + 3 * i, width - i);
    }
}
#endif

}  // namespace

// The row mirror for a depth: the vector one where the processor has it.
mirror_fn mirror_kernel(int bits, bool fast) {
#ifdef BRV_X86
    if (fast && (bits == 8 || bits == 24) && __builtin_cpu_supports("ssse3"))
        return bits == 8 ? mirror_row_ssse3<8> : mirror_row_ssse3<24>;
#endif
    (void)fast;
    return with_depth(bits, [](auto d) { return static_cast<mirror_fn>(mirror_row<d()>); });
}

// Complements n bytes a machine word at a time, the tail byte by byte.
void invert_bytes(uint8_t *p, size_t n, bool fast) {
    size_t i = 0;
    if (fast)
        for (; i + 8 <= n; i += 8) {
            uint64_t w;
            std::memcpy(&w, p + i, 8);
            w = ~w;
            std::memcpy(p + i, &w, 8);
        }
    for (; i < n; i++) p[i] = static_cast<uint8_t>(~p[i]);
}

namespace {

// Flip in x of every row in place through one row buffer; the status
// callback before each row goes back, so a stop leaves the rows done so far.
int flip_x(held_bitmap &held) {
    const bitmap &bm = held.bm;
    auto *row = static_cast<uint8_t *>(scratch_alloc(bm.stride + 10));
    if (!row) return IMG_ERR_MEMORY;
    const mirror_fn mirror = mirror_kernel(bm.bits, true);
    int r = 0;
    for (int y = 0; y < bm.height && r >= 0; y++) {
        std::memcpy(row, bm.row(y), bm.stride);
        if ((r = row_done(bm.height)) < 0) break;
        mirror(row, bm.row(y), bm.width);
    }
    scratch_free(row);
    if (r < 0) return r;
    handle_record *rec = held.rec;
    rec->crop_left = bm.width - (rec->crop_left + rec->crop_width);
    return 0;
}

// Flip in y in place, rows exchanged pairwise through one row buffer; for a
// half turn (mirror) each row goes mirrored into its partner's place.  Both
// rows of a pair are reported before the pair is touched, and a stop swaps
// back the pairs done, so the handle is left as it was.  (A half turn reports
// nothing, so it is never stopped: mirroring twice would clear padding bits.)
int flip_y(held_bitmap &held, bool do_mirror) {
    const bitmap &bm = held.bm;
    const uint32_t n = bm.stride;
    auto *keep = static_cast<uint8_t *>(scratch_alloc(n));
    if (!keep) return IMG_ERR_MEMORY;
    const mirror_fn mirror = mirror_kernel(bm.bits, true);
    auto exchange = [&](int y) {
        uint8_t *a = bm.row(y), *b = bm.row(bm.height - 1 - y);
        std::memcpy(keep, a, n);
        if (a != b) {
            std::memcpy(a, b, n);
            if (do_mirror) mirror(b, a, bm.width);
            std::memcpy(b, keep, n);
        }
        if (do_mirror) mirror(keep, b, bm.width);
    };
    int r = 0, y = 0;
    for (; 2 * y < bm.height; y++) {
        if ((r = row_done(bm.height)) < 0) break;
        if (bm.height - 1 - y != y && (r = row_done(bm.height)) < 0) break;
        exchange(y);
    }
    if (r < 0)
        while (y-- > 0) exchange(y);
    scratch_free(keep);
    if (r < 0) return r;
    handle_record *rec = held.rec;
    rec->crop_top = bm.height - (rec->crop_top + rec->crop_height);
    if (do_mirror) rec->crop_left = bm.width - (rec->crop_left + rec->crop_width);
    return 0;
}

// Source rows per tile of the quarter turn: the source part of a tile stays
// in the first-level cache, and progress is reported by these strips.
constexpr int TILE = 32;

// D[dest_row(x)][dest_col(y)] = S[y][x] in storage order, tile by tile.
// The plain transpose (D[x][y]) mirrors the picture about its anti-diagonal;
// reversing the destination rows makes a clockwise turn, reversing the
// columns a counter-clockwise one.
template <int Bits>
int transpose(const bitmap &src, const bitmap &dst, bool rows_reversed, bool cols_reversed) {
    const int W = src.width, H = src.height;
    for (int y0 = 0; y0 < H; y0 += TILE) {
        const int y1 = y0 + TILE < H ? y0 + TILE : H;
        for (int y = y0; y < y1; y++)
            if (int r = row_done(H); r < 0) return r;
        for (int x0 = 0; x0 < W; x0 += TILE) {
            const int x1 = x0 + TILE < W ? x0 + TILE : W;
            for (int x = x0; x < x1; x++) {
                uint8_t *d = dst.row(rows_reversed ? W - 1 - x : x);
                if constexpr (Bits == 24) {
                    // Pixels go as 4-byte words, walking the destination
                    // upwards so each word's extra byte lands on the pixel
                    // written next; the segment's last pixel, and the source
                    // column whose extra byte may lie past the rows, go as 3.
                    const int n = y1 - y0;
                    uint8_t *o = d + 3 * (cols_reversed ? H - y1 : y0);
                    const uint8_t *s = src.row(cols_reversed ? y1 - 1 : y0) + 3 * x;
                    const ptrdiff_t next = cols_reversed ? -static_cast<ptrdiff_t>(src.stride) : src.stride;
                    int i = 0;
                    if (x + 1 < W)
                        for (; i < n - 1; i++, o += 3, s += next) std::memcpy(o, s, 4);
                    for (; i < n; i++, o += 3, s += next) std::memcpy(o, s, 3);
                } else if constexpr (Bits == 8) {
                    const int step = cols_reversed ? -1 : 1;
                    uint8_t *o = d + (cols_reversed ? H - 1 - y0 : y0);
                    const uint8_t *s = src.row(y0) + x;
                    for (int y = y0; y < y1; y++, o += step, s += src.stride) *o = *s;
                } else {
                    for (int y = y0; y < y1; y++)
                        put_px<Bits>(d, cols_reversed ? H - 1 - y : y, get_px<Bits>(src.row(y), x));
                }
            }
        }
    }
    return 0;
}

int quarter_turn(held_bitmap &held, int angle) {
    const bitmap &bm = held.bm;
    // The longest turned row the working buffers were sized for: kept as the
    // operation's limit.
    if (static_cast<int64_t>(bm.height) * 4 + 40 + bm.palette > 32768) return IMG_ERR_MEMORY;
    new_bitmap out(bm.dib, bm.height, bm.width, bm.bits);
    if (!out) return IMG_ERR_MEMORY;
    const bool cw = angle == 90, ccw = angle == 270;
    int r = with_depth(bm.bits, [&](auto d) { return transpose<d()>(bm, out.bm, cw, ccw); });
    if (r < 0) return r;
    handle_record *rec = held.rec;
    std::swap(rec->crop_left, rec->crop_top);
    std::swap(rec->crop_width, rec->crop_height);
    const int W = bm.height, H = bm.width;  // the new size
    rec->crop_left = W - (rec->crop_width + rec->crop_left);
    rec->crop_top = H - (rec->crop_top + rec->crop_height);
    if (cw) rec->crop_top = H - (rec->crop_top + rec->crop_height);
    if (ccw) rec->crop_left = W - (rec->crop_left + rec->crop_width);
    install(held, out);
    return 0;
}

int invert(held_bitmap &held) {
    const bitmap &bm = held.bm;
    for (int y = 0; y < bm.height; y++) {
        if (int r = row_done(bm.height); r < 0) return r;
        // Padding included: every stored byte is complemented.
        invert_bytes(bm.row(y), bm.stride, true);
    }
    return 0;
}

template <typename Op>
int on_handle(int h, Op op) {
    held_bitmap held(h);
    if (held.error) return held.error;
    return op(held);
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_rotate_bitmap(int h, int angle) {
    return on_handle(h, [&](held_bitmap &held) {
        if (angle == 180) {
            status_quiet quiet;  // a half turn reports no progress, as its two flips never did
            return flip_y(held, true);
        }
        return quarter_turn(held, angle);
    });
}

int IMG_API IMG_flip_bitmapx(int h) { return on_handle(h, flip_x); }

int IMG_API IMG_flip_bitmapy(int h) {
    return on_handle(h, [](held_bitmap &held) { return flip_y(held, false); });
}

int IMG_API IMG_invert_bitmap(int h) { return on_handle(h, invert); }

}  // extern "C"
