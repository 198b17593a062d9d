// Transition effects on a Linux memory surface and, in the Windows suite, on
// a GDI memory DC: the same pixels, held to one table.
#include "display/effects.h"
#include "test_dc.h"

namespace {

constexpr int LEFT = 6, TOP = 5, DW = 50, DH = 32;

struct status_probe {
    int calls = 0, stop_at = 0, rows = 0;
};
int IMG_CALLBACK count_calls(void *value, int rows) {
    auto *p = static_cast<status_probe *>(value);
    p->rows = rows;
    return ++p->calls == p->stop_at ? -1 : 0;
}

struct effect_run {
    int result = 0, copies = 0;
    status_probe probe;
    std::vector<uint32_t> pixels;
};

// One effect of a w x h pattern picture onto a white DW x DH device at
// (LEFT, TOP); stop_at > 0 stops it at that callback.
effect_run run_effect(int code, int w, int h, int delay, int stop_at = 0) {
    effect_run r;
    scoped_dc d(DW, DH);
    std::vector<uint32_t> src(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) src[static_cast<size_t>(y) * w + x] = pattern_pixel(x, y);
    void *ddb = gfx_dib_to_bitmap(d.dc, dib32_header(w, -h).data(), src.data());
    EXPECT_NE(ddb, nullptr);
    IMGLOW_set_wipedelay(delay);
    r.probe.stop_at = stop_at;
    IMG_set_statusbar(&r.probe, count_calls, 1);
    const int before = effect_copies;
    r.result = IMG_display_ddb_effect(ddb, d.dc, LEFT, TOP, code);
    r.copies = effect_copies - before;
    IMG_set_statusbar(nullptr, nullptr, 0);
    IMGLOW_set_wipedelay(0);
    gfx_delete_bitmap(ddb);
    r.pixels = d.pixels();
    return r;
}

}  // namespace

// Which picture pixels each effect leaves on the device, straight from the
// effects' definitions; everything else stays white.
TEST(Effects, FinalPictureHasTheDefinedGaps) {
    using covers = bool (*)(int x, int y, int w);
    const covers all = [](int, int, int) { return true; }, none = [](int, int, int) { return false; };
    const covers blinds = [](int x, int, int w) {
        for (int j = 0; j < 4; j++)
            if (x >= (2 * j + 1) * w / 8 - w / 8 && x < (2 * j + 1) * w / 8 + w / 8) return true;
        return false;
    };
    const struct {
        int code;
        covers drawn;
    } cases[] = {
        {0, none}, {1, all}, {2, [](int, int y, int) { return y >= 1; }},
        {3, [](int x, int, int w) { return x >= w % 8; }},
        {4, all},  {5, all}, {6, all}, {7, all}, {8, blinds}, {9, all}, {10, all}, {11, none},
    };
    const int live = gfx_live_objects();
    for (const auto &[w, h] : {std::pair{37, 23}, std::pair{20, 10}, std::pair{5, 3}})
        for (const auto &c : cases) {
            const effect_run r = run_effect(c.code, w, h, 1);
            EXPECT_EQ(r.result, 0);
            int wrong = 0;
            for (int y = 0; y < DH; y++)
                for (int x = 0; x < DW; x++) {
                    const int px = x - LEFT, py = y - TOP;
                    const bool in = px >= 0 && px < w && py >= 0 && py < h && c.drawn(px, py, w);
                    wrong += r.pixels[static_cast<size_t>(y) * DW + x] != (in ? pattern_pixel(px, py) : 0xFFFFFFu);
                }
            EXPECT_EQ(wrong, 0) << "effect " << c.code << " on " << w << "x" << h;
        }
    EXPECT_EQ(gfx_live_objects(), live);
}

// Stopping after k pieces shows the order the pieces come in; the same
// checksums on both systems.  The callback gets the picture's height; a
// stop returns -18 with what was drawn kept and nothing left allocated.
TEST(Effects, StoppedPartWaySamePixelsOnBothSystems) {
    const struct {
        int code, stop_at;
        uint32_t sum;
    } cases[] = {
        {1, 7, 0x2aa8f0ec}, {2, 7, 0xf1a103a4}, {3, 2, 0xbb185c08},  {4, 2, 0x0542f71e}, {5, 9, 0xcf2fcba4},
        {6, 9, 0x51b8e467}, {7, 3, 0x34c9b56a}, {8, 11, 0xe392c416}, {9, 9, 0x933023d5}, {10, 3, 0x3b178e39},
    };
    const int live = gfx_live_objects(), blocks = mem_live_blocks();
    for (const auto &c : cases) {
        const effect_run r = run_effect(c.code, 37, 23, 1, c.stop_at);
        EXPECT_EQ(r.result, IMG_ERR_STOPPED) << "effect " << c.code;
        EXPECT_EQ(r.probe.calls, c.stop_at);
        EXPECT_EQ(r.probe.rows, 23);
        EXPECT_EQ(fnv(r.pixels), c.sum) << "effect " << c.code << " " << std::hex << fnv(r.pixels);
    }
    EXPECT_EQ(gfx_live_objects(), live);
    EXPECT_EQ(mem_live_blocks(), blocks);
}

// Each piece is copied delay x weight times: ten rows of the top-down wipe
// at a delay of 1 are twenty copies.  A measured delay still draws the
// whole picture; what is no bitmap gives -8; origins at the ends of the
// coordinate range draw nothing.
TEST(Effects, PacingBadBitmapAndFarOrigins) {
    EXPECT_EQ(run_effect(1, 4, 10, 1).copies, 20);
    const effect_run r = run_effect(4, 37, 23, 0);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.pixels[static_cast<size_t>(TOP + 22) * DW + LEFT + 36], pattern_pixel(36, 22));
    EXPECT_EQ(r.copies % (5 * 2), 0);
    scoped_dc d(4, 4);
    const int live = gfx_live_objects();
    EXPECT_EQ(IMG_display_ddb_effect(d.dc, d.dc, 0, 0, 1), -8);
    std::vector<uint32_t> src(64 * 4, 0);
    void *ddb = gfx_dib_to_bitmap(d.dc, dib32_header(64, -4).data(), src.data());
    IMGLOW_set_wipedelay(1);
    for (int code : {1, 8, 10}) {
        EXPECT_EQ(IMG_display_ddb_effect(ddb, d.dc, -100000, 100000, code), 0);
#ifndef _WIN32
        // GDI refuses coordinates this far out; the surfaces take them.
        EXPECT_EQ(IMG_display_ddb_effect(ddb, d.dc, INT32_MAX - 2, INT32_MIN, code), 0);
        EXPECT_EQ(IMG_display_ddb_effect(ddb, d.dc, INT32_MIN, INT32_MAX, code), 0);
#endif
    }
    IMGLOW_set_wipedelay(0);
    gfx_delete_bitmap(ddb);
    EXPECT_EQ(d.pixels(), std::vector<uint32_t>(16, 0xFFFFFFu));
    EXPECT_EQ(gfx_live_objects(), live);
}

// Allocation failures anywhere in an effect, the calibration's included:
// 0 or -1, nothing left behind.
TEST(Effects, AllocationFailuresLeaveNothing) {
    const int live = gfx_live_objects(), blocks = mem_live_blocks();
    for (int code = 1; code <= 10; code++)
        for (int delay : {0, 1})
            for (int k = 1; k <= 60; k++) {
                scoped_dc d(DW, DH);
                std::vector<uint32_t> src(16 * 16, 0x123456);
                void *ddb = gfx_dib_to_bitmap(d.dc, dib32_header(16, -16).data(), src.data());
                ASSERT_NE(ddb, nullptr);
                IMGLOW_set_wipedelay(delay);
                mem_fail_after(k);
                const int r = IMG_display_ddb_effect(ddb, d.dc, 0, 0, code);
                mem_fail_after(0);
                IMGLOW_set_wipedelay(0);
                gfx_delete_bitmap(ddb);
                EXPECT_TRUE(r == 0 || r == IMG_ERR_MEMORY) << code << " " << k << " " << r;
                if (r == 0) break;
            }
    EXPECT_EQ(gfx_live_objects(), live);
    EXPECT_EQ(mem_live_blocks(), blocks);
}
