// Fuzz target: any bytes as a TIFF file in a memory block, through the
// reader with a page picked from the data, the page count and the type
// refinement, and through the handle-level load.
#include "fuzz/fuzz_support.h"
#include "codecs/codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
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
    int h = check_loaded(IMG_decompress_bitmap_mem(p, static_cast<int>(page)));
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
