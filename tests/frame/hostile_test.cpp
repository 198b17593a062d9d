// Hostile files and misused calls that once crashed, leaked heap bytes,
// cost memory out of all proportion to their data or wrote bad files: each
// must now give a clean code, or the right file.
#include "codecs/tiff_test_util.h"
#include "frame/frame.h"
#include "test_util.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

namespace {

bytes crasher(const char *name) { return read_file(std::string(BRIVANTA_SOURCE_DIR "/fuzz/crashers/hostile/") + name); }

// Loads a picture with the shrink size set, then puts it back: the stored size.
std::pair<int, int> stored_size_with_shrink(int w, int h) {
    IMGLOW_set_decompsize(w, h);
    int handle = handle_of(make_picture(200, 50, 8, 3));
    IMGLOW_set_decompsize(0, 0);
    if (handle < 0) return {handle, handle};
    picture p = picture_of(handle);
    IMG_delete_bitmap(handle);
    return {p.width, p.height};
}

// The size of what a save over an existing file leaves there.
uintmax_t size_after_saving_over(const bytes &old, int type) {
    const std::string name = temp_path("over_" + std::to_string(type));
    write_file(name, old);
    int h = handle_of(make_picture(31, 7, 1, 5));
    EXPECT_EQ(IMG_save_bitmap(h, name.c_str(), type), 0);
    IMG_delete_bitmap(h);
    std::error_code ec;
    uintmax_t n = std::filesystem::file_size(name, ec);
    std::filesystem::remove(name, ec);
    return n;
}

// A chunky PackBits page of samples x bits claiming YCbCrSubSampling 2,2,
// which only 8-bit YCbCr rows are laid out by.
bytes claims_subsampling(uint32_t samples, uint32_t bits) {
    const uint32_t width = 37, height = 3, row = width * samples * bits / 8;
    bytes strip;
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t i = 0; i < row; i += 128) {
            const uint32_t n = row - i < 128 ? row - i : 128;
            strip.push_back(static_cast<uint8_t>(n - 1));
            for (uint32_t k = 0; k < n; k++) strip.push_back(static_cast<uint8_t>(i + k + y));
        }
    tiff_page p = simple_page(width, height, bits, samples, 2, 32773, {strip});
    set_field(p, 530, 3, {2, 2});
    return build_tiff({p}, false);
}

int IMG_CALLBACK never_called(void *, unsigned char *, int, int) { return IMG_ERR_STOPPED; }

}  // namespace

TEST(Hostile, FilesAndCallsGiveCleanResults) {
    const int fresh_tiff = static_cast<int>(size_after_saving_over({}, IMG_TYPE_TIFF));
    const int fresh_dcx = static_cast<int>(size_after_saving_over({}, IMG_TYPE_DCX));
    struct row {
        const char *what;
        std::function<int()> run;
        int want;
    } rows[] = {
        {"an RGB TIFF claiming subsampled rows", [] { return load_code(crasher("tiff_rgb_claims_subsampling.tif")); },
         IMG_ERR_HEADER},
        {"RGBA claiming subsampled rows", [] { return load_code(claims_subsampling(4, 8)); }, IMG_ERR_HEADER},
        {"16-bit RGB claiming subsampled rows", [] { return load_code(claims_subsampling(3, 16)); }, IMG_ERR_HEADER},
        {"a TIFF whose one strip offset would serve 50000 strips",
         [] { return load_code(crasher("tiff_one_offset_every_strip.tif")); }, IMG_ERR_DATA},
        {"a PCX whose scan lines hold no bytes", [] { return load_code(crasher("pcx_no_bytes_per_line.pcx")); },
         IMG_ERR_HEADER},
        {"a 130-byte PCX claiming 2 GB", [] { return load_code(crasher("pcx_huge_claim.pcx")); }, IMG_ERR_MEMORY},
        {"shrink width only stores the full height", [] { return stored_size_with_shrink(100, 0).second; }, 50},
        {"shrink height only stores the full width", [] { return stored_size_with_shrink(0, 10).first; }, 200},
        {"both shrink sizes still shrink", [] { return stored_size_with_shrink(100, 10).first; }, 100},
        {"a GIF wider than its 16-bit field", [] {
             bytes dib = dib_of_picture(make_picture(8, 2, 8, 1));
             reinterpret_cast<int32_t *>(dib.data())[1] = 70000;
             block_ref out(uint32_t{4096});
             return IMGLOW_save_bitmap_mem(out.data, dib.data(), IMG_TYPE_GIF, never_called, nullptr);
         }, IMG_ERR_DEPTH},
        {"a TIFF saved over a longer file that is not one",
         [] { return static_cast<int>(size_after_saving_over(bytes(100000, 'x'), IMG_TYPE_TIFF)); }, fresh_tiff},
        {"a DCX saved over a longer file that is not one",
         [] { return static_cast<int>(size_after_saving_over(bytes(100000, 'x'), IMG_TYPE_DCX)); }, fresh_dcx},
        {"descriptor 32767 after a memory load is no memory source", [] {
             int h = handle_of(make_picture(9, 9, 24, 2));
             IMG_delete_bitmap(h);
             return IMG_decompress_bitmap_fd(IMG_MEMORY_FD, 0, 0) >= 0;
         }, 0},
        {"a negative load limit", [] { return IMGLOW_set_load_limit(-1); }, IMG_ERR_TYPE},
    };
    for (auto &r : rows) EXPECT_EQ(r.run(), r.want) << r.what;
    EXPECT_EQ(IMGLOW_get_load_limit(), IMG_DEFAULT_LOAD_LIMIT_MB);
}

// The load limit refuses a picture one megabyte over it before allocating,
// takes one within it, and every allocation failure on the way is clean.
TEST(Hostile, LoadLimitBoundsThePicture) {
    const picture p = make_picture(1024, 700, 24, 9);  // 2.1 MB of bitmap
    const int h = handle_of(p);
    const bytes file = save_bytes(h, IMG_TYPE_BMP);
    IMG_delete_bitmap(h);
    EXPECT_EQ(IMGLOW_set_load_limit(2), IMG_DEFAULT_LOAD_LIMIT_MB);
    EXPECT_EQ(load_code(file), IMG_ERR_MEMORY);
    EXPECT_EQ(IMGLOW_set_load_limit(3), 2);
    EXPECT_GE(sweep_load_alloc_failures(file, p), 1);
    EXPECT_EQ(IMGLOW_set_load_limit(0), 3);
    EXPECT_EQ(load_pic(file), p);
    IMGLOW_set_load_limit(IMG_DEFAULT_LOAD_LIMIT_MB);
}
