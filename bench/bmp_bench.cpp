// BMP load and save from memory at 8 and 24 bits on a 4000 x 3000 picture,
// beside a plain memcpy of the same pixel bytes as the ceiling.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int WIDTH = 4000, HEIGHT = 3000;
constexpr double MEGAPIXELS = WIDTH * double{HEIGHT} / 1e6;

int stride(int bits) { return ((bits == 24 ? WIDTH * 3 : WIDTH) + 3) & ~3; }

// A block the library owns, locked for the whole run.
struct block {
    int name = 0;
    void *address = nullptr;
    explicit block(size_t size) : name(IMG_mem_alloc(static_cast<int>(size))), address(IMG_mem_lock(name)) {
        if (!address) {
            std::fprintf(stderr, "cannot allocate %zu bytes\n", size);
            std::exit(1);
        }
    }
    ~block() {
        IMG_mem_unlock(name);
        IMG_mem_free(name);
    }
    block(const block &) = delete;
    block &operator=(const block &) = delete;
};

// A smooth picture with some texture, so neither depth is a constant fill.
int make_handle(int bits) {
    const int pal = bits == 24 ? 0 : 1024, s = stride(bits);
    block dib(40 + pal + static_cast<size_t>(s) * HEIGHT);
    auto *p = static_cast<uint8_t *>(dib.address);
    const int32_t header[10] = {40, WIDTH, HEIGHT, 1 | bits << 16, 0, s * HEIGHT, 0, 0, 0, 0};
    std::memcpy(p, header, 40);
    for (int i = 0; pal && i < 256; i++) {
        p[40 + 4 * i] = static_cast<uint8_t>(i);
        p[41 + 4 * i] = static_cast<uint8_t>(255 - i);
        p[42 + 4 * i] = static_cast<uint8_t>(i * 7);
    }
    uint8_t *rows = p + 40 + pal;
    for (int y = 0; y < HEIGHT; y++)
        for (int x = 0; x < (bits == 24 ? 3 * WIDTH : WIDTH); x++)
            rows[static_cast<size_t>(y) * s + x] = static_cast<uint8_t>((x * 5 + y * 3) ^ (x * y >> 7));
    int h = IMG_create_handle(dib.address);
    if (h < 0) {
        std::fprintf(stderr, "cannot build the picture: %d\n", h);
        std::exit(1);
    }
    return h;
}

size_t file_size(int bits) { return 54 + (bits == 24 ? 0 : 1024) + static_cast<size_t>(stride(bits)) * HEIGHT; }

void set_rate(benchmark::State &state, size_t bytes) {
    state.counters["MP/s"] = benchmark::Counter(MEGAPIXELS * static_cast<double>(state.iterations()),
                                                benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// The ceiling: the pixel bytes of one picture copied once.
void BM_memcpy(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    const size_t n = static_cast<size_t>(stride(bits)) * HEIGHT;
    std::vector<uint8_t> src(n, 0x5A), dst(n, 0);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    set_rate(state, n);
}

void BM_load(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    int h = make_handle(bits);
    block file(file_size(bits) + 64);
    int n = IMG_save_bitmap_mem(h, file.address, 1);
    IMG_delete_bitmap(h);
    if (n != static_cast<int>(file_size(bits))) {
        state.SkipWithError("saving the test file failed");
        return;
    }
    for (auto _ : state) {
        int loaded = IMG_decompress_bitmap_mem(file.address, 0);
        if (loaded < 0) {
            state.SkipWithError("load failed");
            break;
        }
        IMG_delete_bitmap(loaded);
    }
    set_rate(state, file_size(bits));
}

void BM_save(benchmark::State &state) {
    const int bits = static_cast<int>(state.range(0));
    int h = make_handle(bits);
    block file(file_size(bits) + 64);
    for (auto _ : state) {
        int n = IMG_save_bitmap_mem(h, file.address, 1);
        if (n != static_cast<int>(file_size(bits))) {
            state.SkipWithError("save failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    IMG_delete_bitmap(h);
    set_rate(state, file_size(bits));
}

BENCHMARK(BM_memcpy)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_load)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_save)->Arg(8)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
