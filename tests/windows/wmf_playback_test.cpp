// Windows only: our metafiles played by the system's own metafile player
// into a memory bitmap show the picture the user saw.
#ifdef _WIN32
#include "test_util.h"

#include <gtest/gtest.h>
#include <windows.h>

TEST(MetafilePlayback, ShowsThePicture) {
    for (int bits : {1, 4, 8, 24})
        for (auto [w, h] : {std::pair{1, 1}, {13, 7}, {64, 33}}) {
            picture p = make_picture(w, h, bits, w * 3 + bits);
            bytes f = save_pic(p, IMG_TYPE_WMF);
            ASSERT_GT(f.size(), 22u);
            // The player takes the metafile after its placeable header.
            HMETAFILE mf = SetMetaFileBitsEx(static_cast<UINT>(f.size() - 22), f.data() + 22);
            ASSERT_NE(mf, nullptr) << bits << " bits";
            HDC dc = CreateCompatibleDC(nullptr);
            BITMAPINFO bi{};
            bi.bmiHeader = {sizeof(BITMAPINFOHEADER), w, -h, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
            void *pixels = nullptr;
            HBITMAP bm = CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &pixels, nullptr, 0);
            ASSERT_NE(bm, nullptr);
            HGDIOBJ old = SelectObject(dc, bm);
            EXPECT_TRUE(PlayMetaFile(dc, mf));
            GdiFlush();
            bytes shown;
            const auto *px = static_cast<const uint8_t *>(pixels);
            const int stride = (3 * w + 3) & ~3;
            for (int y = 0; y < h; y++)
                for (int x = 0; x < w; x++) {
                    const uint8_t *q = px + y * stride + 3 * x;
                    shown.insert(shown.end(), {q[2], q[1], q[0]});
                }
            EXPECT_EQ(shown, appearance(p)) << bits << " bits, " << w << "x" << h;
            SelectObject(dc, old);
            DeleteObject(bm);
            DeleteDC(dc);
            DeleteMetaFile(mf);
        }
}
#endif
