// Fuzz target: any bytes through the Targa reader (which hands type 156 to
// the JPEG decoder), and every decoded picture back through both Targa
// writers.
#include "codecs/jpeg.h"

#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (in.bytes) read_then_write(in.bytes, targa_read_file, {IMG_TYPE_TARGA, IMG_TYPE_TARGA16});
    return 0;
}
