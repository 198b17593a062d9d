// Colour reductions of a 4000 x 3000 24-bit picture, in megapixels per
// second, beside memcpy of the same bytes, ImageMagick (MagickWand, one
// thread) and libimagequant (both linked into this benchmark only).
#include "brivanta.h"

#include <benchmark/benchmark.h>
#include <libimagequant.h>
#include <wand/MagickWand.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 4000, H = 3000;

// Smooth gradients with a little noise: like a photograph for the palettes.
struct picture {
    std::vector<uint8_t> dib = std::vector<uint8_t>(40 + size_t{W} * 3 * H);
    std::vector<uint8_t> rgba = std::vector<uint8_t>(size_t{W} * H * 4);
    picture() {
        int32_t h[10] = {40, W, H, 1 | 24 << 16, 0, W * 3 * H, 0, 0, 0, 0};
        std::memcpy(dib.data(), h, 40);
        uint32_t seed = 99;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                seed = seed * 1664525u + 1013904223u;
                int n = static_cast<int>(seed >> 28) - 8;
                uint8_t b = static_cast<uint8_t>((x * 255 / W + n) & 255);
                uint8_t g = static_cast<uint8_t>(((x + y) * 255 / (W + H) + n) & 255);
                uint8_t r = static_cast<uint8_t>((((x / 40) ^ (y / 30)) * 3 + y * 128 / H) & 255);
                uint8_t *p = dib.data() + 40 + (size_t{W} * (H - 1 - y) + x) * 3;
                p[0] = b, p[1] = g, p[2] = r;
                uint8_t *q = rgba.data() + (size_t{W} * y + x) * 4;
                q[0] = r, q[1] = g, q[2] = b, q[3] = 255;
            }
    }
};

const picture &source() {
    static picture p;
    return p;
}

void set_rate(benchmark::State &state) {
    state.counters["Mpix/s"] = benchmark::Counter(double{W} * H * static_cast<double>(state.iterations()) / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_memcpy(benchmark::State &state) {
    std::vector<uint8_t> out(source().dib.size());
    for (auto _ : state) {
        std::memcpy(out.data(), source().dib.data(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
    set_rate(state);
}

// Each run starts from a fresh 24-bit handle, made outside the timing.
template <int (*Op)(int)>
void BM_brivanta(benchmark::State &state) {
    int block = IMG_mem_alloc(static_cast<int>(source().dib.size()));
    void *dib = IMG_mem_lock(block);
    std::memcpy(dib, source().dib.data(), source().dib.size());
    for (auto _ : state) {
        state.PauseTiming();
        int h = IMG_create_handle(dib);
        state.ResumeTiming();
        if (Op(h) != 0) state.SkipWithError("operation failed");
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    set_rate(state);
}

int octree_256(int h) { return IMG_octree_color(h, 8, nullptr, 256); }
int octree_16(int h) { return IMG_octree_color(h, 4, nullptr, 16); }

enum magick_op { COLORS_256, FLOYD_STEINBERG, ORDERED_O8X8, MONOCHROME };

void BM_imagemagick(benchmark::State &state) {
    MagickWandGenesis();
    MagickSetResourceLimit(ThreadResource, 1);
    const auto op = static_cast<magick_op>(state.range(0));
    std::vector<uint8_t> rgb(size_t{W} * H * 3);
    for (size_t i = 0; i < size_t{W} * H; i++) std::memcpy(&rgb[3 * i], &source().rgba[4 * i], 3);
    for (auto _ : state) {
        state.PauseTiming();
        MagickWand *w = NewMagickWand();
        MagickConstituteImage(w, W, H, "RGB", CharPixel, rgb.data());
        state.ResumeTiming();
        MagickBooleanType ok = MagickTrue;
        switch (op) {
        case COLORS_256: ok = MagickQuantizeImage(w, 256, sRGBColorspace, 0, MagickTrue, MagickFalse); break;
        case FLOYD_STEINBERG:
            MagickSetOption(w, "dither", "FloydSteinberg");
            ok = MagickQuantizeImage(w, 256, sRGBColorspace, 0, MagickTrue, MagickFalse);
            break;
        case ORDERED_O8X8: ok = MagickOrderedPosterizeImage(w, "o8x8"); break;
        case MONOCHROME: ok = MagickQuantizeImage(w, 2, GRAYColorspace, 0, MagickTrue, MagickFalse); break;
        }
        if (!ok) state.SkipWithError("ImageMagick failed");
        state.PauseTiming();
        DestroyMagickWand(w);
        state.ResumeTiming();
    }
    set_rate(state);
}

void BM_libimagequant(benchmark::State &state) {
    std::vector<uint8_t> out(size_t{W} * H);
    for (auto _ : state) {
        liq_attr *attr = liq_attr_create();
        liq_image *img = liq_image_create_rgba(attr, source().rgba.data(), W, H, 0);
        liq_result *res = nullptr;
        if (liq_image_quantize(img, attr, &res) != LIQ_OK) {
            state.SkipWithError("libimagequant failed");
        } else {
            liq_set_dithering_level(res, 1.0f);
            liq_write_remapped_image(res, img, out.data(), out.size());
            liq_result_destroy(res);
        }
        liq_image_destroy(img);
        liq_attr_destroy(attr);
    }
    set_rate(state);
}

}  // namespace

BENCHMARK(BM_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_brivanta<IMG_popularity_color>)->Name("popularity")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<octree_256>)->Name("octree_8bit_256")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<octree_16>)->Name("octree_4bit_16")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_bayer_mono>)->Name("bayer_mono")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_halftone_mono>)->Name("halftone_mono")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_diffusion_mono>)->Name("diffusion_mono")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_bayer_color>)->Name("bayer_colour")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_diffusion_color>)->Name("diffusion_colour")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_brivanta<IMG_mediancut_color>)->Name("mediancut")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_imagemagick)->Name("magick_colors_256")->Arg(COLORS_256)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_imagemagick)->Name("magick_floyd_steinberg")->Arg(FLOYD_STEINBERG)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_imagemagick)->Name("magick_ordered_o8x8")->Arg(ORDERED_O8X8)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_imagemagick)->Name("magick_monochrome")->Arg(MONOCHROME)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_libimagequant)->Name("libimagequant")->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_MAIN();
