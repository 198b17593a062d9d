// The reader of type 38: one page of a text file rendered as a 1-bit
// bitmap, black text on white; its page counter; the page-width measure and
// the import export.
#include "codecs/codec_support.h"
#include "frame/byte_source.h"
#include "text/text.h"

#include <algorithm>

namespace brv {

namespace {

// Longest line kept whole; a longer run of characters breaks there.
constexpr int32_t LINE_GLYPHS = 4096;

struct font_guard {
    os_font *font = nullptr;
    ~font_guard() {
        if (font) os_font_close(font);
    }
};

// The current settings' layout with their font open: 0 or a negative code.
int open_layout(text_layout &l, font_guard &g, int32_t &line_height) {
    l = text_layout_of(text_settings);
    if (text_settings.x_dpi < 1 || text_settings.y_dpi < 1 || !text_layout_usable(l)) return IMG_ERR_TYPE;
    if (int r = os_font_open(text_font_request(text_settings, l), &g.font); r < 0) return r;
    line_height = os_font_line_height(g.font, text_settings.tab);
    return line_height > 0 ? 0 : IMG_ERR_TYPE;
}

// The layout and font of the current settings, and the text read from start.
struct text_reading {
    text_layout l;
    font_guard font;
    int32_t line_height = 0;
    scratch_set scratch;
    byte_source src;

    int open(int fd, int32_t start) {
        if (int r = open_layout(l, font, line_height); r < 0) return r;
        const bool opened = source_open(src, fd, start, READ_BUFFER_SIZE);
        scratch.adopt(src.buf);
        return opened ? 0 : IMG_ERR_MEMORY;
    }
};

int32_t tab_width(os_font *font) {
    int32_t space = os_font_advance(font, ' ');
    int32_t stops = text_settings.tab > 0 ? text_settings.tab : 8;
    return space > 0 ? space * stops : stops;
}

// Reads the text once from start: IMG_ERR_HEADER at a zero byte; the
// encoding in *utf8.
int scan_text(byte_source &src, int32_t start, bool *utf8) {
    utf8_check c;
    source_restart(src, start);
    while (source_fill(src)) {
        utf8_check_feed(c, src.buf + src.pos, src.len - src.pos);
        src.pos = src.len;
        if (c.zero) return IMG_ERR_HEADER;
    }
    *utf8 = utf8_check_end(c);
    source_restart(src, start);
    return 0;
}

struct page_render {
    IMG_put_row_fn put_row;
    void *context;
    IMG_begin_image_fn begin_image;
    int32_t want;
    text_layout l;
    int32_t line_height;
    int32_t width, height, stride;
    uint8_t *band, *row;
    uint32_t *code_points;
    int32_t *xs;
    int32_t next_row;
    dib_header header;  // the sink keeps its address until the load ends
    bool begun;
    int error;
};

int begin_page(page_render &p) {
    p.begun = true;
    dib_header &h = p.header;
    h = dib_header{};
    set_dib_size(h.info, p.width, p.height, 1);
    h.info.biXPelsPerMeter = text_settings.x_dpi;
    h.info.biYPelsPerMeter = text_settings.y_dpi;
    std::memset(h.palette + 4, 0xFF, 3);  // 0 black ink, 1 white paper
    return p.begin_image(&h, p.context);
}

// Blank rows down to row `to`.
int blank_rows(page_render &p, int32_t to) {
    for (; p.next_row < to; p.next_row++) {
        std::memset(p.row, 0xFF, static_cast<size_t>(p.stride));
        if (int r = p.put_row(p.row, p.context, p.next_row, p.stride); r < 0) return r;
    }
    return 0;
}

bool render_line(text_flow &f, void *user) {
    auto &p = *static_cast<page_render *>(user);
    if (f.page < p.want) return true;
    if (f.page > p.want) return false;
    if (!p.begun && (p.error = begin_page(p)) < 0) return false;
    const int64_t y = p.l.top + int64_t{f.line} * p.line_height;
    if (y >= p.height) return true;
    const int32_t rows = static_cast<int32_t>(std::min<int64_t>(p.line_height, p.height - y));
    int32_t n = 0;
    for (int32_t i = 0; i < f.count; i++) {
        const uint32_t cp = f.glyphs[i].code_point;
        if (cp == ' ' || cp == '\t') continue;
        p.code_points[n] = cp;
        p.xs[n++] = f.glyphs[i].x;
    }
    std::memset(p.band, 0, static_cast<size_t>(rows) * static_cast<size_t>(p.stride));
    if (n && (p.error = os_font_draw(f.font, p.code_points, p.xs, n, p.band, p.stride, p.width, rows)) < 0) return false;
    if ((p.error = blank_rows(p, static_cast<int32_t>(y))) < 0) return false;
    for (int32_t r = 0; r < rows; r++, p.next_row++) {
        const uint8_t *ink = p.band + static_cast<size_t>(r) * static_cast<size_t>(p.stride);
        for (int32_t i = 0; i < p.stride; i++) p.row[i] = static_cast<uint8_t>(~ink[i]);
        if ((p.error = p.put_row(p.row, p.context, p.next_row, p.stride)) < 0) return false;
    }
    return true;
}

}  // namespace

int text_read(int32_t where, IMG_put_row_fn put_row, void *context, IMG_begin_image_fn begin_image, int fd) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    const int32_t want = where_is_page(where) ? where_page(where) : 0;
    if (start < 0) return IMG_ERR_OPEN;
    page_render p{};
    font_guard font;
    if (int r = open_layout(p.l, font, p.line_height); r < 0) return r;
    p.width = static_cast<int32_t>(p.l.page_width);
    p.height = static_cast<int32_t>(p.l.page_height);
    p.stride = static_cast<int32_t>(row_bytes(p.width, 1));
    uint32_t band_size;
    if (!size_mul_add(static_cast<uint32_t>(p.stride), std::min<int64_t>(p.line_height, p.height), 0, &band_size) ||
        !within_load_limit(uint64_t{band_size} + uint64_t{static_cast<uint32_t>(p.stride)} * p.height))
        return IMG_ERR_MEMORY;

    scratch_set scratch;
    byte_source src;
    const bool opened = source_open(src, fd, start, READ_BUFFER_SIZE + 16);
    scratch.adopt(src.buf);
    p.band = static_cast<uint8_t *>(scratch.take(band_size));
    p.row = static_cast<uint8_t *>(scratch.take(static_cast<uint32_t>(p.stride)));
    auto *glyphs = static_cast<placed_glyph *>(scratch.take(LINE_GLYPHS * sizeof(placed_glyph)));
    p.code_points = static_cast<uint32_t *>(scratch.take(LINE_GLYPHS * sizeof(uint32_t)));
    p.xs = static_cast<int32_t *>(scratch.take(LINE_GLYPHS * sizeof(int32_t)));
    if (!opened || !p.band || !p.row || !glyphs || !p.code_points || !p.xs) return IMG_ERR_MEMORY;
    bool utf8 = false;
    if (int r = scan_text(src, start, &utf8); r < 0) return r;

    p.put_row = put_row;
    p.context = context;
    p.begin_image = begin_image;
    p.want = want;
    text_flow f{};
    f.font = font.font;
    f.left = static_cast<int32_t>(p.l.left);
    f.right_edge = static_cast<int32_t>(p.l.page_width - p.l.right);
    f.tab_width = tab_width(font.font);
    f.lines_per_page = lines_per_page(p.l, p.line_height);
    f.glyphs = glyphs;
    f.capacity = LINE_GLYPHS;
    f.emit = render_line;
    f.user = &p;
    flow_start(f);
    for (int32_t cp; (cp = next_code_point(src, utf8)) >= 0;)
        if (!flow_put(f, static_cast<uint32_t>(cp)) || f.page > want) break;
    if (f.error) return f.error;
    if (p.error < 0) return p.error;
    if (f.page == want) {
        flow_finish(f);
        if (p.error < 0) return p.error;
        const bool empty_tail = f.blank_page && f.line == 0 && f.count == 0;
        if (!p.begun && want > 0 && empty_tail) return IMG_ERR_PAGE;
    } else if (f.page < want) {
        return IMG_ERR_PAGE;
    }
    if (!p.begun && (p.error = begin_page(p)) < 0) return p.error;
    return blank_rows(p, p.height);
}

int text_page_count(int fd) {
    text_reading t;
    if (int r = t.open(fd, file_seek(fd, 0, 1)); r < 0) return r;
    byte_source &src = t.src;
    pagination p = pagination_start(t.l, t.line_height);
    while (source_fill(src)) {
        if (int r = pagination_feed(p, src.buf + src.pos, src.len - src.pos); r < 0) return r;
        src.pos = src.len;
    }
    return pagination_end(p);
}

}  // namespace brv

using namespace brv;

int IMG_API IMGLOW_get_ascii_page_width(const char *name) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    int result = [&] {
        text_reading t;
        if (int r = t.open(fd, 0); r < 0) return r;
        byte_source &src = t.src;
        const text_layout &l = t.l;
        const font_guard &font = t.font;
        bool utf8 = false;
        if (int r = scan_text(src, 0, &utf8); r < 0) return r;
        const int64_t tab = tab_width(font.font);
        int64_t x = 0, widest = 0;
        for (int32_t cp; (cp = next_code_point(src, utf8)) >= 0;) {
            if (cp == '\n' || cp == '\r' || cp == '\f') {
                x = 0;
            } else if (cp == '\t') {
                x = (x / tab + 1) * tab;
            } else if (cp >= 32 && !(cp >= 0x7F && cp < 0xA0) && cp != 0xFEFF) {
                int32_t a = os_font_advance(font.font, static_cast<uint32_t>(cp));
                if (a < 0) return a;
                x += a;
            }
            widest = std::max(widest, x);
        }
        const int64_t thousandths = ((widest + l.left + l.right) * 1000 + text_settings.x_dpi - 1) / text_settings.x_dpi;
        return static_cast<int>(std::min<int64_t>(thousandths, INT32_MAX));
    }();
    os_close(fd);
    return result;
}

int IMG_API IMG_import_ascii(const char *name, int page) {
    if (!name || !*name) return IMG_ERR_OPEN;
    int fd = os_open(name, OS_OPEN_READ);
    if (fd < 0) return IMG_ERR_OPEN;
    const int was_on = IMGLOW_set_auto_detect(IMG_TYPE_TEXT);
    int h = IMG_decompress_bitmap_fd(fd, 0, page);
    if (!was_on) IMGLOW_unset_auto_detect(IMG_TYPE_TEXT);
    os_close(fd);
    return h;
}
