// TIFF records shared by the reader and the writer: the IFD entry as it
// stands in a file, the parsed tag record, and the tag and type numbers.
#pragma once
#include "frame/frame.h"

namespace brv {

struct tiff_ifd_entry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t value;  // the value itself, or the offset of the values
};

// The parsed values of one IFD; every field is 32 bits wide.
struct tiff_tag_record {
    uint32_t height;
    uint32_t width;
    uint32_t rows_per_strip;
    uint32_t strip_offsets;
    uint32_t strip_byte_counts;
    uint32_t samples_per_pixel;
    uint32_t bits_per_sample;
    uint32_t compression;
    uint32_t photometric;
    uint32_t color_map;
    uint32_t x_resolution, y_resolution;
    uint32_t fill_order;
    uint32_t planar_config;
    uint32_t predictor;
    uint32_t gray_response_curve;
    uint32_t gray_response_unit;
    uint32_t jpeg_interchange;
    uint32_t jpeg_q_tables, jpeg_dc_tables, jpeg_ac_tables;
    uint32_t ycbcr_subsampling;
    uint32_t dib_row_bytes;
    uint32_t tiled;
};

enum tiff_type : uint16_t {
    TIFF_BYTE = 1,
    TIFF_ASCII = 2,
    TIFF_SHORT = 3,
    TIFF_LONG = 4,
    TIFF_RATIONAL = 5,
};

enum tiff_tag : uint16_t {
    TAG_NEW_SUBFILE_TYPE = 254,
    TAG_IMAGE_WIDTH = 256,
    TAG_IMAGE_LENGTH = 257,
    TAG_BITS_PER_SAMPLE = 258,
    TAG_COMPRESSION = 259,
    TAG_PHOTOMETRIC = 262,
    TAG_FILL_ORDER = 266,
    TAG_STRIP_OFFSETS = 273,
    TAG_ORIENTATION = 274,
    TAG_SAMPLES_PER_PIXEL = 277,
    TAG_ROWS_PER_STRIP = 278,
    TAG_STRIP_BYTE_COUNTS = 279,
    TAG_X_RESOLUTION = 282,
    TAG_Y_RESOLUTION = 283,
    TAG_PLANAR_CONFIG = 284,
    TAG_GRAY_RESPONSE_UNIT = 290,
    TAG_GRAY_RESPONSE_CURVE = 291,
    TAG_T4_OPTIONS = 292,
    TAG_RESOLUTION_UNIT = 296,
    TAG_DATE_TIME = 306,
    TAG_ARTIST = 315,
    TAG_PREDICTOR = 317,
    TAG_COLOR_MAP = 320,
    TAG_TILE_WIDTH = 322,
    TAG_TILE_LENGTH = 323,
    TAG_TILE_OFFSETS = 324,
    TAG_TILE_BYTE_COUNTS = 325,
    TAG_JPEG_PROC = 512,
    TAG_JPEG_INTERCHANGE = 513,
    TAG_JPEG_RESTART_INTERVAL = 515,
    TAG_JPEG_Q_TABLES = 519,
    TAG_JPEG_DC_TABLES = 520,
    TAG_JPEG_AC_TABLES = 521,
    TAG_YCBCR_SUBSAMPLING = 530,
};

// The library's own compression number for Group 3 with two-dimensional rows.
constexpr uint32_t TIFF_COMPRESSION_G3_2D = 45;

constexpr uint16_t TIFF_II = 0x4949;
constexpr uint16_t TIFF_MM = 0x4D4D;

// ---- JPEG inside TIFF (codecs/tiff_jpeg.cpp) ---------------------------------

// What the strip JPEG decoder needs of an IFD besides the tag record: where
// the strips (or the tile) and their byte counts are, and the JPEG tags.
struct tiff_jpeg_tags {
    tiff_ifd_entry counts;      // StripByteCounts or TileByteCounts, whole
    uint32_t proc;              // JPEGProc: 0 (absent) or 1 baseline
    uint32_t restart_interval;  // JPEGRestartInterval
};

struct tiff_jpeg_source {
    int fd;
    int32_t base, size;  // header position and the source's known size
    bool mm;
    const tiff_tag_record *rec;
    tiff_ifd_entry offsets;  // StripOffsets or TileOffsets, whole
    tiff_jpeg_tags tags;
    uint32_t tables[3];  // JPEGQTables, JPEGDCTables, JPEGACTables as stored
};

// Compression 6 without JPEGInterchangeFormat: checks the variant, announces
// the reader's header, then decodes strip after strip.  0 or a negative code.
int tiff_read_jpeg_strips(const tiff_jpeg_source &src, dib_header *header, IMG_put_row_fn put_row, void *user,
                          IMG_begin_image_fn begin_image);

// One single-strip page whose strip an encoder writes at the file position
// after the IFD; StripByteCounts is patched once the encoder returns.
using tiff_strip_encoder = int (*)(int fd, const dib_info *header, IMG_get_row_fn get_row, void *context);
int tiff_write_encoded(int fd, const dib_info *header, uint32_t compression, tiff_strip_encoder encode,
                       IMG_get_row_fn get_row, void *context);

// The widest vector registers the reader's row kernels may use: 512, 128, or
// 0 for plain code; the processor's own limit until called.  Every choice
// gives the same rows, which the tests check.
void tiff_reader_limit_vectors(int bits);

}  // namespace brv
