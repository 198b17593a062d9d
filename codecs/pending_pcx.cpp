// Formats whose codecs have not been built yet: each entry answers -7, the
// code for an unknown or disabled type, until its real module replaces this file.
#include "codecs/codecs.h"

#define PENDING_READER(name) \
    BRIVANTA_READER(name) { (void)where, (void)put_row, (void)context, (void)begin_image, (void)fd; return IMG_ERR_TYPE; }
#define PENDING_WRITER(name) \
    BRIVANTA_WRITER(name) { (void)fd, (void)header, (void)get_row, (void)context; return IMG_ERR_TYPE; }

PENDING_READER(pcx_decompress)
PENDING_WRITER(pcx_write)
PENDING_READER(dcx_decompress)
PENDING_WRITER(dcx_write)
int dcx_page_count(int) { return 1; }
