// Type detection: the probe chain's order and flags, and the query exports.
#include "frame/formats.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

bytes padded(bytes head, size_t size = 600, uint8_t fill = 0) {
    head.resize(size, fill);
    return head;
}

std::string detected(const bytes &content) {
    block_ref b(content);
    memory_source_set(b.data);
    const format_info *f = format_of(detect_format(MEMORY_FD));
    return f ? f->ext : "";
}

int filetype_of_file(const bytes &content) {
    std::string name = temp_path("detect");
    write_file(name, content);
    int r = IMGLOW_get_filetype(name.c_str());
    std::remove(name.c_str());
    return r;
}

}  // namespace

TEST(Detect, ProbesInChainOrder) {
    int cases = 0;
    for (const std::string &line : data_lines("detect/signatures.txt")) {
        std::istringstream in(line);
        std::string want, hex;
        in >> want >> hex;
        EXPECT_EQ(detected(padded(from_hex(hex))), want) << hex;
        cases++;
    }
    EXPECT_EQ(cases, 26);
}

TEST(Detect, PictAndMacPaintReadFurtherOn) {
    bytes pict = padded({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A}, 600);
    pict[0] = 0x42, pict[1] = 0x43;  // nothing earlier claims it
    pict[3] = 0x77;
    pict[523] = 0x11;
    EXPECT_EQ(detected(pict), "pct");
    bytes mac = pict;
    mac[523] = 0;
    std::memcpy(&mac[65], "PNTG", 4);
    for (int i = 10; i < 20; i++) mac[i] = static_cast<uint8_t>(0x30 + i);
    EXPECT_EQ(detected(mac), "mac");
    EXPECT_EQ(filetype_of_file(mac), IMG_TYPE_MACPAINT);
    // With the PICT probe off, the MacPaint probe reads from elsewhere
    // (here bytes 10-19 of the file) and no longer sees the MacBinary field.
    IMGLOW_unset_auto_detect(IMG_TYPE_PICT);
    EXPECT_EQ(filetype_of_file(mac), IMG_ERR_TYPE);
    IMGLOW_set_auto_detect(IMG_TYPE_PICT);
}

TEST(Detect, FlagsFoldVariantsAndSwitchProbesOff) {
    EXPECT_EQ(IMGLOW_get_auto_detect(IMG_TYPE_TEXT), 0) << "text is off until asked for";
    EXPECT_EQ(IMGLOW_unset_auto_detect(IMG_TYPE_TIFF_G3), 1) << "8 folds onto TIFF";
    EXPECT_EQ(IMGLOW_get_auto_detect(IMG_TYPE_TIFF), 0);
    EXPECT_EQ(detected(padded({'I', 'I', 42, 0}, 600, 0x41)), "") << "no other probe claims II";
    EXPECT_EQ(IMGLOW_set_auto_detect(IMG_TYPE_TIFF_G3), 0);
    EXPECT_EQ(IMGLOW_get_auto_detect(IMG_TYPE_BMP_RLE), 1);
    for (int bad : {-2, 44, 1000}) {
        EXPECT_EQ(IMGLOW_set_auto_detect(bad), IMG_ERR_TYPE);
        EXPECT_EQ(IMGLOW_get_auto_detect(bad), IMG_ERR_TYPE);
    }
}

TEST(Detect, QueriesRefineBmpAndMapShorterListsForFdAndMemory) {
    picture p = make_picture(20, 10, 8, 9);
    int h = handle_of(p);
    bytes plain = save_bytes(h, IMG_TYPE_BMP), rle = save_bytes(h, IMG_TYPE_BMP_RLE);
    IMG_delete_bitmap(h);
    // Files from other tools are refined by name in interop/bmp_test.py.
    block_ref b(rle);
    EXPECT_EQ(IMGLOW_get_filetype_mem(b.data), IMG_TYPE_BMP_RLE);

    bytes ras = padded({0x59, 0xA6, 0x6A, 0x95});
    EXPECT_EQ(filetype_of_file(ras), IMG_TYPE_SUNRAS);
    block_ref r(ras);
    EXPECT_EQ(IMGLOW_get_filetype_mem(r.data), IMG_ERR_TYPE) << "the memory query leaves ras unmapped";
    std::string name = temp_path("detect_fd");
    write_file(name, ras);
    int fd = os_open(name.c_str(), OS_OPEN_READ);
    EXPECT_EQ(IMGLOW_get_filetype_fd(fd), IMG_ERR_TYPE);
    os_close(fd);
    write_file(name, plain);
    fd = os_open(name.c_str(), OS_OPEN_READ);
    EXPECT_EQ(IMGLOW_get_filetype_fd(fd), IMG_TYPE_BMP);
    os_close(fd);
    std::remove(name.c_str());
    EXPECT_EQ(IMGLOW_get_filetype(name.c_str()), IMG_ERR_OPEN);
    EXPECT_EQ(IMGLOW_get_filetype(""), IMG_ERR_OPEN);
    EXPECT_EQ(filetype_of_file(padded({'\'', 'C', '1', 0})), IMG_ERR_TYPE) << "IMT loads but is not reported";
}
