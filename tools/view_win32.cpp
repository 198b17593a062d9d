// The viewer's window on Windows: a USER window whose messages become the
// viewer's events; its scroll bars are the ones the library's zoom sets.
#include "tools/view.h"

#include <windows.h>

#include <cctype>

namespace view {

struct window {
    HWND hwnd;
    HDC dc;  // the class's own device context
    handler on_event;
    void *self;
    // Zoom changes the scroll bars and so the client size from inside a
    // handler: that resize is handled after it, not within it.
    bool busy, resize_pending;
};

namespace {

window the_window;

int modifiers_now() {
    return ((GetKeyState(VK_SHIFT) & 0x8000) ? SHIFT : 0) | ((GetKeyState(VK_CONTROL) & 0x8000) ? CTRL : 0);
}

int key_of(WPARAM vk) {
    switch (vk) {
    case VK_ESCAPE: return ESCAPE;
    case VK_LEFT: return LEFT;
    case VK_RIGHT: return RIGHT;
    case VK_UP: return UP;
    case VK_DOWN: return DOWN;
    case VK_PRIOR: return PAGE_UP;
    case VK_NEXT: return PAGE_DOWN;
    case VK_HOME: return HOME;
    case VK_END: return END;
    default: return 0;
    }
}

// The handler's answer; events arriving while it runs wait (a resize) or go.
bool dispatch(window *w, const event &e) {
    if (w->busy) {
        if (e.type == RESIZE) w->resize_pending = true;
        return true;
    }
    w->busy = true;
    bool go = w->on_event(w->self, e);
    // Twice at most: a bar that comes and goes with the size must not spin.
    for (int i = 0; i < 2 && go && w->resize_pending; i++) {
        w->resize_pending = false;
        event r = {};
        r.type = RESIZE;
        go = w->on_event(w->self, r);
    }
    w->resize_pending = false;
    w->busy = false;
    return go;
}

LRESULT CALLBACK procedure(HWND hwnd, UINT message, WPARAM wp, LPARAM lp) {
    window *w = &the_window;
    event e = {};
    PAINTSTRUCT ps;
    switch (message) {
    case WM_KEYDOWN:
        e.key = key_of(wp);
        if (e.key) e.type = KEY;
        break;
    case WM_CHAR:
        // Escape also comes as a key; the characters are the printable ones.
        if (wp > 0x20 && wp < 0x7F) e.type = KEY, e.key = std::tolower(static_cast<int>(wp));
        break;
    case WM_MOUSEWHEEL:
        e.type = WHEEL;
        e.wheel = GET_WHEEL_DELTA_WPARAM(wp) > 0 ? 1 : -1;
        break;
    case WM_HSCROLL:
    case WM_VSCROLL:
        e.type = SCROLLBAR;
        e.scroll_wparam = static_cast<unsigned>(wp);
        e.scroll_message = static_cast<int>(message);
        break;
    case WM_PAINT:
        BeginPaint(hwnd, &ps);
        if (w->on_event) {
            e.type = PAINT;
            e.paint_dc = ps.hdc;
            e.paint = &ps;
            if (!dispatch(w, e)) DestroyWindow(hwnd);
        }
        EndPaint(hwnd, &ps);
        return 0;
    case WM_SIZE:
        if (wp != SIZE_MINIMIZED) e.type = RESIZE;
        break;
    case WM_CLOSE:
        e.type = CLOSE;
        break;
    case WM_DESTROY:
        w->hwnd = nullptr;
        PostQuitMessage(0);
        return 0;
    default:
        break;
    }
    if (!e.type) return DefWindowProcA(hwnd, message, wp, lp);
    e.modifiers = modifiers_now();
    if (w->on_event && !dispatch(w, e)) DestroyWindow(hwnd);
    return 0;
}

}  // namespace

window *open(int width, int height, const char *title, const char **why) {
    WNDCLASSA wc = {};
    wc.style = CS_OWNDC | CS_HREDRAW | CS_VREDRAW;
    wc.lpfnWndProc = procedure;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.hCursor = LoadCursor(nullptr, IDC_ARROW);
    wc.hbrBackground = static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH));
    wc.lpszClassName = "brivanta_view";
    RegisterClassA(&wc);
    const DWORD style = WS_OVERLAPPEDWINDOW;
    RECT r = {0, 0, width, height};
    AdjustWindowRect(&r, style, FALSE);
    HWND hwnd = CreateWindowA("brivanta_view", title, style, CW_USEDEFAULT, CW_USEDEFAULT, r.right - r.left,
                              r.bottom - r.top, nullptr, nullptr, wc.hInstance, nullptr);
    if (!hwnd) {
        *why = "the window cannot be created";
        return nullptr;
    }
    the_window = {hwnd, GetDC(hwnd), nullptr, nullptr, false, false};
    ShowWindow(hwnd, SW_SHOWNORMAL);
    return &the_window;
}

void close(window *w) {
    if (w->hwnd) DestroyWindow(w->hwnd);
}

void *dc(window *w) { return w->dc; }
void *handle(window *w) { return w->hwnd; }

void client_size(window *w, int *width, int *height) {
    RECT r = {0, 0, 0, 0};
    if (w->hwnd) GetClientRect(w->hwnd, &r);
    *width = r.right;
    *height = r.bottom;
}

void run(window *w, handler h, void *self) {
    w->on_event = h;
    w->self = self;
    MSG m;
    while (w->hwnd && GetMessageA(&m, nullptr, 0, 0) > 0) {
        TranslateMessage(&m);
        DispatchMessageA(&m);
    }
    w->on_event = nullptr;
}

}  // namespace view
