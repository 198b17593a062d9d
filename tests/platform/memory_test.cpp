// Memory blocks: names, lock counts, address lookup and the failure switch.
#include "platform/platform.h"

#include <gtest/gtest.h>

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

TEST(MemoryBlocks, LocksCount) {
    mem_block a = mem_alloc(4, MEM_MOVEABLE);
    mem_lock(a);
    mem_lock(a);
    EXPECT_EQ(mem_unlock(a), 1);
    EXPECT_EQ(mem_unlock(a), 0);
    EXPECT_EQ(mem_unlock(a), 0) << "unlocking an unlocked block stays at zero";
    mem_free(a);
}

TEST(MemoryBlocks, FailSwitchFailsExactlyTheKthAllocation) {
    for (int k = 1; k <= 3; k++) {
        mem_fail_after(k);
        mem_block got[3];
        for (int i = 0; i < 3; i++) got[i] = mem_alloc(8, MEM_MOVEABLE);
        for (int i = 0; i < 3; i++) EXPECT_EQ(got[i] == 0, i == k - 1) << "k=" << k << " i=" << i;
        for (mem_block b : got)
            if (b) mem_free(b);
    }
    mem_fail_after(0);
}
