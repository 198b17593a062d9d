// Logical palettes on Windows: GDI palette objects, selected into and
// realized in the caller's device context.
#include "platform/graphics.h"
#include "platform/platform.h"

#include <windows.h>

#include <cstring>

namespace brv {

int32_t os_palette_create(const uint8_t *entries, int count) {
    // LOGPALETTE with room for 256 entries: its own array holds one.
    struct {
        WORD version, count;
        PALETTEENTRY entry[256];
    } lp;
    if (count < 1 || count > 256) return 0;
    lp.version = 0x300;
    lp.count = static_cast<WORD>(count);
    std::memcpy(lp.entry, entries, 4 * static_cast<size_t>(count));
    HPALETTE p = CreatePalette(reinterpret_cast<const LOGPALETTE *>(&lp));
    if (p) gfx_palettes_live++;
    return static_cast<int32_t>(reinterpret_cast<intptr_t>(p));
}

void os_palette_delete(int32_t palette) {
    if (palette && DeleteObject(reinterpret_cast<HGDIOBJ>(static_cast<intptr_t>(palette)))) gfx_palettes_live--;
}

int32_t os_palette_select(void *dc, int32_t palette) {
    if (!dc || !palette) return 0;
    HPALETTE old = SelectPalette(static_cast<HDC>(dc), reinterpret_cast<HPALETTE>(static_cast<intptr_t>(palette)), FALSE);
    RealizePalette(static_cast<HDC>(dc));
    return static_cast<int32_t>(reinterpret_cast<intptr_t>(old));
}

}  // namespace brv
