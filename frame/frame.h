// What every reader, writer and operation shares: the DIB header record, row
// arithmetic, the file access layer, scratch blocks, the reader and writer
// contracts and the library-wide settings.
#pragma once
#include "brivanta.h"
#include "platform/platform.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Every internal name of the library lives in namespace brv: the static
// library then shows only the API's names and brv:: ones (tools/exports.py).
namespace brv {

static_assert(std::endian::native == std::endian::little,
              "the in-memory bitmap is a little-endian record read in place");

// ---- The DIB header --------------------------------------------------------
struct dib_info {
    uint32_t biSize;
    int32_t biWidth;
    int32_t biHeight;
    uint16_t biPlanes;
    uint16_t biBitCount;
    uint32_t biCompression;
    uint32_t biSizeImage;
    int32_t biXPelsPerMeter;  // dots per inch inside the library
    int32_t biYPelsPerMeter;
    uint32_t biClrUsed;       // a reader's transparent colour, 0 = none
    uint32_t biClrImportant;
};
static_assert(sizeof(dib_info) == 40);

// A header with room for the largest colour table: what readers announce.
struct dib_header {
    dib_info info;
    uint8_t palette[1024];  // RGBQUAD entries: blue, green, red, reserved
};
static_assert(sizeof(dib_header) == 1064);

constexpr int32_t SRCCOPY = 0x00CC0020;
constexpr int32_t READ_BUFFER_SIZE = 10000;

// Stride of a stored row; 0 for widths that cannot be stored.
constexpr uint32_t row_bytes(int64_t width, int bits) {
    if (width <= 0) return 0;
    uint64_t n;
    switch (bits) {
    case 1: n = (static_cast<uint64_t>(width) + 7) / 8; break;
    case 4: n = (static_cast<uint64_t>(width) + 1) / 2; break;
    case 24: n = static_cast<uint64_t>(width) * 3; break;
    default: n = static_cast<uint64_t>(width); break;
    }
    n = (n + 3) & ~uint64_t{3};
    return n > 0x7FFFFFF0u ? 0 : static_cast<uint32_t>(n);
}

// The size fields every new picture's header starts with: a 40-byte header,
// one plane; the rest is left as the caller set it.
inline void set_dib_size(dib_info &i, int32_t width, int32_t height, int bits) {
    i.biSize = 40;
    i.biWidth = width;
    i.biHeight = height;
    i.biPlanes = 1;
    i.biBitCount = static_cast<uint16_t>(bits);
}

constexpr uint32_t palette_bytes(int bits) {
    return bits == 24 || bits <= 0 || bits > 8 ? 0 : 4u << bits;
}

// Overflow-safe a * b + c for sizes; false when it does not fit in 31 bits.
inline bool size_mul_add(uint64_t a, uint64_t b, uint64_t c, uint32_t *out) {
    if (a && b > (0x7FFFFFFFull - c) / a) return false;
    *out = static_cast<uint32_t>(a * b + c);
    return true;
}

inline uint8_t *dib_palette(void *dib) { return static_cast<uint8_t *>(dib) + 40; }
inline dib_info *dib_of(void *dib) { return static_cast<dib_info *>(dib); }

// ---- File access layer -------------------------------------------------------
constexpr int MEMORY_FD = IMG_MEMORY_FD;

int32_t file_seek(int fd, int32_t offset, int origin);
int32_t file_read(int fd, void *buffer, int32_t count);
int32_t file_write(int fd, const void *buffer, int32_t count);
int32_t file_length(int fd);
// The memory block source is reachable as MEMORY_FD only while a memory
// call runs, so a caller's own descriptor of that number stays a file.
void memory_source_set(void *block);
void memory_source_end();
struct memory_source_scope {
    explicit memory_source_scope(void *block) { memory_source_set(block); }
    ~memory_source_scope() { memory_source_end(); }
    memory_source_scope(const memory_source_scope &) = delete;
    memory_source_scope &operator=(const memory_source_scope &) = delete;
};
// The bytes a source really holds: the memory block's size for MEMORY_FD (not
// the write position that file_length reports), the file's length otherwise,
// and INT32_MAX when hooks route the reads.
int32_t file_size_hint(int fd);
// The memory source's bytes from its current position to the block's end,
// for a reader that decodes them where they stand (*count of them, 0 past
// the end); null for a file, when hooks route the reads, or when the block's
// size is not known.  The position does not move.
const uint8_t *file_map(int fd, int32_t *count);

void *scratch_alloc(uint32_t size);  // zero-filled, locked; nullptr on failure
void scratch_free(void *address);
void scratch_free_all();
int scratch_count();

// Mode 0 makes a new temporary file, 1 reopens the named one; name holds
// TEMP_NAME_SIZE characters.
constexpr int TEMP_NAME_SIZE = 512;
int open_temp_file(char *name, int mode);

void swap16_array(void *items, int count);
void swap32_array(void *items, int count);
inline uint16_t get16(const void *p) {
    auto *b = static_cast<const uint8_t *>(p);
    return static_cast<uint16_t>(b[0] | b[1] << 8);
}
inline uint32_t get32(const void *p) {
    auto *b = static_cast<const uint8_t *>(p);
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}
inline uint16_t get16be(const void *p) {
    auto *b = static_cast<const uint8_t *>(p);
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}
inline uint32_t get32be(const void *p) {
    auto *b = static_cast<const uint8_t *>(p);
    return static_cast<uint32_t>(b[0]) << 24 | b[1] << 16 | b[2] << 8 | b[3];
}
inline void put16(void *p, uint32_t v) {
    auto *b = static_cast<uint8_t *>(p);
    b[0] = static_cast<uint8_t>(v);
    b[1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(void *p, uint32_t v) {
    auto *b = static_cast<uint8_t *>(p);
    b[0] = static_cast<uint8_t>(v);
    b[1] = static_cast<uint8_t>(v >> 8);
    b[2] = static_cast<uint8_t>(v >> 16);
    b[3] = static_cast<uint8_t>(v >> 24);
}

// Writes count bytes; IMG_ERR_WRITE when fewer went out.
inline int write_all(int fd, const void *buffer, int32_t count) {
    return file_write(fd, buffer, count) == count ? 0 : IMG_ERR_WRITE;
}

// ---- Reader and writer contracts --------------------------------------------
// where: the image's start offset, or the page number with bit 31 set.
using reader_fn = int (*)(int32_t where, IMG_put_row_fn put_row, void *context,
                          IMG_begin_image_fn begin_image, int fd);
using writer_fn = int (*)(int fd, const dib_info *header, IMG_get_row_fn get_row, void *context);

// Where the row sink would store row r as it stands (the handle's own sink,
// no depth reduction, no shrinking): a reader may build the row's
// row_bytes(width, bits) bytes there and pass that address to put_row, which
// then has nothing to copy.  Null for any other sink or row.
uint8_t *load_row_target(IMG_put_row_fn put_row, void *context, int r);

// The writer's counterpart: when get_row is the handle's own source and
// row r would come out as stored (no brightness or contrast table, the n
// bytes within the stored row), points *row at it after the status report
// get_row would make, and returns 1; the writer reads the row there and
// nothing is copied.  0 for any other source (fetch the row as usual), or
// the status hook's negative code.
int save_row_view(IMG_get_row_fn get_row, void *context, int r, int n, const uint8_t **row);

// A reader that finds a picture's author or date text hands it here; the
// frame keeps it as the text writers embed.  Null leaves a text as it is.
void report_identification(const char *text, const char *date);

// A reader of a source that detection cannot name calls this when the
// picture ends after fewer rows than it announced: the handle's bitmap keeps
// the first rows.  Nothing for any other sink.
void load_keep_top_rows(IMG_put_row_fn put_row, void *context, int rows);

constexpr uint32_t WHERE_PAGE = 0x80000000u;
inline bool where_is_page(int32_t where) { return (static_cast<uint32_t>(where) & WHERE_PAGE) != 0; }
inline int32_t where_page(int32_t where) { return static_cast<int32_t>(static_cast<uint32_t>(where) & 0x7FFFFFFF); }

// ---- Library-wide settings ----------------------------------------------------
struct library_settings {
    int reduction;       // 0, 1, 4 or 8
    int shrink_width, shrink_height;
    int load_limit_mb;   // 0: none
    int autocolor;
    int dithermode;
    int comp_quality;
    int png_level;       // deflate level of the PNG writer
    int sunras_rle;      // type 37 writes run-length data
    int wipedelay;
    bool status_enabled;
    IMG_status_fn status_fn;
    void *status_value;
    IMG_read_fn read_hook;
    IMG_write_fn write_hook;
    IMG_seek_fn seek_hook;
    char bitmap_name[64];
    char bitmap_date[16];
};
extern library_settings settings;

// Whether a load may make a bitmap or a temporary file of this many bytes.
inline bool within_load_limit(uint64_t bytes) {
    return settings.load_limit_mb == 0 || bytes <= (static_cast<uint64_t>(settings.load_limit_mb) << 20);
}

// Calls the status hook when enabled: its result, or 0.
inline int status_report(int total) {
    if (settings.status_enabled && settings.status_fn) return settings.status_fn(settings.status_value, total);
    return 0;
}

}  // namespace brv
