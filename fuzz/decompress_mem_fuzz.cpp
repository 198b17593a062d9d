// Fuzz target: any bytes, placed in a real memory block, through the
// low-level memory load and the handle-level load.
#include "brivanta.h"
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
    IMGLOW_decompress_bitmap_mem(p, 0, accept_row, nullptr, accept_header);
    int h = IMG_decompress_bitmap_mem(p, 0);
    if (h >= 0) IMG_delete_bitmap(h);
    if (mem_live_blocks() != live) std::abort();  // a load leaked a block
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    return 0;
}
