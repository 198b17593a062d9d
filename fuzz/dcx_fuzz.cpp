// Fuzz target: bytes read as a DCX container (the magic is forced), every
// page number up to a few past the table loaded low-level and into a handle,
// and the page count taken through the same reader state.
#include "fuzz/fuzz_support.h"
#include "codecs/codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    const uint8_t magic[4] = {0xB1, 0x68, 0xDE, 0x3A};
    std::memcpy(p, magic, 4);
    memory_source_set(p);
    int pages = dcx_page_count(MEMORY_FD);
    scratch_free_all();
    if (pages < 0) std::abort();  // the magic is right, so a count must come back
    for (int page = 0; page <= (pages < 4 ? pages : 4); page++) {
        announced_pixels = 0;
        int r = IMGLOW_decompress_bitmap_mem(p, page, accept_row, nullptr, accept_header);
        if (page == pages && r != IMG_ERR_PAGE) std::abort();  // one past the last page
        // Only pictures of a sane size are stored in a handle.
        int h = announced_pixels <= (1 << 22) ? check_loaded(IMG_decompress_bitmap_mem(p, page)) : -1;
        if (h >= 0) IMG_delete_bitmap(h);
    }
    return 0;
}
