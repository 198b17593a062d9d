// Text import shared by every system: the layout settings and their
// exports, the page arithmetic, the pagination that counts pages, decoding
// of the text, and the flow of characters into lines and pages.
#include "text/text.h"

#include "frame/byte_source.h"

#include <cstddef>

namespace brv {

static_assert(sizeof(IMG_ascii_attributes) == 82 && offsetof(IMG_ascii_attributes, tab) == 24 &&
                  offsetof(IMG_ascii_attributes, page_width) == 26 && offsetof(IMG_ascii_attributes, font_height) == 34 &&
                  offsetof(IMG_ascii_attributes, line_chars) == 38 && offsetof(IMG_ascii_attributes, bold) == 42 &&
                  offsetof(IMG_ascii_attributes, face) == 50,
              "the attribute record is exchanged by its byte layout");

namespace {
constexpr IMG_ascii_attributes DEFAULTS = {0,     0,     200,  200, {1000, 750, 1000, 750}, 4, 8500, 11000, -1,
                                           80,    60,    0,    0,   "Courier New"};
}  // namespace

IMG_ascii_attributes text_settings = DEFAULTS;

void text_settings_reset() { text_settings = DEFAULTS; }

// ---- Layout --------------------------------------------------------------------

text_layout text_layout_of(const IMG_ascii_attributes &s) {
    text_layout l;
    const int64_t h = s.x_dpi, v = s.y_dpi;
    l.left = h * s.margins[0] / 1000;
    l.top = v * s.margins[1] / 1000;
    l.right = h * s.margins[2] / 1000;
    l.bottom = v * s.margins[3] / 1000;
    l.page_width = h * s.page_width / 1000;
    l.page_height = v * s.page_height / 1000;
    if (s.font_height >= 0) {
        l.font_height = s.font_height;
        l.font_width = 0;
    } else {
        l.font_height = s.page_lines ? (l.page_height - (l.top + l.bottom)) * 1000 / (int64_t{s.page_lines} * 1000) : 0;
        l.font_width = s.line_chars ? (l.page_width - (l.left + l.right)) * 1000 / (int64_t{s.line_chars} * 1000) : 0;
    }
    return l;
}

bool text_layout_usable(const text_layout &l) {
    constexpr int64_t MAX_SIDE = 1 << 20;
    if (l.page_width < 1 || l.page_height < 1 || l.page_width > MAX_SIDE || l.page_height > MAX_SIDE) return false;
    if (l.left < 0 || l.top < 0 || l.right < 0 || l.bottom < 0) return false;
    if (l.left >= l.page_width - l.right || l.top >= l.page_height - l.bottom) return false;
    // A glyph is drawn in a band one cell high: no cell larger than the page.
    return l.font_height >= 0 && l.font_width >= 0 && l.font_height <= l.page_height && l.font_width <= l.page_width;
}

font_request text_font_request(const IMG_ascii_attributes &s, const text_layout &l) {
    return {s.face, static_cast<int32_t>(l.font_height), static_cast<int32_t>(l.font_width), s.bold != 0,
            (s.italic & 0xFF) != 0};
}

// ---- Pagination ------------------------------------------------------------------

pagination pagination_start(const text_layout &l, int32_t line_height) {
    return {l.top, l.page_height - l.bottom - line_height, l.page_height, line_height, l.top, 0};
}

int pagination_feed(pagination &p, const uint8_t *bytes, int32_t n) {
    for (int32_t i = 0; i < n; i++) {
        if (bytes[i] == 0) return IMG_ERR_HEADER;
        if (bytes[i] != 10) continue;
        p.pen += p.line_height;
        if (p.pen >= p.limit) {
            p.pen = p.top;
            p.pages++;
        }
    }
    return 0;
}

int32_t pagination_end(const pagination &p) { return p.pages + (p.pen > p.top && p.pen < p.page_height ? 1 : 0); }

int32_t lines_per_page(const text_layout &l, int32_t line_height) {
    const int64_t room = l.page_height - l.bottom - line_height - l.top;
    if (line_height <= 0 || room <= line_height) return 1;
    const int64_t k = (room + line_height - 1) / line_height;
    return k > INT32_MAX ? INT32_MAX : static_cast<int32_t>(k);
}

// ---- Decoding ----------------------------------------------------------------------

uint32_t cp1252_to_unicode(uint8_t b) {
    static constexpr uint16_t high[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                          0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
                                          0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                          0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
    return b >= 0x80 && b < 0xA0 ? high[b - 0x80] : b;
}

void utf8_check_feed(utf8_check &c, const uint8_t *bytes, int32_t n) {
    for (int32_t i = 0; i < n; i++) {
        const uint8_t b = bytes[i];
        if (b == 0) c.zero = true;
        if (c.pending) {
            if (b < c.low || b > c.high) {
                c.valid = false;
                c.pending = 0;
                continue;
            }
            c.low = 0x80, c.high = 0xBF;
            c.pending--;
            continue;
        }
        if (b < 0x80) continue;
        // The lead byte fixes the count and the first continuation's range.
        if (b >= 0xC2 && b <= 0xDF) c.pending = 1;
        else if (b == 0xE0) c.pending = 2, c.low = 0xA0;
        else if (b == 0xED) c.pending = 2, c.high = 0x9F;
        else if (b >= 0xE1 && b <= 0xEF) c.pending = 2;
        else if (b == 0xF0) c.pending = 3, c.low = 0x90;
        else if (b >= 0xF1 && b <= 0xF3) c.pending = 3;
        else if (b == 0xF4) c.pending = 3, c.high = 0x8F;
        else c.valid = false;
    }
}

int32_t next_code_point(byte_source &s, bool utf8) {
    int b = source_byte(s);
    if (b < 0) return -1;
    if (!utf8) return static_cast<int32_t>(cp1252_to_unicode(static_cast<uint8_t>(b)));
    if (b < 0x80) return b;
    // Checked valid beforehand: the lead byte says how many follow.
    int more = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : 1;
    uint32_t cp = static_cast<uint32_t>(b) & (0x3F >> more);
    while (more--) {
        int c = source_byte(s);
        if (c < 0) return -1;
        cp = cp << 6 | (static_cast<uint32_t>(c) & 0x3F);
    }
    return static_cast<int32_t>(cp);
}

// ---- Flow ----------------------------------------------------------------------------

namespace {

// Ends the current line, emitting it, and moves to the next line's place.
bool flow_newline(text_flow &f, bool emit_empty) {
    if ((f.count || emit_empty) && !f.emit(f, f.user)) f.stopped = true;
    f.count = f.fixed = 0;
    f.x = f.left;
    if (++f.line >= f.lines_per_page) {
        f.line = 0;
        f.page++;
        f.blank_page = true;
    }
    return !f.stopped;
}

// The current line is full at the right margin: breaks it after its last
// space and carries the word that follows onto the next line.
bool flow_wrap(text_flow &f) {
    int32_t space = -1;
    for (int32_t i = f.count - 1; i >= f.fixed; i--)
        if (f.glyphs[i].code_point == ' ' || f.glyphs[i].code_point == '\t') {
            space = i;
            break;
        }
    if (space < 0) return flow_newline(f, false);
    const int32_t carried = f.count - space - 1;
    placed_glyph *carry = f.glyphs + space + 1;
    f.count = space;  // the line without its breaking space
    const int32_t shift = carried ? carry[0].x - f.left : 0;
    const int32_t end_x = f.x;
    if (!f.emit(f, f.user)) f.stopped = true;
    std::memmove(f.glyphs, carry, static_cast<size_t>(carried) * sizeof *carry);
    for (int32_t i = 0; i < carried; i++) f.glyphs[i].x -= shift;
    const bool more = !f.stopped;
    f.count = carried;
    f.fixed = 0;
    f.x = carried ? end_x - shift : f.left;
    if (++f.line >= f.lines_per_page) {
        f.line = 0;
        f.page++;
        f.blank_page = !carried;
    }
    return more;
}

}  // namespace

void flow_start(text_flow &f) {
    f.count = f.fixed = 0;
    f.x = f.left;
    f.page = f.line = 0;
    f.blank_page = true;
    f.error = 0;
    f.stopped = false;
}

bool flow_put(text_flow &f, uint32_t cp) {
    if (f.stopped || f.error) return false;
    switch (cp) {
    case '\n': return flow_newline(f, true);
    case '\r':
        f.x = f.left;
        f.fixed = f.count;
        return true;
    case '\f':
        // A form feed at the top of an empty page does not add a blank one.
        if (f.blank_page && f.line == 0 && f.count == 0) return true;
        if (f.count && !f.emit(f, f.user)) f.stopped = true;
        f.count = f.fixed = 0;
        f.x = f.left;
        f.line = 0;
        f.page++;
        f.blank_page = true;
        return !f.stopped;
    case '\t': {
        // Tabs are kept as invisible glyphs, so a wrap can break at them.
        int64_t next = f.left + (static_cast<int64_t>(f.x - f.left) / f.tab_width + 1) * f.tab_width;
        if (next > f.right_edge && f.x > f.left) {
            if (!flow_newline(f, true)) return false;
            return true;
        }
        if (f.count == f.capacity && !flow_newline(f, true)) return false;
        f.glyphs[f.count++] = {cp, f.x};
        f.x = static_cast<int32_t>(next > INT32_MAX ? INT32_MAX : next);
        f.blank_page = false;
        return true;
    }
    default: break;
    }
    if (cp < 32 || (cp >= 0x7F && cp < 0xA0) || cp == 0xFEFF) return true;
    const int32_t advance = os_font_advance(f.font, cp);
    if (advance < 0) {
        f.error = advance;
        return false;
    }
    while (int64_t{f.x} + advance > f.right_edge && f.count > f.fixed)
        if (!flow_wrap(f)) return false;
    if (f.count == f.capacity && !flow_newline(f, true)) return false;
    f.glyphs[f.count++] = {cp, f.x};
    f.x += advance;
    f.blank_page = false;
    return true;
}

void flow_finish(text_flow &f) {
    if (f.count && !f.stopped && !f.error && !f.emit(f, f.user)) f.stopped = true;
}

// ---- Exports ---------------------------------------------------------------------------

namespace {
// Copies the fields that mask selects from one record to the other.
void copy_selected(IMG_ascii_attributes &to, const IMG_ascii_attributes &from, unsigned mask) {
    if (mask & IMG_ASCII_XRES) to.x_dpi = from.x_dpi;
    if (mask & IMG_ASCII_YRES) to.y_dpi = from.y_dpi;
    if (mask & IMG_ASCII_MARGINS) std::memcpy(to.margins, from.margins, sizeof to.margins);
    if (mask & IMG_ASCII_TAB) to.tab = from.tab;
    if (mask & IMG_ASCII_PAGE_WIDTH) to.page_width = from.page_width;
    if (mask & IMG_ASCII_PAGE_HEIGHT) to.page_height = from.page_height;
    if (mask & IMG_ASCII_FONT_HEIGHT) to.font_height = from.font_height;
    if (mask & IMG_ASCII_LINE_CHARS) to.line_chars = from.line_chars;
    if (mask & IMG_ASCII_PAGE_LINES) to.page_lines = from.page_lines;
    if (mask & IMG_ASCII_BOLD) to.bold = from.bold;
    if (mask & IMG_ASCII_ITALIC) to.italic = from.italic;
    if (mask & IMG_ASCII_FACE) std::memcpy(to.face, from.face, sizeof to.face);
}
}  // namespace

}  // namespace brv

using namespace brv;

int IMG_API IMGLOW_set_ascii_attributes(const IMG_ascii_attributes *attributes) {
    if (!attributes) return 0;
    copy_selected(text_settings, *attributes, attributes->mask);
    text_settings.face[sizeof text_settings.face - 1] = 0;
    return 0;
}

int IMG_API IMGLOW_get_ascii_attributes(IMG_ascii_attributes *attributes) {
    if (!attributes) return 0;
    copy_selected(*attributes, text_settings, attributes->mask);
    return 0;
}
