/* Loads brivanta.dll with LoadLibraryA, finds every export by its plain name
 * with GetProcAddress, and through those addresses alone saves a picture to
 * a file and to memory, loads both back, runs a row-callback load and cuts
 * reads and writes short through the I/O hooks.
 * Usage: brivanta_dll_test [path-to-brivanta.dll] */
#include <windows.h>
#include <stdio.h>
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
#define USED(F)                                                                                        \
    F(IMG_mem_alloc) F(IMG_mem_lock) F(IMG_mem_unlock) F(IMG_mem_free) F(IMG_mem_size)                 \
    F(IMG_create_handle) F(IMG_delete_bitmap) F(IMG_bitmap_info) F(IMG_save_bitmap) F(IMG_save_bitmap_mem) \
    F(IMG_decompress_bitmap) F(IMG_decompress_bitmap_mem) F(IMGLOW_decompress_bitmap_mem) F(IMGLOW_get_filetype)   \
    F(IMGLOW_set_fileio)
#define POINTER(name) static __typeof__(name) *p_##name;
USED(POINTER)

enum { W = 37, H = 23, STRIDE = (3 * W + 3) & ~3 };

/* Blue, green, red of the test picture's pixel at (x, y) from the top. */
static void colour_at(int x, int y, unsigned char bgr[3]) {
    bgr[0] = (unsigned char)(x * 255 / (W - 1));
    bgr[1] = (unsigned char)(y * 255 / (H - 1));
    bgr[2] = (unsigned char)(((x / 4 + y / 4) & 1) ? 230 : 20);
}

/* Rows of a 24-bit bitmap that differ from the test picture. */
static int wrong_rows(const unsigned char *dib) {
    int bad = 0;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            unsigned char want[3];
            colour_at(x, y, want);
            bad += memcmp(dib + 40 + (H - 1 - y) * STRIDE + 3 * x, want, 3) != 0;
        }
    return bad;
}

/* The handle's bitmap is the test picture. */
static void check_handle(int h, const char *what) {
    int w = 0, hh = 0, bits = 0;
    int block = h >= 0 ? p_IMG_bitmap_info(h, &w, &hh, &bits) : 0;
    CHECK(block > 0 && w == W && hh == H && bits == 24, "%s: handle %d is %dx%dx%d", what, h, w, hh, bits);
    if (block > 0 && bits == 24) {
        CHECK(wrong_rows((const unsigned char *)p_IMG_mem_lock(block)) == 0, "%s: pixels differ", what);
        p_IMG_mem_unlock(block);
    }
    if (h >= 0) p_IMG_delete_bitmap(h);
}

struct row_check {
    int began, rows, bad_rows;
};
static int IMG_CALLBACK on_begin(void *header, void *context) {
    const BITMAPINFOHEADER *bi = (const BITMAPINFOHEADER *)header;
    ((struct row_check *)context)->began += bi->biWidth == W && bi->biBitCount == 24;
    return 0;
}
static int IMG_CALLBACK on_row(unsigned char *row, void *context, int row_number, int byte_count) {
    struct row_check *c = (struct row_check *)context;
    int bad = row_number < 0 || row_number >= H || byte_count < 3 * W;
    for (int x = 0; !bad && x < W; x++) {
        unsigned char want[3];
        colour_at(x, row_number, want);
        bad = memcmp(row + 3 * x, want, 3) != 0;
    }
    c->rows++;
    c->bad_rows += bad;
    return 0;
}

/* I/O hooks of the caller's convention that cut every read and write short. */
static int hook_calls;
static int IMG_CALLBACK short_read(int fd, void *buffer, int count) {
    (void)fd, (void)buffer, (void)count;
    hook_calls++;
    return 0;
}
static int IMG_CALLBACK short_write(int fd, const void *buffer, int count) {
    (void)fd, (void)buffer;
    hook_calls++;
    return count / 2;
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
    USED(RESOLVE)
    if (failures) {
        printf("%d of %d exports missing\n", failures, count);
        return 1;
    }

    /* Blocks are global memory: the DLL's block names are HGLOBALs.  The
     * test picture goes into one as a 24-bit DIB. */
    int block = p_IMG_mem_alloc(40 + STRIDE * H);
    unsigned char *dib = (unsigned char *)p_IMG_mem_lock(block);
    CHECK(dib && p_IMG_mem_size(block) == 40 + STRIDE * H, "IMG_mem_alloc/IMG_mem_size");
    CHECK(GlobalHandle(dib) == (HGLOBAL)(INT_PTR)block, "the block is not a global memory block");
    if (!dib) return 1;
    BITMAPINFOHEADER bi = {40, W, H, 1, 24, 0, STRIDE * H, 0, 0, 0, 0};
    memcpy(dib, &bi, 40);
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) colour_at(x, y, dib + 40 + (H - 1 - y) * STRIDE + 3 * x);
    int h = p_IMG_create_handle(dib);
    CHECK(h >= 0, "IMG_create_handle: %d", h);
    p_IMG_mem_unlock(block);
    p_IMG_mem_free(block);

    /* To a file through the library's own file calls, and back. */
    char dir[MAX_PATH], bmp[MAX_PATH];
    DWORD n = GetTempPathA(sizeof dir, dir);
    CHECK(n > 0 && n < sizeof dir, "GetTempPathA");
    snprintf(bmp, sizeof bmp, "%sbrivanta_dll_%lu.bmp", dir, (unsigned long)GetCurrentProcessId());
    CHECK(p_IMG_save_bitmap(h, bmp, IMG_TYPE_BMP) >= 0, "IMG_save_bitmap");
    CHECK(p_IMGLOW_get_filetype(bmp) == IMG_TYPE_BMP, "the saved file is not detected as BMP");
    check_handle(p_IMG_decompress_bitmap(bmp), "file");

    /* To memory and back, and rows to callbacks of the caller's convention. */
    int out = p_IMG_mem_alloc(1 << 16);
    void *out_data = p_IMG_mem_lock(out);
    int size = p_IMG_save_bitmap_mem(h, out_data, IMG_TYPE_BMP);
    CHECK(size > 40, "IMG_save_bitmap_mem: %d", size);
    check_handle(p_IMG_decompress_bitmap_mem(out_data, 0), "memory");
    struct row_check rc = {0, 0, 0};
    int r = p_IMGLOW_decompress_bitmap_mem(out_data, 0, on_row, &rc, on_begin);
    CHECK(r >= 0 && rc.began == 1 && rc.rows == H && rc.bad_rows == 0, "row callbacks: %d, %d begins, %d rows, %d wrong",
          r, rc.began, rc.rows, rc.bad_rows);
    p_IMG_mem_unlock(out);
    p_IMG_mem_free(out);

    /* Through I/O hooks: a short write is -9, a load that reads nothing fails. */
    p_IMGLOW_set_fileio(NULL, short_write, NULL);
    r = p_IMG_save_bitmap(h, bmp, IMG_TYPE_BMP);
    p_IMGLOW_set_fileio(short_read, NULL, NULL);
    int none = p_IMG_decompress_bitmap(bmp);
    p_IMGLOW_set_fileio(NULL, NULL, NULL);
    CHECK(r == IMG_ERR_WRITE && none < 0 && hook_calls >= 2, "hooks: save %d, load %d, %d calls", r, none, hook_calls);

    /* Failures come back as codes. */
    CHECK(p_IMG_decompress_bitmap("no such file.bmp") == IMG_ERR_OPEN, "missing file");
    CHECK(p_IMG_delete_bitmap(-5) == IMG_ERR_HANDLE, "bad handle");
    CHECK(p_IMG_save_bitmap(h, bmp, 999) == IMG_ERR_TYPE, "unknown output type");
    CHECK(p_IMG_delete_bitmap(h) >= 0, "IMG_delete_bitmap");
    DeleteFileA(bmp);
    CHECK(FreeLibrary(lib), "FreeLibrary");

    printf("brivanta_dll_test: %d exports found by name, %d checks\n", count, checks);
    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures ? 1 : 0;
}
