// Fonts on POSIX: fontconfig chooses the face file by name (so a face that
// is absent resolves to its metric-compatible substitute), FreeType draws
// it.  FreeType takes its memory from the library's movable blocks, so a
// failing allocation reaches it as it reaches the codecs.
#include "brivanta.h"
#include "platform/platform.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include FT_SYNTHESIS_H
#include FT_TRUETYPE_TABLES_H
#include FT_MODULE_H
#include FT_ADVANCES_H
#include <fontconfig/fontconfig.h>

#include <cstdio>
#include <cstring>

// The memory sanitizer cannot see what the uninstrumented system libraries
// write; what they hand back is marked as written.
#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define FONT_MEMORY_SANITIZER 1
#define FONT_UNPOISON(p, n) __msan_unpoison(p, n)
#define FONT_UNPOISON_STRING(s) __msan_unpoison_string(s)
#endif
#endif
#ifndef FONT_UNPOISON
#define FONT_UNPOISON(p, n) ((void)0)
#define FONT_UNPOISON_STRING(s) ((void)0)
#endif

namespace brv {

struct os_font {
    FT_MemoryRec_ memory;
    FT_Library library;
    FT_Face face;
    bool embolden, oblique;
    bool out_of_memory;  // an allocation failed: FreeType may report it as another error
    int32_t ascent, line_height;
    int32_t advances[256];  // -2: not measured yet
    // Rendered glyphs of the first 256 code points, kept while the font is
    // open: a page draws the same few letters thousands of times.
    struct glyph {
        int32_t left, top, width, rows, pitch;
        uint8_t *bits;  // null with ready: nothing to draw
        bool ready;
    } glyphs[256];
};

namespace {

constexpr size_t BLOCK_HEADER = 16;  // the block's name, keeping the data 16-byte aligned

void *ft_alloc(FT_Memory m, long size) {
    mem_block b = 0;
    if (size > 0 && static_cast<unsigned long>(size) <= 0x7FFFFFF0u - BLOCK_HEADER)
        b = mem_alloc(static_cast<uint32_t>(size) + BLOCK_HEADER, MEM_MOVEABLE);
    auto *p = b ? static_cast<uint8_t *>(mem_lock(b)) : nullptr;
    if (!p) {
        if (b) mem_free(b);
        if (m->user) static_cast<os_font *>(m->user)->out_of_memory = true;
        return nullptr;
    }
    FONT_UNPOISON(p, static_cast<size_t>(size) + BLOCK_HEADER);
    std::memcpy(p, &b, sizeof b);
    return p + BLOCK_HEADER;
}

void ft_free(FT_Memory, void *data) {
    if (!data) return;
    mem_block b;
    std::memcpy(&b, static_cast<uint8_t *>(data) - BLOCK_HEADER, sizeof b);
    mem_unlock(b);
    mem_free(b);
}

void *ft_realloc(FT_Memory m, long old_size, long new_size, void *data) {
    void *moved = ft_alloc(m, new_size);
    if (!moved) return nullptr;
    if (data) {
        std::memcpy(moved, data, static_cast<size_t>(old_size < new_size ? old_size : new_size));
        ft_free(m, data);
    }
    return moved;
}

// The last face fontconfig chose: loads with the same settings ask again
// and again.
struct face_choice {
    char name[32];
    bool bold, italic;
    char file[1024];
    int index;
    bool is_bold, is_italic;
    bool valid;
};
face_choice chosen;

#ifdef FONT_MEMORY_SANITIZER
// Fontconfig's own calls into the C library trip the memory sanitizer on
// what its uninstrumented code wrote, so under it every name is served by
// the fixed-pitch face fontconfig gives for "Courier New" on Debian.
bool choose_face(const char *name, bool bold, bool italic) {
    static const char *const files[4] = {"LiberationMono-Regular", "LiberationMono-Bold", "LiberationMono-Italic",
                                         "LiberationMono-BoldItalic"};
    std::snprintf(chosen.file, sizeof chosen.file, "/usr/share/fonts/truetype/liberation/%s.ttf",
                  files[(bold ? 1 : 0) + (italic ? 2 : 0)]);
    std::strncpy(chosen.name, name, sizeof chosen.name - 1);
    chosen.bold = chosen.is_bold = bold;
    chosen.italic = chosen.is_italic = italic;
    chosen.index = 0;
    return chosen.valid = true;
}
#else
bool choose_face(const char *name, bool bold, bool italic) {
    if (chosen.valid && chosen.bold == bold && chosen.italic == italic && std::strncmp(chosen.name, name, 31) == 0)
        return true;
    chosen.valid = false;
    if (!FcInit()) return false;
    FcPattern *pattern = FcPatternCreate();
    if (!pattern) return false;
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8 *>(name));
    // Text pages are set in a fixed-pitch face when the named one is unknown.
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8 *>("monospace"));
    FcPatternAddInteger(pattern, FC_WEIGHT, bold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
    FcPatternAddInteger(pattern, FC_SLANT, italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
    FcPatternAddBool(pattern, FC_SCALABLE, FcTrue);
    FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
    FcDefaultSubstitute(pattern);
    FcResult result = FcResultNoMatch;
    FcPattern *match = FcFontMatch(nullptr, pattern, &result);
    FcPatternDestroy(pattern);
    if (!match) return false;
    FcChar8 *file = nullptr;
    int index = 0, weight = FC_WEIGHT_REGULAR, slant = FC_SLANT_ROMAN;
    bool ok = FcPatternGetString(match, FC_FILE, 0, &file) == FcResultMatch && file;
    if (ok) {
        FONT_UNPOISON(&file, sizeof file);
        FONT_UNPOISON_STRING(reinterpret_cast<char *>(file));
        ok = std::strlen(reinterpret_cast<char *>(file)) < sizeof chosen.file;
    }
    if (ok) {
        FcPatternGetInteger(match, FC_INDEX, 0, &index);
        FcPatternGetInteger(match, FC_WEIGHT, 0, &weight);
        FcPatternGetInteger(match, FC_SLANT, 0, &slant);
        FONT_UNPOISON(&index, sizeof index);
        FONT_UNPOISON(&weight, sizeof weight);
        FONT_UNPOISON(&slant, sizeof slant);
        std::strcpy(chosen.file, reinterpret_cast<char *>(file));
        std::strncpy(chosen.name, name, sizeof chosen.name - 1);
        chosen.name[sizeof chosen.name - 1] = 0;
        chosen.bold = bold;
        chosen.italic = italic;
        chosen.index = index;
        chosen.is_bold = weight >= FC_WEIGHT_DEMIBOLD;
        chosen.is_italic = slant != FC_SLANT_ROMAN;
        chosen.valid = true;
    }
    FcPatternDestroy(match);
    return ok;
}
#endif

int font_error(const os_font *f, FT_Error e) {
    return e == FT_Err_Out_Of_Memory || f->out_of_memory ? IMG_ERR_MEMORY : IMG_ERR_TYPE;
}

// Scales the face so that its cell (the ascent and descent Windows uses)
// is height pixels and its average character width pixels.
FT_Error set_cell_size(os_font *f, int32_t height, int32_t width) {
    FT_Face face = f->face;
    int64_t ascent = face->ascender, descent = -face->descender, average = face->max_advance_width;
    if (auto *os2 = static_cast<TT_OS2 *>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2)); os2 && os2->version != 0xFFFF) {
        if (os2->usWinAscent + os2->usWinDescent > 0) ascent = os2->usWinAscent, descent = os2->usWinDescent;
        if (os2->xAvgCharWidth > 0) average = os2->xAvgCharWidth;
    }
    if (ascent + descent <= 0 || average <= 0) return FT_Err_Invalid_Face_Handle;
    if (height <= 0) height = 16;
    const int64_t y_scale = (int64_t{height} << 22) / (ascent + descent);
    const int64_t x_scale = width > 0 ? (int64_t{width} << 22) / average : y_scale;
    if (y_scale <= 0 || x_scale <= 0 || y_scale > INT32_MAX || x_scale > INT32_MAX) return FT_Err_Invalid_Pixel_Size;
    FT_Size_RequestRec request{FT_SIZE_REQUEST_TYPE_SCALES, static_cast<FT_Long>(x_scale),
                               static_cast<FT_Long>(y_scale), 0, 0};
    if (FT_Error e = FT_Request_Size(face, &request)) return e;
    f->ascent = static_cast<int32_t>((ascent * y_scale + (int64_t{1} << 21)) >> 22);
    f->line_height = f->ascent + static_cast<int32_t>((descent * y_scale + (int64_t{1} << 21)) >> 22);
    return 0;
}

// Loads and renders one glyph as a 1-bit bitmap in the face's slot.
FT_Error render_glyph(os_font *f, uint32_t code_point) {
    FT_Face face = f->face;
    const FT_UInt index = FT_Get_Char_Index(face, code_point);
    const bool synthetic = f->embolden || f->oblique;
    if (FT_Error e = FT_Load_Glyph(face, index, FT_LOAD_TARGET_MONO | (synthetic ? FT_LOAD_NO_BITMAP : 0))) return e;
    FT_GlyphSlot slot = face->glyph;
    if (slot->format == FT_GLYPH_FORMAT_OUTLINE) {
        if (f->oblique) FT_GlyphSlot_Oblique(slot);
        // A stroke a sixteenth of the cell wider each way, as a bold face would be.
        if (f->embolden) FT_Outline_EmboldenXY(&slot->outline, f->line_height * 64 / 24, 0);
    }
    if (FT_Error e = FT_Render_Glyph(slot, FT_RENDER_MODE_MONO)) return e;
    FONT_UNPOISON(&slot->bitmap, sizeof slot->bitmap);
    return 0;
}

}  // namespace

int os_font_open(const font_request &request, os_font **out) {
    *out = nullptr;
    FT_MemoryRec_ memory{nullptr, ft_alloc, ft_free, ft_realloc};
    auto *f = static_cast<os_font *>(ft_alloc(&memory, sizeof(os_font)));
    if (!f) return IMG_ERR_MEMORY;
    std::memset(f, 0, sizeof *f);
    f->memory = memory;
    f->memory.user = f;
    for (int32_t &a : f->advances) a = -2;
    if (FT_Error e = FT_New_Library(&f->memory, &f->library)) {
        ft_free(&memory, f);
        return e == FT_Err_Out_Of_Memory ? IMG_ERR_MEMORY : IMG_ERR_TYPE;
    }
    FT_Add_Default_Modules(f->library);
    FONT_UNPOISON(&f->library, sizeof f->library);
    int r = 0;
    if (f->out_of_memory) {
        r = IMG_ERR_MEMORY;  // a module could not be added
    } else if (!choose_face(request.face ? request.face : "", request.bold, request.italic)) {
        r = IMG_ERR_TYPE;
    } else if (FT_Error e = FT_New_Face(f->library, chosen.file, chosen.index, &f->face)) {
        r = font_error(f, e);
    } else {
        FONT_UNPOISON(&f->face, sizeof f->face);
        f->embolden = request.bold && !chosen.is_bold;
        f->oblique = request.italic && !chosen.is_italic;
        if (!FT_IS_SCALABLE(f->face))
            r = IMG_ERR_TYPE;
        else if (FT_Error e2 = set_cell_size(f, request.height, request.width))
            r = font_error(f, e2);
    }
    if (r < 0) {
        os_font_close(f);
        return r;
    }
    *out = f;
    return 0;
}

void os_font_close(os_font *f) {
    if (!f) return;
    for (os_font::glyph &g : f->glyphs) ft_free(&f->memory, g.bits);
    FT_Done_Library(f->library);  // and its faces
    FT_MemoryRec_ memory = f->memory;
    ft_free(&memory, f);
}

int32_t os_font_line_height(os_font *f, int32_t) { return f->line_height; }

int32_t os_font_advance(os_font *f, uint32_t code_point) {
    if (code_point < 256 && f->advances[code_point] != -2) return f->advances[code_point];
    FT_Fixed advance = 0;
    FT_Error e = FT_Get_Advance(f->face, FT_Get_Char_Index(f->face, code_point), FT_LOAD_TARGET_MONO, &advance);
    FONT_UNPOISON(&advance, sizeof advance);
    if (e) return font_error(f, e) == IMG_ERR_MEMORY ? IMG_ERR_MEMORY : 0;
    const int32_t pixels = static_cast<int32_t>((advance + 0x8000) >> 16);
    if (code_point < 256) f->advances[code_point] = pixels;
    return pixels;
}

namespace {

// The glyph's 1-bit image: rendered now, or kept from before.  0, or
// negative when memory fails; an empty glyph for one the face cannot draw.
int glyph_of(os_font *f, uint32_t cp, os_font::glyph &out) {
    if (cp < 256 && f->glyphs[cp].ready) {
        out = f->glyphs[cp];
        return 0;
    }
    out = {};
    if (FT_Error e = render_glyph(f, cp)) return font_error(f, e) == IMG_ERR_MEMORY ? IMG_ERR_MEMORY : 0;
    const FT_GlyphSlot slot = f->face->glyph;
    const FT_Bitmap &bm = slot->bitmap;
    if (bm.pixel_mode != FT_PIXEL_MODE_MONO || !bm.buffer || bm.pitch <= 0) return 0;
    out = {slot->bitmap_left, slot->bitmap_top, static_cast<int32_t>(bm.width), static_cast<int32_t>(bm.rows),
           bm.pitch, bm.buffer, true};
    FONT_UNPOISON(bm.buffer, static_cast<size_t>(bm.rows) * bm.pitch);
    if (cp >= 256) return 0;
    // Kept in a block of its own: the slot's image is gone at the next glyph.
    const long size = static_cast<long>(bm.rows) * bm.pitch;
    auto *kept = size ? static_cast<uint8_t *>(ft_alloc(&f->memory, size)) : nullptr;
    if (size && !kept) return IMG_ERR_MEMORY;
    if (kept) std::memcpy(kept, bm.buffer, static_cast<size_t>(size));
    out.bits = kept;
    f->glyphs[cp] = out;
    return 0;
}

}  // namespace

int os_font_draw(os_font *f, const uint32_t *code_points, const int32_t *xs, int32_t count, uint8_t *band,
                 int32_t stride, int32_t width, int32_t rows) {
    for (int32_t i = 0; i < count; i++) {
        os_font::glyph g;
        if (int r = glyph_of(f, code_points[i], g); r < 0) return r;
        if (!g.bits) continue;
        const int64_t x0 = int64_t{xs[i]} + g.left, y0 = int64_t{f->ascent} - g.top;
        for (int32_t r = 0; r < g.rows; r++) {
            const int64_t y = y0 + r;
            if (y < 0 || y >= rows) continue;
            const uint8_t *src = g.bits + static_cast<int64_t>(r) * g.pitch;
            uint8_t *dst = band + y * stride;
            for (int32_t c = 0; c < g.width; c++) {
                if (!(src[c >> 3] & (0x80 >> (c & 7)))) continue;
                const int64_t x = x0 + c;
                if (x >= 0 && x < width) dst[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
            }
        }
    }
    return 0;
}

}  // namespace brv
