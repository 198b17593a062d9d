// Device-dependent copies of a picture: drawn once at a size by the band
// painter, then blitted as often as a window needs them.
#include "display/display.h"

#include "platform/graphics.h"
#include "process/process.h"

namespace brv {

namespace {

// A memory device context holding bitmap, for the life of the object.
struct bitmap_dc {
    void *dc = nullptr, *old = nullptr;
    bitmap_dc(void *like, void *bitmap) : dc(gfx_create_compatible_dc(like)) {
        if (dc) old = gfx_select_bitmap(dc, bitmap);
    }
    ~bitmap_dc() {
        if (!dc) return;
        gfx_select_bitmap(dc, old);
        gfx_delete_dc(dc);
    }
    bitmap_dc(const bitmap_dc &) = delete;
    bitmap_dc &operator=(const bitmap_dc &) = delete;
};

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_dib_to_ddb(int handle, void *dc, int width, int height, void **ddb) {
    if (!ddb) return IMG_ERR_TYPE;
    *ddb = nullptr;
    held_bitmap held(handle);
    if (held.error) return held.error;
    if (width < 1 || height < 1) return IMG_ERR_TYPE;
    void *bitmap = gfx_create_compatible_bitmap(dc, width, height);
    if (!bitmap) return IMG_ERR_MEMORY;
    int r;
    {
        bitmap_dc mem(dc, bitmap);
        if (!mem.dc) {
            r = IMG_ERR_MEMORY;
        } else {
            draw_options o;
            o.rop = GFX_SRCCOPY;
            r = paint_bands(held.rec, held.bm.dib, mem.dc, 0, 0, width, height, dither_for(mem.dc, held.bm.bits), o);
        }
    }
    if (r < 0) {
        gfx_delete_bitmap(bitmap);
        return r;
    }
    *ddb = bitmap;
    return 0;
}

int IMG_API IMG_display_ddb(void *ddb, void *dc, int x, int y) {
    int w, h;
    if (!gfx_bitmap_size(ddb, &w, &h)) return IMG_ERR_HANDLE;
    bitmap_dc mem(dc, ddb);
    if (!mem.dc) return IMG_ERR_MEMORY;
    return gfx_bitblt(dc, x, y, w, h, mem.dc, 0, 0, GFX_SRCCOPY) ? 0 : IMG_ERR_HANDLE;
}

int IMG_API IMG_create_handle_ddb(void *ddb, void *dc) {
    int w, h;
    if (!gfx_bitmap_size(ddb, &w, &h)) return IMG_ERR_HANDLE;
    const uint32_t stride = row_bytes(w, 24);
    uint32_t size;
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(h), 40, &size)) return IMG_ERR_MEMORY;
    const mem_block block = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
    auto *dib = block ? static_cast<uint8_t *>(mem_lock(block)) : nullptr;
    if (!dib) {
        if (block) mem_free(block);
        return IMG_ERR_MEMORY;
    }
    set_dib_size(*dib_of(dib), w, h, 24);
    int r = IMG_ERR_HANDLE;
    if (gfx_read_bitmap(dc, ddb, 0, h, dib + 40, dib) == h) {
        // The copy's header is the library's: no size or colour count of the system's.
        dib_of(dib)->biSizeImage = 0;
        dib_of(dib)->biClrUsed = dib_of(dib)->biClrImportant = 0;
        dib_of(dib)->biXPelsPerMeter = dib_of(dib)->biYPelsPerMeter = 0;
        r = IMG_create_handle(dib);
    }
    mem_unlock(block);
    mem_free(block);
    return r;
}

int IMG_API IMG_delete_ddb(void *ddb) {
    int w, h;
    if (!gfx_bitmap_size(ddb, &w, &h)) return IMG_ERR_HANDLE;
    gfx_delete_bitmap(ddb);
    return 0;
}

}  // extern "C"
