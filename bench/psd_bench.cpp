// Photoshop run-length decode of a 4000 x 3000 RGB document from memory,
// here (planes through the temporary file, then interleaved) and in
// ImageMagick (one thread; linked into this benchmark only).
#include "brivanta.h"

#include <benchmark/benchmark.h>
#ifdef HAVE_MAGICKWAND
#include <wand/MagickWand.h>
#endif

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 4000, H = 3000;

uint8_t sample(int x, int y, int c, uint32_t &seed) {
    seed = seed * 1664525u + 1013904223u;
    return static_cast<uint8_t>(((x / (9 + c)) ^ (y / 7)) + ((x * y) >> (13 + c)) + (seed >> 31));
}

// PackBits of one plane row, as Photoshop codes it.
void pack(const uint8_t *p, int n, std::vector<uint8_t> &out) {
    int i = 0;
    while (i < n) {
        int run = 1;
        while (i + run < n && run < 128 && p[i + run] == p[i]) run++;
        if (run >= 3) {
            out.push_back(static_cast<uint8_t>(257 - run));
            out.push_back(p[i]);
            i += run;
            continue;
        }
        int lit = 1;
        while (i + lit < n && lit < 128 && !(i + lit + 2 < n && p[i + lit] == p[i + lit + 1] && p[i + lit] == p[i + lit + 2]))
            lit++;
        out.push_back(static_cast<uint8_t>(lit - 1));
        out.insert(out.end(), p + i, p + i + lit);
        i += lit;
    }
}

void be(std::vector<uint8_t> &f, uint32_t v, int n) {
    for (int k = n - 1; k >= 0; k--) f.push_back(static_cast<uint8_t>(v >> (8 * k)));
}

// The document and the pixels it holds (blue, green, red rows, top first).
struct document {
    std::vector<uint8_t> bgr = std::vector<uint8_t>(size_t{W} * H * 3);
    int block = 0;
    void *data = nullptr;
    int size = 0;
    document() {
        uint32_t seed = 7;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++)
                for (int c = 0; c < 3; c++) bgr[(size_t{W} * y + x) * 3 + 2 - c] = sample(x, y, c, seed);
        std::vector<uint8_t> f = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0};
        be(f, 3, 2), be(f, H, 4), be(f, W, 4), be(f, 8, 2), be(f, 3, 2), be(f, 0, 4), be(f, 0, 4), be(f, 0, 4);
        be(f, 1, 2);
        std::vector<uint8_t> body, row(W);
        std::vector<uint32_t> counts;
        for (int c = 0; c < 3; c++)
            for (int y = 0; y < H; y++) {
                for (int x = 0; x < W; x++) row[x] = bgr[(size_t{W} * y + x) * 3 + 2 - c];
                const size_t before = body.size();
                pack(row.data(), W, body);
                counts.push_back(static_cast<uint32_t>(body.size() - before));
            }
        for (uint32_t n : counts) be(f, n, 2);
        f.insert(f.end(), body.begin(), body.end());
        size = static_cast<int>(f.size());
        block = IMG_mem_alloc(size);
        data = IMG_mem_lock(block);
        std::memcpy(data, f.data(), f.size());
    }
};

const document &doc() {
    static document d;
    return d;
}

int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    std::memcpy(static_cast<uint8_t *>(context) + size_t{W} * 3 * r, row, size_t{W} * 3);
    return 0;
}
int IMG_CALLBACK accept_header(void *, void *) { return 0; }

void BM_PsdDecodeRle_Brivanta(benchmark::State &state) {
    std::vector<uint8_t> image(size_t{W} * H * 3);
    for (auto _ : state) {
        if (IMGLOW_decompress_bitmap_mem(doc().data, 0, put_row, image.data(), accept_header) < 0)
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(image.data());
    }
    if (image != doc().bgr) state.SkipWithError("decoded pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
    state.counters["file_bytes"] = doc().size;
}
BENCHMARK(BM_PsdDecodeRle_Brivanta)->Unit(benchmark::kMillisecond);

#ifdef HAVE_MAGICKWAND
void BM_PsdDecodeRle_ImageMagick(benchmark::State &state) {
    MagickWandGenesis();
    MagickSetResourceLimit(ThreadResource, 1);
    std::vector<uint8_t> image(size_t{W} * H * 3);
    for (auto _ : state) {
        MagickWand *w = NewMagickWand();
        MagickSetFormat(w, "PSD");
        bool ok = MagickReadImageBlob(w, doc().data, static_cast<size_t>(doc().size)) == MagickTrue &&
                  MagickExportImagePixels(w, 0, 0, W, H, "BGR", CharPixel, image.data()) == MagickTrue;
        DestroyMagickWand(w);
        if (!ok) state.SkipWithError("ImageMagick decode failed");
    }
    if (image != doc().bgr) state.SkipWithError("ImageMagick pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
}
BENCHMARK(BM_PsdDecodeRle_ImageMagick)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
