// Fuzz target: any bytes behind an MSP key through the reader, low-level
// and into a handle; the last byte picks version 1 or 2.
// fuzz_reader stores loads through check_loaded, so the MSan run covers them.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const bool v1 = size && (data[size - 1] & 1);
    return fuzz_reader(data, size, msp_decompress, v1 ? "DanM" : "LinS", 4);
}
