/* Loads brivanta.dll with LoadLibraryA, finds every export by its plain name
 * with GetProcAddress, and runs a save, a load with a colour conversion, a
 * re-save and a row-callback load through those addresses alone.
 * Usage: brivanta_dll_test [path-to-brivanta.dll] */
#include <windows.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "brivanta.h"

static const char *const export_names[] = {
#define X(name) #name,
#include "exports.inc"
#undef X
};

static int failures = 0;
static int checks = 0;

#define CHECK(cond, ...)                                   \
    do {                                                   \
        checks++;                                          \
        if (!(cond)) {                                     \
            failures++;                                    \
            printf("FAILED %s:%d: ", __FILE__, __LINE__);  \
            printf(__VA_ARGS__);                           \
            printf("\n");                                  \
        }                                                  \
    } while (0)

/* Each pointer takes the header's own declaration, calling convention
 * included, so a mismatch with the DLL shows up as a broken stack. */
#define POINTER(name) static __typeof__(name) *p_##name;
POINTER(WEP)
POINTER(IMG_qor_version)
POINTER(IMG_mem_alloc)
POINTER(IMG_mem_lock)
POINTER(IMG_mem_unlock)
POINTER(IMG_mem_free)
POINTER(IMG_mem_size)
POINTER(IMG_create_handle)
POINTER(IMG_delete_bitmap)
POINTER(IMG_bitmap_info)
POINTER(IMG_save_bitmap)
POINTER(IMG_save_bitmap_mem)
POINTER(IMG_decompress_bitmap)
POINTER(IMG_decompress_bitmap_mem)
POINTER(IMGLOW_decompress_bitmap_mem)
POINTER(IMGLOW_get_filetype)
POINTER(IMGLOW_set_decomp_reduction)
POINTER(IMG_set_statusbar)

enum { W = 37, H = 23 };

static int stride_of(int width, int bits) {
    int n = bits == 1 ? (width + 7) / 8 : bits == 4 ? (width + 1) / 2 : bits == 24 ? width * 3 : width;
    return (n + 3) & ~3;
}

/* Blue, green, red of the test picture's pixel at (x, y) from the top. */
static void colour_at(int x, int y, unsigned char bgr[3]) {
    bgr[0] = (unsigned char)(x * 255 / (W - 1));
    bgr[1] = (unsigned char)(y * 255 / (H - 1));
    bgr[2] = (unsigned char)(((x / 4 + y / 4) & 1) ? 230 : 20);
}

/* A 24-bit DIB in a new block from the DLL's allocator, locked. */
static unsigned char *make_dib(int *block) {
    int stride = stride_of(W, 24);
    *block = p_IMG_mem_alloc(40 + stride * H);
    unsigned char *dib = *block ? (unsigned char *)p_IMG_mem_lock(*block) : NULL;
    if (!dib) return NULL;
    BITMAPINFOHEADER bi;
    memset(&bi, 0, sizeof bi);
    bi.biSize = 40;
    bi.biWidth = W;
    bi.biHeight = H;
    bi.biPlanes = 1;
    bi.biBitCount = 24;
    bi.biSizeImage = (DWORD)(stride * H);
    memcpy(dib, &bi, 40);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) colour_at(x, y, dib + 40 + (H - 1 - y) * stride + 3 * x);
    return dib;
}

static int rows_reported;
static int IMG_CALLBACK count_status(void *value, int total_rows) {
    (void)value;
    rows_reported++;
    return total_rows > 0 ? 0 : -1;
}

struct row_check {
    int began, rows, width, bits, bad_rows;
};
static int IMG_CALLBACK on_begin(void *header, void *context) {
    struct row_check *c = (struct row_check *)context;
    const BITMAPINFOHEADER *bi = (const BITMAPINFOHEADER *)header;
    c->began++;
    c->width = bi->biWidth;
    c->bits = bi->biBitCount;
    return 0;
}
static int IMG_CALLBACK on_row(unsigned char *row, void *context, int row_number, int byte_count) {
    struct row_check *c = (struct row_check *)context;
    unsigned char want[3];
    int bad = row_number < 0 || row_number >= H || byte_count < 3 * W;
    for (int x = 0; !bad && x < W; x++) {
        colour_at(x, row_number, want);
        bad = memcmp(row + 3 * x, want, 3) != 0;
    }
    c->rows++;
    c->bad_rows += bad;
    return 0;
}

/* Reads a handle's block: the pixel at (x, y) from the top as blue, green, red. */
static void pixel_of(const unsigned char *dib, int x, int y, unsigned char bgr[3]) {
    const BITMAPINFOHEADER *bi = (const BITMAPINFOHEADER *)dib;
    int bits = bi->biBitCount, stride = stride_of(bi->biWidth, bits);
    int table = bits == 24 ? 0 : 4 << bits;
    const unsigned char *row = dib + 40 + table + (bi->biHeight - 1 - y) * stride;
    if (bits == 24) {
        memcpy(bgr, row + 3 * x, 3);
    } else {
        memcpy(bgr, dib + 40 + 4 * row[x], 3);  /* 8 bits: one index a byte */
    }
}

int main(int argc, char **argv) {
    const char *dll = argc > 1 ? argv[1] : "brivanta.dll";
    HMODULE lib = LoadLibraryA(dll);
    if (!lib) {
        printf("FAILED: LoadLibraryA(%s): error %lu\n", dll, (unsigned long)GetLastError());
        return 1;
    }

    /* Every export of the header, by its plain name. */
    int count = (int)(sizeof export_names / sizeof export_names[0]);
    for (int i = 0; i < count; i++)
        CHECK(GetProcAddress(lib, export_names[i]) != NULL, "GetProcAddress(%s) found nothing", export_names[i]);
    CHECK(GetProcAddress(lib, "IMG_no_such_export") == NULL, "a name the header lacks resolved");

#define RESOLVE(name) p_##name = (__typeof__(name) *)(void *)GetProcAddress(lib, #name);
    RESOLVE(WEP)
    RESOLVE(IMG_qor_version)
    RESOLVE(IMG_mem_alloc)
    RESOLVE(IMG_mem_lock)
    RESOLVE(IMG_mem_unlock)
    RESOLVE(IMG_mem_free)
    RESOLVE(IMG_mem_size)
    RESOLVE(IMG_create_handle)
    RESOLVE(IMG_delete_bitmap)
    RESOLVE(IMG_bitmap_info)
    RESOLVE(IMG_save_bitmap)
    RESOLVE(IMG_save_bitmap_mem)
    RESOLVE(IMG_decompress_bitmap)
    RESOLVE(IMG_decompress_bitmap_mem)
    RESOLVE(IMGLOW_decompress_bitmap_mem)
    RESOLVE(IMGLOW_get_filetype)
    RESOLVE(IMGLOW_set_decomp_reduction)
    RESOLVE(IMG_set_statusbar)
    if (failures) {
        printf("%d of %d exports missing\n", failures, count);
        return 1;
    }

    CHECK(p_WEP(0) == 1, "WEP did not return 1");
    int major = -1, minor = -1;
    CHECK(p_IMG_qor_version(&major, &minor) >= 0 && major >= 0 && minor >= 0, "IMG_qor_version failed");

    /* Blocks are global memory: the DLL's block names are HGLOBALs. */
    int probe = p_IMG_mem_alloc(1000);
    CHECK(probe > 0 && p_IMG_mem_size(probe) == 1000, "IMG_mem_alloc/IMG_mem_size");
    CHECK(GlobalSize((HGLOBAL)(INT_PTR)probe) == 1000, "the block is not a global memory block");
    void *probe_data = p_IMG_mem_lock(probe);
    CHECK(probe_data != NULL && GlobalHandle(probe_data) == (HGLOBAL)(INT_PTR)probe, "GlobalHandle of a locked block");
    p_IMG_mem_unlock(probe);
    CHECK(p_IMG_mem_free(probe) == 0, "IMG_mem_free");

    char dir[MAX_PATH], bmp[MAX_PATH], rle[MAX_PATH];
    DWORD n = GetTempPathA(sizeof dir, dir);
    CHECK(n > 0 && n < sizeof dir, "GetTempPathA");
    snprintf(bmp, sizeof bmp, "%sbrivanta_dll_%lu.bmp", dir, (unsigned long)GetCurrentProcessId());
    snprintf(rle, sizeof rle, "%sbrivanta_dll_%lu_rle.bmp", dir, (unsigned long)GetCurrentProcessId());

    /* Save: a handle made from a block, written as a file. */
    int block;
    unsigned char *dib = make_dib(&block);
    CHECK(dib != NULL, "could not build the picture");
    if (!dib) return 1;
    int h = p_IMG_create_handle(dib);
    CHECK(h >= 0, "IMG_create_handle: %d", h);
    rows_reported = 0;
    p_IMG_set_statusbar(NULL, count_status, 1);
    int r = p_IMG_save_bitmap(h, bmp, IMG_TYPE_BMP);
    p_IMG_set_statusbar(NULL, NULL, 0);
    CHECK(r >= 0, "IMG_save_bitmap: %d", r);
    CHECK(rows_reported >= H, "status callback ran %d times for %d rows", rows_reported, H);
    CHECK(p_IMGLOW_get_filetype(bmp) == IMG_TYPE_BMP, "the saved file is not detected as BMP");

    /* Load with a conversion: 24 bits reduced to 8 on the way in. */
    p_IMGLOW_set_decomp_reduction(8);
    int h8 = p_IMG_decompress_bitmap(bmp);
    p_IMGLOW_set_decomp_reduction(0);
    CHECK(h8 >= 0, "IMG_decompress_bitmap with reduction: %d", h8);
    int w = 0, hh = 0, bits = 0;
    int b8 = h8 >= 0 ? p_IMG_bitmap_info(h8, &w, &hh, &bits) : 0;
    CHECK(b8 > 0 && w == W && hh == H && bits == 8, "reduced bitmap is %dx%dx%d", w, hh, bits);
    if (b8 > 0 && bits == 8) {
        const unsigned char *d8 = (const unsigned char *)p_IMG_mem_lock(b8);
        int far_off = 0;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                unsigned char got[3], want[3];
                pixel_of(d8, x, y, got);
                colour_at(x, y, want);
                /* The 3-3-2 cube: steps of 36 in red and green, 85 in blue. */
                far_off += abs(got[0] - want[0]) > 85 || abs(got[1] - want[1]) > 36 || abs(got[2] - want[2]) > 36;
            }
        CHECK(far_off == 0, "%d reduced pixels are far from their source colour", far_off);

        /* Save again, compressed, to memory and back: the indices survive. */
        int out = p_IMG_mem_alloc(1 << 20);
        void *out_data = p_IMG_mem_lock(out);
        int size = p_IMG_save_bitmap_mem(h8, out_data, IMG_TYPE_BMP_RLE);
        CHECK(size > 40, "IMG_save_bitmap_mem as RLE: %d", size);
        int back = size > 40 ? p_IMG_decompress_bitmap_mem(out_data, 0) : -1;
        CHECK(back >= 0, "reloading the RLE file: %d", back);
        int bb = back >= 0 ? p_IMG_bitmap_info(back, &w, &hh, &bits) : 0;
        if (bb > 0) {
            const unsigned char *db = (const unsigned char *)p_IMG_mem_lock(bb);
            int stride = stride_of(W, 8);
            CHECK(bits == 8 && memcmp(db + 40, d8 + 40, 1024 + stride * H) == 0, "RLE round trip changed the bitmap");
            p_IMG_mem_unlock(bb);
            p_IMG_delete_bitmap(back);
        }
        /* And to a file through the library's own file calls. */
        r = p_IMG_save_bitmap(h8, rle, IMG_TYPE_BMP_RLE);
        CHECK(r >= 0, "IMG_save_bitmap as RLE: %d", r);
        HANDLE f = CreateFileA(rle, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
        DWORD file_size = f != INVALID_HANDLE_VALUE ? GetFileSize(f, NULL) : 0;
        if (f != INVALID_HANDLE_VALUE) CloseHandle(f);
        CHECK((int)file_size == size, "RLE file is %lu bytes, memory save %d", (unsigned long)file_size, size);
        p_IMG_mem_unlock(b8);
        p_IMG_mem_unlock(out);
        p_IMG_mem_free(out);
    }

    /* The low-level load hands rows to callbacks of the caller's convention. */
    int src = p_IMG_mem_alloc(1 << 16);
    unsigned char *src_data = (unsigned char *)p_IMG_mem_lock(src);
    int size = p_IMG_save_bitmap_mem(h, src_data, IMG_TYPE_BMP);
    CHECK(size > 40, "IMG_save_bitmap_mem: %d", size);
    struct row_check rc = {0, 0, 0, 0, 0};
    r = p_IMGLOW_decompress_bitmap_mem(src_data, 0, on_row, &rc, on_begin);
    CHECK(r >= 0, "IMGLOW_decompress_bitmap_mem: %d", r);
    CHECK(rc.began == 1 && rc.width == W && rc.bits == 24, "begin_image saw %d calls, width %d, %d bits", rc.began,
          rc.width, rc.bits);
    CHECK(rc.rows == H && rc.bad_rows == 0, "%d rows, %d wrong", rc.rows, rc.bad_rows);
    p_IMG_mem_unlock(src);
    p_IMG_mem_free(src);

    /* Failures come back as codes. */
    CHECK(p_IMG_decompress_bitmap("no such file.bmp") == IMG_ERR_OPEN, "missing file");
    CHECK(p_IMG_delete_bitmap(-5) == IMG_ERR_HANDLE, "bad handle");
    CHECK(p_IMG_save_bitmap(h, bmp, 999) == IMG_ERR_TYPE, "unknown output type");

    CHECK(p_IMG_delete_bitmap(h) >= 0, "IMG_delete_bitmap");
    if (h8 >= 0) CHECK(p_IMG_delete_bitmap(h8) >= 0, "IMG_delete_bitmap");
    DeleteFileA(bmp);
    DeleteFileA(rle);
    CHECK(FreeLibrary(lib), "FreeLibrary");

    printf("brivanta_dll_test: %d exports found by name, %d checks\n", count, checks);
    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures ? 1 : 0;
}
