// Fuzz target: any bytes behind "FORM" through the IFF reader, low-level and
// into a handle (through check_loaded, for the MSan run); every decoded
// picture then goes back out through the IFF, Sun raster and window dump writers.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_reader(data, size, iff_read_file, "FORM", 4);
    if (size < 4 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (!in.bytes) return 0;
    std::memcpy(in.bytes, "FORM", 4);
    read_then_write(in.bytes, iff_read_file, {IMG_TYPE_IFF, IMG_TYPE_SUNRAS, IMG_TYPE_XWD});
    return 0;
}
