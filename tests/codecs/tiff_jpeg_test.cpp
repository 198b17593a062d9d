// JPEG inside TIFF: strips that are bare entropy-coded segments with their
// tables in the IFD (built here from baseline files), whole streams in
// strips, the type 40 writer, and damaged or refused files.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>

#include "codecs/tiff.h"
#include "jpeg_support.h"
#include "tiff_test_util.h"

namespace {

// A baseline file taken apart: tables by id, the frame's and scan's
// component selectors, the restart interval and the entropy-coded data cut
// at its restart markers.
struct jpeg_parts {
    std::map<int, bytes> quant, dc, ac;  // quant: 64 bytes; Huffman: 16 counts then values
    int width = 0, height = 0, max_v = 1;
    std::vector<int> hv, tq, td, ta;
    int restart = 0;
    std::vector<bytes> segments;
};

jpeg_parts split_jpeg(const bytes &f) {
    jpeg_parts j;
    size_t p = 2;
    for (;;) {
        int marker = f.at(p + 1), length = f.at(p + 2) << 8 | f.at(p + 3);
        const uint8_t *s = &f.at(p + 4);
        if (marker == 0xDB) {
            for (int i = 0; i < length - 2; i += 65) j.quant[s[i] & 15].assign(s + i + 1, s + i + 65);
        } else if (marker == 0xC4) {
            for (int i = 0; i < length - 2;) {
                int n = 0;
                for (int k = 1; k <= 16; k++) n += s[i + k];
                (s[i] >> 4 ? j.ac : j.dc)[s[i] & 15].assign(s + i + 1, s + i + 17 + n);
                i += 17 + n;
            }
        } else if (marker == 0xC0) {
            j.height = s[1] << 8 | s[2], j.width = s[3] << 8 | s[4];
            for (int c = 0; c < s[5]; c++) {
                j.hv.push_back(s[7 + 3 * c]);
                j.tq.push_back(s[8 + 3 * c]);
                j.max_v = std::max(j.max_v, s[7 + 3 * c] & 15);
            }
        } else if (marker == 0xDD) {
            j.restart = s[0] << 8 | s[1];
        } else if (marker == 0xDA) {
            for (int c = 0; c < s[0]; c++) j.td.push_back(s[2 + 2 * c] >> 4), j.ta.push_back(s[2 + 2 * c] & 15);
            p += 2 + length;
            break;
        }
        p += 2 + length;
    }
    bytes seg;
    for (; !(f.at(p) == 0xFF && f.at(p + 1) == 0xD9); p++) {
        if (f[p] == 0xFF && (f[p + 1] & 0xF8) == 0xD0) {
            j.segments.push_back(seg), seg.clear(), p++;
            continue;
        }
        seg.push_back(f[p]);
    }
    j.segments.push_back(seg);
    return j;
}

// An old-style compression 6 page: the tables (placed first, at offset 8)
// and strips of rows_per_strip rows.  Several strips need a file that
// restarts at every MCU row; each strip then restarts its markers from 0.
tiff_page old_style_page(const jpeg_parts &j, uint32_t rows_per_strip) {
    const int components = static_cast<int>(j.hv.size());
    const uint32_t mcu_rows = static_cast<uint32_t>(8 * j.max_v);
    bytes blob;
    std::map<int, uint32_t> q_at, dc_at, ac_at;
    for (auto *tables : {&j.quant, &j.dc, &j.ac})
        for (auto &[id, t] : *tables) {
            (tables == &j.quant ? q_at : tables == &j.dc ? dc_at : ac_at)[id] = 8 + static_cast<uint32_t>(blob.size());
            blob.insert(blob.end(), t.begin(), t.end());
        }
    tiff_page page;
    page.strips.push_back(blob);
    std::vector<bytes> strips;
    if (rows_per_strip >= static_cast<uint32_t>(j.height)) {
        bytes all;
        for (size_t i = 0; i < j.segments.size(); i++) {
            if (i) all.insert(all.end(), {0xFF, static_cast<uint8_t>(0xD0 + (i - 1) % 8)});
            all.insert(all.end(), j.segments[i].begin(), j.segments[i].end());
        }
        strips.push_back(all);
    } else {
        const size_t per_strip = rows_per_strip / mcu_rows;
        for (size_t first = 0; first < j.segments.size(); first += per_strip) {
            bytes s;
            for (size_t i = first; i < first + per_strip && i < j.segments.size(); i++) {
                if (i > first) s.insert(s.end(), {0xFF, static_cast<uint8_t>(0xD0 + (i - first - 1) % 8)});
                s.insert(s.end(), j.segments[i].begin(), j.segments[i].end());
            }
            strips.push_back(s);
        }
    }
    std::vector<uint32_t> offsets, counts, q, dc, ac;
    uint32_t at = 8 + static_cast<uint32_t>(blob.size());
    for (const bytes &s : strips) {
        offsets.push_back(at), counts.push_back(static_cast<uint32_t>(s.size()));
        at += static_cast<uint32_t>(s.size());
        page.strips.push_back(s);
    }
    for (int c = 0; c < components; c++)
        q.push_back(q_at.at(j.tq[c])), dc.push_back(dc_at.at(j.td[c])), ac.push_back(ac_at.at(j.ta[c]));
    const uint32_t w = static_cast<uint32_t>(j.width), h = static_cast<uint32_t>(j.height);
    page.fields = simple_page(w, h, 8, components, components == 3 ? 6 : 1, 6, {}, rows_per_strip).fields;
    set_field(page, 273, 4, offsets);
    set_field(page, 279, 4, counts);
    set_field(page, 512, 3, {1});
    uint32_t mcus_per_row = static_cast<uint32_t>((j.width + 8 * (j.hv[0] >> 4) - 1) / (8 * (j.hv[0] >> 4)));
    uint32_t restart = rows_per_strip < h ? mcus_per_row : static_cast<uint32_t>(j.restart);
    if (restart) set_field(page, 515, 3, {restart});
    set_field(page, 519, 4, q);
    set_field(page, 520, 4, dc);
    set_field(page, 521, 4, ac);
    if (components == 3) set_field(page, 530, 3, {static_cast<uint32_t>(j.hv[0] >> 4), static_cast<uint32_t>(j.hv[0] & 15)});
    return page;
}

bytes jpeg_fixture(const std::string &name) {
    return read_file(std::string(BRIVANTA_FIXTURES) + (name.rfind("rows", 0) == 0 ? "/tiffjpeg/" : "/jpeg/") + name);
}

// Our decoder's rows for a JPEG file image.
std::vector<bytes> jpeg_rows(const bytes &file) {
    jpeg_testing::sink s;
    EXPECT_EQ(jpeg_testing::run_reader_on(file, s, jpeg_read_file), 0);
    return s.rows;
}

// Strips of restart segments, or one strip of the whole scan, in either
// byte order, decode as their baseline file does, every row once.
TEST(TiffJpeg, OldStyleStripsDecodeAsTheirBaselineFile) {
    struct {
        const char *file;
        uint32_t rows_per_strip;
        bool mm;
    } cases[] = {
        {"cgrey.jpg", 0, false},    {"c420.jpg", 0, false},     {"c444.jpg", 0, true},      {"c422.jpg", 0, false},
        {"crestart.jpg", 0, true},  {"rowsgrey.jpg", 8, false}, {"rowsgrey.jpg", 16, true}, {"rows420.jpg", 16, false},
        {"rows420.jpg", 32, true},  {"rows444.jpg", 16, false}, {"rows444.jpg", 0, false},
    };
    for (auto &c : cases) {
        bytes jpeg = jpeg_fixture(c.file);
        jpeg_parts j = split_jpeg(jpeg);
        decoded d = run_tiff(build_tiff({old_style_page(j, c.rows_per_strip ? c.rows_per_strip : 0xFFFF)}, c.mm));
        ASSERT_EQ(d.rc, 1) << c.file << " " << c.rows_per_strip;
        EXPECT_EQ(d.calls, j.height) << "every row once";
        EXPECT_EQ(d.rows, jpeg_rows(jpeg)) << c.file << " " << c.rows_per_strip;
    }
}

tiff_field &field(tiff_page &p, uint16_t tag) {
    auto it = std::find_if(p.fields.begin(), p.fields.end(), [tag](const tiff_field &f) { return f.tag == tag; });
    EXPECT_NE(it, p.fields.end()) << "no field " << tag;
    return it != p.fields.end() ? *it : p.fields.front();
}

void drop(tiff_page &p, uint16_t tag) {
    std::erase_if(p.fields, [tag](const tiff_field &f) { return f.tag == tag; });
}

TEST(TiffJpeg, TiledFileIsOneTileChosenByPage) {
    // Two pictures coded with the same tables: one without restarts, one
    // restarting every five MCUs (the interval both tiles are given).
    jpeg_parts plain = split_jpeg(jpeg_fixture("c420.jpg")), rows = split_jpeg(jpeg_fixture("rows420.jpg"));
    ASSERT_EQ(plain.quant, rows.quant);
    ASSERT_EQ(plain.ac, rows.ac);
    tiff_page page = old_style_page(rows, 0xFFFF);
    tiff_page other = old_style_page(plain, 0xFFFF);
    page.strips.insert(page.strips.begin() + 1, other.strips[1]);
    const uint32_t first = field(page, 273).values[0];
    const uint32_t first_size = static_cast<uint32_t>(page.strips[1].size());
    set_field(page, 324, 4, {first, first + first_size});
    set_field(page, 325, 4, {first_size, static_cast<uint32_t>(page.strips[2].size())});
    set_field(page, 322, 3, {67});
    set_field(page, 323, 3, {45});
    drop(page, 256), drop(page, 257), drop(page, 273), drop(page, 278), drop(page, 279);
    bytes tiff = build_tiff({page}, false);
    decoded d0 = run_tiff(tiff), d1 = run_tiff(tiff, static_cast<int32_t>(WHERE_PAGE | 1));
    ASSERT_EQ(d0.rc, 1);
    ASSERT_EQ(d1.rc, 1);
    EXPECT_EQ(d0.rows, jpeg_rows(jpeg_fixture("c420.jpg")));
    EXPECT_EQ(d1.rows, jpeg_rows(jpeg_fixture("rows420.jpg")));
}

TEST(TiffJpeg, WholeStreamsInStripsAndTypeDetection) {
    // Each strip a complete file: two pictures stacked as two strips.
    bytes top = jpeg_fixture("c420.jpg");
    jpeg_parts j = split_jpeg(top);
    tiff_page page = simple_page(67, 90, 8, 3, 6, 6, {top, top}, 45);
    bytes tiff = build_tiff({page}, false);
    decoded d = run_tiff(tiff);
    ASSERT_EQ(d.rc, 1);
    std::vector<bytes> half = jpeg_rows(top), both = half;
    both.insert(both.end(), half.begin(), half.end());
    EXPECT_EQ(d.rows, both);
    EXPECT_EQ(j.height, 45);

    int fd_type = IMGLOW_get_filetype_mem(block_ref(tiff).data);
    EXPECT_EQ(fd_type, IMG_TYPE_TIFF_JPEG);
}

// Damage done to a good old-style colour file of three strips, and what the
// load answers.  Its tables blob holds the two quantisers first, then the
// DC tables.
TEST(TiffJpeg, DamagedAndRefusedFilesGiveCleanCodes) {
    const jpeg_parts colour = split_jpeg(jpeg_fixture("rows420.jpg"));
    struct damage_case {
        const char *what;
        std::function<void(tiff_page &)> change;
        int rc;
    };
    const damage_case cases[] = {
        {"quantiser past the end", [](tiff_page &p) { field(p, 519).values[1] = 0x7FFFFF00; }, IMG_ERR_HEADER},
        {"no DC tables", [](tiff_page &p) { drop(p, 520); }, IMG_ERR_HEADER},
        {"AC offsets array past the end", [](tiff_page &p) { set_field(p, 521, 4, {0x7FFFFFF0}); field(p, 521).count = 3; }, IMG_ERR_HEADER},
        {"Huffman counts over 256", [](tiff_page &p) { std::fill_n(p.strips[0].begin() + 128, 16, 0xFF); }, IMG_ERR_HEADER},
        {"third quantiser of its own", [](tiff_page &p) { field(p, 519).values[2] = 8 + 128; }, IMG_ERR_TYPE},
        {"zero strip byte count", [](tiff_page &p) { field(p, 279).values[1] = 0; }, IMG_ERR_DATA},
        {"no byte counts", [](tiff_page &p) { drop(p, 279); }, IMG_ERR_DATA},
        {"last strip runs past the end", [](tiff_page &p) { field(p, 279).values[2] += 5000; }, IMG_ERR_DATA},
        {"fewer offsets than strips", [](tiff_page &p) { set_field(p, 273, 4, {500}); }, IMG_ERR_DATA},
        {"huge strip count past the end", [](tiff_page &p) { set_field(p, 273, 4, {0x7FFFFF00}); field(p, 273).count = 0x7FFFFFFF; }, IMG_ERR_DATA},
        {"lossless process", [](tiff_page &p) { set_field(p, 512, 3, {14}); }, IMG_ERR_TYPE},
        {"16-bit samples", [](tiff_page &p) { set_field(p, 258, 3, {16, 16, 16}); }, IMG_ERR_TYPE},
        {"planar", [](tiff_page &p) { set_field(p, 284, 3, {2}); }, IMG_ERR_TYPE},
        {"1x2 subsampling", [](tiff_page &p) { set_field(p, 530, 3, {1, 2}); }, IMG_ERR_TYPE},
        {"RGB-coded components", [](tiff_page &p) { set_field(p, 262, 3, {2}); }, IMG_ERR_TYPE},
        {"whole stream of another width", [](tiff_page &p) { p = simple_page(66, 45, 8, 3, 6, 6, {jpeg_fixture("c420.jpg")}); }, IMG_ERR_HEADER},
    };
    for (const damage_case &c : cases) {
        tiff_page page = old_style_page(colour, 16);
        ASSERT_EQ(page.strips.size(), 4u);
        c.change(page);
        int live = mem_live_blocks();
        decoded d = run_tiff(build_tiff({page}, false));
        EXPECT_EQ(d.rc, c.rc) << c.what;
        EXPECT_EQ(mem_live_blocks(), live) << c.what;
    }
}

// Failing allocations and reads cut short, on strips of segments and on
// strips that are whole streams.
TEST(TiffJpeg, FaultsDuringAStripLoad) {
    bytes jpeg = jpeg_fixture("rows420.jpg");
    check_load_faults(build_tiff({old_style_page(split_jpeg(jpeg), 16)}, false), 0);
    check_load_faults(build_tiff({simple_page(67, 45, 8, 3, 6, 6, {jpeg})}, true), 0);
}

// ---- The type 40 writer ----------------------------------------------------------

TEST(TiffJpeg, Type40RoundTripsAsTheJpegWriterAndReaderDo) {
    picture p = jpeg_testing::smooth_picture(70, 43, jpeg_testing::kind::rgb24, 3);
    int rc40 = 0, rc13 = 0;
    bytes tiff = jpeg_testing::save_at_dpi(p, IMG_TYPE_TIFF_JPEG, 150, 150, &rc40);
    bytes jpeg = jpeg_testing::save_at_dpi(p, IMG_TYPE_JPEG, 150, 150, &rc13);
    ASSERT_GT(rc40, 0);
    ASSERT_GT(rc13, 0);
    ifd_view v = parse_ifd(tiff, 8);
    const uint32_t n = static_cast<uint32_t>(v.tags.size());
    EXPECT_EQ(n, 19u);
    EXPECT_EQ(v.value(TAG_COMPRESSION), 6u);
    EXPECT_EQ(v.value(TAG_JPEG_INTERCHANGE), 8 + 12 * n + 268);
    EXPECT_EQ(v.value(TAG_STRIP_OFFSETS), v.value(TAG_JPEG_INTERCHANGE));
    EXPECT_EQ(v.value(TAG_STRIP_BYTE_COUNTS), jpeg.size()) << "patched to the stream's length";
    EXPECT_EQ(bytes(tiff.begin() + v.value(TAG_STRIP_OFFSETS), tiff.begin() + v.value(TAG_STRIP_OFFSETS) + jpeg.size()), jpeg);
    EXPECT_EQ(tiff.size(), v.value(TAG_STRIP_OFFSETS) + jpeg.size() + (jpeg.size() & 1));

    picture a = load_pic(tiff), b = load_pic(jpeg);
    EXPECT_EQ(a.rows, b.rows);
    EXPECT_GT(jpeg_testing::psnr(a, p), 30);

}

TEST(TiffJpeg, Type40EightBitStreamMissesItsInterchangeOffset) {
    using jpeg_testing::kind;
    for (kind k : {kind::grey8, kind::palette8}) {
        picture p = jpeg_testing::smooth_picture(40, 24, k, 1);
        int rc = 0;
        bytes tiff = save_pic(p, IMG_TYPE_TIFF_JPEG, &rc);
        ASSERT_GT(rc, 0);
        ifd_view v = parse_ifd(tiff, 8);
        const uint32_t n = static_cast<uint32_t>(v.tags.size()), E = k == kind::grey8 ? 0 : 6 * 256;
        // The interchange offset is P + 12n + 268 whatever the depth; the
        // stream itself starts where StripOffsets says, P + 12n + 262 + E.
        EXPECT_EQ(v.value(TAG_JPEG_INTERCHANGE), 8 + 12 * n + 268);
        EXPECT_EQ(v.value(TAG_STRIP_OFFSETS), 8 + 12 * n + 262 + E);
        EXPECT_EQ(get16be(&tiff.at(v.value(TAG_STRIP_OFFSETS))), 0xFFD8);
        EXPECT_NE(get16be(&tiff.at(v.value(TAG_JPEG_INTERCHANGE))), 0xFFD8);
        // Loading follows the interchange offset, which misses the stream.
        EXPECT_EQ(load_bytes(tiff), IMG_ERR_HEADER);
    }
}

}  // namespace
