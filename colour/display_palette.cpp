// The display palette of a handle: its colour table through the handle's
// gamma, brightness and contrast, or the 3-3-2 cube, as a palette object.
#include "frame/handles.h"

namespace brv {

namespace {

// Builds the palette object of handle h into *palette (0 when the bitmap
// has none); 0 or a negative code.
int make_display_palette(int h, int32_t *palette) {
    *palette = 0;
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    dib_lock lock(rec);
    if (!lock) return IMG_ERR_MEMORY;
    const int bits = dib_of(lock.get())->biBitCount;
    const bool cube = bits == 24 || settings.autocolor;
    if (bits == 1 && settings.autocolor) return 0;
    const int count = bits == 1 ? 2 : bits == 4 && !settings.autocolor ? 16 : 256;
    uint8_t entries[4 * 256] = {};
    if (cube) {
        for (int i = 0; i < 256; i++) {
            entries[4 * i] = static_cast<uint8_t>(((i & 0xE0) >> 5) * 255 / 7);
            entries[4 * i + 1] = static_cast<uint8_t>(((i & 0x1C) >> 2) * 255 / 7);
            entries[4 * i + 2] = static_cast<uint8_t>((i & 3) * 85);
        }
    } else {
        uint8_t level[256];
        build_level_table(rec->gamma, rec->brightness, rec->contrast, level);
        const uint8_t *pal = dib_palette(lock.get());
        for (int i = 0; i < count; i++) {
            entries[4 * i] = level[pal[4 * i + 2]];
            entries[4 * i + 1] = level[pal[4 * i + 1]];
            entries[4 * i + 2] = level[pal[4 * i]];
        }
    }
    *palette = os_palette_create(entries, count);
    return *palette ? 0 : IMG_ERR_MEMORY;
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_bitmap_palette(int h, void *dc) {
    int32_t palette;
    if (int r = make_display_palette(h, &palette); r < 0 || !palette) return r;
    handle_record *rec = handle_get(h);
    if (rec->palette_object) {
        if (rec->previous_palette) os_palette_select(dc, static_cast<int32_t>(rec->previous_palette));
        os_palette_delete(static_cast<int32_t>(rec->palette_object));
    }
    rec->palette_object = palette;
    rec->previous_palette = os_palette_select(dc, palette);
    return 0;
}

int IMG_API IMG_get_bitmap_palette(int h) {
    int32_t palette;
    int r = make_display_palette(h, &palette);
    return r < 0 ? r : palette;
}

}  // extern "C"
