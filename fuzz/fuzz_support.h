// Pieces the fuzz targets share: the input in a memory block, a header sink that records the announced
// size, a reload from a block of exactly a file's size, and a sink that keeps
// a decoded picture so it can be fed back to a writer.
#pragma once
#include "brivanta.h"
#include "frame/frame.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define FUZZ_MEMORY_SANITIZER 1
#endif
#endif

// The library's internal names, which the tests reach past the API.
namespace brv {}
using namespace brv;

// A load's handle, passed through.  Under the memory sanitizer its whole
// block is checked first: bitmaps are taken uncleared, so a byte no reader
// wrote and the load did not clear would carry old heap contents.
inline int check_loaded(int handle) {
#ifdef FUZZ_MEMORY_SANITIZER
    int w, h, bits;
    const int block = handle >= 0 ? IMG_bitmap_info(handle, &w, &h, &bits) : 0;
    if (void *dib = block > 0 ? IMG_mem_lock(block) : nullptr) {
        __msan_check_mem_is_initialized(dib, static_cast<size_t>(IMG_mem_size(block)));
        IMG_mem_unlock(block);
    }
#endif
    return handle;
}

// The input in a locked library memory block, as a caller hands one over.
// Leaving the scope frees it, after checking that nothing the target ran
// left a block behind.
struct fuzz_input {
    int block;
    uint8_t *bytes;
    int live;
    fuzz_input(const uint8_t *data, size_t size)
        : block(IMG_mem_alloc(static_cast<int>(size))), bytes(static_cast<uint8_t *>(IMG_mem_lock(block))) {
        if (bytes && size) std::memcpy(bytes, data, size);
        live = mem_live_blocks();
    }
    ~fuzz_input() {
        if (bytes && mem_live_blocks() != live) std::abort();  // a load leaked a block
        IMG_mem_unlock(block);
        IMG_mem_free(block);
    }
};

// The announced width x height, so only pictures of a sane size go on to be
// stored in a handle (the handle-level load allocates the whole bitmap).
inline int64_t announced_pixels;
// Targets that call a reader directly go round the dispatcher, so the
// library's load limit is applied here as the dispatcher would.
inline int IMG_CALLBACK accept_header(void *header, void *) {
    int32_t wh[2];
    std::memcpy(wh, static_cast<uint8_t *>(header) + 4, 8);
    announced_pixels = int64_t{wh[0]} * wh[1];
    const auto *h = static_cast<const dib_info *>(header);
    const uint64_t bytes = uint64_t{row_bytes(h->biWidth, h->biBitCount)} * static_cast<uint32_t>(h->biHeight);
    return within_load_limit(bytes) ? 0 : IMG_ERR_MEMORY;
}
inline int IMG_CALLBACK accept_row(unsigned char *, void *, int, int) { return 0; }

// Loads n bytes at file from a block of exactly that size: readers may look
// at the end of the source.  The new handle or a negative code.
inline int reload_exact(const void *file, int n) {
    int exact = IMG_mem_alloc(n);
    void *e = IMG_mem_lock(exact);
    if (!e) return IMG_ERR_MEMORY;
    std::memcpy(e, file, static_cast<size_t>(n));
    int back = check_loaded(IMG_decompress_bitmap_mem(e, 0));
    IMG_mem_unlock(exact);
    IMG_mem_free(exact);
    return back;
}

// A decoded picture kept top-down, row_bytes per row, for a writer to read back.
struct decoded {
    int width = 0, height = 0, bits = 0;
    uint8_t header[1064];
    uint8_t *pixels = nullptr;
};

inline int IMG_CALLBACK keep_header(void *header, void *context) {
    auto *d = static_cast<decoded *>(context);
    std::memcpy(d->header, header, sizeof d->header);
    auto *h = static_cast<dib_info *>(header);
    // Bound the work a hostile header can ask for.
    if (static_cast<int64_t>(h->biWidth) * h->biHeight > (1 << 20)) return IMG_ERR_STOPPED;
    d->width = h->biWidth, d->height = h->biHeight, d->bits = h->biBitCount;
    d->pixels = static_cast<uint8_t *>(std::calloc(row_bytes(d->width, d->bits), d->height));
    return d->pixels ? 0 : IMG_ERR_MEMORY;
}

inline int IMG_CALLBACK keep_row(unsigned char *row, void *context, int r, int n) {
    auto *d = static_cast<decoded *>(context);
    uint32_t stride = row_bytes(d->width, d->bits);
    if (r < 0 || r >= d->height || static_cast<uint32_t>(n) != stride) std::abort();
    std::memcpy(d->pixels + static_cast<size_t>(r) * stride, row, stride);
    return 0;
}

inline int IMG_CALLBACK kept_row(void *context, unsigned char *buffer, int r, int n) {
    auto *d = static_cast<decoded *>(context);
    if (r < 0 || r >= d->height || static_cast<uint32_t>(n) > row_bytes(d->width, d->bits)) std::abort();
    std::memcpy(buffer, d->pixels + static_cast<size_t>(r) * n, n);
    return 0;
}

// The shape of the targets for the read-only formats: the input, with
// magic forced in at offset at so detection names the format, through the
// reader low-level (which must free what it takes) and, when its announced
// size is sane, into a handle.
inline int fuzz_reader(const uint8_t *data, size_t size, reader_fn reader, const void *magic = nullptr,
                       size_t magic_size = 0, size_t at = 0) {
    if (size == 0 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    if (magic && at + magic_size <= size) std::memcpy(in.bytes + at, magic, magic_size);
    memory_source_set(in.bytes);
    announced_pixels = 0;
    reader(0, accept_row, nullptr, accept_header, MEMORY_FD);
    if (scratch_count() != 0) std::abort();  // the reader frees what it takes
    memory_source_end();
    if (announced_pixels > 0 && announced_pixels <= (1 << 22))
        IMG_delete_bitmap(check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0)));
    return 0;
}

// The low-level load of a file image (recording its announced size), then,
// when that size is sane, the handle-level load: the handle or a code.
inline int load_both(void *file, int page = 0) {
    announced_pixels = 0;
    IMGLOW_decompress_bitmap_mem(file, page, accept_row, nullptr, accept_header);
    return announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(file, page)) : -1;
}

inline void keep_nothing(int) {}

// The shape of the targets for formats loaded whole: inputs of at least
// least bytes, force putting in what detection wants, through load_both; a
// handle that loads goes to then before it is freed.
template <class Force, class Then = void (*)(int)>
int fuzz_load(const uint8_t *data, size_t size, size_t least, Force force, Then then = keep_nothing) {
    if (size < least || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    force(in.bytes);
    int h = load_both(in.bytes);
    if (h < 0) return 0;
    then(h);
    IMG_delete_bitmap(h);
    return 0;
}

// The colour of pixel x of row y (bottom-up storage) of a DIB, as 0xRRGGBB.
inline uint32_t colour_at(const uint8_t *dib, int w, int h, int bits, int x, int y) {
    const int pal = bits == 24 ? 0 : 4 << bits;
    const uint8_t *r = dib + 40 + pal + int64_t{h - 1 - y} * row_bytes(w, bits);
    if (bits == 24) return uint32_t(r[3 * x + 2]) << 16 | r[3 * x + 1] << 8 | r[3 * x];
    int v = bits == 8 ? r[x] : bits == 4 ? (r[x / 2] >> (x & 1 ? 0 : 4)) & 15 : (r[x / 8] >> (7 - x % 8)) & 1;
    const uint8_t *q = dib + 40 + 4 * v;
    return uint32_t(q[2]) << 16 | q[1] << 8 | q[0];
}

// Two handles of the same size and depth whose every pixel shows the same
// colour (a table may be reordered or normalised on the way).
inline bool same_look(int a, int b) {
    int wa, ha, ba, wb, hb, bb;
    int blk_a = IMG_bitmap_info(a, &wa, &ha, &ba), blk_b = IMG_bitmap_info(b, &wb, &hb, &bb);
    if (blk_a <= 0 || blk_b <= 0 || wa != wb || ha != hb || ba != bb) return false;
    auto *da = static_cast<uint8_t *>(IMG_mem_lock(blk_a));
    auto *db = static_cast<uint8_t *>(IMG_mem_lock(blk_b));
    bool same = true;
    for (int y = 0; same && y < ha; y++)
        for (int x = 0; same && x < wa; x++) same = colour_at(da, wa, ha, ba, x, y) == colour_at(db, wb, hb, bb, x, y);
    IMG_mem_unlock(blk_a);
    IMG_mem_unlock(blk_b);
    return same;
}

// Saves a handle as type into a block of room bytes: the save's result.
// With reload, the file is loaded again from a block of its exact size and
// must look the same: our own files read back.
inline int save_checked(int h, int type, int64_t room, bool reload = false) {
    int out = IMG_mem_alloc(static_cast<int>(room));
    void *o = IMG_mem_lock(out);
    int n = o ? IMG_save_bitmap_mem(h, o, type) : -1;
    if (reload && n > 0) {
        int back = reload_exact(o, n);
        if (back < 0 || !same_look(h, back)) std::abort();
        IMG_delete_bitmap(back);
    }
    if (o) IMG_mem_unlock(out);
    IMG_mem_free(out);
    return n;
}

// A handle of at most max_pixels saved as type and reloaded looking the same.
inline void save_reloaded(int h, int type, int64_t max_pixels) {
    int w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    if (int64_t{w} * ht <= max_pixels) save_checked(h, type, int64_t{w} * ht * 4 + 20000, true);
}

// A reader run low-level over the input into a kept picture, which then
// goes out through each writer of types.
inline void read_then_write(uint8_t *file, reader_fn reader, std::initializer_list<int> types) {
    memory_source_set(file);
    decoded d;
    int rc = reader(0, keep_row, &d, keep_header, MEMORY_FD);
    if (scratch_count() != 0) std::abort();  // the reader frees what it takes
    memory_source_end();
    if (rc >= 0 && d.pixels) {
        int out = IMG_mem_alloc(static_cast<int>(row_bytes(d.width, 24) * d.height * 3 + 8192));
        if (void *q = IMG_mem_lock(out)) {
            for (int type : types) IMGLOW_save_bitmap_mem(q, d.header, type, kept_row, &d);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    std::free(d.pixels);
    scratch_free_all();
}
