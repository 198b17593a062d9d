// Fuzz target: any bytes as a text file.  The first byte picks the page and
// the style, the rest is the file: loaded into a handle, its pages counted,
// and read once more with a font cell given in pixels on a small page.
#include "text/text.h"

#include "fuzz/fuzz_support.h"

// Fontconfig keeps part of its parsed configuration unreachable for the
// life of the process: not the library's leak.
#ifndef _WIN32
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > (1u << 20)) return 0;
    const uint8_t pick = data[0];
    fuzz_input in(data + 1, size - 1);
    if (!in.bytes) return 0;
    IMGLOW_set_auto_detect(IMG_TYPE_TEXT);
    text_settings_reset();
    IMG_ascii_attributes a{};
    a.mask = IMG_ASCII_BOLD | IMG_ASCII_ITALIC;
    a.bold = pick & 4, a.italic = pick & 8;
    IMGLOW_set_ascii_attributes(&a);
    int h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, pick & 3));
    if (h >= 0) IMG_delete_bitmap(h);
    const int pages = IMGLOW_get_pages_mem(in.bytes);
    if (h >= 0 && pages < 0) std::abort();  // what loads as text counts as text
    if (pick & 16) {
        a.mask = IMG_ASCII_XRES | IMG_ASCII_YRES | IMG_ASCII_FONT_HEIGHT | IMG_ASCII_TAB;
        a.x_dpi = a.y_dpi = 50;
        a.font_height = pick >> 5;  // 0 takes the system's default size
        a.tab = static_cast<int16_t>(pick >> 6) - 1;
        IMGLOW_set_ascii_attributes(&a);
        h = check_loaded(IMG_decompress_bitmap_mem(in.bytes, 0));
        if (h >= 0) IMG_delete_bitmap(h);
    }
    if (scratch_count() != 0) std::abort();
    text_settings_reset();
    return 0;
}
