// Movable memory blocks on Windows: global memory blocks, each named by its
// HGLOBAL.  A small hash set of the blocks made here keeps the live count
// exact and lets blocks that an application allocated itself pass through.
// A freed block gives its memory back at once but keeps its handle for the
// next QUARANTINE frees, so a stale name fails instead of reaching the block
// the system would otherwise hand out under the same handle.
#include "platform/platform.h"

#include <windows.h>

namespace brv {

namespace {

// Open addressing over handle values; handles are aligned, so 0 and 1 can
// mark empty and deleted slots.
struct owned_entry {
    uintptr_t handle;
    bool empty_request;  // asked for 0 bytes: one is allocated, 0 is reported
};
constexpr uintptr_t SLOT_EMPTY = 0;
constexpr uintptr_t SLOT_DELETED = 1;

owned_entry *owned = nullptr;
uint32_t owned_cap = 0;
uint32_t owned_filled = 0;  // live and deleted slots
int live = 0;
int fail_countdown = 0;

constexpr int QUARANTINE = 256;
HGLOBAL quarantine[QUARANTINE];  // discarded handles, oldest at quarantine_next
int quarantine_next = 0;

bool in_quarantine(HGLOBAL h) {
    for (HGLOBAL q : quarantine)
        if (q == h) return true;
    return false;
}

// Gives the memory back now and the handle later.
void retire(HGLOBAL h) {
    while (GlobalFlags(h) & GMEM_LOCKCOUNT) GlobalUnlock(h);
    if (!GlobalDiscard(h)) {
        GlobalFree(h);
        return;
    }
    if (quarantine[quarantine_next]) GlobalFree(quarantine[quarantine_next]);
    quarantine[quarantine_next] = h;
    quarantine_next = (quarantine_next + 1) % QUARANTINE;
}

uint32_t hash_of(uintptr_t h, uint32_t cap) {
    uint64_t x = static_cast<uint64_t>(h) * 0x9E3779B97F4A7C15ull;
    return static_cast<uint32_t>(x >> 32) & (cap - 1);
}

owned_entry *find_owned(uintptr_t h) {
    if (!owned) return nullptr;
    for (uint32_t i = hash_of(h, owned_cap), n = 0; n < owned_cap; i = (i + 1) & (owned_cap - 1), n++) {
        if (owned[i].handle == SLOT_EMPTY) return nullptr;
        if (owned[i].handle == h) return &owned[i];
    }
    return nullptr;
}

bool place(owned_entry *table, uint32_t cap, owned_entry e) {
    for (uint32_t i = hash_of(e.handle, cap), n = 0; n < cap; i = (i + 1) & (cap - 1), n++) {
        if (table[i].handle == SLOT_EMPTY || table[i].handle == SLOT_DELETED) {
            bool fresh = table[i].handle == SLOT_EMPTY;
            table[i] = e;
            return fresh;
        }
    }
    return false;
}

bool add_owned(uintptr_t h, bool empty_request) {
    if ((owned_filled + 1) * 2 > owned_cap) {
        // Rehash into a table sized for twice the live blocks; deleted slots go.
        uint32_t cap = 64;
        while (cap < static_cast<uint32_t>(live + 1) * 4) cap *= 2;
        auto *grown = static_cast<owned_entry *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, cap * sizeof(owned_entry)));
        if (!grown) return false;
        uint32_t filled = 0;
        for (uint32_t i = 0; i < owned_cap; i++)
            if (owned[i].handle > SLOT_DELETED) filled += place(grown, cap, owned[i]);
        if (owned) HeapFree(GetProcessHeap(), 0, owned);
        owned = grown;
        owned_cap = cap;
        owned_filled = filled;
    }
    owned_filled += place(owned, owned_cap, owned_entry{h, empty_request});
    return true;
}

// Names are positive 32-bit values; a handle that does not fit has no name.
mem_block name_of(HGLOBAL h) {
    auto v = reinterpret_cast<uintptr_t>(h);
    return v > 0 && v <= 0x7FFFFFFF ? static_cast<mem_block>(v) : 0;
}

HGLOBAL handle_of(mem_block block) {
    return block > 0 ? reinterpret_cast<HGLOBAL>(static_cast<uintptr_t>(block)) : nullptr;
}

bool take_failure() {
    if (fail_countdown <= 0) return false;
    return --fail_countdown == 0;
}

}  // namespace

mem_block mem_alloc(uint32_t size, unsigned flags) {
    if (take_failure()) return 0;
    if (size > 0x7FFF0000u) return 0;
    // Always movable, so the name is a handle and not an address; one byte
    // at least, so an empty block can still be locked.  Discardable only so
    // that freeing can discard it: the system never does so by itself.
    UINT gflags = GMEM_MOVEABLE | GMEM_DISCARDABLE | ((flags & MEM_ZEROINIT) ? GMEM_ZEROINIT : 0);
    HGLOBAL h = GlobalAlloc(gflags, size ? size : 1);
    if (!h) return 0;
    mem_block name = name_of(h);
    if (!name || !add_owned(reinterpret_cast<uintptr_t>(h), size == 0)) {
        GlobalFree(h);
        return 0;
    }
    live++;
    return name;
}

void *mem_lock(mem_block block) {
    HGLOBAL h = handle_of(block);
    return h ? GlobalLock(h) : nullptr;
}

int mem_unlock(mem_block block) {
    HGLOBAL h = handle_of(block);
    if (!h) return 0;
    GlobalUnlock(h);
    UINT f = GlobalFlags(h);
    return f == GMEM_INVALID_HANDLE ? 0 : static_cast<int>(f & GMEM_LOCKCOUNT);
}

mem_block mem_free(mem_block block) {
    HGLOBAL h = handle_of(block);
    if (!h || in_quarantine(h)) return block;
    owned_entry *e = find_owned(reinterpret_cast<uintptr_t>(h));
    if (!e) return GlobalFree(h) ? block : 0;  // an application's own block
    e->handle = SLOT_DELETED;
    live--;
    retire(h);
    return 0;
}

uint32_t mem_size(mem_block block) {
    HGLOBAL h = handle_of(block);
    if (!h) return 0;
    if (owned_entry *e = find_owned(reinterpret_cast<uintptr_t>(h)); e && e->empty_request) return 0;
    return static_cast<uint32_t>(GlobalSize(h));
}

mem_block mem_handle(const void *address) {
    if (!address) return 0;
    HGLOBAL h = GlobalHandle(address);
    if (!h) return 0;
    // Only the start of a block names it: confirm through the block itself.
    void *start = GlobalLock(h);
    if (!start) return 0;
    GlobalUnlock(h);
    return start == address ? name_of(h) : 0;
}

void mem_fail_after(int k) { fail_countdown = k > 0 ? k : 0; }

int mem_live_blocks() { return live; }

// Freed blocks go straight back to the system here: nothing is kept.
void mem_trim() {}

uint32_t mem_cached_bytes() { return 0; }

}  // namespace brv
