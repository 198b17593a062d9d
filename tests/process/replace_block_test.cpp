// Every processing and colour operation at every depth it takes, on odd and
// degenerate sizes: allocation failures, a stop by the status callback and
// a refusal leave the handle as it was, and no block is left behind.
#include "test_util.h"
#include "frame/handles.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

struct op_row {
    const char *name;
    std::vector<int> depths;
    std::function<int(int)> run;
    bool in_place;  // a stop leaves the rows done so far changed
    std::vector<int> refused = {};  // depths refused (with colour tables), and the code
    int refusal = IMG_ERR_TYPE;
};

const signed char own_kernel[9] = {0, -1, 0, -1, 6, -1, 0, -1, 0};
const unsigned char ramp_down[256] = {};

const op_row ops[] = {
    {"rotate 90", {1, 4, 8, 24}, [](int h) { return IMG_rotate_bitmap(h, 90); }, false},
    {"rotate 270", {1, 4, 8, 24}, [](int h) { return IMG_rotate_bitmap(h, 270); }, false},
    {"rotate 45", {1, 4, 8, 24}, [](int h) { return IMG_rotate_bitmap(h, 45); }, false},
    {"rotate 180", {1, 4, 8, 24}, [](int h) { return IMG_rotate_bitmap(h, 180); }, false},
    {"flip x", {1, 4, 8, 24}, IMG_flip_bitmapx, true},
    {"flip y", {1, 4, 8, 24}, IMG_flip_bitmapy, false},
    {"invert", {1, 4, 8, 24}, IMG_invert_bitmap, true},
    {"resize up", {1, 4, 8, 24}, [](int h) { return IMG_resize_bitmap(h, 13, 9); }, false},
    {"resize down", {1, 4, 8, 24}, [](int h) { return IMG_resize_bitmap(h, 2, 1); }, false},
    {"interp up", {8, 24}, [](int h) { return IMG_resize_bitmap_interp(h, 13, 9); }, false, {1, 4, 8}},
    {"interp down", {8, 24}, [](int h) { return IMG_resize_bitmap_interp(h, 1, 2); }, false, {1, 4, 8}},
    {"sharpen", {4, 8, 24}, [](int h) { return IMG_sharpen_bitmap(h, 64); }, false, {1, 4, 8}},
    {"filter 5", {8, 24}, [](int h) { return IMG_process_bitmap(h, 5, nullptr); }, false, {1, 4}, IMG_ERR_DEPTH},
    {"own filter", {8, 24}, [](int h) { return IMG_process_bitmap(h, 0, own_kernel); }, false},
    {"grey", {4, 8, 24}, IMG_color_gray, false, {1}},
    {"apply lut", {1, 8, 24}, [](int h) { return IMG_apply_lut(h, ramp_down, nullptr, ramp_down); }, true},
    {"popularity", {24}, IMG_popularity_color, false, {8}},
    {"octree 8", {24}, [](int h) { return IMG_octree_color(h, 8, nullptr, 256); }, false, {4}},
    {"octree 4", {8}, [](int h) { return IMG_octree_color(h, 4, nullptr, 16); }, false, {1}},
    {"promote 8", {4}, IMG_promote_8, false, {24}},
    {"promote 24", {1}, IMG_promote_24, false, {24}},
    {"bayer mono", {8}, IMG_bayer_mono, false, {1}},
    {"halftone mono", {24}, IMG_halftone_mono, false, {1}},
    {"diffusion mono", {4}, IMG_diffusion_mono, false, {1}},
    {"bayer colour", {24}, IMG_bayer_color, false, {1}},
    {"diffusion colour", {8}, IMG_diffusion_color, false, {1}},
    {"median cut", {24}, IMG_mediancut_color, false, {1}},
};

struct record_view {
    picture pic;
    int crop[4];
    bool operator==(const record_view &o) const {
        return pic == o.pic && std::equal(crop, crop + 4, o.crop);
    }
};

record_view view_of(int h) {
    record_view v{picture_of(h), {}};
    IMG_get_croprect(h, &v.crop[0], &v.crop[1], &v.crop[2], &v.crop[3]);
    return v;
}

// Grey tables where an operation asks for them; an odd crop rectangle.
int make_handle(int w, int ht, int bits, uint32_t seed) {
    picture p = bits == 24 || bits == 1 ? make_picture(w, ht, bits, seed) : grey_palette_picture(w, ht, bits, seed);
    int h = handle_of(p);
    IMG_set_croprect(h, w / 3, ht / 2, (w + 1) / 2, (ht + 2) / 3);
    return h;
}

int stop_after = 0, calls = 0;
int IMG_CALLBACK stopping(void *, int) { return ++calls > stop_after ? -55 : 0; }

const std::pair<int, int> sizes[] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {9, 5}, {33, 3}, {5, 40}};

}  // namespace

TEST(Processing, AllocationFailuresLeaveTheHandleAsItWas) {
    for (const op_row &op : ops)
        for (int bits : op.depths)
            for (auto [w, ht] : sizes) {
                SCOPED_TRACE(std::string(op.name) + " " + std::to_string(bits) + " bits " + std::to_string(w) + "x" +
                             std::to_string(ht));
                int h = make_handle(w, ht, bits, static_cast<uint32_t>(w * 7 + ht + bits));
                const record_view before = view_of(h);
                // The result without faults, on a twin handle.
                int twin = make_handle(w, ht, bits, static_cast<uint32_t>(w * 7 + ht + bits));
                ASSERT_EQ(op.run(twin), 0);
                const record_view want = view_of(twin);
                IMG_delete_bitmap(twin);
                int k = 1;
                for (;; k++) {
                    const int live = mem_live_blocks();
                    mem_fail_after(k);
                    int r = op.run(h);
                    mem_fail_after(0);
                    EXPECT_EQ(scratch_count(), 0);
                    EXPECT_EQ(mem_live_blocks(), live);
                    if (r == 0) break;
                    ASSERT_EQ(r, IMG_ERR_MEMORY) << "k=" << k;
                    ASSERT_EQ(view_of(h), before) << "k=" << k;
                }
                EXPECT_EQ(view_of(h), want);
                // Operations that build a new block meet at least one failure.
                EXPECT_GE(k, op.in_place ? 1 : 2);
                IMG_delete_bitmap(h);
            }
}

TEST(Processing, AStopByTheStatusCallbackEndsTheOperation) {
    for (const op_row &op : ops)
        for (int bits : op.depths) {
            SCOPED_TRACE(std::string(op.name) + " " + std::to_string(bits) + " bits");
            int h = make_handle(9, 6, bits, 17u + bits);
            const record_view before = view_of(h);
            // How many rows the whole operation reports.
            stop_after = 1 << 30, calls = 0;
            int twin = make_handle(9, 6, bits, 17u + bits);
            IMG_set_statusbar(nullptr, stopping, 1);
            ASSERT_EQ(op.run(twin), 0);
            const int rows = calls;
            IMG_delete_bitmap(twin);
            for (stop_after = 0; stop_after < rows; stop_after++) {
                calls = 0;
                const int live = mem_live_blocks();
                EXPECT_EQ(op.run(h), -55) << "stop after " << stop_after;
                EXPECT_EQ(mem_live_blocks(), live);
                EXPECT_EQ(scratch_count(), 0);
                if (!op.in_place) {
                    EXPECT_EQ(view_of(h), before) << "stop after " << stop_after;
                }
            }
            IMG_set_statusbar(nullptr, nullptr, 0);
            // Usable afterwards.
            EXPECT_EQ(op.run(h), 0);
            IMG_delete_bitmap(h);
        }
}

// Rows reported per operation: one per row written, none for a half turn.
TEST(Processing, StatusCallsPerRow) {
    const struct {
        std::function<int(int)> run;
        int want;
    } cases[] = {
        {[](int h) { return IMG_rotate_bitmap(h, 90); }, 6},   {[](int h) { return IMG_rotate_bitmap(h, 180); }, 0},
        {IMG_flip_bitmapx, 6},                                  {IMG_flip_bitmapy, 6},
        {IMG_invert_bitmap, 6},                                 {[](int h) { return IMG_resize_bitmap(h, 4, 11); }, 11},
        {[](int h) { return IMG_process_bitmap(h, 3, nullptr); }, 6},
    };
    stop_after = 1 << 30;
    IMG_set_statusbar(nullptr, stopping, 1);
    for (auto &c : cases) {
        int h = make_handle(9, 6, 8, 3);
        calls = 0;
        EXPECT_EQ(c.run(h), 0);
        EXPECT_EQ(calls, c.want);
        IMG_delete_bitmap(h);
    }
    IMG_set_statusbar(nullptr, nullptr, 0);
}

TEST(Processing, BadHandles) {
    for (const op_row &op : ops)
        for (int h : {-1, 0, 999}) EXPECT_EQ(op.run(h), IMG_ERR_HANDLE) << op.name;
}

// Depths and arguments an operation refuses: its code, and the bitmap as it was.
TEST(Processing, RefusalsLeaveTheBitmap) {
    auto refused = [](const picture &p, const std::function<int(int)> &run, int want, const std::string &what) {
        int h = handle_of(p);
        EXPECT_EQ(run(h), want) << what;
        EXPECT_EQ(picture_of(h), p) << what;
        IMG_delete_bitmap(h);
    };
    for (const op_row &op : ops)
        for (int bits : op.refused) refused(make_picture(7, 3, bits, 5), op.run, op.refusal, op.name + (" at " + std::to_string(bits)));
    picture off_grey = grey_palette_picture(4, 4, 8, 1), rgb = make_picture(5, 5, 24, 1);
    off_grey.palette[4 * 77 + 1] ^= 1;
    const struct {
        const char *name;
        const picture &pic;
        std::function<int(int)> run;
    } arguments[] = {
        {"filter 10", rgb, [](int h) { return IMG_process_bitmap(h, 10, nullptr); }},
        {"own filter without a kernel", rgb, [](int h) { return IMG_process_bitmap(h, 0, nullptr); }},
        {"filter -1", rgb, [](int h) { return IMG_process_bitmap(h, -1, nullptr); }},
        {"smoothing off grey", off_grey, [](int h) { return IMG_resize_bitmap_interp(h, 2, 2); }},
        {"smoothing to width 0", rgb, [](int h) { return IMG_resize_bitmap_interp(h, 0, 2); }},
        {"smoothing to height -1", rgb, [](int h) { return IMG_resize_bitmap_interp(h, 2, -1); }},
    };
    for (auto &c : arguments) refused(c.pic, c.run, IMG_ERR_TYPE, c.name);
}
