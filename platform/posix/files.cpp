// Files, temporary directory and tick count on POSIX.
#include "platform/platform.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace brv {

int os_open(const char *name, int mode) {
    if (!name || !*name) return -1;
    int flags = (mode == OS_OPEN_READWRITE) ? O_RDWR : O_RDONLY;
    int fd;
    do fd = ::open(name, flags | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
}

int os_create(const char *name) {
    if (!name || !*name) return -1;
    int fd;
    do fd = ::open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    while (fd < 0 && errno == EINTR);
    return fd;
}

bool os_exists(const char *name) {
    struct stat st;
    return name && *name && ::stat(name, &st) == 0;
}

int32_t os_read(int fd, void *buffer, int32_t count) {
    if (count <= 0) return 0;
    int32_t done = 0;
    auto *p = static_cast<char *>(buffer);
    while (done < count) {
        ssize_t n = ::read(fd, p + done, static_cast<size_t>(count - done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return done ? done : -1;
        if (n == 0) break;
        done += static_cast<int32_t>(n);
    }
    return done;
}

int32_t os_write(int fd, const void *buffer, int32_t count) {
    if (count <= 0) return 0;
    int32_t done = 0;
    auto *p = static_cast<const char *>(buffer);
    while (done < count) {
        ssize_t n = ::write(fd, p + done, static_cast<size_t>(count - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return done ? done : -1;
        done += static_cast<int32_t>(n);
    }
    return done;
}

int32_t os_seek(int fd, int32_t offset, int origin) {
    int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
    off_t pos = ::lseek(fd, offset, whence);
    if (pos < 0 || pos > 0x7FFFFFFF) return -1;
    return static_cast<int32_t>(pos);
}

int os_close(int fd) { return ::close(fd); }

int os_delete(const char *name) { return name ? ::unlink(name) : -1; }

bool os_temp_dir(char *dir, int capacity) {
    const char *t = std::getenv("TMPDIR");
    if (!t || !*t) t = "/tmp";
    size_t n = std::strlen(t);
    bool slash = t[n - 1] == '/';
    if (static_cast<int>(n + (slash ? 1 : 2)) > capacity) return false;
    std::memcpy(dir, t, n);
    if (!slash) dir[n++] = '/';
    dir[n] = 0;
    return true;
}

int os_create_temp(char *name, int capacity) {
    char dir[256];
    if (!os_temp_dir(dir, sizeof dir)) return -1;
    int n = std::snprintf(name, capacity > 0 ? static_cast<size_t>(capacity) : 0, "%sbrivanta-XXXXXX", dir);
    if (n <= 0 || n >= capacity) return -1;
    // mkostemp opens with O_EXCL under a random name, and never follows a planted link.
    int fd;
    do fd = ::mkostemp(name, O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
}

uint32_t os_tick_count() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec * 1000u + ts.tv_nsec / 1000000);
}

}  // namespace brv
