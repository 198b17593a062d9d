// Transition effects: a device-dependent bitmap revealed piece by piece.
// The pace comes from copying each piece many times over, the count
// calibrated against the device (or fixed by the wipe delay), never from
// sleeping, so a slow device is not slowed further.
#include "display/effects.h"

#include "frame/frame.h"
#include "platform/graphics.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstdint>

namespace brv {

int effect_copies = 0;

namespace {

constexpr int STRIP = 8;

// The state of one effect call.
struct effect_state {
    void *dst, *mem;
    int left, top, w, h;
    int repeat;     // copies per unit of weight
    int weight;     // copies per piece = repeat x weight
    int interval;   // status callback every this many copies
    bool stopped;
    bool failed;
};

// Copies one piece (clipped to the picture) repeat x weight times, asking
// the status callback at every interval-th copy.  False ends the effect.
bool piece(effect_state &e, int x, int y, int pw, int ph) {
    if (x < 0) pw += x, x = 0;
    if (y < 0) ph += y, y = 0;
    pw = std::min(pw, e.w - x);
    ph = std::min(ph, e.h - y);
    if (pw <= 0 || ph <= 0) return true;
    // Far off the device in logical units: nothing of it can show.
    const int64_t dx = static_cast<int64_t>(e.left) + x, dy = static_cast<int64_t>(e.top) + y;
    if (dx > INT32_MAX - pw || dy > INT32_MAX - ph) return true;
    const int64_t copies = static_cast<int64_t>(e.repeat) * e.weight;
    for (int64_t n = 0; n < copies; n++) {
        if (!gfx_bitblt(e.dst, static_cast<int>(dx), static_cast<int>(dy), pw, ph, e.mem, x, y, GFX_SRCCOPY)) {
            e.failed = true;
            return false;
        }
        effect_copies++;
        if (n % e.interval == 0 && status_report(e.h) < 0) {
            // The piece is on the device already; the rest of its copies only pace.
            e.stopped = true;
            return false;
        }
    }
    return true;
}

// The copies per weight unit: 5500 / (10 t) for t milliseconds of 100
// copies of an eighth of the picture each way, 12 when that is too fast
// to measure or the quotient comes out 0.  -1 when memory fails.
int calibrate(void *dst, void *mem, int w, int h) {
    const int cw = w / 8, ch = h / 8;
    // An eighth of a very small picture is nothing to time.
    if (cw <= 0 || ch <= 0) return 12;
    void *probe_dc = gfx_create_compatible_dc(dst);
    void *probe = probe_dc ? gfx_create_compatible_bitmap(dst, cw, ch) : nullptr;
    if (!probe) {
        if (probe_dc) gfx_delete_dc(probe_dc);
        return IMG_ERR_MEMORY;
    }
    void *old = gfx_select_bitmap(probe_dc, probe);
    const uint32_t start = os_tick_count();
    bool ok = true;
    for (int i = 0; i < 100 && ok; i++) ok = gfx_bitblt(probe_dc, 0, 0, cw, ch, mem, 0, 0, GFX_SRCCOPY);
    const uint32_t t = os_tick_count() - start;
    gfx_select_bitmap(probe_dc, old);
    gfx_delete_bitmap(probe);
    gfx_delete_dc(probe_dc);
    if (!ok) return IMG_ERR_MEMORY;
    if (t == 0) return 12;
    const uint32_t n = 5500 / (t * 10);
    return n < 1 ? 12 : static_cast<int>(n);
}

// A box of bw x bh centred on the picture, drawn as the ring it adds to
// the previous box (px0, py0)-(px1, py1), which it updates.
bool ring(effect_state &e, int bw, int bh, int &px0, int &py0, int &px1, int &py1) {
    const int x0 = (e.w - bw) / 2, y0 = (e.h - bh) / 2, x1 = x0 + bw, y1 = y0 + bh;
    bool ok;
    if (px1 <= px0 || py1 <= py0) {
        ok = piece(e, x0, y0, bw, bh);
    } else {
        ok = piece(e, x0, y0, bw, py0 - y0) && piece(e, x0, py1, bw, y1 - py1) &&
             piece(e, x0, py0, px0 - x0, py1 - py0) && piece(e, px1, py0, x1 - px1, py1 - py0);
    }
    px0 = x0, py0 = y0, px1 = x1, py1 = y1;
    return ok;
}

// A box growing from the centre by step_x across and step_y down until it
// covers the picture.
void grow_box(effect_state &e, int step_x, int step_y) {
    int px0 = 0, py0 = 0, px1 = 0, py1 = 0;
    for (int k = 1;; k++) {
        const int bw = static_cast<int>(std::min<int64_t>(e.w, static_cast<int64_t>(k) * step_x));
        const int bh = static_cast<int>(std::min<int64_t>(e.h, static_cast<int64_t>(k) * step_y));
        if (!ring(e, bw, bh, px0, py0, px1, py1) || (bw == e.w && bh == e.h)) return;
    }
}

void run(effect_state &e, int code) {
    const int w = e.w, h = e.h;
    switch (code) {
    case 1:
        for (int y = 0; y < h && piece(e, 0, y, w, 1); y++) {}
        break;
    case 2:
        // Row 0 is never drawn: the wipe stops one short, deliberately.
        for (int y = h - 1; y >= 1 && piece(e, 0, y, w, 1); y--) {}
        break;
    case 3:
        // Columns left of the last whole strip are never drawn, deliberately.
        for (int x = w - STRIP; x >= 0 && piece(e, x, 0, STRIP, h); x -= STRIP) {}
        break;
    case 4:
        for (int x = 0; x < w && piece(e, x, 0, STRIP, h); x += STRIP) {}
        break;
    case 5: {
        const int q = (h + 3) / 4;
        for (int i = 0; i < q; i++)
            for (int b = 0; b < 4; b++)
                if (!piece(e, 0, b * q + i, w, 1)) return;
        break;
    }
    case 6: {
        // Cells an eighth wide every quarter across; odd cell rows start one
        // cell in.  Positions run on to the right edge so no column is missed.
        const int cw = (w + 7) / 8, ch = (h + 7) / 8, step = std::max(1, w / 4);
        for (int pass = 0; pass < 2; pass++)
            for (int r = 0; r * ch < h; r++)
                for (int x = ((r + pass) & 1) ? cw : 0; x < w; x += step)
                    if (!piece(e, x, r * ch, cw, ch)) return;
        break;
    }
    case 7:
        grow_box(e, std::max(1, w / 8), (h + 7) / 8);
        break;
    case 8: {
        int centre[4];
        for (int j = 0; j < 4; j++) centre[j] = static_cast<int>((2 * j + 1) * static_cast<int64_t>(w) / 8);
        for (int i = 0; i < w / 8; i++) {
            for (int j = 0; j < 4; j++)
                if (!piece(e, centre[j] + i, 0, 1, h)) return;
            for (int j = 0; j < 4; j++)
                if (!piece(e, centre[j] - (i + 1), 0, 1, h)) return;
        }
        break;
    }
    case 9: {
        // Eight pixels across a step; down in proportion, rounded up, so
        // width and height fill together.
        const int step_y = static_cast<int>((static_cast<int64_t>(STRIP) * h + w - 1) / w);
        grow_box(e, STRIP, std::max(1, step_y));
        break;
    }
    case 10: {
        // Curtains: strips opening from the middle outward, both sides at once.
        const int c = w / 2;
        for (int i = 0; c + STRIP * i < w || c - STRIP * i > 0; i++)
            if (!piece(e, c + STRIP * i, 0, STRIP, h) || !piece(e, c - STRIP * (i + 1), 0, STRIP, h)) return;
        break;
    }
    default:
        break;
    }
}

}  // namespace

int display_ddb_effect(void *ddb, void *dc, int left, int top, int code) {
    void *mem = gfx_create_compatible_dc(dc);
    if (!mem) return IMG_ERR_MEMORY;
    int w = 0, h = 0;
    if (!gfx_bitmap_size(ddb, &w, &h)) {
        gfx_delete_dc(mem);
        return IMG_ERR_EPS_PREVIEW;  // -8: the bitmap's size cannot be read
    }
    if (code < 1 || code > 10 || w <= 0 || h <= 0) {
        gfx_delete_dc(mem);
        return 0;
    }
    void *old = gfx_select_bitmap(mem, ddb);
    // A negative delay would draw nothing at all: it calibrates as 0 does.
    const int repeat = settings.wipedelay > 0 ? settings.wipedelay : calibrate(dc, mem, w, h);
    effect_state e = {dc, mem, left, top, w, h, repeat, 2, 40, false, false};
    static constexpr int weights[11] = {0, 2, 2, 2, 2, 2, 3, 4, 1, 1, 2};
    static constexpr int intervals[11] = {0, 40, 40, 40, 40, 40, 10, 10, 80, 140, 10};
    e.weight = weights[code];
    e.interval = intervals[code];
    if (repeat > 0) run(e, code);
    gfx_select_bitmap(mem, old);
    gfx_delete_dc(mem);
    if (repeat < 0 || e.failed) return IMG_ERR_MEMORY;
    return e.stopped ? IMG_ERR_STOPPED : 0;
}

}  // namespace brv

using namespace brv;

extern "C" int IMG_API IMG_display_ddb_effect(void *ddb, void *dc, int left, int top, int effect) {
    return display_ddb_effect(ddb, dc, left, top, effect);
}
