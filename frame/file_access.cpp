// The file access layer: every reader and writer reads and writes through
// here, and the layer routes to the caller's hooks, the memory source or a file.
#include "frame/frame.h"

#include <cstdio>
#include <utility>

namespace brv {

namespace {

struct memory_source {
    uint8_t *base = nullptr;
    int32_t size = 0;
    int32_t position = 0;
    bool sized = false;  // size is the block's own, not a stand-in
    bool active = false; // a memory call is running
};
memory_source source;

bool is_memory(int fd) { return fd == MEMORY_FD && source.active; }

// Readers keep at most twenty scratch blocks alive; the extra room means a
// reader that holds more never loses track of one.
constexpr int SCRATCH_CAPACITY = 64;
void *scratch[SCRATCH_CAPACITY];

}  // namespace

int32_t file_seek(int fd, int32_t offset, int origin) {
    if (settings.seek_hook) return settings.seek_hook(fd, offset, origin);
    if (is_memory(fd)) {
        int64_t p = origin == 0 ? offset : origin == 1 ? int64_t{source.position} + offset : int64_t{source.size} + offset;
        // Positions are not bounds-checked here; reads and writes check them.
        source.position = static_cast<int32_t>(p);
        return source.position;
    }
    return os_seek(fd, offset, origin);
}

int32_t file_read(int fd, void *buffer, int32_t count) {
    if (settings.read_hook) return settings.read_hook(fd, buffer, count);
    if (is_memory(fd)) {
        if (count <= 0) return 0;
        // Past the end the read reports success without copying; readers
        // find the end from their format's own counts.
        if (source.position >= source.size || source.position < 0) return count;
        int32_t n = source.size - source.position < count ? source.size - source.position : count;
        std::memcpy(buffer, source.base + source.position, n);
        source.position += n;
        return n;
    }
    return os_read(fd, buffer, count);
}

int32_t file_write(int fd, const void *buffer, int32_t count) {
    if (settings.write_hook) return settings.write_hook(fd, buffer, count);
    if (is_memory(fd)) {
        if (count <= 0) return 0;
        if (source.position >= source.size || source.position < 0) return count;
        int32_t n = source.size - source.position < count ? source.size - source.position : count;
        std::memcpy(source.base + source.position, buffer, n);
        source.position += n;
        return n;
    }
    return os_write(fd, buffer, count);
}

int32_t file_length(int fd) {
    if (is_memory(fd) && !settings.seek_hook) return source.position;
    int32_t here = file_seek(fd, 0, 1);
    int32_t end = file_seek(fd, 0, 2);
    file_seek(fd, here, 0);
    return end;
}

int32_t file_size_hint(int fd) {
    if (settings.read_hook) return 0x7FFFFFFF;
    if (is_memory(fd)) return source.size;
    int32_t here = os_seek(fd, 0, 1);
    int32_t end = os_seek(fd, 0, 2);
    os_seek(fd, here, 0);
    return end < 0 ? 0x7FFFFFFF : end;
}

void memory_source_set(void *block) {
    source.base = static_cast<uint8_t *>(block);
    source.position = 0;
    // An address that is not the start of a block has no known size; a
    // block of zero bytes is empty, not unbounded.
    mem_block b = mem_handle(block);
    source.size = b ? static_cast<int32_t>(mem_size(b)) : 0x70000000;
    source.sized = b != 0;
    source.active = true;
}

void memory_source_end() { source.active = false; }

const uint8_t *file_map(int fd, int32_t *count) {
    *count = 0;
    if (!is_memory(fd) || settings.read_hook || settings.seek_hook || !source.sized || !source.base) return nullptr;
    if (source.position >= 0 && source.position < source.size) *count = source.size - source.position;
    return *count ? source.base + source.position : source.base;
}

void *scratch_alloc(uint32_t size) {
    int slot = -1;
    for (int i = 0; i < SCRATCH_CAPACITY; i++)
        if (!scratch[i]) {
            slot = i;
            break;
        }
    if (slot < 0) return nullptr;
    mem_block b = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
    if (!b) return nullptr;
    void *p = mem_lock(b);
    if (!p) {
        mem_free(b);
        return nullptr;
    }
    scratch[slot] = p;
    return p;
}

static void release(void *p) {
    mem_block b = mem_handle(p);
    mem_unlock(b);
    mem_free(b);
}

void scratch_free(void *address) {
    if (!address) return;
    for (int i = 0; i < SCRATCH_CAPACITY; i++)
        if (scratch[i] == address) {
            release(address);
            scratch[i] = nullptr;
            return;
        }
}

void scratch_free_all() {
    for (int i = SCRATCH_CAPACITY - 1; i >= 0; i--)
        if (scratch[i]) {
            release(scratch[i]);
            scratch[i] = nullptr;
        }
}

int scratch_count() {
    int n = 0;
    for (void *p : scratch) n += p != nullptr;
    return n;
}

int open_temp_file(char *name, int mode) {
    if (mode == 1) return os_open(name, OS_OPEN_READ);
    if (mode != 0) return -1;
    return os_create_temp(name, TEMP_NAME_SIZE);
}

void swap16_array(void *items, int count) {
    auto *p = static_cast<uint8_t *>(items);
    for (int i = 0; i < count; i++, p += 2) std::swap(p[0], p[1]);
}

void swap32_array(void *items, int count) {
    auto *p = static_cast<uint8_t *>(items);
    for (int i = 0; i < count; i++, p += 4) {
        std::swap(p[0], p[3]);
        std::swap(p[1], p[2]);
    }
}

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" int IMG_API IMGLOW_set_fileio(IMG_read_fn read, IMG_write_fn write, IMG_seek_fn seek) {
    settings.read_hook = read;
    settings.write_hook = write;
    settings.seek_hook = seek;
    return 0;
}
