// Entry points of the format readers, writers, page counters and type
// refinements, as the table of formats (frame/formats.cpp) names them.
// Readers follow reader_fn, writers writer_fn (frame/frame.h).
#pragma once
#include "frame/frame.h"

namespace brv {

#define BRIVANTA_READER(name) \
    int name(int32_t where, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image, int fd)
#define BRIVANTA_WRITER(name) int name(int fd, const dib_info *header, IMG_get_row_fn get_row, void *context)

// BMP
BRIVANTA_READER(bmp_read);
BRIVANTA_WRITER(bmp_write);
BRIVANTA_WRITER(bmp_write_rle);
int bmp_refine_type(int fd);  // 12 when the header names a compression, else 1

// TIFF
BRIVANTA_READER(tiff_decompress);
int tiff_page_count(int fd);
// The first image's compression as a type code (7, 8, 9, 10, 16, 17, 40 or
// 0), or a negative code.
int tiff_refine_type(int fd);
BRIVANTA_WRITER(tiff_write_uncompressed);  // type 0
BRIVANTA_WRITER(tiff_write_huffman);       // type 7
BRIVANTA_WRITER(tiff_write_g3);            // type 8
BRIVANTA_WRITER(tiff_write_lzw);           // type 9
BRIVANTA_WRITER(tiff_write_g4);            // type 10
BRIVANTA_WRITER(tiff_write_packbits);      // type 16
BRIVANTA_WRITER(tiff_write_jpeg);          // type 40
BRIVANTA_WRITER(fax_write_g3);             // type 33
BRIVANTA_WRITER(fax_write_g4);             // type 34
// n bytes as PackBits runs into out (room for n + n / 128 + 1); the count.
uint32_t packbits_row(const uint8_t *s, uint32_t n, uint8_t *out);

// GIF, PCX, DCX
BRIVANTA_READER(gif_decompress);
BRIVANTA_WRITER(gif_write);
BRIVANTA_READER(pcx_decompress);
BRIVANTA_WRITER(pcx_write);
BRIVANTA_READER(dcx_decompress);
BRIVANTA_WRITER(dcx_write);
int dcx_page_count(int fd);

// JPEG, Targa
BRIVANTA_READER(jpeg_read_file);
BRIVANTA_WRITER(jpeg_write_file);
BRIVANTA_READER(targa_read_file);
BRIVANTA_WRITER(targa_write_file);
BRIVANTA_WRITER(targa_write_file_15bit);

// EPS: the writer of type 14; the reader decodes a binary wrapper's TIFF
// preview (-8 when the preview is not one the TIFF reader takes).
BRIVANTA_WRITER(eps_write_file);
BRIVANTA_READER(eps_read_file);
// count bytes as 2 × count upper-case hex digits in one write, built in
// scratch (at least 2 × count bytes); 0 or IMG_ERR_WRITE.
int eps_put_hex(int fd, const uint8_t *bytes, int32_t count, uint8_t *scratch);

// Photoshop
BRIVANTA_READER(psd_read_file);
BRIVANTA_WRITER(psd_write_file);

// CALS, X bitmap, X pixmap
BRIVANTA_READER(cals_read_file);
BRIVANTA_WRITER(cals_write_file);
BRIVANTA_READER(xbm_decompress);
BRIVANTA_WRITER(xbm_write_file);
BRIVANTA_WRITER(xpm_write_file);
BRIVANTA_READER(xpm_read_file);

// GEM raster images (with the XIMG colour table), PhotoCD base images
BRIVANTA_READER(gem_read_file);
BRIVANTA_READER(pcd_read_file);

// Icons, clipboard files, WordPerfect graphics, metafiles
BRIVANTA_READER(ico_decompress);
BRIVANTA_WRITER(ico_write_file);
BRIVANTA_READER(clp_read_file);
BRIVANTA_WRITER(clp_write_file);
BRIVANTA_READER(wpg_read_file);
BRIVANTA_WRITER(wpg_write_file);
BRIVANTA_READER(wmf_read_file);  // the first bitmap record's DIB; IMG_ERR_TYPE when there is none
BRIVANTA_WRITER(wmf_write_file);

// PICT
BRIVANTA_READER(pict_read_file);
BRIVANTA_WRITER(pict_write_file);

// Sun raster, X window dumps, IFF
BRIVANTA_READER(sunras_read_file);
BRIVANTA_WRITER(sunras_write_file);
BRIVANTA_READER(xwd_read_file);
BRIVANTA_WRITER(xwd_write_file);
BRIVANTA_READER(iff_read_file);
BRIVANTA_WRITER(iff_write_file);

// Readers only
BRIVANTA_READER(macpaint_read_file);
BRIVANTA_READER(msp_decompress);
BRIVANTA_READER(cut_decompress);

// PNG, through the system's codec (platform/png_codec.h)
BRIVANTA_READER(png_read_file);
BRIVANTA_WRITER(png_write_file);

}  // namespace brv
