// Fuzz target: bytes read as a GEM raster image (the version and header
// length the probe wants are forced, eight or nine words by the input).
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 16 || size > (1u << 20)) return 0;
    [[maybe_unused]] static const int limit = IMGLOW_set_load_limit(16);
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    const uint8_t words = in.bytes[3] & 1 ? 9 : 8;
    std::memcpy(in.bytes, "\0\1\0", 3);
    in.bytes[3] = words;
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
