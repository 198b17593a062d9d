// The save pipeline: type selection, crop rectangle, memory saves, depth
// refusals and brightness.
#include "frame/handles.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace {

int IMG_CALLBACK zero_row(void *, unsigned char *buffer, int, int n) {
    std::memset(buffer, 0, n);
    return 0;
}

}  // namespace

TEST(Save, TypeByExtensionIgnoresCaseAndLooksAtThreeCharacters) {
    int h = handle_of(make_picture(6, 6, 8, 1));
    std::string bmp = temp_path("UPPER.BMP"), jpeg = temp_path("photo.jpeg");
    EXPECT_EQ(IMG_save_bitmap(h, bmp.c_str(), IMG_TYPE_BY_EXTENSION), 0);
    EXPECT_EQ(IMGLOW_get_filetype(bmp.c_str()), IMG_TYPE_BMP);
    EXPECT_EQ(IMG_save_bitmap(h, jpeg.c_str(), IMG_TYPE_BY_EXTENSION), IMG_ERR_TYPE);
    EXPECT_FALSE(os_exists(jpeg.c_str())) << "nothing is created for an unknown extension";
    EXPECT_EQ(IMG_save_bitmap(h, "/nonexistent-dir/x.bmp", IMG_TYPE_BMP), IMG_ERR_CREATE);
    std::remove(bmp.c_str());
    IMG_delete_bitmap(h);
}

TEST(Save, CropRectangleSelectsTheWrittenPixels) {
    for (int bits : {8, 24}) {
        picture p = make_picture(32, 20, bits, 11);
        int h = handle_of(p);
        ASSERT_EQ(IMG_set_croprect(h, 8, 3, 16, 16), 0);
        picture got = load_pic(save_bytes(h, IMG_TYPE_BMP));
        IMG_delete_bitmap(h);
        ASSERT_EQ(got.width, 16);
        ASSERT_EQ(got.height, 16);
        int bpp = bits / 8;
        for (int y = 0; y < 16; y++)
            EXPECT_EQ(0, std::memcmp(got.rows[y].data(), p.rows[y + 3].data() + 8 * bpp, 16 * bpp)) << "row " << y;
    }
}

// A save to memory reports the bytes a save to a file writes, and they are
// the same bytes (no system's line ends slip in).
TEST(Save, MemorySavesEqualFileSaves) {
    int h = handle_of(make_picture(13, 9, 8, 2));
    std::string name = temp_path("mem");
    for (int type : {IMG_TYPE_BMP, IMG_TYPE_BMP_RLE, IMG_TYPE_PCX, IMG_TYPE_GIF, IMG_TYPE_TARGA, IMG_TYPE_JPEG}) {
        std::remove(name.c_str());
        ASSERT_EQ(IMG_save_bitmap(h, name.c_str(), type), 0) << type;
        EXPECT_EQ(read_file(name), save_bytes(h, type)) << type;
    }
    std::remove(name.c_str());
    IMG_delete_bitmap(h);
}

// Depths a writer cannot hold are refused before anything is written: a
// TIFF that would have taken a page stays as it was, other files stay empty.
TEST(Save, WritersRefuseDepthsTheyCannotHold) {
    struct {
        int type;
        std::vector<int> depths;
        int code;
    } cases[] = {
        {IMG_TYPE_BMP_RLE, {1, 24}, IMG_ERR_DEPTH},      {IMG_TYPE_GIF, {1, 24}, IMG_ERR_DEPTH},
        {IMG_TYPE_TARGA, {1, 4}, IMG_ERR_DEPTH},         {IMG_TYPE_TARGA16, {4, 8}, IMG_ERR_TYPE},
        {IMG_TYPE_JPEG, {1, 4}, IMG_ERR_DEPTH},          {IMG_TYPE_TIFF_JPEG, {1, 4}, IMG_ERR_DEPTH},
        {IMG_TYPE_TIFF_HUFFMAN, {4, 8, 24}, IMG_ERR_DEPTH}, {IMG_TYPE_TIFF_G3, {4, 8, 24}, IMG_ERR_DEPTH},
        {IMG_TYPE_TIFF_G4, {4, 8, 24}, IMG_ERR_DEPTH},   {IMG_TYPE_RAW_G3, {8}, IMG_ERR_DEPTH},
        {IMG_TYPE_RAW_G4, {4, 8, 24}, IMG_ERR_DEPTH},
    };
    const std::string name = temp_path("refused");
    const bytes tiff = save_pic(make_picture(9, 9, 24, 1), IMG_TYPE_TIFF);
    for (auto &c : cases)
        for (int bits : c.depths) {
            write_file(name, tiff);
            int h = handle_of(make_picture(30, 20, bits, 2));
            EXPECT_EQ(IMG_save_bitmap(h, name.c_str(), c.type), c.code) << c.type << "/" << bits;
            bool tiff_page = c.type == IMG_TYPE_TIFF_JPEG || c.type == IMG_TYPE_TIFF_HUFFMAN ||
                             c.type == IMG_TYPE_TIFF_G3 || c.type == IMG_TYPE_TIFF_G4;
            EXPECT_EQ(read_file(name), tiff_page ? tiff : bytes{}) << c.type << "/" << bits;
            IMG_delete_bitmap(h);
        }
    std::remove(name.c_str());
}

TEST(Save, CodesWithoutWriterGiveMinusSevenAndLeaveNoScratch) {
    uint8_t header[1064] = {};
    put32(header, 40), put32(header + 4, 4), put32(header + 8, 4), put16(header + 12, 1), put16(header + 14, 8);
    block_ref b(uint32_t{4096});
    for (int type : {17, 19, 21, 38, 39, 44, 99, -5}) {
        EXPECT_EQ(IMGLOW_save_bitmap_mem(b.data, header, type, zero_row, nullptr), IMG_ERR_TYPE) << type;
        EXPECT_EQ(scratch_count(), 0);
    }
}

TEST(Save, BrightnessAndContrastApplyPerByteOrToThePalette) {
    uint8_t levels[256];
    build_level_table(100, 20, 10, levels);
    EXPECT_EQ(levels[0], 11) << "276 * 20 / 255 - 10, truncated";
    EXPECT_EQ(levels[255], 255);
    struct {
        int bits;
        bool grey;
        bool to_memory;
        bool per_byte;  // else the palette is mapped and the pixels kept
    } cases[] = {
        {24, false, false, true}, {24, false, true, true},  {8, true, false, true},
        {8, true, true, false},   {8, false, false, false}, {4, true, false, true},
    };
    for (auto &c : cases) {
        picture p = c.grey ? grey_palette_picture(10, 4, c.bits, 3) : make_picture(10, 4, c.bits, 3);
        int h = handle_of(p);
        ASSERT_EQ(IMG_set_lut(h, 20, 10), 0);
        bytes file;
        if (c.to_memory) {
            file = save_bytes(h, IMG_TYPE_BMP);
        } else {
            std::string name = temp_path("levels.bmp");
            ASSERT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_BMP), 0);
            file = read_file(name);
            std::remove(name.c_str());
        }
        EXPECT_EQ(picture_of(h), p) << "the bitmap itself is never changed";
        IMG_delete_bitmap(h);
        picture got = load_pic(file);
        picture want = p;
        if (c.per_byte) {
            for (auto &row : want.rows)
                for (auto &v : row) v = levels[v];
        } else {
            for (size_t i = 0; i < want.palette.size(); i++)
                if (i % 4 != 3) want.palette[i] = levels[want.palette[i]];
        }
        // Padding bytes pass through the table too; compare what a picture holds.
        for (size_t y = 0; y < want.rows.size(); y++) {
            int used = c.bits == 24 ? 30 : c.bits == 8 ? 10 : 5;
            EXPECT_EQ(bytes(got.rows[y].begin(), got.rows[y].begin() + used),
                      bytes(want.rows[y].begin(), want.rows[y].begin() + used))
                << c.bits << (c.grey ? " grey" : " colour") << (c.to_memory ? " memory" : " file");
        }
        EXPECT_EQ(got.palette, want.palette) << c.bits << (c.grey ? " grey" : " colour");
    }
}
