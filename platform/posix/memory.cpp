// Movable memory blocks on POSIX: a table of malloc'd blocks with lock counts.
// A block name packs the table slot (low 20 bits, plus one) and a generation
// count (bits 20-30), so a freed name is not mistaken for its slot's next user.
// Freed picture-sized blocks are kept for the next block of about their size:
// fresh memory of that size comes from the system as pages it must fault in
// and clear, which costs as much as the load that fills them.
#include "platform/platform.h"

#include <cstdlib>
#include <cstring>
#if defined(__linux__)
#include <sys/mman.h>
#endif

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BRV_ASAN 1
#endif
#if __has_feature(memory_sanitizer)
#define BRV_MSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define BRV_ASAN 1
#endif
#ifdef BRV_ASAN
#include <sanitizer/asan_interface.h>
#endif
#ifdef BRV_MSAN
#include <sanitizer/msan_interface.h>
#endif

namespace brv {

namespace {

struct block_entry {
    void *data;
    uint32_t size;
    uint32_t capacity;  // what was allocated: more than size for a reused block
    int32_t locks;
    uint32_t generation;
};

constexpr uint32_t SLOT_BITS = 20;
constexpr uint32_t SLOT_MASK = (1u << SLOT_BITS) - 1;
constexpr uint32_t GEN_MASK = 0x7FF;

block_entry *table = nullptr;
uint32_t table_cap = 0;
uint32_t table_used = 0;      // slots ever handed out
uint32_t free_head = 0;       // 1-based slot of the first free slot, 0 = none
int live = 0;
int fail_countdown = 0;

bool is_free(const block_entry &e) {
    return !e.data || (reinterpret_cast<uintptr_t>(e.data) & 1);
}

block_entry *entry_of(mem_block block) {
    if (block <= 0) return nullptr;
    uint32_t slot = (static_cast<uint32_t>(block) & SLOT_MASK);
    uint32_t gen = (static_cast<uint32_t>(block) >> SLOT_BITS) & GEN_MASK;
    if (slot == 0 || slot > table_used) return nullptr;
    block_entry *e = &table[slot - 1];
    if (is_free(*e) || e->generation != gen) return nullptr;
    return e;
}

// Picture-sized blocks are first touched row by row right after they are
// taken; asking for huge pages there saves thousands of page faults a load.
void advise_large(void *p, uint32_t size) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr uintptr_t HUGE = uintptr_t{2} << 20;
    if (size < 4 * HUGE) return;
    uintptr_t start = (reinterpret_cast<uintptr_t>(p) + HUGE - 1) & ~(HUGE - 1);
    uintptr_t end = (reinterpret_cast<uintptr_t>(p) + size) & ~(HUGE - 1);
    if (end > start) madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
#else
    (void)p;
    (void)size;
#endif
}

// ---- Freed large blocks kept for reuse -------------------------------------
// A few blocks, oldest first; bounded in count and bytes, and given back to
// the system whenever an allocation fails.
constexpr uint32_t CACHE_MIN = 1u << 20;
constexpr int CACHE_SLOTS = 4;
constexpr uint64_t CACHE_BYTES = sizeof(void *) >= 8 ? uint64_t{256} << 20 : uint64_t{64} << 20;

struct cached_block {
    void *data;
    uint32_t capacity;
};
cached_block cache[CACHE_SLOTS];
int cache_count = 0;
uint64_t cache_bytes = 0;

// Takes entry i out of the cache and returns its block.
void *cache_unlink(int i, uint32_t *capacity) {
    void *p = cache[i].data;
    *capacity = cache[i].capacity;
    cache_bytes -= *capacity;
    for (int k = i + 1; k < cache_count; k++) cache[k - 1] = cache[k];
    cache_count--;
    return p;
}

void cache_drop(int i) {
    uint32_t capacity;
    void *p = cache_unlink(i, &capacity);
#ifdef BRV_ASAN
    ASAN_UNPOISON_MEMORY_REGION(p, capacity);
#endif
    std::free(p);
}

// Keeps a freed block, or frees it when it is too small or can never fit.
void cache_put(void *p, uint32_t capacity) {
    if (capacity < CACHE_MIN || capacity > CACHE_BYTES) {
        std::free(p);
        return;
    }
    while (cache_count && (cache_count == CACHE_SLOTS || cache_bytes + capacity > CACHE_BYTES)) cache_drop(0);
    // Until it is handed out again, any use of it is a use of freed memory.
#ifdef BRV_ASAN
    ASAN_POISON_MEMORY_REGION(p, capacity);
#endif
#ifdef BRV_MSAN
    __msan_poison(p, capacity);
#endif
    cache[cache_count++] = cached_block{p, capacity};
    cache_bytes += capacity;
}

// The smallest kept block that holds size bytes without wasting more than a
// quarter of it, taken out of the cache; null when none fits.
void *cache_take(uint32_t size, uint32_t *capacity) {
    if (size < CACHE_MIN) return nullptr;
    int best = -1;
    for (int i = 0; i < cache_count; i++) {
        const uint32_t c = cache[i].capacity;
        if (c >= size && c - size <= c / 4 && (best < 0 || c < cache[best].capacity)) best = i;
    }
    if (best < 0) return nullptr;
    void *p = cache_unlink(best, capacity);
    // Only the asked-for bytes become usable: the tail stays out of bounds.
#ifdef BRV_ASAN
    ASAN_UNPOISON_MEMORY_REGION(p, size);
#endif
#ifdef BRV_MSAN
    __msan_allocated_memory(p, size);
#endif
    return p;
}

// A new block of size bytes (at least one): from the cache when one fits,
// else from the system, giving the cache back first if the system refuses.
void *block_get(uint32_t size, bool zero, uint32_t *capacity) {
    if (void *p = cache_take(size, capacity)) {
        if (zero) std::memset(p, 0, size);
        return p;
    }
    const size_t n = size ? size : 1;  // never a zero-sized malloc: every block has a distinct address
    for (;;) {
        void *p = zero ? std::calloc(n, 1) : std::malloc(n);
        if (p) {
            advise_large(p, size);
            *capacity = size;
            return p;
        }
        if (!cache_count) return nullptr;
        mem_trim();
    }
}

bool take_failure() {
    if (fail_countdown <= 0) return false;
    return --fail_countdown == 0;
}

}  // namespace

mem_block mem_alloc(uint32_t size, unsigned flags) {
    if (take_failure()) return 0;
    if (size > 0x7FFF0000u) return 0;
    uint32_t slot;
    if (free_head) {
        slot = free_head;
        free_head = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(table[slot - 1].data) >> 1);
        table[slot - 1].data = nullptr;
    } else {
        if (table_used == SLOT_MASK) return 0;
        if (table_used == table_cap) {
            uint32_t cap = table_cap ? table_cap * 2 : 64;
            auto *grown = static_cast<block_entry *>(std::realloc(table, cap * sizeof(block_entry)));
            if (!grown) return 0;
            table = grown;
            table_cap = cap;
        }
        slot = ++table_used;
        table[slot - 1] = block_entry{nullptr, 0, 0, 0, 0};
    }
    uint32_t capacity = 0;
    void *p = block_get(size, (flags & MEM_ZEROINIT) != 0, &capacity);
    block_entry &e = table[slot - 1];
    if (!p) {
        e.data = reinterpret_cast<void *>(static_cast<uintptr_t>(free_head) << 1 | 1);
        free_head = slot;
        return 0;
    }
    e.data = p;
    e.size = size;
    e.capacity = capacity;
    e.locks = 0;
    live++;
    return static_cast<mem_block>(((e.generation & GEN_MASK) << SLOT_BITS) | slot);
}

void *mem_lock(mem_block block) {
    block_entry *e = entry_of(block);
    if (!e) return nullptr;
    e->locks++;
    return e->data;
}

int mem_unlock(mem_block block) {
    block_entry *e = entry_of(block);
    if (!e) return 0;
    if (e->locks > 0) e->locks--;
    return e->locks;
}

mem_block mem_free(mem_block block) {
    block_entry *e = entry_of(block);
    if (!e) return block;
    cache_put(e->data, e->capacity);
    uint32_t slot = static_cast<uint32_t>(block) & SLOT_MASK;
    // A free slot keeps the free-list link in its data word, tagged odd so it
    // can never equal a real (aligned) block address.
    e->data = reinterpret_cast<void *>(static_cast<uintptr_t>(free_head) << 1 | 1);
    e->size = 0;
    e->locks = 0;
    e->generation = (e->generation + 1) & GEN_MASK;
    free_head = slot;
    live--;
    return 0;
}

uint32_t mem_size(mem_block block) {
    block_entry *e = entry_of(block);
    return e ? e->size : 0;
}

mem_block mem_handle(const void *address) {
    if (!address) return 0;
    for (uint32_t i = 0; i < table_used; i++) {
        if (table[i].data == address && !is_free(table[i]))
            return static_cast<mem_block>(((table[i].generation & GEN_MASK) << SLOT_BITS) | (i + 1));
    }
    return 0;
}

void mem_fail_after(int k) { fail_countdown = k > 0 ? k : 0; }

int mem_live_blocks() { return live; }

void mem_trim() {
    while (cache_count) cache_drop(cache_count - 1);
}

uint32_t mem_cached_bytes() { return static_cast<uint32_t>(cache_bytes); }

}  // namespace brv
