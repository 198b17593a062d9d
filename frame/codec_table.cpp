// The dispatch tables: which reader serves a detected extension, which
// writer an output type code, and which readers count pages.
#include "codecs/codecs.h"

#include <strings.h>

// Compared in this order by the load dispatcher; null readers load with -7.
const reader_entry reader_table[] = {
    {"tif", tiff_decompress}, {"bmp", bmp_read},  {"pcx", pcx_decompress},  {"tga", targa_read_file},
    {"gif", gif_decompress},  {"wpg", nullptr},   {"wmf", nullptr},         {"eps", nullptr},
    {"dcx", dcx_decompress},  {"jpg", jpeg_read_file}, {"pct", nullptr},    {"cal", nullptr},
    {"lsd", nullptr},         {"pcd", nullptr},   {"kfx", nullptr},         {"ica", nullptr},
    {"ico", nullptr},         {"iff", nullptr},   {"gx2", nullptr},         {"clp", nullptr},
    {"img", nullptr},         {"btr", nullptr},   {"msp", nullptr},         {"cut", nullptr},
    {"xbm", nullptr},         {"xpm", nullptr},   {"xwd", nullptr},         {"ras", nullptr},
    {"txt", nullptr},         {"mac", nullptr},   {"psd", nullptr},         {"imt", nullptr},
};
const int reader_table_size = sizeof reader_table / sizeof reader_table[0];

// Every output type code; a null writer saves with -7.
const writer_entry writer_table[] = {
    {0, "tif", tiff_write_uncompressed},
    {1, "bmp", bmp_write},
    {2, "pcx", pcx_write},
    {3, "tga", targa_write_file},
    {4, "gif", gif_write},
    {5, "wpg", nullptr},
    {6, "wmf", nullptr},
    {7, nullptr, tiff_write_huffman},
    {8, nullptr, tiff_write_g3},
    {9, nullptr, tiff_write_lzw},
    {10, nullptr, tiff_write_g4},
    {11, "dcx", dcx_write},
    {12, nullptr, bmp_write_rle},
    {13, "jpg", jpeg_write_file},
    {14, "eps", nullptr},
    {15, "pct", nullptr},
    {16, nullptr, tiff_write_packbits},
    {18, "cal", nullptr},
    {20, "xbm", nullptr},
    {25, "ico", nullptr},
    {26, "iff", nullptr},
    {27, "clp", nullptr},
    {29, "btr", nullptr},
    {32, nullptr, targa_write_file_15bit},
    {33, nullptr, fax_write_g3},
    {34, nullptr, fax_write_g4},
    {35, "xpm", nullptr},
    {36, "xwd", nullptr},
    {37, "ras", nullptr},
    {40, nullptr, tiff_write_jpeg},
    {41, "psd", nullptr},
    {42, "imt", nullptr},
};
const int writer_table_size = sizeof writer_table / sizeof writer_table[0];

writer_fn writer_for_type(int type) {
    for (const writer_entry &w : writer_table)
        if (w.type == type) return w.write;
    return nullptr;
}

page_count_fn page_counter_for(const char *ext) {
    if (strcasecmp(ext, "tif") == 0) return tiff_page_count;
    if (strcasecmp(ext, "dcx") == 0) return dcx_page_count;
    return nullptr;
}
