// brivanta: the command-line face of the library (info, detect, convert, demo).
#include "brivanta.h"

#include <chrono>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>
#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#else
#include <unistd.h>
#endif

namespace {

const char *error_text(int code) {
    switch (code) {
    case IMG_ERR_MEMORY: return "out of memory";
    case IMG_ERR_OPEN: return "cannot open the input, or its header is too short";
    case IMG_ERR_HEADER: return "invalid image header or corrupt structure";
    case IMG_ERR_CREATE: return "cannot create the output or a temporary file";
    case IMG_ERR_TYPE: return "unknown or disabled file type";
    case IMG_ERR_EPS_PREVIEW: return "EPS preview of unknown type";
    case IMG_ERR_WRITE: return "a write came out short";
    case IMG_ERR_PAGE: return "the requested page does not exist";
    case IMG_ERR_DATA: return "image data missing or truncated";
    case IMG_ERR_HANDLE: return "invalid handle";
    case IMG_ERR_SCAN_SOURCE: case IMG_ERR_SCAN_ACQUIRE: return "scanning failure";
    case IMG_ERR_STOPPED: return "stopped by a header callback";
    case IMG_ERR_DEPTH: return "bit depth not supported by the format";
    case IMG_ERR_NO_TRANSPARENT: return "no transparent colour";
    default: return "error";
    }
}

struct type_name {
    int code;
    const char *name;
    const char *ext;  // file extension the demo uses
};

constexpr type_name type_names[] = {
    {0, "TIFF, uncompressed", "tif"},     {1, "BMP", "bmp"},
    {2, "PCX", "pcx"},                    {3, "Targa", "tga"},
    {4, "GIF", "gif"},                    {5, "WordPerfect graphics", "wpg"},
    {6, "Windows metafile", "wmf"},       {7, "TIFF, CCITT modified Huffman", "tif"},
    {8, "TIFF, CCITT Group 3", "tif"},    {9, "TIFF, LZW", "tif"},
    {10, "TIFF, CCITT Group 4", "tif"},   {11, "DCX", "dcx"},
    {12, "BMP, run-length compressed", "bmp"}, {13, "JPEG", "jpg"},
    {14, "EPS", "eps"},                   {15, "PICT", "pct"},
    {16, "TIFF, PackBits", "tif"},        {17, "TIFF, compression 45", "tif"},
    {18, "CALS", "cal"},                  {19, "LSD", "lsd"},
    {20, "X bitmap", "xbm"},              {21, "MacPaint", "mac"},
    {22, "GX2", "gx2"},                   {23, "Kofax", "kfx"},
    {24, "IOCA", "ica"},                  {25, "Windows icon", "ico"},
    {26, "IFF", "iff"},                   {27, "Windows clipboard file", "clp"},
    {28, "GEM image", "img"},             {29, "BTR", "btr"},
    {30, "Microsoft Paint", "msp"},       {31, "CUT", "cut"},
    {32, "Targa, 15-bit", "tga"},         {33, "CCITT Group 3, raw", "g3"},
    {34, "CCITT Group 4, raw", "g4"},     {35, "X pixmap", "xpm"},
    {36, "X window dump", "xwd"},         {37, "Sun raster", "ras"},
    {38, "text", "txt"},                  {39, "PhotoCD", "pcd"},
    {40, "TIFF, JPEG", "tif"},            {41, "Photoshop", "psd"},
    {42, "IMT", "imt"},
};

const type_name *find_type(int code) {
    for (const type_name &t : type_names)
        if (t.code == code) return &t;
    return nullptr;
}

int fail(const char *file, int code) {
    std::fprintf(stderr, "brivanta: %s: %s (%d)\n", file, error_text(code), code);
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
                 "  demo [DIR]                save a built-in test card under every writer and read it back\n"
                 "  --version                 the library's version\n"
                 "Run 'brivanta COMMAND --help' for a command's options.\n");
    return out == stdout ? 0 : 2;
}

bool wants_help(int argc, char **argv) {
    for (int i = 2; i < argc; i++)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
    return false;
}

int cmd_info(int argc, char **argv) {
    if (wants_help(argc, argv) || argc != 3) {
        std::printf("usage: brivanta info FILE\n"
                    "Prints one line: type=N width=W height=H bits=B pages=P xdpi=X ydpi=Y\n");
        return argc == 3 ? 0 : 2;
    }
    const char *name = argv[2];
    int type = IMGLOW_get_filetype(name);
    if (type < 0) return fail(name, type);
    unsigned char header[40];
    int r = IMGLOW_get_fileinfo(name, header);
    if (r < 0) return fail(name, r);
    int pages = IMGLOW_get_pages(name);
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
    const type_name *t = find_type(type);
    std::printf("%d %s\n", type, t ? t->name : "unknown");
    return 0;
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

// Loads a file by its content, a page of it, or (fax_type >= 0) its raw fax data.
int load_file(const char *in, int page, int fax_type = -1, int fax_width = 0, int fax_height = 0, int fax_fill = 1) {
    if (fax_type < 0 && !page) return IMG_decompress_bitmap(in);
    FILE *f = std::fopen(in, "rb");
    if (!f) return IMG_ERR_OPEN;
#ifdef _WIN32
    // The library's descriptors are system file handles, not C runtime ones.
    int fd = static_cast<int>(_get_osfhandle(_fileno(f)));
#else
    int fd = fileno(f);
#endif
    int h = fax_type >= 0 ? IMG_decompress_fax(fd, fax_width, fax_height, fax_type, fax_fill)
                          : IMG_decompress_bitmap_fd(fd, 0, page);
    std::fclose(f);
    return h;
}

int cmd_convert(int argc, char **argv) {
    if (wants_help(argc, argv)) {
        std::printf("usage: brivanta convert IN OUT [--type N] [--page N] [--quality Q] [--reduce 1|4|8] [--shrink WxH]\n"
                    "                          [--fax TYPE:WIDTH[:HEIGHT[:FILLORDER]]]\n"
                    "Loads IN by its content and saves OUT as type N, or by OUT's extension.\n"
                    "--fax reads IN as raw CCITT data instead: TYPE 4 (or g4) Group 4, 2 (or g3-2d) Group 3\n"
                    "two-dimensional, 3 (or g3) Group 3 with EOLs, other numbers one-dimensional rows without EOLs;\n"
                    "HEIGHT 0 or absent takes the rows the data holds; FILLORDER 2 reads bytes LSB first.\n");
        return 0;
    }
    const char *in = nullptr, *out = nullptr;
    int type = IMG_TYPE_BY_EXTENSION, page = 0, quality = -1, reduce = 0, sw = 0, sh = 0;
    int fax_type = -1, fax_width = 0, fax_height = 0, fax_fill = 1;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (a == "--type" && (v = value())) type = std::atoi(v);
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
    IMGLOW_set_decomp_reduction(reduce);
    IMGLOW_set_decompsize(sw, sh);
    if (quality >= 0) IMGLOW_set_comp_quality(quality);
    progress_start("load");
    int h = load_file(in, page, fax_type, fax_width, fax_height, fax_fill);
    progress_stop();
    if (h < 0) return fail(in, h);
    progress_start("save");
    int r = IMG_save_bitmap(h, out, type);
    progress_stop();
    IMG_delete_bitmap(h);
    if (r < 0) return fail(out, r);
    return 0;
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

constexpr int CARD_W = 320, CARD_H = 240;

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

// Header, colour table and pixels of a handle's bitmap, for comparison.
std::vector<unsigned char> bitmap_bytes(int h) {
    int w = 0, ht = 0, bits = 0;
    int block = IMG_bitmap_info(h, &w, &ht, &bits);
    if (block <= 0) return {};
    auto *dib = static_cast<unsigned char *>(IMG_mem_lock(block));
    int stride = bits == 1 ? (w + 7) / 8 : bits == 4 ? (w + 1) / 2 : bits == 24 ? w * 3 : w;
    int padded = (stride + 3) & ~3;
    int pal = bits == 24 ? 0 : 4 << bits;
    std::vector<unsigned char> out;
    unsigned char dims[12];
    std::memcpy(dims, dib + 4, 8);
    std::memcpy(dims + 8, &bits, 4);
    out.insert(out.end(), dims, dims + 12);
    out.insert(out.end(), dib + 40, dib + 40 + pal);
    for (int y = 0; y < ht; y++) {
        const unsigned char *row = dib + 40 + pal + y * padded;
        out.insert(out.end(), row, row + stride);
        if (bits == 1 && (w & 7)) out.back() &= static_cast<unsigned char>(0xFF00 >> (w & 7));
        if (bits == 4 && (w & 1)) out.back() &= 0xF0;
    }
    IMG_mem_unlock(block);
    return out;
}

double ms_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
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
    for (const type_name &t : type_names) {
        for (int i = 0; i < 4; i++) {
            char file[512];
            std::snprintf(file, sizeof file, "%s/card%d_t%02d.%s", dir.c_str(), depths[i], t.code, t.ext);
            std::remove(file);
            auto t0 = std::chrono::steady_clock::now();
            int r = IMG_save_bitmap(cards[i], file, t.code);
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
            int h = load_file(file, 0, fax, CARD_W, CARD_H);
            double ms = ms_since(t0);
            std::error_code sized;
            auto file_bytes = std::filesystem::file_size(file, sized);
            const char *verdict = "load fails";
            if (h >= 0) {
                bool same = bitmap_bytes(h) == bitmap_bytes(cards[i]);
                verdict = same ? "identical" : "differs";
                identical += same;
                IMG_delete_bitmap(h);
            }
            rows++;
            std::printf("%-4d %-30s %-28s %9lld  %-10s %8.2f\n", t.code, t.name, file + dir.size() + 1,
                        sized ? -1LL : static_cast<long long>(file_bytes), verdict, ms);
        }
    }
    for (int c : cards) IMG_delete_bitmap(c);
    std::printf("%d files written, %d identical after reading back; the card is %s\n", rows, identical, card.c_str());
    return rows ? 0 : 1;
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
    if (cmd == "info") return cmd_info(argc, argv);
    if (cmd == "detect") return cmd_detect(argc, argv);
    if (cmd == "convert") return cmd_convert(argc, argv);
    if (cmd == "demo") return cmd_demo(argc, argv);
    std::fprintf(stderr, "brivanta: unknown command %s\n", cmd.c_str());
    return usage(stderr);
}
