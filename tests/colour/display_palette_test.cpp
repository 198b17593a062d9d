// Display palettes: the entries each depth and auto-colour setting give, on
// Windows read back from the GDI object, elsewhere from the palette block.
#include "platform/platform.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#ifdef _WIN32
#include <windows.h>
#endif

namespace {

// Red, green, blue, flags per entry.
bytes entries_of(int palette) {
#ifdef _WIN32
    PALETTEENTRY e[256];
    UINT n = GetPaletteEntries(reinterpret_cast<HPALETTE>(static_cast<intptr_t>(palette)), 0, 256, e);
    const auto *p = reinterpret_cast<const uint8_t *>(e);
    return bytes(p, p + 4 * n);
#else
    const auto *p = static_cast<const uint8_t *>(IMG_mem_lock(palette));
    if (!p) return {};
    EXPECT_EQ(p[0] | p[1] << 8, 0x300);
    bytes out(p + 4, p + 4 + 4 * (p[2] | p[3] << 8));
    IMG_mem_unlock(palette);
    return out;
#endif
}

void delete_palette(int palette) {
#ifdef _WIN32
    DeleteObject(reinterpret_cast<HGDIOBJ>(static_cast<intptr_t>(palette)));
#else
    IMG_mem_free(palette);
#endif
}

bytes cube() {
    bytes out;
    for (int i = 0; i < 256; i++)
        out.insert(out.end(), {static_cast<uint8_t>((i >> 5) * 255 / 7), static_cast<uint8_t>((i >> 2 & 7) * 255 / 7),
                               static_cast<uint8_t>((i & 3) * 85), 0});
    return out;
}

// The colour table through a display gamma in hundredths, with brightness
// and contrast 0 (which still scales by 256 / 255).
bytes through_gamma(const picture &p, int entries, int gamma) {
    bytes out;
    for (int i = 0; i < entries; i++)
        for (int c : {2, 1, 0, 3}) {
            double v = c == 3 ? 0 : std::pow(p.palette[4 * i + c] / 255.0, 100.0 / gamma) * 255.0 * 256 / 255;
            out.push_back(static_cast<uint8_t>(v > 255 ? 255 : v));
        }
    return out;
}

TEST(display_palette, entries_by_depth_and_auto_colour) {
    struct row {
        int bits, autocolor, gamma;
        int entries;  // 0: no palette; 256 with the cube
    } const rows[] = {
        {1, 1, 100, 0}, {1, 0, 100, 2}, {4, 0, 100, 16}, {4, 0, 150, 16},
        {4, 1, 100, 256}, {8, 0, 200, 256}, {24, 0, 100, 256},
    };
    for (const row &t : rows) {
        SCOPED_TRACE(testing::Message() << t.bits << " bits, auto-colour " << t.autocolor << ", gamma " << t.gamma);
        const picture p = make_picture(5, 3, t.bits, 3);
        int h = handle_of(p);
        IMG_set_gamma(h, t.gamma);
        IMGLOW_autocolor(t.autocolor);
        int palette = IMG_get_bitmap_palette(h);
        IMGLOW_autocolor(0);
        if (!t.entries) {
            EXPECT_EQ(palette, 0);
        } else {
            ASSERT_GT(palette, 0);
            bool cubed = t.bits == 24 || t.autocolor;
            EXPECT_EQ(entries_of(palette), cubed ? cube() : through_gamma(p, t.entries, t.gamma));
            delete_palette(palette);
        }
        IMG_delete_bitmap(h);
    }
    EXPECT_EQ(IMG_get_bitmap_palette(-1), IMG_ERR_HANDLE);
}

// The handle keeps one palette, replacing it, and deletes it with the record.
TEST(display_palette, the_handle_keeps_one) {
    const picture p = make_picture(5, 3, 8, 4);
    int other = handle_of(p), h = handle_of(p);  // other keeps the handle table alive
    const int live = mem_live_blocks();
    ASSERT_EQ(IMG_bitmap_palette(h, nullptr), 0);
    const int with_one = mem_live_blocks();
    ASSERT_EQ(IMG_bitmap_palette(h, nullptr), 0);
    EXPECT_EQ(mem_live_blocks(), with_one);
    int block = IMG_bitmap_info(h, nullptr, nullptr, nullptr);
    ASSERT_EQ(IMG_delete_bitmap_keep(h), 0);
    IMG_mem_free(block);
    EXPECT_EQ(mem_live_blocks(), live - 2);  // the record and the bitmap
    IMG_delete_bitmap(other);
}

}  // namespace
