// PCX decode and encode of a 2000 x 1500 picture at 8 and 24 bits, from and
// to memory, beside a plain memcpy of the same number of pixel bytes.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 2000, H = 1500;

// Runs of flat colour broken by noise, as scanned and drawn pages have.
struct picture {
    int bits;
    int stride;
    std::vector<uint8_t> rows;
    std::vector<uint8_t> header = std::vector<uint8_t>(40 + 1024);
    explicit picture(int b) : bits(b), stride(b == 24 ? W * 3 : W), rows(size_t(stride) * H) {
        uint32_t seed = 99;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < stride; x++) {
                seed = seed * 1664525u + 1013904223u;
                int v = (x / 40 + y / 30) * 37 + ((seed >> 29) == 0 ? static_cast<int>(seed >> 24) : 0);
                rows[size_t(stride) * y + x] = static_cast<uint8_t>(v);
            }
        int32_t h[10] = {40, W, H, 1 | b << 16, 0, stride * H, 0, 0, 0, 0};
        std::memcpy(header.data(), h, 40);
        for (int i = 0; i < 1024; i++) header[40 + i] = static_cast<uint8_t>(i * 7);
    }
};

const picture &source(int bits) {
    static picture p8(8), p24(24);
    return bits == 8 ? p8 : p24;
}

int IMG_CALLBACK get_row(void *context, unsigned char *buffer, int r, int) {
    auto *p = static_cast<const picture *>(context);
    std::memcpy(buffer, p->rows.data() + size_t(p->stride) * r, static_cast<size_t>(p->stride));
    return 0;
}

struct sink {
    uint8_t *image;
    int stride;
};
int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    auto *s = static_cast<sink *>(context);
    std::memcpy(s->image + size_t(s->stride) * r, row, static_cast<size_t>(s->stride));
    return 0;
}
int IMG_CALLBACK accept_header(void *, void *) { return 0; }

// Our writer's output for a depth, in a block of exactly its size.
void *encoded(int bits, int *size) {
    static void *files[2];
    static int sizes[2];
    int k = bits == 24;
    if (!files[k]) {
        const picture &p = source(bits);
        int big = IMG_mem_alloc(W * H * 8);
        void *out = IMG_mem_lock(big);
        sizes[k] = IMGLOW_save_bitmap_mem(out, p.header.data(), IMG_TYPE_PCX, get_row, const_cast<picture *>(&p));
        files[k] = IMG_mem_lock(IMG_mem_alloc(sizes[k]));
        std::memcpy(files[k], out, static_cast<size_t>(sizes[k]));
        IMG_mem_unlock(big);
        IMG_mem_free(big);
    }
    *size = sizes[k];
    return files[k];
}

void BM_PcxDecode(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const picture &p = source(bits);
    int size = 0;
    void *file = encoded(bits, &size);
    std::vector<uint8_t> image(p.rows.size());
    sink s{image.data(), p.stride};
    for (auto _ : state) {
        if (IMGLOW_decompress_bitmap_mem(file, 0, put_row, &s, accept_header) < 0) state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(image.data());
    }
    if (image != p.rows) state.SkipWithError("decoded pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.rows.size()));
    state.counters["file_bytes"] = size;
}

void BM_PcxEncode(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const picture &p = source(bits);
    int block = IMG_mem_alloc(W * H * 8);
    void *out = IMG_mem_lock(block);
    int n = 0;
    for (auto _ : state) {
        n = IMGLOW_save_bitmap_mem(out, p.header.data(), IMG_TYPE_PCX, get_row, const_cast<picture *>(&p));
        if (n < 0) state.SkipWithError("encode failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.rows.size()));
    state.counters["file_bytes"] = n;
    IMG_mem_unlock(block);
    IMG_mem_free(block);
}

// The floor: copying the picture's bytes once.
void BM_Memcpy(benchmark::State &state) {
    const picture &p = source(static_cast<int>(state.range(0)));
    std::vector<uint8_t> copy(p.rows.size());
    for (auto _ : state) {
        std::memcpy(copy.data(), p.rows.data(), p.rows.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(p.rows.size()));
}

}  // namespace

BENCHMARK(BM_PcxDecode)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PcxEncode)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memcpy)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
