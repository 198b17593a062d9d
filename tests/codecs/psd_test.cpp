// Photoshop: documents built here from a truth picture in every mode the
// reader takes, raw and run-length; the colour conversions at known points;
// hostile and truncated files; the temporary plane file on every path.
// (Files from ImageMagick and Pillow are read in tests/interop/psd_test.py.)
#include "codecs/codec_support.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

using namespace jpeg_testing;

namespace {

struct doc {
    int mode, depth;
    int32_t width, height;
    std::vector<bytes> planes;  // each height rows of packed bytes
    bytes colour_data;
    int extra_channels = 0;     // alpha planes stored after the rest
};

// PackBits a row the way Photoshop does, plus a trailing 0x80 as some
// writers pad with.
bytes pack_row(const uint8_t *p, size_t n) {
    bytes out;
    size_t i = 0;
    while (i < n) {
        size_t run = 1;
        while (i + run < n && run < 128 && p[i + run] == p[i]) run++;
        if (run >= 3) {
            out.push_back(static_cast<uint8_t>(257 - run));
            out.push_back(p[i]);
            i += run;
            continue;
        }
        size_t lit = std::min<size_t>(n - i, 128);
        for (size_t k = 1; k < lit; k++)
            if (k + 2 < n - i && p[i + k] == p[i + k + 1] && p[i + k] == p[i + k + 2]) {
                lit = k;
                break;
            }
        out.push_back(static_cast<uint8_t>(lit - 1));
        out.insert(out.end(), p + i, p + i + lit);
        i += lit;
    }
    out.push_back(0x80);
    return out;
}

bytes build(const doc &d, bool rle) {
    bytes f = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0};
    auto be16 = [&](uint32_t v) { f.push_back(static_cast<uint8_t>(v >> 8)), f.push_back(static_cast<uint8_t>(v)); };
    auto be32 = [&](uint32_t v) { be16(v >> 16), be16(v & 0xFFFF); };
    const int channels = static_cast<int>(d.planes.size()) + d.extra_channels;
    be16(channels), be32(d.height), be32(d.width), be16(d.depth), be16(d.mode);
    be32(static_cast<uint32_t>(d.colour_data.size()));
    f.insert(f.end(), d.colour_data.begin(), d.colour_data.end());
    be32(6), f.insert(f.end(), {'8', 'B', 'I', 'M', 1, 2});  // resources, skipped by length
    be32(3), f.insert(f.end(), {7, 7, 7});
    be16(rle);
    std::vector<bytes> all = d.planes;
    for (int k = 0; k < d.extra_channels; k++) all.push_back(bytes(d.planes[0].size(), 0x42));
    const size_t row = d.planes[0].size() / d.height;
    std::vector<bytes> packed;
    for (const bytes &p : all)
        for (int32_t y = 0; y < d.height; y++) {
            packed.push_back(rle ? pack_row(&p[y * row], row) : bytes(p.begin() + y * row, p.begin() + (y + 1) * row));
            if (rle) be16(static_cast<uint32_t>(packed.back().size()));
        }
    for (const bytes &r : packed) f.insert(f.end(), r.begin(), r.end());
    return f;
}

// A truth picture as planes of a document of the mode.
doc doc_of(const picture &p, int mode) {
    doc d{mode, p.bits == 1 ? 1 : 8, p.width, p.height, {}, {}};
    const size_t used = p.bits == 1 ? (p.width + 7) / 8 : p.width;
    const int n = p.bits == 24 ? 3 : 1;
    for (int c = 0; c < n; c++) {
        bytes plane;
        for (const bytes &r : p.rows)
            for (size_t x = 0; x < used; x++) plane.push_back(n == 1 ? r[x] : r[3 * x + 2 - c]);
        d.planes.push_back(plane);
    }
    if (mode == 2) {
        for (int c = 2; c >= 0; c--)
            for (int i = 0; i < 256; i++) d.colour_data.push_back(p.palette[4 * i + c]);
    }
    return d;
}

picture with_palette(picture p, int bits) {
    p.palette.assign(1024, 0);
    if (bits == 1) p.palette = {0, 0, 0, 0, 255, 255, 255, 0};
    if (bits == 8) p.palette.resize(1024), fill_grey_ramp(p.palette.data());
    return p;
}

int read_psd(const bytes &f, sink &s) { return run_reader_on(f, s, psd_read_file); }

}  // namespace

TEST(PsdRead, EveryModeRawAndRunLength) {
    struct {
        int mode, bits, alpha;
    } modes[] = {{0, 1, 0}, {1, 8, 0}, {2, 8, 0}, {3, 24, 0}, {3, 24, 1}, {7, 8, 0}, {8, 8, 0}};
    for (auto &m : modes)
        for (bool rle : {false, true})
            for (auto [w, h] : {std::pair{1, 1}, {9, 4}, {300, 7}, {61, 37}}) {
                picture want = make_picture(w, h, m.bits, w + h + m.mode);
                if (m.mode != 2 && m.bits == 8) want = with_palette(want, 8);
                doc d = doc_of(want, m.mode);
                d.extra_channels = m.alpha;
                sink s;
                SCOPED_TRACE("mode " + std::to_string(m.mode) + (rle ? " rle " : " raw ") + std::to_string(w) + "x" +
                             std::to_string(h) + (m.alpha ? " alpha" : ""));
                ASSERT_EQ(read_psd(build(d, rle), s), 0);
                picture got = picture_of_sink(s);
                if (m.bits == 1) got.palette = bytes(s.palette.begin(), s.palette.begin() + 8);
                EXPECT_EQ(got, m.bits == 1 ? with_palette(want, 1) : want);
            }
}

TEST(PsdRead, CmykAndLabAtKnownColours) {
    // Planes as stored: CMYK as 255 minus ink; Lab as L scaled to 255, a and b + 128.
    struct {
        int mode;
        uint8_t planes[4];
        uint8_t bgr[3];
        int tolerance;
    } cases[] = {
        {4, {255, 255, 255, 255}, {255, 255, 255}, 0},  // no ink
        {4, {255, 255, 255, 0}, {0, 0, 0}, 0},          // full black
        {4, {0, 255, 255, 255}, {255, 255, 0}, 0},      // full cyan: no red
        {4, {255, 128, 255, 128}, {128, 64, 128}, 0},   // half magenta under half black
        {9, {255, 128, 128}, {255, 255, 255}, 1},       // L 100: white
        {9, {0, 128, 128}, {0, 0, 0}, 0},
        {9, {136, 208, 195}, {0, 0, 255}, 6},           // sRGB red, L 53 a 80 b 67
        {9, {82, 207, 20}, {255, 0, 0}, 8},             // sRGB blue, L 32 a 79 b -108
    };
    for (auto &c : cases) {
        doc d{c.mode, 8, 3, 2, {}, {}};
        for (int k = 0; k < (c.mode == 4 ? 4 : 3); k++) d.planes.push_back(bytes(6, c.planes[k]));
        sink s;
        ASSERT_EQ(read_psd(build(d, false), s), 0);
        ASSERT_EQ(s.info.biBitCount, 24);
        for (int k = 0; k < 3; k++)
            EXPECT_NEAR(s.rows[1][3 * 2 + k], c.bgr[k], c.tolerance) << "mode " << c.mode << " planes " << +c.planes[0];
    }
}

TEST(PsdRead, RepeatCode128AndPaddingAfterRows) {
    // 0x80 repeats the next byte 129 times; the rest of a row's counted
    // bytes is skipped.
    doc d{1, 8, 129, 2, {bytes(258, 0)}, {}};
    bytes f = build(d, false);
    const size_t data = f.size() - 258;
    f.resize(data - 2);
    f.insert(f.end(), {0, 1, 0, 4, 0, 5, 0x80, 0x3C, 0x80, 0x80, 0x80, 0x3D, 0xEE});
    sink s;
    ASSERT_EQ(read_psd(f, s), 0);
    EXPECT_EQ(bytes(s.rows[0].begin(), s.rows[0].begin() + 129), bytes(129, 0x3C));
    EXPECT_EQ(bytes(s.rows[1].begin(), s.rows[1].begin() + 129), bytes(129, 0x3D));
}

TEST(PsdRead, HostileAndTruncatedFiles) {
    const picture p = make_picture(20, 6, 24, 3);
    const bytes good = build(doc_of(p, 3), true);
    struct {
        const char *what;
        size_t at;
        uint8_t value;
        int code;
    } cases[] = {
        {"version 2", 5, 2, IMG_ERR_HEADER},        {"zero height", 17, 0, IMG_ERR_HEADER},
        {"two channels for RGB", 13, 2, IMG_ERR_HEADER}, {"16 bits a channel", 23, 16, IMG_ERR_TYPE},
        {"width past the limit", 19, 0x80, IMG_ERR_HEADER}, {"deflate data", 48, 2, IMG_ERR_TYPE},
    };
    for (auto &c : cases) {
        bytes f = good;
        f[c.at] = c.value;
        if (c.at == 17) f[16] = f[15] = 0;
        sink s;
        EXPECT_EQ(read_psd(f, s), c.code) << c.what;
    }
    doc short_palette = doc_of(make_picture(4, 4, 8, 1), 2);
    short_palette.colour_data.resize(700);
    sink s;
    EXPECT_EQ(read_psd(build(short_palette, false), s), IMG_ERR_DATA);

    const int live = mem_live_blocks();
    for (bool rle : {false, true}) {
        const bytes f = build(doc_of(p, 3), rle);
        for (size_t n = 1; n < f.size(); n++) {
            sink t;
            const int rc = read_psd(bytes(f.begin(), f.begin() + n), t);
            // Only the padding after the last run-length row may go.
            const bool whole = rle && n == f.size() - 1;
            EXPECT_EQ(rc, whole ? 0 : IMG_ERR_DATA) << (rle ? "rle" : "raw") << " cut at " << n;
            EXPECT_EQ(t.bad_rows, 0);
        }
    }
    EXPECT_EQ(mem_live_blocks(), live);
}

// check_load_faults also finds any temporary file left in the run's own
// directory, so it comes after the row codes.
TEST(PsdRead, RowCodesFaultsAndNoTemporaryFileLeft) {
    const bytes rgb = build(doc_of(make_picture(50, 20, 24, 8), 3), true);
    for (int fail_at : {0, 19}) {
        sink s;
        s.fail_at_row = fail_at, s.fail_code = -37;
        EXPECT_EQ(read_psd(rgb, s), -37);
    }
    check_load_faults(build(doc_of(make_picture(50, 20, 8, 8), 2), true), TRICKLES);
    check_load_faults(rgb, TRICKLES);
}

TEST(PsdWrite, FourBitsAreRefused) {
    int code = 0;
    EXPECT_TRUE(save_pic(make_picture(13, 5, 4, 6), IMG_TYPE_PSD, &code).empty());
    EXPECT_EQ(code, IMG_ERR_DEPTH);
}
