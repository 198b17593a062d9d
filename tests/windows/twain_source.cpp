// A stand-in source manager for the scanning tests: two virtual sources that
// deliver generated pages by native transfer.  Orders come from
// BRIVANTA_TEST_TWAIN, read at every call, words separated by spaces:
//   pages=N  pages pending (default 1);  fail=N  the transfer of page N fails
//   cancel  the transfer is cancelled;  close  the source asks to be closed
//   refuse  the source will not open;  refuse-enable  it will not enable
//   refuse-dsm  the manager will not open;  select-cancel  the dialog is cancelled
// A page at resolution R is R / 5 pixels wide per inch of layout (one inch
// unless set) and 30 rows high; pixel (x, y) of page n is v = (x * 3 + y * 5
// + n * 7) & 255: grey v, or white where v is odd, or blue v, green v ^ 0x55,
// red 255 - v from "Virtual Scanner B".
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
#pragma pack(pop)

constexpr UINT SOURCE_WAKE = WM_APP + 0x57;
const char *const names[] = {"Virtual Scanner A", "Virtual Scanner B"};

struct {
    bool dsm_open, enabled;
    int open_sources, source, listed, resolution, pixel_type, feeder, duplex, pages_left, page;
    double inches;
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

bool is_the_library(const tw_identity *a) {
    return a && a->id == 0 && a->major == 1 && a->minor == 0 && a->language == 13 && a->country == 1 &&
           !std::strcmp(a->info, "Brivanta vers 4.0") && a->protocol_major == 1 && a->protocol_minor == 0 &&
           a->supported_groups == 3 && !std::strcmp(a->manufacturer, "Brivanta") &&
           !std::strcmp(a->product_family, "Brivanta DLL") && !std::strcmp(a->product_name, "Application");
}

uint16_t describe(int source, void *data) {
    auto *id = static_cast<tw_identity *>(data);
    std::memset(id, 0, sizeof *id);
    id->id = static_cast<uint32_t>(source + 1);
    std::strcpy(id->product_name, names[source]);
    return 0;
}

HGLOBAL make_page() {
    const int bits = s.pixel_type == 0 ? 1 : s.pixel_type == 2 ? 24 : 8, width = static_cast<int>(s.resolution / 5 * s.inches);
    const int stride = ((bits == 24 ? width * 3 : bits == 8 ? width : (width + 7) / 8) + 3) & ~3, table = bits == 24 ? 0 : 4 << bits;
    HGLOBAL h = GlobalAlloc(GHND, 40 + table + stride * 30);
    auto *p = static_cast<uint8_t *>(GlobalLock(h));
    int32_t header[10] = {40, width, 30, 1 | bits << 16, 0, stride * 30, s.resolution, s.resolution, 0, 0};
    std::memcpy(p, header, 40);
    for (int i = 0; i < table / 4; i++) std::memset(p + 40 + 4 * i, bits == 1 ? i * 255 : i, 3);
    for (int y = 0; y < 30; y++) {
        uint8_t *row = p + 40 + table + (29 - y) * stride;
        for (int x = 0; x < width; x++) {
            uint8_t v = static_cast<uint8_t>(x * 3 + y * 5 + s.page * 7);
            if (bits == 8) row[x] = v;
            else if (bits == 1) row[x / 8] |= static_cast<uint8_t>((v & 1) << (7 - x % 8));
            else row[3 * x] = v, row[3 * x + 1] = v ^ 0x55, row[3 * x + 2] = static_cast<uint8_t>(255 - v);
        }
    }
    GlobalUnlock(h);
    return h;
}

uint16_t set_capability(const tw_capability *c) {
    auto *one = static_cast<tw_one_value *>(GlobalLock(c->container));
    int v = static_cast<int>(one->item);
    if (c->cap == 0x1118) s.resolution = static_cast<int16_t>(v & 0xFFFF);
    if (c->cap == 0x0101) s.pixel_type = v;
    if (c->cap == 0x1002) s.feeder = v;
    if (c->cap == 0x1013) s.duplex = v;
    GlobalUnlock(c->container);
    return 0;
}

uint16_t open_source(tw_identity *id) {
    if (has("refuse") || s.open_sources) return 1;
    s.source = !std::strcmp(id->product_name, names[1]) ? 1 : 0;
    if (id->product_name[0] && std::strcmp(id->product_name, names[s.source])) return 1;
    s.open_sources = 1;
    s.resolution = 200, s.pixel_type = s.source == 1 ? 2 : 1, s.feeder = 1, s.duplex = 0, s.inches = 1, s.page = 0;
    return describe(s.source, id);
}

uint16_t enable() {
    if (has("refuse-enable")) return 1;
    s.enabled = true;
    s.pages_left = (s.feeder ? number("pages", 1) : 1) * (s.duplex ? 2 : 1);
    PostMessageA(nullptr, WM_APP + 1, 0, 0);  // not the source's: the library dispatches it
    PostMessageA(nullptr, SOURCE_WAKE, 0, 0);
    return 0;
}

uint16_t process_event(tw_event *e) {
    e->message = 0;
    if (!s.enabled || e->event->message != SOURCE_WAKE) return 5;
    e->message = has("close") ? 0x102 : 0x101;
    return 4;
}

uint16_t transfer(HGLOBAL *out) {
    *out = nullptr;
    if (has("cancel")) return 3;
    if (number("fail", -1) == s.page) return 1;
    *out = make_page();
    return 6;
}

uint16_t pending(uint16_t *count, bool reset) {
    s.page++;
    s.pages_left = reset ? 0 : s.pages_left - 1;
    *count = static_cast<uint16_t>(s.pages_left);
    return 0;
}

}  // namespace

extern "C" {

__declspec(dllexport) uint16_t WINAPI DSM_ENTRY(tw_identity *origin, tw_identity *, uint32_t group, uint16_t dat,
                                                uint16_t msg, void *data) {
    DWORD n = GetEnvironmentVariableA("BRIVANTA_TEST_TWAIN", s.config, sizeof s.config);
    s.config[n < sizeof s.config ? n : 0] = 0;
    if (!is_the_library(origin)) return 1;
    const uint32_t op = group << 28 | static_cast<uint32_t>(dat) << 16 | msg;
    if (op == 0x10040301) return has("refuse-dsm") ? 1 : (s.dsm_open = true, 0);
    if (!s.dsm_open) return 1;
    switch (op) {
    case 0x10040302: s.dsm_open = false; return 0;
    case 0x10030004: s.listed = 0; return s.listed < 2 ? describe(s.listed++, data) : 7;
    case 0x10030005: return s.listed < 2 ? describe(s.listed++, data) : 7;
    case 0x10030403: return has("select-cancel") ? 3 : describe(1, data);
    case 0x10030401: return open_source(static_cast<tw_identity *>(data));
    }
    if (!s.open_sources) return 1;
    switch (op) {
    case 0x10030402: s.open_sources = 0, s.enabled = false; return 0;
    case 0x10010006: return set_capability(static_cast<tw_capability *>(data));
    case 0x10090502: return enable();
    case 0x10090501: return s.enabled ? (s.enabled = false, 0) : 1;
    case 0x10020601: return process_event(static_cast<tw_event *>(data));
    case 0x10050701: return pending(static_cast<uint16_t *>(data), false);
    case 0x10050007: return pending(static_cast<uint16_t *>(data), true);
    case 0x21010001: return 0;  // image information: nothing checks it
    case 0x21020006: {
        auto *frame = static_cast<tw_fix32 *>(data);  // left, top, right, bottom
        s.inches = frame[2].whole + frame[2].frac / 65536.0 - frame[0].whole - frame[0].frac / 65536.0;
        return 0;
    }
    case 0x21040001: return transfer(static_cast<HGLOBAL *>(data));
    }
    return 1;
}

// Sources open, manager open, source enabled: for the tests to check after each call.
__declspec(dllexport) void test_twain_state(int *open_sources, int *dsm_open, int *enabled) {
    *open_sources = s.open_sources, *dsm_open = s.dsm_open, *enabled = s.enabled;
}

}
