// Fuzz target: bytes read as PNG (the signature is forced so every input
// reaches the reader), loaded low-level and into a handle, which is then
// saved as PNG.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 8 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "\x89PNG\r\n\x1a\n", 8);
    int h = load_both(in.bytes);
    if (h >= 0 && announced_pixels <= (1 << 20)) save_checked(h, IMG_TYPE_PNG, announced_pixels * 4 + 4000);
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
