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
