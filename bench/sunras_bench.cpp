// Decode of 4000 x 3000 Sun raster run-length files (8 and 24 bits) and X
// window dumps (24 bits in 32-bit pixels, 8 bits) from memory, beside
// ImageMagick (MagickWand, one thread) reading the same bytes; then whole
// processes from a file: netpbm's converter to PNM on a pipe to /dev/null
// beside our tool converting to an uncompressed BMP, start-up included.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_process.h"

#ifdef HAVE_MAGICKWAND
#include <wand/MagickWand.h>
#endif

namespace {

constexpr int W = 4000, H = 3000;

enum kind { SUN_RLE8, SUN_RLE24, XWD24, XWD8 };

void be32(std::vector<uint8_t> &f, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) f.push_back(static_cast<uint8_t>(v >> s));
}

// Flat bands broken by noise: runs and literals both.
uint8_t sample(int x, int y, int c, uint32_t &seed) {
    seed = seed * 1664525u + 1013904223u;
    int v = (x / 50 + y / 40) * 29 + c * 60 + ((seed >> 28) == 0 ? static_cast<int>(seed >> 24) : 0);
    return static_cast<uint8_t>(v);
}

std::vector<uint8_t> sun_file(int bits) {
    std::vector<uint8_t> f;
    for (uint32_t v : {0x59A66A95u, uint32_t(W), uint32_t(H), uint32_t(bits), 0u, 2u, bits == 8 ? 1u : 0u,
                       bits == 8 ? 768u : 0u})
        be32(f, v);
    for (int k = 0; bits == 8 && k < 768; k++) f.push_back(static_cast<uint8_t>(k % 256));
    std::vector<uint8_t> raw;
    uint32_t seed = 7;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++)
            for (int c = 0; c < bits / 8; c++) raw.push_back(sample(x, y, bits == 24 ? 0 : c, seed));
    for (size_t i = 0; i < raw.size();) {
        size_t n = 1;
        while (i + n < raw.size() && n < 256 && raw[i + n] == raw[i]) n++;
        if (n >= 3) {
            f.insert(f.end(), {0x80, static_cast<uint8_t>(n - 1), raw[i]});
        } else if (raw[i] == 0x80) {
            n = 1;
            f.insert(f.end(), {0x80, 0});
        } else {
            n = 1;
            f.push_back(raw[i]);
        }
        i += n;
    }
    const uint32_t length = static_cast<uint32_t>(f.size() - 32 - (bits == 8 ? 768 : 0));
    for (int k = 0; k < 4; k++) f[16 + k] = static_cast<uint8_t>(length >> (24 - 8 * k));  // ImageMagick reads it
    return f;
}

std::vector<uint8_t> xwd_file(int bits) {
    const uint32_t bpp = bits == 24 ? 32 : 8, bpl = W * bpp / 8, ncolours = bits == 8 ? 256 : 0;
    std::vector<uint8_t> f;
    const uint32_t fields[25] = {104, 7, 2, uint32_t(bits), W, H, 0, 1, 32, 1, 32, bpp, bpl, bits == 24 ? 4u : 3u,
                                 bits == 24 ? 0xFF0000u : 0, bits == 24 ? 0xFF00u : 0, bits == 24 ? 0xFFu : 0, 8,
                                 256, ncolours, W, H, 0, 0, 0};
    for (uint32_t v : fields) be32(f, v);
    f.insert(f.end(), {'b', 'e', 'n', 0});
    for (uint32_t i = 0; i < ncolours; i++) {
        be32(f, i);
        for (int c = 0; c < 3; c++) f.insert(f.end(), {static_cast<uint8_t>(i), static_cast<uint8_t>(i)});
        f.insert(f.end(), {7, 0});
    }
    uint32_t seed = 11;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++) {
            if (bits == 24) f.push_back(0);
            for (int c = 0; c < bits / 8; c++) f.push_back(sample(x, y, c, seed));
        }
    return f;
}

// The file of a kind, made once.
const std::vector<uint8_t> &file_of(kind k) {
    static std::vector<uint8_t> files[4];
    if (files[k].empty())
        files[k] = k == SUN_RLE8 ? sun_file(8) : k == SUN_RLE24 ? sun_file(24) : k == XWD24 ? xwd_file(24) : xwd_file(8);
    return files[k];
}

struct sink {
    std::vector<uint8_t> image;
    size_t stride = 0;
};
int IMG_CALLBACK begin(void *header, void *context) {
    auto *s = static_cast<sink *>(context);
    int32_t h[4];
    std::memcpy(h, header, 16);
    const int bits = static_cast<uint16_t>(h[3] >> 16);
    s->stride = (size_t(bits == 24 ? 3 * W : W) + 3) & ~size_t{3};
    s->image.resize(s->stride * H);
    return 0;
}
int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    auto *s = static_cast<sink *>(context);
    std::memcpy(s->image.data() + s->stride * r, row, s->stride);
    return 0;
}

void BM_Ours(benchmark::State &state) {
    const auto &f = file_of(static_cast<kind>(state.range(0)));
    int block = IMG_mem_alloc(static_cast<int>(f.size()));
    void *p = IMG_mem_lock(block);
    std::memcpy(p, f.data(), f.size());
    sink s;
    for (auto _ : state) {
        if (IMGLOW_decompress_bitmap_mem(p, 0, put_row, &s, begin) != 0) state.SkipWithError("load failed");
        benchmark::DoNotOptimize(s.image.data());
    }
    state.counters["Mpix/s"] = benchmark::Counter(double(W) * H / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    IMG_mem_unlock(block);
    IMG_mem_free(block);
}

#ifdef HAVE_MAGICKWAND
void BM_ImageMagick(benchmark::State &state) {
    const kind k = static_cast<kind>(state.range(0));
    const auto &f = file_of(k);
    MagickWandGenesis();
    MagickSetResourceLimit(ThreadResource, 1);
    for (auto _ : state) {
        MagickWand *w = NewMagickWand();
        MagickSetFormat(w, k == XWD24 || k == XWD8 ? "XWD" : "SUN");
        if (!MagickReadImageBlob(w, f.data(), f.size())) state.SkipWithError("ImageMagick failed");
        DestroyMagickWand(w);
    }
    state.counters["Mpix/s"] = benchmark::Counter(double(W) * H / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}
#endif

// The file of a kind written once to a temporary path, for whole processes.
std::string paths[4];
const std::string &path_of(kind k) {
    if (paths[k].empty()) {
        static const char *const ext[4] = {"ras", "ras", "xwd", "xwd"};
        paths[k] = "/tmp/sunras_bench_" + std::to_string(getpid()) + "_" + std::to_string(k) + "." + ext[k];
        const auto &f = file_of(k);
        FILE *out = std::fopen(paths[k].c_str(), "wb");
        if (!out || std::fwrite(f.data(), 1, f.size(), out) != f.size() || std::fclose(out) != 0) paths[k].clear();
    }
    return paths[k];
}

void whole_process(benchmark::State &state, bool ours) {
    const kind k = static_cast<kind>(state.range(0));
    const std::string &in = path_of(k);
    const std::string out = in + ".bmp";
    const std::vector<std::string> args =
        ours ? std::vector<std::string>{BRIVANTA_TOOL, "convert", in, out}
             : std::vector<std::string>{k == XWD24 || k == XWD8 ? "xwdtopnm" : "rasttopnm", in};
    for (auto _ : state)
        if (in.empty() || !run_quietly(args)) state.SkipWithError("process failed");
    std::remove(out.c_str());
    state.counters["Mpix/s"] = benchmark::Counter(double(W) * H / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}
void BM_OurToolProcess(benchmark::State &state) { whole_process(state, true); }
void BM_NetpbmProcess(benchmark::State &state) { whole_process(state, false); }

void kinds(benchmark::internal::Benchmark *b) {
    b->ArgName("kind")->Unit(benchmark::kMillisecond);
    for (int k : {SUN_RLE8, SUN_RLE24, XWD24, XWD8}) b->Arg(k);
}

}  // namespace

BENCHMARK(BM_Ours)->Apply(kinds);
#ifdef HAVE_MAGICKWAND
BENCHMARK(BM_ImageMagick)->Apply(kinds);
#endif
// Whole processes take wall-clock time: the child's work is not this thread's.
BENCHMARK(BM_OurToolProcess)->Apply(kinds)->UseRealTime();
BENCHMARK(BM_NetpbmProcess)->Apply(kinds)->UseRealTime();

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    for (const auto &p : paths)
        if (!p.empty()) std::remove(p.c_str());
}
