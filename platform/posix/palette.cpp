// Logical palettes without a windowing system: a memory block laid out as a
// LOGPALETTE, which callers lock and free with the memory exports.
#include "platform/graphics.h"
#include "platform/platform.h"

#include <cstring>

namespace brv {

int32_t os_palette_create(const uint8_t *entries, int count) {
    mem_block b = mem_alloc(4 + 4 * static_cast<uint32_t>(count), MEM_MOVEABLE | MEM_ZEROINIT);
    auto *p = b ? static_cast<uint8_t *>(mem_lock(b)) : nullptr;
    if (!p) {
        if (b) mem_free(b);
        return 0;
    }
    p[0] = 0x00;  // version 0x300, little-endian
    p[1] = 0x03;
    p[2] = static_cast<uint8_t>(count);
    p[3] = static_cast<uint8_t>(count >> 8);
    std::memcpy(p + 4, entries, 4 * static_cast<size_t>(count));
    mem_unlock(b);
    gfx_palettes_live++;
    return b;
}

void os_palette_delete(int32_t palette) {
    if (palette && mem_free(palette) == 0) gfx_palettes_live--;
}

int32_t os_palette_select(void *, int32_t) { return 0; }

}  // namespace brv
