// EPS: the writer's text, byte for byte where it is fixed, and the reader of
// binary wrappers around a TIFF preview.  (Ghostscript renders our files in
// tests/interop/eps_test.py.)
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

std::string eps_text(const picture &p) {
    int code = 0;
    bytes f = save_pic(p, IMG_TYPE_EPS, &code);
    EXPECT_EQ(code, static_cast<int>(f.size()));
    return std::string(f.begin(), f.end());
}

const std::string END("\r\n\0\0", 4);

size_t count_of(const std::string &s, const std::string &what) {
    size_t n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) n++;
    return n;
}

// A wrapper: 32-byte header, some PostScript, then the preview.
bytes wrap(const bytes &preview, uint32_t metafile_length = 0, bool tiff = true) {
    const std::string ps = "%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 10 10\nshowpage\n";
    bytes f(32 + ps.size(), 0);
    std::memcpy(&f[32], ps.data(), ps.size());
    put32(&f[0], 0xC6D3D0C5u);
    put32(&f[4], 32);
    put32(&f[8], static_cast<uint32_t>(ps.size()));
    if (metafile_length) {
        put32(&f[12], static_cast<uint32_t>(f.size()));
        put32(&f[16], metafile_length);
        f.insert(f.end(), metafile_length, 0x11);
    }
    if (tiff) {
        put32(&f[20], static_cast<uint32_t>(f.size()));
        put32(&f[24], static_cast<uint32_t>(preview.size()));
    }
    f.insert(f.end(), preview.begin(), preview.end());
    put16(&f[28], 0xFFFF);
    return f;
}

// The TIFF reader leaves its scratch blocks to the load's end.
int read_eps(const bytes &f, sink &s, int32_t offset = 0) {
    block_ref b(f);
    memory_source_scope source(b.data);
    const int rc = eps_read_file(offset, sink_row, &s, sink_begin, MEMORY_FD);
    scratch_free_all();
    return rc;
}

}  // namespace

TEST(EpsWrite, OneBitFileIsExactText) {
    picture p = make_picture(9, 2, 1, 4);
    p.rows = {{0xA5, 0x80, 0, 0}, {0x0F, 0x00, 0, 0}};
    const std::string want = "%!PS-Adobe-2.0 EPSF-2.0" + END + "%%BoundingBox: 72 72 504 720" + END + "gsave" + END +
                             "/inch { 72 mul } def" + END + "/pixel { 72 mul 300 div } def" + END +
                             "/imagetop { 10.75 inch 0 pixel sub } def" + END +
                             "/imagebottom { imagetop 533 pixel sub } def" + END +
                             "/imageleft { 0.25 inch 0 pixel add } def" + END + "/picstr 2 string def" + END +
                             "imageleft imagebottom translate" + END + "2400 pixel 533 pixel scale" + END +
                             "9 2 1 [9 0 0 -2 0 2] {currentfile picstr readhexstring pop} image" + END + "A580" + END +
                             "0F00" + END + "grestore" + END + "showpage" + END;
    EXPECT_EQ(eps_text(p), want);
}

TEST(EpsWrite, PaletteDepthsAndPlacement) {
    struct {
        int width, height, bits;
        const char *lines[3];
        size_t palette_lines, row_digits;
    } cases[] = {
        {640, 480, 8,
         {"/imagebottom { imagetop 1800 pixel sub } def", "2400 pixel 1800 pixel scale",
          "640 480 8 [640 0 0 -480 0 480] {read8_24} false 3 colorimage"},
         16, 1280},
        {7, 3, 4, {"/picstr 4 string def", "/rgbstr 12 string def", "7 3 4 [7 0 0 -3 0 3] {read8_24} false 3 colorimage"},
         1, 8},
        {5, 4, 24, {"/pal <> def", "/rgbstr 45 string def", "5 4 24 [5 0 0 -4 0 4] {read8_24} false 3 colorimage"}, 0, 30},
        {3, 1, 8, {"2400 pixel 800 pixel scale", "/picstr 3 string def", "/rgbstr 9 string def"}, 16, 6},
    };
    for (auto &c : cases) {
        picture p = make_picture(c.width, c.height, c.bits, 7);
        const std::string t = eps_text(p);
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + "x" + std::to_string(c.bits));
        EXPECT_EQ(t.rfind("%!PS-Adobe-2.0 EPSF-2.0" + END + "%%BoundingBox: 72 72 504 720" + END, 0), 0u);
        for (const char *l : c.lines) EXPECT_NE(t.find(END + l + END), std::string::npos) << l;
        EXPECT_EQ(t.substr(t.size() - 24), "grestore" + END + "showpage" + END);
        // The palette: red, green, blue digits, 16 entries a line.
        if (c.bits != 24) {
            const size_t at = t.find("/pal <") + 6;
            for (int i : {1, c.palette_lines > 1 ? 17 : 15}) {
                const uint8_t *e = &p.palette[4 * i];
                char entry[8];
                std::snprintf(entry, sizeof entry, "%02X%02X%02X", e[2], e[1], e[0]);
                EXPECT_EQ(t.substr(at + 7 * i + 3 * (i / 16), 6), entry) << "entry " << i;
            }
            EXPECT_EQ(count_of(t.substr(at, t.find("> def") - at), END), c.palette_lines);
        }
        // Rows: the packed bytes in hex, one row a line, top row first.
        const size_t first = t.find(END, t.find("colorimage")) + 4;
        const std::string row0 = t.substr(first, t.find(END, first) - first);
        ASSERT_EQ(row0.size(), c.row_digits);
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", p.rows[0][0]);
        EXPECT_EQ(row0.substr(0, 2), digits);
        EXPECT_EQ(count_of(t, END), 25 + c.palette_lines + c.height);
    }
}

int IMG_CALLBACK refuse_third(void *context, unsigned char *, int, int) {
    return ++*static_cast<int *>(context) == 3 ? -44 : 0;
}

TEST(EpsWrite, RowCallbackCodeEndsTheSave) {
    block_ref dib(dib_of_picture(make_picture(30, 8, 8, 2)));
    block_ref out(100000u);
    int calls = 0;
    EXPECT_EQ(IMGLOW_save_bitmap_mem(out.data, dib.data, IMG_TYPE_EPS, refuse_third, &calls), -44);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(scratch_count(), 0);
}

TEST(EpsRead, TiffPreviewLoadsAndOtherWrappersAreRefused) {
    for (int bits : {1, 8, 24}) {
        picture p = make_picture(23, 11, bits, bits);
        bytes f = wrap(save_pic(p, IMG_TYPE_TIFF), bits == 8 ? 40 : 0);
        int code = 0;
        EXPECT_EQ(load_pic(f, &code), p) << bits << " bits";
        EXPECT_GE(code, 0);
        // At a start offset inside a bigger source.
        bytes inside(77 + f.size(), 0x5A);
        std::copy(f.begin(), f.end(), inside.begin() + 77);
        sink s;
        EXPECT_EQ(read_eps(inside, s, 77), 0);
        EXPECT_EQ(picture_of_sink(s).rows, p.rows);
    }
    const bytes tiff = save_pic(make_picture(5, 5, 8, 1), IMG_TYPE_TIFF);
    bytes text(tiff.size(), ' ');
    std::memcpy(text.data(), "%!PS-Adobe-2.0 EPSF-2.0\r\n", 25);
    const bytes whole = wrap(tiff);
    bytes not_tiff = tiff;
    not_tiff[0] = not_tiff[1] = 'X';
    struct {
        const char *what;
        bytes file;
        int code;
    } cases[] = {
        {"plain text EPS", text, IMG_ERR_HEADER},
        {"metafile preview only", wrap(tiff, 64, false), IMG_ERR_HEADER},
        {"short wrapper", bytes(whole.begin(), whole.begin() + 20), IMG_ERR_HEADER},
        {"preview not a TIFF", wrap(not_tiff), IMG_ERR_EPS_PREVIEW},
    };
    for (auto &c : cases) {
        sink s;
        EXPECT_EQ(read_eps(c.file, s), c.code) << c.what;
        EXPECT_EQ(s.begin_calls, 0) << c.what;
    }
}

TEST(EpsRead, Faults) { check_load_faults(wrap(save_pic(make_picture(40, 12, 24, 3), IMG_TYPE_TIFF_LZW)), 0); }
