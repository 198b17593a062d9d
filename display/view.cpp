// Zoomed and scrolled views: the crop rectangle chosen from a zoom and the
// window's client size, moved by scroll messages with the window's pixels
// scrolled by the matching screen distance, and the uncovered strip redrawn.
#include "display/display.h"

#include "platform/graphics.h"

#include <algorithm>
#include <cstring>

namespace brv {

namespace {

constexpr int WM_HSCROLL = 276;

// The horizontal and vertical scroll remainders, in 1/256 pixel.
int32_t &remainder(handle_record *rec, bool horizontal) { return rec->display_b[horizontal ? 0 : 1]; }

bool client_size(void *window, int *cw, int *ch) {
    gfx_rect r;
    if (!gfx_client_rect(window, &r)) return false;
    *cw = r.right - r.left;
    *ch = r.bottom - r.top;
    return *cw > 0 && *ch > 0;
}

// A zoom's last steps from the new crop (l, t, w, h), already kept off
// negative positions: scroll ranges from the uncut size (a crop higher than
// the picture gives a negative range, deliberately), then the cut, the
// scroll bars and the crop rectangle.
void apply_view(int handle, handle_record *rec, void *window, int l, int t, int w, int h) {
    const int W = rec->width, H = rec->height;
    const int hrange = W - w, vrange = H - h;
    remainder(rec, true) = remainder(rec, false) = 0;
    w = std::min(w, W);
    h = std::min(h, H);
    if (l + w > W) l = W - w;
    if (t + h > H) t = H - h;
    gfx_set_scroll_range(window, GFX_SB_HORZ, 0, hrange, false);
    gfx_set_scroll_range(window, GFX_SB_VERT, 0, vrange, false);
    if (hrange) gfx_set_scroll_pos(window, GFX_SB_HORZ, l, true);
    if (vrange) gfx_set_scroll_pos(window, GFX_SB_VERT, t, true);
    IMG_set_croprect(handle, l, t, w, h);
}

// The crop of size (w, h) about the current crop's centre.
void recentre(const handle_record *rec, int w, int h, int *l, int *t) {
    *l = std::max(0, rec->crop_left + (rec->crop_width - w) / 2);
    *t = std::max(0, rec->crop_top + (rec->crop_height - h) / 2);
}

// a * b * 256 / c + r in the signed 32-bit words of the scroll arithmetic,
// wrapping as they do.
int32_t scroll_delta(int32_t a, int32_t b, int32_t c, int32_t r) {
    const auto product = static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b) * 256u);
    return static_cast<int32_t>(static_cast<uint32_t>(product / c) + static_cast<uint32_t>(r));
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_zoom_bitmap(int handle, void *window, int percent) {
    handle_record *rec = handle_get(handle);
    if (!rec) return IMG_ERR_HANDLE;
    int cw, ch;
    if (!client_size(window, &cw, &ch)) return 0;
    int w = rec->width, h = rec->height;
    if (percent >= 101) {
        w = static_cast<int>(rec->width / (percent / 100.0));
        h = static_cast<int>(static_cast<int64_t>(ch) * w / cw);
    }
    int l, t;
    recentre(rec, w, h, &l, &t);
    apply_view(handle, rec, window, l, t, w, h);
    return 0;
}

int IMG_API IMG_zoom_bitmap_rect(int handle, void *window, int left, int top, int width, int height) {
    handle_record *rec = handle_get(handle);
    if (!rec) return IMG_ERR_HANDLE;
    int cw, ch;
    if (!client_size(window, &cw, &ch) || width < 1 || height < 1) return 0;
    // Grow the rectangle along one side to the window's shape, about its centre.
    int w = width, h = height;
    if (static_cast<int64_t>(width) * ch >= static_cast<int64_t>(height) * cw)
        h = static_cast<int>(static_cast<int64_t>(ch) * width / cw);
    else
        w = static_cast<int>(static_cast<int64_t>(cw) * height / ch);
    const int l = std::max(0, left + (width - w) / 2), t = std::max(0, top + (height - h) / 2);
    apply_view(handle, rec, window, l, t, w, h);
    return 0;
}

int IMG_API IMG_zoom_bitmap_1_to_1(int handle, void *window) {
    handle_record *rec = handle_get(handle);
    if (!rec) return IMG_ERR_HANDLE;
    int cw, ch;
    if (!client_size(window, &cw, &ch)) return 0;
    int l, t;
    recentre(rec, cw, ch, &l, &t);
    apply_view(handle, rec, window, l, t, cw, ch);
    return 0;
}

int IMG_API IMG_scroll_bitmap(int handle, void *window, unsigned int wparam, int lparam, int message) {
    (void)lparam;  // the scroll bar control of a message: the window's own bars are meant
    handle_record *rec = handle_get(handle);
    if (!rec) return IMG_ERR_HANDLE;
    const bool horizontal = message == WM_HSCROLL;
    const int bar = horizontal ? GFX_SB_HORZ : GFX_SB_VERT;
    const int crop_pos = horizontal ? rec->crop_left : rec->crop_top;
    const int crop_size = horizontal ? rec->crop_width : rec->crop_height;
    int cw, ch;
    if (crop_size <= 0 || !client_size(window, &cw, &ch)) return 0;
    const int range = (horizontal ? rec->width : rec->height) - crop_size;
    int p = gfx_get_scroll_pos(window, bar);
    int line = range >> 4;
    if (!line) line = range >> 2;
    if (!line) line = range;
    int page = range >> 2;
    if (!page) page = range;
    switch (wparam & 0xFFFF) {
    case 0: p -= line; break;
    case 1: p += line; break;
    case 2: p -= page; break;
    case 3: p += page; break;
    case 5: p = static_cast<int>(wparam >> 16 & 0xFFFF); break;
    default: break;
    }
    p = std::max(0, std::min(p, range));

    const int32_t d = scroll_delta(crop_pos - p, horizontal ? cw : ch, crop_size, remainder(rec, horizontal));
    if (d == 0) return 0;  // the position change is dropped with it, deliberately
    (horizontal ? rec->crop_left : rec->crop_top) = p;
    remainder(rec, horizontal) = d & 255;
    const int32_t delta = d >> 8;
    gfx_set_scroll_pos(window, bar, p, true);
    if (delta == 0) return 0;
    gfx_scroll_window(window, horizontal ? delta : 0, horizontal ? 0 : delta);
    if (horizontal) return delta > 0 ? 1 : 2;
    return delta > 0 ? 3 : 4;
}

int IMG_API IMG_repaint_scroll(int handle, void *dc, void *window, int direction, const void *paint) {
    handle_record *rec = handle_get(handle);
    if (!rec) return IMG_ERR_HANDLE;
    if (!paint) return IMG_ERR_TYPE;
    IMG_paint ps;
    std::memcpy(&ps, paint, sizeof ps);
    int cw, ch;
    if (!client_size(window, &cw, &ch)) return 0;
    int uw = ps.right - ps.left, uh = ps.bottom - ps.top;
    // A margin against the rounding of the scrolled distance.
    if (direction == 1 || direction == 2) uw += 5;
    if (direction == 3 || direction == 4) uh += 5;
    const int32_t crop[4] = {rec->crop_left, rec->crop_top, rec->crop_width, rec->crop_height};
    const auto scale = [](int v, int num, int den) { return static_cast<int>(static_cast<int64_t>(v) * num / den); };
    IMG_set_croprect(handle, crop[0] + scale(ps.left, crop[2], cw), crop[1] + scale(ps.top, crop[3], ch),
                     scale(uw, crop[2], cw), scale(uh, crop[3], ch));
    void *ddb = nullptr;
    int r = IMG_dib_to_ddb(handle, dc, uw, uh, &ddb);
    if (r == 0) {
        r = IMG_display_ddb(ddb, dc, ps.left, ps.top);
        IMG_delete_ddb(ddb);
    }
    rec->crop_left = crop[0];
    rec->crop_top = crop[1];
    rec->crop_width = crop[2];
    rec->crop_height = crop[3];
    return r < 0 ? r : 0;
}

}  // extern "C"
