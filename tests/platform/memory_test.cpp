// Memory blocks: names, address lookup and block reuse.  (The failure
// switch is what every allocation sweep counts on.)
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

// The library's internal names, which the tests reach past the API.
namespace brv {}
using namespace brv;

TEST(MemoryBlocks, NamesArePositiveAndStaleNamesAreRejected) {
    int live = mem_live_blocks();
    mem_block a = mem_alloc(16, MEM_MOVEABLE | MEM_ZEROINIT);
    ASSERT_GT(a, 0);
    EXPECT_EQ(mem_size(a), 16u);
    auto *p = static_cast<uint8_t *>(mem_lock(a));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 16; i++) EXPECT_EQ(p[i], 0) << i;
    EXPECT_EQ(mem_handle(p), a);
    EXPECT_EQ(mem_handle(p + 1), 0) << "an inner address names no block";
    EXPECT_EQ(mem_unlock(a), 0);
    EXPECT_EQ(mem_free(a), 0);
    EXPECT_EQ(mem_lock(a), nullptr) << "a freed name must not lock";
    mem_block b = mem_alloc(8, MEM_MOVEABLE);
    EXPECT_NE(b, a) << "a reused slot gets a new name";
    EXPECT_EQ(mem_free(a), a) << "freeing a stale name fails";
    mem_free(b);
    EXPECT_EQ(mem_live_blocks(), live);
}

#ifndef _WIN32
// Freed picture-sized blocks are kept for the next block of about their
// size: not alive, never carrying old bytes into a cleared block, sized as
// asked; bounded, and the failure switch still fails the k-th request.
TEST(MemoryBlocks, FreedLargeBlocksAreReusedClean) {
    constexpr uint32_t BIG = 4u << 20;
    const struct { uint32_t next; unsigned zero; bool reused; } cases[] = {
        {BIG, MEM_ZEROINIT, true}, {BIG - BIG / 8, MEM_ZEROINIT, true}, {BIG, 0, true},
        {BIG / 2, MEM_ZEROINIT, false} /* would waste half the block */, {BIG + 1, 0, false}};
    for (const auto &c : cases) {
        mem_trim();
        const int live = mem_live_blocks();
        mem_block a = mem_alloc(BIG, MEM_MOVEABLE);
        auto *old = static_cast<uint8_t *>(mem_lock(a));
        std::memset(old, 0xA5, BIG);
        mem_free(a);
        EXPECT_EQ(mem_live_blocks(), live);
        mem_block b = mem_alloc(c.next, MEM_MOVEABLE | c.zero);
        auto *p = static_cast<uint8_t *>(mem_lock(b));
        EXPECT_EQ(p == old, c.reused) << c.next;
        EXPECT_EQ(mem_size(b), c.next);
        if (c.zero) {
            EXPECT_EQ(std::count(p, p + c.next, 0), static_cast<std::ptrdiff_t>(c.next));
        }
        mem_free(b);
    }
    mem_block held[8];
    for (mem_block &b : held) b = mem_alloc(BIG, MEM_MOVEABLE);
    for (mem_block b : held) mem_free(b);
    EXPECT_LE(mem_cached_bytes(), 4 * BIG);
    mem_fail_after(1);
    EXPECT_EQ(mem_alloc(BIG, MEM_MOVEABLE), 0);
    mem_trim();
    EXPECT_EQ(mem_cached_bytes(), 0u);
}
#endif  // Windows gives each freed block back to the system

#ifdef __SANITIZE_ADDRESS__  // the sanitizer build (make sanitize) is a g++ one
// To the address sanitizer a kept block is freed memory, and a reused
// larger block ends where the request does.
TEST(MemoryBlocksDeathTest, KeptAndReusedBlocksKeepTheirBounds) {
    constexpr uint32_t BIG = 4u << 20;
    auto touch = [](uint32_t asked_again, uint32_t at) {
        mem_block a = mem_alloc(BIG, MEM_MOVEABLE);
        auto *p = static_cast<volatile uint8_t *>(mem_lock(a));
        mem_free(a);
        if (asked_again) p = static_cast<volatile uint8_t *>(mem_lock(mem_alloc(asked_again, MEM_MOVEABLE)));
        p[at] = 1;
    };
    EXPECT_DEATH(touch(0, 100), "use-after-poison");
    EXPECT_DEATH(touch(BIG - 4096, BIG - 4096), "use-after-poison");
}
#endif
