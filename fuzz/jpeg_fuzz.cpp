// Fuzz target: any bytes through the JPEG decoder, straight and after the
// kept tables of the previous input, and every decoded picture back through
// the encoder.
#include "codecs/jpeg.h"

#include "fuzz/fuzz_support.h"


extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    uint8_t *p = in.bytes;
    memory_source_set(p);
    decoded d;
    int rc = jpeg_read_file(0, keep_row, &d, keep_header, MEMORY_FD);
    if (scratch_count() != 0) std::abort();  // the decoder frees what it takes
    if (rc == 0 && d.pixels) {
        int out = IMG_mem_alloc(static_cast<int>(row_bytes(d.width, 24) * d.height * 2 + 4096));
        void *q = IMG_mem_lock(out);
        if (q) {
            IMGLOW_save_bitmap_mem(q, d.header, IMG_TYPE_JPEG, kept_row, &d);
            IMG_mem_unlock(out);
        }
        IMG_mem_free(out);
    }
    std::free(d.pixels);
    scratch_free_all();
    return 0;
}
