// Scanning through SANE.  libsane is loaded for each session, as Windows
// loads its source manager: the library runs on systems without it, and a
// session sees the configuration as it stands when it starts.
#include "codecs/codec_support.h"
#include "frame/frame.h"
#include "platform/scanner.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#if defined(__SANITIZE_ADDRESS__) || defined(__clang__)
#include <sanitizer/lsan_interface.h>
#endif
#include <initializer_list>

namespace brv {

namespace {

// ---- The part of the SANE interface used here ---------------------------------
enum : int {
    SANE_GOOD = 0,
    SANE_CANCELLED = 2,
    SANE_EOF = 5,
    SANE_NO_DOCS = 7,
};
enum : int { TYPE_BOOL, TYPE_INT, TYPE_FIXED, TYPE_STRING };
enum : int { UNIT_MM = 3 };
enum : int { CONSTRAINT_NONE, CONSTRAINT_RANGE, CONSTRAINT_WORD_LIST, CONSTRAINT_STRING_LIST };
enum : int { ACTION_GET, ACTION_SET };
enum : int { FRAME_GRAY, FRAME_RGB, FRAME_RED, FRAME_GREEN, FRAME_BLUE };
constexpr int CAP_SOFT_SELECT = 1, CAP_INACTIVE = 32;

struct sane_device {
    const char *name, *vendor, *model, *type;
};
struct sane_range {
    int32_t min, max, quant;
};
struct sane_option {
    const char *name, *title, *desc;
    int type, unit, size, cap, constraint_type;
    const void *constraint;
};
struct sane_parameters {
    int format, last_frame, bytes_per_line, pixels_per_line, lines, depth;
};

struct sane_api {
    void *library = nullptr;
    int (*init)(int *, void *);
    void (*exit)();
    int (*get_devices)(const sane_device ***, int);
    int (*open)(const char *, void **);
    void (*close)(void *);
    const sane_option *(*get_option_descriptor)(void *, int);
    int (*control_option)(void *, int, int, void *, int *);
    int (*get_parameters)(void *, sane_parameters *);
    int (*start)(void *);
    int (*read)(void *, unsigned char *, int, int *);
    void (*cancel)(void *);
};

// libsane and its backends keep memory past sane_exit, which leak checking
// would blame on the caller: it looks away while they run.
#if defined(__SANITIZE_ADDRESS__)
#define BRIVANTA_LEAK_CHECKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(leak_sanitizer)
#define BRIVANTA_LEAK_CHECKS 1
#endif
#endif
#ifdef BRIVANTA_LEAK_CHECKS
struct foreign_memory {
    foreign_memory() { __lsan_disable(); }
    ~foreign_memory() { __lsan_enable(); }
};
#else
struct foreign_memory {
    foreign_memory() {}
};
#endif

template <typename F, typename... A> auto call(F fn, A... args) {
    foreign_memory quiet;
    return fn(args...);
}

char chosen_device[256];  // "" = the first device listed
int devices_open = 0;

// The library's name can be changed for a run (tests point it at a missing one).
const char *library_name() {
    const char *name = std::getenv("BRIVANTA_SANE_LIBRARY");
    return name && *name ? name : "libsane.so.1";
}

// A loaded and initialised libsane with at most one device open; the
// destructor cancels, closes, exits and unloads on every path.
struct session {
    sane_api api;
    bool initialised = false;
    void *device = nullptr;

    ~session() {
        if (device) {
            call(api.cancel, device);
            call(api.close, device);
            devices_open--;
        }
        if (initialised) call(api.exit);
        if (api.library) dlclose(api.library);
    }

    template <typename F> bool find(F &fn, const char *name) {
        fn = reinterpret_cast<F>(dlsym(api.library, name));
        return fn != nullptr;
    }

    int load() {
        api.library = dlopen(library_name(), RTLD_NOW | RTLD_LOCAL);
        if (!api.library) return IMG_ERR_SCAN_ACQUIRE;
        if (!find(api.init, "sane_init") || !find(api.exit, "sane_exit") || !find(api.get_devices, "sane_get_devices") ||
            !find(api.open, "sane_open") || !find(api.close, "sane_close") ||
            !find(api.get_option_descriptor, "sane_get_option_descriptor") ||
            !find(api.control_option, "sane_control_option") || !find(api.get_parameters, "sane_get_parameters") ||
            !find(api.start, "sane_start") || !find(api.read, "sane_read") || !find(api.cancel, "sane_cancel"))
            return IMG_ERR_SCAN_ACQUIRE;
        int version = 0;
        if (call(api.init, &version, nullptr) != SANE_GOOD) return IMG_ERR_SCAN_ACQUIRE;
        initialised = true;
        return 0;
    }

    const sane_device *const *devices() {
        const sane_device **list = nullptr;
        if (call(api.get_devices, &list, 0) != SANE_GOOD || !list) return nullptr;
        return list;
    }

    int open(const char *name) {
        if (!name || !*name) {
            const sane_device *const *list = devices();
            if (!list || !list[0] || !list[0]->name) return IMG_ERR_SCAN_SOURCE;
            name = list[0]->name;
        }
        void *h = nullptr;
        if (call(api.open, name, &h) != SANE_GOOD || !h) return IMG_ERR_SCAN_SOURCE;
        device = h;
        devices_open++;
        return 0;
    }

    // ---- Options ----
    int option_index(const char *name, const sane_option **out) {
        int32_t count = 0;
        if (call(api.control_option, device, 0, ACTION_GET, &count, nullptr) != SANE_GOOD) return -1;
        for (int i = 1; i < count && i < 4096; i++) {
            const sane_option *o = call(api.get_option_descriptor, device, i);
            if (o && o->name && !std::strcmp(o->name, name) && !(o->cap & CAP_INACTIVE) && (o->cap & CAP_SOFT_SELECT)) {
                *out = o;
                return i;
            }
        }
        return -1;
    }

    // A number in the option's own type, moved into its range or onto its nearest listed value.
    void set_number(const char *name, double value) {
        const sane_option *o;
        int i = option_index(name, &o);
        if (i < 0 || (o->type != TYPE_INT && o->type != TYPE_FIXED) || o->size != 4) return;
        double scale = o->type == TYPE_FIXED ? 65536.0 : 1.0;
        double scaled = value * scale + 0.5;
        if (scaled > 2147483647.0) scaled = 2147483647.0;
        int32_t v = static_cast<int32_t>(scaled);
        if (o->constraint_type == CONSTRAINT_RANGE && o->constraint) {
            auto *r = static_cast<const sane_range *>(o->constraint);
            v = v < r->min ? r->min : v > r->max ? r->max : v;
        } else if (o->constraint_type == CONSTRAINT_WORD_LIST && o->constraint) {
            auto *w = static_cast<const int32_t *>(o->constraint);
            int32_t best = v;
            int64_t best_gap = INT64_MAX;
            for (int k = 1; k <= w[0] && k < 1024; k++) {
                int64_t gap = w[k] > v ? int64_t{w[k]} - v : int64_t{v} - w[k];
                if (gap < best_gap) best = w[k], best_gap = gap;
            }
            v = best;
        }
        call(api.control_option, device, i, ACTION_SET, &v, nullptr);
    }

    int32_t get_number(const char *name, int32_t fallback) {
        const sane_option *o;
        int i = option_index(name, &o);
        int32_t v = 0;
        if (i < 0 || (o->type != TYPE_INT && o->type != TYPE_FIXED) || o->size != 4 ||
            call(api.control_option, device, i, ACTION_GET, &v, nullptr) != SANE_GOOD)
            return fallback;
        return o->type == TYPE_FIXED ? static_cast<int32_t>((int64_t{v} + 0x8000) >> 16) : v;
    }

    // The first listed choice that names one of the words (each as
    // "word" or "!word", the latter excluding): true when set.
    bool set_choice(const char *name, std::initializer_list<const char *> words) {
        const sane_option *o;
        int i = option_index(name, &o);
        if (i < 0 || o->type != TYPE_STRING || o->constraint_type != CONSTRAINT_STRING_LIST || !o->constraint) return false;
        auto *list = static_cast<const char *const *>(o->constraint);
        for (int k = 0; list[k] && k < 256; k++) {
            bool wanted = false, excluded = false;
            for (const char *w : words) {
                bool negative = *w == '!';
                if (contains(list[k], w + negative)) (negative ? excluded : wanted) = true;
            }
            if (!wanted || excluded) continue;
            char value[256];
            size_t n = std::strlen(list[k]);
            if (n >= sizeof value || static_cast<int>(n) >= o->size) return false;
            std::memcpy(value, list[k], n + 1);
            return call(api.control_option, device, i, ACTION_SET, value, nullptr) == SANE_GOOD;
        }
        return false;
    }

    bool choice_contains(const char *name, const char *word) {
        const sane_option *o;
        int i = option_index(name, &o);
        char value[256] = {};
        if (i < 0 || o->type != TYPE_STRING || o->size < 1 || o->size > static_cast<int>(sizeof value) ||
            call(api.control_option, device, i, ACTION_GET, value, nullptr) != SANE_GOOD)
            return false;
        value[sizeof value - 1] = 0;
        return contains(value, word);
    }

    static bool contains(const char *text, const char *word) {
        for (; *text; text++) {
            size_t k = 0;
            while (word[k] && text[k] && std::tolower(static_cast<unsigned char>(text[k])) == word[k]) k++;
            if (!word[k]) return true;
        }
        return false;
    }

    void apply(const scan_caps &c) {
        if (c.source == IMG_SCAN_FLATBED) set_choice("source", {"flatbed"});
        if (c.source == IMG_SCAN_FEEDER)
            set_choice("source", {"adf", "feeder", "automatic document", "!duplex"});
        if (c.source == IMG_SCAN_DUPLEX) set_choice("source", {"duplex"});
        if (c.mode == IMG_SCAN_COLOUR) set_choice("mode", {"color", "colour", "rgb"});
        if (c.mode == IMG_SCAN_GREY) set_choice("mode", {"gray", "grey"});
        if (c.mode == IMG_SCAN_LINEART && !set_choice("mode", {"lineart", "binary", "black"})) {
            // Devices without a line-art mode give it as one-bit grey.
            set_choice("mode", {"gray", "grey"});
            set_number("depth", 1);
        } else if (c.mode && c.mode != IMG_SCAN_LINEART && get_number("depth", 8) == 1) {
            set_number("depth", 8);
        }
        if (c.resolution) set_number("resolution", c.resolution);
        if (c.width && c.height) {
            constexpr double mm = 0.0254;  // per thousandth of an inch
            set_number("tl-x", c.left * mm);
            set_number("tl-y", c.top * mm);
            set_number("br-x", (c.left + c.width) * mm);
            set_number("br-y", (c.top + c.height) * mm);
        }
    }
};

// ---- Pictures from frames ----------------------------------------------------
// A picture being received: a block with room for the DIB header and colour
// table, then rows top-down; they are turned bottom-up once it is complete.
struct picture_block {
    mem_block block = 0;
    uint8_t *base = nullptr;
    int32_t width = 0;
    int bits = 0;
    uint32_t stride = 0, head = 0;
    int32_t rows = 0, capacity = 0;

    ~picture_block() {
        if (block) {
            mem_unlock(block);
            mem_free(block);
        }
    }
    uint8_t *row(int32_t r) { return base + head + static_cast<size_t>(r) * stride; }

    // Room for row r, growing the block (zero-filled, so rows no frame of a
    // three-pass picture filled stay black).
    int reserve(int32_t r) {
        if (r < capacity) return 0;
        int64_t want = capacity ? int64_t{capacity} * 2 : 64;
        if (want <= r) want = int64_t{r} + 1;
        uint32_t size;
        if (want > 0x7FFFFFFF || !size_mul_add(stride, static_cast<uint64_t>(want), head, &size) ||
            !within_load_limit(size))
            return IMG_ERR_MEMORY;
        mem_block grown = mem_alloc(size, MEM_MOVEABLE | MEM_ZEROINIT);
        if (!grown) return IMG_ERR_MEMORY;
        auto *p = static_cast<uint8_t *>(mem_lock(grown));
        if (!p) {
            mem_free(grown);
            return IMG_ERR_MEMORY;
        }
        if (base) std::memcpy(p, base, head + static_cast<size_t>(rows) * stride);
        if (block) {
            mem_unlock(block);
            mem_free(block);
        }
        block = grown;
        base = p;
        capacity = static_cast<int32_t>(want);
        return 0;
    }
};

int sample8(const uint8_t *line, int depth, int64_t index) {
    if (depth == 16) {
        uint16_t v;
        std::memcpy(&v, line + 2 * index, 2);  // samples come in the machine's byte order
        return v >> 8;
    }
    if (depth == 8) return line[index];
    return line[index >> 3] >> (7 - (index & 7)) & 1 ? 0 : 255;  // a set bit is black
}

// One received line into the picture's row in the picture's format.
void convert_line(const uint8_t *line, const sane_parameters &p, int32_t width, uint8_t *out) {
    if (p.format == FRAME_GRAY && p.depth == 1) {
        for (uint32_t i = 0; i < (static_cast<uint32_t>(width) + 7) / 8; i++) out[i] = static_cast<uint8_t>(~line[i]);
        if (width & 7) out[(width - 1) / 8] &= static_cast<uint8_t>(0xFF00 >> (width & 7));
    } else if (p.format == FRAME_GRAY) {
        for (int32_t x = 0; x < width; x++) out[x] = static_cast<uint8_t>(sample8(line, p.depth, x));
    } else if (p.format == FRAME_RGB) {
        for (int32_t x = 0; x < width; x++)
            for (int c = 0; c < 3; c++) out[3 * x + 2 - c] = static_cast<uint8_t>(sample8(line, p.depth, 3 * int64_t{x} + c));
    } else {
        const int channel = p.format == FRAME_RED ? 2 : p.format == FRAME_GREEN ? 1 : 0;
        for (int32_t x = 0; x < width; x++) out[3 * x + channel] = static_cast<uint8_t>(sample8(line, p.depth, x));
    }
}

// Reads one frame into the picture, checking what the backend announced
// against what a line can hold.  0, or the code of the failed transfer.
int read_frame(session &s, const sane_parameters &p, bool first, picture_block &pic) {
    if (p.format < FRAME_GRAY || p.format > FRAME_BLUE || (p.depth != 1 && p.depth != 8 && p.depth != 16) ||
        p.pixels_per_line < 1 || p.bytes_per_line < 1 || p.bytes_per_line > (1 << 26))
        return IMG_ERR_MEMORY;
    const int samples = p.format == FRAME_RGB ? 3 : 1;
    const int64_t line_bits = int64_t{p.bytes_per_line} * 8;
    // A line too short for its pixels keeps the pixels it holds.
    int64_t width = p.pixels_per_line;
    if (width * samples * p.depth > line_bits) width = line_bits / (samples * p.depth);
    if (width < 1) return IMG_ERR_MEMORY;
    const int bits = p.format == FRAME_GRAY ? (p.depth == 1 ? 1 : 8) : 24;
    if (first) {
        pic.width = static_cast<int32_t>(width);
        pic.bits = bits;
        pic.stride = row_bytes(width, bits);
        pic.head = 40 + palette_bytes(bits);
        if (!pic.stride) return IMG_ERR_MEMORY;
        // An announced height is room taken at once; an unknown one grows as lines come.
        if (p.lines > 0 && pic.reserve(p.lines - 1) < 0) return IMG_ERR_MEMORY;
    } else if (bits != pic.bits || p.format == FRAME_GRAY || p.format == FRAME_RGB) {
        return IMG_ERR_MEMORY;  // only single colours follow a first frame
    } else if (width != pic.width) {
        return IMG_ERR_MEMORY;
    }
    mem_block line_block = mem_alloc(static_cast<uint32_t>(p.bytes_per_line), MEM_MOVEABLE | MEM_ZEROINIT);
    auto *line = line_block ? static_cast<uint8_t *>(mem_lock(line_block)) : nullptr;
    if (!line) {
        if (line_block) mem_free(line_block);
        return IMG_ERR_MEMORY;
    }
    int result = 0, filled = 0, idle = 0;
    int32_t r = 0;
    const int total = p.lines > 0 ? p.lines : 0;
    for (;;) {
        int got = 0;
        int status = call(s.api.read, s.device, line + filled, p.bytes_per_line - filled, &got);
        if (status == SANE_EOF) break;
        if (status != SANE_GOOD || got < 0 || got > p.bytes_per_line - filled) {
            result = status == SANE_CANCELLED ? IMG_ERR_STOPPED : IMG_ERR_MEMORY;
            break;
        }
        // A blocking read hands over at least one byte; a backend that never does is given up on.
        if (got == 0 && ++idle > 100000) {
            result = IMG_ERR_MEMORY;
            break;
        }
        if (got) idle = 0;
        filled += got;
        if (filled < p.bytes_per_line) continue;
        filled = 0;
        if ((result = pic.reserve(r)) < 0) break;
        convert_line(line, p, pic.width, pic.row(r));
        r++;
        if (r > pic.rows) pic.rows = r;
        if (status_report(total) < 0) {
            result = IMG_ERR_STOPPED;
            break;
        }
    }
    mem_unlock(line_block);
    mem_free(line_block);
    if (result == 0 && pic.rows == 0) result = IMG_ERR_MEMORY;  // a picture without a line
    return result;
}

// Turns the received rows into a DIB in place.
void finish_dib(picture_block &pic, int32_t dpi) {
    dib_info info{};
    set_dib_size(info, pic.width, pic.rows, pic.bits);
    info.biSizeImage = pic.stride * static_cast<uint32_t>(pic.rows);
    info.biXPelsPerMeter = info.biYPelsPerMeter = dpi;
    std::memcpy(pic.base, &info, sizeof info);
    uint8_t *palette = pic.base + 40;
    if (pic.bits == 1) {
        std::memset(palette, 0, 8);
        std::memset(palette + 4, 255, 3);
    } else if (pic.bits == 8) {
        fill_grey_ramp(palette);
    }
    for (int32_t top = 0, bottom = pic.rows - 1; top < bottom; top++, bottom--) {
        uint8_t *a = pic.row(top), *b = pic.row(bottom);
        for (uint32_t i = 0; i < pic.stride; i++) {
            uint8_t t = a[i];
            a[i] = b[i];
            b[i] = t;
        }
    }
}

// One page: every frame of it.  1 with the picture, 0 when the feeder is
// empty, or a negative code: start failures (IMG_ERR_SCAN_SOURCE on the
// first frame) or a failed transfer.
int scan_page(session &s, picture_block &pic) {
    for (int frame = 0; frame < 3; frame++) {  // three single colours at most
        const bool first = frame == 0;
        int status = call(s.api.start, s.device);
        if (status == SANE_NO_DOCS && first) return 0;
        if (status == SANE_CANCELLED) return IMG_ERR_STOPPED;
        if (status != SANE_GOOD) return first ? IMG_ERR_SCAN_SOURCE : IMG_ERR_MEMORY;
        sane_parameters p{};
        if (call(s.api.get_parameters, s.device, &p) != SANE_GOOD) return IMG_ERR_MEMORY;
        if (int r = read_frame(s, p, first, pic); r < 0) return r;
        if (p.last_frame) return 1;
    }
    return IMG_ERR_MEMORY;
}

}  // namespace

int scanner_session(void *, bool, const scan_caps &caps, const scan_delivery &delivery) {
    session s;
    if (int r = s.load(); r < 0) return r;
    if (int r = s.open(chosen_device); r < 0) return r;
    s.apply(caps);
    const int32_t dpi = s.get_number("resolution", 0);
    const bool feeder = s.choice_contains("source", "adf") || s.choice_contains("source", "feeder") ||
                        s.choice_contains("source", "automatic document");
    int result = IMG_ERR_SCAN_SOURCE;
    for (int pages = 0;; pages++) {
        picture_block pic;
        int r = scan_page(s, pic);
        if (r == 0) break;  // the feeder is empty
        if (r == IMG_ERR_SCAN_SOURCE && pages == 0) return r;
        if (r < 0) return delivery.page(delivery.context, nullptr, r);  // a jam within a series ends it too
        finish_dib(pic, dpi);
        result = delivery.page(delivery.context, pic.base, 0);
        if (result < 0 || !delivery.all_pages || !feeder) break;
    }
    return result;
}

int scanner_select(void *, const char *name) {
    session s;
    if (int r = s.load(); r < 0) return r;
    if (name && std::strlen(name) >= sizeof chosen_device) return IMG_ERR_SCAN_SOURCE;
    if (int r = s.open(name); r < 0) return r;
    std::strcpy(chosen_device, name ? name : "");
    return 0;
}

int scanner_list(void (*each)(void *context, const char *name), void *context) {
    session s;
    if (int r = s.load(); r < 0) return r;
    const sane_device *const *list = s.devices();
    int count = 0;
    for (; list && list[count]; count++) each(context, list[count]->name ? list[count]->name : "");
    return count;
}

void scanner_shutdown() { chosen_device[0] = 0; }

int scanner_open_devices() { return devices_open; }

}  // namespace brv
