// TIFF writers: every type at every depth it takes read back identical, the
// IFD laid out as readers expect, page append, raw fax output, and failures.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>

#include "codecs/ccitt.h"
#include "codecs/codecs.h"
#include "codecs/tiff.h"
#include "frame/frame.h"
#include "test_util.h"

namespace {

struct ifd_view {
    std::map<int, tiff_ifd_entry> tags;
    uint32_t next = 0;
};

ifd_view parse_ifd(const bytes &f, uint32_t at) {
    ifd_view v;
    int n = get16(&f.at(at));
    for (int i = 0; i < n; i++) {
        const uint8_t *e = &f.at(at + 2 + 12 * i);
        v.tags[get16(e)] = {get16(e), get16(e + 2), get32(e + 4), get32(e + 8)};
    }
    v.next = get32(&f.at(at + 2 + 12 * n));
    return v;
}

uint32_t value(const ifd_view &v, int tag) {
    auto it = v.tags.find(tag);
    return it == v.tags.end() ? 0xFFFFFFFFu : it->second.value;
}

// A picture with structure as well as noise: diagonal bands, blocks, and
// random rows, so fax coding meets vertical, pass and horizontal modes.
picture bilevel_page(int w, int h, uint32_t seed) {
    picture p = make_picture(w, h, 1, seed);
    for (int y = 0; y < h / 2; y++) {
        bytes &row = p.rows[y];
        std::fill(row.begin(), row.end(), 0);
        for (int x = 0; x < w; x++) {
            bool black = ((x + y) / 7) % 3 == 0 || (x > w / 3 && x < w / 3 + y % 40) || (x % 97 == y % 97);
            if (black) row[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
        }
    }
    return p;
}

TEST(TiffWrite, EveryTypeAtEveryDepthReadsBackIdentical) {
    struct depth_case {
        const char *what;
        picture p;
    };
    std::vector<depth_case> depths = {
        {"1-bit", bilevel_page(203, 61, 5)},
        {"4-bit grey", grey_palette_picture(37, 23, 4, 6)},
        {"4-bit colour", make_picture(37, 23, 4, 7)},
        {"8-bit grey", grey_palette_picture(61, 29, 8, 8)},
        {"8-bit colour", make_picture(61, 29, 8, 9)},
        {"24-bit", make_picture(45, 31, 24, 10)},
        {"8-bit tall, many LZW strips", make_picture(300, 200, 8, 11)},
        {"24-bit wide", make_picture(2100, 9, 24, 12)},
    };
    for (auto &d : depths) {
        int h = handle_of(d.p);
        for (int type : {0, 7, 8, 9, 10, 16}) {
            bool fax = type == 7 || type == 8 || type == 10;
            int rc = 0;
            bytes file = save_bytes(h, type, &rc);
            if (fax && d.p.bits != 1) {
                EXPECT_EQ(rc, IMG_ERR_DEPTH) << d.what << " type " << type;
                continue;
            }
            ASSERT_GT(rc, 0) << d.what << " type " << type;
            int code = 0;
            picture back = load_pic(file, &code);
            ASSERT_GT(code, 0) << d.what << " type " << type;
            if (fax) {  // written white-is-zero: index 0 comes back white, index 1 black
                picture white_first = d.p;
                white_first.palette = {255, 255, 255, 0, 0, 0, 0, 0};
                EXPECT_EQ(appearance(back), appearance(white_first)) << d.what << " type " << type;
            } else if (d.p.bits == 1) {
                EXPECT_EQ(back.rows, d.p.rows) << d.what << " type " << type;
            } else {
                // A 4-bit grey ramp goes without a ColorMap; the loader's own ramp steps by 16.
                if (d.p.bits != 4 || d.p.palette[4] != 17) {
                    EXPECT_EQ(back.palette, d.p.palette) << d.what << " type " << type;
                }
                EXPECT_EQ(back.rows, d.p.rows) << d.what << " type " << type;
            }
        }
        IMG_delete_bitmap(h);
    }
}

TEST(TiffWrite, LzwCompressesAndResetsItsTableOnLargeNoise) {
    picture noise = make_picture(1000, 200, 8, 21);
    picture flat = make_picture(1000, 200, 8, 22);
    for (auto &row : flat.rows) std::fill(row.begin(), row.end(), 7);
    for (auto *p : {&noise, &flat}) {
        int h = handle_of(*p);
        int rc = 0;
        bytes file = save_bytes(h, IMG_TYPE_TIFF_LZW, &rc);
        ASSERT_GT(rc, 0);
        EXPECT_EQ(load_pic(file), *p);
        if (p == &flat) {
            EXPECT_LT(file.size(), 40000u) << "flat rows compress";
        }
        ifd_view v = parse_ifd(file, 8);
        EXPECT_EQ(value(v, TAG_ROWS_PER_STRIP), 8u);
        EXPECT_EQ(v.tags[TAG_STRIP_OFFSETS].count, 25u);
        IMG_delete_bitmap(h);
    }
}

TEST(TiffWrite, IfdLayoutAndDefaults) {
    picture page = make_picture(640, 480, 1, 3);
    int h = handle_of(page);
    struct {
        int type;
        uint32_t photometric, fill, xres, xden, yres, yden, t4, n;
    } cases[] = {
        {8, 0, 2, 200, 1, 200, 1, 4, 19},
        {0, 1, 1, 640, 9, 480, 7, 0xFFFFFFFF, 18},
        {10, 0, 2, 640, 9, 480, 7, 0xFFFFFFFF, 18},
        {7, 0, 1, 640, 9, 480, 7, 0xFFFFFFFF, 18},
    };
    for (auto &c : cases) {
        bytes f = save_bytes(h, c.type);
        ASSERT_GT(f.size(), 8u);
        EXPECT_EQ(get16(f.data()), TIFF_II);
        EXPECT_EQ(get32(f.data() + 4), 8u);
        ifd_view v = parse_ifd(f, 8);
        EXPECT_EQ(v.tags.size(), c.n) << c.type;
        EXPECT_EQ(value(v, TAG_PHOTOMETRIC), c.photometric) << c.type;
        EXPECT_EQ(value(v, TAG_FILL_ORDER), c.fill) << c.type;
        EXPECT_EQ(value(v, TAG_T4_OPTIONS), c.t4) << c.type;
        uint32_t xr = value(v, TAG_X_RESOLUTION), yr = value(v, TAG_Y_RESOLUTION);
        EXPECT_EQ(xr, 8 + 12 * c.n + 6);
        EXPECT_EQ(yr, xr + 8);
        EXPECT_EQ(get32(&f[xr]), c.xres);
        EXPECT_EQ(get32(&f[xr + 4]), c.xden);
        EXPECT_EQ(get32(&f[yr]), c.yres);
        EXPECT_EQ(get32(&f[yr + 4]), c.yden);
        uint32_t data = value(v, TAG_STRIP_OFFSETS);
        EXPECT_EQ(data, 8 + 12 * c.n + 262);
        EXPECT_EQ(value(v, TAG_DATE_TIME), 8 + 12 * c.n + 22);
        EXPECT_EQ(v.tags[TAG_DATE_TIME].count, 20u);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(&f[8 + 12 * c.n + 62])), settings.bitmap_name);
        EXPECT_EQ(data + value(v, TAG_STRIP_BYTE_COUNTS), f.size() - (f.size() & 1 ? 0 : (f.size() - data) & 1))
            << "the byte count covers the data up to the end (an odd end gets one pad byte)";
        // Entries ascend, as readers require.
        int last = 0;
        for (int i = 0; i < static_cast<int>(c.n); i++) {
            int tag = get16(&f[10 + 12 * i]);
            EXPECT_GT(tag, last);
            last = tag;
        }
    }
    IMG_delete_bitmap(h);

    // Colour maps only for palettes that are not grey ramps; 24-bit gets 8,8,8.
    struct {
        picture p;
        uint32_t photometric;
        bool map;
    } maps[] = {
        {grey_palette_picture(9, 5, 4, 1), 1, false},
        {make_picture(9, 5, 4, 1), 3, true},
        {grey_palette_picture(9, 5, 8, 1), 1, false},
        {make_picture(9, 5, 8, 1), 3, true},
    };
    for (auto &m : maps) {
        int hh = handle_of(m.p);
        bytes f = save_bytes(hh, 0);
        ifd_view v = parse_ifd(f, 8);
        EXPECT_EQ(value(v, TAG_PHOTOMETRIC), m.photometric);
        EXPECT_EQ(v.tags.count(TAG_COLOR_MAP), m.map ? 1u : 0u);
        if (m.map) {
            uint32_t at = value(v, TAG_COLOR_MAP), N = 1u << m.p.bits;
            EXPECT_EQ(get16(&f[at + 2]), m.p.palette[6] * 256u) << "red of entry 1";
            EXPECT_EQ(get16(&f[at + 2 * N + 2]), m.p.palette[5] * 256u) << "green of entry 1";
            EXPECT_EQ(value(v, TAG_STRIP_OFFSETS), 8 + 12 * 19 + 262 + 6 * N);
        }
        IMG_delete_bitmap(hh);
    }
    int rgb = handle_of(make_picture(5, 5, 24, 2));
    bytes f = save_bytes(rgb, 16);
    ifd_view v = parse_ifd(f, 8);
    EXPECT_EQ(v.tags[TAG_BITS_PER_SAMPLE].count, 3u);
    uint32_t bps = value(v, TAG_BITS_PER_SAMPLE);
    EXPECT_EQ(bps, 8u + 12 * 18 + 22);
    EXPECT_EQ(get16(&f[bps]), 8);
    EXPECT_EQ(get16(&f[bps + 2]), 8);
    EXPECT_EQ(get16(&f[bps + 4]), 8);
    EXPECT_EQ(value(v, TAG_SAMPLES_PER_PIXEL), 3u);
    EXPECT_EQ(value(v, TAG_PHOTOMETRIC), 2u);
    IMG_delete_bitmap(rgb);
}

TEST(TiffWrite, SecondSaveAppendsAPageAndMotorolaFilesAreOverwritten) {
    std::string name = temp_path("append.tif");
    std::remove(name.c_str());
    picture a = bilevel_page(120, 40, 1), b = make_picture(33, 17, 24, 2);
    int ha = handle_of(a), hb = handle_of(b);
    ASSERT_EQ(IMG_save_bitmap(ha, name.c_str(), IMG_TYPE_TIFF_G4), 0);
    size_t first_size = read_file(name).size();
    ASSERT_EQ(IMG_save_bitmap(hb, name.c_str(), IMG_TYPE_TIFF_LZW), 0);
    bytes f = read_file(name);
    ifd_view first = parse_ifd(f, 8);
    EXPECT_EQ(first.next, first_size + (first_size & 1));
    EXPECT_EQ(parse_ifd(f, first.next).next, 0u);
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 2);
    int fd2 = os_open(name.c_str(), OS_OPEN_READ);
    int h2 = IMG_decompress_bitmap_fd(fd2, 0, 1);
    os_close(fd2);
    ASSERT_GT(h2, 0);
    EXPECT_EQ(picture_of(h2), b);
    IMG_delete_bitmap(h2);

    bytes mm = {'M', 'M', 0, 42, 0, 0, 0, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    write_file(name, mm);
    ASSERT_EQ(IMG_save_bitmap(hb, name.c_str(), 0), 0);
    f = read_file(name);
    EXPECT_EQ(get16(f.data()), TIFF_II);
    EXPECT_EQ(parse_ifd(f, 8).next, 0u);
    EXPECT_EQ(load_pic(f), b);

    // A chain that cannot be followed (past the end, or in a loop) is not
    // appended to; the file stays as it was.
    for (bytes broken : {bytes{'I', 'I', 42, 0, 0xF0, 0xFF, 0, 0}, bytes{'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 8, 0, 0, 0}}) {
        write_file(name, broken);
        EXPECT_EQ(IMG_save_bitmap(hb, name.c_str(), 0), IMG_ERR_HEADER);
        EXPECT_EQ(read_file(name), broken);
    }
    std::remove(name.c_str());
    IMG_delete_bitmap(ha), IMG_delete_bitmap(hb);
}

TEST(TiffWrite, RawFaxOutputDecodesWithTheFaxLoader) {
    picture p = bilevel_page(1728, 50, 4);
    int h = handle_of(p);
    std::string name = temp_path("raw.fax");
    for (int type : {33, 34}) {
        std::remove(name.c_str());
        ASSERT_EQ(IMG_save_bitmap(h, name.c_str(), type), 0) << type;
        int fd = os_open(name.c_str(), OS_OPEN_READ);
        int back = IMG_decompress_fax(fd, 1728, 0, type == 34 ? 4 : 3, 1);
        os_close(fd);
        ASSERT_GT(back, 0) << type;
        picture q = picture_of(back);
        EXPECT_EQ(q.height, 50) << "the loader counts the rows the data holds";
        EXPECT_EQ(q.rows, p.rows) << type;
        IMG_delete_bitmap(back);
    }
    int grey = handle_of(make_picture(8, 8, 8, 1));
    int rc = 0;
    save_bytes(grey, 34, &rc);
    EXPECT_EQ(rc, IMG_ERR_DEPTH);
    IMG_delete_bitmap(grey);
    std::remove(name.c_str());
    IMG_delete_bitmap(h);
}

TEST(TiffWrite, ShortWritesGiveMinusNineAndAllocationFailureMinusOne) {
    picture p = bilevel_page(500, 80, 9);
    picture c = make_picture(300, 90, 24, 9);
    int hp = handle_of(p), hc = handle_of(c);
    std::string name = temp_path("short.tif");
    for (int type : {0, 7, 8, 9, 10, 16, 33, 34})
        for (size_t limit : {0, 5, 8, 100, 300, 2000}) {
            std::remove(name.c_str());
            EXPECT_EQ(save_with_write_budget(type == 0 || type == 9 || type == 16 ? hc : hp, type, limit, name.c_str()),
                      IMG_ERR_WRITE) << "type " << type << " limit " << limit;
        }
    // Failing each allocation in turn: -1, no block left, and an existing
    // file untouched.
    for (int type : {0, 8, 9, 10, 16}) {
        std::remove(name.c_str());
        ASSERT_EQ(IMG_save_bitmap(hp, name.c_str(), type), 0);
        bytes before = read_file(name);
        for (int k = 1;; k++) {
            int live = mem_live_blocks();
            mem_fail_after(k);
            int r = IMG_save_bitmap(hp, name.c_str(), type);
            mem_fail_after(0);
            EXPECT_EQ(mem_live_blocks(), live) << "k=" << k;
            if (r >= 0) break;
            EXPECT_EQ(r, IMG_ERR_MEMORY) << "type " << type << " k=" << k;
            EXPECT_EQ(read_file(name), before) << "type " << type << " k=" << k;
            EXPECT_EQ(picture_of(hp), p);
            ASSERT_LT(k, 30);
        }
        EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 2) << type;
    }
    std::remove(name.c_str());
    IMG_delete_bitmap(hp), IMG_delete_bitmap(hc);
}

}  // namespace
