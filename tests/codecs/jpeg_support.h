// Helpers the JPEG and Targa tests share: a row sink that keeps what a
// reader delivers, smooth pictures that lossy coding keeps close, an encoder
// driven from a picture, and byte-level file helpers.
#pragma once
#include "codecs/jpeg.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace jpeg_testing {

// What a reader handed over: the header once, then rows by number.
struct sink {
    int begin_calls = 0;
    dib_info info{};
    bytes palette;
    std::vector<bytes> rows;
    int bad_rows = 0;  // numbers out of range or delivered twice
    int fail_at_row = -1, fail_code = 0;
};

inline int IMG_CALLBACK sink_begin(void *header, void *context) {
    auto *s = static_cast<sink *>(context);
    s->begin_calls++;
    std::memcpy(&s->info, header, 40);
    auto *h = static_cast<uint8_t *>(header);
    s->palette.assign(h + 40, h + 40 + 1024);
    s->rows.assign(s->info.biHeight > 0 && s->info.biHeight < 70000 ? s->info.biHeight : 0, bytes{});
    return 0;
}

inline int IMG_CALLBACK sink_row(unsigned char *row, void *context, int r, int n) {
    auto *s = static_cast<sink *>(context);
    if (r < 0 || r >= static_cast<int>(s->rows.size()) || !s->rows[r].empty() || n <= 0) {
        s->bad_rows++;
        return -99;
    }
    s->rows[r].assign(row, row + n);
    return r == s->fail_at_row ? s->fail_code : 0;
}

// FNV-1a over the pixel bytes of every row (padding left out).
inline uint64_t pixel_hash(const sink &s) {
    uint64_t h = 1469598103934665603ull;
    size_t used = static_cast<size_t>(s.info.biWidth) * (s.info.biBitCount == 24 ? 3 : 1);
    for (const bytes &r : s.rows)
        for (size_t i = 0; i < used && i < r.size(); i++) h = (h ^ r[i]) * 1099511628211ull;
    return h;
}

inline uint64_t byte_hash(const bytes &b) {
    uint64_t h = 1469598103934665603ull;
    for (uint8_t v : b) h = (h ^ v) * 1099511628211ull;
    return h;
}

// Runs a reader entry on a file image held in a memory block; fail_after
// makes the reader's k-th allocation fail.
template <typename Reader>
int run_reader_on(const bytes &file, sink &s, Reader reader, int32_t offset = 0, int fail_after = 0) {
    block_ref b(file);
    memory_source_set(b.data);
    mem_fail_after(fail_after);
    int rc = reader(offset, sink_row, &s, sink_begin, MEMORY_FD);
    mem_fail_after(0);
    int left = scratch_count();
    scratch_free_all();
    EXPECT_EQ(left, 0) << "the reader left scratch blocks behind";
    return rc;
}

// Red, green and blue of every pixel, top-down.
inline bytes rgb_of(int width, int bits, const bytes &palette, const std::vector<bytes> &rows) {
    bytes out;
    for (const bytes &r : rows)
        for (int x = 0; x < width; x++) {
            if (bits == 24)
                out.insert(out.end(), {r[3 * x + 2], r[3 * x + 1], r[3 * x]});
            else
                out.insert(out.end(), {palette[4 * r[x] + 2], palette[4 * r[x] + 1], palette[4 * r[x]]});
        }
    return out;
}
inline bytes rgb_of(const sink &s) { return rgb_of(s.info.biWidth, s.info.biBitCount, s.palette, s.rows); }
inline bytes rgb_of(const picture &p) { return rgb_of(p.width, p.bits, p.palette, p.rows); }

inline double psnr(const bytes &a, const bytes &b) {
    if (a.size() != b.size() || a.empty()) return 0;
    double se = 0;
    for (size_t i = 0; i < a.size(); i++) se += (a[i] - b[i]) * (a[i] - b[i]);
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * a.size() / se);
}

enum class kind { grey8, palette8, rgb24 };

// Smooth waves: what photographs look like to a block transform.
inline picture smooth_picture(int width, int height, kind k, int seed) {
    picture p;
    p.width = width, p.height = height, p.bits = k == kind::rgb24 ? 24 : 8;
    if (p.bits == 8) {
        p.palette.resize(1024);
        for (int i = 0; i < 256; i++) {
            uint8_t *e = &p.palette[4 * i];
            if (k == kind::grey8)
                e[0] = e[1] = e[2] = static_cast<uint8_t>(i);
            else
                e[0] = static_cast<uint8_t>(i), e[1] = static_cast<uint8_t>(255 - i), e[2] = static_cast<uint8_t>(i / 2 + 60);
        }
    }
    auto wave = [&](int x, int y, int c) {
        double v = 128 + 90 * std::sin((x + 3 * c + seed) / 9.0) * std::cos((y - 2 * c) / 7.0 + seed);
        return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
    };
    for (int y = 0; y < height; y++) {
        bytes row(stride_of(width, p.bits), 0);
        for (int x = 0; x < width; x++) {
            if (p.bits == 24)
                for (int c = 0; c < 3; c++) row[3 * x + c] = wave(x, y, c);
            else
                row[x] = wave(x, y, 0);
        }
        p.rows.push_back(row);
    }
    return p;
}

inline bytes header_of(const picture &p, int xdpi = 0, int ydpi = 0) {
    bytes h(1064, 0);
    int32_t f[10] = {40, p.width, p.height, 1 | p.bits << 16, 0, 0, xdpi, ydpi, 0, 0};
    std::memcpy(h.data(), f, 40);
    if (!p.palette.empty()) std::memcpy(h.data() + 40, p.palette.data(), p.palette.size());
    return h;
}

inline int IMG_CALLBACK picture_rows(void *context, unsigned char *buffer, int r, int n) {
    auto *p = static_cast<const picture *>(context);
    if (r < 0 || r >= p->height) return -98;
    const bytes &row = p->rows[r];
    std::memcpy(buffer, row.data(), std::min<size_t>(n, row.size()));
    return 0;
}

// Saves a picture with an output type through the low-level memory export.
// fail_after makes the writer's k-th allocation fail.
inline bytes save_picture(const picture &p, int type, int *result = nullptr, int xdpi = 0, int ydpi = 0,
                          int fail_after = 0) {
    bytes h = header_of(p, xdpi, ydpi);
    block_ref out(uint32_t{8u << 20});
    mem_fail_after(fail_after);
    int n = IMGLOW_save_bitmap_mem(out.data, h.data(), type, picture_rows, const_cast<picture *>(&p));
    mem_fail_after(0);
    if (result) *result = n;
    return n < 0 ? bytes{} : bytes(out.data, out.data + n);
}

// Calls attempt(k) with the k-th allocation failing, k = 1, 2, ..., until it
// succeeds (a result of 0 or more); every failure must be -1 and leave no
// block behind.  Returns how many attempts failed.
template <typename Attempt>
int count_alloc_failures(Attempt attempt, int limit = 40) {
    const int live = mem_live_blocks();
    for (int k = 1; k < limit; k++) {
        int rc = attempt(k);
        scratch_free_all();
        EXPECT_EQ(mem_live_blocks(), live) << "k=" << k;
        if (rc >= 0) return k - 1;
        EXPECT_EQ(rc, IMG_ERR_MEMORY) << "k=" << k;
    }
    ADD_FAILURE() << "never succeeded";
    return 0;
}

// Saves with the k-th write cut short (0: none); *writes counts the calls.
inline int failing_write_at = 0, writes_made = 0;
inline int IMG_CALLBACK failing_write(int fd, const void *buffer, int count) {
    if (++writes_made == failing_write_at) return count / 2;
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    int n = file_write(fd, buffer, count);
    IMGLOW_set_fileio(nullptr, failing_write, nullptr);
    return n;
}
inline int save_failing_write(const picture &p, int type, int k, int *writes = nullptr) {
    writes_made = 0, failing_write_at = k;
    IMGLOW_set_fileio(nullptr, failing_write, nullptr);
    int n = 0;
    save_picture(p, type, &n);
    IMGLOW_set_fileio(nullptr, nullptr, nullptr);
    if (writes) *writes = writes_made;
    return n;
}

inline bytes fixture_bytes(const std::string &name) { return read_file(std::string(BRIVANTA_FIXTURES) + "/jpeg/" + name); }

}  // namespace jpeg_testing
