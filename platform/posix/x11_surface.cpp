// The X11 window surface: a memory surface whose pixels are the window's
// backing store, plus hooks that push what the raster code changed to the
// server.  The pixels sit in a MIT-SHM segment where the server has the
// extension (one copy fewer per update) and in a platform block otherwise.
#include "platform/posix/surface.h"

#include "brivanta.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>

// Xlib's macros (None, Bool, Status ...) come after the library's headers.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/keysym.h>

namespace brv {

namespace {

struct x11_window {
    Display *dpy;
    Window win;
    GC gc;
    Visual *visual;
    int depth;
    Atom wm_protocols, wm_delete;
    bool use_shm;
    XImage *image;
    XShmSegmentInfo seg;
    mem_block pixel_block;  // the backing store without MIT-SHM
    mem_block record_block;
    bool paint_pending;
    int paint_left, paint_top, paint_right, paint_bottom;
};

x11_window *window_of(surface *s);

void put_image(x11_window *xw, int x, int y, int w, int h) {
    if (!xw->image) return;
    // The raster code reports what it meant to draw; the server takes only what lies inside.
    if (x < 0) w += x, x = 0;
    if (y < 0) h += y, y = 0;
    w = std::min(w, xw->image->width - x);
    h = std::min(h, xw->image->height - y);
    if (w <= 0 || h <= 0) return;
    if (xw->use_shm)
        XShmPutImage(xw->dpy, xw->win, xw->gc, xw->image, x, y, x, y, w, h, False);
    else
        XPutImage(xw->dpy, xw->win, xw->gc, xw->image, x, y, x, y, w, h);
    XFlush(xw->dpy);
}

bool shm_failed = false;
int note_shm_error(Display *, XErrorEvent *) {
    shm_failed = true;
    return 0;
}

// Releases the backing store's image and memory (not the pixels pointer's
// owner surface fields).
void free_backing(x11_window *xw) {
    if (!xw->image) return;
    if (xw->use_shm) {
        XSync(xw->dpy, False);  // the server has read its last request from the segment
        XShmDetach(xw->dpy, &xw->seg);
        XDestroyImage(xw->image);
        shmdt(xw->seg.shmaddr);
    } else {
        xw->image->data = nullptr;  // the block is ours, not Xlib's
        XDestroyImage(xw->image);
        mem_unlock(xw->pixel_block);
        mem_free(xw->pixel_block);
        xw->pixel_block = 0;
    }
    xw->image = nullptr;
}

// A shared segment of w x h pixels attached to the server; false (and
// MIT-SHM off for good) when any step fails, e.g. on a remote display.
bool make_shm_image(x11_window *xw, int w, int h) {
    const size_t bytes = static_cast<size_t>(w) * h * 4;
    xw->seg.shmid = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
    if (xw->seg.shmid < 0) return false;
    xw->seg.shmaddr = static_cast<char *>(shmat(xw->seg.shmid, nullptr, 0));
    if (xw->seg.shmaddr == reinterpret_cast<char *>(-1)) {
        shmctl(xw->seg.shmid, IPC_RMID, nullptr);
        return false;
    }
    xw->seg.readOnly = True;
    xw->image = XShmCreateImage(xw->dpy, xw->visual, xw->depth, ZPixmap, xw->seg.shmaddr, &xw->seg, w, h);
    bool ok = xw->image != nullptr;
    if (ok) {
        shm_failed = false;
        XSync(xw->dpy, False);
        auto *old = XSetErrorHandler(note_shm_error);
        XShmAttach(xw->dpy, &xw->seg);
        XSync(xw->dpy, False);
        XSetErrorHandler(old);
        ok = !shm_failed && xw->image->bytes_per_line == w * 4;
        if (!ok && !shm_failed) XShmDetach(xw->dpy, &xw->seg);
    }
    // Removed now, the segment lives exactly as long as its attachments.
    shmctl(xw->seg.shmid, IPC_RMID, nullptr);
    if (!ok) {
        if (xw->image) XDestroyImage(xw->image);
        xw->image = nullptr;
        shmdt(xw->seg.shmaddr);
    }
    return ok;
}

// A new backing store of w x h, the old one's pixels kept where both
// overlap and white elsewhere; false when memory fails (the old one stays).
bool resize_backing(surface *s, x11_window *xw, int w, int h) {
    if (w <= 0 || h <= 0 || static_cast<uint64_t>(w) * h * 4 > 0x7FFF0000u) return false;
    x11_window next = *xw;
    next.image = nullptr;
    next.pixel_block = 0;
    if (!(next.use_shm && make_shm_image(&next, w, h))) {
        next.use_shm = false;
        next.pixel_block = mem_alloc(static_cast<uint32_t>(static_cast<uint64_t>(w) * h * 4), MEM_MOVEABLE);
        char *data = next.pixel_block ? static_cast<char *>(mem_lock(next.pixel_block)) : nullptr;
        if (data) next.image = XCreateImage(xw->dpy, xw->visual, xw->depth, ZPixmap, 0, data, w, h, 32, w * 4);
        if (!next.image) {
            if (data) mem_unlock(next.pixel_block);
            if (next.pixel_block) mem_free(next.pixel_block);
            return false;
        }
    }
    next.image->byte_order = LSBFirst;  // 0x00RRGGBB words as this machine stores them
    auto *pixels = reinterpret_cast<uint32_t *>(next.image->data);
    std::fill(pixels, pixels + static_cast<size_t>(w) * h, 0x00FFFFFFu);
    const int cw = std::min(w, s->width), ch = std::min(h, s->height);
    for (int y = 0; y < ch && s->pixels; y++)
        std::memcpy(pixels + static_cast<size_t>(y) * w, s->pixels + static_cast<size_t>(y) * s->width,
                    4 * static_cast<size_t>(cw));
    free_backing(xw);
    *xw = next;
    // A shared image points at its segment record: the one in the window's record now.
    if (xw->use_shm) xw->image->obdata = reinterpret_cast<char *>(&xw->seg);
    s->pixels = pixels;
    s->width = w;
    s->height = h;
    return true;
}

void hook_present(surface *s, int x, int y, int w, int h) { put_image(window_of(s), x, y, w, h); }

// The raster code has moved the backing store's pixels: show them, and
// leave the uncovered strip to a paint event.
void hook_scroll(surface *s, int dx, int dy) {
    x11_window *xw = window_of(s);
    const int w = s->width, h = s->height;
    put_image(xw, std::max(0, dx), std::max(0, dy), w - std::abs(dx), h - std::abs(dy));
    int l = 0, t = 0, r = w, b = h;
    if (dx > 0) r = std::min(w, dx);
    if (dx < 0) l = std::max(0, w + dx);
    if (dy > 0) b = std::min(h, dy);
    if (dy < 0) t = std::max(0, h + dy);
    // Both axes at once uncover an L; its bounding box is the whole window.
    if (dx && dy) l = 0, t = 0, r = w, b = h;
    if (xw->paint_pending) {
        // A strip not yet painted moved with the pixels around it.
        l = std::min(l, std::max(0, xw->paint_left + dx)), t = std::min(t, std::max(0, xw->paint_top + dy));
        r = std::max(r, std::min(w, xw->paint_right + dx)), b = std::max(b, std::min(h, xw->paint_bottom + dy));
    }
    xw->paint_pending = true;
    xw->paint_left = l, xw->paint_top = t, xw->paint_right = r, xw->paint_bottom = b;
}

void hook_destroy(surface *s) {
    x11_window *xw = window_of(s);
    free_backing(xw);
    s->pixels = nullptr;
    XFreeGC(xw->dpy, xw->gc);
    XDestroyWindow(xw->dpy, xw->win);
    XCloseDisplay(xw->dpy);
    mem_block rb = xw->record_block;
    mem_unlock(rb);
    mem_free(rb);
}

const surface_hooks x11_hooks = {hook_present, hook_scroll, hook_destroy};

x11_window *window_of(surface *s) { return static_cast<x11_window *>(s->owner); }

int key_of(KeySym ks) {
    switch (ks) {
    case XK_Escape: return IMG_KEY_ESCAPE;
    case XK_Left: case XK_KP_Left: return IMG_KEY_LEFT;
    case XK_Right: case XK_KP_Right: return IMG_KEY_RIGHT;
    case XK_Up: case XK_KP_Up: return IMG_KEY_UP;
    case XK_Down: case XK_KP_Down: return IMG_KEY_DOWN;
    case XK_Page_Up: case XK_KP_Page_Up: return IMG_KEY_PAGE_UP;
    case XK_Page_Down: case XK_KP_Page_Down: return IMG_KEY_PAGE_DOWN;
    case XK_Home: case XK_KP_Home: return IMG_KEY_HOME;
    case XK_End: case XK_KP_End: return IMG_KEY_END;
    case XK_KP_Add: return '+';
    case XK_KP_Subtract: return '-';
    default: break;
    }
    return ks >= 0x20 && ks < 0x7F ? std::tolower(static_cast<int>(ks)) : 0;
}

int modifiers_of(unsigned state) {
    return ((state & ShiftMask) ? IMG_MOD_SHIFT : 0) | ((state & ControlMask) ? IMG_MOD_CTRL : 0);
}

// One X event as the caller's event; false for what the surface handles
// itself (exposures, unchanged sizes) or ignores.
bool translate(surface *s, x11_window *xw, XEvent &ev, IMG_event *out) {
    *out = {};
    switch (ev.type) {
    case KeyPress: {
        char text[8];
        KeySym ks = NoSymbol;
        XLookupString(&ev.xkey, text, sizeof text, &ks, nullptr);
        out->type = IMG_EVENT_KEY;
        out->key = key_of(ks);
        out->modifiers = modifiers_of(ev.xkey.state);
        return out->key != 0;
    }
    case ButtonPress:
        if (ev.xbutton.button != Button4 && ev.xbutton.button != Button5) return false;
        out->type = IMG_EVENT_WHEEL;
        out->wheel = ev.xbutton.button == Button4 ? 1 : -1;
        out->modifiers = modifiers_of(ev.xbutton.state);
        return true;
    case Expose:
        put_image(xw, ev.xexpose.x, ev.xexpose.y, ev.xexpose.width, ev.xexpose.height);
        return false;
    case ConfigureNotify:
        if (ev.xconfigure.width == s->width && ev.xconfigure.height == s->height) return false;
        // A failed resize keeps the old store; the next configure tries again.
        if (!resize_backing(s, xw, ev.xconfigure.width, ev.xconfigure.height)) return false;
        xw->paint_pending = false;
        out->type = IMG_EVENT_RESIZE;
        out->right = s->width;
        out->bottom = s->height;
        return true;
    case ClientMessage:
        if (ev.xclient.message_type != xw->wm_protocols || static_cast<Atom>(ev.xclient.data.l[0]) != xw->wm_delete)
            return false;
        out->type = IMG_EVENT_CLOSE;
        return true;
    default:
        return false;
    }
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_dc_create_window(const char *display, int width, int height, const char *title, void **dc) {
    if (!dc) return IMG_ERR_TYPE;
    *dc = nullptr;
    if (width <= 0 || height <= 0) return IMG_ERR_TYPE;
    Display *dpy = XOpenDisplay(display);
    if (!dpy) return IMG_ERR_TYPE;
    const int screen = DefaultScreen(dpy);
    Visual *visual = DefaultVisual(dpy, screen);
    const int depth = DefaultDepth(dpy, screen);
    // The surface's words go out as they are: only a 24-bit RGB visual takes them.
    if ((depth != 24 && depth != 32) || visual->c_class != TrueColor || visual->red_mask != 0xFF0000 ||
        visual->green_mask != 0xFF00 || visual->blue_mask != 0xFF) {
        XCloseDisplay(dpy);
        return IMG_ERR_TYPE;
    }
    surface *s = surface_create(0, 0);
    mem_block rb = 0;
    auto *xw = s ? mem_new_record<x11_window>(&rb) : nullptr;
    if (!xw) {
        if (s) surface_destroy(s);
        XCloseDisplay(dpy);
        return IMG_ERR_MEMORY;
    }
    xw->record_block = rb;
    xw->dpy = dpy;
    xw->visual = visual;
    xw->depth = depth;
    xw->use_shm = XShmQueryExtension(dpy);
    if (!resize_backing(s, xw, width, height)) {
        mem_unlock(rb);
        mem_free(rb);
        surface_destroy(s);
        XCloseDisplay(dpy);
        return IMG_ERR_MEMORY;
    }
    xw->win = XCreateSimpleWindow(dpy, RootWindow(dpy, screen), 0, 0, width, height, 0, BlackPixel(dpy, screen),
                                  WhitePixel(dpy, screen));
    xw->gc = XCreateGC(dpy, xw->win, 0, nullptr);
    XSelectInput(dpy, xw->win, KeyPressMask | ButtonPressMask | ExposureMask | StructureNotifyMask);
    xw->wm_protocols = XInternAtom(dpy, "WM_PROTOCOLS", False);
    xw->wm_delete = XInternAtom(dpy, "WM_DELETE_WINDOW", False);
    XSetWMProtocols(dpy, xw->win, &xw->wm_delete, 1);
    XStoreName(dpy, xw->win, title ? title : "");
    XMapWindow(dpy, xw->win);
    XFlush(dpy);
    s->owner = xw;
    s->hooks = &x11_hooks;
    *dc = s;
    return 0;
}

int IMG_API IMG_dc_next_event(void *dc, int timeout_ms, IMG_event *event) {
    surface *s = surface_of(dc);
    if (!s || s->hooks != &x11_hooks) return IMG_ERR_HANDLE;
    if (!event) return IMG_ERR_TYPE;
    x11_window *xw = window_of(s);
    const uint32_t start = os_tick_count();
    for (;;) {
        if (xw->paint_pending) {
            xw->paint_pending = false;
            *event = {};
            event->type = IMG_EVENT_PAINT;
            event->left = xw->paint_left, event->top = xw->paint_top;
            event->right = xw->paint_right, event->bottom = xw->paint_bottom;
            return 1;
        }
        while (XPending(xw->dpy)) {
            XEvent ev;
            XNextEvent(xw->dpy, &ev);
            if (translate(s, xw, ev, event)) return 1;
        }
        int wait = -1;
        if (timeout_ms >= 0) {
            const uint32_t spent = os_tick_count() - start;
            if (spent >= static_cast<uint32_t>(timeout_ms)) return 0;
            wait = timeout_ms - static_cast<int>(spent);
        }
        pollfd p = {ConnectionNumber(xw->dpy), POLLIN, 0};
        if (poll(&p, 1, wait) == 0) return 0;
    }
}

}  // extern "C"
