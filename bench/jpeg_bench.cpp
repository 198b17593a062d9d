// JPEG throughput in megapixels per second: our decoder and encoder against
// two independent codecs on a 4000 x 3000 photo-like picture, colour (4:2:0
// input for the decoders) and grey.
#include "codecs/jpeg.h"

#include <benchmark/benchmark.h>
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstdlib>
#include <vector>

// The library's internal names, which the tests reach past the API.
namespace brv {}
using namespace brv;

namespace {

constexpr int W = 4000, H = 3000;
constexpr int QUALITY = 75;         // of the decoders' input
constexpr int ENCODE_QUALITY = 85;

// Waves at a few scales plus mild noise: smooth areas and fine detail.
struct pictures {
    std::vector<uint8_t> rgb, bgr, grey;  // bgr: the rows as a DIB holds them
    std::vector<uint8_t> jpeg420, jpeg_grey;  // made by the comparison codec
    pictures() : rgb(size_t{W} * H * 3), bgr(size_t{W} * H * 3), grey(size_t{W} * H) {
        uint32_t seed = 1;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                seed = seed * 1664525u + 1013904223u;
                int noise = static_cast<int>(seed >> 28) - 8;
                for (int c = 0; c < 3; c++) {
                    double v = 128 + 60 * std::sin((x + 40 * c) / 97.0) * std::cos(y / 71.0 + c) +
                               30 * std::sin((x * 0.7 + y * 1.3) / 13.0 + c) + noise;
                    rgb[(static_cast<size_t>(y) * W + x) * 3 + c] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
                }
                const uint8_t *p = &rgb[(static_cast<size_t>(y) * W + x) * 3];
                for (int c = 0; c < 3; c++) bgr[(static_cast<size_t>(y) * W + x) * 3 + c] = p[2 - c];
                grey[static_cast<size_t>(y) * W + x] = static_cast<uint8_t>((p[0] * 77 + p[1] * 150 + p[2] * 29) >> 8);
            }
        jpeg420 = compress(rgb.data(), TJPF_RGB, TJSAMP_420);
        jpeg_grey = compress(grey.data(), TJPF_GRAY, TJSAMP_GRAY);
    }
    static std::vector<uint8_t> compress(const uint8_t *src, int format, int sampling) {
        tjhandle tj = tjInitCompress();
        unsigned char *buf = nullptr;
        unsigned long size = 0;
        tjCompress2(tj, src, W, 0, H, format, &buf, &size, sampling, QUALITY, 0);
        std::vector<uint8_t> out(buf, buf + size);
        tjFree(buf);
        tjDestroy(tj);
        return out;
    }
};

const pictures &inputs() {
    static pictures p;
    return p;
}

void report(benchmark::State &state) {
    state.counters["MP/s"] = benchmark::Counter(W * H / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

// ---- Decoding ---------------------------------------------------------------------

struct row_sink {
    uint8_t *out;
    uint32_t stride;
};
int IMG_CALLBACK accept_header(void *, void *) { return 0; }
int IMG_CALLBACK keep_row(unsigned char *row, void *context, int r, int n) {
    auto *s = static_cast<row_sink *>(context);
    std::memcpy(s->out + size_t{s->stride} * static_cast<size_t>(r), row, n);
    return 0;
}

void decode_ours(benchmark::State &state, bool grey) {
    const std::vector<uint8_t> &file = grey ? inputs().jpeg_grey : inputs().jpeg420;
    int block = IMG_mem_alloc(static_cast<int>(file.size()));
    void *p = IMG_mem_lock(block);
    std::memcpy(p, file.data(), file.size());
    row_sink s{nullptr, row_bytes(W, grey ? 8 : 24)};
    std::vector<uint8_t> out(size_t{s.stride} * H);
    s.out = out.data();
    for (auto _ : state) {
        memory_source_set(p);
        int rc = jpeg_read_file(0, keep_row, &s, accept_header, MEMORY_FD);
        scratch_free_all();
        if (rc != 0) state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(out.data());
    }
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    report(state);
}

void decode_turbo(benchmark::State &state, bool grey, int flags) {
    const std::vector<uint8_t> &file = grey ? inputs().jpeg_grey : inputs().jpeg420;
    std::vector<uint8_t> out(size_t{W} * H * 3);
    tjhandle tj = tjInitDecompress();
    for (auto _ : state) {
        if (tjDecompress2(tj, file.data(), file.size(), out.data(), W, 0, H, grey ? TJPF_GRAY : TJPF_BGR, flags))
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(out.data());
    }
    tjDestroy(tj);
    report(state);
}

void decode_stb(benchmark::State &state, bool grey) {
    const std::vector<uint8_t> &file = grey ? inputs().jpeg_grey : inputs().jpeg420;
    for (auto _ : state) {
        int w, h, c;
        unsigned char *px = stbi_load_from_memory(file.data(), static_cast<int>(file.size()), &w, &h, &c, grey ? 1 : 3);
        if (!px) state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(px);
        stbi_image_free(px);
    }
    report(state);
}

// ---- Encoding ---------------------------------------------------------------------

struct row_source {
    const uint8_t *px;
    bool grey;
};
// The picture's rows as a DIB holds them, copied as a row callback must.
int IMG_CALLBACK give_row(void *context, unsigned char *buffer, int r, int n) {
    auto *s = static_cast<row_source *>(context);
    std::memcpy(buffer, s->px + size_t(s->grey ? W : W * 3) * static_cast<size_t>(r), s->grey ? W : W * 3);
    (void)n;
    return 0;
}

void encode_ours(benchmark::State &state, bool grey) {
    dib_header h{};
    h.info = {40, W, H, 1, static_cast<uint16_t>(grey ? 8 : 24), 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 256; i++) std::memset(h.palette + 4 * i, i, 3);
    row_source s{grey ? inputs().grey.data() : inputs().bgr.data(), grey};
    int block = IMG_mem_alloc(32 << 20);
    void *out = IMG_mem_lock(block);
    IMGLOW_set_comp_quality(ENCODE_QUALITY);
    int64_t bytes = 0;
    for (auto _ : state) {
        int n = IMGLOW_save_bitmap_mem(out, &h, IMG_TYPE_JPEG, give_row, &s);
        if (n <= 0) state.SkipWithError("encode failed");
        bytes = n;
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    report(state);
}

void encode_turbo(benchmark::State &state, bool grey, int sampling) {
    tjhandle tj = tjInitCompress();
    const std::vector<uint8_t> &src = grey ? inputs().grey : inputs().rgb;
    unsigned long size = tjBufSize(W, H, grey ? TJSAMP_GRAY : sampling);
    unsigned char *buf = tjAlloc(static_cast<int>(size));
    for (auto _ : state) {
        unsigned long n = size;
        if (tjCompress2(tj, src.data(), W, 0, H, grey ? TJPF_GRAY : TJPF_RGB, &buf, &n, grey ? TJSAMP_GRAY : sampling,
                        ENCODE_QUALITY, TJFLAG_NOREALLOC))
            state.SkipWithError("encode failed");
        state.counters["bytes"] = static_cast<double>(n);
    }
    tjFree(buf);
    tjDestroy(tj);
    report(state);
}

void count_bytes(void *context, void *, int size) { *static_cast<int64_t *>(context) += size; }

void encode_stb(benchmark::State &state, bool grey) {
    const std::vector<uint8_t> &src = grey ? inputs().grey : inputs().rgb;
    for (auto _ : state) {
        int64_t n = 0;
        if (!stbi_write_jpg_to_func(count_bytes, &n, W, H, grey ? 1 : 3, src.data(), ENCODE_QUALITY))
            state.SkipWithError("encode failed");
        state.counters["bytes"] = static_cast<double>(n);
    }
    report(state);
}

}  // namespace

BENCHMARK_CAPTURE(decode_ours, colour_420, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_turbo, colour_420, false, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_turbo, colour_420_fast, false, TJFLAG_FASTUPSAMPLE | TJFLAG_FASTDCT)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_stb, colour_420, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_ours, grey, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_turbo, grey, true, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode_stb, grey, true)->Unit(benchmark::kMillisecond);

// Our encoder writes 2x1 luma sampling; the comparison runs at 4:2:2 and 4:2:0.
BENCHMARK_CAPTURE(encode_ours, colour, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_turbo, colour_422, false, TJSAMP_422)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_turbo, colour_420, false, TJSAMP_420)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_stb, colour, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_ours, grey, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_turbo, grey, true, TJSAMP_GRAY)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode_stb, grey, true)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
