// Helpers the reader tests share: a row sink that keeps what a
// reader delivers, smooth pictures that lossy coding keeps close, and
// checksums.
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

// The sink's rows as a picture (palette only for 8 bits).
inline picture picture_of_sink(const sink &s) {
    picture p;
    p.width = s.info.biWidth, p.height = s.info.biHeight, p.bits = s.info.biBitCount;
    if (p.bits == 8) p.palette = s.palette;
    p.rows = s.rows;
    return p;
}

// FNV-1a over bytes.
inline uint64_t byte_hash(const bytes &b, uint64_t h = 1469598103934665603ull) {
    for (uint8_t v : b) h = (h ^ v) * 1099511628211ull;
    return h;
}

// FNV-1a over the pixel bytes of every row (padding left out).
inline uint64_t pixel_hash(const sink &s) {
    uint64_t h = 1469598103934665603ull;
    size_t used = static_cast<size_t>(s.info.biWidth) * (s.info.biBitCount == 24 ? 3 : 1);
    for (const bytes &r : s.rows) h = byte_hash(bytes(r.begin(), r.begin() + std::min(used, r.size())), h);
    return h;
}

// Runs a reader entry on a file image held in a memory block; fail_after
// makes the reader's k-th allocation fail.  Nothing it takes may outlive it.
template <typename Reader>
int run_reader_on(const bytes &file, sink &s, Reader reader, int32_t offset = 0, int fail_after = 0) {
    block_ref b(file);
    memory_source_set(b.data);
    const int live = mem_live_blocks();
    mem_fail_after(fail_after);
    int rc = reader(offset, sink_row, &s, sink_begin, MEMORY_FD);
    mem_fail_after(0);
    int left = scratch_count();
    scratch_free_all();
    EXPECT_EQ(left, 0) << "the reader left scratch blocks behind";
    EXPECT_EQ(mem_live_blocks(), live) << "the reader left a block behind";
    return rc;
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
        for (int x = 0; x < width; x++)
            for (int c = 0; c < p.bits / 8; c++) row[p.bits / 8 * x + c] = wave(x, y, c);
        p.rows.push_back(row);
    }
    return p;
}

// The picture saved with densities in its header.
inline bytes save_at_dpi(const picture &p, int type, int xdpi, int ydpi, int *code = nullptr) {
    block_ref dib(dib_of_picture(p, xdpi, ydpi));
    int h = IMG_create_handle(dib.data);
    bytes f = save_bytes(h, type, code);
    IMG_delete_bitmap(h);
    return f;
}

inline bytes fixture_bytes(const std::string &name) { return read_file(std::string(BRIVANTA_FIXTURES) + "/jpeg/" + name); }

}  // namespace jpeg_testing
