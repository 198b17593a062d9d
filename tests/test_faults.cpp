// The shared load and save shortcuts and the fault-injection sweeps (failing
// allocations, short writes, trickled reads) every codec's tests run.
#include "frame/frame.h"
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

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

bytes save_pic(const picture &p, int type, int *code) {
    int h = handle_of(p);
    bytes f = save_bytes(h, type, code);
    IMG_delete_bitmap(h);
    return f;
}

picture load_at_offset(const bytes &file, int lead, int *code) {
    bytes padded(lead, 0xAB);
    padded.insert(padded.end(), file.begin(), file.end());
    std::string name = temp_path("offset_" + std::to_string(lead));
    write_file(name, padded);
    int fd = os_open(name.c_str(), OS_OPEN_READ);
    int h = IMG_decompress_bitmap_fd(fd, lead, 0);
    os_close(fd);
    std::remove(name.c_str());
    if (code) *code = h;
    if (h < 0) return {};
    picture p = picture_of(h);
    IMG_delete_bitmap(h);
    return p;
}

int sweep_load_alloc_failures(const bytes &file, const picture &want, int page) {
    block_ref in(file);
    for (int k = 1; k < 100; k++) {
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

int sweep_save_alloc_failures(int handle, int type, const bytes &want_file) {
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
size_t read_budget = 0;
int IMG_CALLBACK trickle_read(int fd, void *buffer, int n) {
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    int32_t left = std::max(0, hooked_size - file_seek(fd, 0, 1));
    int k = static_cast<int>(std::min<size_t>({static_cast<size_t>(n), 7, read_budget, static_cast<size_t>(left)}));
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

int load_with_read_budget(const bytes &file, size_t budget, int page) {
    block_ref b(file);
    hooked_size = static_cast<int32_t>(file.size());
    read_budget = budget;
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
