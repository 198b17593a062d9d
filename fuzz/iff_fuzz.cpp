// Fuzz target: any bytes behind "FORM" through the IFF reader, low-level and
// into a handle (through check_loaded, for the MSan run); every decoded
// picture then goes back out through the IFF, Sun raster and window dump writers.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

#include <initializer_list>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_reader(data, size, iff_read_file, "FORM", 4);
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "FORM", 4);
    memory_source_set(in.bytes);
    decoded d;
    int rc = iff_read_file(0, keep_row, &d, keep_header, MEMORY_FD);
    memory_source_end();
    if (rc >= 0 && d.pixels) {
        int out = IMG_mem_alloc(static_cast<int>(row_bytes(d.width, 24) * d.height * 3 + 8192));
        void *q = IMG_mem_lock(out);
        if (q) {
            for (int type : {IMG_TYPE_IFF, IMG_TYPE_SUNRAS, IMG_TYPE_XWD}) IMGLOW_save_bitmap_mem(q, d.header, type, kept_row, &d);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    std::free(d.pixels);
    scratch_free_all();
    return 0;
}
