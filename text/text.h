// Text import: the layout settings, the page arithmetic, pagination and the
// flow of characters into lines and pages, shared by the reader of type 38
// and the text exports on every system.
#pragma once
#include "frame/frame.h"

namespace brv {

// The library's layout settings, kept in the record the exports exchange.
extern IMG_ascii_attributes text_settings;
void text_settings_reset();  // back to the defaults

// ---- Layout ------------------------------------------------------------------
// Pixel sizes of the page, its margins and the requested font cell.
struct text_layout {
    int64_t left, top, right, bottom;
    int64_t page_width, page_height;
    int64_t font_height, font_width;  // font_width 0: in proportion
};
text_layout text_layout_of(const IMG_ascii_attributes &s);
// Whether a page of this layout can be made and rendered: sizes that fit
// the bitmap arithmetic and a font cell no larger than the page.
bool text_layout_usable(const text_layout &l);
font_request text_font_request(const IMG_ascii_attributes &s, const text_layout &l);

// ---- Pagination ------------------------------------------------------------------
// Counts pages by line feeds alone: the pen moves one line down per line
// feed and returns to the top margin when it reaches the last line's place.
struct pagination {
    int64_t top, limit, page_height, line_height;
    int64_t pen;
    int32_t pages;
};
pagination pagination_start(const text_layout &l, int32_t line_height);
// Feeds n bytes of the file; IMG_ERR_HEADER at a zero byte (not text).
int pagination_feed(pagination &p, const uint8_t *bytes, int32_t n);
int32_t pagination_end(const pagination &p);
// Lines the pagination puts on one page (the line feeds that fill it).
int32_t lines_per_page(const text_layout &l, int32_t line_height);

// ---- Decoding ----------------------------------------------------------------------
// Windows-1252 to Unicode; 0 for the five undefined codes.
uint32_t cp1252_to_unicode(uint8_t b);
// Tracks whether bytes fed in pieces form valid UTF-8 (no overlongs,
// surrogates or code points past U+10FFFF) and whether a zero byte came.
struct utf8_check {
    int pending = 0;      // continuation bytes still expected
    uint32_t low = 0x80, high = 0xBF;  // the range of the next continuation byte
    bool valid = true;
    bool zero = false;
};
void utf8_check_feed(utf8_check &c, const uint8_t *bytes, int32_t n);
inline bool utf8_check_end(const utf8_check &c) { return c.valid && c.pending == 0; }

// ---- Flow --------------------------------------------------------------------------
// Characters placed into lines: tabs to the tab stops, carriage returns back
// to the left margin, form feeds and the pagination's page length starting
// new pages, other control characters skipped, and lines wrapped at the
// right margin after the last space (or anywhere when a word is longer than
// the line).  Each finished line goes to emit.
struct placed_glyph {
    uint32_t code_point;
    int32_t x;
};
struct text_flow {
    os_font *font;
    int32_t left, right_edge, tab_width, lines_per_page;
    placed_glyph *glyphs;  // the current line
    int32_t capacity, count;
    int32_t fixed;         // glyphs before a carriage return, never carried over
    int32_t x;
    int32_t page, line;    // where the current line goes
    bool blank_page;       // nothing placed on the current page yet
    int error;             // the first failure of the font, or 0
    // A finished line; false stops the flow (the wanted page is complete).
    bool (*emit)(text_flow &f, void *user);
    void *user;
    bool stopped;
};
// The flow starts at the top of page 0.
void flow_start(text_flow &f);
// Places one character: false once the flow stopped or the font failed.
bool flow_put(text_flow &f, uint32_t code_point);
// Emits the last line if it holds anything.
void flow_finish(text_flow &f);

// Reads the next character of a decoded text: a code point, or -1 at the end.
struct byte_source;
int32_t next_code_point(byte_source &s, bool utf8);

// The reader of type 38 and its page counter (frame/formats.cpp).
int text_read(int32_t where, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image, int fd);
int text_page_count(int fd);

}  // namespace brv
