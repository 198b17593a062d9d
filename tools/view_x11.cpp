// The viewer's window on Linux: the library's X11 window surface, so the
// tool itself needs no Xlib.
#include "tools/view.h"

#include "brivanta.h"

static_assert(view::LEFT == IMG_KEY_LEFT && view::END == IMG_KEY_END && view::ESCAPE == IMG_KEY_ESCAPE);
static_assert(view::SHIFT == IMG_MOD_SHIFT && view::CTRL == IMG_MOD_CTRL);

namespace view {

struct window {
    void *surface;
    int width, height;  // kept from the resize events
};

window *open(int width, int height, const char *title, const char **why) {
    void *s = nullptr;
    const int r = IMG_dc_create_window(nullptr, width, height, title, &s);
    if (r < 0) {
        *why = r == IMG_ERR_MEMORY ? "out of memory" : "no X display (is DISPLAY set?)";
        return nullptr;
    }
    static window w;
    w = {s, width, height};
    return &w;
}

void close(window *w) { IMG_dc_delete(w->surface); }
void *dc(window *w) { return w->surface; }
void *handle(window *w) { return w->surface; }

void client_size(window *w, int *width, int *height) {
    *width = w->width;
    *height = w->height;
}

void run(window *w, handler h, void *self) {
    for (;;) {
        IMG_event e;
        if (IMG_dc_next_event(w->surface, -1, &e) < 0) return;
        event v = {};
        v.type = e.type;
        v.key = e.key;
        v.wheel = e.wheel;
        v.modifiers = e.modifiers;
        IMG_paint paint = {w->surface, 0, e.left, e.top, e.right, e.bottom};
        if (e.type == IMG_EVENT_RESIZE) w->width = e.right, w->height = e.bottom;
        if (e.type == IMG_EVENT_PAINT) {
            v.paint_dc = w->surface;
            v.paint = &paint;
        }
        if (!h(self, v)) return;
    }
}

}  // namespace view
