// Processing of a 4000 x 3000 picture at 24 and 8 bits, in megapixels per
// second: ours beside memcpy of the bitmap (the ceiling for flips and
// inversion), libvips (one thread, then its default) and ImageMagick (one
// thread, then its default), each linked into this benchmark only.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>
#ifdef HAVE_VIPS
#include <vips/vips.h>
#endif
#ifdef HAVE_MAGICKWAND
#include <wand/MagickWand.h>
#endif

namespace {

constexpr int W = 4000, H = 3000;

// A photograph-like picture: gradients, texture and a little noise.
std::vector<uint8_t> pixels(int bits) {
    const int n = bits / 8;
    std::vector<uint8_t> p(size_t{W} * H * n);
    uint32_t seed = 7;
    for (int y = 0; y < H; y++)
        for (int x = 0; x < W; x++)
            for (int c = 0; c < n; c++) {
                seed = seed * 1664525u + 1013904223u;
                p[(size_t{W} * y + x) * n + c] = static_cast<uint8_t>((x * (c + 1) / 16 + y / 12 + ((x ^ y) & 15)) + (seed >> 29));
            }
    return p;
}

// The picture as a DIB in a block (8 bits on the identity grey ramp).
struct dib_block {
    int block = 0;
    uint8_t *data = nullptr;
    explicit dib_block(int bits) {
        const int stride = W * bits / 8, pal = bits == 24 ? 0 : 1024;
        block = IMG_mem_alloc(40 + pal + stride * H);
        data = static_cast<uint8_t *>(IMG_mem_lock(block));
        int32_t h[10] = {40, W, H, 1 | bits << 16, 0, stride * H, 0, 0, 0, 0};
        std::memcpy(data, h, 40);
        for (int i = 0; i < pal / 4; i++) std::memset(data + 40 + 4 * i, i, 3);
        std::vector<uint8_t> p = pixels(bits);
        for (int y = 0; y < H; y++) std::memcpy(data + 40 + pal + size_t(H - 1 - y) * stride, p.data() + size_t(y) * stride, stride);
    }
};

const dib_block &dib(int bits) {
    static dib_block d24(24), d8(8);
    return bits == 24 ? d24 : d8;
}

void rate(benchmark::State &state) {
    // Megapixels of the source a second of wall-clock time (the rows are
    // registered with UseRealTime).
    state.counters["MP/s"] = benchmark::Counter(double(W) * H * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

struct our_op {
    const char *name;
    std::function<int(int)> run;
    bool changes_size;  // a fresh handle each time
};
const our_op ours[] = {
    {"rotate90", [](int h) { return IMG_rotate_bitmap(h, 90); }, false},
    {"flip_x", IMG_flip_bitmapx, false},
    {"flip_y", IMG_flip_bitmapy, false},
    {"invert", IMG_invert_bitmap, false},
    {"sample_half", [](int h) { return IMG_resize_bitmap(h, W / 2, H / 2); }, true},
    {"sample_double", [](int h) { return IMG_resize_bitmap(h, W * 2, H * 2); }, true},
    {"interp_half", [](int h) { return IMG_resize_bitmap_interp(h, W / 2, H / 2); }, true},
    {"interp_double", [](int h) { return IMG_resize_bitmap_interp(h, W * 2, H * 2); }, true},
    {"sharpen", [](int h) { return IMG_sharpen_bitmap(h, 64); }, false},
    {"filter3x3", [](int h) { return IMG_process_bitmap(h, 2, nullptr); }, false},
};

void bm_ours(benchmark::State &state, const our_op *op, int bits) {
    int h = IMG_create_handle(dib(bits).data);
    for (auto _ : state) {
        if (op->changes_size) {
            state.PauseTiming();
            IMG_delete_bitmap(h);
            h = IMG_create_handle(dib(bits).data);
            state.ResumeTiming();
        }
        if (op->run(h) != 0) state.SkipWithError("operation failed");
    }
    IMG_delete_bitmap(h);
    rate(state);
}

void bm_memcpy(benchmark::State &state, int bits) {
    const size_t n = size_t{W} * H * bits / 8;
    std::vector<uint8_t> to(n);
    const uint8_t *from = dib(bits).data + 40 + (bits == 24 ? 0 : 1024);
    for (auto _ : state) {
        std::memcpy(to.data(), from, n);
        benchmark::DoNotOptimize(to.data());
    }
    rate(state);
}

#ifdef HAVE_VIPS
// Each operation made and computed into memory; the cache is off so every
// iteration computes.
using vips_op = std::function<int(VipsImage *, VipsImage **)>;
VipsImage *vips_conv_mask() {
    VipsImage *m = vips_image_new_matrixv(3, 3, -1.0, -1.0, -1.0, -1.0, 8.0, -1.0, -1.0, -1.0, -1.0);
    return m;
}
const std::pair<const char *, vips_op> vips_ops[] = {
    {"rotate90", [](VipsImage *in, VipsImage **out) { return vips_rot(in, out, VIPS_ANGLE_D90, nullptr); }},
    {"flip_x", [](VipsImage *in, VipsImage **out) { return vips_flip(in, out, VIPS_DIRECTION_HORIZONTAL, nullptr); }},
    {"flip_y", [](VipsImage *in, VipsImage **out) { return vips_flip(in, out, VIPS_DIRECTION_VERTICAL, nullptr); }},
    {"invert", [](VipsImage *in, VipsImage **out) { return vips_invert(in, out, nullptr); }},
    {"sample_half", [](VipsImage *in, VipsImage **out) { return vips_resize(in, out, 0.5, "kernel", VIPS_KERNEL_NEAREST, nullptr); }},
    {"sample_double", [](VipsImage *in, VipsImage **out) { return vips_resize(in, out, 2.0, "kernel", VIPS_KERNEL_NEAREST, nullptr); }},
    {"interp_half", [](VipsImage *in, VipsImage **out) { return vips_resize(in, out, 0.5, "kernel", VIPS_KERNEL_LINEAR, nullptr); }},
    {"interp_double", [](VipsImage *in, VipsImage **out) { return vips_resize(in, out, 2.0, "kernel", VIPS_KERNEL_LINEAR, nullptr); }},
    {"sharpen", [](VipsImage *in, VipsImage **out) { return vips_sharpen(in, out, nullptr); }},
    {"filter3x3", [](VipsImage *in, VipsImage **out) {
         VipsImage *m = vips_conv_mask();
         int r = vips_conv(in, out, m, "precision", VIPS_PRECISION_INTEGER, nullptr);
         g_object_unref(m);
         return r;
     }},
};

void bm_vips(benchmark::State &state, const vips_op *op, int bits, int threads) {
    vips_concurrency_set(threads);
    const int n = bits / 8;
    std::vector<uint8_t> p = pixels(bits);
    for (auto _ : state) {
        VipsImage *in = vips_image_new_from_memory(p.data(), p.size(), W, H, n, VIPS_FORMAT_UCHAR), *out = nullptr;
        size_t size = 0;
        void *mem = nullptr;
        if ((*op)(in, &out) == 0) mem = vips_image_write_to_memory(out, &size);
        if (!mem) state.SkipWithError(vips_error_buffer());
        g_free(mem);
        if (out) g_object_unref(out);
        g_object_unref(in);
    }
    rate(state);
}
#endif

#ifdef HAVE_MAGICKWAND
using magick_op = std::function<MagickBooleanType(MagickWand *)>;
const double laplace[9] = {-1, -1, -1, -1, 8, -1, -1, -1, -1};
const std::pair<const char *, magick_op> magick_ops[] = {
    {"rotate90", [](MagickWand *w) {
         PixelWand *bg = NewPixelWand();
         MagickBooleanType r = MagickRotateImage(w, bg, 90);
         DestroyPixelWand(bg);
         return r;
     }},
    {"flip_x", MagickFlopImage},
    {"flip_y", MagickFlipImage},
    {"invert", [](MagickWand *w) { return MagickNegateImage(w, MagickFalse); }},
    {"sample_half", [](MagickWand *w) { return MagickSampleImage(w, W / 2, H / 2); }},
    {"sample_double", [](MagickWand *w) { return MagickSampleImage(w, W * 2, H * 2); }},
    {"interp_half", [](MagickWand *w) { return MagickResizeImage(w, W / 2, H / 2, TriangleFilter, 1.0); }},
    {"interp_double", [](MagickWand *w) { return MagickResizeImage(w, W * 2, H * 2, TriangleFilter, 1.0); }},
    {"sharpen", [](MagickWand *w) { return MagickUnsharpMaskImage(w, 1.0, 1.0, 1.0, 0.0); }},
    {"filter3x3", [](MagickWand *w) { return MagickConvolveImage(w, 3, laplace); }},
};

void bm_magick(benchmark::State &state, const magick_op *op, int bits, int threads) {
    MagickSetResourceLimit(ThreadResource, threads ? threads : 2);
    std::vector<uint8_t> p = pixels(bits);
    MagickWand *source = NewMagickWand();
    MagickConstituteImage(source, W, H, bits == 24 ? "BGR" : "I", CharPixel, p.data());
    for (auto _ : state) {
        state.PauseTiming();
        MagickWand *w = CloneMagickWand(source);
        state.ResumeTiming();
        if ((*op)(w) != MagickTrue) state.SkipWithError("operation failed");
        state.PauseTiming();
        DestroyMagickWand(w);
        state.ResumeTiming();
    }
    DestroyMagickWand(source);
    rate(state);
}
#endif

// One name per row of the table: operation/bits/library.
[[maybe_unused]] const bool registered = [] {
    for (int bits : {24, 8}) {
        std::string b = "/";
        b += std::to_string(bits);
        b += "bit";
        benchmark::RegisterBenchmark(("memcpy" + b).c_str(), bm_memcpy, bits)->Unit(benchmark::kMillisecond)->UseRealTime();
        for (const our_op &op : ours) {
            benchmark::RegisterBenchmark((std::string(op.name) + b + "/ours").c_str(), bm_ours, &op, bits)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef HAVE_VIPS
            for (auto &v : vips_ops)
                if (!std::strcmp(v.first, op.name))
                    for (int t : {1, 0})
                        benchmark::RegisterBenchmark((std::string(op.name) + b + (t ? "/vips_1thread" : "/vips_default")).c_str(), bm_vips,
                                                     &v.second, bits, t)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
#ifdef HAVE_MAGICKWAND
            // Doubling makes a 48-megapixel picture of 16-bit samples, past
            // Debian's ImageMagick memory policy: its pixel cache goes to disk
            // and one run takes minutes.
            for (auto &m : magick_ops)
                if (!std::strcmp(m.first, op.name) && !std::strstr(op.name, "double"))
                    for (int t : {1, 0})
                        benchmark::RegisterBenchmark((std::string(op.name) + b + (t ? "/magick_1thread" : "/magick_default")).c_str(),
                                                     bm_magick, &m.second, bits, t)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
        }
    }
    return true;
}();

}  // namespace

int main(int argc, char **argv) {
#ifdef HAVE_VIPS
    if (VIPS_INIT(argv[0])) return 1;
    vips_cache_set_max(0);
#endif
#ifdef HAVE_MAGICKWAND
    MagickWandGenesis();
#endif
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
#ifdef HAVE_MAGICKWAND
    MagickWandTerminus();
#endif
    return 0;
}
