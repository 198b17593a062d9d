// `brivanta view`: pictures in a window through the library's display, zoom,
// scroll and repaint calls, pages and files stepped through with a
// transition effect.
#include "tools/view.h"

#include "brivanta.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Scroll messages and codes as USER numbers them; the library takes them on every system.
constexpr int WM_HSCROLL_ = 276, WM_VSCROLL_ = 277;
constexpr unsigned SB_LINEUP_ = 0, SB_LINEDOWN_ = 1, SB_PAGEUP_ = 2, SB_PAGEDOWN_ = 3;
// The largest window a picture opens in.
constexpr int MAX_W = 1024, MAX_H = 768;

struct viewer {
    std::vector<const char *> files;
    int (*load)(const char *, int);
    int file = 0, page = 0, pages = 1;
    int handle = -1;
    int effect = 0;
    int percent = 100;
    int last_scroll = 0;  // the direction the next paint repaints
    view::window *win = nullptr;
};

void draw(viewer &v, void *dc) {
    int w = 0, h = 0;
    view::client_size(v.win, &w, &h);
    IMG_display_bitmap(v.handle, dc, 0, 0, w, h);
}

void zoom(viewer &v, int percent) {
    v.percent = std::clamp(percent, 100, 6400);
    IMG_zoom_bitmap(v.handle, view::handle(v.win), v.percent);
    draw(v, view::dc(v.win));
}

// One to one: the percentage that the crop now amounts to, for the next step.
void zoom_one_to_one(viewer &v) {
    IMG_zoom_bitmap_1_to_1(v.handle, view::handle(v.win));
    int pw = 0, ph = 0, bits = 0, l = 0, t = 0, cw = 0, ch = 0;
    IMG_bitmap_info(v.handle, &pw, &ph, &bits);
    IMG_get_croprect(v.handle, &l, &t, &cw, &ch);
    v.percent = cw > 0 ? std::max(100, pw * 100 / cw) : 100;
    draw(v, view::dc(v.win));
}

void scroll(viewer &v, unsigned code, int message) {
    const int dir = IMG_scroll_bitmap(v.handle, view::handle(v.win), code, 0, message);
    if (dir > 0) v.last_scroll = dir;
}

// Loads file and page into the view, fitted to the window, revealed with
// the effect when one is set.  False when it cannot be loaded.
bool show(viewer &v, int file, int page) {
    const int h = v.load(v.files[file], page);
    if (h < 0) {
        std::fprintf(stderr, "brivanta: %s page %d: cannot load (%d)\n", v.files[file], page + 1, h);
        return false;
    }
    if (v.handle >= 0) IMG_delete_bitmap(v.handle);
    v.handle = h;
    v.file = file;
    v.page = page;
    v.pages = std::max(1, IMGLOW_get_pages(v.files[file]));
    v.percent = 100;
    v.last_scroll = 0;
    IMG_zoom_bitmap(h, view::handle(v.win), 100);
    void *dc = view::dc(v.win);
    int w = 0, hh = 0;
    view::client_size(v.win, &w, &hh);
    void *ddb = nullptr;
    if (v.effect && IMG_dib_to_ddb(h, dc, w, hh, &ddb) == 0) {
        IMG_display_ddb_effect(ddb, dc, 0, 0, v.effect);
        IMG_delete_ddb(ddb);
    } else {
        draw(v, dc);
    }
    return true;
}

// The next (step 1) or previous (-1) page, across files, round the list;
// what cannot be loaded is passed over.
void step(viewer &v, int dir) {
    int file = v.file, page = v.page, pages = v.pages;
    for (int tries = 0; tries < 64; tries++) {
        page += dir;
        if (page < 0 || page >= pages) {
            file = (file + dir + static_cast<int>(v.files.size())) % static_cast<int>(v.files.size());
            pages = std::max(1, IMGLOW_get_pages(v.files[file]));
            page = dir > 0 ? 0 : pages - 1;
        }
        if (file == v.file && page == v.page) return;
        if (show(v, file, page)) return;
    }
}

bool on_event(void *self, const view::event &e) {
    viewer &v = *static_cast<viewer *>(self);
    switch (e.type) {
    case view::CLOSE:
        return false;
    case view::RESIZE:
        zoom(v, v.percent);
        return true;
    case view::PAINT:
        if (v.last_scroll) {
            IMG_repaint_scroll(v.handle, e.paint_dc, view::handle(v.win), v.last_scroll, e.paint);
            v.last_scroll = 0;
        } else {
            draw(v, e.paint_dc);
        }
        return true;
    case view::SCROLLBAR:
        scroll(v, e.scroll_wparam, e.scroll_message);
        return true;
    case view::WHEEL:
        if (e.modifiers & view::CTRL)
            zoom(v, e.wheel > 0 ? v.percent * 5 / 4 : v.percent * 4 / 5);
        else
            scroll(v, e.wheel > 0 ? SB_LINEUP_ : SB_LINEDOWN_, (e.modifiers & view::SHIFT) ? WM_HSCROLL_ : WM_VSCROLL_);
        return true;
    case view::KEY:
        switch (e.key) {
        case 'q': case view::ESCAPE: return false;
        case '+': case '=': zoom(v, v.percent * 5 / 4); break;
        case '-': zoom(v, v.percent * 4 / 5); break;
        case '1': zoom_one_to_one(v); break;
        case 'n': step(v, 1); break;
        case 'p': step(v, -1); break;
        case view::LEFT: scroll(v, SB_LINEUP_, WM_HSCROLL_); break;
        case view::RIGHT: scroll(v, SB_LINEDOWN_, WM_HSCROLL_); break;
        case view::UP: scroll(v, SB_LINEUP_, WM_VSCROLL_); break;
        case view::DOWN: scroll(v, SB_LINEDOWN_, WM_VSCROLL_); break;
        case view::PAGE_UP: scroll(v, SB_PAGEUP_, WM_VSCROLL_); break;
        case view::PAGE_DOWN: scroll(v, SB_PAGEDOWN_, WM_VSCROLL_); break;
        default: break;
        }
        return true;
    default:
        return true;
    }
}

}  // namespace

int cmd_view(int argc, char **argv, int (*load)(const char *, int)) {
    viewer v;
    v.load = load;
    v.effect = 1;
    for (int i = 2; i < argc; i++) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::printf("usage: brivanta view [--effect N] FILE...\n"
                        "Shows the files' pages in a window, fitted to it.\n"
                        "  + - 1          zoom in, out, one to one (also Ctrl + mouse wheel)\n"
                        "  arrows, Page Up/Down, mouse wheel   scroll (Shift + wheel: across)\n"
                        "  N P            next and previous page or file, revealed by the\n"
                        "                 transition effect --effect (1..10, default 1; 0 for none)\n"
                        "  Q Escape       quit\n");
            return 0;
        }
        if (!std::strcmp(argv[i], "--effect") && i + 1 < argc) {
            v.effect = std::atoi(argv[++i]);
            if (v.effect < 0 || v.effect > 10) {
                std::fprintf(stderr, "brivanta: --effect takes 0..10\n");
                return 2;
            }
        } else {
            v.files.push_back(argv[i]);
        }
    }
    if (v.files.empty()) {
        std::fprintf(stderr, "usage: brivanta view [--effect N] FILE...\n");
        return 2;
    }
    // The window takes the first picture's shape, shrunk to fit the largest size.
    int first = load(v.files[0], 0);
    if (first < 0) {
        std::fprintf(stderr, "brivanta: %s: cannot load (%d)\n", v.files[0], first);
        return 1;
    }
    int pw = 0, ph = 0, bits = 0;
    IMG_bitmap_info(first, &pw, &ph, &bits);
    IMG_delete_bitmap(first);
    int ww = pw, wh = ph;
    if (pw > MAX_W || ph > MAX_H) {
        const bool wide = static_cast<int64_t>(pw) * MAX_H >= static_cast<int64_t>(ph) * MAX_W;
        ww = wide ? MAX_W : static_cast<int>(static_cast<int64_t>(pw) * MAX_H / ph);
        wh = wide ? static_cast<int>(static_cast<int64_t>(ph) * MAX_W / pw) : MAX_H;
    }
    ww = std::max(ww, 1), wh = std::max(wh, 1);
    const char *why = "";
    v.win = view::open(ww, wh, "brivanta view", &why);
    if (!v.win) {
        std::fprintf(stderr, "brivanta: cannot open a window: %s\n", why);
        return 1;
    }
    // The first picture appears without an effect.
    const int effect = v.effect;
    v.effect = 0;
    const bool shown = show(v, 0, 0);
    v.effect = effect;
    if (shown) view::run(v.win, on_event, &v);
    if (v.handle >= 0) IMG_delete_bitmap(v.handle);
    view::close(v.win);
    return shown ? 0 : 1;
}
