// CALS decode of an A4 page at 300 dpi (2480 x 3508, Group 4), here and in
// ImageMagick (MagickWand, one thread, linked into this benchmark only),
// from the same bytes in memory; and our encode of the page.
#include "brivanta.h"

#include <benchmark/benchmark.h>
#include <wand/MagickWand.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 2480, H = 3508, STRIDE = (W + 31) / 32 * 4;

// A typed page: lines of word-like blocks with ragged ends, a ruled box and
// a filled disc; bit 1 is white.
struct page {
    std::vector<uint8_t> rows = std::vector<uint8_t>(size_t{STRIDE} * H, 0xFF);
    std::vector<uint8_t> header = std::vector<uint8_t>(40 + 8);
    void black(int x, int y) { rows[size_t{STRIDE} * y + x / 8] &= static_cast<uint8_t>(~(0x80 >> (x & 7))); }
    page() {
        uint32_t seed = 7;
        for (int line = 0; line < 110; line++) {
            const int top = 200 + line * 28;
            int x = 250;
            while (x < 2200) {
                seed = seed * 1664525u + 1013904223u;
                const int word = 40 + static_cast<int>(seed >> 26);
                for (int y = top; y < top + 18; y++)
                    for (int k = x; k < x + word && k < 2230; k++)
                        if ((k - x) % 9 < 3 || (y - top) % 15 < 3) black(k, y);  // strokes and bars
                x += word + 18;
            }
        }
        for (int i = 0; i < 1600; i++) black(400 + i, 3300), black(400 + i, 3400), black(400, 3300 + i / 16);
        for (int y = -80; y <= 80; y++)
            for (int x = -80; x <= 80; x++)
                if (x * x + y * y <= 6400) black(2200 + x, 3350 + y);
        int32_t h[10] = {40, W, H, 1 | 1 << 16, 0, STRIDE * H, 0, 0, 0, 0};
        std::memcpy(header.data(), h, 40);
        std::memset(header.data() + 44, 255, 3);  // entry 0 black, entry 1 white
    }
};

const page &source() {
    static page p;
    return p;
}

int IMG_CALLBACK get_row(void *, unsigned char *buffer, int r, int) {
    std::memcpy(buffer, source().rows.data() + size_t{STRIDE} * r, STRIDE);
    return 0;
}
int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    std::memcpy(static_cast<uint8_t *>(context) + size_t{STRIDE} * r, row, STRIDE);
    return 0;
}
int IMG_CALLBACK accept_header(void *, void *) { return 0; }

// Our writer's file in a block of exactly its size.  Its density record
// takes the standard spelling, which ImageMagick insists on; our reader
// reads only the pel count.
struct encoded {
    int block = 0;
    uint8_t *data = nullptr;
    int size = 0;
    encoded() {
        int big = IMG_mem_alloc(STRIDE * H + 4096);
        void *out = IMG_mem_lock(big);
        size = IMGLOW_save_bitmap_mem(out, const_cast<uint8_t *>(source().header.data()), IMG_TYPE_CALS, get_row,
                                      nullptr);
        block = IMG_mem_alloc(size);
        data = static_cast<uint8_t *>(IMG_mem_lock(block));
        std::memcpy(data, out, static_cast<size_t>(size));
        std::memcpy(data + 9 * 128, "rdensty: 200 ", 13);
        IMG_mem_unlock(big);
        IMG_mem_free(big);
    }
};

const encoded &cals_file() {
    static encoded e;
    return e;
}

void set_rate(benchmark::State &state) {
    state.counters["Mpixel/s"] = benchmark::Counter(double{W} * H * static_cast<double>(state.iterations()) / 1e6,
                                                    benchmark::Counter::kIsRate);
}

void BM_CalsDecode_Brivanta(benchmark::State &state) {
    std::vector<uint8_t> image(size_t{STRIDE} * H);
    for (auto _ : state)
        if (IMGLOW_decompress_bitmap_mem(cals_file().data, 0, put_row, image.data(), accept_header) != 0)
            state.SkipWithError("decode failed");
    if (image != source().rows) state.SkipWithError("decoded page differs");
    state.counters["bytes"] = cals_file().size;
    set_rate(state);
}

void BM_CalsDecode_ImageMagick(benchmark::State &state) {
    MagickWandGenesis();
    MagickSetResourceLimit(ThreadResource, 1);
    for (auto _ : state) {
        MagickWand *w = NewMagickWand();
        MagickSetFormat(w, "CALS");
        if (!MagickReadImageBlob(w, cals_file().data, static_cast<size_t>(cals_file().size)) ||
            MagickGetImageWidth(w) != W)
            state.SkipWithError("ImageMagick failed");
        DestroyMagickWand(w);
    }
    set_rate(state);
}

void BM_CalsEncode_Brivanta(benchmark::State &state) {
    int block = IMG_mem_alloc(STRIDE * H + 4096);
    void *out = IMG_mem_lock(block);
    for (auto _ : state)
        if (IMGLOW_save_bitmap_mem(out, const_cast<uint8_t *>(source().header.data()), IMG_TYPE_CALS, get_row,
                                   nullptr) <= 0)
            state.SkipWithError("encode failed");
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    set_rate(state);
}

}  // namespace

BENCHMARK(BM_CalsDecode_Brivanta)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalsDecode_ImageMagick)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalsEncode_Brivanta)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
