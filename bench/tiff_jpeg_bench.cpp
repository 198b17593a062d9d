// Compression 6 strips against one JPEG stream: a 4000 x 3000 4:2:0 picture
// cut into bands that an independent encoder codes one by one, stored as
// old-style strips with the tables in the IFD, and the whole picture as one
// stream; megapixels per second through our reader.
#include "codecs/codecs.h"

#include <benchmark/benchmark.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstring>
#include <vector>

// The library's internal names, which the tests reach past the API.
namespace brv {}
using namespace brv;

namespace {

constexpr int W = 4000, H = 3000;
using bytes = std::vector<uint8_t>;

bytes compress(const uint8_t *rgb, int rows) {
    tjhandle tj = tjInitCompress();
    unsigned char *buf = nullptr;
    unsigned long size = 0;
    tjCompress2(tj, rgb, W, 0, rows, TJPF_RGB, &buf, &size, TJSAMP_420, 75, 0);
    bytes out(buf, buf + size);
    tjFree(buf);
    tjDestroy(tj);
    return out;
}

// Segment bodies by marker, and the entropy-coded data after the SOS.
struct parts {
    bytes quant[2], dc[2], ac[2], data;
};
parts split(const bytes &f) {
    parts p;
    size_t i = 2;
    for (;;) {
        int marker = f[i + 1], length = f[i + 2] << 8 | f[i + 3];
        const uint8_t *s = &f[i + 4];
        if (marker == 0xDB)
            for (int k = 0; k < length - 2; k += 65) p.quant[s[k] & 1].assign(s + k + 1, s + k + 65);
        if (marker == 0xC4)
            for (int k = 0; k < length - 2;) {
                int n = 0;
                for (int b = 1; b <= 16; b++) n += s[k + b];
                (s[k] >> 4 ? p.ac : p.dc)[s[k] & 1].assign(s + k + 1, s + k + 17 + n);
                k += 17 + n;
            }
        i += 2 + length;
        if (marker == 0xDA) break;
    }
    p.data.assign(f.begin() + static_cast<long>(i), f.end() - 2);
    return p;
}

void put16(bytes &b, uint32_t v) { b.push_back(uint8_t(v)), b.push_back(uint8_t(v >> 8)); }
void put32(bytes &b, uint32_t v) { put16(b, v & 0xFFFF), put16(b, v >> 16); }

// A little-endian old-style file: tables, strips, then the IFD and its arrays.
bytes old_style(const uint8_t *rgb, int rows_per_strip) {
    bytes file = {'I', 'I', 42, 0, 0, 0, 0, 0}, blob;
    std::vector<uint32_t> offsets, counts, q, dc, ac;
    for (int y = 0; y < H; y += rows_per_strip) {
        int rows = rows_per_strip < H - y ? rows_per_strip : H - y;
        parts p = split(compress(rgb + size_t{3} * W * y, rows));
        if (y == 0) {
            for (int c = 0; c < 3; c++) {
                int t = c ? 1 : 0;
                q.push_back(uint32_t(file.size()));
                file.insert(file.end(), p.quant[t].begin(), p.quant[t].end());
                dc.push_back(uint32_t(file.size()));
                file.insert(file.end(), p.dc[t].begin(), p.dc[t].end());
                ac.push_back(uint32_t(file.size()));
                file.insert(file.end(), p.ac[t].begin(), p.ac[t].end());
            }
        }
        offsets.push_back(uint32_t(file.size())), counts.push_back(uint32_t(p.data.size()));
        file.insert(file.end(), p.data.begin(), p.data.end());
    }
    if (file.size() & 1) file.push_back(0);
    const uint32_t ifd = uint32_t(file.size());
    std::memcpy(&file[4], &ifd, 4);
    struct entry { uint16_t tag, type; std::vector<uint32_t> v; };
    std::vector<entry> e = {{256, 4, {W}}, {257, 4, {H}}, {258, 3, {8, 8, 8}}, {259, 3, {6}}, {262, 3, {6}},
                            {273, 4, offsets}, {277, 3, {3}}, {278, 4, {uint32_t(rows_per_strip)}}, {279, 4, counts},
                            {512, 3, {1}}, {519, 4, q}, {520, 4, dc}, {521, 4, ac}, {530, 3, {2, 2}}};
    uint32_t arrays = ifd + 2 + 12 * uint32_t(e.size()) + 4;
    bytes tail;
    put16(file, uint32_t(e.size()));
    for (const entry &x : e) {
        put16(file, x.tag), put16(file, x.type), put32(file, uint32_t(x.v.size()));
        uint32_t bytes_needed = uint32_t(x.v.size()) * (x.type == 3 ? 2 : 4);
        if (bytes_needed <= 4) {
            size_t at = file.size();
            for (uint32_t v : x.v) x.type == 3 ? put16(file, v) : put32(file, v);
            file.resize(at + 4);
        } else {
            put32(file, arrays + uint32_t(tail.size()));
            for (uint32_t v : x.v) x.type == 3 ? put16(tail, v) : put32(tail, v);
        }
    }
    put32(file, 0);
    file.insert(file.end(), tail.begin(), tail.end());
    return file;
}

struct inputs {
    bytes rgb, whole, strips16, strips256;
    inputs() : rgb(size_t{W} * H * 3) {
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++)
                for (int c = 0; c < 3; c++) {
                    double v = 128 + 60 * std::sin((x + 40 * c) / 97.0) * std::cos(y / 71.0 + c) +
                               30 * std::sin((x * 0.7 + y * 1.3) / 13.0 + c);
                    rgb[(size_t{uint32_t(y)} * W + x) * 3 + c] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
                }
        whole = compress(rgb.data(), H);
        strips16 = old_style(rgb.data(), 16);
        strips256 = old_style(rgb.data(), 256);
    }
};
const inputs &in() {
    static inputs i;
    return i;
}

int IMG_CALLBACK accept_header(void *, void *) { return 0; }
int IMG_CALLBACK accept_row(unsigned char *row, void *, int, int) {
    benchmark::DoNotOptimize(row);
    return 0;
}

void run(benchmark::State &state, const bytes &file, reader_fn reader, int ok) {
    int block = IMG_mem_alloc(static_cast<int>(file.size()));
    void *p = IMG_mem_lock(block);
    std::memcpy(p, file.data(), file.size());
    for (auto _ : state) {
        memory_source_set(p);
        int rc = reader(0, accept_row, nullptr, accept_header, MEMORY_FD);
        scratch_free_all();
        if (rc != ok) state.SkipWithError("decode failed");
    }
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    state.counters["MP/s"] = benchmark::Counter(W * H / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

void one_stream(benchmark::State &s) { run(s, in().whole, jpeg_read_file, 0); }
void strips_of_16_rows(benchmark::State &s) { run(s, in().strips16, tiff_decompress, 0); }
void strips_of_256_rows(benchmark::State &s) { run(s, in().strips256, tiff_decompress, 0); }

}  // namespace

BENCHMARK(one_stream)->Unit(benchmark::kMillisecond);
BENCHMARK(strips_of_16_rows)->Unit(benchmark::kMillisecond);
BENCHMARK(strips_of_256_rows)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
