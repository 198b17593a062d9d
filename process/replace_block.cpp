// Holding a handle's bitmap, building its replacement block and swapping it
// in: the steps every in-place operation shares.
#include "process/process.h"

namespace brv {

bitmap bitmap_at(uint8_t *dib) {
    const dib_info *i = dib_of(dib);
    bitmap b;
    b.dib = dib;
    b.width = i->biWidth;
    b.height = i->biHeight;
    b.bits = i->biBitCount;
    b.stride = row_bytes(b.width, b.bits);
    b.palette = palette_bytes(b.bits);
    return b;
}

held_bitmap::held_bitmap(int h) : rec(handle_get(h)) {
    if (!rec) {
        error = IMG_ERR_HANDLE;
        return;
    }
    uint8_t *dib = nullptr;
    if (rec->dib_memory) {
        dib = static_cast<uint8_t *>(mem_lock(rec->dib_memory));
        if (dib) block = rec->dib_memory;
    } else {
        dib = static_cast<uint8_t *>(rec->dib_address);  // adopted outside any block
    }
    if (!dib) {
        error = IMG_ERR_MEMORY;
        return;
    }
    rec->dib_address = dib;
    bm = bitmap_at(dib);
    const int b = bm.bits;
    // Only the depths the library stores, and a size that matches the record.
    if ((b != 1 && b != 4 && b != 8 && b != 24) || bm.width < 1 || bm.height < 1 || !bm.stride) {
        error = IMG_ERR_DEPTH;
        bm = bitmap{};
    }
}

held_bitmap::~held_bitmap() {
    if (block) mem_unlock(block);
}

new_bitmap::new_bitmap(const uint8_t *like, int width, int height, int bits) {
    const uint32_t stride = row_bytes(width, bits), pb = palette_bytes(bits);
    const uint64_t rows4 = (static_cast<uint64_t>(height) + 3) & ~uint64_t{3};
    uint32_t size;
    if (height < 1 || !stride || !size_mul_add(stride, rows4, 40 + pb + 2000, &size)) return;
    block = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
    auto *dib = block ? static_cast<uint8_t *>(mem_lock(block)) : nullptr;
    if (!dib) {
        if (block) mem_free(block);
        block = 0;
        return;
    }
    const uint32_t old_pb = palette_bytes(dib_of(const_cast<uint8_t *>(like))->biBitCount);
    std::memcpy(dib, like, 40 + (old_pb < pb ? old_pb : pb));
    dib_info *i = dib_of(dib);
    i->biWidth = width;
    i->biHeight = height;
    i->biBitCount = static_cast<uint16_t>(bits);
    i->biSizeImage = stride * static_cast<uint32_t>(height);
    bm = bitmap_at(dib);
}

new_bitmap::~new_bitmap() {
    if (!block) return;
    mem_unlock(block);
    mem_free(block);
}

void install(held_bitmap &held, new_bitmap &fresh) {
    handle_record *rec = held.rec;
    if (held.block) {
        mem_unlock(held.block);
        mem_free(held.block);
        held.block = 0;
    }
    rec->dib_memory = fresh.block;
    rec->dib_address = fresh.bm.dib;
    rec->width = fresh.bm.width;
    rec->height = fresh.bm.height;
    rec->stride = static_cast<int32_t>(fresh.bm.stride);
    // The handle now owns the block; it stays unlocked between calls.
    mem_unlock(fresh.block);
    fresh.block = 0;
    held.bm = fresh.bm;
    fresh.bm = bitmap{};
}

bool grey_table(const bitmap &bm) {
    const uint8_t *t = bm.table();
    for (uint32_t i = 0; i < bm.palette; i += 4)
        if (t[i] != t[i + 1] || t[i] != t[i + 2]) return false;
    return true;
}

}  // namespace brv
