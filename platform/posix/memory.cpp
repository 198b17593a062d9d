// Movable memory blocks on POSIX: a table of malloc'd blocks with lock counts.
// A block name packs the table slot (low 20 bits, plus one) and a generation
// count (bits 20-30), so a freed name is not mistaken for its slot's next user.
#include "platform/platform.h"

#include <cstdlib>
#include <cstring>
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace brv {

namespace {

struct block_entry {
    void *data;
    uint32_t size;
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
        table[slot - 1] = block_entry{nullptr, 0, 0, 0};
    }
    // Never a zero-sized malloc: every block has a distinct address.
    void *p = (flags & MEM_ZEROINIT) ? std::calloc(size ? size : 1, 1) : std::malloc(size ? size : 1);
    block_entry &e = table[slot - 1];
    if (!p) {
        e.data = reinterpret_cast<void *>(static_cast<uintptr_t>(free_head) << 1 | 1);
        free_head = slot;
        return 0;
    }
    advise_large(p, size);
    e.data = p;
    e.size = size;
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
    std::free(e->data);
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

}  // namespace brv
