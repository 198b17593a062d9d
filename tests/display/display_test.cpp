// Drawing on device contexts: the same calls on the Linux memory surfaces
// and, in the Windows suite under Wine, on GDI memory DCs holding a 32-bit
// DIB section, held to the same expected pixels.
#include "display/display.h"
#include "test_dc.h"

#include <cstdio>
#include <cstdlib>
#include <vector>
#ifdef _WIN32
#include <windows.h>
#endif

namespace {

#ifdef _WIN32
// The client area stays the whole window when scroll bars come and go, as
// a memory surface's does.
LRESULT CALLBACK fixed_client(HWND w, UINT m, WPARAM wp, LPARAM lp) {
    return m == WM_NCCALCSIZE ? 0 : DefWindowProcA(w, m, wp, lp);
}
void *make_window(int w, int h) {
    static const WNDCLASSA c = {0, fixed_client, 0, 0, GetModuleHandleA(nullptr), nullptr, nullptr, nullptr,
                                nullptr, "brivanta_display_test"};
    static const ATOM cls = RegisterClassA(&c);
    (void)cls;
    // Message-only: it needs no display, and keeps its client size and scroll bars.
    return CreateWindowExA(0, "brivanta_display_test", "", WS_POPUP, 0, 0, w, h, HWND_MESSAGE, nullptr,
                           GetModuleHandleA(nullptr), nullptr);
}
void free_window(void *w) { DestroyWindow(static_cast<HWND>(w)); }
int scroll_max(void *w, int bar) {
    int lo = 0, hi = 0;
    GetScrollRange(static_cast<HWND>(w), bar == GFX_SB_HORZ ? SB_HORZ : SB_VERT, &lo, &hi);
    return hi;
}
#else
void *make_window(int w, int h) { return make_dc(w, h); }
void free_window(void *w) { free_dc(w); }
int scroll_max(void *w, int bar) {
    int hi = 0;
    IMG_dc_get_scroll(w, bar, nullptr, &hi, nullptr);
    return hi;
}
#endif

// A handle of a seeded picture; gamma 150 as every load sets it.
int test_handle(int w, int h, int bits, uint32_t seed) { return handle_of(make_picture(w, h, bits, seed)); }

// Expected pixels: FNV-1a of the destination's red, green, blue bytes.
// Computed once by running the Linux suite with BRIVANTA_PRINT_CHECKSUMS=1,
// and met unchanged by the Windows suite under Wine on GDI memory DCs.
bool print_checksums() { return std::getenv("BRIVANTA_PRINT_CHECKSUMS") != nullptr; }
#define EXPECT_PIXELS(got, want, what)                                                   \
    do {                                                                                 \
        if (print_checksums()) std::printf("%s: 0x%08X\n", std::string(what).c_str(), got); \
        EXPECT_EQ(got, want) << what;                                                    \
    } while (0)

}  // namespace

// Raster operations against their formulas on the colour bits, and
// nearest-neighbour stretching of a bottom-up DIB (1:1, whole factors,
// part of the source, clipped at every edge) against the picture itself.
TEST(Graphics, RasterOperationsAndStretching) {
    const uint32_t S = 0x00F0A05A, D = 0x003C66C3, M = 0xFFFFFF;
    const struct {
        uint32_t rop, want;
    } rops[] = {
        {GFX_SRCCOPY, S},          {GFX_SRCAND, S & D},           {GFX_SRCPAINT, S | D},  {GFX_SRCINVERT, S ^ D},
        {GFX_NOTSRCCOPY, ~S & M},  {GFX_SRCERASE, S & ~D & M},    {GFX_MERGEPAINT, (~S | D) & M},
        {GFX_DSTINVERT, ~D & M},   {GFX_BLACKNESS, 0},            {GFX_WHITENESS, M},
        {GFX_NOTSRCERASE, ~(S | D) & M}, {0x00C000CA /* MERGECOPY with the white brush */, S},
    };
    const uint32_t dv[2] = {D, D};
    for (const auto &c : rops) {
        scoped_dc d(2, 1);
        gfx_stretch_dib(d.dc, 0, 0, 2, 1, 0, 0, 2, 1, dv, dib32_header(2, 1).data(), GFX_SRCCOPY);
        EXPECT_EQ(gfx_stretch_dib(d.dc, 0, 0, 1, 1, 0, 0, 1, 1, &S, dib32_header(1, 1).data(), c.rop), 1);
        EXPECT_EQ(d.pixels(), (std::vector<uint32_t>{c.want, D})) << std::hex << c.rop;
    }

    const int SW = 12, SH = 8;
    const bytes hdr = dib32_header(SW, SH);  // bottom-up
    std::vector<uint32_t> bits(SW * SH);
    for (int y = 0; y < SH; y++)
        for (int x = 0; x < SW; x++) bits[(SH - 1 - y) * SW + x] = pattern_pixel(x, y);
    const struct {
        int dx, dy, dw, dh, sx, sy, sw, sh;
    } stretches[] = {
        {0, 0, 12, 8, 0, 0, 12, 8},   {3, 2, 24, 16, 0, 0, 12, 8}, {0, 0, 36, 8, 0, 0, 12, 8},
        {1, 1, 6, 4, 0, 0, 12, 8},    {0, 0, 4, 2, 0, 0, 12, 8},   {-5, -3, 12, 8, 0, 0, 12, 8},
        {20, 10, 24, 16, 2, 1, 8, 6},
    };
    // As GDI samples (measured under Wine): enlarging a little left of each
    // centre; a whole-factor reduction keeps the last column of each group
    // and the first row.
    const auto nearest = [](int i, int d, int n, bool vertical) {
        return d >= n ? (i * n + (n - 1) / 2) / d : i * (n / d) + (vertical ? 0 : n / d - 1);
    };
    for (const auto &c : stretches) {
        scoped_dc d(30, 20);
        gfx_stretch_dib(d.dc, c.dx, c.dy, c.dw, c.dh, c.sx, c.sy, c.sw, c.sh, bits.data(), hdr.data(), GFX_SRCCOPY);
        const auto px = d.pixels();
        int wrong = 0;
        for (int y = 0; y < 20; y++)
            for (int x = 0; x < 30; x++) {
                const int i = x - c.dx, j = y - c.dy;
                const bool in = i >= 0 && i < c.dw && j >= 0 && j < c.dh;
                // The source rectangle counts from the DIB's lower left.
                const uint32_t want =
                    in ? pattern_pixel(c.sx + nearest(i, c.dw, c.sw, false), SH - c.sy - c.sh + nearest(j, c.dh, c.sh, true))
                       : 0xFFFFFF;
                wrong += px[static_cast<size_t>(y) * 30 + x] != want;
            }
        EXPECT_EQ(wrong, 0) << c.dx << "," << c.dy << " " << c.dw << "x" << c.dh << " from " << c.sw << "x" << c.sh;
    }
}

// Banded drawing at every depth, cropped, offset, through a mapping, with a
// raster operation over several bands, with tone settings, a transparent
// colour, and (Linux, where a device's capabilities can be set) dithered
// for a monochrome display and lightened for a fine printer.
TEST(Display, DrawingsMatchTheSharedChecksums) {
    const struct {
        const char *name;
        int pw, ph, bits, crop[4];
        int dc_w, dc_h, rect[4];
        uint32_t rop;
        int caps;  // 0 the plain DC, 1 monochrome display, 2 PostScript printer at 300 dpi
        uint32_t want;
    } cases[] = {
        {"24-bit shrunk", 300, 200, 24, {}, 160, 120, {0, 0, 160, 120}, 0, 0, 0x12ED9AA4},
        {"8-bit enlarged and offset", 50, 40, 8, {}, 160, 120, {5, 7, 150, 100}, 0, 0, 0xE4E1EA69},
        {"4-bit cropped", 64, 48, 4, {10, 5, 30, 20}, 160, 120, {0, 0, 160, 120}, 0, 0, 0x80A3C529},
        {"1-bit odd sizes", 97, 61, 1, {}, 160, 120, {3, 3, 131, 77}, 0, 0, 0x275E436B},
        {"24-bit xor in 3 bands", 400, 100, 24, {}, 1000, 40, {0, 0, 1000, 40}, GFX_SRCINVERT, 0, 0x8FC41D99},
        // The same device rectangle as the enlarged case: the same pixels.
        {"8-bit through a y-up mapping", 50, 40, 8, {}, 160, 120, {0, 1000, 1000, -1000}, 0, 0, 0xE4E1EA69},
        {"24-bit dithered for a monochrome display", 300, 200, 24, {}, 160, 120, {0, 0, 160, 120}, 0, 1, 0x2892F492},
        {"8-bit on a PostScript printer", 50, 40, 8, {}, 160, 120, {0, 0, 160, 120}, 0, 2, 0xFE496DC1},
    };
    for (const auto &c : cases) {
#ifdef _WIN32
        if (c.caps) continue;  // a GDI memory DC reports the screen's capabilities
#endif
        const int h = test_handle(c.pw, c.ph, c.bits, 7 + c.bits);
        ASSERT_GE(h, 0);
        if (c.crop[2]) IMG_set_croprect(h, c.crop[0], c.crop[1], c.crop[2], c.crop[3]);
        if (c.rop) IMGLOW_set_rop(h, static_cast<int>(c.rop));
        scoped_dc d(c.dc_w, c.dc_h);
#ifndef _WIN32
        if (c.caps == 1) IMG_dc_set_caps(d.dc, 2, "", 96, -1, -1);
        if (c.caps == 2) IMG_dc_set_caps(d.dc, 2, "PostScript", 300, -1, -1);
#endif
        if (c.rect[3] < 0) gfx_set_mapping(d.dc, {GFX_MM_ANISOTROPIC, {0, 0}, {1000, 1000}, {5, 107}, {150, -100}});
        EXPECT_EQ(IMG_display_bitmap(h, d.dc, c.rect[0], c.rect[1], c.rect[2], c.rect[3]), 0) << c.name;
        gfx_mapping after;
        gfx_get_mapping(d.dc, &after);
        EXPECT_EQ(after.mode, c.rect[3] < 0 ? GFX_MM_ANISOTROPIC : GFX_MM_TEXT) << "the mapping comes back";
        EXPECT_PIXELS(fnv(d.pixels()), c.want, c.name);
        IMG_delete_bitmap(h);
    }
}

// Zoom: the crop, the scroll ranges and positions, from the window's client size.
TEST(Display, ZoomSetsCropAndScrollBars) {
    const struct {
        int pw, ph, win_w, win_h, how, arg[4];  // how: 0 percent, 1 rectangle, 2 one to one
        int crop[4], hrange, vrange;
    } cases[] = {
        {1000, 800, 400, 300, 0, {200}, {250, 212, 500, 375}, 500, 425},
        {1000, 800, 400, 300, 0, {100}, {0, 0, 1000, 800}, 0, 0},
        {1000, 800, 400, 300, 0, {50}, {0, 0, 1000, 800}, 0, 0},
        // A crop higher than the picture: negative vertical range, crop cut to the picture.
        {1000, 200, 400, 300, 0, {200}, {250, 0, 500, 200}, 500, -175},
        {1000, 800, 400, 300, 1, {100, 100, 200, 100}, {100, 75, 200, 150}, 800, 650},
        {1000, 800, 400, 300, 2, {}, {300, 250, 400, 300}, 600, 500},
    };
    for (const auto &c : cases) {
        const int h = test_handle(c.pw, c.ph, 8, 3);
        void *win = make_window(c.win_w, c.win_h);
        ASSERT_NE(win, nullptr);
        EXPECT_EQ(c.how == 0   ? IMG_zoom_bitmap(h, win, c.arg[0])
                  : c.how == 1 ? IMG_zoom_bitmap_rect(h, win, c.arg[0], c.arg[1], c.arg[2], c.arg[3])
                               : IMG_zoom_bitmap_1_to_1(h, win),
                  0);
        int crop[4];
        IMG_get_croprect(h, &crop[0], &crop[1], &crop[2], &crop[3]);
        EXPECT_EQ(std::vector<int>(crop, crop + 4), std::vector<int>(c.crop, c.crop + 4)) << c.how << " " << c.arg[0];
        // A negative range leaves an empty bar; positions are set only where a range is not 0.
        EXPECT_EQ(scroll_max(win, GFX_SB_HORZ), std::max(c.hrange, 0));
        EXPECT_EQ(scroll_max(win, GFX_SB_VERT), std::max(c.vrange, 0));
        EXPECT_EQ(gfx_get_scroll_pos(win, GFX_SB_HORZ), c.hrange > 0 ? c.crop[0] : 0);
        EXPECT_EQ(gfx_get_scroll_pos(win, GFX_SB_VERT), c.vrange > 0 ? c.crop[1] : 0);
        free_window(win);
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_zoom_bitmap(99, nullptr, 200), IMG_ERR_HANDLE);
}

// Scroll messages in sequence: steps of a range, the carried remainder,
// the dropped position change, thumb tracking and thumb position.
TEST(Display, ScrollStepsAndRemainders) {
    const unsigned LINEUP = 0, LINEDOWN = 1, PAGEDOWN = 3, THUMBPOSITION = 4, THUMBTRACK = 5;
    const int H = 276, V = 277;
    struct step {
        unsigned wparam;
        int message, result, crop_pos, scroll_pos;
    };
    const struct {
        const char *name;
        int pw, ph, crop_w, crop_h, win_w, win_h;
        std::vector<step> steps;
    } cases[] = {
        // Range 10: line step 10 >> 2 = 2; page step 2.
        {"range 10", 110, 50, 100, 50, 100, 50, {{LINEDOWN, H, 2, 2, 2}, {PAGEDOWN, H, 2, 4, 4}}},
        // Range 3: line step 3.
        {"range 3", 103, 50, 100, 50, 100, 50, {{LINEDOWN, H, 2, 3, 3}, {LINEDOWN, H, 0, 3, 3}}},
        // Crop twice the window, one picture pixel a step: the remainder
        // carries half a pixel; moving on, it cancels to no change at all
        // and the position change is dropped.
        {"half pixels right", 204, 50, 200, 50, 100, 50,
         {{LINEDOWN, H, 2, 1, 1}, {LINEDOWN, H, 0, 1, 1}, {LINEDOWN, H, 0, 1, 1}}},
        {"half pixels left", 204, 50, 200, 50, 100, 50,
         {{THUMBTRACK | 4 << 16, H, 2, 4, 4}, {LINEUP, H, 0, 3, 3}, {LINEUP, H, 1, 2, 2}}},
        {"thumb", 50, 700, 50, 100, 50, 100,
         {{THUMBPOSITION | 300 << 16, V, 0, 0, 0}, {THUMBTRACK | 300 << 16, V, 4, 300, 300},
          {THUMBTRACK | 900 << 16, V, 4, 600, 600}, {LINEUP, V, 3, 563, 563}}},
    };
    for (const auto &c : cases) {
        const int h = test_handle(c.pw, c.ph, 8, 5);
        void *win = make_window(c.win_w, c.win_h);
        IMG_zoom_bitmap(h, win, 100);
        gfx_set_scroll_range(win, GFX_SB_HORZ, 0, c.pw - c.crop_w, false);
        gfx_set_scroll_range(win, GFX_SB_VERT, 0, c.ph - c.crop_h, false);
        IMG_set_croprect(h, 0, 0, c.crop_w, c.crop_h);
        for (size_t i = 0; i < c.steps.size(); i++) {
            const step &s = c.steps[i];
            EXPECT_EQ(IMG_scroll_bitmap(h, win, s.wparam, 0, s.message), s.result) << c.name << " step " << i;
            int crop[4];
            IMG_get_croprect(h, &crop[0], &crop[1], &crop[2], &crop[3]);
            EXPECT_EQ(crop[s.message == H ? 0 : 1], s.crop_pos) << c.name << " step " << i;
            EXPECT_EQ(gfx_get_scroll_pos(win, s.message == H ? GFX_SB_HORZ : GFX_SB_VERT), s.scroll_pos)
                << c.name << " step " << i;
        }
        free_window(win);
        IMG_delete_bitmap(h);
    }
}

// A zoomed view scrolled about: the caller moves the shown pixels by each
// step's delta, as the window would, the repaint fills the strip, and the
// result is the view a full drawing of the final crop gives, up to the
// repaint's rounding.  Crop 266 x 199 in 200 x 150: the first step moves
// 8 picture pixels, (-8 * 200 * 256) / 266 = -1539 in 1/256 pixel: 7
// pixels left with a remainder of 253, which the next step carries.
TEST(Display, ScrollAndRepaintFollowTheView) {
    const int W = 200, H = 150;
    const struct {
        unsigned wparam;
        int message, result, delta;
    } steps[] = {{1, 276, 2, -7}, {1, 276, 2, -6}, {3, 277, 4, -19}, {0, 276, 1, 6}, {5 | 40 << 16, 277, 3, 26},
                 {2, 277, 3, 19}};
    // Smooth ramps: a pixel or two of rounding shows as a small difference.
    picture ramp{400, 300, 24, {}, {}};
    for (int y = 0; y < 300; y++) {
        bytes row(1200);
        for (int x = 0; x < 400; x++) {
            row[3 * x] = static_cast<uint8_t>(x * 255 / 399);
            row[3 * x + 1] = static_cast<uint8_t>(y * 255 / 299);
            row[3 * x + 2] = static_cast<uint8_t>((x + y) * 255 / 698);
        }
        ramp.rows.push_back(row);
    }
    const int h = handle_of(ramp);
    void *win = make_window(W, H);
    scoped_dc view(W, H), full(W, H);
    IMG_zoom_bitmap(h, win, 150);
    IMG_display_bitmap(h, view.dc, 0, 0, W, H);
    for (const auto &s : steps) {
        const int r = IMG_scroll_bitmap(h, win, s.wparam, 0, s.message);
        EXPECT_EQ(r, s.result) << s.wparam;
        if (r <= 0) continue;
        const bool across = r <= 2;
        IMG_paint ps = {view.dc, 0, 0, 0, W, H};
        gfx_bitblt(view.dc, across ? s.delta : 0, across ? 0 : s.delta, W, H, view.dc, 0, 0, GFX_SRCCOPY);
        int &edge = across ? (s.delta > 0 ? ps.right : ps.left) : (s.delta > 0 ? ps.bottom : ps.top);
        edge = s.delta > 0 ? s.delta : (across ? W : H) + s.delta;
        EXPECT_EQ(IMG_repaint_scroll(h, view.dc, win, r, &ps), 0);
    }
    IMG_display_bitmap(h, full.dc, 0, 0, W, H);
    const auto a = view.pixels(), b = full.pixels();
    int differ = 0;
    for (size_t i = 0; i < a.size(); i++)
        for (int k = 0; k < 24; k += 8) differ += std::abs(int(a[i] >> k & 255) - int(b[i] >> k & 255)) > 6;
    EXPECT_LT(differ, W * H / 100) << "pixels unlike a full drawing";
    EXPECT_PIXELS(fnv(a), 0xA5E9797Du, "scrolled and repainted view");
    free_window(win);
    IMG_delete_bitmap(h);
}

// Device-dependent copies: drawn one to one they hold the picture exactly,
// read back into a handle and drawn at an offset; a transparent colour
// leaves the destination where the picture has it.  (Printing's progress
// calls are in print_test.cpp.)
TEST(Display, DeviceCopiesAndTransparency) {
    const picture pic = make_picture(37, 23, 24, 21);
    const int h = handle_of(pic);
    IMG_set_gamma(h, 100);  // identity tones
    scoped_dc d(60, 40);
    void *ddb = nullptr;
    ASSERT_EQ(IMG_dib_to_ddb(h, d.dc, 37, 23, &ddb), 0);
    const int copy = IMG_create_handle_ddb(ddb, d.dc);
    ASSERT_GE(copy, 0);
    EXPECT_EQ(picture_of(copy), pic);
    ASSERT_EQ(IMG_display_ddb(ddb, d.dc, 5, 4), 0);
    const bytes look = appearance(pic);
    const auto px = d.pixels();
    int wrong = 0;
    for (int y = 0; y < 23; y++)
        for (int x = 0; x < 37; x++) {
            const uint8_t *c = &look[3 * (static_cast<size_t>(y) * 37 + x)];
            wrong += px[(y + 4) * 60 + x + 5] != (static_cast<uint32_t>(c[0]) << 16 | c[1] << 8 | c[2]);
        }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(IMG_delete_ddb(ddb), 0);
    IMG_delete_bitmap(copy);

    // 4 bits: one sixteenth of the pixels carry the key colour.
    const picture four = make_picture(40, 30, 4, 9);
    const int k = handle_of(four);
    IMG_set_gamma(k, 100);
    const uint8_t *e = &four.palette[4 * 5];
    const unsigned key = e[2] | e[1] << 8 | e[0] << 16;  // RGB(r, g, b)
    scoped_dc plain(80, 60), keyed(80, 60);
    for (void *dc : {plain.dc, keyed.dc}) IMG_display_bitmap(h, dc, 0, 0, 80, 60);
    const auto under = keyed.pixels();
    IMG_display_bitmap(k, plain.dc, 0, 0, 80, 60);
    EXPECT_EQ(IMG_display_bitmap_transp(k, keyed.dc, 0, 0, 80, 60, key), 0);
    const auto over = plain.pixels(), kept = keyed.pixels();
    const uint32_t key_rgb = (key & 0xFF) << 16 | (key & 0xFF00) | key >> 16;
    int shown = 0, mismatched = 0;
    for (size_t i = 0; i < over.size(); i++) {
        shown += over[i] == key_rgb;
        mismatched += kept[i] != (over[i] == key_rgb ? under[i] : over[i]);
    }
    EXPECT_GT(shown, 100);
    EXPECT_EQ(mismatched, 0);

    EXPECT_EQ(IMG_display_bitmap(-1, plain.dc, 0, 0, 8, 8), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_dib_to_ddb(h, plain.dc, 0, 5, &ddb), IMG_ERR_TYPE);

    // Straight from a file: as the loaded handle draws, and no handle kept.
    const std::string file = temp_path("display.bmp");
    const int saved = test_handle(40, 30, 8, 2);
    ASSERT_EQ(IMG_save_bitmap(saved, file.c_str(), IMG_TYPE_BMP), 0);
    IMG_display_bitmap(saved, plain.dc, 0, 0, 80, 60);
    EXPECT_EQ(IMG_decompress_bitmap_display(file.c_str(), 0, keyed.dc, 0, 0, 80, 60), 0);
    EXPECT_EQ(keyed.pixels(), plain.pixels());
    EXPECT_EQ(IMG_delete_bitmap(saved + 1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_decompress_bitmap_display("no such file", 0, keyed.dc, 0, 0, 8, 8), IMG_ERR_OPEN);
    std::remove(file.c_str());
    IMG_delete_bitmap(saved);
    IMG_delete_bitmap(k);
    IMG_delete_bitmap(h);
}

// Every allocation failing in turn: each drawing and copy either completes
// with the full result or fails with IMG_ERR_MEMORY, leaving no block, DC,
// bitmap or palette behind (a palette device makes a palette per drawing).
TEST(Display, AllocationFailuresLeaveNothingBehind) {
    const int h = test_handle(90, 70, 8, 4);
    for (int colours : {-1, 256, 2}) {
#ifdef _WIN32
        if (colours != -1) continue;
#endif
        scoped_dc d(120, 80);
#ifndef _WIN32
        IMG_dc_set_caps(d.dc, colours, "", 96, -1, -1);
#endif
        IMG_display_bitmap(h, d.dc, 0, 0, 120, 80);
        const auto want = d.pixels();
        void *ddb = nullptr;
        ASSERT_EQ(IMG_dib_to_ddb(h, d.dc, 50, 40, &ddb), 0);
        const int first = IMG_create_handle_ddb(ddb, d.dc);
        const picture want_copy = picture_of(first);
        IMG_delete_bitmap(first);
        IMG_delete_ddb(ddb);
        bool drawn = false, copied = false;
        for (int k = 1; k < 40 && !(drawn && copied); k++) {
            const int blocks = mem_live_blocks(), objects = gfx_live_objects();
            gfx_bitblt(d.dc, 0, 0, 120, 80, nullptr, 0, 0, GFX_WHITENESS);
            mem_fail_after(k);
            const int r = IMG_display_bitmap(h, d.dc, 0, 0, 120, 80);
            mem_fail_after(0);
            EXPECT_TRUE(r == 0 || r == IMG_ERR_MEMORY) << k << ": " << r;
            if (r == 0) {
                drawn = true;
                EXPECT_EQ(d.pixels(), want) << k;
            }
            mem_fail_after(k);
            const int c = IMG_dib_to_ddb(h, d.dc, 50, 40, &ddb);
            const int copy = c == 0 ? IMG_create_handle_ddb(ddb, d.dc) : c;
            mem_fail_after(0);
            if (c == 0) IMG_delete_ddb(ddb);
            EXPECT_TRUE(copy >= 0 || copy == IMG_ERR_MEMORY) << k << ": " << copy;
            if (copy >= 0) {
                copied = true;
                EXPECT_EQ(picture_of(copy), want_copy) << k;
                IMG_delete_bitmap(copy);
            }
            EXPECT_EQ(mem_live_blocks(), blocks) << k;
            EXPECT_EQ(gfx_live_objects(), objects) << k;
        }
        EXPECT_TRUE(drawn && copied) << colours;
    }
    IMG_delete_bitmap(h);
}
