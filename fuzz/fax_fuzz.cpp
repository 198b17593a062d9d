// Fuzz target: raw fax data.  The first four bytes choose the fax type,
// fill order, width and height; the rest is the coded data.
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > (1u << 20)) return 0;
    static const int types[] = {1, 2, 3, 4};
    int type = types[data[0] & 3];
    int fill = data[0] & 4 ? 2 : 1;
    int width = 1 + ((data[1] | (data[2] & 7) << 8));  // 1..2048
    int height = data[3] & 0x80 ? 0 : data[3];
    fuzz_input in(data + 4, size - 4);
    if (!in.bytes) return 0;
    memory_source_set(in.bytes);
    file_seek(MEMORY_FD, 0, 0);
    int h = check_loaded(IMG_decompress_fax(MEMORY_FD, width, height, type, fill));
    if (h >= 0) IMG_delete_bitmap(h);
    return 0;
}
