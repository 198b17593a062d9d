// The banded drawing: the crop rectangle mapped row by row onto the device
// rectangle at device resolution, through the tone table, into band
// bitmaps of at most 61440 bytes that go to the device one to one, so that
// every system shows the same pixels.
#include "display/display.h"

#include "colour/colour.h"
#include "colour/reshape.h"
#include "platform/graphics.h"
#include "process/process.h"

#include <algorithm>
#include <cmath>

namespace brv {

namespace {

constexpr uint32_t BAND_BYTES = 61440;

// Per-channel tone tables, pre-shifted into 0x00RRGGBB, and the colour
// table through the tone (or as stored, for 1 bit).
struct pixel_tables {
    uint32_t b[256], g[256], r[256];
    uint32_t pal[256];
};

void fill_tables(pixel_tables &t, const uint8_t tone[256], const bitmap &bm, bool tone_palette) {
    for (int i = 0; i < 256; i++) {
        t.b[i] = tone[i];
        t.g[i] = static_cast<uint32_t>(tone[i]) << 8;
        t.r[i] = static_cast<uint32_t>(tone[i]) << 16;
    }
    if (bm.bits == 24) return;
    const uint8_t *q = bm.table();
    for (int i = 0; i < (1 << bm.bits); i++) {
        const uint8_t *e = q + 4 * i;
        t.pal[i] = tone_palette ? (t.r[e[2]] | t.g[e[1]] | t.b[e[0]])
                                : (static_cast<uint32_t>(e[2]) << 16 | e[1] << 8 | e[0]);
    }
}

// One destination row from a stored row: cols holds byte offsets at 24
// bits and column numbers below.  One loop per depth, chosen once.
using row_converter = void (*)(const uint8_t *src, const int32_t *cols, int n, const pixel_tables &t, uint32_t *out);

void convert24(const uint8_t *src, const int32_t *cols, int n, const pixel_tables &t, uint32_t *out) {
    for (int i = 0; i < n; i++) {
        const uint8_t *p = src + cols[i];
        out[i] = t.b[p[0]] | t.g[p[1]] | t.r[p[2]];
    }
}
void convert8(const uint8_t *src, const int32_t *cols, int n, const pixel_tables &t, uint32_t *out) {
    for (int i = 0; i < n; i++) out[i] = t.pal[src[cols[i]]];
}
void convert4(const uint8_t *src, const int32_t *cols, int n, const pixel_tables &t, uint32_t *out) {
    for (int i = 0; i < n; i++) out[i] = t.pal[get_px<4>(src, cols[i])];
}
void convert1(const uint8_t *src, const int32_t *cols, int n, const pixel_tables &t, uint32_t *out) {
    for (int i = 0; i < n; i++) out[i] = t.pal[get_px<1>(src, cols[i])];
}

row_converter converter_for(int bits) {
    switch (bits) {
    case 24: return convert24;
    case 8: return convert8;
    case 4: return convert4;
    default: return convert1;
    }
}

// The band bitmap's header and colour table (black, white at 1 bit).
struct band_header {
    dib_info info;
    uint8_t table[8];
};

void set_band_header(band_header &h, int width, int rows, int bits) {
    h = {};
    set_dib_size(h.info, width, rows, bits);
    if (bits == 1) std::fill(h.table + 4, h.table + 7, uint8_t{255});
}

}  // namespace

bool dither_for(void *dc, int bits) {
    // NUMCOLORS is -1 on a true-colour device: many colours, not few.
    const int colours = gfx_num_colors(dc);
    return colours >= 0 && colours < 4 && bits >= 4 && !gfx_is_postscript(dc);
}

void build_tone_table(const handle_record *rec, void *dc, bool dither, uint8_t tone[256]) {
    int level[256];
    if (!dither) {
        uint8_t g[256];
        build_level_table(rec->gamma, rec->brightness, rec->contrast, g);
        for (int i = 0; i < 256; i++) level[i] = g[i];
    } else {
        // The contrast ramp of the monochrome path, in the 32-bit words it
        // was defined in (the slope is masked to 24 bits, deliberately).
        const uint32_t m = (static_cast<uint32_t>(rec->contrast) * 2 + 256) & 0xFFFFFF;
        for (uint32_t i = 0; i < 256; i++) {
            const int t = static_cast<int>((m * i) >> 8) - rec->contrast + rec->brightness;
            level[i] = std::clamp(t, 0, 255);
        }
    }
    // Fine printers without their own scaling get the levels lightened.
    gfx_point factor = {0, 0};
    if (gfx_logpixels_x(dc) >= 300 && (!gfx_scaling_factor(dc, &factor) || factor.x == 0)) {
        for (int i = 0; i < 256; i++)
            level[i] = static_cast<int>(std::pow(level[i] / 255.0, 0.33333333) * 220) + 24;
    }
    for (int i = 0; i < 256; i++) tone[i] = static_cast<uint8_t>(std::min(level[i], 255));
    tone[255] = 255;
}

int paint_bands(const handle_record *rec, const uint8_t *dib, void *dc, int dx, int dy, int dw, int dh, bool dither,
                const draw_options &options) {
    const bitmap bm = bitmap_at(const_cast<uint8_t *>(dib));
    const int H = bm.height;
    const int cl = rec->crop_left, ct = rec->crop_top, cw = rec->crop_width, ch = rec->crop_height;
    if (dw <= 0 || dh <= 0 || cw <= 0 || ch <= 0) return 0;

    // Band geometry: whole destination rows in 61440 bytes less the header.
    const int band_bits = dither ? 1 : 32;
    const uint32_t band_stride = static_cast<uint32_t>((static_cast<uint64_t>(dw) * band_bits + 31) / 32 * 4);
    const uint32_t head = dither ? 48 : 40;
    const int per_band = std::max(1, static_cast<int>((BAND_BYTES - head) / band_stride));
    const int band_rows = std::min(per_band, dh);
    const uint64_t band_size = static_cast<uint64_t>(band_stride) * band_rows;

    // The band, a mask band for transparency, the column table and a
    // converted row: taken once per drawing.
    scratch_array<uint8_t> band(band_size);
    scratch_array<uint8_t> mask(options.transparent ? band_size : 1);
    scratch_array<int32_t> cols(static_cast<size_t>(dw));
    const bool need_row = dither || options.transparent;
    scratch_array<uint32_t> line(need_row ? static_cast<size_t>(dw) * 2 : 1);
    if (!band || !mask || !cols || !line) return IMG_ERR_MEMORY;

    // Columns: unsigned 16.16 steps from the crop's left edge.
    const uint32_t step = static_cast<uint32_t>((static_cast<uint64_t>(static_cast<uint32_t>(cw)) << 16) / dw);
    const int byte_scale = bm.bits == 24 ? 3 : 1;
    uint32_t pos = 0;
    for (int x = 0; x < dw; x++, pos += step)
        cols[x] = std::min(cl + static_cast<int>(pos >> 16), bm.width - 1) * byte_scale;

    uint8_t tone[256];
    build_tone_table(rec, dc, dither, tone);
    pixel_tables tables, raw;
    fill_tables(tables, tone, bm, bm.bits != 1);
    if (options.transparent) {
        uint8_t identity[256];
        for (int i = 0; i < 256; i++) identity[i] = static_cast<uint8_t>(i);
        fill_tables(raw, identity, bm, false);
    }
    const row_converter convert = converter_for(bm.bits);
    const ordered_kernel mono = dither ? ordered_mono_kernel(24) : nullptr;
    const int first_row = H - ct - ch;

    band_header bh, mh;
    for (int top = 0; top < dh; top += band_rows) {
        const int n = std::min(band_rows, dh - top);
        // Band row i (from the band's bottom) is destination row d from the
        // destination's bottom.
        int last_src = -1;
        for (int i = 0; i < n; i++) {
            const int d = dh - top - n + i;
            if (options.print) {
                if (int r = status_report(dh); r < 0) return r;
            }
            const int src = std::clamp(first_row + static_cast<int>(static_cast<int64_t>(ch) * d / dh), 0, H - 1);
            uint8_t *out = band.data + static_cast<size_t>(i) * band_stride;
            uint8_t *mout = mask.data + static_cast<size_t>(i) * band_stride;
            // Enlarged pictures repeat a source row: copy the previous result.
            if (src == last_src && !dither) {
                std::memcpy(out, out - band_stride, band_stride);
                if (options.transparent) std::memcpy(mout, mout - band_stride, band_stride);
                continue;
            }
            last_src = src;
            const uint8_t *row = bm.row(src);
            if (!dither) {
                convert(row, cols.data, dw, tables, reinterpret_cast<uint32_t *>(out));
            } else {
                // Through 24-bit pixels to the ordered monochrome kernel.
                uint32_t *px = line.data;
                auto *bgr = reinterpret_cast<uint8_t *>(line.data + dw);
                convert(row, cols.data, dw, tables, px);
                for (int x = 0; x < dw; x++) {
                    bgr[3 * x] = static_cast<uint8_t>(px[x]);
                    bgr[3 * x + 1] = static_cast<uint8_t>(px[x] >> 8);
                    bgr[3 * x + 2] = static_cast<uint8_t>(px[x] >> 16);
                }
                uint8_t t[8];
                row_thresholds(bayer_thresholds, d, t);
                std::memset(out, 0, band_stride);
                mono(bgr, nullptr, out, dw, t);
            }
            if (options.transparent) {
                // Mask: all ones where the key shows, so that an AND keeps the
                // destination there; the picture is cleared there for the OR.
                uint32_t *keyed = line.data;
                convert(row, cols.data, dw, raw, keyed);
                std::memset(mout, 0, band_stride);
                for (int x = 0; x < dw; x++) {
                    if (keyed[x] != options.key) continue;
                    if (dither) {
                        mout[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
                        out[x >> 3] &= static_cast<uint8_t>(~(0x80 >> (x & 7)));
                    } else {
                        reinterpret_cast<uint32_t *>(mout)[x] = 0xFFFFFF;
                        reinterpret_cast<uint32_t *>(out)[x] = 0;
                    }
                }
            }
        }
        set_band_header(bh, dw, n, band_bits);
        // A transfer that moves nothing failed for want of the system's memory.
        bool sent;
        if (options.transparent) {
            set_band_header(mh, dw, n, band_bits);
            sent = gfx_stretch_dib(dc, dx, dy + top, dw, n, 0, 0, dw, n, mask.data, &mh, GFX_SRCAND) &&
                   gfx_stretch_dib(dc, dx, dy + top, dw, n, 0, 0, dw, n, band.data, &bh, GFX_SRCPAINT);
        } else {
            sent = gfx_stretch_dib(dc, dx, dy + top, dw, n, 0, 0, dw, n, band.data, &bh,
                                   options.rop ? options.rop : static_cast<uint32_t>(rec->raster_op));
        }
        if (!sent) return IMG_ERR_MEMORY;
    }
    return 0;
}

}  // namespace brv
