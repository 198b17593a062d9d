// Fuzz target: any bytes through the JPEG decoder, straight and after the
// kept tables of the previous input, and every decoded picture back through
// the encoder.
#include "codecs/jpeg.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    fuzz_input in(data, size);
    if (in.bytes) read_then_write(in.bytes, jpeg_read_file, {IMG_TYPE_JPEG});
    return 0;
}
