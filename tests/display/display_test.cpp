// Drawing on device contexts: the same calls on the Linux memory surfaces
// and, in the Windows suite under Wine, on GDI memory DCs holding a 32-bit
// DIB section, held to the same expected pixels.
#include "test_dc.h"

// Each raster operation on a known destination, against its formula on
// the 24 colour bits.
TEST(Graphics, RasterOperationsAsOn32BitDibSection) {
    const uint32_t S = 0x00F0A05A, D = 0x003C66C3, M = 0xFFFFFF;
    const struct {
        uint32_t rop;
        uint32_t want;
    } cases[] = {
        {GFX_SRCCOPY, S},       {GFX_SRCAND, S & D},          {GFX_SRCPAINT, S | D},
        {GFX_SRCINVERT, S ^ D}, {GFX_NOTSRCCOPY, ~S & M},     {GFX_SRCERASE, S & ~D & M},
        {GFX_MERGEPAINT, (~S | D) & M}, {GFX_DSTINVERT, ~D & M}, {GFX_BLACKNESS, 0},
        {GFX_WHITENESS, M},     {GFX_NOTSRCERASE, ~(S | D) & M}, {0x00C000CA /* MERGECOPY: white brush */, S},
    };
    bytes hdr = dib32_header(1, 1);
    for (const auto &c : cases) {
        scoped_dc d(2, 1);
        uint32_t dv[2] = {D, D};
        ASSERT_EQ(gfx_stretch_dib(d.dc, 0, 0, 2, 1, 0, 0, 2, 1, dv, dib32_header(2, 1).data(), GFX_SRCCOPY), 1);
        EXPECT_EQ(gfx_stretch_dib(d.dc, 0, 0, 1, 1, 0, 0, 1, 1, &S, hdr.data(), c.rop), 1);
        const auto px = d.pixels();
        EXPECT_EQ(px[0], c.want) << std::hex << c.rop;
        EXPECT_EQ(px[1], D) << "outside the destination" << std::hex << c.rop;
    }
}

// Nearest-neighbour stretching at 1:1, whole enlargements and reductions,
// mirrored, and clipped at the surface's edges, from bottom-up DIBs of
// every depth the band painter hands over.
TEST(Graphics, StretchDibNearestNeighbour) {
    const int SW = 12, SH = 8;
    // Source: a 24-bit bottom-up DIB of the pattern.
    bytes hdr(40);
    const int32_t v[] = {40, SW, SH};
    std::memcpy(hdr.data(), v, 12);
    hdr[12] = 1;
    hdr[14] = 24;
    const int stride = (SW * 3 + 3) & ~3;
    bytes bits(static_cast<size_t>(stride) * SH);
    for (int y = 0; y < SH; y++)
        for (int x = 0; x < SW; x++) {
            const uint32_t p = pattern_pixel(x, y);
            uint8_t *q = &bits[static_cast<size_t>(SH - 1 - y) * stride + 3 * x];
            q[0] = p & 0xFF;
            q[1] = (p >> 8) & 0xFF;
            q[2] = p >> 16;
        }
    const struct {
        int dx, dy, dw, dh, sx, sy, sw, sh;
    } cases[] = {
        {0, 0, 12, 8, 0, 0, 12, 8},   // 1:1
        {3, 2, 24, 16, 0, 0, 12, 8},  // twice
        {0, 0, 36, 8, 0, 0, 12, 8},   // three times across
        {1, 1, 6, 4, 0, 0, 12, 8},    // halved
        {0, 0, 4, 2, 0, 0, 12, 8},    // a third, a quarter
        {-5, -3, 12, 8, 0, 0, 12, 8}, // clipped left and top
        {20, 10, 24, 16, 2, 1, 8, 6}, // part of the source, clipped right and bottom
    };
    for (const auto &c : cases) {
        scoped_dc d(30, 20);
        ASSERT_EQ(gfx_stretch_dib(d.dc, c.dx, c.dy, c.dw, c.dh, c.sx, c.sy, c.sw, c.sh, bits.data(), hdr.data(),
                                  GFX_SRCCOPY),
                  c.sh);
        const auto px = d.pixels();
        int wrong = 0;
        for (int y = 0; y < 20; y++)
            for (int x = 0; x < 30; x++) {
                uint32_t want = 0xFFFFFF;
                const int i = x - c.dx, j = y - c.dy;
                if (i >= 0 && i < c.dw && j >= 0 && j < c.dh) {
                    // The source rectangle's top row is SH - sy - sh from the image top.
                    const int top = SH - c.sy - c.sh;
                    want = pattern_pixel(c.sx + i * c.sw / c.dw, top + j * c.sh / c.dh);
                }
                wrong += px[static_cast<size_t>(y) * 30 + x] != want;
            }
        EXPECT_EQ(wrong, 0) << c.dx << "," << c.dy << " " << c.dw << "x" << c.dh << " from " << c.sw << "x" << c.sh;
    }
}

// Logical to device units, and the save stack around a one-to-one mapping.
TEST(Graphics, MappingAndSaveRestore) {
    scoped_dc d(50, 40);
    gfx_mapping m = {GFX_MM_ANISOTROPIC, {100, 200}, {1000, 1000}, {5, 7}, {50, -40}};
    gfx_set_mapping(d.dc, m);
    gfx_point p[3] = {{100, 200}, {1100, 1200}, {130, 225}};
    ASSERT_TRUE(gfx_lp_to_dp(d.dc, p, 3));
    EXPECT_EQ(p[0].x, 5);
    EXPECT_EQ(p[0].y, 7);
    EXPECT_EQ(p[1].x, 55);
    EXPECT_EQ(p[1].y, -33);
    EXPECT_EQ(p[2].x, 7);  // 1.5 rounds up
    EXPECT_EQ(p[2].y, 6);  // 7 - 1 exactly
    const int level = gfx_save(d.dc);
    ASSERT_GT(level, 0);
    gfx_pixel_mapping(d.dc);
    gfx_point q = {9, 9};
    gfx_lp_to_dp(d.dc, &q, 1);
    EXPECT_EQ(q.x, 9);
    EXPECT_EQ(q.y, 9);
    ASSERT_TRUE(gfx_restore(d.dc, -1));
    gfx_mapping back;
    gfx_get_mapping(d.dc, &back);
    EXPECT_EQ(back.mode, GFX_MM_ANISOTROPIC);
    EXPECT_EQ(back.viewport_ext.y, -40);
    EXPECT_EQ(back.window_org.x, 100);
}

// Device-dependent bitmaps: made from a DIB, blitted with a raster
// operation, read back; nothing left alive.
TEST(Graphics, BitmapsRoundTripAndAreCounted) {
    const int live = gfx_live_objects();
    {
        scoped_dc d(8, 4);
        const int W = 5, H = 3;
        std::vector<uint32_t> src(W * H);
        for (int i = 0; i < W * H; i++) src[i] = pattern_pixel(i, 1);
        bytes hdr = dib32_header(W, H);
        void *bmp = gfx_dib_to_bitmap(d.dc, hdr.data(), src.data());
        ASSERT_NE(bmp, nullptr);
        int bw = 0, bh = 0;
        ASSERT_TRUE(gfx_bitmap_size(bmp, &bw, &bh));
        EXPECT_EQ(bw, W);
        EXPECT_EQ(bh, H);
        void *mem = gfx_create_compatible_dc(d.dc);
        ASSERT_NE(mem, nullptr);
        void *old = gfx_select_bitmap(mem, bmp);
        ASSERT_TRUE(gfx_bitblt(d.dc, 2, 1, W, H, mem, 0, 0, GFX_SRCINVERT));
        gfx_select_bitmap(mem, old);
        const auto px = d.pixels();
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 8; x++) {
                const bool in = x >= 2 && x < 2 + W && y >= 1 && y < 1 + H;
                EXPECT_EQ(px[y * 8 + x], in ? (src[(y - 1) * W + x - 2] ^ 0xFFFFFF) : 0xFFFFFFu) << x << "," << y;
            }
        // Read back bottom-up as 24-bit rows.
        bytes rh(40);
        const int32_t v[] = {40, W, H};
        std::memcpy(rh.data(), v, 12);
        rh[12] = 1;
        rh[14] = 24;
        bytes rows(16 * H);
        ASSERT_EQ(gfx_read_bitmap(d.dc, bmp, 0, H, rows.data(), rh.data()), H);
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                const uint8_t *q = &rows[(H - 1 - y) * 16 + 3 * x];
                EXPECT_EQ(static_cast<uint32_t>(q[2] << 16 | q[1] << 8 | q[0]), src[y * W + x]);
            }
        gfx_delete_dc(mem);
        gfx_delete_bitmap(bmp);
    }
    EXPECT_EQ(gfx_live_objects(), live);
}

#ifndef _WIN32
// The Linux exports refuse what is no surface and rectangles outside one.
TEST(Graphics, LinuxSurfaceExportsCheckArguments) {
    void *dc = nullptr;
    EXPECT_EQ(IMG_dc_create_memory(0, 5, &dc), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_create_memory(1 << 16, 1 << 16, &dc), IMG_ERR_MEMORY);
    ASSERT_EQ(IMG_dc_create_memory(4, 3, &dc), 0);
    int local = 0;
    uint32_t px[12];
    EXPECT_EQ(IMG_dc_delete(&local), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_dc_read_pixels(dc, 1, 0, 4, 3, px), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_read_pixels(dc, 0, 0, 4, 3, px), 0);
    EXPECT_EQ(px[11], 0xFFFFFFu);
    EXPECT_EQ(IMG_dc_set_mapping(dc, 2, 0, 0, 1, 1, 0, 0, 1, 1), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_set_mapping(dc, 8, 0, 0, 0, 1, 0, 0, 1, 1), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_set_caps(dc, 2, "postscript", 300, -1, 0), 0);
    EXPECT_EQ(gfx_num_colors(dc), 2);
    EXPECT_TRUE(gfx_is_postscript(dc));
    gfx_point f;
    EXPECT_FALSE(gfx_scaling_factor(dc, &f));
    EXPECT_EQ(IMG_dc_delete(dc), 0);
    EXPECT_EQ(IMG_dc_delete(dc), IMG_ERR_HANDLE);
    // Allocation failures leave nothing behind.
    const int blocks = mem_live_blocks(), live = gfx_live_objects();
    for (int k = 1; k <= 2; k++) {
        mem_fail_after(k);
        EXPECT_EQ(IMG_dc_create_memory(4, 3, &dc), IMG_ERR_MEMORY);
        mem_fail_after(0);
        EXPECT_EQ(dc, nullptr);
    }
    EXPECT_EQ(mem_live_blocks(), blocks);
    EXPECT_EQ(gfx_live_objects(), live);
}
#endif
