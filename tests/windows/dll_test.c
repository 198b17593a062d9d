/* Loads brivanta.dll with LoadLibraryA, finds every export by its plain name
 * with GetProcAddress, and through those addresses alone puts a picture in a
 * handle, saves it to memory and loads it back.  (Files through the import
 * library are tool_test.sh's; the library's behaviour, the portable suite's.)
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
    F(IMG_create_handle) F(IMG_delete_bitmap) F(IMG_bitmap_info) F(IMG_save_bitmap_mem) F(IMG_decompress_bitmap_mem)
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

    /* To memory and back. */
    int out = p_IMG_mem_alloc(1 << 16);
    void *out_data = p_IMG_mem_lock(out);
    int size = p_IMG_save_bitmap_mem(h, out_data, IMG_TYPE_BMP);
    CHECK(size > 40, "IMG_save_bitmap_mem: %d", size);
    check_handle(p_IMG_decompress_bitmap_mem(out_data, 0), "memory");
    p_IMG_mem_unlock(out);
    p_IMG_mem_free(out);
    CHECK(p_IMG_delete_bitmap(h) >= 0, "IMG_delete_bitmap");
    CHECK(FreeLibrary(lib), "FreeLibrary");

    printf("brivanta_dll_test: %d exports found by name, %d checks\n", count, checks);
    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures ? 1 : 0;
}
