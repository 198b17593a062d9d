// Clipboard files: what the writer puts out, read by a parser that follows
// the file's published layout (entries of 89 bytes); files built from
// recipes through the reader, with its kept reading of the entry list.
#include "embedded_dib.h"

#include <gtest/gtest.h>

namespace {

struct entry {
    uint16_t format;
    bytes data;
    std::string name;
};

// A clipboard file of these entries, each with its 79-byte name field.
bytes clipboard_file(const std::vector<entry> &entries) {
    bytes f(4, 0);
    put16(&f[0], 50000);
    put16(&f[2], static_cast<uint32_t>(entries.size()));
    uint32_t at = 4 + 89 * static_cast<uint32_t>(entries.size());
    bytes body;
    for (const entry &e : entries) {
        bytes h(89, 0);
        put16(&h[0], e.format);
        put32(&h[2], static_cast<uint32_t>(e.data.size()));
        put32(&h[6], at + static_cast<uint32_t>(body.size()));
        std::memcpy(&h[10], e.name.data(), std::min<size_t>(e.name.size(), 78));
        f.insert(f.end(), h.begin(), h.end());
        body.insert(body.end(), e.data.begin(), e.data.end());
    }
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

// The CF_DIB entry of a file found the published way; its data as a
// picture, with the header's resolution fields.
picture parse_cf_dib(const bytes &f, int32_t *xppm = nullptr, int32_t *yppm = nullptr) {
    picture p;
    if (f.size() < 4 || get16(&f[0]) != 50000) return p;
    for (uint32_t i = 0, n = get16(&f[2]); i < n; i++) {
        const uint8_t *e = &f[4 + 89 * i];
        if (get16(e) != 8) continue;
        const uint8_t *d = &f[get32(e + 6)];
        EXPECT_EQ(get32(e + 2), f.size() - get32(e + 6)) << "the entry's length";
        p.width = static_cast<int>(get32(d + 4)), p.height = static_cast<int>(get32(d + 8)), p.bits = get16(d + 14);
        EXPECT_EQ(get32(d), 40u);
        EXPECT_EQ(get32(d + 16), 0u) << "compression";
        EXPECT_EQ(get32(d + 32), 0u) << "colours used";
        if (xppm) *xppm = static_cast<int32_t>(get32(d + 24)), *yppm = static_cast<int32_t>(get32(d + 28));
        const size_t table = p.bits == 24 ? 0 : 4u << p.bits, stride = ((p.width * p.bits + 31) / 32) * 4;
        p.palette.assign(d + 40, d + 40 + table);
        for (int y = 0; y < p.height; y++) {
            const uint8_t *r = d + 40 + table + (p.height - 1 - y) * stride;
            p.rows.emplace_back(r, r + stride);
        }
    }
    return p;
}

}  // namespace

TEST(Clipboard, WriterLayoutReadsAsPublished) {
    for (int bits : {1, 4, 8, 24})
        for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {61, 20}}) {
            picture p = make_picture(w, h, bits, w + bits);
            block_ref dib(dib_of_picture(p, 300, 150));
            int handle = IMG_create_handle(dib.data);
            bytes f = save_bytes(handle, IMG_TYPE_CLIPBOARD);
            IMG_delete_bitmap(handle);
            ASSERT_GT(f.size(), 93u);
            EXPECT_EQ(bytes(f.begin(), f.begin() + 4), (bytes{0x50, 0xC3, 1, 0}));
            EXPECT_EQ(get32(&f[10]), 93u) << "the data follows the one entry";
            int32_t x = 0, y = 0;
            EXPECT_EQ(parse_cf_dib(f, &x, &y), p) << bits << " bits, " << w << "x" << h;
            EXPECT_EQ(x, 11811) << "300 dpi, truncated";
            EXPECT_EQ(y, 5905);
            EXPECT_EQ(announced(f).biXPelsPerMeter, 299) << "and back, truncated again";
        }
}

TEST(Clipboard, ReaderTakesTheDibEntry) {
    picture p8 = make_picture(13, 9, 8, 2), p4 = make_picture(10, 4, 4, 3);
    const bytes bitmap_junk(64, 0x11);
    struct {
        const char *what;
        std::vector<entry> entries;
        picture want;  // empty: refused with code
        int code;
    } cases[] = {
        {"plain first", {{8, plain_dib(p8), ""}, {2, bitmap_junk, ""}}, p8, 0},
        {"RLE8", {{8, rle_dib(p8), ""}}, p8, 0},
        {"RLE4", {{8, rle_dib(p4), ""}}, p4, 0},
        {"16 bits", {{8, dib16(five_bit(make_picture(6, 5, 24, 4))), ""}}, five_bit(make_picture(6, 5, 24, 4)), 0},
        // The names are not skipped: a second entry is only found when the
        // first one's name reads as a record of identifier 8.
        {"DIB second", {{2, bitmap_junk, ""}, {8, plain_dib(p8), ""}}, {}, IMG_ERR_TYPE},
        {"no DIB", {{2, bitmap_junk, ""}}, {}, IMG_ERR_TYPE},
    };
    for (auto &c : cases) {
        int code = 0;
        picture got = load_pic(clipboard_file(c.entries), &code);
        EXPECT_EQ(code, c.want.width ? 0 : c.code) << c.what;
        EXPECT_EQ(got, c.want) << c.what;
    }
    // A first entry's name whose bytes make a record of identifier 8 whose
    // offset points at the real DIB.
    bytes f = clipboard_file({{2, bitmap_junk, ""}, {8, plain_dib(p8), ""}});
    put16(&f[4 + 10], 8);
    put32(&f[4 + 10 + 6], get32(&f[4 + 89 + 6]));
    EXPECT_EQ(load_pic(f), p8);
}

TEST(Clipboard, ReaderTablesAndResolution) {
    // A bilevel table of white first is made black first over inverted rows.
    picture bw = make_picture(16, 3, 1, 5), white_first = bw;
    white_first.palette = {255, 255, 255, 0, 0, 0, 0, 0};
    for (bytes &r : white_first.rows)
        for (int i = 0; i < 2; i++) r[i] = static_cast<uint8_t>(~r[i]);
    EXPECT_EQ(load_pic(clipboard_file({{8, plain_dib(white_first), ""}})), bw);

    // A short table of colours used, the pixels right after it.
    picture p = make_picture(5, 4, 8, 6);
    for (auto &r : p.rows)
        for (int x = 0; x < 5; x++) r[x] %= 3;
    bytes d = plain_dib(p, 3780, 3780);
    put32(&d[32], 3);
    d.erase(d.begin() + 40 + 12, d.begin() + 40 + 1024);
    bytes f = clipboard_file({{8, d, ""}});
    picture got = load_pic(f);
    ASSERT_EQ(got.rows, p.rows);
    EXPECT_EQ(bytes(got.palette.begin(), got.palette.begin() + 12), bytes(p.palette.begin(), p.palette.begin() + 12));
    dib_info info = announced(f);
    EXPECT_EQ(info.biXPelsPerMeter, 96);
    EXPECT_EQ(info.biClrUsed, 0u);
}

TEST(Clipboard, HostileFilesEndWithCleanCodes) {
    picture p = make_picture(12, 6, 4, 7);
    const bytes good = clipboard_file({{8, plain_dib(p), ""}});
    const size_t dib = 4 + 89;
    struct {
        const char *what;
        size_t at;
        uint32_t value;
        int want;
    } cases[] = {
        {"RLE8 at 4 bits", dib + 16, 1, IMG_ERR_HEADER},  {"bit fields", dib + 16, 3, IMG_ERR_HEADER},
        {"core header", dib, 12, IMG_ERR_HEADER},         {"zero height", dib + 8, 0, IMG_ERR_HEADER},
        {"huge width", dib + 4, 0x7FFFFFFF, IMG_ERR_HEADER}, {"too many colours", dib + 32, 257, IMG_ERR_HEADER},
        {"offset far out", 4 + 6, 0x7FFFFFF0, IMG_ERR_HEADER}, {"offset past the end", 4 + 6, 1 << 24, IMG_ERR_DATA},
        {"entry count past the end", 2, 40, IMG_ERR_HEADER},
    };
    for (auto &c : cases) {
        bytes f = good;
        put32(&f[c.at], c.value);
        if (c.at == 2) f = bytes(f.begin(), f.begin() + 4 + 9);
        int code = 0;
        load_pic(f, &code);
        EXPECT_EQ(code, c.want) << c.what;
    }
    for (size_t cut : {size_t{2}, size_t{9}, dib + 20, dib + 40 + 30}) {
        int code = 0;
        load_pic(bytes(good.begin(), good.begin() + cut), &code);
        EXPECT_LT(code, 0) << "cut at " << cut;
    }
}

TEST(Clipboard, Faults) { check_load_faults(clipboard_file({{8, rle_dib(make_picture(40, 30, 8, 1)), ""}}), TRICKLES); }
