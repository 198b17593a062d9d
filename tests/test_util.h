// Helpers the tests share: pictures built from small recipes, memory
// blocks holding file images, and access to a handle's pixels.
#pragma once
#include "brivanta.h"

#include <cstdint>
#include <string>
#include <vector>

// The library's internal names, which the tests reach past the API.
namespace brv {}
using namespace brv;

using bytes = std::vector<uint8_t>;

// A picture in top-down order: rows of row_bytes(width, bits) bytes, and a
// full colour table (blue, green, red, 0) for depths up to 8.
struct picture {
    int width = 0, height = 0, bits = 0;
    bytes palette;
    std::vector<bytes> rows;
    bool operator==(const picture &) const = default;
};

uint32_t stride_of(int width, int bits);
// The tests' pseudo-random sequence: the next 24-bit value from seed s.
inline uint32_t lcg_next(uint32_t &s) {
    s = s * 1664525u + 1013904223u;
    return s >> 8;
}
picture make_picture(int width, int height, int bits, uint32_t seed);
picture grey_palette_picture(int width, int height, int bits, uint32_t seed);

// The picture as a DIB (header, table, bottom-up rows) in a new locked block.
struct block_ref {
    int block = 0;
    uint8_t *data = nullptr;
    block_ref() = default;
    explicit block_ref(const bytes &content);
    explicit block_ref(uint32_t size);
    ~block_ref();
    block_ref(const block_ref &) = delete;
    block_ref &operator=(const block_ref &) = delete;
};
bytes dib_of_picture(const picture &p, int xdpi = 0, int ydpi = 0);

// Pixel x, y (from the top left) at the picture's depth: the stored index,
// or blue | green << 8 | red << 16.
uint32_t px(const picture &p, int x, int y);
// Red, green, blue of every pixel through the colour table: the picture as it looks.
bytes appearance(const picture &p);

// Creates a handle from the picture (through the memory load path).
int handle_of(const picture &p);
// Reads a handle's bitmap back into a picture, with padding bits masked, or
// with padding, every stored byte as it is.
picture picture_of(int handle, bool padding = false);

bytes read_file(const std::string &name);
// Bytes written as hex digits, two a byte.
bytes from_hex(const std::string &hex);
// A file under tests/data, and a list there without its comment and blank lines.
std::string data_path(const std::string &name);
std::vector<std::string> data_lines(const std::string &name);
void write_file(const std::string &name, const bytes &content);
std::string temp_path(const std::string &leaf);
// Points the library's temporary directory at a new directory of this
// process's own (named after tag) and returns it, ending in a separator.
std::string use_private_temp_dir(const std::string &tag);
// How many of the library's temporary files a directory holds.
int temp_files_in(const std::string &dir);

// Loads a file image from memory into a handle.
int load_bytes(const bytes &file);
// Saves a handle to memory with a type code; the file image, or empty.
bytes save_bytes(int handle, int type, int *result = nullptr);

// A file image loaded through a handle and read back; empty on failure,
// with the load's result in *code.  Either way no block may be left behind.
picture load_pic(const bytes &file, int *code = nullptr, int page = 0);
// The result of that load: a handle (already freed again) or the code.
int load_code(const bytes &file, int page = 0);
// A picture saved to memory through a handle; empty on failure.
bytes save_pic(const picture &p, int type, int *code = nullptr);

// Fault injection, each case checked for -1 (or -9), no block left behind
// and no scratch block outstanding.  Loads with the k-th allocation failing
// for k = 1, 2, ... until one succeeds; that one must give want.  Returns
// how many attempts failed.
int sweep_load_alloc_failures(const bytes &file, const picture &want, int page = 0);
// Saves to memory (or to the named file) with the writes cut off after
// budget bytes; the result.
int save_with_write_budget(int handle, int type, size_t budget, const char *name = nullptr);
// The sweeps over one file image: failing allocations, and reads cut off at
// budgets up to twice its size (test_faults.cpp sweeps every writer's saves
// too).  TRICKLES: the reader takes short reads, so an endless budget in
// seven-byte reads loads the file.
enum { TRICKLES = 1 };
void check_load_faults(const bytes &file, int how, int page = 0);
