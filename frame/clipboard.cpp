// Saving the clipboard's picture as a BMP file.  A DIB goes out as it
// stands on the clipboard, header and colour table included, without the
// save pipeline; a PNG (the X11 clipboard) goes through the ordinary load
// and the BMP writer.
#include "frame/frame.h"

#include <algorithm>

namespace brv {

namespace {

struct owned_block {
    mem_block block = 0;
    uint8_t *data = nullptr;
    ~owned_block() {
        if (data) mem_unlock(block);
        if (block) mem_free(block);
    }
};

// The file of a clipboard DIB: 1 or a negative code.
int write_dib_file(const char *name, const uint8_t *dib, uint32_t size) {
    if (size < 40) return IMG_ERR_HEADER;
    const dib_info *h = reinterpret_cast<const dib_info *>(dib);
    const int bits = h->biBitCount;
    const bool masks = h->biCompression == 3 && (bits == 16 || bits == 32);
    if (h->biSize < 40 || h->biSize > size || h->biWidth <= 0 || h->biHeight <= 0 || h->biPlanes != 1 ||
        (h->biCompression != 0 && !masks))
        return IMG_ERR_HEADER;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32) return IMG_ERR_HEADER;
    // The library's depths take its own stride; 16 and 32 bits the DIB's.
    const uint64_t stride =
        bits == 16 || bits == 32 ? (static_cast<uint64_t>(h->biWidth) * bits + 31) / 32 * 4 : row_bytes(h->biWidth, bits);
    // Header and a full colour table (or the three masks) as they stand in the
    // clipboard block, whatever biClrUsed says.
    const uint32_t head = 40 + (masks ? 12 : palette_bytes(bits));
    uint64_t table = 0;
    if (bits <= 8) table = h->biClrUsed ? h->biClrUsed : 1u << bits;
    const uint64_t first_row = h->biSize + 4 * table + (masks ? 12 : 0);
    const uint64_t pixels = stride * static_cast<uint64_t>(h->biHeight);
    if (stride == 0 || first_row + pixels > size) return IMG_ERR_DATA;
    if (pixels + head + 14 > 0x7FFFFFFF) return IMG_ERR_MEMORY;

    uint8_t start[14 + 40 + 1024] = {'B', 'M'};
    put32(start + 2, static_cast<uint32_t>(pixels + head + 14));
    put32(start + 10, head + 14);
    // A short table reads on into the rows; a block that ends first reads as zeros.
    std::memcpy(start + 14, dib, std::min(head, size));

    const int fd = os_create(name);
    if (fd < 0) return IMG_ERR_MEMORY;
    const bool ok = os_write(fd, start, static_cast<int32_t>(14 + head)) == static_cast<int32_t>(14 + head) &&
                    os_write(fd, dib + first_row, static_cast<int32_t>(pixels)) == static_cast<int32_t>(pixels);
    os_close(fd);
    if (ok) return 1;
    os_delete(name);
    return IMG_ERR_WRITE;
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" int IMG_API IMG_save_clipboard(const char *name, void *owner) {
    if (!name || !*name) return IMG_ERR_MEMORY;
    owned_block held;
    uint32_t size = 0;
    int kind = OS_CLIP_DIB;
    if (int r = os_clipboard_picture(owner, &held.block, &size, &kind); r < 0) return r;
    uint8_t *data = held.data = static_cast<uint8_t *>(mem_lock(held.block));
    if (!data) return IMG_ERR_MEMORY;
    if (kind == OS_CLIP_DIB) return write_dib_file(name, data, size);
    const int handle = IMG_decompress_bitmap_mem(data, 0);
    // A picture the library cannot read is no picture it can save.
    if (handle < 0) return handle == IMG_ERR_MEMORY ? handle : IMG_ERR_OPEN;
    const int r = IMG_save_bitmap(handle, name, IMG_TYPE_BMP);
    IMG_delete_bitmap(handle);
    if (r >= 0) return 1;
    return r == IMG_ERR_CREATE ? IMG_ERR_MEMORY : r;
}
