// Fuzz target: any bytes as a TIFF file in a memory block, through the
// reader with a page picked from the data, the page count and the type
// refinement, and through the handle-level load.
#include "brivanta.h"
#include "codecs/codecs.h"
#include "frame/frame.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

static int IMG_CALLBACK accept_header(void *, void *) { return 0; }
static int IMG_CALLBACK accept_row(unsigned char *, void *, int, int) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    int block = IMG_mem_alloc(static_cast<int>(size));
    void *p = IMG_mem_lock(block);
    if (!p) return 0;
    if (size) std::memcpy(p, data, size);
    int live = mem_live_blocks();
    // The last byte picks a page, so page selection and tiles get exercised.
    uint32_t page = size ? data[size - 1] & 7 : 0;
    memory_source_set(p);
    file_seek(MEMORY_FD, 0, 0);
    tiff_decompress(page ? static_cast<int32_t>(WHERE_PAGE | page) : 0, accept_row, nullptr, accept_header, MEMORY_FD);
    scratch_free_all();
    memory_source_set(p);
    tiff_page_count(MEMORY_FD);
    scratch_free_all();
    IMGLOW_get_filetype_mem(p);
    int h = IMG_decompress_bitmap_mem(p, static_cast<int>(page));
    if (h >= 0) IMG_delete_bitmap(h);
    if (mem_live_blocks() != live) std::abort();  // a load leaked a block
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    return 0;
}
