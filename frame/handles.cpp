// The handle table and the exports that create, describe, crop and delete
// bitmaps and copy their colour tables.
#include "frame/handles.h"

#include "frame/load.h"

#include <cmath>

namespace brv {

namespace {

mem_block table_block = 0;
handle_record **table = nullptr;
int slot_count = 0;

// Drops trailing empty slots; an empty table is freed, so the next handle
// starts again with a one-slot table.
void trim_table() {
    while (slot_count > 0 && !table[slot_count - 1]) slot_count--;
    if (slot_count == 0 && table_block) {
        mem_unlock(table_block);
        mem_free(table_block);
        table_block = 0;
        table = nullptr;
    }
}

}  // namespace

int handle_alloc() {
    int slot = -1;
    if (!table_block) {
        // The first table has room for two pointers and one slot.
        table_block = mem_alloc(2 * sizeof(handle_record *), MEM_MOVEABLE | MEM_ZEROINIT);
        if (!table_block) return IMG_ERR_MEMORY;
        table = static_cast<handle_record **>(mem_lock(table_block));
        slot_count = 1;
        slot = 0;
    } else {
        for (int i = 0; i < slot_count; i++)
            if (!table[i]) {
                slot = i;
                break;
            }
        if (slot < 0) {
            if (slot_count >= 0x7FFF) return IMG_ERR_MEMORY;
            mem_block grown = mem_alloc((slot_count + 2) * sizeof(handle_record *), MEM_MOVEABLE | MEM_ZEROINIT);
            if (!grown) return IMG_ERR_MEMORY;
            auto **g = static_cast<handle_record **>(mem_lock(grown));
            std::memcpy(g, table, slot_count * sizeof(handle_record *));
            mem_unlock(table_block);
            mem_free(table_block);
            table_block = grown;
            table = g;
            slot = slot_count++;
        }
    }
    mem_block rb;
    auto *rec = mem_new_record<handle_record>(&rb);
    if (!rec) {
        trim_table();
        return IMG_ERR_MEMORY;
    }
    std::memset(rec, 0, sizeof *rec);
    rec->record_block = rb;
    table[slot] = rec;
    return slot;
}

int handle_check(int h) {
    if (h < 0 || h >= slot_count || !table || !table[h]) return IMG_ERR_HANDLE;
    return 0;
}

handle_record *handle_get(int h) { return handle_check(h) ? nullptr : table[h]; }

static void release_slot(int h) {
    handle_record *rec = table[h];
    mem_block rb = rec->record_block;
    mem_unlock(rb);
    mem_free(rb);
    table[h] = nullptr;
    if (h == slot_count - 1) trim_table();
}

int handle_free(int h) {
    if (handle_check(h)) return IMG_ERR_HANDLE;
    handle_record *rec = table[h];
    if (rec->dib_memory) {
        if (!mem_lock(rec->dib_memory)) return IMG_ERR_HANDLE;
        mem_unlock(rec->dib_memory);
        // The load path may leave one extra lock behind; freeing ignores it.
        mem_free(rec->dib_memory);
    }
    // The palette object is deliberately left alone here.
    release_slot(h);
    return 0;
}

int handle_free_keep(int h) {
    if (handle_check(h)) return IMG_ERR_HANDLE;
    os_palette_delete(static_cast<int32_t>(table[h]->palette_object));
    table[h]->palette_object = 0;
    release_slot(h);
    return 0;
}

void build_level_table(int gamma, int brightness, int contrast, uint8_t out[256]) {
    double g = (gamma == 0 ? 100 : gamma) / 100.0;
    for (int v = 0; v < 256; v++) {
        double t = std::pow(v / 255.0, 1.0 / g) * 255.0 + brightness;
        long r = static_cast<long>((contrast * 2 + 256) * t / 255.0 - contrast);
        out[v] = static_cast<uint8_t>(r < 0 ? 0 : r > 255 ? 255 : r);
    }
}

// ---- Exports -------------------------------------------------------------------

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" {

int IMG_API IMG_create_handle(void *dib) { return IMG_decompress_bitmap_mem(dib, 0); }

int IMG_API IMG_create_handle_keep(void *dib) {
    if (!dib) return IMG_ERR_HEADER;
    int h = handle_alloc();
    if (h < 0) return h;
    dib_info *info = dib_of(dib);
    uint8_t *pal = dib_palette(dib);
    if (info->biBitCount == 1 && pal[0] && pal[1] && pal[2]) {
        // A white-first bilevel image: only the palette is rewritten, so it shows inverted.
        std::memset(pal, 0, 4);
        std::memset(pal + 4, 255, 3);
        pal[7] = 0;
    }
    load_context ctx{};
    ctx.handle = h;
    ctx.reduction = settings.reduction;
    int r = handle_begin_image(dib, &ctx);
    handle_record *rec = table[h];
    if (rec->dib_memory) {
        mem_unlock(rec->dib_memory);
        mem_free(rec->dib_memory);
        rec->dib_memory = 0;
        rec->dib_address = nullptr;
    }
    if (r < 0) return r;  // the slot stays allocated, as callers expect
    rec->dib_memory = mem_handle(dib);
    rec->dib_address = dib;
    return h & 0xFFFF;
}

int IMG_API IMG_delete_bitmap(int h) { return handle_free(h); }

int IMG_API IMG_delete_bitmap_keep(int h) { return handle_free_keep(h); }

int IMG_API IMG_bitmap_info(int h, int *width, int *height, int *bits) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    dib_lock lock(rec);
    if (!lock) return IMG_ERR_MEMORY;
    const dib_info *info = dib_of(lock.get());
    if (width) *width = info->biWidth;
    if (height) *height = info->biHeight;
    if (bits) *bits = info->biBitCount;
    return rec->dib_memory;
}

int IMG_API IMG_get_croprect(int h, int *left, int *top, int *width, int *height) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    if (left) *left = rec->crop_left;
    if (top) *top = rec->crop_top;
    if (width) *width = rec->crop_width;
    if (height) *height = rec->crop_height;
    return 0;
}

int IMG_API IMG_set_croprect(int h, int left, int top, int width, int height) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    const int W = rec->width, H = rec->height;
    // Out-of-range rectangles are ignored, not refused.  Negative values
    // would address memory outside the bitmap, so they are ignored too.
    if (left >= W || top >= H || width > W || height > H) return 0;
    if (left < 0 || top < 0 || width < 1 || height < 1) return 0;
    if (left + width > W) width = W - left;
    if (top + height > H) height = H - top;
    rec->crop_left = left;
    rec->crop_top = top;
    rec->crop_width = width;
    rec->crop_height = height;
    return 0;
}

int IMG_API IMG_set_gamma(int h, int gamma) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    rec->gamma = gamma;
    return 0;
}

static int copy_from_dib(int h, void *dst, bool with_header) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    dib_lock lock(rec);
    if (!lock) return IMG_ERR_MEMORY;
    uint32_t pb = palette_bytes(dib_of(lock.get())->biBitCount);
    if (with_header)
        std::memcpy(dst, lock.get(), 40 + pb);
    else
        std::memcpy(dst, lock.get() + 40, pb);
    return 0;
}

int IMG_API IMGLOW_get_palette(int h, void *dst) { return copy_from_dib(h, dst, false); }

int IMG_API IMGLOW_get_bitmap_header(int h, void *dst) { return copy_from_dib(h, dst, true); }

int IMG_API IMGLOW_put_palette(int h, const void *src) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    dib_lock lock(rec);
    if (!lock) return IMG_ERR_MEMORY;
    std::memcpy(lock.get() + 40, src, palette_bytes(dib_of(lock.get())->biBitCount));
    return 0;
}

}  // extern "C"
