// The load pipeline: detection, dispatch to a reader, and the handle-level
// begin and row steps that build a DIB, reducing and shrinking on the way.
#include "frame/load.h"

#include "colour/colour.h"
#include "frame/formats.h"
#include "frame/handles.h"
#include "process/process.h"

namespace brv {

namespace {

// Per-load state beside the context record: the shrink buffer is taken once
// per load instead of once per row.
struct shrink_state {
    uint8_t *buffer = nullptr;
    uint32_t size = 0;
};
shrink_state shrink;

int IMG_CALLBACK ignore_header(void *, void *) { return 0; }
int IMG_CALLBACK ignore_row(unsigned char *, void *, int, int) { return 0; }

// Bitmaps up to this size are taken uncleared when a load tracks its rows:
// clearing a picture that is then overwritten costs as much as storing it.
// Larger ones come clear from the system, untouched until written, so a
// small file claiming a huge picture does not make the load touch it all.
constexpr uint32_t UNCLEARED_LIMIT = 64u << 20;

// Where stored row r (counted from the top) of a handle's bitmap of the
// given depth begins: the DIB keeps its rows bottom-up.
uint8_t *stored_row(const handle_record *rec, int bits, int r) {
    return static_cast<uint8_t *>(rec->dib_address) + 40 + palette_bytes(bits) +
           static_cast<uint32_t>(rec->height - r - 1) * static_cast<uint32_t>(rec->stride);
}

// Clears the rows no reader delivered; what lies around the rows was
// cleared when the bitmap was made.
void clear_unwritten_rows(load_context &ctx) {
    handle_record *rec = handle_get(ctx.handle);
    if (!ctx.written || !rec || !rec->dib_address) return;
    const int bits = dib_of(rec->dib_address)->biBitCount;
    for (int r = 0; r < rec->height; r++)
        if (!ctx.written[r]) std::memset(stored_row(rec, bits, r), 0, static_cast<uint32_t>(rec->stride));
    ctx.written = nullptr;
}

bool shrinking(const dib_info *announced) {
    return settings.shrink_width && settings.shrink_height && announced->biWidth > settings.shrink_width &&
           announced->biHeight > settings.shrink_height;
}

// Runs one reader over a load's callbacks and ends the load: rows no reader
// wrote are cleared and every scratch block is released.
template <typename Read>
int run_load(IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image, Read read) {
    if (!put_row) put_row = ignore_row;
    if (!begin_image) begin_image = ignore_header;
    shrink = shrink_state{};
    int r = read(put_row, context, begin_image);
    if (r >= 0 && put_row == handle_put_row) clear_unwritten_rows(*static_cast<load_context *>(context));
    scratch_free_all();
    shrink = shrink_state{};
    return r < 0 ? r : 0;
}

int run_reader(int fd, int32_t offset, int page, IMG_put_row_fn put_row, void *context,
               IMG_begin_image_fn begin_image) {
    file_seek(fd, offset, 0);
    const format_info *f = format_of(detect_format(fd));
    file_seek(fd, offset, 0);
    if (!f) {
        scratch_free_all();
        return IMG_ERR_TYPE;
    }
    int32_t where = page == 0 ? offset : static_cast<int32_t>(static_cast<uint32_t>(page) | WHERE_PAGE);
    return run_load(put_row, context, begin_image, [&](IMG_put_row_fn put, void *ctx, IMG_begin_image_fn begin) {
        return f->read ? f->read(where, put, ctx, begin, fd) : IMG_ERR_TYPE;
    });
}

// Loads into a new handle through read(put_row, context, begin_image): the
// handle, its bitmap left locked, or a negative code with no handle left.
template <typename Read>
int fill_new_handle(Read read) {
    int h = handle_alloc();
    if (h < 0) return h;
    load_context ctx{nullptr, h, settings.reduction, true};
    int r = read(&ctx);
    if (r < 0) {
        handle_free(h);
        return r;
    }
    if (!handle_get(h)->dib_memory) {
        // A reader that ended without announcing an image made no bitmap.
        handle_free(h);
        return IMG_ERR_DATA;
    }
    return h;
}

int load_into_handle(int fd, int32_t offset, int page) {
    int h = fill_new_handle(
        [&](load_context *ctx) { return run_reader(fd, offset, page, handle_put_row, ctx, handle_begin_image); });
    if (h < 0) return h;
    // The success path unlocks slot 0's block, not the new one's; callers
    // have come to rely on the block staying locked, so this is kept.
    if (handle_record *first = handle_get(0); first && first->dib_memory) mem_unlock(first->dib_memory);
    return h;
}

// The page count of the source at fd, from its start.
int count_pages(int fd) {
    const format_info *f = format_of(detect_format(fd));
    int r = f && f->count_pages ? f->count_pages(fd) : 1;
    scratch_free_all();
    return r;
}

int IMG_CALLBACK header_only(void *header, void *context) {
    std::memcpy(context, header, 40);
    return IMG_ERR_STOPPED;
}

}  // namespace

int IMG_CALLBACK handle_begin_image(void *header, void *context) {
    auto *ctx = static_cast<load_context *>(context);
    ctx->header = header;
    const dib_info *a = dib_of(header);
    if (a->biWidth < 1 || a->biHeight < 1 || a->biBitCount == 0) return IMG_ERR_HEADER;
    int b = a->biBitCount;
    if (b != 1 && b != 4 && b != 8 && b != 24) return IMG_ERR_HEADER;
    handle_record *rec = handle_get(ctx->handle);
    if (!rec) return IMG_ERR_HANDLE;
    if (rec->dib_memory) {
        // A second image in one load replaces the first.
        mem_unlock(rec->dib_memory);
        mem_free(rec->dib_memory);
        rec->dib_memory = 0;
    }
    rec->raster_op = SRCCOPY;
    rec->reserved = 0;
    rec->gamma = 150;
    rec->last_row = -1;
    rec->transparent_colour = a->biClrUsed;

    int t = ctx->reduction;
    int stored_bits = b;
    if ((t == 8 && b == 24) || (t == 4 && b >= 8) || (t == 1 && b >= 4))
        stored_bits = t;
    else
        ctx->reduction = 0;
    int w = a->biWidth, hgt = a->biHeight;
    // The row step shrinks only when both sizes are set: the stored size follows the same rule.
    if (shrinking(a)) {
        w = settings.shrink_width;
        hgt = settings.shrink_height;
    }
    uint32_t stride = row_bytes(w, stored_bits);
    uint32_t pb_in = palette_bytes(b), pb_out = palette_bytes(stored_bits);
    uint32_t size;
    uint64_t rows4 = (static_cast<uint64_t>(hgt) + 3) & ~uint64_t{3};
    if (!stride || !size_mul_add(stride, rows4, 40 + (pb_in > pb_out ? pb_in : pb_out) + 2000, &size) ||
        !within_load_limit(size))
        return IMG_ERR_MEMORY;
    uint8_t *written = nullptr;
    if (ctx->clears_at_end && size <= UNCLEARED_LIMIT) {
        written = static_cast<uint8_t *>(scratch_alloc(static_cast<uint32_t>(hgt)));
        if (!written) return IMG_ERR_MEMORY;
    }
    ctx->written = written;
    mem_block block = mem_alloc(size, written ? MEM_MOVEABLE : MEM_MOVEABLE | MEM_ZEROINIT);
    if (!block) return IMG_ERR_MEMORY;
    auto *dib = static_cast<uint8_t *>(mem_lock(block));
    if (!dib) {
        mem_free(block);
        return IMG_ERR_MEMORY;
    }
    rec->width = w;
    rec->height = hgt;
    rec->stride = static_cast<int32_t>(stride);
    rec->crop_left = rec->crop_top = 0;
    rec->crop_width = w;
    rec->crop_height = hgt;
    rec->dib_memory = block;
    rec->dib_address = dib;
    std::memcpy(dib, header, 40 + pb_in);
    if (written) {
        // Only rows are tracked: what lies around them is cleared now.
        const uint32_t pixels = 40 + pb_out, end = pixels + stride * static_cast<uint32_t>(hgt);
        if (pb_out > pb_in) std::memset(dib + 40 + pb_in, 0, pb_out - pb_in);
        std::memset(dib + end, 0, size - end);
    }
    dib_info *s = dib_of(dib);
    s->biBitCount = static_cast<uint16_t>(stored_bits);
    s->biWidth = w;
    s->biHeight = hgt;
    if (ctx->reduction) set_named_palette(s, stored_bits == 8 ? "332" : stored_bits == 4 ? "dither" : "tiff");
    return 1;
}

int IMG_CALLBACK handle_put_row(unsigned char *row, void *context, int r, int byte_count) {
    auto *ctx = static_cast<load_context *>(context);
    if (!ctx->header) return IMG_ERR_HEADER;
    const dib_info *a = dib_of(ctx->header);
    // Every row handed over holds at least a whole row of the announced
    // picture: a reader that sized its row wrongly fails here instead of
    // leaking what lies past its buffer into the picture.
    if (byte_count < 0 || static_cast<uint32_t>(byte_count) < row_bytes(a->biWidth, a->biBitCount)) return IMG_ERR_DATA;
    if (int s = status_report(a->biHeight); s < 0) return s;
    handle_record *rec = handle_get(ctx->handle);
    if (!rec || !rec->dib_address || r < 0 || r >= a->biHeight) return 0;
    int bits = ctx->reduction ? ctx->reduction : a->biBitCount;
    if (ctx->reduction) reduce_row(a, row, bits, r, settings.dithermode);
    if (shrinking(a)) {
        int rs = static_cast<int>(static_cast<int64_t>(r) * settings.shrink_height / a->biHeight);
        if (rs == rec->last_row) return 0;  // only the first source row of a stored row is kept
        rec->last_row = rs;
        uint32_t step = static_cast<uint32_t>((static_cast<uint64_t>(a->biWidth) << 16) / settings.shrink_width);
        uint32_t n = row_bytes(a->biWidth, bits);
        if (n < static_cast<uint32_t>(rec->stride)) n = rec->stride;
        if (shrink.size < n + 200) {
            if (shrink.buffer) scratch_free(shrink.buffer);
            shrink.buffer = static_cast<uint8_t *>(scratch_alloc(n + 200));
            shrink.size = shrink.buffer ? n + 200 : 0;
            if (!shrink.buffer) return IMG_ERR_MEMORY;
        }
        std::memcpy(shrink.buffer, row, n);
        int ow = settings.shrink_width;
        switch (bits) {
        case 24: sample_row<24>(shrink.buffer, row, ow, step); break;
        case 8: sample_row<8>(shrink.buffer, row, ow, step); break;
        case 4: sample_row<4>(shrink.buffer, row, ow, step); break;
        default: sample_row<1>(shrink.buffer, row, ow, step); break;
        }
        r = rs;
        if (r >= rec->height) return 0;
    }
    uint8_t *at = stored_row(rec, bits, r);
    const uint32_t n = row_bytes(rec->width, bits);
    if (row != at)
        std::memcpy(at, row, n);
    else if (ctx->written) {
        // Written in place by the reader, which stops at the last pixel.
        const uint32_t used = static_cast<uint32_t>((static_cast<uint64_t>(rec->width) * bits + 7) / 8);
        std::memset(at + used, 0, n - used);
    }
    if (ctx->written) ctx->written[r] = 1;
    return 0;
}

int load_raw_into_handle(int fd, raw_reader_fn read, const void *params) {
    int h = fill_new_handle([&](load_context *ctx) {
        return run_load(handle_put_row, ctx, handle_begin_image,
                        [&](IMG_put_row_fn put, void *c, IMG_begin_image_fn begin) { return read(params, put, c, begin, fd); });
    });
    if (h < 0) return h;
    // Unlike the ordinary load, this one unlocks its own block.
    if (handle_record *rec = handle_get(h); rec->dib_memory) mem_unlock(rec->dib_memory);
    return h;
}

void load_keep_top_rows(IMG_put_row_fn put_row, void *context, int rows) {
    if (put_row != handle_put_row || !context) return;
    handle_record *rec = handle_get(static_cast<load_context *>(context)->handle);
    if (!rec || rows < 1 || rows >= rec->height) return;
    dib_lock lock(rec);
    uint8_t *dib = lock.get();
    if (!dib) return;
    // Stored bottom-up, the first rows sit at the end.
    uint8_t *pixels = dib + 40 + palette_bytes(dib_of(dib)->biBitCount);
    size_t stride = static_cast<size_t>(rec->stride);
    std::memmove(pixels, pixels + (rec->height - rows) * stride, rows * stride);
    std::memset(pixels + rows * stride, 0, (rec->height - rows) * stride);
    rec->height = rec->crop_height = rows;
    dib_of(dib)->biHeight = rows;
    dib_of(dib)->biSizeImage = static_cast<uint32_t>(rows * stride);
}

uint8_t *load_row_target(IMG_put_row_fn put_row, void *context, int r) {
    if (put_row != handle_put_row || !context) return nullptr;
    auto *ctx = static_cast<load_context *>(context);
    if (!ctx->header || ctx->reduction) return nullptr;
    const dib_info *a = dib_of(ctx->header);
    handle_record *rec = handle_get(ctx->handle);
    if (shrinking(a) || !rec || !rec->dib_address || r < 0 || r >= a->biHeight || rec->height != a->biHeight ||
        rec->width != a->biWidth)
        return nullptr;
    return stored_row(rec, a->biBitCount, r);
}

// ---- Exports -------------------------------------------------------------------

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" {

int IMG_API IMGLOW_decompress_bitmap(int fd, int offset, int page, IMG_put_row_fn put_row, void *context,
                                     IMG_begin_image_fn begin_image) {
    return run_reader(fd, offset, page, put_row, context, begin_image);
}

int IMG_API IMGLOW_decompress_bitmap_mem(void *block, int page, IMG_put_row_fn put_row, void *context,
                                         IMG_begin_image_fn begin_image) {
    if (!block) return IMG_ERR_OPEN;
    memory_source_scope memory(block);
    return run_reader(MEMORY_FD, 0, page, put_row, context, begin_image);
}

int IMG_API IMG_decompress_bitmap(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    int r = load_into_handle(fd, 0, 0);
    os_close(fd);
    return r;
}

int IMG_API IMG_decompress_bitmap_fd(int fd, int offset, int page) { return load_into_handle(fd, offset, page); }

int IMG_API IMG_decompress_bitmap_mem(void *block, int page) {
    if (!block) return IMG_ERR_OPEN;
    memory_source_scope memory(block);
    return load_into_handle(MEMORY_FD, 0, page);
}

int IMG_API IMGLOW_set_decompsize(int width, int height) {
    settings.shrink_width = width;
    settings.shrink_height = height;
    return 0;
}

int IMG_API IMGLOW_set_load_limit(int megabytes) {
    if (megabytes < 0) return IMG_ERR_TYPE;
    int previous = settings.load_limit_mb;
    settings.load_limit_mb = megabytes;
    return previous;
}

int IMG_API IMGLOW_get_load_limit(void) { return settings.load_limit_mb; }

int IMG_API IMGLOW_set_decomp_reduction(int bits) {
    settings.reduction = bits;
    return 0;
}

int IMG_API IMGLOW_set_dithermode(int mode) {
    settings.dithermode = mode;
    return 0;
}

int IMG_API IMGLOW_autocolor(int flag) {
    settings.autocolor = flag;
    return 0;
}

int IMG_API IMGLOW_get_fileinfo(const char *name, void *header_out) {
    if (!name || !*name || !header_out) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    int r = run_reader(fd, 0, 0, ignore_row, header_out, header_only);
    os_close(fd);
    return r == IMG_ERR_STOPPED ? 0 : r;
}

int IMG_API IMGLOW_get_pages(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    int r = count_pages(fd);
    os_close(fd);
    return r;
}

int IMG_API IMGLOW_get_pages_mem(void *block) {
    if (!block) return IMG_ERR_OPEN;
    memory_source_scope memory(block);
    return count_pages(MEMORY_FD);
}

}  // extern "C"
