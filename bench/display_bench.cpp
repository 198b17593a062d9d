// A full-window banded display of a 4000 x 3000 24-bit picture scaled to
// 1920 x 1080 on a memory surface, in frames per second, beside pixman's
// nearest-neighbour scaling of the same picture into the same size.
#include "brivanta.h"

#include <benchmark/benchmark.h>
#include <pixman.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 4000, H = 3000, DW = 1920, DH = 1080;

// A photograph-like picture, rows top-down, 3 bytes a pixel.
const std::vector<uint8_t> &pixels() {
    static const std::vector<uint8_t> p = [] {
        std::vector<uint8_t> v(size_t{W} * H * 3);
        uint32_t seed = 7;
        for (size_t i = 0; i < v.size(); i++) {
            const size_t x = i / 3 % W, y = i / 3 / W;
            seed = seed * 1664525u + 1013904223u;
            v[i] = static_cast<uint8_t>(x / 16 + y / 12 + ((x ^ y) & 15) + (seed >> 29));
        }
        return v;
    }();
    return p;
}

int picture_handle() {
    static const int h = [] {
        const int stride = W * 3;
        const int block = IMG_mem_alloc(40 + stride * H);
        auto *d = static_cast<uint8_t *>(IMG_mem_lock(block));
        const int32_t hdr[10] = {40, W, H, 1 | 24 << 16, 0, stride * H, 0, 0, 0, 0};
        std::memcpy(d, hdr, 40);
        for (int y = 0; y < H; y++)
            std::memcpy(d + 40 + size_t(H - 1 - y) * stride, pixels().data() + size_t(y) * stride, stride);
        const int handle = IMG_create_handle(d);
        IMG_mem_unlock(block);
        IMG_mem_free(block);
        return handle;
    }();
    return h;
}

void frames(benchmark::State &state) {
    state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_brivanta_display(benchmark::State &state) {
    const int h = picture_handle();
    void *dc = nullptr;
    IMG_dc_create_memory(DW, DH, &dc);
    for (auto _ : state) {
        if (IMG_display_bitmap(h, dc, 0, 0, DW, DH) != 0) state.SkipWithError("display failed");
        benchmark::ClobberMemory();
    }
    frames(state);
    IMG_dc_delete(dc);
}

void BM_pixman_nearest(benchmark::State &state) {
    // pixman's 24-bit format reads the same bytes (blue, green, red).
    auto *src_bits = reinterpret_cast<uint32_t *>(const_cast<uint8_t *>(pixels().data()));
    pixman_image_t *src = pixman_image_create_bits(PIXMAN_r8g8b8, W, H, src_bits, W * 3);
    pixman_image_t *dst = pixman_image_create_bits(PIXMAN_x8r8g8b8, DW, DH, nullptr, 0);
    pixman_transform_t t;
    pixman_transform_init_scale(&t, pixman_double_to_fixed(double(W) / DW), pixman_double_to_fixed(double(H) / DH));
    pixman_image_set_transform(src, &t);
    pixman_image_set_filter(src, PIXMAN_FILTER_NEAREST, nullptr, 0);
    for (auto _ : state) {
        pixman_image_composite32(PIXMAN_OP_SRC, src, nullptr, dst, 0, 0, 0, 0, 0, 0, DW, DH);
        benchmark::ClobberMemory();
    }
    frames(state);
    pixman_image_unref(src);
    pixman_image_unref(dst);
}

}  // namespace

BENCHMARK(BM_brivanta_display)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_pixman_nearest)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
