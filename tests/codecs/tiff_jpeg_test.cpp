// JPEG inside TIFF: stored old-style files (strips of bare entropy-coded
// segments, their tables in the IFD), whole streams in strips, the type 40
// writer, and damaged or refused files.
#include <gtest/gtest.h>

#include <sstream>

#include "codecs/tiff.h"
#include "jpeg_support.h"
#include "tiff_test_util.h"

namespace {

bytes jpeg_fixture(const std::string &name) {
    return read_file(std::string(BRIVANTA_FIXTURES) + (name.rfind("rows", 0) == 0 ? "/tiffjpeg/" : "/jpeg/") + name);
}

// Our decoder's rows for a JPEG file image.
std::vector<bytes> jpeg_rows(const bytes &file) {
    jpeg_testing::sink s;
    EXPECT_EQ(jpeg_testing::run_reader_on(file, s, jpeg_read_file), 0);
    return s.rows;
}

}  // namespace

// Each stored file gives its code; good ones decode as the baseline file
// they were taken from does, every row once, and bad ones leave no block.
TEST(TiffJpeg, StoredFilesDecodeAsTheirBaselineFile) {
    int files = 0;
    for (const std::string &line : data_lines("tiff_jpeg/list.txt")) {
        std::istringstream in(line);
        std::string name, reference;
        int rc, page;
        in >> name >> rc >> page >> reference;
        const int live = mem_live_blocks();
        decoded d = run_tiff(read_file(data_path("tiff_jpeg/" + name)), page ? static_cast<int32_t>(WHERE_PAGE | page) : 0);
        EXPECT_EQ(d.rc, rc) << name;
        EXPECT_EQ(mem_live_blocks(), live) << name;
        if (reference == "-") continue;
        const std::vector<bytes> want = jpeg_rows(jpeg_fixture(reference));
        EXPECT_EQ(d.calls, static_cast<int>(want.size())) << name << ": every row once";
        EXPECT_EQ(d.rows, want) << name;
        files++;
    }
    EXPECT_EQ(files, 13);
}

TEST(TiffJpeg, WholeStreamsInStripsAndTypeDetection) {
    // Each strip a complete file: two pictures stacked as two strips, their
    // offsets and counts as longs and as pairs of shorts held in the entry.
    bytes top = jpeg_fixture("c420.jpg"), bottom = jpeg_fixture("c422.jpg");
    std::vector<bytes> both = jpeg_rows(top), lower = jpeg_rows(bottom);
    both.insert(both.end(), lower.begin(), lower.end());
    for (uint16_t type : {4, 3}) {
        tiff_page page = simple_page(67, 90, 8, 3, 6, 6, {top, bottom}, 45);
        set_field(page, 273, type, {});
        set_field(page, 279, type, {});
        bytes tiff = build_tiff({page}, false);
        decoded d = run_tiff(tiff);
        ASSERT_EQ(d.rc, 0) << type;
        EXPECT_EQ(d.rows, both) << type;
        EXPECT_EQ(IMGLOW_get_filetype_mem(block_ref(tiff).data), IMG_TYPE_TIFF_JPEG);
    }
}

// Failing allocations and reads cut short, on strips of segments and on
// strips that are whole streams.
TEST(TiffJpeg, FaultsDuringAStripLoad) {
    check_load_faults(read_file(data_path("tiff_jpeg/rows420_16_rows.tif")), 0);
    check_load_faults(build_tiff({simple_page(67, 45, 8, 3, 6, 6, {jpeg_fixture("rows420.jpg")})}, true), 0);
}

// ---- The type 40 writer ----------------------------------------------------------

// The file holds the JPEG writer's stream and reads as it does (libtiff's
// decode against the source is in interop/writers_test.py).
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
