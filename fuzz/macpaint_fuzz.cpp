// Fuzz target: any bytes through the MacPaint reader, low-level and (when
// detection names some format) into a handle.
// fuzz_reader stores loads through check_loaded, so the MSan run covers them.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz_reader(data, size, macpaint_read_file);
}
