// Scanning exports: one picture into a handle, or a series of pages into
// files.  The system's source manager sits behind platform/scanner.h.
#include "frame/frame.h"
#include "platform/scanner.h"

#include <cstdio>
#include <cstring>

namespace brv {

namespace {

scan_caps requested_caps{};

// The handle and page saves inside a scan report no rows of their own: the
// status callback follows the transfer.
struct status_muted {
    bool was = settings.status_enabled;
    status_muted() { settings.status_enabled = false; }
    ~status_muted() { settings.status_enabled = was; }
};

int handle_from_dib(const void *dib) {
    status_muted quiet;
    return IMG_create_handle(const_cast<void *>(dib));
}

int acquire_page(void *context, const void *dib, int code) {
    if (!dib) return code;
    int h = handle_from_dib(dib);
    *static_cast<int *>(context) = h;
    return h;
}

struct page_series {
    const char *name;
    int type;
    bool one_file;
    int pages;
};

bool is_multi_page_type(int type) {
    return type == 0 || type == 7 || type == 8 || type == 10 || type == 11 || type == 16;
}

int save_page(void *context, const void *dib, int code) {
    auto *s = static_cast<page_series *>(context);
    // A failed transfer ends the series as a source failure; a cancel stays one.
    if (!dib) return code == IMG_ERR_STOPPED ? code : IMG_ERR_SCAN_SOURCE;
    char file[4096];
    if (s->one_file) {
        if (s->pages == 0) {
            // The series replaces the file rather than adding pages to it.
            int fd = os_create(s->name);
            if (fd < 0) return IMG_ERR_CREATE;
            os_close(fd);
            os_delete(s->name);
        }
        if (std::snprintf(file, sizeof file, "%s", s->name) >= static_cast<int>(sizeof file)) return IMG_ERR_CREATE;
    } else {
        int n = s->name ? std::snprintf(file, sizeof file, "%s%08d.img", s->name, s->pages)
                        : std::snprintf(file, sizeof file, "%08d.img", s->pages);
        if (n < 0 || n >= static_cast<int>(sizeof file)) return IMG_ERR_CREATE;
        if (os_exists(file)) os_delete(file);
    }
    int h = handle_from_dib(dib);
    if (h < 0) return h;
    int r;
    {
        status_muted quiet;
        r = IMG_save_bitmap(h, file, s->type);
    }
    IMG_delete_bitmap(h);
    s->pages++;
    return r < 0 ? r : h;
}

// Whole names while they fit, each NUL-terminated, then an empty one; once
// a name is left out later ones are too, so the list keeps its order.
struct name_list {
    char *buffer;
    int size, used;
    bool full;
};

void add_name(void *context, const char *name) {
    auto *l = static_cast<name_list *>(context);
    int len = static_cast<int>(std::strlen(name)) + 1;
    if (l->full || len >= l->size - l->used) {
        l->full = true;
        return;
    }
    std::memcpy(l->buffer + l->used, name, len);
    l->used += len;
}

}  // namespace

}  // namespace brv

using namespace brv;

int IMG_API IMG_scan_acquire(void *window, int show_ui) {
    int h = -1;
    int r = scanner_session(window, show_ui != 0, requested_caps, scan_delivery{acquire_page, &h, false});
    if (r < 0 && h >= 0) IMG_delete_bitmap(h);  // made, then the session failed closing
    return r < 0 ? r : h;
}

int IMG_API IMG_scan_pages(void *window, const char *name, int type, int show_ui) {
    if (type < 0) type = IMG_TYPE_BMP;
    page_series series{name, type, name && *name && is_multi_page_type(type), 0};
    return scanner_session(window, show_ui != 0, requested_caps, scan_delivery{save_page, &series, true});
}

int IMG_API IMG_scan_set_caps(int resolution, int mode, int source, int left, int top, int width, int height) {
    if (resolution < 0 || resolution > 100000 || mode < 0 || mode > IMG_SCAN_LINEART || source < 0 ||
        source > IMG_SCAN_DUPLEX || left < 0 || top < 0 || width < 0 || height < 0 || left > 1000000 ||
        top > 1000000 || width > 1000000 || height > 1000000)
        return IMG_ERR_TYPE;
    requested_caps = scan_caps{resolution, mode, source, left, top, width, height};
    return 0;
}

int IMG_API IMG_scan_open_source(void *window, const char *name) { return scanner_select(window, name); }

int IMG_API IMG_scan_list_sources(char *names, int size) {
    if (size < 0 || (size > 0 && !names)) return IMG_ERR_TYPE;
    name_list list{names, size, 0, false};
    int r = scanner_list(add_name, &list);
    if (size > 0) names[list.used] = 0;
    return r;
}
