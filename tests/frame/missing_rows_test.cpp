// Bitmaps are not cleared when a load makes them: the rows a reader never
// delivers, and the padding of those it does, must still come out zero,
// whatever order the rows arrive in.
#include "frame/handles.h"
#include "frame/load.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Every block not asked to be zeroed starts as garbage in this test program,
// so any code that reads memory it never wrote fails its tests.
const bool poisoned = (mem_fill_new_blocks(0xA5), true);

constexpr int W = 5, H = 20, ROW = 3 * W, STRIDE = 16;

struct delivery {
    const char *name;
    std::vector<int> rows;
};

TEST(MissingRows, UndeliveredRowsAndPaddingAreZero) {
    ASSERT_TRUE(poisoned);
    const delivery cases[] = {
        {"none", {}},
        {"all top-down", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}},
        {"all bottom-up", {19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}},
        {"top part", {0, 1, 2, 3, 4, 5, 6, 7, 8}},
        {"bottom part upwards", {19, 18, 17, 16, 15, 14, 13, 12}},
        {"one middle row", {7}},
        {"interlaced, cut short", {0, 8, 16, 4, 12}},
        {"band, then back before it", {5, 6, 7, 2, 3}},
        {"band, then past its end", {5, 6, 7, 15, 16}},
        {"band grown both ways", {9, 10, 8, 11, 7}},
        {"rows written twice", {3, 3, 4, 3, 5}},
        {"last row, then first", {19, 0}},
    };
    for (bool in_place : {false, true})
    for (const delivery &c : cases) {
        SCOPED_TRACE(std::string(c.name) + (in_place ? ", built in place" : ", copied"));
        int h = handle_alloc();
        ASSERT_GE(h, 0);
        uint8_t header[40] = {40};
        dib_info *info = reinterpret_cast<dib_info *>(header);
        info->biWidth = W, info->biHeight = H, info->biPlanes = 1, info->biBitCount = 24;
        load_context ctx{nullptr, h, 0};
        ASSERT_EQ(handle_begin_image(header, &ctx), 1);
        std::vector<bool> delivered(H);
        for (int r : c.rows) {
            // A reader's own row carries zero padding; one built in place leaves it alone.
            uint8_t copy[STRIDE] = {};
            uint8_t *row = in_place ? load_row_target(handle_put_row, &ctx, r) : copy;
            ASSERT_NE(row, nullptr);
            for (int i = 0; i < ROW; i++) row[i] = static_cast<uint8_t>(r * 7 + i + 1);
            ASSERT_EQ(handle_put_row(row, &ctx, r, STRIDE), 0);
            delivered[r] = true;
        }
        handle_clear_missing_rows(ctx);
        const auto *pixels = static_cast<const uint8_t *>(handle_get(h)->dib_address) + 40;
        for (int r = 0; r < H; r++) {
            const uint8_t *stored = pixels + (H - 1 - r) * STRIDE;
            for (int i = 0; i < STRIDE; i++) {
                const int want = delivered[r] && i < ROW ? r * 7 + i + 1 : 0;
                ASSERT_EQ(stored[i], want) << "row " << r << " byte " << i;
            }
        }
        handle_free(h);
    }
}

}  // namespace
