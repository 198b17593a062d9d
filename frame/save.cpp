// The save pipeline: picks the writer for an output type code and, for
// handles, feeds it the crop rectangle's rows with brightness and contrast.
#include "codecs/codec_support.h"
#include "frame/formats.h"
#include "frame/handles.h"

#include <strings.h>

namespace brv {

namespace {

struct save_context {
    const uint8_t *bits;
    int handle;
    int full_height;
    int stride;
    int left_byte;
    int crop_top;
    const uint8_t *level_table;  // nullptr = rows pass unchanged
};

int IMG_CALLBACK save_get_row(void *context, unsigned char *buffer, int r, int n) {
    auto *ctx = static_cast<save_context *>(context);
    if (int s = status_report(ctx->full_height); s < 0) return s;
    int row = ctx->full_height - r - 1 - ctx->crop_top;
    if (row < 0 || row >= ctx->full_height || n < 0) return IMG_ERR_HEADER;
    // Never read past the stored row: a writer asking for more gets zeros.
    int avail = ctx->stride - ctx->left_byte;
    int take = n < avail ? n : avail;
    std::memcpy(buffer, ctx->bits + static_cast<size_t>(row) * ctx->stride + ctx->left_byte, take);
    if (n > take) std::memset(buffer + take, 0, n - take);
    if (ctx->level_table)
        for (int i = 0; i < n; i++) buffer[i] = ctx->level_table[buffer[i]];
    return 0;
}

}  // namespace

int save_row_view(IMG_get_row_fn get_row, void *context, int r, int n, const uint8_t **row) {
    if (get_row != save_get_row || !context) return 0;
    auto *ctx = static_cast<save_context *>(context);
    const int stored = ctx->full_height - r - 1 - ctx->crop_top;
    if (ctx->level_table || stored < 0 || stored >= ctx->full_height || n < 0 || n > ctx->stride - ctx->left_byte)
        return 0;
    if (int s = status_report(ctx->full_height); s < 0) return s;
    *row = ctx->bits + static_cast<size_t>(stored) * ctx->stride + ctx->left_byte;
    return 1;
}

namespace {

int left_byte_of(int left, int bits) {
    switch (bits) {
    case 1: return (left + 7) / 8;
    case 4: return (left + 1) / 2;
    case 24: return left * 3;
    default: return left;
    }
}

int run_writer(int fd, const void *header, int type, IMG_get_row_fn get_row, void *context) {
    const format_info *f = format_of(type);
    writer_fn w = f ? f->write : nullptr;
    int r = w && header && get_row ? w(fd, static_cast<const dib_info *>(header), get_row, context) : IMG_ERR_TYPE;
    scratch_free_all();
    return r;
}

int save_handle(int h, int fd, int type, bool to_memory, void *block) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    dib_lock lock(rec);
    if (!lock) return IMG_ERR_MEMORY;
    uint8_t *dib = lock.get();
    const dib_info *info = dib_of(dib);
    int bits = info->biBitCount;
    uint32_t pb = palette_bytes(bits);

    save_context ctx{};
    ctx.bits = dib + 40 + pb;
    ctx.handle = h;
    ctx.full_height = info->biHeight;
    ctx.stride = static_cast<int>(row_bytes(info->biWidth, bits));
    ctx.left_byte = left_byte_of(rec->crop_left, bits);
    ctx.crop_top = rec->crop_top;

    mem_block hb = mem_alloc(sizeof(dib_header), MEM_MOVEABLE | MEM_ZEROINIT);
    auto *copy = hb ? static_cast<uint8_t *>(mem_lock(hb)) : nullptr;
    if (!copy) {
        if (hb) mem_free(hb);
        return IMG_ERR_MEMORY;
    }
    std::memcpy(copy, dib, 40 + pb);
    dib_of(copy)->biWidth = rec->crop_width;
    dib_of(copy)->biHeight = rec->crop_height;
    // Writers that keep transparency (icons) find the handle's colour here.
    dib_of(copy)->biClrUsed = rec->transparent_colour;

    uint8_t levels[256];
    if (rec->brightness || rec->contrast) {
        build_level_table(100, rec->brightness, rec->contrast, levels);
        // Memory saves skip the grey-table test; the difference is kept.
        bool per_byte = bits == 24 || (!to_memory && palette_is_grey(copy + 40, 1 << bits));
        if (per_byte) {
            ctx.level_table = levels;
        } else {
            for (uint32_t i = 0; i < pb; i += 4)
                for (int k = 0; k < 3; k++) copy[40 + i + k] = levels[copy[40 + i + k]];
        }
    }
    int r;
    if (to_memory) {
        r = IMGLOW_save_bitmap_mem(block, copy, type, save_get_row, &ctx);
    } else {
        r = run_writer(fd, copy, type, save_get_row, &ctx);
    }
    mem_unlock(hb);
    mem_free(hb);
    return r;
}

// Whether an existing file is one the writer of this type adds a page to:
// a little-endian TIFF, or a DCX.  Anything else is replaced whole, so none
// of its old bytes outlive the save.
bool holds_pages_for(int type, int fd) {
    uint8_t head[4] = {};
    bool match = os_read(fd, head, 4) == 4 &&
                 (type == 11 ? get32(head) == 0x3ADE68B1u : std::memcmp(head, "II*\0", 4) == 0);
    os_seek(fd, 0, 0);
    return match;
}

}  // namespace

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" {

int IMG_API IMGLOW_save_bitmap(int fd, const void *header, int type, IMG_get_row_fn get_row, void *context) {
    return run_writer(fd, header, type, get_row, context);
}

int IMG_API IMGLOW_save_bitmap_mem(void *block, const void *header, int type, IMG_get_row_fn get_row,
                                   void *context) {
    if (!block) return IMG_ERR_CREATE;
    memory_source_scope memory(block);
    int r = run_writer(MEMORY_FD, header, type, get_row, context);
    return r < 0 ? r : file_length(MEMORY_FD);
}

int IMG_API IMG_save_bitmap(int h, const char *name, int type) {
    if (handle_check(h)) return IMG_ERR_HANDLE;
    if (!name) return IMG_ERR_CREATE;
    if (type == IMG_TYPE_BY_EXTENSION) {
        size_t n = std::strlen(name);
        if (n >= 3)
            for (const format_info &f : formats)
                if ((f.flags & SAVED_BY_NAME) && strcasecmp(name + n - 3, f.ext) == 0) {
                    type = f.code;
                    break;
                }
        if (type == IMG_TYPE_BY_EXTENSION) return IMG_ERR_TYPE;
    }
    const format_info *f = format_of(type);
    int fd = f && (f->flags & APPENDS) && os_exists(name) ? os_open(name, OS_OPEN_READWRITE) : -1;
    if (fd >= 0 && !holds_pages_for(type, fd)) {
        os_close(fd);
        fd = -1;
    }
    if (fd < 0) fd = os_create(name);
    if (fd < 0) return IMG_ERR_CREATE;
    int r = save_handle(h, fd, type, false, nullptr);
    os_close(fd);
    return r;
}

int IMG_API IMG_save_bitmap_fd(int h, int fd, int type) { return save_handle(h, fd, type, false, nullptr); }

int IMG_API IMG_save_bitmap_mem(int h, void *block, int type) { return save_handle(h, 0, type, true, block); }

}  // extern "C"
