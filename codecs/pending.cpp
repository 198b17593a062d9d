// Formats whose codecs have not been built yet: each entry answers -7, the
// code for an unknown or disabled type, until its real module replaces it.
// A module that lands deletes its lines here.
#include "codecs/codecs.h"

#define PENDING_READER(name) \
    BRIVANTA_READER(name) { (void)where, (void)put_row, (void)context, (void)begin_image, (void)fd; return IMG_ERR_TYPE; }
#define PENDING_WRITER(name) \
    BRIVANTA_WRITER(name) { (void)fd, (void)header, (void)get_row, (void)context; return IMG_ERR_TYPE; }

PENDING_READER(tiff_decompress)
int tiff_page_count(int) { return 1; }
int tiff_refine_type(int) { return IMG_ERR_TYPE; }
PENDING_WRITER(tiff_write_uncompressed)
PENDING_WRITER(tiff_write_huffman)
PENDING_WRITER(tiff_write_g3)
PENDING_WRITER(tiff_write_lzw)
PENDING_WRITER(tiff_write_g4)
PENDING_WRITER(tiff_write_packbits)
PENDING_WRITER(tiff_write_jpeg)
PENDING_WRITER(fax_write_g3)
PENDING_WRITER(fax_write_g4)

PENDING_READER(gif_decompress)
PENDING_WRITER(gif_write)
PENDING_READER(pcx_decompress)
PENDING_WRITER(pcx_write)
PENDING_READER(dcx_decompress)
PENDING_WRITER(dcx_write)
int dcx_page_count(int) { return 1; }

PENDING_READER(jpeg_read_file)
PENDING_WRITER(jpeg_write_file)
PENDING_READER(targa_read_file)
PENDING_WRITER(targa_write_file)
PENDING_WRITER(targa_write_file_15bit)
