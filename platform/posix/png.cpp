// PNG on POSIX through libspng (and its zlib), every allocation of theirs
// taken from the platform's memory blocks so the load limits, the fault
// sweeps and the leak counts see them like the library's own.
#include "platform/png_codec.h"

#include "brivanta.h"
#include "platform/platform.h"

#include <spng.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>

// libspng and zlib are not built with the memory sanitizer: what they hand
// back (values, filled structures, rows, bytes to write) is marked initialised.
#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define BRV_UNPOISON(p, n) __msan_unpoison(p, n)
#define BRV_MSAN 1
#endif
#endif
#ifndef BRV_UNPOISON
#define BRV_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace brv {

namespace {

template <class T> T clean(T v) {
    BRV_UNPOISON(&v, sizeof v);
    return v;
}
template <class T> void clean_out(T &v) { BRV_UNPOISON(&v, sizeof v); }

// Chunks the reader keeps or skips: no ancillary chunk is worth more than
// this, and the text and unknown chunks together may not exceed the cache.
constexpr size_t CHUNK_LIMIT = 16u << 20;
constexpr size_t CHUNK_CACHE_LIMIT = 32u << 20;

// Set when an allocation fails: libspng and zlib report that in several
// ways (a zlib error among them), all of which then mean out of memory.
bool allocation_failed = false;

// Every block comes zeroed: libspng then never sees old heap contents, and
// the memory sanitizer, which cannot follow libspng's own writes, finds
// nothing of its buffers unset.
void *block_alloc(size_t size) {
    if (size == 0) size = 1;
    mem_block b = size > 0x7FFFFFF0u ? 0 : mem_alloc(static_cast<uint32_t>(size), MEM_MOVEABLE | MEM_ZEROINIT);
    void *p = b ? mem_lock(b) : nullptr;
    if (b && !p) mem_free(b);
    if (!p) allocation_failed = true;
    return p;
}

void block_free(void *p) {
    if (!p) return;
    mem_block b = mem_handle(p);
    mem_unlock(b);
    mem_free(b);
}

void *SPNG_CDECL spng_malloc(size_t size) { return block_alloc(clean(size)); }
void *SPNG_CDECL spng_calloc(size_t count, size_t size) {
    count = clean(count), size = clean(size);
    if (size && count > SIZE_MAX / size) return nullptr;
    return block_alloc(count * size);
}
void SPNG_CDECL spng_free(void *p) { block_free(clean(p)); }
void *SPNG_CDECL spng_realloc(void *p, size_t size) {
    p = clean(p), size = clean(size);
    if (!p) return block_alloc(size);
    void *q = block_alloc(size);
    if (!q) return nullptr;
    uint32_t old = mem_size(mem_handle(p));
    std::memcpy(q, p, old < size ? old : size);
    block_free(p);
    return q;
}

spng_alloc block_allocator = {spng_malloc, spng_realloc, spng_calloc, spng_free};

int code_of(int err, int otherwise) {
    if (allocation_failed) return IMG_ERR_MEMORY;
    switch (err) {
    case SPNG_EMEM:
    case SPNG_EZLIB_INIT:
    case SPNG_EUSER_WIDTH:
    case SPNG_EUSER_HEIGHT:
    case SPNG_ECHUNK_LIMITS:
    case SPNG_EOVERFLOW: return IMG_ERR_MEMORY;
    case SPNG_IO_EOF:
    case SPNG_IO_ERROR:
    case SPNG_EOF: return IMG_ERR_DATA;
    default: return otherwise;
    }
}

struct stream {
    png_read_fn read;
    png_write_fn write;
    void *user;
};

int read_stream(spng_ctx *, void *user, void *dst, size_t length) {
    auto *s = static_cast<stream *>(clean(user));
    auto *d = static_cast<uint8_t *>(clean(dst));
    length = clean(length);
    while (length) {
        int32_t want = length > 0x10000000 ? 0x10000000 : static_cast<int32_t>(length);
        int32_t got = s->read(s->user, d, want);
        if (got <= 0) return SPNG_IO_EOF;
        d += got;
        length -= static_cast<size_t>(got);
    }
    return 0;
}

int write_stream(spng_ctx *, void *user, void *src, size_t length) {
    auto *s = static_cast<stream *>(clean(user));
    auto *p = static_cast<const uint8_t *>(clean(src));
    length = clean(length);
    BRV_UNPOISON(p, length);
    while (length) {
        int32_t n = length > 0x10000000 ? 0x10000000 : static_cast<int32_t>(length);
        if (!s->write(s->user, p, n)) return SPNG_IO_ERROR;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

struct png_decoder {
    spng_ctx *ctx;
    stream io;
    int fmt;
    size_t row_size;
    bool interlaced;
    uint8_t *image;  // the whole picture, for interlaced files
    uint32_t next_row;
};

png_decoder *png_decode_open(png_read_fn read, void *user, uint32_t max_width, uint32_t max_height,
                             png_info *info, int *error) {
    *error = IMG_ERR_MEMORY;
    allocation_failed = false;
    auto *d = static_cast<png_decoder *>(block_alloc(sizeof(png_decoder)));
    if (!d) return nullptr;
    d->io = {read, nullptr, user};
    // Every chunk's CRC already covers the compressed bytes, so the
    // inflater's checksum is not computed: it would catch only a writer's bug.
    d->ctx = clean(spng_ctx_new2(&block_allocator, SPNG_CTX_IGNORE_ADLER32));
    if (!d->ctx) {
        png_decode_close(d);
        return nullptr;
    }
    spng_set_image_limits(d->ctx, max_width, max_height);
    spng_set_chunk_limits(d->ctx, CHUNK_LIMIT, CHUNK_CACHE_LIMIT);
    spng_set_png_stream(d->ctx, read_stream, &d->io);

    std::memset(info, 0, sizeof *info);
    spng_ihdr h;
    int err = clean(spng_get_ihdr(d->ctx, &h));
    clean_out(h);
    // Ancillary chunks before the image data: reading one decodes them all.
    spng_plte plte;
    int plte_err = err ? err : clean(spng_get_plte(d->ctx, &plte));
    clean_out(plte);
    if (err || (plte_err && plte_err != SPNG_ECHUNKAVAIL)) {
        *error = code_of(err ? err : plte_err, IMG_ERR_HEADER);
        png_decode_close(d);
        return nullptr;
    }
    info->width = h.width;
    info->height = h.height;
    info->bit_depth = h.bit_depth;
    info->colour_type = h.color_type;
    info->interlaced = h.interlace_method != 0;
    info->packed = h.bit_depth <= 8 && (h.color_type == SPNG_COLOR_TYPE_GRAYSCALE || h.color_type == SPNG_COLOR_TYPE_INDEXED);
    info->grey_key = -1;
    if (!plte_err) {
        info->palette_count = static_cast<int>(plte.n_entries);
        for (uint32_t i = 0; i < plte.n_entries && i < 256; i++) {
            const spng_plte_entry &e = plte.entries[i];
            info->palette[i][0] = e.red, info->palette[i][1] = e.green, info->palette[i][2] = e.blue;
            info->palette[i][3] = 255;
        }
    }
    spng_trns trns;
    const bool has_trns = clean(spng_get_trns(d->ctx, &trns)) == 0;
    if (has_trns) {
        clean_out(trns);
        if (h.color_type == SPNG_COLOR_TYPE_INDEXED)
            for (uint32_t i = 0; i < trns.n_type3_entries && i < 256; i++) info->palette[i][3] = trns.type3_alpha[i];
        else if (h.color_type == SPNG_COLOR_TYPE_GRAYSCALE && info->packed)
            info->grey_key = trns.gray;
    }
    spng_bkgd bkgd;
    if (clean(spng_get_bkgd(d->ctx, &bkgd)) == 0) {
        clean_out(bkgd);
        info->has_background = true;
        if (h.color_type == SPNG_COLOR_TYPE_INDEXED) {
            info->has_background = bkgd.plte_index < info->palette_count;
            if (info->has_background) std::memcpy(info->background, info->palette[bkgd.plte_index], 3);
        } else if (h.color_type == SPNG_COLOR_TYPE_GRAYSCALE || h.color_type == SPNG_COLOR_TYPE_GRAYSCALE_ALPHA) {
            std::memset(info->background, png_sample8(bkgd.gray, h.bit_depth), 3);
        } else {
            info->background[0] = png_sample8(bkgd.red, h.bit_depth);
            info->background[1] = png_sample8(bkgd.green, h.bit_depth);
            info->background[2] = png_sample8(bkgd.blue, h.bit_depth);
        }
    }
    spng_phys phys;
    if (clean(spng_get_phys(d->ctx, &phys)) == 0 && (clean_out(phys), phys.unit_specifier == 1)) {
        info->dpi_x = png_dpi(phys.ppu_x);
        info->dpi_y = png_dpi(phys.ppu_y);
    }

    // Colour without tRNS is opaque: three bytes a pixel spare the alpha
    // channel and the matting pass.
    info->rgb = h.color_type == SPNG_COLOR_TYPE_TRUECOLOR && !has_trns;
    d->fmt = info->packed ? SPNG_FMT_PNG : info->rgb ? SPNG_FMT_RGB8 : SPNG_FMT_RGBA8;
    d->interlaced = info->interlaced;
    size_t total = 0;
    if ((err = clean(spng_decoded_image_size(d->ctx, d->fmt, &total))) != 0) {
        *error = code_of(err, IMG_ERR_HEADER);
        png_decode_close(d);
        return nullptr;
    }
    d->row_size = clean(total) / h.height;
    if (!d->interlaced && (err = clean(spng_decode_image(d->ctx, nullptr, 0, d->fmt,
                                                         SPNG_DECODE_TRNS | SPNG_DECODE_PROGRESSIVE))) != 0) {
        *error = code_of(err, IMG_ERR_DATA);
        png_decode_close(d);
        return nullptr;
    }
    *error = 0;
    return d;
}

// After the last row: the image data's final chunk is read to its CRC, the
// check that stands in for the inflater's.  Chunks after it are not
// required, so only a wrong CRC fails the load.
namespace {
int finish_data(png_decoder *d) {
#ifdef BRV_MSAN
    // Under the memory sanitizer libspng's chunk parser compares bytes it
    // copied itself, which the sanitizer never saw written: the check is left out.
    (void)d;
    return 0;
#else
    return clean(spng_decode_chunks(d->ctx)) == SPNG_ECHUNK_CRC ? IMG_ERR_DATA : 0;
#endif
}
}  // namespace

int png_decode_row(png_decoder *d, uint8_t *row) {
    if (d->interlaced) {
        // Passes scatter over the whole picture: it is decoded at once, the
        // first time a row is asked for.
        if (!d->image) {
            size_t total = 0;
            if (clean(spng_decoded_image_size(d->ctx, d->fmt, &total)) != 0) return IMG_ERR_DATA;
            total = clean(total);
            d->image = static_cast<uint8_t *>(block_alloc(total));
            if (!d->image) return IMG_ERR_MEMORY;
            if (int err = clean(spng_decode_image(d->ctx, d->image, total, d->fmt, SPNG_DECODE_TRNS)); err)
                return code_of(err, IMG_ERR_DATA);
            if (int rc = finish_data(d); rc < 0) return rc;
            BRV_UNPOISON(d->image, total);
        }
        std::memcpy(row, d->image + d->row_size * d->next_row++, d->row_size);
        return 0;
    }
    int err = clean(spng_decode_row(d->ctx, row, d->row_size));
    // Its copies go through the sanitizer's memcpy, which carries the marks
    // of libspng's own buffers along.
    BRV_UNPOISON(row, d->row_size);
    d->next_row++;
    if (err == SPNG_EOI) return finish_data(d);
    return err == 0 ? 0 : code_of(err, IMG_ERR_DATA);
}

void png_decode_close(png_decoder *d) {
    if (!d) return;
    if (d->ctx) spng_ctx_free(d->ctx);
    block_free(d->image);
    block_free(d);
}

struct png_encoder {
    spng_ctx *ctx;
    stream io;
    size_t row_size;
    int last;
    uint8_t *prev;  // the row above, unfiltered; null when the filter is not ours to choose
    size_t bpp;     // bytes from a sample to the same sample of the pixel to its left
};

namespace {

// |r| with r taken as a signed byte: how far a residual is from zero.
inline uint32_t magnitude(int r) {
    const int s = static_cast<int8_t>(r);
    return static_cast<uint32_t>(s < 0 ? -s : s);
}

// The row filter whose residuals are smallest in sum (None, Sub, Up,
// Average, Paeth: 0-4), the earlier one on a tie.  libspng picks the same
// way but at several times the cost; one pass with every filter side by side
// lets the compiler vectorise it.
int pick_filter(const uint8_t *cur, const uint8_t *prev, size_t n, size_t bpp) {
    uint32_t s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0;
    for (size_t i = 0; i < bpp && i < n; i++) {  // no pixel to the left: it counts as zero
        const int x = cur[i], b = prev[i];
        s0 += magnitude(x), s1 += magnitude(x), s2 += magnitude(x - b), s3 += magnitude(x - (b >> 1));
        s4 += magnitude(x - b);
    }
    for (size_t i = bpp; i < n; i++) {
        const int x = cur[i], a = cur[i - bpp], b = prev[i], c = prev[i - bpp];
        const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
        const int paeth = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
        s0 += magnitude(x), s1 += magnitude(x - a), s2 += magnitude(x - b), s3 += magnitude(x - ((a + b) >> 1));
        s4 += magnitude(x - paeth);
    }
    const uint32_t sums[5] = {s0, s1, s2, s3, s4};
    int best = 0;
    for (int f = 1; f < 5; f++)
        if (sums[f] < sums[best]) best = f;
    return best;
}

}  // namespace

png_encoder *png_encode_open(const png_encode_params &p, png_write_fn write, void *user, int *error) {
    *error = IMG_ERR_MEMORY;
    allocation_failed = false;
    auto *e = static_cast<png_encoder *>(block_alloc(sizeof(png_encoder)));
    if (!e) return nullptr;
    e->io = {nullptr, write, user};
    e->ctx = clean(spng_ctx_new2(&block_allocator, SPNG_CTX_ENCODER));
    if (!e->ctx) {
        png_encode_close(e);
        return nullptr;
    }
    spng_set_png_stream(e->ctx, write_stream, &e->io);
    spng_set_option(e->ctx, SPNG_IMG_COMPRESSION_LEVEL, p.level);
    // The filtered strategy (libspng's default) makes deflate search on past
    // short matches: on photographs that costs a fifth of the time for a few
    // per cent of size, and on drawings and screenshots the file grows.
    spng_set_option(e->ctx, SPNG_IMG_COMPRESSION_STRATEGY, Z_DEFAULT_STRATEGY);
    // 8-bit grey and colour rows get their filter from pick_filter, one row at
    // a time; the encoder is told every filter may come, so that it keeps room
    // for each.  Stored data (level 0) is left unfiltered, as are palette and
    // packed grey rows (libspng's choice).
    const bool choose = p.level > 0 && p.bit_depth == 8 && p.colour_type != SPNG_COLOR_TYPE_INDEXED;
    if (choose) spng_set_option(e->ctx, SPNG_FILTER_CHOICE, SPNG_FILTER_CHOICE_ALL);
    spng_ihdr h = {p.width, p.height, static_cast<uint8_t>(p.bit_depth), static_cast<uint8_t>(p.colour_type), 0, 0, 0};
    int err = clean(spng_set_ihdr(e->ctx, &h));
    if (!err && p.colour_type == SPNG_COLOR_TYPE_INDEXED) {
        spng_plte plte{};
        plte.n_entries = static_cast<uint32_t>(p.palette_count);
        for (int i = 0; i < p.palette_count; i++)
            plte.entries[i] = {p.palette[i][0], p.palette[i][1], p.palette[i][2], 255};
        err = clean(spng_set_plte(e->ctx, &plte));
    }
    if (!err && p.dpi_x > 0 && p.dpi_y > 0) {
        spng_phys phys{};
        phys.ppu_x = static_cast<uint32_t>((static_cast<uint64_t>(p.dpi_x) * 10000 + 127) / 254);
        phys.ppu_y = static_cast<uint32_t>((static_cast<uint64_t>(p.dpi_y) * 10000 + 127) / 254);
        phys.unit_specifier = 1;
        err = clean(spng_set_phys(e->ctx, &phys));
    }
    if (!err)
        err = clean(spng_encode_image(e->ctx, nullptr, 0, SPNG_FMT_PNG, SPNG_ENCODE_PROGRESSIVE | SPNG_ENCODE_FINALIZE));
    if (err) {
        *error = err == SPNG_IO_ERROR ? IMG_ERR_WRITE : code_of(err, IMG_ERR_HEADER);
        png_encode_close(e);
        return nullptr;
    }
    e->bpp = p.colour_type == SPNG_COLOR_TYPE_TRUECOLOR ? 3 : 1;
    uint64_t bits = static_cast<uint64_t>(p.width) * p.bit_depth * e->bpp;
    e->row_size = static_cast<size_t>((bits + 7) / 8);
    // pick_filter needs the row above: zeros above the first.
    if (choose && !(e->prev = static_cast<uint8_t *>(block_alloc(e->row_size)))) {
        png_encode_close(e);
        return nullptr;
    }
    *error = 0;
    return e;
}

int png_encode_row(png_encoder *e, const uint8_t *row) {
    if (e->prev) {
        const int filter = pick_filter(row, e->prev, e->row_size, e->bpp);
        spng_set_option(e->ctx, SPNG_FILTER_CHOICE, SPNG_FILTER_CHOICE_NONE << filter);
        std::memcpy(e->prev, row, e->row_size);
    }
    int err = clean(spng_encode_row(e->ctx, row, e->row_size));
    e->last = err;
    if (err == 0 || err == SPNG_EOI) return 0;
    return err == SPNG_IO_ERROR ? IMG_ERR_WRITE : code_of(err, IMG_ERR_WRITE);
}

int png_encode_finish(png_encoder *e) { return e->last == SPNG_EOI ? 0 : IMG_ERR_WRITE; }

void png_encode_close(png_encoder *e) {
    if (!e) return;
    if (e->ctx) spng_ctx_free(e->ctx);
    block_free(e->prev);
    block_free(e);
}

}  // namespace brv
