// The graphics interface on the library's own surfaces: GDI's mapping,
// raster operations and nearest-neighbour stretching on 32-bit pixels, as
// GDI does them on a 32-bit DIB section.
#include "platform/posix/surface.h"

#include "brivanta.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <strings.h>

namespace brv {

int gfx_palettes_live = 0;

namespace {

int surfaces_live = 0;
// Every live surface, so a pointer is checked without reading through it.
surface *surface_list = nullptr;

// GDI's default brush is white: the pattern of every three-way raster operation.
constexpr uint32_t PATTERN = 0x00FFFFFF;
constexpr uint32_t RGB_MASK = 0x00FFFFFF;

const gfx_mapping PIXEL_MAPPING = {GFX_MM_TEXT, {0, 0}, {1, 1}, {0, 0}, {1, 1}};

// One coordinate through the mapping, rounded as GDI rounds.
int32_t map_coord(const gfx_mapping &m, int32_t v, bool vertical) {
    const int32_t worg = vertical ? m.window_org.y : m.window_org.x;
    const int32_t vorg = vertical ? m.viewport_org.y : m.viewport_org.x;
    if (m.mode == GFX_MM_TEXT) return v - worg + vorg;
    const int32_t wext = vertical ? m.window_ext.y : m.window_ext.x;
    const int32_t vext = vertical ? m.viewport_ext.y : m.viewport_ext.x;
    const double scale = wext ? static_cast<double>(vext) / wext : 1.0;
    const double d = std::floor(v * scale + (vorg - worg * scale) + 0.5);
    return static_cast<int32_t>(std::clamp(d, -2147483648.0, 2147483647.0));
}

// Applies a raster operation to n destination pixels from n source pixels
// (src may be null for the operations that do not read it).
void rop_row(uint32_t *d, const uint32_t *s, int n, uint32_t rop) {
    switch (rop) {
    case GFX_SRCCOPY: std::memcpy(d, s, 4 * static_cast<size_t>(n)); return;
    case GFX_SRCAND: for (int i = 0; i < n; i++) d[i] &= s[i]; return;
    case GFX_SRCPAINT: for (int i = 0; i < n; i++) d[i] |= s[i]; return;
    case GFX_SRCINVERT: for (int i = 0; i < n; i++) d[i] ^= s[i]; return;
    case GFX_NOTSRCCOPY: for (int i = 0; i < n; i++) d[i] = ~s[i] & RGB_MASK; return;
    case GFX_SRCERASE: for (int i = 0; i < n; i++) d[i] = s[i] & ~d[i] & RGB_MASK; return;
    case GFX_MERGEPAINT: for (int i = 0; i < n; i++) d[i] = (~s[i] | d[i]) & RGB_MASK; return;
    case GFX_DSTINVERT: for (int i = 0; i < n; i++) d[i] = ~d[i] & RGB_MASK; return;
    case GFX_BLACKNESS: std::fill(d, d + n, 0u); return;
    case GFX_WHITENESS: std::fill(d, d + n, RGB_MASK); return;
    default: break;
    }
    // Any other code through its truth table: bit 4p + 2s + d of the
    // operation's index byte is the result for those pattern, source and
    // destination bits.
    const unsigned code = (rop >> 16) & 0xFF;
    for (int i = 0; i < n; i++) {
        const uint32_t sv = s ? s[i] : 0, dv = d[i];
        uint32_t out = 0;
        for (unsigned k = 0; k < 8; k++) {
            if (!((code >> k) & 1)) continue;
            out |= ((k & 4) ? PATTERN : ~PATTERN) & ((k & 2) ? sv : ~sv) & ((k & 1) ? dv : ~dv);
        }
        d[i] = out & RGB_MASK;
    }
}

bool rop_reads_source(uint32_t rop) {
    const unsigned code = (rop >> 16) & 0xFF;
    return ((code >> 2) & 0x33) != (code & 0x33);
}

void present(surface *t, int x, int y, int w, int h) {
    if (t->hooks && t->hooks->present && w > 0 && h > 0) t->hooks->present(t, x, y, w, h);
}

// A DIB header and the colour table as 0x00RRGGBB words.
struct dib_view {
    int32_t width, height;  // height > 0
    bool top_down;
    int bits;
    uint32_t stride;
    uint32_t table[256];
};

bool read_dib_header(const void *header, dib_view *v) {
    const auto *h = static_cast<const uint8_t *>(header);
    int32_t size, width, height;
    uint16_t bits;
    uint32_t compression, used;
    std::memcpy(&size, h, 4);
    std::memcpy(&width, h + 4, 4);
    std::memcpy(&height, h + 8, 4);
    std::memcpy(&bits, h + 14, 2);
    std::memcpy(&compression, h + 16, 4);
    std::memcpy(&used, h + 32, 4);
    if (size < 40 || width <= 0 || height == 0 || height == INT32_MIN || compression != 0) return false;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && bits != 32) return false;
    v->width = width;
    v->height = height < 0 ? -height : height;
    v->top_down = height < 0;
    v->bits = bits;
    const uint64_t stride = ((static_cast<uint64_t>(width) * bits + 31) / 32) * 4;
    if (stride * static_cast<uint64_t>(v->height) > 0x7FFFFFFFu) return false;
    v->stride = static_cast<uint32_t>(stride);
    if (bits <= 8) {
        const uint32_t entries = used && used < (1u << bits) ? used : (1u << bits);
        const uint8_t *q = h + size;
        std::memset(v->table, 0, sizeof v->table);
        for (uint32_t i = 0; i < entries; i++)
            v->table[i] = static_cast<uint32_t>(q[4 * i + 2]) << 16 | q[4 * i + 1] << 8 | q[4 * i];
    }
    return true;
}

// Source pixels at columns cols[0..n) of one DIB row, as 0x00RRGGBB.
void fetch_columns(const dib_view &v, const uint8_t *row, const int32_t *cols, int n, uint32_t *out) {
    switch (v.bits) {
    case 1:
        for (int i = 0; i < n; i++) out[i] = v.table[(row[cols[i] >> 3] >> (7 - (cols[i] & 7))) & 1];
        break;
    case 4:
        for (int i = 0; i < n; i++) out[i] = v.table[(row[cols[i] >> 1] >> ((cols[i] & 1) ? 0 : 4)) & 15];
        break;
    case 8:
        for (int i = 0; i < n; i++) out[i] = v.table[row[cols[i]]];
        break;
    case 24:
        for (int i = 0; i < n; i++) {
            const uint8_t *p = row + 3 * cols[i];
            out[i] = static_cast<uint32_t>(p[2]) << 16 | p[1] << 8 | p[0];
        }
        break;
    default:
        for (int i = 0; i < n; i++) {
            uint32_t w;
            std::memcpy(&w, row + 4 * static_cast<size_t>(cols[i]), 4);
            out[i] = w & RGB_MASK;
        }
        break;
    }
}

// Working memory of one transfer, from the platform's blocks.
class work_block {
public:
    explicit work_block(size_t bytes) {
        if (bytes <= 0x7FFF0000u) block_ = mem_alloc(static_cast<uint32_t>(bytes ? bytes : 1), MEM_MOVEABLE);
        if (block_) data_ = mem_lock(block_);
    }
    ~work_block() {
        if (data_) mem_unlock(block_);
        if (block_) mem_free(block_);
    }
    work_block(const work_block &) = delete;
    work_block &operator=(const work_block &) = delete;
    template <class T>
    T *as() const {
        return static_cast<T *>(data_);
    }

private:
    mem_block block_ = 0;
    void *data_ = nullptr;
};

// Nearest-neighbour map of one axis: destination offsets 0..dn-1 onto
// source offsets from s0 over sn (either count may be negative: mirrored).
// Offsets outside 0..limit-1 are marked -1.  The rounding is GDI's
// (COLORONCOLOR as measured under Wine): an enlargement samples a little
// left of each pixel's centre; a reduction keeps the last source pixel of
// each group across, and vertically the groups are counted from the bottom.
void axis_map(int32_t *out, int dn, int s0, int sn, int limit, bool vertical) {
    const bool flip = (dn < 0) != (sn < 0);
    const int64_t d = dn < 0 ? -static_cast<int64_t>(dn) : dn;
    const int64_t n = sn < 0 ? -static_cast<int64_t>(sn) : sn;
    const int64_t base = sn < 0 ? static_cast<int64_t>(s0) + sn : s0;
    for (int64_t i = 0; i < d; i++) {
        int64_t k;
        if (d >= n) k = (i * n + (n - 1) / 2) / d;
        else if (!vertical) k = ((i + 1) * n - (d + 1) / 2) / d;
        else k = n - 1 - ((d - 1 - i) * n + n - d / 2 - 1) / d;
        if (flip) k = n - 1 - k;
        const int64_t s = base + k;
        out[i] = s >= 0 && s < limit ? static_cast<int32_t>(s) : -1;
    }
}

// The device rectangle of a logical (x, y, w, h): its left-top corner and
// signed extents, so mirrored transfers keep their sense.
void device_span(surface *s, int x, int y, int w, int h, int *dx, int *dy, int *dw, int *dh) {
    *dx = map_coord(s->mapping, x, false);
    *dy = map_coord(s->mapping, y, true);
    *dw = map_coord(s->mapping, x + w, false) - *dx;
    *dh = map_coord(s->mapping, y + h, true) - *dy;
}

// Walks the clipped destination of a stretch: for each destination row
// and contiguous run of valid columns, calls row(dst, y, first, count)
// where first indexes the column map.
template <class Row>
bool stretch_walk(surface *t, int dx, int dy, int dw, int dh, const int32_t *colmap, const int32_t *rowmap, Row row,
                  bool bottom_up = false) {
    const int xs = dw < 0 ? dx + dw : dx, ys = dh < 0 ? dy + dh : dy;
    const int aw = std::abs(dw), ah = std::abs(dh);
    // Destination columns i (0..aw) sit at xs + i; in a mirrored span the
    // map was built right to left.
    int i0 = std::max(0, -xs), i1 = std::min(aw, t->width - xs);
    while (i0 < i1 && colmap[dw < 0 ? aw - 1 - i0 : i0] < 0) i0++;
    while (i1 > i0 && colmap[dw < 0 ? aw - i1 : i1 - 1] < 0) i1--;
    if (i0 >= i1) return true;
    const int j0 = std::max(0, -ys), j1 = std::min(ah, t->height - ys);
    for (int k = j0; k < j1; k++) {
        // A copy within one surface downwards runs from the bottom up.
        const int j = bottom_up ? j1 - 1 - (k - j0) : k;
        const int32_t sr = rowmap[dh < 0 ? ah - 1 - j : j];
        if (sr < 0) continue;
        row(t->pixels + static_cast<size_t>(ys + j) * t->width + xs + i0, sr, i0, i1 - i0);
    }
    return true;
}

}  // namespace

// ---- Surfaces ----------------------------------------------------------------------

surface *surface_create(int width, int height) {
    if (width < 0 || height < 0) return nullptr;
    const uint64_t bytes = static_cast<uint64_t>(width) * static_cast<uint64_t>(height) * 4;
    if (bytes > 0x7FFF0000u) return nullptr;
    mem_block rb;
    auto *s = mem_new_record<surface>(&rb);
    if (!s) return nullptr;
    s->record_block = rb;
    if (bytes) {
        s->pixel_block = mem_alloc(static_cast<uint32_t>(bytes), MEM_MOVEABLE);
        s->pixels = s->pixel_block ? static_cast<uint32_t *>(mem_lock(s->pixel_block)) : nullptr;
        if (!s->pixels) {
            if (s->pixel_block) mem_free(s->pixel_block);
            mem_unlock(rb);
            mem_free(rb);
            return nullptr;
        }
        std::fill(s->pixels, s->pixels + bytes / 4, RGB_MASK);
    }
    s->width = width;
    s->height = height;
    s->mapping = PIXEL_MAPPING;
    s->num_colors = -1;
    s->logpixels_x = 96;
    s->next = surface_list;
    surface_list = s;
    surfaces_live++;
    return s;
}

void surface_destroy(surface *s) {
    if (!surface_of(s)) return;
    if (s->hooks && s->hooks->destroy) s->hooks->destroy(s);
    for (surface **p = &surface_list; *p; p = &(*p)->next) {
        if (*p == s) {
            *p = s->next;
            break;
        }
    }
    // A memory DC still holding this bitmap lets go of it.
    for (surface *o = surface_list; o; o = o->next)
        if (o->selected == s) o->selected = nullptr;
    if (s->pixel_block) {
        mem_unlock(s->pixel_block);
        mem_free(s->pixel_block);
    }
    mem_block rb = s->record_block;
    mem_unlock(rb);
    mem_free(rb);
    surfaces_live--;
}

surface *surface_of(void *dc) {
    for (surface *s = surface_list; s; s = s->next)
        if (s == dc) return s;
    return nullptr;
}

surface *surface_target(surface *s) {
    if (!s) return nullptr;
    return s->selected ? s->selected : s;
}

// ---- Mapping ------------------------------------------------------------------------

bool gfx_lp_to_dp(void *dc, gfx_point *points, int count) {
    surface *s = surface_of(dc);
    if (!s) return false;
    for (int i = 0; i < count; i++) {
        points[i].x = map_coord(s->mapping, points[i].x, false);
        points[i].y = map_coord(s->mapping, points[i].y, true);
    }
    return true;
}

int gfx_save(void *dc) {
    surface *s = surface_of(dc);
    if (!s || s->saved_count == SURFACE_SAVE_DEPTH) return 0;
    s->saved[s->saved_count++] = s->mapping;
    return s->saved_count;
}

bool gfx_restore(void *dc, int level) {
    surface *s = surface_of(dc);
    if (!s) return false;
    if (level < 0) level = s->saved_count + level + 1;
    if (level < 1 || level > s->saved_count) return false;
    s->mapping = s->saved[level - 1];
    s->saved_count = level - 1;
    return true;
}

void gfx_pixel_mapping(void *dc) {
    if (surface *s = surface_of(dc)) s->mapping = PIXEL_MAPPING;
}

void gfx_get_mapping(void *dc, gfx_mapping *mapping) {
    surface *s = surface_of(dc);
    *mapping = s ? s->mapping : PIXEL_MAPPING;
}

void gfx_set_mapping(void *dc, const gfx_mapping &mapping) {
    surface *s = surface_of(dc);
    if (!s) return;
    s->mapping = mapping;
    // Extents of 0 are refused by GDI; keep the old ones.
    if (!mapping.window_ext.x || !mapping.window_ext.y) s->mapping.window_ext = {1, 1};
    if (!mapping.viewport_ext.x || !mapping.viewport_ext.y) s->mapping.viewport_ext = {1, 1};
}

// ---- Capabilities ---------------------------------------------------------------------

int gfx_num_colors(void *dc) {
    surface *s = surface_of(dc);
    return s ? s->num_colors : -1;
}

bool gfx_is_postscript(void *dc) {
    surface *s = surface_of(dc);
    return s && strcasecmp(s->technology, "PostScript") == 0;
}

int gfx_logpixels_x(void *dc) {
    surface *s = surface_of(dc);
    return s ? s->logpixels_x : 96;
}

bool gfx_scaling_factor(void *dc, gfx_point *factor) {
    surface *s = surface_of(dc);
    if (!s || !s->has_scaling) return false;
    *factor = s->scaling;
    return true;
}

// ---- Transfers -------------------------------------------------------------------------

int gfx_stretch_dib(void *dc, int dx, int dy, int dw, int dh, int sx, int sy, int sw, int sh, const void *bits,
                    const void *header, uint32_t rop) {
    surface *s = surface_of(dc);
    surface *t = surface_target(s);
    dib_view v;
    if (!t || !t->pixels || !bits || !header || !read_dib_header(header, &v)) return 0;
    int x0, y0, w0, h0;
    device_span(s, dx, dy, dw, dh, &x0, &y0, &w0, &h0);
    if (!w0 || !h0 || !sw || !sh) return 0;
    const auto *base = static_cast<const uint8_t *>(bits);
    // A bottom-up DIB's source rectangle counts from its lower left: the
    // destination's top row takes the rectangle's top (highest) row.
    const int top_first = v.top_down ? sy : sy + sh - 1;
    // 1:1 copies of whole 32-bit rows, the band painter's case, go straight.
    if (w0 == sw && h0 == sh && sw > 0 && sh > 0 && v.bits == 32 && rop == GFX_SRCCOPY) {
        const int xa = std::max({0, x0, x0 - sx}), xb = std::min({t->width, x0 + w0, x0 - sx + v.width});
        for (int j = std::max(0, -y0); j < h0 && y0 + j < t->height && xa < xb; j++) {
            const int r = v.top_down ? top_first + j : top_first - j;
            if (r < 0 || r >= v.height) continue;
            std::memcpy(t->pixels + static_cast<size_t>(y0 + j) * t->width + xa,
                        base + static_cast<size_t>(r) * v.stride + 4 * static_cast<size_t>(xa - x0 + sx),
                        4 * static_cast<size_t>(xb - xa));
        }
        present(t, std::max(0, x0), std::max(0, y0), xb - xa, std::min(t->height, y0 + h0) - std::max(0, y0));
        return sh;
    }
    const int aw = std::abs(w0), ah = std::abs(h0);
    work_block work(4 * (static_cast<size_t>(aw) * 2 + ah));
    auto *colmap = work.as<int32_t>();
    if (!colmap) return 0;
    int32_t *rowmap = colmap + aw;
    auto *line = reinterpret_cast<uint32_t *>(rowmap + ah);
    axis_map(colmap, w0, sx, sw, v.width, false);
    // Rows: first the offset within the rectangle, then the stored row
    // (a bottom-up DIB stores its lowest row first, as sy counts).
    axis_map(rowmap, h0, 0, sh, sh, true);
    for (int j = 0; j < ah; j++) {
        if (rowmap[j] < 0) continue;
        const int r = v.top_down ? top_first + rowmap[j] : top_first - rowmap[j];
        rowmap[j] = r >= 0 && r < v.height ? r : -1;
    }
    const bool reads = rop_reads_source(rop);
    stretch_walk(t, x0, y0, w0, h0, colmap, rowmap, [&](uint32_t *dst, int32_t stored, int first, int n) {
        if (reads) {
            if (w0 < 0) {
                // Mirrored: the map runs right to left over the destination.
                for (int i = 0; i < n; i++) {
                    const int32_t c = colmap[aw - 1 - (first + i)];
                    fetch_columns(v, base + static_cast<size_t>(stored) * v.stride, &c, 1, line + i);
                }
            } else {
                fetch_columns(v, base + static_cast<size_t>(stored) * v.stride, colmap + first, n, line);
            }
        }
        rop_row(dst, reads ? line : nullptr, n, rop);
    });
    present(t, std::max(0, std::min(x0, x0 + w0)), std::max(0, std::min(y0, y0 + h0)), aw, ah);
    return sh < 0 ? -sh : sh;
}

void *gfx_create_compatible_dc(void *dc) {
    surface *n = surface_create(0, 0);
    if (!n) return nullptr;
    if (surface *s = surface_of(dc)) {
        n->num_colors = s->num_colors;
        std::memcpy(n->technology, s->technology, sizeof n->technology);
        n->logpixels_x = s->logpixels_x;
    }
    return n;
}

void gfx_delete_dc(void *dc) {
    if (surface *s = surface_of(dc); s && !s->is_bitmap) surface_destroy(s);
}

void *gfx_create_compatible_bitmap(void *, int width, int height) {
    if (width <= 0 || height <= 0) return nullptr;
    surface *b = surface_create(width, height);
    if (!b) return nullptr;
    b->is_bitmap = true;
    std::fill(b->pixels, b->pixels + static_cast<size_t>(width) * height, 0u);
    return b;
}

void *gfx_select_bitmap(void *dc, void *bitmap) {
    surface *s = surface_of(dc);
    surface *b = surface_of(bitmap);
    if (!s || s->is_bitmap || (bitmap && (!b || !b->is_bitmap))) return nullptr;
    surface *old = s->selected;
    s->selected = b;
    return old;
}

void gfx_delete_bitmap(void *bitmap) {
    if (surface *b = surface_of(bitmap); b && b->is_bitmap) surface_destroy(b);
}

void *gfx_dib_to_bitmap(void *dc, const void *header, const void *bits) {
    dib_view v;
    if (!header || !bits || !read_dib_header(header, &v)) return nullptr;
    auto *b = static_cast<surface *>(gfx_create_compatible_bitmap(dc, v.width, v.height));
    if (!b) return nullptr;
    if (!gfx_stretch_dib(b, 0, 0, v.width, v.height, 0, 0, v.width, v.height, bits, header, GFX_SRCCOPY)) {
        surface_destroy(b);
        return nullptr;
    }
    return b;
}

bool gfx_bitmap_size(void *bitmap, int *width, int *height) {
    surface *b = surface_of(bitmap);
    if (!b || !b->is_bitmap) return false;
    *width = b->width;
    *height = b->height;
    return true;
}

bool gfx_bitblt(void *dc, int x, int y, int w, int h, void *src_dc, int sx, int sy, uint32_t rop) {
    surface *s = surface_of(dc);
    surface *t = surface_target(s);
    if (!t || !t->pixels) return false;
    int x0, y0, w0, h0;
    device_span(s, x, y, w, h, &x0, &y0, &w0, &h0);
    const bool reads = rop_reads_source(rop);
    surface *ss = surface_of(src_dc);
    surface *st = surface_target(ss);
    if (reads && (!st || !st->pixels)) return false;
    if (!w0 || !h0) return true;
    int sx0 = 0, sy0 = 0, sw0 = w0, sh0 = h0;
    if (reads) device_span(ss, sx, sy, w, h, &sx0, &sy0, &sw0, &sh0);
    const int aw = std::abs(w0), ah = std::abs(h0);
    work_block work(4 * (static_cast<size_t>(aw) * 2 + ah));
    auto *colmap = work.as<int32_t>();
    if (!colmap) return false;
    int32_t *rowmap = colmap + aw;
    auto *line = reinterpret_cast<uint32_t *>(rowmap + ah);
    axis_map(colmap, w0, sx0, sw0, reads ? st->width : INT32_MAX, false);
    axis_map(rowmap, h0, sy0, sh0, reads ? st->height : INT32_MAX, true);
    // Source and destination may be one surface: copy the source row first.
    stretch_walk(t, x0, y0, w0, h0, colmap, rowmap, [&](uint32_t *dst, int32_t sr, int first, int n) {
        if (reads) {
            const uint32_t *src = st->pixels + static_cast<size_t>(sr) * st->width;
            for (int i = 0; i < n; i++) line[i] = src[colmap[w0 < 0 ? aw - 1 - (first + i) : first + i]];
        }
        rop_row(dst, reads ? line : nullptr, n, rop);
    }, reads && st == t && sy0 < y0);
    present(t, std::max(0, std::min(x0, x0 + w0)), std::max(0, std::min(y0, y0 + h0)), aw, ah);
    return true;
}

int gfx_read_bitmap(void *, void *bitmap, int first, int count, void *bits, void *header) {
    surface *b = surface_of(bitmap);
    if (!b || !b->is_bitmap || !bits || !header) return 0;
    auto *h = static_cast<uint8_t *>(header);
    uint16_t depth;
    std::memcpy(&depth, h + 14, 2);
    if (depth != 24 && depth != 32) return 0;
    if (first < 0 || count <= 0 || first >= b->height) return 0;
    count = std::min(count, b->height - first);
    const size_t stride = ((static_cast<size_t>(b->width) * depth + 31) / 32) * 4;
    auto *out = static_cast<uint8_t *>(bits);
    for (int k = 0; k < count; k++) {
        // Row first + k from the bottom.
        const uint32_t *src = b->pixels + static_cast<size_t>(b->height - 1 - (first + k)) * b->width;
        uint8_t *dst = out + static_cast<size_t>(k) * stride;
        if (depth == 32) {
            std::memcpy(dst, src, 4 * static_cast<size_t>(b->width));
        } else {
            for (int x = 0; x < b->width; x++) {
                dst[3 * x] = static_cast<uint8_t>(src[x]);
                dst[3 * x + 1] = static_cast<uint8_t>(src[x] >> 8);
                dst[3 * x + 2] = static_cast<uint8_t>(src[x] >> 16);
            }
            std::memset(dst + 3 * static_cast<size_t>(b->width), 0, stride - 3 * static_cast<size_t>(b->width));
        }
    }
    // GetDIBits fills in the size fields of the header it was given.
    const int32_t w = b->width, hh = b->height;
    std::memcpy(h + 4, &w, 4);
    std::memcpy(h + 8, &hh, 4);
    return count;
}

// ---- Windows ----------------------------------------------------------------------------

bool gfx_client_rect(void *window, gfx_rect *rect) {
    surface *s = surface_of(window);
    if (!s) return false;
    *rect = {0, 0, s->width, s->height};
    return true;
}

void gfx_set_scroll_range(void *window, int bar, int min, int max, bool) {
    surface *s = surface_of(window);
    if (!s || bar < 0 || bar > 1) return;
    // A range that runs backwards leaves an empty bar, as USER does.
    if (min > max) min = max = 0;
    s->scroll_min[bar] = min;
    s->scroll_max[bar] = max;
    s->scroll_pos[bar] = std::clamp(s->scroll_pos[bar], min, max);
}

void gfx_set_scroll_pos(void *window, int bar, int pos, bool) {
    surface *s = surface_of(window);
    if (!s || bar < 0 || bar > 1) return;
    s->scroll_pos[bar] = std::clamp(pos, s->scroll_min[bar], s->scroll_max[bar]);
}

int gfx_get_scroll_pos(void *window, int bar) {
    surface *s = surface_of(window);
    if (!s || bar < 0 || bar > 1) return 0;
    return s->scroll_pos[bar];
}

void gfx_scroll_window(void *window, int dx, int dy) {
    surface *s = surface_of(window);
    if (!s || !s->pixels || (!dx && !dy)) return;
    const int w = s->width, h = s->height;
    if (std::abs(dx) < w && std::abs(dy) < h) {
        const int cw = w - std::abs(dx);
        const int from_x = dx < 0 ? -dx : 0, to_x = dx > 0 ? dx : 0;
        // Walk rows against the direction of the move so nothing is read after it is overwritten.
        for (int k = 0; k < h - std::abs(dy); k++) {
            const int j = dy > 0 ? h - 1 - dy - k : -dy + k;
            std::memmove(s->pixels + static_cast<size_t>(j + dy) * w + to_x, s->pixels + static_cast<size_t>(j) * w + from_x,
                         4 * static_cast<size_t>(cw));
        }
    }
    if (s->hooks && s->hooks->scroll) s->hooks->scroll(s, dx, dy);
}

void gfx_invalidate(void *window) {
    surface *s = surface_of(window);
    if (s) present(s, 0, 0, s->width, s->height);
}

int gfx_live_objects() { return surfaces_live + gfx_palettes_live; }

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_dc_create_memory(int width, int height, void **dc) {
    if (!dc) return IMG_ERR_TYPE;
    *dc = nullptr;
    if (width <= 0 || height <= 0) return IMG_ERR_TYPE;
    surface *s = surface_create(width, height);
    if (!s) return IMG_ERR_MEMORY;
    *dc = s;
    return 0;
}

int IMG_API IMG_dc_delete(void *dc) {
    surface *s = surface_of(dc);
    if (!s) return IMG_ERR_HANDLE;
    surface_destroy(s);
    return 0;
}

int IMG_API IMG_dc_read_pixels(void *dc, int x, int y, int w, int h, void *out) {
    surface *t = surface_target(surface_of(dc));
    if (!t) return IMG_ERR_HANDLE;
    if (!out || x < 0 || y < 0 || w <= 0 || h <= 0 || x > t->width - w || y > t->height - h) return IMG_ERR_TYPE;
    auto *o = static_cast<uint32_t *>(out);
    for (int j = 0; j < h; j++)
        std::memcpy(o + static_cast<size_t>(j) * w, t->pixels + static_cast<size_t>(y + j) * t->width + x,
                    4 * static_cast<size_t>(w));
    return 0;
}

int IMG_API IMG_dc_set_caps(void *dc, int num_colors, const char *technology, int logpixels_x, int scale_x,
                            int scale_y) {
    surface *s = surface_of(dc);
    if (!s) return IMG_ERR_HANDLE;
    s->num_colors = num_colors;
    std::memset(s->technology, 0, sizeof s->technology);
    if (technology) std::strncpy(s->technology, technology, sizeof s->technology - 1);
    s->logpixels_x = logpixels_x;
    s->has_scaling = scale_x >= 0 && scale_y >= 0;
    s->scaling = {s->has_scaling ? scale_x : 0, s->has_scaling ? scale_y : 0};
    return 0;
}

int IMG_API IMG_dc_set_mapping(void *dc, int map_mode, int window_org_x, int window_org_y, int window_ext_x,
                               int window_ext_y, int viewport_org_x, int viewport_org_y, int viewport_ext_x,
                               int viewport_ext_y) {
    surface *s = surface_of(dc);
    if (!s) return IMG_ERR_HANDLE;
    if (map_mode != GFX_MM_TEXT && map_mode != GFX_MM_ANISOTROPIC) return IMG_ERR_TYPE;
    if (map_mode == GFX_MM_ANISOTROPIC && (!window_ext_x || !window_ext_y || !viewport_ext_x || !viewport_ext_y))
        return IMG_ERR_TYPE;
    gfx_mapping m = {map_mode,
                     {window_org_x, window_org_y},
                     {window_ext_x, window_ext_y},
                     {viewport_org_x, viewport_org_y},
                     {viewport_ext_x, viewport_ext_y}};
    if (map_mode == GFX_MM_TEXT) m.window_ext = m.viewport_ext = {1, 1};
    s->mapping = m;
    return 0;
}

int IMG_API IMG_dc_get_scroll(void *window, int bar, int *min, int *max, int *pos) {
    surface *s = surface_of(window);
    if (!s) return IMG_ERR_HANDLE;
    if (bar != GFX_SB_HORZ && bar != GFX_SB_VERT) return IMG_ERR_TYPE;
    if (min) *min = s->scroll_min[bar];
    if (max) *max = s->scroll_max[bar];
    if (pos) *pos = s->scroll_pos[bar];
    return 0;
}

}  // extern "C"
