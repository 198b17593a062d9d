// The viewer: its logic is the same on every system; the window plumbing
// (an X11 window surface on Linux, a USER window on Windows) lives in one
// file per system behind the few calls below.
#pragma once

namespace view {

enum event_type { KEY = 1, WHEEL, PAINT, RESIZE, CLOSE, SCROLLBAR };
// Keys beyond the characters, as the Linux window surface numbers them.
enum key_code { ESCAPE = 27, LEFT = 0x101, RIGHT, UP, DOWN, PAGE_UP, PAGE_DOWN, HOME, END };
enum modifier { SHIFT = 1, CTRL = 2 };

struct event {
    int type;
    int key;        // KEY: a lower-case character or a key_code
    int wheel;      // WHEEL: +1 up, -1 down
    int modifiers;
    // PAINT: the device context to draw on and the system's paint record
    // (a PAINTSTRUCT, or the library's IMG_paint), for IMG_repaint_scroll.
    void *paint_dc;
    const void *paint;
    // SCROLLBAR: a scroll bar's message and wParam, straight from the system.
    unsigned scroll_wparam;
    int scroll_message;
};

struct window;
// Called for every event; false ends the loop.
using handler = bool (*)(void *self, const event &e);

// A window of width x height, or null with a one-line reason in why.
window *open(int width, int height, const char *title, const char **why);
void close(window *w);
// The device context to draw on outside a paint, and the window argument
// of the library's zoom and scroll calls.
void *dc(window *w);
void *handle(window *w);
void client_size(window *w, int *width, int *height);
// Runs until the handler answers false or the window is gone.
void run(window *w, handler h, void *self);

}  // namespace view

// `brivanta view FILE...`; load(name, page) is the tool's loader.
int cmd_view(int argc, char **argv, int (*load)(const char *name, int page));
