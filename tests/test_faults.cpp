// The shared load and save shortcuts, the fault-injection sweeps (failing
// allocations, short writes, trickled reads), and the table that runs every
// writer at every depth it takes under every fault.  What the writers' files
// hold is checked by independent decoders in interop/writers_test.py.
#include "frame/frame.h"
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <tuple>

namespace {
// Multi-page and planar work makes temporary files: each test process gets
// a directory of its own, so what one leaves behind is seen.
std::string run_temp_dir;
struct private_temp : ::testing::Environment {
    void SetUp() override { run_temp_dir = use_private_temp_dir("run"); }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(run_temp_dir, ec);
    }
};
[[maybe_unused]] auto *const temp_env = ::testing::AddGlobalTestEnvironment(new private_temp);
}  // namespace

picture load_pic(const bytes &file, int *code, int page) {
    block_ref b(file);
    const int live = mem_live_blocks();
    int h = IMG_decompress_bitmap_mem(b.data, page);
    if (code) *code = h;
    picture p = h >= 0 ? picture_of(h) : picture{};
    if (h >= 0) IMG_delete_bitmap(h);
    EXPECT_EQ(mem_live_blocks(), live) << "load gave " << h << ": a block was left behind";
    EXPECT_EQ(scratch_count(), 0) << "load gave " << h;
    return p;
}

int load_code(const bytes &file, int page) {
    int code = 0;
    load_pic(file, &code, page);
    return code;
}

bytes save_pic(const picture &p, int type, int *code) {
    int h = handle_of(p);
    bytes f = save_bytes(h, type, code);
    IMG_delete_bitmap(h);
    return f;
}

int sweep_load_alloc_failures(const bytes &file, const picture &want, int page) {
    block_ref in(file);
    for (int k = 1; k < 200; k++) {
        int live = mem_live_blocks();
        mem_fail_after(k);
        int h = IMG_decompress_bitmap_mem(in.data, page);
        mem_fail_after(0);
        EXPECT_EQ(scratch_count(), 0) << "load k=" << k;
        if (h >= 0) {
            EXPECT_EQ(picture_of(h), want) << "load k=" << k;
            IMG_delete_bitmap(h);
            EXPECT_EQ(mem_live_blocks(), live);
            return k - 1;
        }
        EXPECT_EQ(h, IMG_ERR_MEMORY) << "load k=" << k;
        EXPECT_EQ(mem_live_blocks(), live) << "load k=" << k;
    }
    ADD_FAILURE() << "the load never succeeded";
    return 0;
}

// Saves with the k-th allocation failing for k = 1, 2, ... until one
// succeeds, which must give want_file; how many attempts failed.
static int sweep_save_alloc_failures(int handle, int type, const bytes &want_file) {
    block_ref out(uint32_t{8} << 20);
    picture before = picture_of(handle);
    for (int k = 1; k < 100; k++) {
        int live = mem_live_blocks();
        mem_fail_after(k);
        int n = IMG_save_bitmap_mem(handle, out.data, type);
        mem_fail_after(0);
        EXPECT_EQ(mem_live_blocks(), live) << "save k=" << k;
        EXPECT_EQ(scratch_count(), 0) << "save k=" << k;
        if (n >= 0) {
            EXPECT_EQ(bytes(out.data, out.data + n), want_file) << "save k=" << k;
            EXPECT_EQ(picture_of(handle), before) << "the bitmap is unchanged";
            return k - 1;
        }
        EXPECT_EQ(n, IMG_ERR_MEMORY) << "save k=" << k;
    }
    ADD_FAILURE() << "the save never succeeded";
    return 0;
}

namespace {
size_t write_budget = 0;
int IMG_CALLBACK budget_write(int fd, const void *buffer, int n) {
    int allowed = static_cast<int>(std::min<size_t>(static_cast<size_t>(n), write_budget));
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    int r = file_write(fd, buffer, allowed);
    IMGLOW_set_fileio(nullptr, budget_write, nullptr);
    write_budget -= static_cast<size_t>(r);
    return r;
}

int32_t hooked_size = 0;
size_t read_budget = 0, read_chunk = 7;
int IMG_CALLBACK trickle_read(int fd, void *buffer, int n) {
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    int32_t left = std::max(0, hooked_size - file_seek(fd, 0, 1));
    int k = static_cast<int>(std::min<size_t>({static_cast<size_t>(n), read_chunk, read_budget, static_cast<size_t>(left)}));
    int r = k > 0 ? file_read(fd, buffer, k) : 0;
    IMGLOW_set_fileio(trickle_read, nullptr, nullptr);
    read_budget -= static_cast<size_t>(r);
    return r;
}
}  // namespace

int save_with_write_budget(int handle, int type, size_t budget, const char *name) {
    block_ref out(uint32_t{8} << 20);
    write_budget = budget;
    IMGLOW_set_fileio(nullptr, budget_write, nullptr);
    int r = name ? IMG_save_bitmap(handle, name, type) : IMG_save_bitmap_mem(handle, out.data, type);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(scratch_count(), 0);
    return r;
}

// Loads from memory through read hooks that hand out at most chunk bytes a
// call and nothing past budget bytes in all; the handle or the code.
static int load_with_read_budget(const bytes &file, size_t budget, int page, size_t chunk) {
    block_ref b(file);
    hooked_size = static_cast<int32_t>(file.size());
    read_budget = budget, read_chunk = chunk;
    int live = mem_live_blocks();
    IMGLOW_set_fileio(trickle_read, nullptr, nullptr);
    int h = IMG_decompress_bitmap_mem(b.data, page);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(scratch_count(), 0);
    if (h < 0) {
        EXPECT_EQ(mem_live_blocks(), live) << "budget " << budget;
    }
    return h;
}

void check_load_faults(const bytes &file, int how, int page) {
    int code = 0;
    const picture want = load_pic(file, &code, page);
    ASSERT_GE(code, 0) << "the file must load before faults are injected";
    EXPECT_GE(sweep_load_alloc_failures(file, want, page), 1);
    // Reads cut off after every budget up to twice the size (detection reads
    // the start twice), handed out seven bytes at a time to readers that
    // take short reads: a load fails cleanly or gives a picture of the right
    // size (what the data held), and without a cut, the whole picture.
    const size_t step = std::max<size_t>(1, file.size() / 16);
    for (size_t budget = 0; budget <= 2 * file.size() + step; budget += step) {
        const bool endless = budget > 2 * file.size();
        int h = load_with_read_budget(file, endless ? SIZE_MAX : budget, page, endless || (how & TRICKLES) ? 7 : SIZE_MAX);
        if (h >= 0) {
            picture got = picture_of(h);
            IMG_delete_bitmap(h);
            EXPECT_EQ(std::tie(got.width, got.height, got.bits), std::tie(want.width, want.height, want.bits));
            if (endless) {
                EXPECT_EQ(got, want);
            }
        }
        if (endless) {
            EXPECT_EQ(h >= 0, (how & TRICKLES) != 0) << "an endless budget in seven-byte reads";
        }
    }
    EXPECT_EQ(temp_files_in(run_temp_dir), 0) << "a temporary file was left behind";
}

// One save swept: failing allocations, and writes cut short to memory and
// to a file.
static void check_save_faults(int handle, int type) {
    int n = 0;
    const bytes file = save_bytes(handle, type, &n);
    ASSERT_GT(n, 0);
    EXPECT_GE(sweep_save_alloc_failures(handle, type, file), 1) << "the writer allocates its buffers";
    for (size_t budget : {size_t{0}, size_t{100}, file.size() / 2, file.size() - 1})
        EXPECT_EQ(save_with_write_budget(handle, type, budget), IMG_ERR_WRITE) << "budget " << budget;
    const std::string name = temp_path("cut_save");  // and once through a file
    std::remove(name.c_str());
    EXPECT_EQ(save_with_write_budget(handle, type, file.size() / 2, name.c_str()), IMG_ERR_WRITE) << "a file";
    std::remove(name.c_str());
}

namespace {
struct writer_row {
    int type;
    std::vector<int> depths;
    int how;  // for the fault sweep: TRICKLES, or -1: not loaded (raw data, or no reader)
};
const writer_row writers[] = {
    {IMG_TYPE_BMP, {1, 4, 8, 24}, 0},
    {IMG_TYPE_BMP_RLE, {4, 8}, 0},
    {IMG_TYPE_PCX, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_DCX, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_GIF, {4, 8}, TRICKLES},
    {IMG_TYPE_TARGA, {8, 24}, TRICKLES},
    {IMG_TYPE_TARGA16, {24}, TRICKLES},
    {IMG_TYPE_TIFF, {1, 4, 8, 24}, 0},
    {IMG_TYPE_TIFF_LZW, {1, 4, 8, 24}, 0},
    {IMG_TYPE_TIFF_PACKBITS, {1, 4, 8, 24}, 0},
    {IMG_TYPE_TIFF_HUFFMAN, {1}, 0},
    {IMG_TYPE_TIFF_G3, {1}, 0},
    {IMG_TYPE_TIFF_G4, {1}, 0},
    {IMG_TYPE_JPEG, {8, 24}, TRICKLES},
    {IMG_TYPE_TIFF_JPEG, {24}, 0},
    {IMG_TYPE_PSD, {1, 8, 24}, TRICKLES},
#ifndef BRIVANTA_NO_PNG
    {IMG_TYPE_PNG, {1, 4, 8, 24}, TRICKLES},
#endif
    {IMG_TYPE_EPS, {1, 8}, -1},  // text: Ghostscript reads it (interop)
    {IMG_TYPE_RAW_G3, {1}, -1},
    {IMG_TYPE_RAW_G4, {1}, -1},
    {IMG_TYPE_XBM, {1}, TRICKLES},
    {IMG_TYPE_CALS, {1}, TRICKLES},
    {IMG_TYPE_XPM, {1, 4, 8}, -1},
    {IMG_TYPE_CLIPBOARD, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_WMF, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_WPG, {1, 4, 8}, TRICKLES},
    // Detection looks 512 bytes past where its first read ended: short reads hide a picture.
    {IMG_TYPE_PICT, {1, 4, 8, 24}, 0},
    {IMG_TYPE_ICO, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_XWD, {1, 4, 8, 24}, 0},
    {IMG_TYPE_IFF, {1, 4, 8, 24}, TRICKLES},
    {IMG_TYPE_SUNRAS, {8, 24}, TRICKLES},
    {IMG_TYPE_SUNRAS, {1, 4}, -1},  // read back as the standard bilevel table, and 8 bits
};
}  // namespace

// Every writer at every depth it takes: the save swept, then the load of
// what it wrote.  Raw fax output has no header to detect: saves only.
TEST(Faults, EveryWriterAndDepth) {
    for (auto &w : writers)
        for (int bits : w.depths) {
            SCOPED_TRACE("type " + std::to_string(w.type) + ", " + std::to_string(bits) + " bits");
            const int width = w.type == IMG_TYPE_ICO ? 32 : 90, height = w.type == IMG_TYPE_ICO ? 32 : 30;
            int h = handle_of(make_picture(width, height, bits, static_cast<uint32_t>(w.type * 7 + bits)));
            check_save_faults(h, w.type);
            if (w.how >= 0) check_load_faults(save_bytes(h, w.type), w.how);
            IMG_delete_bitmap(h);
        }
}

// Files from other coders reach reader paths our writers never take.
TEST(Faults, FilesFromOtherTools) {
    int files = 0;
    for (const std::string &line : data_lines("fault_files.txt")) {
        std::istringstream in(line);
        std::string name, how;
        in >> name >> how;
#ifdef BRIVANTA_NO_PNG
        if (name.rfind("png/", 0) == 0) continue;  // no PNG codec in this build
#endif
        SCOPED_TRACE(name);
        check_load_faults(read_file(std::string(BRIVANTA_FIXTURES) + "/" + name), how == "trickles" ? TRICKLES : 0);
        files++;
    }
    EXPECT_GE(files, 30);
}
