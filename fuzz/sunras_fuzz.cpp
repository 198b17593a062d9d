// Fuzz target: any bytes behind a Sun raster magic number through the
// reader, low-level and into a handle.
// fuzz_reader stores loads through check_loaded, so the MSan run covers them.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t magic[4] = {0x59, 0xA6, 0x6A, 0x95};
    return fuzz_reader(data, size, sunras_read_file, magic, 4);
}
