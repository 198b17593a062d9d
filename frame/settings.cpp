// Library-wide settings, small queries and the exported memory-block calls.
#include "frame/formats.h"
#include "frame/handles.h"
#include "brivanta_version.h"

#include <cstdio>

namespace brv {

library_settings settings = [] {
    library_settings s{};
    s.comp_quality = 50;  // the JPEG encoder's base tables
    s.png_level = 6;
    s.load_limit_mb = IMG_DEFAULT_LOAD_LIMIT_MB;
    std::strcpy(s.bitmap_name, "Brivanta image file library");
    std::strcpy(s.bitmap_date, "11-21-2026");
    return s;
}();

namespace {

// Copies text into a caller's buffer, cut to size; its full length.
int copy_out(const char *text, char *out, int size) {
    if (out && size > 0) std::snprintf(out, static_cast<size_t>(size), "%s", text);
    return static_cast<int>(std::strlen(text));
}

struct error_text {
    int code;
    const char *text;
};

constexpr error_text error_texts[] = {
    {0, "no error"},
    {IMG_ERR_MEMORY, "out of memory"},
    {IMG_ERR_OPEN, "cannot open the input, or its header is too short"},
    {IMG_ERR_HEADER, "invalid image header or corrupt structure"},
    {IMG_ERR_CREATE, "cannot create the output or a temporary file"},
    {IMG_ERR_TYPE, "unknown or disabled file type"},
    {IMG_ERR_EPS_PREVIEW, "EPS preview of unknown type"},
    {IMG_ERR_WRITE, "a write came out short"},
    {IMG_ERR_PAGE, "the requested page does not exist"},
    {IMG_ERR_DATA, "image data missing or truncated"},
    {IMG_ERR_HANDLE, "invalid handle"},
    {IMG_ERR_SCAN_SOURCE, "scanner source missing or cannot be opened"},
    {IMG_ERR_SCAN_ACQUIRE, "scanner source manager missing"},
    {IMG_ERR_STOPPED, "stopped by a header callback"},
    {IMG_ERR_DEPTH, "bit depth not supported by the format"},
    {IMG_ERR_NO_TRANSPARENT, "no transparent colour"},
};

}  // namespace

void report_identification(const char *text, const char *date) {
    // Bounded copies: callers are told to keep within the default lengths,
    // and a longer text is cut rather than overrunning the buffer.
    if (text) std::snprintf(settings.bitmap_name, sizeof settings.bitmap_name, "%s", text);
    if (date) std::snprintf(settings.bitmap_date, sizeof settings.bitmap_date, "%s", date);
}

}  // namespace brv

// Exports are defined outside the namespace: g++ would otherwise give them
// the hidden default despite the header's visibility.
using namespace brv;

extern "C" {

int IMG_API IMG_set_statusbar(void *value, IMG_status_fn function, int enable) {
    if (enable) {
        settings.status_fn = function;
        settings.status_value = value;
        settings.status_enabled = true;
    } else {
        settings.status_enabled = false;  // the function and value are kept
    }
    return 0;
}

int IMG_API IMGLOW_set_rop(int h, int rop) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    rec->raster_op = rop;
    return 0;
}

int IMG_API IMGLOW_get_transp_color(int h) {
    handle_record *rec = handle_get(h);
    if (!rec) return IMG_ERR_HANDLE;
    return rec->transparent_colour ? static_cast<int>(rec->transparent_colour) : IMG_ERR_NO_TRANSPARENT;
}

int IMG_API IMGLOW_get_image_orientation(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    // The image attribute byte of a picture pack; no type check, by design.
    uint8_t b = 0;
    int r = 0;
    if (os_seek(fd, 3586, 0) == 3586 && os_read(fd, &b, 1) == 1) {
        static constexpr int degrees[4] = {0, 270, 180, 90};
        r = degrees[b & 3];
    }
    os_close(fd);
    return r;
}

int IMG_API IMG_qor_version(int *major, int *minor) {
    if (major) *major = BRIVANTA_VERSION_MAJOR;
    if (minor) *minor = BRIVANTA_VERSION_MINOR;
    return 0;
}

int IMG_API IMGLOW_set_wipedelay(int delay) {
    settings.wipedelay = delay;
    return 0;
}

int IMG_API IMGLOW_set_comp_quality(int quality) {
    settings.comp_quality = quality;
    return 0;
}

int IMG_API IMGLOW_set_png_level(int level) {
    if (level < 0 || level > 9) return IMG_ERR_TYPE;
    int previous = settings.png_level;
    settings.png_level = level;
    return previous;
}

int IMG_API IMGLOW_set_sunras_rle(int on) {
    const int previous = settings.sunras_rle;
    settings.sunras_rle = on != 0;
    return previous;
}

int IMG_API IMGLOW_get_bitmap_name(char *text_out, char *date_out) {
    if (text_out) std::strcpy(text_out, settings.bitmap_name);
    if (date_out) std::strcpy(date_out, settings.bitmap_date);
    return 0;
}

int IMG_API IMGLOW_set_bitmap_name(const char *text, const char *date) {
    report_identification(text, date);
    return 0;
}

int IMG_API IMG_get_error_text(int code, char *text_out, int size) {
    for (const error_text &e : error_texts)
        if (e.code == code) return copy_out(e.text, text_out, size);
    copy_out("", text_out, size);
    return IMG_ERR_TYPE;
}

int IMG_API IMGLOW_get_type_info(int code, char *key, int key_size, char *name, int name_size, char *extension,
                                 int extension_size) {
    const format_info *f = format_of(code);
    if (!f) return IMG_ERR_TYPE;
    copy_out(f->key, key, key_size);
    copy_out(f->name, name, name_size);
    copy_out(f->ext, extension, extension_size);
    const format_info &family = formats[f->family];
    // The type query reports a family it maps, and the variants it refines to.
    bool reported = family.probe && (family.flags & NAMED_BY_QUERY) && (f == &family || family.refine);
    return (family.read ? IMG_TYPE_CAN_READ : 0) | (f->write ? IMG_TYPE_CAN_WRITE : 0) |
           (reported ? IMG_TYPE_DETECTED : 0) | (f->flags & APPENDS ? IMG_TYPE_APPENDS : 0);
}

int IMG_API WEP(int) { return 1; }

int IMG_API IMG_mem_alloc(int size) {
    if (size < 0) return 0;
    return mem_alloc(static_cast<uint32_t>(size), MEM_MOVEABLE | MEM_ZEROINIT);
}

void *IMG_API IMG_mem_lock(int block) { return mem_lock(block); }

int IMG_API IMG_mem_unlock(int block) { return mem_unlock(block); }

int IMG_API IMG_mem_free(int block) { return mem_free(block); }

int IMG_API IMG_mem_size(int block) { return static_cast<int>(mem_size(block)); }

}  // extern "C"
