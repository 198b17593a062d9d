// Fuzz target: bytes read as a DCX container (the magic is forced), every
// page number up to a few past the table loaded low-level and into a handle,
// and the page count taken through the same reader state.
#include "brivanta.h"
#include "codecs/codecs.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

static int64_t announced_pixels;
static int IMG_CALLBACK accept_header(void *header, void *) {
    int32_t wh[2];
    std::memcpy(wh, static_cast<uint8_t *>(header) + 4, 8);
    announced_pixels = int64_t{wh[0]} * wh[1];
    return 0;
}
static int IMG_CALLBACK accept_row(unsigned char *, void *, int, int) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    int block = IMG_mem_alloc(static_cast<int>(size));
    auto *p = static_cast<uint8_t *>(IMG_mem_lock(block));
    if (!p) return 0;
    std::memcpy(p, data, size);
    const uint8_t magic[4] = {0xB1, 0x68, 0xDE, 0x3A};
    std::memcpy(p, magic, 4);
    int live = mem_live_blocks();
    memory_source_set(p);
    int pages = dcx_page_count(MEMORY_FD);
    scratch_free_all();
    if (pages < 0) std::abort();  // the magic is right, so a count must come back
    for (int page = 0; page <= (pages < 4 ? pages : 4); page++) {
        announced_pixels = 0;
        int r = IMGLOW_decompress_bitmap_mem(p, page, accept_row, nullptr, accept_header);
        if (page == pages && r != IMG_ERR_PAGE) std::abort();  // one past the last page
        // Only pictures of a sane size are stored in a handle.
        int h = announced_pixels <= (1 << 22) ? IMG_decompress_bitmap_mem(p, page) : -1;
        if (h >= 0) IMG_delete_bitmap(h);
    }
    if (mem_live_blocks() != live) std::abort();  // a load leaked a block
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    return 0;
}
