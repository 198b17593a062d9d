// EPS: the writer's text byte for byte where it is fixed, and the wrappers
// the reader refuses.  Ghostscript's rendering of our files and the loading
// of GraphicsMagick's previews are in tests/interop/eps_test.py.
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

const std::string END("\r\n\0\0", 4);

std::string eps_text(const picture &p) {
    const bytes f = save_pic(p, IMG_TYPE_EPS);
    return std::string(f.begin(), f.end());
}

}  // namespace

TEST(EpsWrite, TextByteForByte) {
    picture p = make_picture(9, 2, 1, 4);
    p.rows = {{0xA5, 0x80, 0, 0}, {0x0F, 0x00, 0, 0}};
    EXPECT_EQ(save_pic(p, IMG_TYPE_EPS), read_file(data_path("text_out/eps_9x2.eps")));
    // 640 x 480 at 8 bits: placement, and 256 colours on 16 lines.
    const std::string t = eps_text(make_picture(640, 480, 8, 7));
    for (const char *line : {"/imagebottom { imagetop 1800 pixel sub } def", "2400 pixel 1800 pixel scale",
                             "640 480 8 [640 0 0 -480 0 480] {read8_24} false 3 colorimage"})
        EXPECT_NE(t.find(END + line + END), std::string::npos) << line;
    const size_t pal = t.find("/pal <");
    std::string table = t.substr(pal, t.find("> def") - pal);
    EXPECT_EQ(table.size(), 6 + 256 * 7 + 16 * 3u);
    EXPECT_NE(eps_text(make_picture(5, 4, 24, 1)).find(END + "/pal <> def" + END), std::string::npos);
}

TEST(EpsRead, OnlyATiffPreviewLoads) {
    const bytes tiff = save_pic(make_picture(5, 5, 8, 1), IMG_TYPE_TIFF);
    bytes good(32 + tiff.size());
    put32(&good[0], 0xC6D3D0C5u), put32(&good[20], 32), put32(&good[24], static_cast<uint32_t>(tiff.size()));
    std::copy(tiff.begin(), tiff.end(), good.begin() + 32);
    bytes text = good, metafile_only = good, not_tiff = good;
    std::memcpy(text.data(), "%!PS-Adobe-2.0 EPSF-2.0\r\n", 25);
    put32(&metafile_only[12], 32), put32(&metafile_only[16], 40), put32(&metafile_only[20], 0);
    not_tiff[32] = not_tiff[33] = 'X';
    for (auto [f, code] : {std::pair{good, 0}, {text, IMG_ERR_HEADER}, {metafile_only, IMG_ERR_HEADER},
                           {not_tiff, IMG_ERR_EPS_PREVIEW}}) {
        block_ref b(f);
        memory_source_scope source(b.data);
        sink s;
        EXPECT_EQ(eps_read_file(0, sink_row, &s, sink_begin, MEMORY_FD), code);
        EXPECT_EQ(s.begin_calls, code == 0);
        scratch_free_all();  // the TIFF reader leaves its blocks to the load's end
    }
}
