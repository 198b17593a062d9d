// Every colour export under failing allocations and a status callback that
// stops it: the bitmap stays as it was and nothing is left behind.
#include "frame/frame.h"
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

struct colour_op {
    const char *name;
    int (*run)(int h);
    int bits;     // a source depth it takes
    int refused;  // one it refuses with IMG_ERR_TYPE
};

const colour_op ops[] = {
    {"popularity", [](int h) { return IMG_popularity_color(h); }, 24, 8},
    {"octree 8", [](int h) { return IMG_octree_color(h, 8, nullptr, 256); }, 24, 4},
    {"octree 4 from 8 bits", [](int h) { return IMG_octree_color(h, 4, nullptr, 16); }, 8, 1},
    {"promote 8", [](int h) { return IMG_promote_8(h); }, 4, 24},
    {"promote 24", [](int h) { return IMG_promote_24(h); }, 1, 24},
    {"bayer mono", [](int h) { return IMG_bayer_mono(h); }, 8, 1},
    {"halftone mono", [](int h) { return IMG_halftone_mono(h); }, 24, 1},
    {"diffusion mono", [](int h) { return IMG_diffusion_mono(h); }, 4, 1},
    {"bayer colour", [](int h) { return IMG_bayer_color(h); }, 24, 1},
    {"diffusion colour", [](int h) { return IMG_diffusion_color(h); }, 8, 1},
    {"median cut", [](int h) { return IMG_mediancut_color(h); }, 24, 1},
};

int stop_calls;
int IMG_CALLBACK stop_on_third_row(void *, int) { return ++stop_calls == 3 ? -5 : 0; }

TEST(colour_faults, failures_leave_the_bitmap_as_it_was) {
    for (const colour_op &op : ops) {
        SCOPED_TRACE(op.name);
        const picture source = make_picture(29, 11, op.bits, 19);
        int h = handle_of(source);
        ASSERT_GE(h, 0);
        ASSERT_EQ(op.run(h), 0);
        const picture want = picture_of(h);
        IMG_delete_bitmap(h);

        h = handle_of(source);
        const int live = mem_live_blocks();
        int k = 1;
        for (; k < 50; k++) {
            mem_fail_after(k);
            int r = op.run(h);
            mem_fail_after(0);
            EXPECT_EQ(scratch_count(), 0) << "k=" << k;
            EXPECT_EQ(mem_live_blocks(), live) << "k=" << k;
            if (r == 0) break;
            EXPECT_EQ(r, IMG_ERR_MEMORY) << "k=" << k;
            EXPECT_EQ(picture_of(h), source) << "k=" << k;
        }
        EXPECT_GT(k, 1) << "no allocation to fail";
        EXPECT_EQ(picture_of(h), want);
        IMG_delete_bitmap(h);

        h = handle_of(source);
        stop_calls = 0;
        IMG_set_statusbar(nullptr, stop_on_third_row, 1);
        EXPECT_EQ(op.run(h), -5);
        IMG_set_statusbar(nullptr, nullptr, 0);
        EXPECT_EQ(stop_calls, 3);
        EXPECT_EQ(picture_of(h), source);
        EXPECT_EQ(scratch_count(), 0);
        EXPECT_EQ(op.run(h + 1), IMG_ERR_HANDLE);
        IMG_delete_bitmap(h);

        const picture other = make_picture(7, 3, op.refused, 5);
        h = handle_of(other);
        EXPECT_EQ(op.run(h), IMG_ERR_TYPE);
        EXPECT_EQ(picture_of(h), other);
        IMG_delete_bitmap(h);
    }
}

}  // namespace
