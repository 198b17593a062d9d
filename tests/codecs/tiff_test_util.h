// Test helpers for TIFF and fax: a small TIFF file builder in either byte
// order, a capturing reader run, IFD parsing, and the fixtures' pictures.
#pragma once
#include "test_util.h"

#include "codecs/codecs.h"
#include "codecs/tiff.h"
#include "frame/frame.h"

#include <algorithm>
#include <cstring>
#include <map>

struct tiff_field {
    uint16_t tag;
    uint16_t type;
    std::vector<uint32_t> values;  // empty for 273/279/324: filled from the strips
    uint32_t count = 0;            // 0: the number of values
};

struct tiff_page {
    std::vector<tiff_field> fields;
    std::vector<bytes> strips;
};

// Lays out a file: header, then per page its strips, value blocks and IFD.
inline bytes build_tiff(const std::vector<tiff_page> &pages, bool mm, uint16_t version = 42) {
    bytes out;
    auto put = [&](uint32_t v, int n) {  // n bytes in the file's order
        for (int i = 0; i < n; i++) out.push_back(static_cast<uint8_t>(v >> 8 * (mm ? n - 1 - i : i)));
    };
    auto patch = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; i++) out[at + i] = static_cast<uint8_t>(v >> 8 * (mm ? 3 - i : i));
    };
    auto size_of = [](const tiff_field &f) {
        uint32_t unit = f.type == 3 ? 2 : f.type == 1 || f.type == 2 ? 1 : 4;
        return static_cast<uint32_t>(f.values.size()) * unit;  // rationals hold two values each
    };
    out = {static_cast<uint8_t>(mm ? 'M' : 'I'), static_cast<uint8_t>(mm ? 'M' : 'I')};
    put(version, 2);
    size_t link = out.size();
    put(0, 4);
    for (const tiff_page &page : pages) {
        std::vector<uint32_t> offsets, counts;
        for (const bytes &s : page.strips) {
            offsets.push_back(static_cast<uint32_t>(out.size()));
            counts.push_back(static_cast<uint32_t>(s.size()));
            out.insert(out.end(), s.begin(), s.end());
        }
        // Value blocks first, so the IFD can point at them.
        std::vector<tiff_field> fields = page.fields;
        std::vector<uint32_t> at(fields.size());
        for (size_t i = 0; i < fields.size(); i++) {
            tiff_field &f = fields[i];
            if (f.values.empty() && (f.tag == 273 || f.tag == 324)) f.values = offsets;
            if (f.values.empty() && f.tag == 279) f.values = counts;
            if (!f.count) f.count = static_cast<uint32_t>(f.type == 5 ? f.values.size() / 2 : f.values.size());
            if (size_of(f) <= 4) continue;
            if (out.size() & 1) out.push_back(0);
            at[i] = static_cast<uint32_t>(out.size());
            for (uint32_t v : f.values) put(v, f.type == 3 ? 2 : f.type == 1 || f.type == 2 ? 1 : 4);
        }
        if (out.size() & 1) out.push_back(0);
        patch(link, static_cast<uint32_t>(out.size()));
        put(static_cast<uint32_t>(fields.size()), 2);
        for (size_t i = 0; i < fields.size(); i++) {
            const tiff_field &f = fields[i];
            put(f.tag, 2), put(f.type, 2), put(f.count, 4);
            if (size_of(f) > 4) {
                put(at[i], 4);
                continue;
            }
            size_t start = out.size();
            for (uint32_t v : f.values) put(v, f.type == 3 ? 2 : f.type == 1 || f.type == 2 ? 1 : 4);
            out.resize(start + 4, 0);
        }
        link = out.size();
        put(0, 4);
    }
    return out;
}

inline void set_field(tiff_page &p, uint16_t tag, uint16_t type, std::vector<uint32_t> values) {
    std::erase_if(p.fields, [tag](const tiff_field &f) { return f.tag == tag; });
    p.fields.push_back({tag, type, std::move(values)});
    std::stable_sort(p.fields.begin(), p.fields.end(), [](const tiff_field &a, const tiff_field &b) { return a.tag < b.tag; });
}

// Gray or RGB baseline page: the usual tags around the given strips.
inline tiff_page simple_page(uint32_t width, uint32_t height, uint32_t bits, uint32_t samples, uint32_t photometric,
                             uint32_t compression, std::vector<bytes> strips, uint32_t rows_per_strip = 0) {
    tiff_page p;
    p.strips = std::move(strips);
    p.fields = {{256, 3, {width}},      {257, 3, {height}},  {258, 3, std::vector<uint32_t>(samples, bits)},
                {259, 3, {compression}}, {262, 3, {photometric}}, {273, 4, {}}, {277, 3, {samples}}, {279, 4, {}}};
    if (rows_per_strip) set_field(p, 278, 4, {rows_per_strip});
    return p;
}

// A reader run straight through tiff_decompress with capturing callbacks.
struct decoded {
    int rc = 0;
    bool announced = false;
    uint8_t header[1064] = {};
    std::vector<bytes> rows;  // by row index; empty when never delivered
    int calls = 0, stop_at_row = -1;
    int bits() const { return header[14] | header[15] << 8; }
};

inline int IMG_CALLBACK decoded_header(void *h, void *context) {
    auto *d = static_cast<decoded *>(context);
    d->announced = true;
    std::memcpy(d->header, h, sizeof d->header);
    return 1;
}

inline int IMG_CALLBACK decoded_row(unsigned char *row, void *context, int r, int n) {
    auto *d = static_cast<decoded *>(context);
    if (r == d->stop_at_row) return -5;
    if (r < 0 || r > 100000) return -100;
    if (static_cast<size_t>(r) >= d->rows.size()) d->rows.resize(r + 1);
    d->rows[r].assign(row, row + n);
    d->calls++;
    return 0;
}

inline decoded run_tiff(const bytes &file, int32_t where = 0, int stop_at_row = -1) {
    decoded d;
    d.stop_at_row = stop_at_row;
    block_ref block(file);
    memory_source_set(block.data);
    if (where_is_page(where)) file_seek(MEMORY_FD, 0, 0);
    d.rc = tiff_decompress(where, decoded_row, &d, decoded_header, MEMORY_FD);
    scratch_free_all();
    return d;
}

// The entries of a little-endian IFD by tag, and the link to the next.
struct ifd_view {
    std::map<int, tiff_ifd_entry> tags;
    uint32_t next = 0;
    uint32_t value(int tag) const { return tags.count(tag) ? tags.at(tag).value : 0xFFFFFFFFu; }
};

inline ifd_view parse_ifd(const bytes &f, uint32_t at) {
    ifd_view v;
    int n = get16(&f.at(at));
    for (int i = 0; i < n; i++) {
        const uint8_t *e = &f.at(at + 2 + 12 * i);
        v.tags[get16(e)] = {get16(e), get16(e + 2), get32(e + 4), get32(e + 8)};
    }
    v.next = get32(&f.at(at + 2 + 12 * n));
    return v;
}

// The strips of a little-endian file, joined.
inline bytes joined_strips(const bytes &t) {
    ifd_view v = parse_ifd(t, get32(t.data() + 4));
    const tiff_ifd_entry &o = v.tags.at(273), &c = v.tags.at(279);
    bytes out;
    for (uint32_t s = 0; s < o.count; s++) {
        uint32_t at = o.count == 1 ? o.value : get32(&t[o.value + 4 * s]), n = c.count == 1 ? c.value : get32(&t[c.value + 4 * s]);
        out.insert(out.end(), t.begin() + at, t.begin() + at + n);
    }
    return out;
}

// A 24-bit DIB row's pixels as a TIFF RGB strip row: no pad, red first.
inline bytes rgb_row(const bytes &bgr, int width) {
    bytes rgb(bgr.begin(), bgr.begin() + 3 * width);
    for (int x = 0; x < width; x++) std::swap(rgb[3 * x], rgb[3 * x + 2]);
    return rgb;
}

inline std::string fixture(const std::string &name) { return std::string(BRIVANTA_FIXTURES) + "/tiff/" + name; }

// The fax fixtures' source picture, page.pbm, as a DIB-layout picture (1-bit,
// bit 1 white).
inline picture fixture_page() {
    bytes f = read_file(fixture("page.pbm"));
    picture p;
    p.width = 200, p.height = 60, p.bits = 1;
    p.palette = {0, 0, 0, 0, 255, 255, 255, 0};
    const size_t at = f.size() - 25 * 60;  // the raster ends the file
    for (int y = 0; y < 60; y++) {
        bytes row(stride_of(200, 1), 0);
        for (int k = 0; k < 25; k++) row[k] = static_cast<uint8_t>(~f[at + y * 25 + k]);
        p.rows.push_back(row);
    }
    return p;
}

