// Fuzz target: any bytes through the CUT reader, low-level and (when
// detection names some format) into a handle.  The reserved header word is
// forced to zero, as the detection probe wants it.
// fuzz_reader stores loads through check_loaded, so the MSan run covers them.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t reserved[2] = {0, 0};
    return fuzz_reader(data, size, cut_decompress, reserved, 2, 4);
}
