// Fuzz target: bytes read as a Photoshop document (the signature is forced
// so every input reaches the reader), loaded low-level and into a handle,
// which is then saved as a Photoshop document.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_load(data, size, 4, [](uint8_t *p) { std::memcpy(p, "8BPS", 4); }, [](int h) {
        if (announced_pixels <= (1 << 20)) save_checked(h, IMG_TYPE_PSD, announced_pixels * 3 + 2000);
    });
}
