// Files, temporary files and tick count on Windows, through the HFILE calls
// (OpenFile, _lread, _lwrite, _llseek, _lclose), so a handle is a plain int.
#include "platform/platform.h"

#include <cstring>
#include <windows.h>

namespace brv {

namespace {

// OpenFile takes a bare name as a request to search the system directories
// and the PATH; a full name means the current directory, as elsewhere.
// Its record holds names below 128 characters: longer ones go to _lopen/_lcreat.
int open_hfile(const char *name, UINT style) {
    if (!name || !*name) return -1;
    char full[MAX_PATH];
    DWORD n = GetFullPathNameA(name, sizeof full, full, nullptr);
    if (n == 0 || n >= sizeof full) return -1;
    if (n < OFS_MAXPATHNAME) {
        OFSTRUCT of{};
        of.cBytes = sizeof of;
        HFILE f = OpenFile(full, &of, style | OF_SHARE_DENY_NONE);
        return f == HFILE_ERROR ? -1 : static_cast<int>(f);
    }
    HFILE f;
    if (style & OF_CREATE)
        f = _lcreat(full, 0);
    else
        f = _lopen(full, (style & OF_READWRITE ? OF_READWRITE : OF_READ) | OF_SHARE_DENY_NONE);
    return f == HFILE_ERROR ? -1 : static_cast<int>(f);
}

}  // namespace

int os_open(const char *name, int mode) {
    return open_hfile(name, mode == OS_OPEN_READWRITE ? OF_READWRITE : OF_READ);
}

int os_create(const char *name) { return open_hfile(name, OF_CREATE | OF_READWRITE); }

bool os_exists(const char *name) {
    return name && *name && GetFileAttributesA(name) != INVALID_FILE_ATTRIBUTES;
}

int32_t os_read(int fd, void *buffer, int32_t count) {
    if (count <= 0) return 0;
    int32_t done = 0;
    auto *p = static_cast<char *>(buffer);
    while (done < count) {
        UINT n = _lread(fd, p + done, static_cast<UINT>(count - done));
        if (n == static_cast<UINT>(HFILE_ERROR)) return done ? done : -1;
        if (n == 0) break;
        done += static_cast<int32_t>(n);
    }
    return done;
}

int32_t os_write(int fd, const void *buffer, int32_t count) {
    // A zero count would truncate the file at the current position.
    if (count <= 0) return 0;
    int32_t done = 0;
    auto *p = static_cast<const char *>(buffer);
    while (done < count) {
        UINT n = _lwrite(fd, p + done, static_cast<UINT>(count - done));
        if (n == static_cast<UINT>(HFILE_ERROR) || n == 0) return done ? done : -1;
        done += static_cast<int32_t>(n);
    }
    return done;
}

int32_t os_seek(int fd, int32_t offset, int origin) {
    if (origin < 0 || origin > 2) return -1;
    LONG pos = _llseek(fd, offset, origin);
    return pos < 0 ? -1 : static_cast<int32_t>(pos);
}

int os_close(int fd) { return _lclose(fd) == HFILE_ERROR ? -1 : 0; }

int os_delete(const char *name) { return name && DeleteFileA(name) ? 0 : -1; }

bool os_temp_dir(char *dir, int capacity) {
    if (capacity <= 1) return false;
    DWORD n = GetTempPathA(static_cast<DWORD>(capacity), dir);
    return n > 0 && n < static_cast<DWORD>(capacity);
}

int os_create_temp(char *name, int capacity) {
    char dir[MAX_PATH], full[MAX_PATH];
    DWORD n = GetTempPathA(sizeof dir, dir);
    if (n == 0 || n >= sizeof dir) return -1;
    // The library's one name in the user's own temporary folder, made anew.
    if (!GetTempFileNameA(dir, "img", 1, full)) return -1;
    size_t len = std::strlen(full);
    if (capacity <= 0 || len >= static_cast<size_t>(capacity)) return -1;
    std::memcpy(name, full, len + 1);
    return os_create(name);
}

uint32_t os_tick_count() { return GetTickCount(); }

}  // namespace brv
