// The clipboard on Windows: CF_DIB copied as it stands, or else CF_BITMAP
// read back through GetDIBits as 24-bit rows under a header of its own.
#include "brivanta.h"
#include "frame/frame.h"

#include <windows.h>

namespace brv {

namespace {

// A new unlocked block holding n bytes from data; 0 when memory fails.
mem_block copy_block(const void *data, uint32_t n) {
    mem_block b = mem_alloc(n ? n : 1, MEM_MOVEABLE);
    void *p = b ? mem_lock(b) : nullptr;
    if (!p) {
        if (b) mem_free(b);
        return 0;
    }
    std::memcpy(p, data, n);
    mem_unlock(b);
    return b;
}

int bitmap_to_dib(HBITMAP bitmap, mem_block *block, uint32_t *size) {
    BITMAP bm;
    if (GetObjectA(bitmap, sizeof bm, &bm) != sizeof bm || bm.bmWidth <= 0 || bm.bmHeight <= 0) return IMG_ERR_OPEN;
    uint32_t total;
    const uint32_t stride = row_bytes(bm.bmWidth, 24);
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(bm.bmHeight), 40, &total)) return IMG_ERR_MEMORY;
    mem_block b = mem_alloc(total, MEM_MOVEABLE | MEM_ZEROINIT);
    auto *p = b ? static_cast<uint8_t *>(mem_lock(b)) : nullptr;
    if (!p) {
        if (b) mem_free(b);
        return IMG_ERR_MEMORY;
    }
    auto *info = reinterpret_cast<BITMAPINFO *>(p);
    info->bmiHeader = {sizeof(BITMAPINFOHEADER), bm.bmWidth, bm.bmHeight, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
    HDC screen = GetDC(nullptr);
    const int rows = GetDIBits(screen, bitmap, 0, static_cast<UINT>(bm.bmHeight), p + 40, info, DIB_RGB_COLORS);
    ReleaseDC(nullptr, screen);
    // GetDIBits may fill in the image size; the header stays a plain one.
    info->bmiHeader.biSizeImage = 0;
    mem_unlock(b);
    if (rows != bm.bmHeight) {
        mem_free(b);
        return IMG_ERR_OPEN;
    }
    *block = b;
    *size = total;
    return 0;
}

}  // namespace

int os_clipboard_picture(void *owner, mem_block *block, uint32_t *size, int *kind) {
    *block = 0;
    *size = 0;
    *kind = OS_CLIP_DIB;
    if (!OpenClipboard(static_cast<HWND>(owner))) return IMG_ERR_OPEN;
    int r = IMG_ERR_OPEN;
    if (IsClipboardFormatAvailable(CF_DIB)) {
        HANDLE h = GetClipboardData(CF_DIB);
        const void *p = h ? GlobalLock(h) : nullptr;
        if (p) {
            const SIZE_T n = GlobalSize(h);
            if (n <= 0x7FFFFFFF) {
                *block = copy_block(p, static_cast<uint32_t>(n));
                *size = static_cast<uint32_t>(n);
                r = *block ? 0 : IMG_ERR_MEMORY;
            } else {
                r = IMG_ERR_MEMORY;
            }
            GlobalUnlock(h);
        }
    } else if (IsClipboardFormatAvailable(CF_BITMAP)) {
        if (HANDLE h = GetClipboardData(CF_BITMAP)) r = bitmap_to_dib(static_cast<HBITMAP>(h), block, size);
    }
    CloseClipboard();
    return r;
}

}  // namespace brv
