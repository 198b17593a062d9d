// PCX and DCX: the writer's header fields, reader variants built from small
// recipes, palette rules and DCX containers.  Hostile files are the pcx and
// dcx fuzz seeds and crash files, and the PCX rows of hostile_test.cpp.
#include "codecs/pcx.h"
#include "frame/frame.h"
#include "jpeg_support.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

struct pcx_recipe {
    int version = 5, bpp = 8, planes = 1;
    int width = 4, height = 2;
    int bpl = 4;
    int palette_info = 1;
    bytes header_palette;  // up to 48 bytes of RGB triples
    bytes data;            // run-length coded scanlines
    bytes tail;            // appended after the data (palette block)
};

bytes build(const pcx_recipe &r) {
    bytes f(128, 0);
    f[0] = 10, f[1] = static_cast<uint8_t>(r.version), f[2] = 1, f[3] = static_cast<uint8_t>(r.bpp);
    put16(&f[8], r.width - 1), put16(&f[10], r.height - 1);
    put16(&f[12], 200), put16(&f[14], 100);
    std::copy(r.header_palette.begin(), r.header_palette.end(), f.begin() + 16);
    f[65] = static_cast<uint8_t>(r.planes);
    put16(&f[66], r.bpl);
    put16(&f[68], r.palette_info);
    f.insert(f.end(), r.data.begin(), r.data.end());
    f.insert(f.end(), r.tail.begin(), r.tail.end());
    return f;
}

// Every byte sent as a literal, runs for bytes that need them.
bytes literal(const bytes &raw) {
    bytes out;
    for (uint8_t v : raw) {
        if (v >= 0xC0) out.push_back(0xC1);
        out.push_back(v);
    }
    return out;
}

}  // namespace

TEST(Pcx, WriterKeepsResolutionAndOddLineLengths) {
    picture p = make_picture(33, 3, 8, 4);
    block_ref dib(dib_of_picture(p, 300, 150));
    int h = IMG_create_handle(dib.data);
    ASSERT_GE(h, 0);
    bytes f = save_bytes(h, IMG_TYPE_PCX);
    IMG_delete_bitmap(h);
    ASSERT_GT(f.size(), 128u + 769);
    EXPECT_EQ(get16(&f[66]), 33) << "bytes per line are not rounded to even";
    h = load_bytes(f);
    uint8_t header[1064];
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 300u);
    EXPECT_EQ(get32(header + 28), 150u);
    IMG_delete_bitmap(h);
    // The 8-bit palette is still found at the end of a file at an offset.
    std::string name = temp_path("offset.pcx");
    bytes padded = f;
    padded.insert(padded.begin(), 300, 0xAB);
    write_file(name, padded);
    int fd = os_open(name.c_str(), OS_OPEN_READ);
    int back = IMG_decompress_bitmap_fd(fd, 300, 0);
    os_close(fd);
    EXPECT_EQ(picture_of(back), p);
    IMG_delete_bitmap(back);
    std::remove(name.c_str());
}

TEST(Pcx, PaletteRules) {
    bytes tail(768);
    for (int i = 0; i < 768; i++) tail[i] = static_cast<uint8_t>(i * 5);
    bytes sixteen(48);
    for (int i = 0; i < 48; i++) sixteen[i] = static_cast<uint8_t>(200 - i);
    struct {
        const char *what;
        pcx_recipe r;
        int entry;
        bytes want;  // blue, green, red of that entry
    } cases[] = {
        {"8-bit tail without marker", [&] { pcx_recipe r; r.data = literal(bytes(8, 1)); r.tail = tail; return r; }(),
         1, {uint8_t(5 * 5), uint8_t(4 * 5), uint8_t(3 * 5)}},
        {"8-bit grey", [&] { pcx_recipe r; r.palette_info = 2; r.data = literal(bytes(8, 1)); r.tail = tail; return r; }(),
         200, {200, 200, 200}},
        {"8-bit version 3", [&] { pcx_recipe r; r.version = 3; r.data = literal(bytes(8, 1)); r.tail = tail; return r; }(),
         9, {0, 0, 255}},
        {"4-bit version 0", [&] { pcx_recipe r; r.version = 0; r.bpp = 4; r.bpl = 2; r.header_palette = sixteen; r.data = literal(bytes(4, 0x12)); return r; }(),
         3, {0, 128, 128}},
        {"4-bit grey", [&] { pcx_recipe r; r.palette_info = 2; r.bpp = 4; r.bpl = 2; r.header_palette = sixteen; r.data = literal(bytes(4, 0x12)); return r; }(),
         2, {32, 32, 32}},
    };
    for (auto &c : cases) {
        picture p = load_pic(build(c.r));
        ASSERT_FALSE(p.palette.empty()) << c.what;
        EXPECT_EQ(bytes(p.palette.begin() + 4 * c.entry, p.palette.begin() + 4 * c.entry + 3), c.want) << c.what;
    }
}

TEST(Pcx, BilevelHeaderPalettesAreNormalised) {
    struct {
        bytes header_palette;
        bytes want_palette;
        uint8_t want_first;  // first stored byte for a file byte of 0xC3
    } cases[] = {
        {{255, 255, 255, 0, 0, 0}, {0, 0, 0, 0, 255, 255, 255, 0}, 0x3C},
        {{10, 20, 30, 0, 0, 0}, {0, 0, 0, 0, 255, 255, 255, 0}, 0x3C},
        {{0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 255, 255, 255, 0}, 0xC3},
        {{255, 255, 255, 255, 255, 255}, {0, 0, 0, 0, 255, 255, 255, 0}, 0xC3},
        {{255, 0, 0, 0, 0, 255}, {0, 0, 255, 0, 255, 0, 0, 0}, 0xC3},
        {{10, 0, 30, 0, 0, 0}, {30, 0, 10, 0, 0, 0, 0, 0}, 0xC3},
    };
    for (auto &c : cases) {
        pcx_recipe r;
        r.version = 2, r.bpp = 1, r.width = 8, r.height = 1, r.bpl = 1;
        r.header_palette = c.header_palette;
        r.data = {0xC1, 0xC3};
        picture p = load_pic(build(r));
        ASSERT_EQ(p.bits, 1);
        EXPECT_EQ(p.palette, c.want_palette) << int(c.header_palette[0]);
        EXPECT_EQ(p.rows[0][0], c.want_first) << int(c.header_palette[0]);
    }
}

TEST(Pcx, RunsAreCutAtTheScanlineEnd) {
    pcx_recipe r;
    r.width = 4, r.height = 3, r.bpl = 4;
    r.tail = bytes(768, 0);
    // A run of 6 (2 too many: dropped), a zero-count run that writes
    // nothing, then plain rows.
    r.data = {0xC6, 9, 0xC0, 0x55, 1, 2, 3, 4, 0xC4, 0xC7};
    picture p = load_pic(build(r));
    ASSERT_EQ(p.height, 3);
    EXPECT_EQ(p.rows[0], bytes({9, 9, 9, 9}));
    EXPECT_EQ(p.rows[1], bytes({1, 2, 3, 4}));
    EXPECT_EQ(p.rows[2], bytes({0xC7, 0xC7, 0xC7, 0xC7}));
}

TEST(Pcx, UnsupportedDepthsDecodeWithoutRows) {
    pcx_recipe r;
    r.bpp = 2, r.planes = 1, r.width = 8, r.bpl = 2, r.version = 5;
    r.data = literal(bytes(4, 0x1B));
    bytes file = build(r);
    block_ref b(file);
    jpeg_testing::sink s;
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(b.data, 0, jpeg_testing::sink_row, &s, jpeg_testing::sink_begin), 0);
    EXPECT_EQ(s.rows, std::vector<bytes>(2));
    EXPECT_EQ(load_code(file), IMG_ERR_HEADER) << "a handle holds 1, 4, 8 or 24 bits only";
}

TEST(Dcx, AddsToAContainerWithALargerTable) {
    picture first = make_picture(12, 4, 8, 21), second = make_picture(13, 5, 24, 22);
    bytes page = save_pic(first, IMG_TYPE_PCX);
    // Magic and a 1024-entry table, then the page.
    bytes file(4100 + page.size(), 0);
    put32(&file[0], 0x3ADE68B1);
    put32(&file[4], 4100);
    std::copy(page.begin(), page.end(), file.begin() + 4100);
    std::string name = temp_path("other.dcx");
    write_file(name, file);
    int h = handle_of(second);
    ASSERT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_DCX), 0);
    IMG_delete_bitmap(h);
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 2);
    bytes grown = read_file(name);
    EXPECT_EQ(load_pic(grown, nullptr, 0), first);
    EXPECT_EQ(load_pic(grown, nullptr, 1), second);
    // The added page through seven-byte reads, and through every fault.
    check_load_faults(grown, TRICKLES, 1);
    std::remove(name.c_str());
}

TEST(Dcx, TheTableHoldsNinetyNinePages) {
    std::string name = temp_path("full.dcx");
    std::remove(name.c_str());
    picture p = make_picture(3, 2, 8, 1);
    int h = handle_of(p);
    for (int i = 0; i < 99; i++) ASSERT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_DCX), 0) << i;
    bytes before = read_file(name);
    EXPECT_EQ(IMG_save_bitmap(h, name.c_str(), IMG_TYPE_DCX), IMG_ERR_PAGE);
    EXPECT_EQ(read_file(name), before) << "a refused page leaves the file alone";
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 99);
    EXPECT_EQ(load_pic(before, nullptr, 98), p);
    IMG_delete_bitmap(h);
    std::remove(name.c_str());
}
