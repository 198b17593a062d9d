// Windows only: block names are global memory handles, blocks an application
// allocated itself pass through the library, and freed names go stale.
#ifdef _WIN32
#include "frame/frame.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

HGLOBAL global_of(mem_block b) { return reinterpret_cast<HGLOBAL>(static_cast<uintptr_t>(b)); }

// A block of the application's own, holding the given bytes.
HGLOBAL foreign_block(const bytes &content) {
    HGLOBAL g = GlobalAlloc(GMEM_MOVEABLE, content.size());
    if (!g) return nullptr;
    void *p = GlobalLock(g);
    std::memcpy(p, content.data(), content.size());
    GlobalUnlock(g);
    return g;
}

}  // namespace

TEST(Win32Blocks, NamesAreGlobalHandles) {
    for (uint32_t size : {1u, 40u, 4096u, 1u << 20}) {
        mem_block b = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
        ASSERT_GT(b, 0) << size;
        EXPECT_EQ(GlobalSize(global_of(b)), size);
        auto *p = static_cast<uint8_t *>(mem_lock(b));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(GlobalLock(global_of(b)), p);
        EXPECT_EQ(GlobalFlags(global_of(b)) & GMEM_LOCKCOUNT, 2u);
        GlobalUnlock(global_of(b));
        EXPECT_EQ(GlobalHandle(p), global_of(b));
        EXPECT_EQ(p[0] | p[size - 1], 0) << "zero-filled";
        EXPECT_EQ(mem_unlock(b), 0);
        EXPECT_EQ(mem_free(b), 0);
    }
}

// The system hands a freed handle out again at once; the name must still fail.
TEST(Win32Blocks, FreedNamesStayStaleWhileOthersComeAndGo) {
    int live = mem_live_blocks();
    mem_block a = mem_alloc(64, MEM_MOVEABLE);
    ASSERT_GT(a, 0);
    void *pa = mem_lock(a);  // freed while locked: still freed
    ASSERT_NE(pa, nullptr);
    EXPECT_EQ(mem_free(a), 0);
    mem_block others[100];
    for (mem_block &o : others) {
        o = mem_alloc(64, MEM_MOVEABLE);
        EXPECT_NE(o, a);
    }
    EXPECT_EQ(mem_lock(a), nullptr);
    EXPECT_EQ(mem_size(a), 0u);
    EXPECT_EQ(mem_unlock(a), 0);
    EXPECT_EQ(mem_free(a), a);
    EXPECT_NE(mem_handle(pa), a) << "the old address may start a new block, never the old name";
    for (mem_block o : others) EXPECT_EQ(mem_free(o), 0);
    EXPECT_EQ(mem_live_blocks(), live);
}

// A DIB in the application's own global block becomes a handle's bitmap;
// the handle reports that very block and frees it on deletion.
TEST(Win32Blocks, ApplicationBlockBecomesAHandle) {
    IMG_delete_bitmap(handle_of(make_picture(2, 2, 8, 1)));  // the handle table exists from here on
    int live = mem_live_blocks();
    picture pic = make_picture(29, 13, 8, 5);
    HGLOBAL g = foreign_block(dib_of_picture(pic));
    ASSERT_NE(g, nullptr);
    void *dib = GlobalLock(g);
    int h = IMG_create_handle_keep(dib);
    ASSERT_GE(h, 0);
    int w, hh, bits;
    EXPECT_EQ(IMG_bitmap_info(h, &w, &hh, &bits), static_cast<int>(reinterpret_cast<uintptr_t>(g)));
    EXPECT_EQ(picture_of(h), pic);
    EXPECT_GE(IMG_delete_bitmap(h), 0);
    EXPECT_EQ(GlobalSize(g), 0u) << "the application's block went with the handle";
    EXPECT_EQ(mem_live_blocks(), live);
}

// A file image in the application's own block: the block's size bounds reads.
TEST(Win32Blocks, ApplicationBlockAsMemorySource) {
    picture pic = make_picture(31, 9, 24, 3);
    int src = handle_of(pic);
    ASSERT_GE(src, 0);
    bytes file = save_bytes(src, IMG_TYPE_BMP);
    IMG_delete_bitmap(src);
    ASSERT_FALSE(file.empty());
    for (size_t cut : {file.size(), file.size() - 1, size_t{60}}) {
        HGLOBAL g = foreign_block(bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(cut)));
        ASSERT_NE(g, nullptr);
        void *p = GlobalLock(g);
        memory_source_set(p);
        uint8_t probe[8];
        file_seek(MEMORY_FD, 0, 2);
        EXPECT_EQ(file_seek(MEMORY_FD, 0, 1), static_cast<int32_t>(cut)) << "size from GlobalSize";
        file_seek(MEMORY_FD, static_cast<int32_t>(cut) - 4, 0);
        EXPECT_EQ(file_read(MEMORY_FD, probe, 8), 4);
        if (cut == file.size()) {
            int h = IMG_decompress_bitmap_mem(p, 0);
            ASSERT_GE(h, 0);
            EXPECT_EQ(picture_of(h), pic);
            IMG_delete_bitmap(h);
        }
        GlobalUnlock(g);
        EXPECT_EQ(GlobalFree(g), nullptr) << "the library left the application's block alone";
    }
}
#endif
