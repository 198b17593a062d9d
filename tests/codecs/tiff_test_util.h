// Test helpers for TIFF and fax: a small TIFF file builder in either byte
// order, a capturing reader run, and the fixtures' source pictures.
#pragma once
#include "test_util.h"

#include <cstdint>
#include <string>
#include <vector>

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

// A reader run straight through tiff_decompress with capturing callbacks.
struct decoded {
    int rc = 0;
    bool announced = false;
    uint8_t header[1064] = {};
    std::vector<bytes> rows;  // by row index; empty when never delivered
    int calls = 0;
    int bits() const { return header[14] | header[15] << 8; }
    int32_t width() const { return static_cast<int32_t>(get32(header + 4)); }
    int32_t height() const { return static_cast<int32_t>(get32(header + 8)); }
};

namespace tiff_test_detail {

struct writer {
    bool mm;
    bytes out;
    void u16(uint32_t v) {
        if (mm) {
            out.push_back(static_cast<uint8_t>(v >> 8));
            out.push_back(static_cast<uint8_t>(v));
        } else {
            out.push_back(static_cast<uint8_t>(v));
            out.push_back(static_cast<uint8_t>(v >> 8));
        }
    }
    void u32(uint32_t v) {
        if (mm) {
            u16(v >> 16);
            u16(v & 0xFFFF);
        } else {
            u16(v & 0xFFFF);
            u16(v >> 16);
        }
    }
    void patch32(size_t at, uint32_t v) {
        writer w{mm, {}};
        w.u32(v);
        std::memcpy(out.data() + at, w.out.data(), 4);
    }
    void value(uint16_t type, uint32_t v) {
        switch (type) {
        case 1: case 2: out.push_back(static_cast<uint8_t>(v)); break;
        case 3: u16(v); break;
        default: u32(v); break;
        }
    }
};

inline uint32_t type_size(uint16_t type) { return type == 3 ? 2 : type == 5 ? 8 : type == 1 || type == 2 ? 1 : 4; }

}  // namespace tiff_test_detail
using namespace tiff_test_detail;

// Lays out a file: header, then per page its strips, value blocks and IFD.
inline bytes build_tiff(const std::vector<tiff_page> &pages, bool mm, uint16_t version = 42) {
    writer w{mm, {}};
    w.out = {static_cast<uint8_t>(mm ? 'M' : 'I'), static_cast<uint8_t>(mm ? 'M' : 'I')};
    w.u16(version);
    size_t link = w.out.size();
    w.u32(0);
    for (const tiff_page &page : pages) {
        std::vector<uint32_t> offsets, counts;
        for (const bytes &s : page.strips) {
            offsets.push_back(static_cast<uint32_t>(w.out.size()));
            counts.push_back(static_cast<uint32_t>(s.size()));
            w.out.insert(w.out.end(), s.begin(), s.end());
        }
        // Value blocks first, so the IFD can point at them.
        std::vector<tiff_field> fields = page.fields;
        std::vector<uint32_t> field_value(fields.size());
        for (size_t i = 0; i < fields.size(); i++) {
            tiff_field &f = fields[i];
            if (f.values.empty() && (f.tag == 273 || f.tag == 324)) f.values = offsets;
            if (f.values.empty() && f.tag == 279) f.values = counts;
            uint32_t n = f.type == 5 ? static_cast<uint32_t>(f.values.size() / 2) : static_cast<uint32_t>(f.values.size());
            if (!f.count) f.count = n;
            if (n * type_size(f.type) > 4) {
                if (w.out.size() & 1) w.out.push_back(0);
                field_value[i] = static_cast<uint32_t>(w.out.size());
                for (uint32_t v : f.values) w.value(f.type == 5 ? 4 : f.type, v);
            }
        }
        if (w.out.size() & 1) w.out.push_back(0);
        w.patch32(link, static_cast<uint32_t>(w.out.size()));
        w.u16(static_cast<uint32_t>(fields.size()));
        for (size_t i = 0; i < fields.size(); i++) {
            const tiff_field &f = fields[i];
            w.u16(f.tag);
            w.u16(f.type);
            w.u32(f.count);
            uint32_t n = f.type == 5 ? static_cast<uint32_t>(f.values.size() / 2) : static_cast<uint32_t>(f.values.size());
            if (n * type_size(f.type) > 4) {
                w.u32(field_value[i]);
            } else {
                size_t start = w.out.size();
                for (uint32_t v : f.values) w.value(f.type, v);
                while (w.out.size() < start + 4) w.out.push_back(0);
            }
        }
        link = w.out.size();
        w.u32(0);
    }
    return w.out;
}

inline void set_field(tiff_page &p, uint16_t tag, uint16_t type, std::vector<uint32_t> values) {
    for (tiff_field &f : p.fields)
        if (f.tag == tag) {
            f = {tag, type, std::move(values)};
            return;
        }
    p.fields.push_back({tag, type, std::move(values)});
    std::stable_sort(p.fields.begin(), p.fields.end(), [](const tiff_field &a, const tiff_field &b) { return a.tag < b.tag; });
}

// Gray or RGB baseline page: the usual tags around the given strips.
inline tiff_page simple_page(uint32_t width, uint32_t height, uint32_t bits, uint32_t samples, uint32_t photometric,
                             uint32_t compression, std::vector<bytes> strips, uint32_t rows_per_strip = 0) {
    tiff_page p;
    p.strips = std::move(strips);
    set_field(p, 256, 3, {width});
    set_field(p, 257, 3, {height});
    set_field(p, 258, 3, std::vector<uint32_t>(samples, bits));
    set_field(p, 259, 3, {compression});
    set_field(p, 262, 3, {photometric});
    set_field(p, 273, 4, {});
    set_field(p, 277, 3, {samples});
    if (rows_per_strip) set_field(p, 278, 4, {rows_per_strip});
    set_field(p, 279, 4, {});
    return p;
}

namespace tiff_test_detail {
struct capture {
    decoded *d;
    int stop_at_row;
};
inline int IMG_CALLBACK capture_header(void *header, void *context) {
    auto *c = static_cast<capture *>(context);
    c->d->announced = true;
    std::memcpy(c->d->header, header, sizeof c->d->header);
    return 1;
}
inline int IMG_CALLBACK capture_row(unsigned char *row, void *context, int r, int n) {
    auto *c = static_cast<capture *>(context);
    if (r == c->stop_at_row) return -5;
    if (r < 0 || r > 100000) return -100;
    if (static_cast<size_t>(r) >= c->d->rows.size()) c->d->rows.resize(r + 1);
    c->d->rows[r].assign(row, row + n);
    c->d->calls++;
    return 0;
}
}  // namespace tiff_test_detail
using namespace tiff_test_detail;

inline decoded run_tiff(const bytes &file, int32_t where = 0, int stop_at_row = -1) {
    decoded d;
    block_ref block(file);
    memory_source_set(block.data);
    if (where_is_page(where)) file_seek(MEMORY_FD, 0, 0);
    capture c{&d, stop_at_row};
    d.rc = tiff_decompress(where, capture_row, &c, capture_header, MEMORY_FD);
    scratch_free_all();
    return d;
}

inline std::string fixture(const std::string &name) { return std::string(BRIVANTA_FIXTURES) + "/tiff/" + name; }

namespace tiff_test_detail {
// Netpbm binary header: magic, width, height[, maxval], one whitespace byte.
inline size_t pnm_header(const bytes &f, int fields, int *values) {
    size_t i = 2;
    for (int k = 0; k < fields; k++) {
        while (i < f.size() && (f[i] == ' ' || f[i] == '\n' || f[i] == '\r' || f[i] == '\t')) i++;
        values[k] = 0;
        while (i < f.size() && f[i] >= '0' && f[i] <= '9') values[k] = values[k] * 10 + (f[i++] - '0');
    }
    return i + 1;
}
}  // namespace tiff_test_detail
using namespace tiff_test_detail;

// The fixtures' sources, as DIB-layout pictures (1-bit: bit 1 is white).
inline picture read_pbm(const std::string &name) {
    bytes f = read_file(fixture(name));
    int v[2];
    size_t at = pnm_header(f, 2, v);
    picture p;
    p.width = v[0];
    p.height = v[1];
    p.bits = 1;
    p.palette = {0, 0, 0, 0, 255, 255, 255, 0};
    size_t rb = (p.width + 7) / 8;
    for (int y = 0; y < p.height; y++) {
        bytes row(stride_of(p.width, 1), 0);
        for (size_t k = 0; k < rb; k++) row[k] = static_cast<uint8_t>(~f[at + y * rb + k]);
        if (p.width & 7) row[rb - 1] &= static_cast<uint8_t>(0xFF00 >> (p.width & 7));
        p.rows.push_back(row);
    }
    return p;
}

inline picture read_ppm(const std::string &name) {
    bytes f = read_file(fixture(name));
    int v[3];
    size_t at = pnm_header(f, 3, v);
    picture p;
    p.width = v[0];
    p.height = v[1];
    p.bits = 24;
    for (int y = 0; y < p.height; y++) {
        bytes row(stride_of(p.width, 24), 0);
        for (int x = 0; x < p.width; x++)
            for (int c = 0; c < 3; c++) row[3 * x + c] = f[at + 3 * (y * p.width + x) + 2 - c];
        p.rows.push_back(row);
    }
    return p;
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

// The single strip of a little-endian one-strip TIFF file.
inline bytes first_strip(const bytes &t) {
    uint32_t ifd = get32(t.data() + 4);
    int n = get16(t.data() + ifd);
    uint32_t offset = 0, count = 0;
    for (int i = 0; i < n; i++) {
        const uint8_t *e = t.data() + ifd + 2 + 12 * i;
        if (get16(e) == 273) offset = get32(e + 8);
        if (get16(e) == 279) count = get32(e + 8);
    }
    return bytes(t.begin() + offset, t.begin() + offset + count);
}

// The page with its strips placed at the very end of the file, so data
// that runs short meets the end of the source rather than the IFD.
inline bytes strips_at_end(tiff_page p, const std::vector<bytes> &strips, bool mm = false) {
    p.strips.clear();
    std::vector<uint32_t> offsets(strips.size(), 0), counts;
    for (const bytes &s : strips) counts.push_back(static_cast<uint32_t>(s.size()));
    set_field(p, 273, 4, offsets);
    set_field(p, 279, 4, counts);
    uint32_t at = static_cast<uint32_t>(build_tiff({p}, mm).size());
    for (size_t i = 0; i < strips.size(); i++) {
        offsets[i] = at;
        at += counts[i];
    }
    set_field(p, 273, 4, offsets);
    bytes file = build_tiff({p}, mm);
    for (const bytes &s : strips) file.insert(file.end(), s.begin(), s.end());
    return file;
}
