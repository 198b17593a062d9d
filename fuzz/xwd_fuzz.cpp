// Fuzz target: any bytes behind an X window dump's version word through
// the reader, low-level and into a handle.
// fuzz_reader stores loads through check_loaded, so the MSan run covers them.
#include "codecs/codecs.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t version[4] = {0, 0, 0, 7};
    return fuzz_reader(data, size, xwd_read_file, version, 4, 4);
}
