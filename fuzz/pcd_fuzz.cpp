// Fuzz target: a PhotoCD image pack whose base image (and, by the first
// byte, whether the signature is there) comes from the input; the lead-in
// up to the base image is built here, since the input alone cannot reach it.
#include "fuzz/fuzz_support.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t BASE = 0x30000;
    if (size < 1 || size > (1u << 20)) return 0;
    std::vector<uint8_t> file(BASE + size - 1, 0);
    std::memset(file.data(), 0xFF, 0x800);
    if (!(data[0] & 1)) std::memcpy(file.data() + 0x800, "PCD_IPI", 7);
    file[0xE02] = data[0] >> 1;
    std::memcpy(file.data() + BASE, data + 1, size - 1);
    fuzz_input in(file.data(), file.size());
    if (!in.bytes) return 0;
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
