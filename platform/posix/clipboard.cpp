// The clipboard on X11: the CLIPBOARD selection converted to image/bmp, or
// else image/png, by its owner; large pictures arrive in INCR chunks.
#include "brivanta.h"
#include "platform/platform.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <poll.h>

#include <algorithm>
#include <cstring>

namespace brv {

namespace {

// An owner that stops answering must not hang the caller.
constexpr uint32_t ANSWER_MS = 5000;
// The longest picture taken: the load limit's order of size.
constexpr uint32_t MAX_BYTES = 0x40000000;

int ignore_errors(Display *, XErrorEvent *) { return 0; }

// Bytes gathered in a movable block that grows by doubling.
struct growing_block {
    mem_block block = 0;
    uint8_t *data = nullptr;
    uint32_t size = 0, capacity = 0;
    bool failed = false;  // too large, or memory ran out

    ~growing_block() { release(); }
    void release() {
        if (data) mem_unlock(block);
        if (block) mem_free(block);
        block = 0;
        data = nullptr;
        size = capacity = 0;
    }
    bool append(const void *bytes, uint64_t n) {
        if (!n) return true;
        if (size + n > MAX_BYTES) return !(failed = true);
        if (size + n > capacity) {
            uint32_t want = std::max<uint32_t>(capacity, 65536);
            while (want < size + n) want *= 2;
            mem_block nb = mem_alloc(want, MEM_MOVEABLE | MEM_ZEROINIT);
            auto *nd = nb ? static_cast<uint8_t *>(mem_lock(nb)) : nullptr;
            if (!nd) {
                if (nb) mem_free(nb);
                return !(failed = true);
            }
            if (size) std::memcpy(nd, data, size);
            const uint32_t kept = size;
            release();
            block = nb;
            data = nd;
            capacity = want;
            size = kept;
        }
        std::memcpy(data + size, bytes, n);
        size += static_cast<uint32_t>(n);
        return true;
    }
};

// Waits for an event of type on w that match accepts, until the deadline.
template <class Match>
bool wait_for(Display *d, Window w, int type, XEvent *ev, uint32_t deadline, Match accepts) {
    for (;;) {
        while (XCheckTypedWindowEvent(d, w, type, ev))
            if (accepts(*ev)) return true;
        const int32_t left = static_cast<int32_t>(deadline - os_tick_count());
        if (left <= 0) return false;
        pollfd p = {ConnectionNumber(d), POLLIN, 0};
        if (poll(&p, 1, left) > 0) XEventsQueued(d, QueuedAfterReading);
    }
}

// Takes the property's bytes and deletes it; false for a property that is
// not 8-bit data or when memory fails.
bool take_property(Display *d, Window w, Atom property, growing_block &out, Atom *type) {
    unsigned long items = 0, after = 0;
    int format = 0;
    unsigned char *bytes = nullptr;
    if (XGetWindowProperty(d, w, property, 0, 0x1FFFFFFF, True, AnyPropertyType, type, &format, &items, &after,
                           &bytes) != Success)
        return false;
    bool ok = *type != None;
    if (ok && *type != XInternAtom(d, "INCR", False)) ok = format == 8 && out.append(bytes, items);
    if (bytes) XFree(bytes);
    return ok;
}

// One target of the selection: 0, -2 when the owner does not offer it or
// does not answer, -1 when memory fails.
int fetch(Display *d, Window w, Atom selection, Atom target, growing_block &out) {
    const Atom property = XInternAtom(d, "BRIVANTA_SELECTION", False);
    XConvertSelection(d, selection, target, property, w, CurrentTime);
    XFlush(d);
    XEvent ev;
    uint32_t deadline = os_tick_count() + ANSWER_MS;
    if (!wait_for(d, w, SelectionNotify, &ev, deadline, [&](const XEvent &e) {
            return e.xselection.selection == selection;
        }))
        return IMG_ERR_OPEN;
    if (ev.xselection.property == None) return IMG_ERR_OPEN;
    Atom type = None;
    if (!take_property(d, w, property, out, &type)) return out.failed ? IMG_ERR_MEMORY : IMG_ERR_OPEN;
    if (type != XInternAtom(d, "INCR", False)) return out.size ? 0 : IMG_ERR_OPEN;
    // Incremental: deleting the property asked for the first chunk; each
    // new value is the next, and an empty one ends the transfer.
    XFlush(d);
    for (;;) {
        deadline = os_tick_count() + ANSWER_MS;
        if (!wait_for(d, w, PropertyNotify, &ev, deadline, [&](const XEvent &e) {
                return e.xproperty.atom == property && e.xproperty.state == PropertyNewValue;
            }))
            return IMG_ERR_OPEN;
        const uint32_t before = out.size;
        // The notice of the INCR value itself may still be queued: no property yet.
        if (!take_property(d, w, property, out, &type)) {
            if (type == None) continue;
            return out.failed ? IMG_ERR_MEMORY : IMG_ERR_OPEN;
        }
        XFlush(d);
        if (out.size == before) return out.size ? 0 : IMG_ERR_OPEN;
    }
}

}  // namespace

int os_clipboard_picture(void *owner, mem_block *block, uint32_t *size, int *kind) {
    *block = 0;
    *size = 0;
    Display *d = XOpenDisplay(static_cast<const char *>(owner));
    if (!d) return IMG_ERR_OPEN;
    // The default handler ends the process on a protocol error.
    auto *previous = XSetErrorHandler(ignore_errors);
    int r = IMG_ERR_OPEN;
    const Atom selection = XInternAtom(d, "CLIPBOARD", False);
    if (XGetSelectionOwner(d, selection) != None) {
        const Window w = XCreateSimpleWindow(d, DefaultRootWindow(d), 0, 0, 1, 1, 0, 0, 0);
        XSelectInput(d, w, PropertyChangeMask);
        struct {
            const char *name;
            int kind;
        } const targets[] = {
            {"image/bmp", OS_CLIP_DIB},
#ifndef BRIVANTA_NO_PNG
            {"image/png", OS_CLIP_PNG},
#endif
        };
        for (const auto &t : targets) {
            growing_block got;
            r = fetch(d, w, selection, XInternAtom(d, t.name, False), got);
            if (r == IMG_ERR_MEMORY) break;
            if (r < 0) continue;
            if (t.kind == OS_CLIP_DIB) {
                // A BMP file: its DIB follows the 14-byte file header.
                if (got.size < 14 + 40 || got.data[0] != 'B' || got.data[1] != 'M') {
                    r = IMG_ERR_OPEN;
                    continue;
                }
                std::memmove(got.data, got.data + 14, got.size - 14);
                got.size -= 14;
            }
            mem_unlock(got.block);
            *block = got.block;
            *size = got.size;
            *kind = t.kind;
            got.data = nullptr;
            got.block = 0;
            break;
        }
        XDestroyWindow(d, w);
    }
    XCloseDisplay(d);
    XSetErrorHandler(previous);
    return r;
}

}  // namespace brv
