// File type detection: a fixed chain of signature probes over the first ten
// bytes, each behind a per-type enable flag, and the query exports.
#include "frame/frame.h"

#include <cstring>

namespace {

uint8_t auto_detect_flags[AUTO_DETECT_FLAGS] = {
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1,  // 38: text, off until asked for
};

using probe_test = bool (*)(const uint8_t *b);

struct probe {
    const char *text;
    int flag;
    probe_test test;
};

uint32_t le(const uint8_t *b) { return get32(b); }

bool is_tga(const uint8_t *b) {
    int t = b[2];
    if ((t == 1 || t == 2 || t == 3 || t == 9 || t == 10 || t == 11) && b[1] < 2) return true;
    int s = static_cast<int8_t>(b[0]);
    return s >= 24 && s <= 69 && b[2] == 0x9C;
}

bool is_cut(const uint8_t *b) {
    if (b[4] || b[5]) return false;
    if (!b[0] && !b[1]) return false;
    int w = static_cast<int16_t>(get16(b)), h = static_cast<int16_t>(get16(b + 2));
    return w >= 0 && w <= 4999 && h >= 0 && h <= 4999;
}

bool no_zero(const uint8_t *b) { return std::memchr(b, 0, 10) == nullptr; }

// Probes 1-30 look at the first ten bytes only; PICT and MacPaint follow.
constexpr probe probes[] = {
    {"tif", 0, [](const uint8_t *b) { return (b[0] == 'M' && b[1] == 'M') || (b[0] == 'I' && b[1] == 'I'); }},
    {"gif", 4, [](const uint8_t *b) { return std::memcmp(b, "GIF", 3) == 0; }},
    {"bmp", 1, [](const uint8_t *b) { return (b[0] == 'B' && b[1] == 'M') || le(b) == 40; }},
    {"eps", 14, [](const uint8_t *b) { return le(b) == 0xC6D3D0C5u; }},
    {"dcx", 11, [](const uint8_t *b) { return le(b) == 0x3ADE68B1u; }},
    {"jpg", 13, [](const uint8_t *b) { return b[0] == 0xFF && b[1] == 0xD8; }},
    {"wpg", 5, [](const uint8_t *b) { return std::memcmp(b + 1, "WPC", 3) == 0; }},
    {"cal", 18, [](const uint8_t *b) { return std::memcmp(b, "src", 3) == 0; }},
    {"kfx", 23, [](const uint8_t *b) { return std::memcmp(b, ".KF", 3) == 0; }},
    {"imt", 42, [](const uint8_t *b) { return std::memcmp(b, "'C1", 4) == 0; }},  // includes the zero byte
    {"iff", 26, [](const uint8_t *b) { return std::memcmp(b, "FORM", 4) == 0; }},
    {"gx2", 22, [](const uint8_t *b) { return std::memcmp(b, "GX2", 3) == 0; }},
    {"lsd", 19, [](const uint8_t *b) { return b[0] == 0xDC && b[1] == 0xDC; }},
    {"pcx", 2, [](const uint8_t *b) { return b[0] == 10; }},
    {"ico", 25, [](const uint8_t *b) { return le(b) == 0x00010000u && (b[6] == 16 || b[6] == 32 || b[6] == 64); }},
    {"tga", 3, is_tga},
    {"wmf", 6, [](const uint8_t *b) { return le(b) == 0x9AC6CDD7u || b[0] == 1 || b[1] == 2; }},
    {"ica", 24,
     [](const uint8_t *b) {
         return (b[2] == 0xD3 && b[3] == 0xA6 && b[4] == 0xFB) || (b[2] == 0xD3 && b[3] == 0xA8 && b[4] == 0xA8) ||
                b[0] == 'p';
     }},
    {"pcd", 39, [](const uint8_t *b) { return le(b) == 0xFFFFFFFFu; }},
    {"clp", 27, [](const uint8_t *b) { return b[0] == 'P' && b[1] == 0xC3; }},
    {"img", 28, [](const uint8_t *b) { return b[0] == 0 && b[1] == 1 && b[2] == 0 && (b[3] == 9 || b[3] == 8); }},
    {"btr", 29, [](const uint8_t *b) { return b[0] == 0xBB && b[3] == 1; }},
    {"msp", 30, [](const uint8_t *b) { return std::memcmp(b, "Lin", 3) == 0; }},
    {"xbm", 20, [](const uint8_t *b) { return std::memcmp(b, "#define", 7) == 0; }},
    {"xpm", 35, [](const uint8_t *b) { return std::memcmp(b, "/* XPM */", 9) == 0; }},
    {"xwd", 36, [](const uint8_t *b) { return b[4] == 0 && b[5] == 0 && b[6] == 0 && b[7] == 7; }},
    {"ras", 37, [](const uint8_t *b) { return get32be(b) == 0x59A66A95u; }},
    {"cut", 31, is_cut},
    {"txt", 38, no_zero},
    {"psd", 41, [](const uint8_t *b) { return std::memcmp(b, "8BPS", 4) == 0; }},
};

struct code_entry {
    const char *text;
    int code;
};

// What the name query maps; the _fd and _mem queries stop at "ras"'s
// predecessors and leave xbm, xpm, xwd, ras and txt unmapped.
constexpr code_entry codes[] = {
    {"tif", 0},  {"bmp", 1},  {"pcx", 2},  {"tga", 3},  {"gif", 4},  {"wpg", 5},  {"wmf", 6},  {"eps", 14},
    {"dcx", 11}, {"jpg", 13}, {"pct", 15}, {"lsd", 19}, {"cal", 18}, {"kfx", 23}, {"ica", 24}, {"ico", 25},
    {"iff", 26}, {"gx2", 22}, {"clp", 27}, {"img", 28}, {"btr", 29}, {"msp", 30}, {"cut", 31}, {"pcd", 39},
    {"mac", 21}, {"psd", 41}, {"xbm", 20}, {"xpm", 35}, {"xwd", 36}, {"ras", 37}, {"txt", 38},
};
constexpr int codes_all = sizeof codes / sizeof codes[0];
constexpr int codes_short = codes_all - 5;

int code_of(const char *text, int count) {
    for (int i = 0; i < count; i++)
        if (std::strcmp(codes[i].text, text) == 0) return codes[i].code;
    return IMG_ERR_TYPE;
}

// The compression refinements of BMP and TIFF, from offset 0 of the source.
int refine(int fd, int code) {
    if (code == 1) {
        uint8_t file_header[14], info[40] = {};
        file_seek(fd, 0, 0);
        file_read(fd, file_header, 14);
        file_read(fd, info, 40);
        // A bare header is judged by the wrong field; callers are used to it.
        return get32(info + 16) ? 12 : 1;
    }
    if (code == 0) return tiff_refine_type(fd);
    return code;
}

int fold(int code) {
    switch (code) {
    case 7: case 8: case 9: case 10: case 16: case 17: case 40: return 0;
    case 12: return 1;
    default: return code;
    }
}

}  // namespace

void detect_file_type(int fd, char *text_out) {
    text_out[0] = 0;
    uint8_t b[16] = {};
    file_read(fd, b, 10);
    for (const probe &p : probes) {
        if (auto_detect_flags[p.flag] && p.test(b)) {
            std::memcpy(text_out, p.text, 4);
            file_seek(fd, 0, 0);
            return;
        }
    }
    // PICT: 512 bytes further on; MacPaint: 467 bytes back from there (the
    // file-type field of a MacBinary header only when PICT has just read).
    if (auto_detect_flags[15]) {
        uint8_t p[10] = {};
        file_seek(fd, 512, 1);
        int32_t n = file_read(fd, p, 10);
        if (n > 0 && (p[0] == 0x11 || p[1] == 0x11)) {
            std::memcpy(text_out, "pct", 4);
            file_seek(fd, 0, 0);
            return;
        }
    }
    if (auto_detect_flags[21]) {
        uint8_t m[10] = {};
        file_seek(fd, -467, 1);
        int32_t n = file_read(fd, m, 10);
        if (n > 0 && (std::memcmp(m, "PNT", 3) == 0 || get32(m) == 0)) std::memcpy(text_out, "mac", 4);
    }
    file_seek(fd, 0, 0);
}

extern "C" {

int IMG_API IMGLOW_get_filetype(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    char text[4];
    detect_file_type(fd, text);
    int code = code_of(text, codes_all);
    if (code >= 0) code = refine(fd, code);
    scratch_free_all();
    os_close(fd);
    return code;
}

int IMG_API IMGLOW_get_filetype_fd(int fd) {
    char text[4];
    detect_file_type(fd, text);
    int code = code_of(text, codes_short);
    if (code < 0) return code;
    file_seek(fd, 0, 0);
    code = refine(fd, code);
    scratch_free_all();
    return code;
}

int IMG_API IMGLOW_get_filetype_mem(void *block) {
    if (!block) return IMG_ERR_OPEN;
    memory_source_scope memory(block);
    char text[4];
    detect_file_type(MEMORY_FD, text);
    int code = code_of(text, codes_short);
    if (code < 0) return code;
    file_seek(MEMORY_FD, 0, 0);
    code = refine(MEMORY_FD, code);
    scratch_free_all();
    return code;
}

int IMG_API IMGLOW_set_auto_detect(int code) {
    code = fold(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    int previous = auto_detect_flags[code];
    auto_detect_flags[code] = 1;
    return previous;
}

int IMG_API IMGLOW_unset_auto_detect(int code) {
    code = fold(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    int previous = auto_detect_flags[code];
    auto_detect_flags[code] = 0;
    return previous;
}

int IMG_API IMGLOW_get_auto_detect(int code) {
    code = fold(code);
    if (code < 0 || code >= AUTO_DETECT_FLAGS) return IMG_ERR_TYPE;
    return auto_detect_flags[code];
}

}  // extern "C"
