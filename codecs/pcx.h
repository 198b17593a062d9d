// The PCX run-length row coder, shared by the PCX and DCX writers and tests.
#pragma once
#include "codecs/codecs.h"

namespace brv {

// Run-length codes n bytes of one plane of one row and writes them:
// 0, or IMG_ERR_WRITE when a write came out short.
int pcx_encode_row(int fd, const uint8_t *bytes, int n);

}  // namespace brv
