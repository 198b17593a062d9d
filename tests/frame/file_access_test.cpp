// The file access layer: memory source rules and hooks.
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

int seek_calls = 0;

int IMG_CALLBACK counting_seek(int fd, int offset, int origin) {
    seek_calls++;
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    int r = file_seek(fd, offset, origin);
    IMGLOW_set_fileio(nullptr, nullptr, counting_seek);
    return r;
}

}  // namespace

TEST(MemorySource, ReadsStopAtTheBlockEndAndThenReportSuccess) {
    block_ref b(bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
    memory_source_set(b.data);
    uint8_t buf[32] = {};
    EXPECT_EQ(file_seek(MEMORY_FD, 10, 0), 10);
    EXPECT_EQ(file_read(MEMORY_FD, buf, 20), 6);
    EXPECT_EQ(buf[0], 10);
    EXPECT_EQ(buf[5], 15);
    EXPECT_EQ(file_seek(MEMORY_FD, 0, 1), 16);
    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(file_read(MEMORY_FD, buf, 20), 20) << "past the end a read reports the count";
    EXPECT_EQ(buf[0], 0xAA) << "and copies nothing";
    EXPECT_EQ(file_seek(MEMORY_FD, -4, 2), 12);
    EXPECT_EQ(file_size_hint(MEMORY_FD), 16);
}

TEST(MemorySource, WritesAreCutAtTheBlockEnd) {
    block_ref b(uint32_t{8});
    memory_source_set(b.data);
    uint8_t src[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(file_write(MEMORY_FD, src, 6), 6);
    EXPECT_EQ(file_write(MEMORY_FD, src, 6), 2) << "cut at the size";
    EXPECT_EQ(file_write(MEMORY_FD, src, 6), 6) << "at the end: nothing copied, count reported";
    EXPECT_EQ(b.data[7], 2);
    EXPECT_EQ(file_length(MEMORY_FD), 8) << "the length of a memory source is its position";
}

TEST(MemorySource, SeekHookAloneRoutesSeeksButNotReads) {
    block_ref b(bytes{'B', 'M', 9, 9});
    memory_source_set(b.data);
    seek_calls = 0;
    IMGLOW_set_fileio(nullptr, nullptr, counting_seek);
    uint8_t buf[2];
    EXPECT_EQ(file_seek(MEMORY_FD, 2, 0), 2);
    EXPECT_EQ(file_read(MEMORY_FD, buf, 2), 2);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    EXPECT_EQ(seek_calls, 1);
    EXPECT_EQ(buf[0], 9) << "the read still came from memory";
}
