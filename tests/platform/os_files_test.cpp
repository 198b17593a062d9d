// Files through the platform layer: the same behaviour on every system, for
// short and long names, relative names, read-only handles and the temp file.
#include "frame/frame.h"
#include "test_util.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace fs = std::filesystem;

namespace {

bytes pattern(size_t n) {
    bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    return b;
}

}  // namespace

// Write, seek, read back and reopen, for names of every length the layer
// must take: a short one and one past 127 characters.
TEST(OsFiles, WriteSeekReadForShortAndLongNames) {
    bytes data = pattern(5000);
    for (const std::string &leaf : {std::string("short.bin"), "long_" + std::string(150, 'n') + ".bin"}) {
        std::string name = temp_path(leaf);
        SCOPED_TRACE(name.size());
        write_file(name, pattern(300));
        int fd = os_create(name.c_str());
        ASSERT_GE(fd, 0);
        EXPECT_NE(fd, MEMORY_FD);
        EXPECT_EQ(os_seek(fd, 0, 2), 0) << "creation truncates";
        int32_t written = 0;
        for (int32_t step : {1, 999, 0, 4000}) {  // uneven chunks add up; a zero count changes nothing
            EXPECT_EQ(os_write(fd, data.data() + written, step), step);
            written += step;
        }
        EXPECT_EQ(os_seek(fd, 0, 1), 5000);
        EXPECT_EQ(os_seek(fd, -100, 2), 4900);
        uint8_t tail[200] = {};
        EXPECT_EQ(os_read(fd, tail, sizeof tail), 100) << "a read at the end comes out short";
        EXPECT_EQ(bytes(tail, tail + 100), bytes(data.end() - 100, data.end()));
        EXPECT_EQ(os_read(fd, tail, sizeof tail), 0);
        EXPECT_EQ(os_seek(fd, 1234, 0), 1234);
        EXPECT_EQ(os_read(fd, tail, 0), 0);
        EXPECT_EQ(os_read(fd, tail, 10), 10);
        EXPECT_EQ(bytes(tail, tail + 10), bytes(data.begin() + 1234, data.begin() + 1244));
        EXPECT_EQ(os_close(fd), 0);
        EXPECT_EQ(read_file(name), data);

        int ro = os_open(name.c_str(), OS_OPEN_READ);
        ASSERT_GE(ro, 0);
        EXPECT_EQ(os_write(ro, data.data(), 10), -1) << "a read-only handle takes no writes";
        EXPECT_EQ(os_close(ro), 0);
        int rw = os_open(name.c_str(), OS_OPEN_READWRITE);
        ASSERT_GE(rw, 0);
        EXPECT_EQ(os_write(rw, "XY", 2), 2);
        EXPECT_EQ(os_close(rw), 0);
        data[0] = 'X', data[1] = 'Y';
        EXPECT_EQ(read_file(name), data) << "opening for writing does not truncate";

        EXPECT_TRUE(os_exists(name.c_str()));
        EXPECT_EQ(os_delete(name.c_str()), 0);
        EXPECT_FALSE(os_exists(name.c_str()));
        EXPECT_EQ(os_open(name.c_str(), OS_OPEN_READ), -1);
        EXPECT_EQ(os_delete(name.c_str()), -1);
        data = pattern(5000);
    }
}

// A bare name means the current directory, whatever else the system searches.
TEST(OsFiles, RelativeNamesResolveInTheCurrentDirectory) {
    fs::path sub = temp_path("relative_dir");
    fs::create_directories(sub);
    fs::path old = fs::current_path();
    fs::current_path(sub);
    int fd = os_create("relative.bin");
    EXPECT_EQ(os_write(fd, "abc", 3), 3);
    EXPECT_EQ(os_close(fd), 0);
    int again = os_open("relative.bin", OS_OPEN_READ);
    char got[4] = {};
    EXPECT_EQ(os_read(again, got, 3), 3);
    EXPECT_STREQ(got, "abc");
    EXPECT_EQ(os_close(again), 0);
    EXPECT_EQ(os_open("no_such_file.bin", OS_OPEN_READ), -1);
    fs::current_path(old);
    EXPECT_EQ(read_file((sub / "relative.bin").string()), (bytes{'a', 'b', 'c'}));
    fs::remove_all(sub);
}

TEST(OsFiles, BadNamesAndHandlesFail) {
    EXPECT_EQ(os_open(nullptr, OS_OPEN_READ), -1);
    EXPECT_EQ(os_open("", OS_OPEN_READ), -1);
    EXPECT_EQ(os_create(""), -1);
    EXPECT_FALSE(os_exists(nullptr));
    EXPECT_FALSE(os_exists(""));
    EXPECT_EQ(os_delete(nullptr), -1);
    EXPECT_EQ(os_create((temp_path("no_such_dir") + "/file.bin").c_str()), -1);
}

// Temporary files: made new in the temporary directory; on POSIX under a
// name of their own, so two at once never meet, while Windows keeps its one
// fixed name, img1.tmp. Mode 1 reopens, others are refused.
TEST(OsFiles, TempFilesAreNewAndTheirOwn) {
    const std::string dir = use_private_temp_dir("tempfiles");
    char a[TEMP_NAME_SIZE], b[TEMP_NAME_SIZE];
    int fa = open_temp_file(a, 0);
    ASSERT_GE(fa, 0);
#ifdef _WIN32
    EXPECT_EQ(std::string(a), dir + "img1.tmp");
    int fb = -1;
    b[0] = 0;
#else
    int fb = open_temp_file(b, 0);
    ASSERT_GE(fb, 0);
    EXPECT_STRNE(a, b);
#endif
    EXPECT_EQ(std::string(a).rfind(dir, 0), 0u) << a << " is not in " << dir;
    EXPECT_EQ(os_write(fa, "temp", 4), 4);
    EXPECT_EQ(os_close(fa), 0);
    int again = open_temp_file(a, 1);
    char got[5] = {};
    EXPECT_EQ(os_read(again, got, 4), 4);
    EXPECT_STREQ(got, "temp");
    EXPECT_EQ(os_close(again), 0);
    EXPECT_EQ(open_temp_file(a, 2), -1);
    char tiny[2];
    EXPECT_FALSE(os_temp_dir(tiny, sizeof tiny));
    if (fb >= 0) os_close(fb);
    os_delete(a);
    if (b[0]) os_delete(b);
    EXPECT_EQ(temp_files_in(dir), 0);
}
