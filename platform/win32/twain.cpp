// Scanning through the TWAIN source manager: TWAIN32.DLL in the Windows
// directory, reached through its one entry point.  The manager stays open
// between calls; each session opens, enables and closes a source.
#include "frame/frame.h"
#include "platform/scanner.h"

#include <windows.h>

#include <cstring>

namespace brv {

namespace {

// ---- The part of the TWAIN interface used here (2-byte packed records) --------
#pragma pack(push, 2)
struct tw_version {
    uint16_t major, minor, language, country;
    char info[34];
};
struct tw_identity {
    uint32_t id;
    tw_version version;
    uint16_t protocol_major, protocol_minor;
    uint32_t supported_groups;
    char manufacturer[34], product_family[34], product_name[34];
};
struct tw_user_interface {
    uint16_t show_ui, modal_ui;
    HANDLE parent;
};
struct tw_event {
    void *event;
    uint16_t message;
};
struct tw_pending_xfers {
    uint16_t count;
    uint32_t reserved;
};
struct tw_fix32 {
    int16_t whole;
    uint16_t frac;
};
struct tw_image_info {
    tw_fix32 x_resolution, y_resolution;
    int32_t width, length;
    int16_t samples_per_pixel, bits_per_sample[8], bits_per_pixel;
    uint16_t planar;
    int16_t pixel_type;
    uint16_t compression;
};
struct tw_image_layout {
    tw_fix32 left, top, right, bottom;
    uint32_t document, page, frame;
};
struct tw_capability {
    uint16_t cap, container_type;
    HANDLE container;
};
struct tw_one_value {
    uint16_t item_type;
    uint32_t item;
};
#pragma pack(pop)

using dsm_entry_fn = uint16_t(WINAPI *)(tw_identity *, tw_identity *, uint32_t, uint16_t, uint16_t, void *);

constexpr uint32_t DG_CONTROL = 1, DG_IMAGE = 2;
constexpr uint16_t DAT_CAPABILITY = 1, DAT_EVENT = 2, DAT_IDENTITY = 3, DAT_PARENT = 4, DAT_PENDINGXFERS = 5,
                   DAT_USERINTERFACE = 9, DAT_IMAGEINFO = 0x101, DAT_IMAGELAYOUT = 0x102,
                   DAT_IMAGENATIVEXFER = 0x104;
constexpr uint16_t MSG_GET = 1, MSG_GETFIRST = 4, MSG_GETNEXT = 5, MSG_SET = 6, MSG_RESET = 7, MSG_XFERREADY = 0x101,
                   MSG_CLOSEDSREQ = 0x102, MSG_OPENDSM = 0x301, MSG_CLOSEDSM = 0x302, MSG_OPENDS = 0x401,
                   MSG_CLOSEDS = 0x402, MSG_USERSELECT = 0x403, MSG_DISABLEDS = 0x501, MSG_ENABLEDS = 0x502,
                   MSG_PROCESSEVENT = 0x601, MSG_ENDXFER = 0x701;
constexpr uint16_t TWRC_SUCCESS = 0, TWRC_CANCEL = 3, TWRC_DSEVENT = 4, TWRC_NOTDSEVENT = 5, TWRC_XFERDONE = 6;
constexpr uint16_t TWON_ONEVALUE = 5, TWTY_UINT16 = 4, TWTY_BOOL = 6, TWTY_FIX32 = 7;
constexpr uint16_t CAP_FEEDERENABLED = 0x1002, CAP_DUPLEXENABLED = 0x1013, ICAP_PIXELTYPE = 0x0101,
                   ICAP_UNITS = 0x0102, ICAP_XRESOLUTION = 0x1118, ICAP_YRESOLUTION = 0x1119;
constexpr uint16_t TWPT_BW = 0, TWPT_GRAY = 1, TWPT_RGB = 2, TWUN_INCHES = 0;

// ---- Library-wide scanning state ----
tw_identity app;
tw_identity chosen_source;  // Id 0 and no product name: the default source
HMODULE manager_library = nullptr;
dsm_entry_fn dsm_entry = nullptr;
bool manager_open = false;
HWND manager_window = nullptr;
int sources_open = 0;

void copy_text(char (&to)[34], const char *from) {
    std::memset(to, 0, sizeof to);
    std::strncpy(to, from, sizeof to - 1);
}

uint16_t call(tw_identity *dest, uint32_t group, uint16_t data, uint16_t message, void *arg) {
    return dsm_entry(&app, dest, group, data, message, arg);
}

int open_manager(HWND window) {
    if (manager_open) return 0;
    std::memset(&app, 0, sizeof app);
    app.version.major = 1;
    app.version.language = 13;
    app.version.country = 1;
    std::strcpy(app.version.info, "Brivanta vers 4.0");
    app.protocol_major = 1;
    app.supported_groups = 3;
    copy_text(app.manufacturer, "Brivanta");
    copy_text(app.product_family, "Brivanta DLL");
    copy_text(app.product_name, "Application");
    if (!manager_library) {
        char path[MAX_PATH + 16];
        UINT n = GetWindowsDirectoryA(path, MAX_PATH);
        if (n == 0 || n >= MAX_PATH) return IMG_ERR_SCAN_ACQUIRE;
        std::strcpy(path + n, "\\TWAIN32.DLL");
        OFSTRUCT of;
        if (OpenFile(path, &of, OF_EXIST) == HFILE_ERROR) return IMG_ERR_SCAN_ACQUIRE;
        manager_library = LoadLibraryA("TWAIN32.DLL");
        if (!manager_library) return IMG_ERR_SCAN_ACQUIRE;
        dsm_entry = reinterpret_cast<dsm_entry_fn>(reinterpret_cast<void *>(GetProcAddress(manager_library, "DSM_ENTRY")));
        if (!dsm_entry) {
            FreeLibrary(manager_library);
            manager_library = nullptr;
            return IMG_ERR_SCAN_ACQUIRE;
        }
    }
    manager_window = window;
    if (call(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &manager_window) != TWRC_SUCCESS) return IMG_ERR_SCAN_SOURCE;
    manager_open = true;
    return 0;
}

void close_manager() {
    if (manager_open) call(nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &manager_window);
    manager_open = false;
}

// ---- Capabilities, when the source's own dialog is hidden ----
void set_one(tw_identity *source, uint16_t cap, uint16_t type, uint32_t value) {
    HGLOBAL h = GlobalAlloc(GHND, sizeof(tw_one_value));
    if (!h) return;
    auto *one = static_cast<tw_one_value *>(GlobalLock(h));
    if (one) {
        one->item_type = type;
        one->item = value;
        GlobalUnlock(h);
        tw_capability c{cap, TWON_ONEVALUE, h};
        call(source, DG_CONTROL, DAT_CAPABILITY, MSG_SET, &c);
    }
    GlobalFree(h);
}

tw_fix32 fix32(double v) {
    int32_t f = static_cast<int32_t>(v * 65536.0 + 0.5);
    return tw_fix32{static_cast<int16_t>(f >> 16), static_cast<uint16_t>(f & 0xFFFF)};
}

uint32_t fix32_bits(double v) {
    tw_fix32 f = fix32(v);
    return static_cast<uint16_t>(f.whole) | static_cast<uint32_t>(f.frac) << 16;
}

void negotiate(tw_identity *source, const scan_caps &c) {
    set_one(source, ICAP_UNITS, TWTY_UINT16, TWUN_INCHES);
    if (c.resolution) {
        set_one(source, ICAP_XRESOLUTION, TWTY_FIX32, fix32_bits(c.resolution));
        set_one(source, ICAP_YRESOLUTION, TWTY_FIX32, fix32_bits(c.resolution));
    }
    if (c.mode)
        set_one(source, ICAP_PIXELTYPE, TWTY_UINT16,
                c.mode == IMG_SCAN_COLOUR ? TWPT_RGB : c.mode == IMG_SCAN_GREY ? TWPT_GRAY : TWPT_BW);
    if (c.source) {
        set_one(source, CAP_FEEDERENABLED, TWTY_BOOL, c.source != IMG_SCAN_FLATBED);
        set_one(source, CAP_DUPLEXENABLED, TWTY_BOOL, c.source == IMG_SCAN_DUPLEX);
    }
    if (c.width && c.height) {
        tw_image_layout layout{};
        layout.left = fix32(c.left / 1000.0);
        layout.top = fix32(c.top / 1000.0);
        layout.right = fix32((c.left + c.width) / 1000.0);
        layout.bottom = fix32((c.top + c.height) / 1000.0);
        call(source, DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout);
    }
}

// ---- Transfers ----
// Every picture pending, by native transfer; the delivery's last answer.
int transfer(tw_identity *source, const scan_delivery &d) {
    int result = 0;
    tw_pending_xfers pending{};
    do {
        tw_image_info info{};
        call(source, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info);
        HANDLE block = nullptr;
        uint16_t rc = call(source, DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &block);
        if (rc == TWRC_XFERDONE && reinterpret_cast<uintptr_t>(block) >= 32) {
            void *dib = GlobalLock(block);
            result = dib ? d.page(d.context, dib, 0) : d.page(d.context, nullptr, IMG_ERR_MEMORY);
            if (dib) GlobalUnlock(block);
        } else {
            result = d.page(d.context, nullptr, rc == TWRC_CANCEL ? IMG_ERR_STOPPED : IMG_ERR_MEMORY);
        }
        if (block) GlobalFree(block);
        pending = {};
        call(source, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
    } while (d.all_pages && result >= 0 && pending.count != 0);
    // Pages still waiting are dropped, so the source can close.
    if (pending.count != 0) call(source, DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending);
    return result;
}

void close_source(tw_identity *source, tw_user_interface *ui) {
    if (ui) call(source, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, ui);
    call(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, source);
    sources_open--;
}

}  // namespace

int scanner_session(void *window, bool show_ui, const scan_caps &caps, const scan_delivery &delivery) {
    HWND parent = static_cast<HWND>(window);
    if (int r = open_manager(parent); r < 0) return r;
    tw_identity source = chosen_source;
    if (call(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &source) != TWRC_SUCCESS) {
        close_manager();
        return IMG_ERR_SCAN_SOURCE;
    }
    sources_open++;
    if (!show_ui) negotiate(&source, caps);
    tw_user_interface ui{static_cast<uint16_t>(show_ui), 0, parent};
    if (call(&source, DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui) != TWRC_SUCCESS) {
        close_source(&source, nullptr);
        return IMG_ERR_SCAN_SOURCE;
    }
    // The source speaks through this thread's messages until it has a
    // picture or wants to be closed.
    int result = IMG_ERR_STOPPED;
    MSG msg;
    for (;;) {
        BOOL got = GetMessageA(&msg, nullptr, 0, 0);
        if (got == 0 || got == -1) {
            if (got == 0) PostQuitMessage(static_cast<int>(msg.wParam));  // the caller's loop sees it too
            break;
        }
        tw_event event{&msg, 0};
        if (call(&source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event) == TWRC_NOTDSEVENT) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        if (event.message == MSG_XFERREADY) {
            result = transfer(&source, delivery);
            break;
        }
        if (event.message == MSG_CLOSEDSREQ) break;
    }
    close_source(&source, &ui);
    return result;
}

int scanner_select(void *window, const char *name) {
    if (int r = open_manager(static_cast<HWND>(window)); r < 0) return r;
    tw_identity found{};
    if (!name || !*name) {
        uint16_t rc = call(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_USERSELECT, &found);
        if (rc == TWRC_CANCEL) return IMG_ERR_STOPPED;
        if (rc != TWRC_SUCCESS) return IMG_ERR_SCAN_SOURCE;
        chosen_source = found;
        return 0;
    }
    for (uint16_t m = MSG_GETFIRST; call(nullptr, DG_CONTROL, DAT_IDENTITY, m, &found) == TWRC_SUCCESS; m = MSG_GETNEXT) {
        found.product_name[sizeof found.product_name - 1] = 0;
        if (!std::strcmp(found.product_name, name)) {
            chosen_source = found;
            return 0;
        }
    }
    return IMG_ERR_SCAN_SOURCE;
}

int scanner_list(void (*each)(void *context, const char *name), void *context) {
    if (int r = open_manager(nullptr); r < 0) return r;
    tw_identity found{};
    int count = 0;
    for (uint16_t m = MSG_GETFIRST; count < 4096 && call(nullptr, DG_CONTROL, DAT_IDENTITY, m, &found) == TWRC_SUCCESS;
         m = MSG_GETNEXT, count++) {
        found.product_name[sizeof found.product_name - 1] = 0;
        each(context, found.product_name);
    }
    return count;
}

void scanner_shutdown() {
    close_manager();
    if (manager_library) FreeLibrary(manager_library);
    manager_library = nullptr;
    dsm_entry = nullptr;
    std::memset(&chosen_source, 0, sizeof chosen_source);
}

int scanner_open_devices() { return sources_open; }

}  // namespace brv
