// brivanta: the command-line face of the library (info, detect, convert, process, scan, demo, view, print,
// clipboard).
#include "brivanta.h"
#include "tools/view.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#define isatty _isatty
#else
#include <unistd.h>
#endif

namespace {

// The library's table of type codes, as IMGLOW_get_type_info reports it.
struct type_info {
    int code;
    int caps;
    char key[32];
    char name[64];
    char ext[8];
};

std::vector<type_info> library_types() {
    std::vector<type_info> types;
    for (int code = 0;; code++) {
        type_info t{code, 0, {}, {}, {}};
        t.caps = IMGLOW_get_type_info(code, t.key, sizeof t.key, t.name, sizeof t.name, t.ext, sizeof t.ext);
        if (t.caps < 0) break;
        types.push_back(t);
    }
    return types;
}

int fail(const char *file, int code) {
    char text[128];
    if (IMG_get_error_text(code, text, sizeof text) < 0) std::snprintf(text, sizeof text, "error");
    std::fprintf(stderr, "brivanta: %s: %s (%d)\n", file, text, code);
    return 1;
}

// ---- Progress bar on a terminal ------------------------------------------------
struct progress {
    int done = 0;
    int total = 0;
    const char *label = "";
};
progress bar;

int IMG_CALLBACK show_progress(void *, int total) {
    if (bar.total > 0 && bar.done >= bar.total) bar.done = 0;  // the next page of a scan
    bar.total = total;
    bar.done++;
    int width = 40;
    if (total > 0 && (bar.done % 64 == 0 || bar.done == total)) {
        int filled = static_cast<int>(static_cast<long long>(bar.done) * width / total);
        if (filled > width) filled = width;
        std::fprintf(stderr, "\r%-8s [%.*s%*s] %3d%%", bar.label, filled, "########################################",
                     width - filled, "", static_cast<int>(100LL * (bar.done > total ? total : bar.done) / total));
        if (bar.done >= total) std::fputc('\n', stderr);
    }
    return 0;
}

void progress_start(const char *label) {
    if (!isatty(2)) return;
    bar = progress{0, 0, label};
    IMG_set_statusbar(nullptr, show_progress, 1);
}

void progress_stop() {
    if (bar.done && bar.done < bar.total) std::fputc('\n', stderr);
    IMG_set_statusbar(nullptr, nullptr, 0);
    bar = progress{};
}

// ---- Subcommands ---------------------------------------------------------------
int usage(FILE *out) {
    std::fprintf(out,
                 "usage: brivanta COMMAND [ARGS]\n"
                 "  info FILE                 type, size, depth, pages and resolution\n"
                 "  detect FILE               the detected type code and its name\n"
                 "  convert IN OUT [options]  load IN by content, save OUT\n"
                 "  process IN OUT OP...      load IN, apply each operation in turn, save OUT\n"
                 "  scan [OUT] [options]      a picture or a series of pages from a scanner\n"
                 "  formats                   the type codes: key, extension, read and write support\n"
                 "  demo [DIR]                save a built-in test card under every writer and read it back\n"
                 "  print FILE [options]      print every page of FILE, to a PDF file or a printer\n"
                 "  clipboard OUT             save the clipboard's picture as the BMP file OUT\n"
                 "  view [--effect N] FILE... show the files' pages in a window\n"
                 "  --version                 the library's version\n"
                 "FILE, IN and OUT may be - for standard input and output.\n"
                 "Run 'brivanta COMMAND --help' for a command's options.\n");
    return out == stdout ? 0 : 2;
}

bool wants_help(int argc, char **argv) {
    for (int i = 2; i < argc; i++)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
    return false;
}

bool is_stdio(const char *name) { return !std::strcmp(name, "-"); }

// The library's descriptor of a C stream: a system file handle on Windows.
int descriptor_of(FILE *f) {
#ifdef _WIN32
    return static_cast<int>(_get_osfhandle(_fileno(f)));
#else
    return fileno(f);
#endif
}

// A whole file, or standard input for "-", in a locked memory block of
// exactly its size; released with the object.
struct file_block {
    int block = 0;
    void *data = nullptr;
    int32_t size = 0;
    file_block(const file_block &) = delete;
    file_block &operator=(const file_block &) = delete;
    file_block() = default;
    ~file_block() {
        if (block) {
            IMG_mem_unlock(block);
            IMG_mem_free(block);
        }
    }
};

// 0, or a library error code.
int read_whole(const char *name, file_block &out) {
    FILE *f = is_stdio(name) ? stdin : std::fopen(name, "rb");
    if (!f) return IMG_ERR_OPEN;
#ifdef _WIN32
    if (f == stdin) _setmode(_fileno(stdin), _O_BINARY);
#endif
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) bytes.insert(bytes.end(), chunk, chunk + n);
    bool bad = std::ferror(f) || bytes.size() > 0x7FFFFFF0u;
    if (f != stdin) std::fclose(f);
    if (bad) return IMG_ERR_OPEN;
    out.block = IMG_mem_alloc(static_cast<int>(bytes.size()));
    out.data = out.block ? IMG_mem_lock(out.block) : nullptr;
    if (!out.data) return IMG_ERR_MEMORY;
    out.size = static_cast<int32_t>(bytes.size());
    if (!bytes.empty()) std::memcpy(out.data, bytes.data(), bytes.size());
    return 0;
}

int IMG_CALLBACK keep_header(void *header, void *context) {
    std::memcpy(context, header, 40);
    return IMG_ERR_STOPPED;
}

int cmd_info(int argc, char **argv) {
    if (wants_help(argc, argv) || argc != 3) {
        std::printf("usage: brivanta info FILE\n"
                    "Prints one line: type=N width=W height=H bits=B pages=P xdpi=X ydpi=Y\n");
        return argc == 3 ? 0 : 2;
    }
    const char *name = argv[2];
    // Read once; every query below works on the copy in memory.
    file_block file;
    if (int r = read_whole(name, file); r < 0) return fail(name, r);
    int type = IMGLOW_get_filetype_mem(file.data);
    // The memory query leaves text unnamed; the named one does not.
    if (type == IMG_ERR_TYPE && !is_stdio(name)) type = IMGLOW_get_filetype(name);
    if (type < 0) return fail(name, type);
    unsigned char header[40];
    int r = IMGLOW_decompress_bitmap_mem(file.data, 0, nullptr, header, keep_header);
    if (r < 0 && r != IMG_ERR_STOPPED) return fail(name, r);
    int pages = IMGLOW_get_pages_mem(file.data);
    if (pages < 0) return fail(name, pages);
    auto i32 = [&](int at) {
        int v;
        std::memcpy(&v, header + at, 4);
        return v;
    };
    int bits = header[14] | header[15] << 8;
    std::printf("type=%d width=%d height=%d bits=%d pages=%d xdpi=%d ydpi=%d\n", type, i32(4), i32(8), bits, pages,
                i32(24), i32(28));
    return 0;
}

int cmd_detect(int argc, char **argv) {
    if (wants_help(argc, argv) || argc != 3) {
        std::printf("usage: brivanta detect FILE\nPrints the detected type code and its name.\n");
        return argc == 3 ? 0 : 2;
    }
    int type = IMGLOW_get_filetype(argv[2]);
    if (type < 0) return fail(argv[2], type);
    char name[64] = "unknown";
    IMGLOW_get_type_info(type, nullptr, 0, name, sizeof name, nullptr, 0);
    std::printf("%d %s\n", type, name);
    return 0;
}

int cmd_formats(int argc, char **argv) {
    if (wants_help(argc, argv) || argc != 2) {
        std::printf("usage: brivanta formats\n"
                    "Lists every type code: its key (what convert --type takes), extension, whether files of\n"
                    "the type load and whether the library writes it, and its name.\n");
        return argc == 2 ? 0 : 2;
    }
    std::printf("%-4s %-13s %-4s %-4s %-5s %s\n", "code", "key", "ext", "read", "write", "name");
    for (const type_info &t : library_types())
        std::printf("%-4d %-13s %-4s %-4s %-5s %s\n", t.code, t.key, t.ext, t.caps & IMG_TYPE_CAN_READ ? "yes" : "-",
                    t.caps & IMG_TYPE_CAN_WRITE ? "yes" : "-", t.name);
    return 0;
}

// A type code from a number or a key of the library's table; -2 when neither.
int parse_type(const char *text) {
    char *end = nullptr;
    long n = std::strtol(text, &end, 10);
    bool number = *text && !*end;
    for (const type_info &t : library_types())
        if (number ? n == t.code : !std::strcmp(text, t.key)) return t.code;
    return number && n == IMG_TYPE_BY_EXTENSION ? IMG_TYPE_BY_EXTENSION : -2;
}

// --type's value, or a one-line error and false.
bool parse_type_option(const char *text, int *type) {
    *type = parse_type(text);
    if (*type != -2) return true;
    std::fprintf(stderr, "brivanta: unknown type %s; 'brivanta formats' lists them\n", text);
    return false;
}

// TYPE:WIDTH[:HEIGHT[:FILLORDER]], TYPE a number or g4, g3-2d, g3.
bool parse_fax(const char *text, int *type, int *width, int *height, int *fill) {
    char name[16] = {};
    const char *colon = std::strchr(text, ':');
    if (!colon || colon - text >= static_cast<int>(sizeof name)) return false;
    std::memcpy(name, text, colon - text);
    static const struct {
        const char *name;
        int type;
    } names[] = {{"g4", 4}, {"g3-2d", 2}, {"g3", 3}};
    *type = -1;
    for (char *c = name; *c; c++) *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
    for (const auto &n : names)
        if (!std::strcmp(name, n.name)) *type = n.type;
    char *end = nullptr;
    if (*type < 0) {
        long t = std::strtol(name, &end, 10);
        if (!*name || *end || t < 0 || t > 99) return false;
        *type = static_cast<int>(t);
    }
    *height = 0;
    *fill = 1;
    int got = std::sscanf(colon + 1, "%d:%d:%d", width, height, fill);
    return got >= 1 && *width > 0 && *height >= 0 && (*fill == 1 || *fill == 2);
}

// Loads a file (or standard input for "-") by its content, a page of it,
// or (fax_type >= 0) its raw fax data.
int load_file(const char *in, int page, int fax_type = -1, int fax_width = 0, int fax_height = 0, int fax_fill = 1) {
    if (fax_type < 0 && !page && !is_stdio(in)) return IMG_decompress_bitmap(in);
    if (fax_type < 0 && is_stdio(in)) {
        file_block file;
        int r = read_whole(in, file);
        return r < 0 ? r : IMG_decompress_bitmap_mem(file.data, page);
    }
    FILE *f = nullptr;
    if (is_stdio(in)) {
        // Raw fax data is read from a descriptor: standard input goes through a temporary file.
        file_block file;
        if (int r = read_whole(in, file); r < 0) return r;
        f = std::tmpfile();
        if (!f) return IMG_ERR_CREATE;
        if (std::fwrite(file.data, 1, static_cast<size_t>(file.size), f) != static_cast<size_t>(file.size) ||
            std::fflush(f)) {
            std::fclose(f);
            return IMG_ERR_CREATE;
        }
        std::rewind(f);
    } else {
        f = std::fopen(in, "rb");
    }
    if (!f) return IMG_ERR_OPEN;
    int fd = descriptor_of(f);
    int h = fax_type >= 0 ? IMG_decompress_fax(fd, fax_width, fax_height, fax_type, fax_fill)
                          : IMG_decompress_bitmap_fd(fd, 0, page);
    std::fclose(f);
    return h;
}

// Saves to standard output through a temporary file: the writers seek.
int save_to_stdout(int h, int type) {
    FILE *f = std::tmpfile();
    if (!f) return IMG_ERR_CREATE;
    int r = IMG_save_bitmap_fd(h, descriptor_of(f), type);
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    if (r >= 0) {
        // The library wrote through the descriptor; the stream starts over.
        std::fseek(f, 0, SEEK_SET);
        char chunk[65536];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;)
            if (std::fwrite(chunk, 1, n, stdout) != n) r = IMG_ERR_WRITE;
        if (std::fflush(stdout)) r = IMG_ERR_WRITE;
    }
    std::fclose(f);
    return r;
}

int cmd_convert(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        std::printf("usage: brivanta convert IN OUT [--type KEY|N] [--append] [--page N] [--quality Q] [--reduce 1|4|8]\n"
                    "                          [--shrink WxH] [--fax TYPE:WIDTH[:HEIGHT[:FILLORDER]]]\n"
                    "Loads IN by its content and saves OUT as the type KEY or N ('brivanta formats' lists them),\n"
                    "or by OUT's extension.  An existing OUT is replaced; with --append a TIFF or DCX output\n"
                    "gets the picture as a further page.  IN or OUT may be - for standard input or output\n"
                    "(standard output needs --type).\n"
                    "--fax reads IN as raw CCITT data instead: TYPE 4 (or g4) Group 4, 2 (or g3-2d) Group 3\n"
                    "two-dimensional, 3 (or g3) Group 3 with EOLs, other numbers one-dimensional rows without EOLs;\n"
                    "HEIGHT 0 or absent takes the rows the data holds; FILLORDER 2 reads bytes LSB first.\n");
        return 0;
    }
    const char *in = nullptr, *out = nullptr;
    int type = IMG_TYPE_BY_EXTENSION, page = 0, quality = -1, reduce = 0, sw = 0, sh = 0;
    int fax_type = -1, fax_width = 0, fax_height = 0, fax_fill = 1;
    bool append = false;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (a == "--type" && (v = value())) {
            if (!parse_type_option(v, &type)) return 2;
        } else if (a == "--append") append = true;
        else if (a == "--page" && (v = value())) page = std::atoi(v);
        else if (a == "--quality" && (v = value())) quality = std::atoi(v);
        else if (a == "--reduce" && (v = value())) reduce = std::atoi(v);
        else if (a == "--shrink" && (v = value())) {
            if (std::sscanf(v, "%dx%d", &sw, &sh) != 2 || sw < 1 || sh < 1) {
                std::fprintf(stderr, "brivanta: --shrink wants WIDTHxHEIGHT\n");
                return 2;
            }
        } else if (a == "--fax" && (v = value())) {
            if (!parse_fax(v, &fax_type, &fax_width, &fax_height, &fax_fill)) {
                std::fprintf(stderr, "brivanta: --fax wants TYPE:WIDTH[:HEIGHT[:FILLORDER]]\n");
                return 2;
            }
        } else if (a[0] == '-' && a.size() > 1) {
            std::fprintf(stderr, "brivanta: unknown or incomplete option %s\n", a.c_str());
            return 2;
        } else if (!in) in = argv[i];
        else if (!out) out = argv[i];
        else return usage(stderr);
    }
    if (!in || !out) return usage(stderr);
    if (reduce && reduce != 1 && reduce != 4 && reduce != 8) {
        std::fprintf(stderr, "brivanta: --reduce takes 1, 4 or 8\n");
        return 2;
    }
    if (is_stdio(out) && (type == IMG_TYPE_BY_EXTENSION || append)) {
        std::fprintf(stderr, "brivanta: standard output needs --type and takes no --append\n");
        return 2;
    }
    IMGLOW_set_decomp_reduction(reduce);
    IMGLOW_set_decompsize(sw, sh);
    if (quality >= 0) IMGLOW_set_comp_quality(quality);
    progress_start("load");
    int h = load_file(in, page, fax_type, fax_width, fax_height, fax_fill);
    progress_stop();
    if (h < 0) return fail(in, h);
    progress_start("save");
    int r;
    if (is_stdio(out)) {
        r = save_to_stdout(h, type);
    } else {
        // The library adds a page to an existing TIFF or DCX; the tool replaces it unless asked.
        if (!append) std::remove(out);
        r = IMG_save_bitmap(h, out, type);
    }
    progress_stop();
    IMG_delete_bitmap(h);
    if (r < 0) return fail(out, r);
    return 0;
}

// ---- Scanning ----------------------------------------------------------------------
int cmd_scan(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        std::printf("usage: brivanta scan [OUT | --pages PREFIX] [--type KEY|N] [--device NAME] [--resolution DPI]\n"
                    "                     [--mode colour|grey|lineart] [--feeder] [--list]\n"
                    "Scans one picture into OUT (saved as --type or by OUT's extension), or with --pages every\n"
                    "page the source delivers: into the one file PREFIX for a multi-page type (TIFF, DCX), else\n"
                    "into PREFIX00000000.img, PREFIX00000001.img, ... (BMP unless --type says otherwise).\n"
                    "--device picks the source by name ('--list' prints them), else the first one;\n"
                    "--feeder takes the pages from the document feeder.\n");
        return 0;
    }
    const char *out = nullptr, *prefix = nullptr, *device = nullptr;
    int type = IMG_TYPE_BY_EXTENSION, resolution = 0, mode = 0, source = 0;
    bool list = false, pages = false;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (a == "--type" && (v = value())) {
            if (!parse_type_option(v, &type)) return 2;
        } else if (a == "--pages" && (v = value())) pages = true, prefix = v;
        else if (a == "--device" && (v = value())) device = v;
        else if (a == "--resolution" && (v = value())) resolution = std::atoi(v);
        else if (a == "--mode" && (v = value())) {
            std::string m = v;
            mode = m == "colour" || m == "color" ? IMG_SCAN_COLOUR : m == "grey" || m == "gray" ? IMG_SCAN_GREY
                 : m == "lineart" ? IMG_SCAN_LINEART : -1;
            if (mode < 0) {
                std::fprintf(stderr, "brivanta: --mode takes colour, grey or lineart\n");
                return 2;
            }
        } else if (a == "--feeder") source = IMG_SCAN_FEEDER;
        else if (a == "--list") list = true;
        else if (a[0] == '-' && a.size() > 1) {
            std::fprintf(stderr, "brivanta: unknown or incomplete option %s\n", a.c_str());
            return 2;
        } else if (!out) out = argv[i];
        else return usage(stderr);
    }
    if (list) {
        std::vector<char> names(65536);
        int n = IMG_scan_list_sources(names.data(), static_cast<int>(names.size()));
        if (n < 0) return fail("scanner", n);
        for (const char *p = names.data(); *p; p += std::strlen(p) + 1) std::printf("%s\n", p);
        return 0;
    }
    if (pages == (out != nullptr)) return usage(stderr);
    if (IMG_scan_set_caps(resolution, mode, source, 0, 0, 0, 0) < 0) {
        std::fprintf(stderr, "brivanta: --resolution out of range\n");
        return 2;
    }
    if (device) {
        int r = IMG_scan_open_source(nullptr, device);
        if (r < 0) return fail(device, r);
    }
    progress_start("scan");
    int r;
    if (pages) {
        r = IMG_scan_pages(nullptr, prefix, type == IMG_TYPE_BY_EXTENSION ? IMG_TYPE_BMP : type, 0);
    } else {
        int h = IMG_scan_acquire(nullptr, 0);
        r = h;
        if (h >= 0) {
            std::remove(out);
            r = IMG_save_bitmap(h, out, type);
            IMG_delete_bitmap(h);
        }
    }
    progress_stop();
    if (r < 0) return fail(pages ? prefix : out, r);
    return 0;
}

// ---- Processing: operations on a loaded picture, in the order given ---------------
// One row per operation: its option, the argument it takes (null for none),
// what it does, and the call that does it (BAD_ARGUMENT for an argument it
// cannot use).
struct process_op {
    const char *name;
    const char *arg;
    const char *help;
    int (*run)(int h, const char *arg);
};

constexpr int BAD_ARGUMENT = 1;

int run_octree(int h, const char *arg) {
    int bits = 0, colours = 256;
    if (std::sscanf(arg, "%d:%d", &bits, &colours) < 1 || (bits != 4 && bits != 8)) return BAD_ARGUMENT;
    return IMG_octree_color(h, bits, nullptr, colours);
}

int run_promote(int h, const char *arg) {
    int bits = std::atoi(arg);
    return bits == 8 ? IMG_promote_8(h) : bits == 24 ? IMG_promote_24(h) : BAD_ARGUMENT;
}

// --interp is a setting read before any operation runs: every --resize
// interpolates.
bool resize_interp = false;

int run_size(int h, const char *arg, int(IMG_API *resize)(int, int, int)) {
    int w = 0, ht = 0;
    if (std::sscanf(arg, "%dx%d", &w, &ht) != 2 || w < 1 || ht < 1) return BAD_ARGUMENT;
    return resize(h, w, ht);
}

int run_number(const char *arg, int *n) {
    char *end = nullptr;
    long v = std::strtol(arg, &end, 10);
    if (!*arg || *end || v < INT32_MIN || v > INT32_MAX) return BAD_ARGUMENT;
    *n = static_cast<int>(v);
    return 0;
}

const process_op process_ops[] = {
    {"--rotate", "DEG", "90 or 270: a quarter turn clockwise or counter-clockwise; 180 a half turn; other angles mirror about the anti-diagonal",
     [](int h, const char *a) { int n; return run_number(a, &n) ? BAD_ARGUMENT : IMG_rotate_bitmap(h, n); }},
    {"--flip-x", nullptr, "mirror left to right", [](int h, const char *) { return IMG_flip_bitmapx(h); }},
    {"--flip-y", nullptr, "mirror top to bottom", [](int h, const char *) { return IMG_flip_bitmapy(h); }},
    {"--invert", nullptr, "complement every stored value (palette indexes below 24 bits)",
     [](int h, const char *) { return IMG_invert_bitmap(h); }},
    {"--resize", "WxH", "new size by repeating and dropping pixels (any depth)",
     [](int h, const char *a) { return run_size(h, a, resize_interp ? IMG_resize_bitmap_interp : IMG_resize_bitmap); }},
    {"--interp", nullptr, "every --resize smooths and ramps instead (24 bits, 8-bit grey)", [](int, const char *) { return 0; }},
    {"--sharpen", "N", "unsharp mask, 0 weakest to 128 strongest (24 bits, 4- and 8-bit grey)",
     [](int h, const char *a) { int n; return run_number(a, &n) ? BAD_ARGUMENT : IMG_sharpen_bitmap(h, n); }},
    {"--filter", "N", "3x3 filter 1-9 (8 and 24 bits; 8-bit colour is made grey first)",
     [](int h, const char *a) { int n; return run_number(a, &n) ? BAD_ARGUMENT : IMG_process_bitmap(h, n, nullptr); }},
    {"--grey", nullptr, "4, 8 or 24 bits to 8-bit luminance", [](int h, const char *) { return IMG_color_gray(h); }},
    {"--popularity", nullptr, "24 bits to 8 on its 256 most frequent colours",
     [](int h, const char *) { return IMG_popularity_color(h); }},
    {"--octree", "4|8[:COLOURS]", "8 or 24 bits onto an octree palette of the image, diffused",
     run_octree},
    {"--promote", "8|24", "1 or 4 bits to 8, or 1, 4, 8 bits to 24", run_promote},
    {"--bayer-mono", nullptr, "black and white, ordered dither", [](int h, const char *) { return IMG_bayer_mono(h); }},
    {"--halftone", nullptr, "black and white, clustered-dot screen",
     [](int h, const char *) { return IMG_halftone_mono(h); }},
    {"--diffusion-mono", nullptr, "black and white, error diffusion",
     [](int h, const char *) { return IMG_diffusion_mono(h); }},
    {"--bayer-colour", nullptr, "16 colours, ordered dither", [](int h, const char *) { return IMG_bayer_color(h); }},
    {"--diffusion-colour", nullptr, "16 colours, error diffusion",
     [](int h, const char *) { return IMG_diffusion_color(h); }},
    {"--mediancut", nullptr, "256 colours of the 3-3-2 cube, error diffusion",
     [](int h, const char *) { return IMG_mediancut_color(h); }},
};


const process_op *find_op(const char *name) {
    for (const process_op &op : process_ops)
        if (!std::strcmp(op.name, name)) return &op;
    return nullptr;
}

using step = std::pair<const process_op *, const char *>;

// The operations of a command line, each with its argument; false, with a
// message, for one the table does not know or that lacks its argument.
bool parse_steps(int n, const char *const *args, std::vector<step> &steps) {
    resize_interp = false;
    for (int i = 0; i < n; i++)
        if (!std::strcmp(args[i], "--interp")) resize_interp = true;
    for (int i = 0; i < n; i++) {
        const process_op *op = find_op(args[i]);
        if (!op || (op->arg && i + 1 >= n)) {
            std::fprintf(stderr, "brivanta: unknown or incomplete operation %s\n", args[i]);
            return false;
        }
        steps.emplace_back(op, op->arg ? args[++i] : nullptr);
    }
    return true;
}

// Runs the steps in order: 0, or the tool's exit code after its message.
int run_steps(int h, const std::vector<step> &steps) {
    for (auto [op, arg] : steps) {
        int r = op->run(h, arg);
        if (r == BAD_ARGUMENT) {
            std::fprintf(stderr, "brivanta: %s takes %s\n", op->name, op->arg);
            return 2;
        }
        if (r < 0) return fail(op->name, r);
    }
    return 0;
}

int cmd_process(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        std::printf("usage: brivanta process IN OUT OP...\n"
                    "Loads IN, applies each operation in the order given and saves OUT by its extension.\n");
        for (const process_op &op : process_ops) {
            std::string name = std::string(op.name) + (op.arg ? std::string(" ") + op.arg : "");
            std::printf("  %-26s %s\n", name.c_str(), op.help);
        }
        return 0;
    }
    if (argc < 5) return usage(stderr);
    const char *in = argv[2], *out = argv[3];
    std::vector<step> steps;
    if (!parse_steps(argc - 4, argv + 4, steps)) return 2;
    int h = load_file(in, 0);
    if (h < 0) return fail(in, h);
    progress_start("process");
    int r = run_steps(h, steps);
    progress_stop();
    if (r != 0) {
        IMG_delete_bitmap(h);
        return r;
    }
    if (!is_stdio(out)) std::remove(out);
    r = is_stdio(out) ? save_to_stdout(h, IMG_TYPE_BMP) : IMG_save_bitmap(h, out, IMG_TYPE_BY_EXTENSION);
    IMG_delete_bitmap(h);
    return r < 0 ? fail(out, r) : 0;
}

// ---- The demo: a test card through every writer --------------------------------
// A 5 x 7 pixel font for the card's caption.
const unsigned char *glyph(char c) {
    static const unsigned char font[][7] = {
        {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E},  // B
        {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11},  // R
        {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E},  // I
        {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04},  // V
        {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11},  // A
        {0x11, 0x19, 0x15, 0x13, 0x11, 0x11, 0x11},  // N
        {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04},  // T
    };
    const char *letters = "BRIVANT";
    const char *p = std::strchr(letters, c);
    return p ? font[p - letters] : nullptr;
}

constexpr int CARD_W = 320, CARD_H = 240, ICON_SIDE = 64;

// The 24-bit card as a DIB in a memory block: blue, green, red per pixel, bottom row first.
int make_card_block() {
    int stride = (CARD_W * 3 + 3) & ~3;
    int block = IMG_mem_alloc(40 + stride * CARD_H);
    auto *dib = static_cast<unsigned char *>(IMG_mem_lock(block));
    if (!dib) return 0;
    int hdr[10] = {40, CARD_W, CARD_H, 1 | 24 << 16, 0, stride * CARD_H, 96, 96, 0, 0};
    std::memcpy(dib, hdr, 40);
    static const unsigned char bars[8][3] = {{255, 255, 255}, {0, 255, 255}, {255, 255, 0}, {0, 255, 0},
                                             {255, 0, 255},   {0, 0, 255},   {255, 0, 0},   {0, 0, 0}};
    for (int y = 0; y < CARD_H; y++) {
        unsigned char *row = dib + 40 + (CARD_H - 1 - y) * stride;
        for (int x = 0; x < CARD_W; x++) {
            unsigned char *p = row + 3 * x;
            if (y < 80) {  // colour bars
                std::memcpy(p, bars[x * 8 / CARD_W], 3);
            } else if (y < 120) {  // gray ramp
                p[0] = p[1] = p[2] = static_cast<unsigned char>(x * 255 / (CARD_W - 1));
            } else if (y < 160) {  // hue gradient
                p[0] = static_cast<unsigned char>(x * 255 / (CARD_W - 1));
                p[1] = static_cast<unsigned char>((y - 120) * 255 / 39);
                p[2] = static_cast<unsigned char>(255 - x * 255 / (CARD_W - 1));
            } else if (y < 200) {  // fine lines: one, two and four pixels apart
                int period = x < CARD_W / 3 ? 2 : x < 2 * CARD_W / 3 ? 4 : 8;
                unsigned char v = (x % period) < period / 2 ? 0 : 255;
                p[0] = p[1] = p[2] = v;
            } else {
                p[0] = p[1] = p[2] = 255;
            }
        }
    }
    const char *caption = "BRIVANTA";
    for (int i = 0; caption[i]; i++) {
        const unsigned char *g = glyph(caption[i]);
        for (int gy = 0; gy < 7; gy++)
            for (int gx = 0; gx < 5; gx++)
                if (g[gy] & (0x10 >> gx))
                    for (int s = 0; s < 4; s++)
                        for (int t = 0; t < 4; t++) {
                            int x = 16 + i * 24 + gx * 4 + t, y = 206 + gy * 4 + s;
                            if (x < CARD_W && y < CARD_H) std::memset(dib + 40 + (CARD_H - 1 - y) * stride + 3 * x, 0, 3);
                        }
    }
    IMG_mem_unlock(block);
    return block;
}

// Header, colour table and pixels of a handle's bitmap, for comparison;
// `keep` masks each 24-bit sample, for outputs that store fewer bits;
// `corner` (a multiple of 8) takes only that square at the top left.
std::vector<unsigned char> bitmap_bytes(int h, unsigned char keep = 0xFF, int corner = 0) {
    int w = 0, ht = 0, bits = 0;
    int block = IMG_bitmap_info(h, &w, &ht, &bits);
    if (block <= 0) return {};
    auto *dib = static_cast<unsigned char *>(IMG_mem_lock(block));
    const int full_w = w, first = corner ? ht - corner : 0;
    if (corner) w = corner;
    int stride = bits == 1 ? (w + 7) / 8 : bits == 4 ? (w + 1) / 2 : bits == 24 ? w * 3 : w;
    int full = bits == 1 ? (full_w + 7) / 8 : bits == 4 ? (full_w + 1) / 2 : bits == 24 ? full_w * 3 : full_w;
    int padded = (full + 3) & ~3;
    int pal = bits == 24 ? 0 : 4 << bits;
    std::vector<unsigned char> out;
    int dims[3] = {w, corner ? corner : ht, bits};
    out.insert(out.end(), reinterpret_cast<unsigned char *>(dims), reinterpret_cast<unsigned char *>(dims) + 12);
    out.insert(out.end(), dib + 40, dib + 40 + pal);
    for (int y = first; y < ht; y++) {
        const unsigned char *row = dib + 40 + pal + y * padded;
        out.insert(out.end(), row, row + stride);
        if (bits == 24 && keep != 0xFF)
            for (auto p = out.end() - stride; p != out.end(); ++p) *p &= keep;
        if (bits == 1 && (w & 7)) out.back() &= static_cast<unsigned char>(0xFF00 >> (w & 7));
        if (bits == 4 && (w & 1)) out.back() &= 0xF0;
    }
    IMG_mem_unlock(block);
    return out;
}

// The picture as the user sees it: width, height, then each pixel's blue,
// green, red, whatever the depth and table that carry it.
std::vector<unsigned char> bitmap_colours(int h) {
    int w = 0, ht = 0, bits = 0;
    int block = IMG_bitmap_info(h, &w, &ht, &bits);
    if (block <= 0) return {};
    auto *dib = static_cast<unsigned char *>(IMG_mem_lock(block));
    const int padded = ((w * bits + 31) / 32) * 4, pal = bits == 24 ? 0 : 4 << bits;
    std::vector<unsigned char> out(8);
    std::memcpy(out.data(), dib + 4, 8);
    for (int y = 0; y < ht; y++) {
        const unsigned char *row = dib + 40 + pal + y * padded;
        for (int x = 0; x < w; x++) {
            const unsigned char *c = bits == 24 ? row + 3 * x
                                     : dib + 40 + 4 * ((row[x * bits / 8] >> (8 - bits - x * bits % 8)) & ((1 << bits) - 1));
            out.insert(out.end(), c, c + 3);
        }
    }
    IMG_mem_unlock(block);
    return out;
}

double ms_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// The 24-bit card through the process operations, each row a command line
// of them, saved as BMP; a turn undone by the opposite turn must give the
// card back.  Whether all ran.
bool demo_processing(const std::string &dir) {
    static const struct {
        const char *file;
        std::initializer_list<const char *> args;
    } rows[] = {
        {"rotate90", {"--rotate", "90"}},
        {"rotate90_270", {"--rotate", "90", "--rotate", "270"}},
        {"rotate180", {"--rotate", "180"}},
        {"flipx", {"--flip-x"}},
        {"flipy", {"--flip-y"}},
        {"invert", {"--invert"}},
        {"half", {"--resize", "160x120"}},
        {"double", {"--resize", "640x480"}},
        {"half_interp", {"--interp", "--resize", "160x120"}},
        {"double_interp", {"--interp", "--resize", "640x480"}},
        {"sharpen64", {"--sharpen", "64"}},
        {"filter4", {"--filter", "4"}},
        {"filter7", {"--filter", "7"}},
        {"grey", {"--grey"}},
        {"popularity", {"--popularity"}},
        {"octree", {"--octree", "8"}},
        {"octree16", {"--octree", "4"}},
        {"bayer_mono", {"--bayer-mono"}},
        {"halftone", {"--halftone"}},
        {"diffusion_mono", {"--diffusion-mono"}},
        {"bayer_colour", {"--bayer-colour"}},
        {"diffusion_colour", {"--diffusion-colour"}},
        {"mediancut", {"--mediancut"}},
        {"grey_promote24", {"--grey", "--promote", "24"}},
    };
    int block = make_card_block();
    if (!block) return false;
    void *dib = IMG_mem_lock(block);
    int card = IMG_create_handle(dib);
    std::printf("\n%-34s %-8s %4s %-30s %8s\n", "operation", "size", "bits", "file", "ms");
    int done = 0;
    for (const auto &row : rows) {
        std::vector<step> steps;
        std::string label;
        for (const char *a : row.args) {
            if (!label.empty()) label += ' ';
            label += a;
        }
        int h = IMG_create_handle(dib);
        if (h < 0 || !parse_steps(static_cast<int>(row.args.size()), row.args.begin(), steps)) break;
        auto t0 = std::chrono::steady_clock::now();
        int r = run_steps(h, steps);
        double ms = ms_since(t0);
        int w = 0, ht = 0, bits = 0;
        IMG_bitmap_info(h, &w, &ht, &bits);
        char file[512], size[32];
        std::snprintf(file, sizeof file, "%s/process_%s.bmp", dir.c_str(), row.file);
        std::snprintf(size, sizeof size, "%dx%d", w, ht);
        std::remove(file);
        if (r == 0) r = IMG_save_bitmap(h, file, IMG_TYPE_BMP);
        const char *note = "";
        if (r == 0 && !std::strcmp(row.file, "rotate90_270"))
            note = bitmap_bytes(h) == bitmap_bytes(card) ? "  (the card again)" : "  (NOT the card again)";
        if (r != 0) std::printf("%-34s %-8s %4s %-30s %8s  failed (%d)\n", label.c_str(), "-", "-", "-", "-", r);
        else std::printf("%-34s %-8s %4d %-30s %8.2f%s\n", label.c_str(), size, bits, file + dir.size() + 1, ms, note), done++;
        IMG_delete_bitmap(h);
    }
    if (card >= 0) IMG_delete_bitmap(card);
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    const int all = static_cast<int>(sizeof rows / sizeof rows[0]);
    std::printf("%d of %d operations shown in %s/process_*.bmp\n", done, all, dir.c_str());
    return done == all;
}

// A page of text rendered and saved as Group 4 TIFF.  Its pixels are the
// system's rasteriser's, so they differ between systems.
bool demo_text(const std::string &dir) {
    const std::string text = dir + "/text_notes.txt", page = dir + "/text_page.tif";
    FILE *f = std::fopen(text.c_str(), "wb");
    if (!f) return false;
    std::fputs("Brivanta demo: a text file read as a page.\n\n"
               "Column\tTab\tStops\n1\t2\t3\n\n"
               "A long line wraps at the right margin, after its last space, as text on a page does; "
               "this one runs on long enough to show it.\n",
               f);
    std::fclose(f);
    auto t0 = std::chrono::steady_clock::now();
    int h = IMG_import_ascii(text.c_str(), 0);
    int r = h < 0 ? h : IMG_save_bitmap(h, page.c_str(), IMG_TYPE_TIFF_G4);
    double ms = ms_since(t0);
    int w = 0, ht = 0, bits = 0;
    if (h >= 0) IMG_bitmap_info(h, &w, &ht, &bits), IMG_delete_bitmap(h);
    char size[32];
    std::snprintf(size, sizeof size, "%dx%d", w, ht);
    if (r < 0) std::printf("\n%-34s %s (%d)\n", "text page", r == IMG_ERR_TYPE ? "no fonts in this build" : "failed", r);
    else std::printf("\n%-34s %-8s %4d %-30s %8.2f\n", "text page", size, bits, page.c_str() + dir.size() + 1, ms);
    return r >= 0 || r == IMG_ERR_TYPE;
}

int cmd_demo(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        std::printf("usage: brivanta demo [DIR]\n"
                    "Draws a test card at 1, 4, 8 and 24 bits, saves it under every output type that has a\n"
                    "writer into DIR (default: brivanta-demo), loads each file back and prints a table.\n");
        return 0;
    }
    std::string dir = argc > 2 ? argv[2] : "brivanta-demo";
    std::error_code made;
    std::filesystem::create_directory(dir, made);
    int block = make_card_block();
    if (!block) return fail("test card", IMG_ERR_MEMORY);
    void *dib = IMG_mem_lock(block);
    int cards[4];
    const int depths[4] = {1, 4, 8, 24};
    IMGLOW_set_dithermode(1);
    for (int i = 0; i < 4; i++) {
        IMGLOW_set_decomp_reduction(depths[i] == 24 ? 0 : depths[i]);
        cards[i] = IMG_create_handle(dib);
        if (cards[i] < 0) return fail("test card", cards[i]);
    }
    IMGLOW_set_decomp_reduction(0);
    IMGLOW_set_dithermode(0);
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    std::string card = dir + "/card24.bmp";
    IMG_save_bitmap(cards[3], card.c_str(), IMG_TYPE_BMP);

    std::printf("%-4s %-30s %-28s %9s  %-10s %8s\n", "type", "name", "file", "bytes", "round trip", "ms");
    int rows = 0, identical = 0;
    for (const type_info &t : library_types()) {
        for (int i = 0; i < 4; i++) {
            char file[512];
            std::snprintf(file, sizeof file, "%s/card%d_t%02d.%s", dir.c_str(), depths[i], t.code, t.ext);
            std::remove(file);
            auto t0 = std::chrono::steady_clock::now();
            // Icons hold at most 256 pixels a side: they take the card's top-left corner.
            const int corner = t.code == IMG_TYPE_ICO ? ICON_SIDE : 0;
            if (corner) IMG_set_croprect(cards[i], 0, 0, corner, corner);
            int r = IMG_save_bitmap(cards[i], file, t.code);
            if (corner) IMG_set_croprect(cards[i], 0, 0, CARD_W, CARD_H);
            if (r == IMG_ERR_TYPE) {  // no writer for this type, or not at this depth
                std::remove(file);
                continue;
            }
            if (r < 0) {
                std::remove(file);
                std::printf("%-4d %-30s %-28s %9s  %-10s %8s\n", t.code, t.name, file + dir.size() + 1, "-",
                            r == IMG_ERR_DEPTH ? "refused" : "failed", "-");
                continue;
            }
            // Raw fax data has no header: it is read back as the fax it is.
            int fax = t.code == IMG_TYPE_RAW_G3 ? 3 : t.code == IMG_TYPE_RAW_G4 ? 4 : -1;
            // A type the library writes but does not read (the metafile) is not read back.
            const bool readable = (t.caps & IMG_TYPE_CAN_READ) || fax > 0;
            int h = readable ? load_file(file, 0, fax, CARD_W, CARD_H) : -1;
            double ms = ms_since(t0);
            std::error_code sized;
            auto file_bytes = std::filesystem::file_size(file, sized);
            const char *verdict = readable ? "load fails" : "write only";
            if (h >= 0) {
                bool same = bitmap_bytes(h) == bitmap_bytes(cards[i], 0xFF, corner);
                verdict = same ? "identical" : "differs";
                identical += same;
                // 15-bit Targa keeps the top five bits of each sample, and no more.
                if (!same && t.code == IMG_TYPE_TARGA16 && bitmap_bytes(h, 0xF8) == bitmap_bytes(cards[i], 0xF8))
                    verdict = "in 15 bits";
                // A writer may store the picture at another depth or table (Sun raster widens 4 bits).
                if (!same && bitmap_colours(h) == bitmap_colours(cards[i])) verdict = "same colours";
                IMG_delete_bitmap(h);
            }
            rows++;
            std::printf("%-4d %-30s %-28s %9lld  %-10s %8.2f\n", t.code, t.name, file + dir.size() + 1,
                        sized ? -1LL : static_cast<long long>(file_bytes), verdict, ms);
        }
    }
    for (int c : cards) IMG_delete_bitmap(c);
    std::printf("%d files written, %d identical after reading back; the card is %s\n", rows, identical, card.c_str());
    const bool processed = demo_processing(dir);
    return rows && processed && demo_text(dir) ? 0 : 1;
}

// ---- Printing -----------------------------------------------------------------------
// A document on a printer: the library's PDF and CUPS printer on Linux, a
// GDI printer device context on Windows.
struct print_job {
    void *dc = nullptr;
    int dpi = 0, page_w = 0, page_h = 0;  // device pixels
};

#ifdef _WIN32
int job_open(print_job &job, const char *to, const char *queue, int) {
    if (!queue) {
        std::fprintf(stderr, "brivanta: print: name a printer with --printer (--to prints to a file through it)\n");
        return IMG_ERR_TYPE;
    }
    HDC dc = CreateDCA(nullptr, queue, nullptr, nullptr);
    if (!dc) return IMG_ERR_CREATE;
    DOCINFOA doc = {sizeof doc, "brivanta", to, nullptr, 0};
    if (StartDocA(dc, &doc) <= 0) {
        DeleteDC(dc);
        return IMG_ERR_CREATE;
    }
    job = {dc, GetDeviceCaps(dc, LOGPIXELSX), GetDeviceCaps(dc, HORZRES), GetDeviceCaps(dc, VERTRES)};
    return 0;
}
int job_start_page(print_job &job) { return StartPage(static_cast<HDC>(job.dc)) > 0 ? 0 : IMG_ERR_WRITE; }
int job_end_page(print_job &job) { return EndPage(static_cast<HDC>(job.dc)) > 0 ? 0 : IMG_ERR_WRITE; }
int job_close(print_job &job, bool complete) {
    HDC dc = static_cast<HDC>(job.dc);
    const int r = complete ? (EndDoc(dc) > 0 ? 0 : IMG_ERR_WRITE) : (AbortDoc(dc), 0);
    DeleteDC(dc);
    return r;
}
#else
int job_open(print_job &job, const char *to, const char *queue, int dpi) {
    // US Letter less nothing: the printable page is the sheet.
    const int r = IMG_dc_create_printer(to, queue, dpi, 8500, 11000, &job.dc);
    if (r < 0) return r;
    job.dpi = dpi;
    job.page_w = (8500 * dpi + 500) / 1000;
    job.page_h = (11000 * dpi + 500) / 1000;
    return 0;
}
int job_start_page(print_job &job) { return IMG_dc_start_page(job.dc); }
int job_end_page(print_job &job) { return std::min(IMG_dc_end_page(job.dc), 0); }
// An unfinished document still closes its PDF with the pages done.
int job_close(print_job &job, bool complete) {
    int r = complete ? IMG_dc_end_doc(job.dc) : 0;
    if (r > 0) std::fprintf(stderr, "brivanta: print: job %d queued\n", r);
    IMG_dc_delete(job.dc);
    return std::min(r, 0);
}
#endif

int cmd_print(int argc, char **argv) {
    const char *in = nullptr, *to = nullptr, *queue = nullptr;
    double width_in = 0;
    bool fit = false;
    int dpi = 300;
    bool ok = !wants_help(argc, argv);
    for (int i = 2; ok && i < argc; i++) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "--to" && more) to = argv[++i];
        else if (a == "--printer" && more) queue = argv[++i];
        else if (a == "--fit") fit = true;
        else if (a == "--width" && more) ok = (width_in = std::atof(argv[++i])) > 0;
        else if (a == "--dpi" && more) ok = (dpi = std::atoi(argv[++i])) >= 72 && dpi <= 2400;
        else if (!in && a[0] != '-') in = argv[i];
        else ok = false;
    }
    if (!ok || !in || (!to && !queue) || (fit && width_in > 0)) {
        std::printf("usage: brivanta print FILE (--to OUT.pdf | --printer QUEUE) [--fit | --width INCHES] [--dpi N]\n"
                    "Prints each page of FILE on a Letter sheet, centred: at the size its resolution gives\n"
                    "(72 dpi when it has none, shrunk to fit), as large as fits (--fit), or INCHES wide.\n"
                    "On Linux --to writes a PDF at N dots per inch (300) and --printer sends it to a CUPS\n"
                    "queue; on Windows --printer names the printer and --to makes it print to a file.\n");
        return ok && wants_help(argc, argv) ? 0 : 2;
    }
    const int pages = IMGLOW_get_pages(in);
    if (pages < 0) return fail(in, pages);
    print_job job;
    if (int r = job_open(job, to, queue, dpi); r < 0) return fail(to ? to : queue, r);
    int r = 0;
    for (int page = 0; page < std::max(pages, 1) && r >= 0; page++) {
        const int h = load_file(in, page);
        if (h < 0) {
            r = h;
            break;
        }
        int w = 0, ht = 0, bits = 0;
        IMG_bitmap_info(h, &w, &ht, &bits);
        unsigned char header[40 + 1024] = {};  // the header and a full colour table
        IMGLOW_get_bitmap_header(h, header);
        int xdpi, ydpi;
        std::memcpy(&xdpi, header + 24, 4);
        std::memcpy(&ydpi, header + 28, 4);
        // Natural size from the picture's resolution, in device pixels.
        double dw = static_cast<double>(w) * job.dpi / (xdpi > 0 ? xdpi : 72);
        double dh = static_cast<double>(ht) * job.dpi / (ydpi > 0 ? ydpi : 72);
        const double margin = job.dpi / 2.0;
        const double room_w = job.page_w - 2 * margin, room_h = job.page_h - 2 * margin;
        double scale = 1;
        if (width_in > 0) scale = width_in * job.dpi / dw;
        else if (fit || dw > room_w || dh > room_h) scale = std::min(room_w / dw, room_h / dh);
        dw *= scale;
        dh *= scale;
        const int pw = std::max(1, static_cast<int>(dw + 0.5)), ph = std::max(1, static_cast<int>(dh + 0.5));
        r = job_start_page(job);
        if (r >= 0) {
            progress_start("print");
            r = IMG_print_bitmap(h, job.dc, (job.page_w - pw) / 2, (job.page_h - ph) / 2, pw, ph);
            progress_stop();
        }
        if (r >= 0) r = job_end_page(job);
        IMG_delete_bitmap(h);
    }
    const int closed = job_close(job, r >= 0);
    if (r >= 0) r = closed;
    return r < 0 ? fail(in, r) : 0;
}

int cmd_clipboard(int argc, char **argv) {
    if (wants_help(argc, argv) || argc != 3) {
        std::printf("usage: brivanta clipboard OUT\nSaves the clipboard's picture as the BMP file OUT.\n");
        return argc == 3 ? 0 : 2;
    }
    const int r = IMG_save_clipboard(argv[2], nullptr);
    return r < 0 ? fail(argv[2], r) : 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) return usage(stderr);
    std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") return usage(stdout);
    if (cmd == "--version") {
        int major = 0, minor = 0;
        IMG_qor_version(&major, &minor);
        std::printf("brivanta %d.%d\n", major, minor);
        return 0;
    }
    // The tool reads plain text as pages: whatever no other type claims.
    IMGLOW_set_auto_detect(IMG_TYPE_TEXT);
    if (cmd == "formats") return cmd_formats(argc, argv);
    if (cmd == "info") return cmd_info(argc, argv);
    if (cmd == "detect") return cmd_detect(argc, argv);
    if (cmd == "convert") return cmd_convert(argc, argv);
    if (cmd == "process") return cmd_process(argc, argv);
    if (cmd == "scan") return cmd_scan(argc, argv);
    if (cmd == "demo") return cmd_demo(argc, argv);
    if (cmd == "print") return cmd_print(argc, argv);
    if (cmd == "clipboard") return cmd_clipboard(argc, argv);
    if (cmd == "view") return cmd_view(argc, argv, [](const char *name, int page) { return load_file(name, page); });
    std::fprintf(stderr, "brivanta: unknown command %s\n", cmd.c_str());
    return usage(stderr);
}
