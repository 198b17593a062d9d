// A stand-in source manager for the scanning tests: two virtual sources that
// deliver generated pages by native transfer.  What they do is read from
// BRIVANTA_TEST_TWAIN at every call, words separated by spaces:
//   pages=N      pages pending after the first (default 1)
//   fail=N       the transfer of page N fails
//   cancel       the transfer is cancelled;  close  the source asks to be closed
//   refuse       the source will not open;   refuse-enable  it will not enable
//   refuse-dsm   the manager will not open;  select-cancel  the dialog is cancelled
// A page at resolution R is R / 5 pixels wide per inch of the layout (one
// inch unless set) and 30 rows high; pixel (x, y) of page n is
// (x * 3 + y * 5 + n * 7) & 255, as grey, as red/green/blue from it, or
// bilevel by its low bit.  Source "Virtual Scanner B" delivers colour.
#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

#pragma pack(push, 2)
struct tw_identity {
    uint32_t id;
    uint16_t major, minor, language, country;
    char info[34];
    uint16_t protocol_major, protocol_minor;
    uint32_t supported_groups;
    char manufacturer[34], product_family[34], product_name[34];
};
struct tw_event {
    MSG *event;
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
struct tw_capability {
    uint16_t cap, container_type;
    HGLOBAL container;
};
struct tw_one_value {
    uint16_t item_type;
    uint32_t item;
};
struct tw_image_layout {
    tw_fix32 left, top, right, bottom;
    uint32_t document, page, frame;
};
#pragma pack(pop)

constexpr UINT SOURCE_WAKE = WM_APP + 0x57;

const char *const source_names[] = {"Virtual Scanner A", "Virtual Scanner B"};

struct state {
    bool dsm_open, enabled;
    int open_sources, source, listed;
    int resolution, pixel_type, feeder, duplex;
    double layout_width;
    int pages_left, page;
    char config[256];
} s;

bool has(const char *word) {
    size_t n = std::strlen(word);
    for (const char *p = s.config; (p = std::strstr(p, word)); p += n)
        if ((p == s.config || p[-1] == ' ') && (p[n] == 0 || p[n] == ' ' || p[n] == '=')) return true;
    return false;
}

int number(const char *word, int fallback) {
    const char *p = std::strstr(s.config, word);
    return p && p[std::strlen(word)] == '=' ? std::atoi(p + std::strlen(word) + 1) : fallback;
}

bool identity_is_the_library(const tw_identity *a) {
    return a && a->id == 0 && a->major == 1 && a->minor == 0 && a->language == 13 && a->country == 1 &&
           !std::strcmp(a->info, "Brivanta vers 4.0") && a->protocol_major == 1 && a->protocol_minor == 0 &&
           a->supported_groups == 3 && !std::strcmp(a->manufacturer, "Brivanta") &&
           !std::strcmp(a->product_family, "Brivanta DLL") && !std::strcmp(a->product_name, "Application");
}

void describe(int source, tw_identity *id) {
    std::memset(id, 0, sizeof *id);
    id->id = static_cast<uint32_t>(source + 1);
    std::strcpy(id->product_name, source_names[source]);
}

HGLOBAL make_page() {
    const int bits = s.pixel_type == 0 ? 1 : s.pixel_type == 2 ? 24 : 8;
    const int width = static_cast<int>(s.resolution / 5 * s.layout_width), height = 30;
    const int stride = ((bits == 24 ? width * 3 : bits == 8 ? width : (width + 7) / 8) + 3) & ~3;
    const int table = bits == 24 ? 0 : 4 << bits;
    HGLOBAL h = GlobalAlloc(GHND, 40 + table + stride * height);
    auto *p = h ? static_cast<uint8_t *>(GlobalLock(h)) : nullptr;
    if (!p) return h;
    int32_t header[10] = {40, width, height, 1 | bits << 16, 0, stride * height, s.resolution, s.resolution, 0, 0};
    std::memcpy(p, header, 40);
    for (int i = 0; i < table / 4; i++) std::memset(p + 40 + 4 * i, bits == 1 ? i * 255 : i, 3);
    for (int y = 0; y < height; y++) {
        uint8_t *row = p + 40 + table + (height - 1 - y) * stride;
        for (int x = 0; x < width; x++) {
            uint8_t v = static_cast<uint8_t>(x * 3 + y * 5 + s.page * 7);
            if (bits == 8) row[x] = v;
            else if (bits == 24) row[3 * x] = v, row[3 * x + 1] = static_cast<uint8_t>(v ^ 0x55), row[3 * x + 2] = static_cast<uint8_t>(255 - v);
            else if (v & 1) row[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
        }
    }
    GlobalUnlock(h);
    return h;
}

uint16_t set_capability(tw_capability *c) {
    auto *one = c && c->container ? static_cast<tw_one_value *>(GlobalLock(c->container)) : nullptr;
    if (!one) return 1;
    uint32_t v = one->item;
    switch (c->cap) {
    case 0x1118: s.resolution = static_cast<int16_t>(v & 0xFFFF); break;
    case 0x0101: s.pixel_type = static_cast<int>(v); break;
    case 0x1002: s.feeder = static_cast<int>(v); break;
    case 0x1013: s.duplex = static_cast<int>(v); break;
    default: break;
    }
    GlobalUnlock(c->container);
    return 0;
}

uint16_t control(uint16_t dat, uint16_t msg, void *data) {
    if (dat == 4 && msg == 0x301) {  // open the manager
        if (has("refuse-dsm")) return 1;
        s.dsm_open = true;
        return 0;
    }
    if (dat == 4 && msg == 0x302) return s.dsm_open ? (s.dsm_open = false, 0) : 1;
    if (!s.dsm_open) return 1;
    auto *id = static_cast<tw_identity *>(data);
    if (dat == 3 && msg == 4) s.listed = 0;  // first, then next
    if (dat == 3 && (msg == 4 || msg == 5)) {
        if (s.listed >= 2) return 7;
        describe(s.listed++, id);
        return 0;
    }
    if (dat == 3 && msg == 0x403) {  // the selection dialog picks B
        if (has("select-cancel")) return 3;
        describe(1, id);
        return 0;
    }
    if (dat == 3 && msg == 0x401) {  // open
        if (has("refuse") || s.open_sources) return 1;
        if (!id->product_name[0]) s.source = 0;
        else if (!std::strcmp(id->product_name, source_names[0])) s.source = 0;
        else if (!std::strcmp(id->product_name, source_names[1])) s.source = 1;
        else return 1;
        describe(s.source, id);
        s.open_sources++;
        s.resolution = 200;
        s.pixel_type = s.source == 1 ? 2 : 1;
        s.feeder = 1, s.duplex = 0, s.layout_width = 1, s.page = 0;
        return 0;
    }
    if (dat == 3 && msg == 0x402) return s.open_sources ? (s.open_sources--, s.enabled = false, 0) : 1;
    if (!s.open_sources) return 1;
    if (dat == 1 && msg == 6) return set_capability(static_cast<tw_capability *>(data));
    if (dat == 9 && msg == 0x502) {  // enable: a stray message first, then the source's own
        if (has("refuse-enable")) return 1;
        s.enabled = true;
        s.pages_left = number("pages", 1);
        if (s.feeder == 0 && s.pages_left > 1) s.pages_left = 1;
        if (s.duplex) s.pages_left *= 2;
        PostMessageA(nullptr, WM_APP + 1, 0, 0);
        PostMessageA(nullptr, SOURCE_WAKE, 0, 0);
        return 0;
    }
    if (dat == 9 && msg == 0x501) return s.enabled ? (s.enabled = false, 0) : 1;
    if (dat == 2 && msg == 0x601) {
        auto *e = static_cast<tw_event *>(data);
        e->message = 0;
        if (!s.enabled || e->event->message != SOURCE_WAKE) return 5;
        e->message = has("close") ? 0x102 : 0x101;
        return 4;
    }
    if (dat == 5 && msg == 0x701) {  // end of transfer
        s.page++;
        if (s.pages_left > 0) s.pages_left--;
        static_cast<tw_pending_xfers *>(data)->count = static_cast<uint16_t>(s.pages_left);
        return 0;
    }
    if (dat == 5 && msg == 7) {
        s.pages_left = 0;
        static_cast<tw_pending_xfers *>(data)->count = 0;
        return 0;
    }
    return 1;
}

uint16_t image(uint16_t dat, uint16_t msg, void *data) {
    if (!s.open_sources) return 1;
    if (dat == 0x101 && msg == 1) return 0;  // image information: nothing checks it
    if (dat == 0x102 && msg == 6) {
        auto *l = static_cast<tw_image_layout *>(data);
        s.layout_width = (l->right.whole + l->right.frac / 65536.0) - (l->left.whole + l->left.frac / 65536.0);
        return 0;
    }
    if (dat == 0x104 && msg == 1) {
        auto *out = static_cast<HGLOBAL *>(data);
        *out = nullptr;
        if (has("cancel")) return 3;
        if (number("fail", -1) == s.page) return 1;
        *out = make_page();
        return *out ? 6 : 1;
    }
    return 1;
}

}  // namespace

extern "C" {

__declspec(dllexport) uint16_t WINAPI DSM_ENTRY(tw_identity *origin, tw_identity *, uint32_t group, uint16_t dat,
                                                uint16_t msg, void *data) {
    if (!identity_is_the_library(origin)) return 1;
    DWORD n = GetEnvironmentVariableA("BRIVANTA_TEST_TWAIN", s.config, sizeof s.config);
    s.config[n < sizeof s.config ? n : 0] = 0;
    return group == 1 ? control(dat, msg, data) : group == 2 ? image(dat, msg, data) : 1;
}

// What the tests check after each call: sources open, manager open, enabled.
__declspec(dllexport) void test_twain_state(int *open_sources, int *dsm_open, int *enabled) {
    *open_sources = s.open_sources;
    *dsm_open = s.dsm_open;
    *enabled = s.enabled;
}

}
