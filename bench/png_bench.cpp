// PNG decode and encode of a 4000 x 3000 RGB picture in memory, here and in
// libpng (its simplified interface) and stb_image (linked into this
// benchmark only).  Every decoder reads the file our writer made.
#include "brivanta.h"

#include <benchmark/benchmark.h>
#ifdef HAVE_PNG_REFS
#include <png.h>
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>
#endif

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 4000, H = 3000;

// A photograph-like picture: gradients, a texture and low noise.
struct source {
    std::vector<uint8_t> bgr = std::vector<uint8_t>(size_t{W} * H * 3);
    std::vector<uint8_t> header = std::vector<uint8_t>(1064);
    std::vector<uint8_t> file;
    source() {
        uint32_t seed = 9;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++)
                for (int c = 0; c < 3; c++) {
                    seed = seed * 1664525u + 1013904223u;
                    bgr[(size_t{W} * y + x) * 3 + c] =
                        static_cast<uint8_t>(x * (c + 1) / 40 + y / (12 + c) + ((x ^ y) >> 6 & 7) + (seed >> 30));
                }
        const uint32_t fields[] = {40, W, H};
        std::memcpy(header.data(), fields, sizeof fields);
        header[12] = 1, header[14] = 24;
    }
};

source &src() {
    static source s;
    return s;
}

int IMG_CALLBACK get_row(void *context, unsigned char *buffer, int r, int n) {
    std::memcpy(buffer, static_cast<const uint8_t *>(context) + size_t{W} * 3 * r, static_cast<size_t>(n));
    return 0;
}
int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    std::memcpy(static_cast<uint8_t *>(context) + size_t{W} * 3 * r, row, size_t{W} * 3);
    return 0;
}
int IMG_CALLBACK accept_header(void *, void *) { return 0; }

// Our encode into a block; the file's size, or a negative code.
int encode(std::vector<uint8_t> *keep) {
    int block = IMG_mem_alloc(W * H * 3 + (1 << 20));
    void *out = IMG_mem_lock(block);
    int n = IMGLOW_save_bitmap_mem(out, src().header.data(), IMG_TYPE_PNG, get_row, src().bgr.data());
    if (keep && n > 0) keep->assign(static_cast<uint8_t *>(out), static_cast<uint8_t *>(out) + n);
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    return n;
}

const std::vector<uint8_t> &file() {
    if (src().file.empty()) encode(&src().file);
    return src().file;
}

void BM_PngEncode_Brivanta(benchmark::State &state) {
    int n = 0;
    for (auto _ : state)
        if ((n = encode(nullptr)) <= 0) state.SkipWithError("encode failed");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
    state.counters["file_bytes"] = n;
}
BENCHMARK(BM_PngEncode_Brivanta)->Unit(benchmark::kMillisecond);

void BM_PngDecode_Brivanta(benchmark::State &state) {
    const std::vector<uint8_t> &f = file();
    int block = IMG_mem_alloc(static_cast<int>(f.size()));
    void *in = IMG_mem_lock(block);
    std::memcpy(in, f.data(), f.size());
    std::vector<uint8_t> image(size_t{W} * H * 3);
    for (auto _ : state)
        if (IMGLOW_decompress_bitmap_mem(in, 0, put_row, image.data(), accept_header) < 0)
            state.SkipWithError("decode failed");
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    if (image != src().bgr) state.SkipWithError("decoded pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
}
BENCHMARK(BM_PngDecode_Brivanta)->Unit(benchmark::kMillisecond);

// What a user does: load the file into a handle (a bitmap of its own, no row
// callback), the same bytes the other decoders read.
void BM_PngDecodeHandle_Brivanta(benchmark::State &state) {
    const std::vector<uint8_t> &f = file();
    int block = IMG_mem_alloc(static_cast<int>(f.size()));
    void *in = IMG_mem_lock(block);
    std::memcpy(in, f.data(), f.size());
    int w = 0, h = 0, bits = 0;
    for (auto _ : state) {
        int handle = IMG_decompress_bitmap_mem(in, 0);
        if (handle < 0) {
            state.SkipWithError("decode failed");
            break;
        }
        IMG_bitmap_info(handle, &w, &h, &bits);
        IMG_delete_bitmap(handle);
    }
    IMG_mem_unlock(block);
    IMG_mem_free(block);
    if (w != W || h != H || bits != 24) state.SkipWithError("decoded bitmap has the wrong shape");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
}
BENCHMARK(BM_PngDecodeHandle_Brivanta)->Unit(benchmark::kMillisecond);

#ifdef HAVE_PNG_REFS
// The reference decoders give red first: the check compares channel by channel.
bool same_as_source(const uint8_t *rgb) {
    const std::vector<uint8_t> &bgr = src().bgr;
    for (size_t i = 0; i < bgr.size(); i += 3)
        if (rgb[i] != bgr[i + 2] || rgb[i + 1] != bgr[i + 1] || rgb[i + 2] != bgr[i]) return false;
    return true;
}

void BM_PngDecode_libpng(benchmark::State &state) {
    const std::vector<uint8_t> &f = file();
    std::vector<uint8_t> image(size_t{W} * H * 3);
    for (auto _ : state) {
        png_image im{};
        im.version = PNG_IMAGE_VERSION;
        bool ok = png_image_begin_read_from_memory(&im, f.data(), f.size());
        im.format = PNG_FORMAT_RGB;
        ok = ok && png_image_finish_read(&im, nullptr, image.data(), 0, nullptr);
        png_image_free(&im);
        if (!ok) state.SkipWithError("libpng decode failed");
    }
    if (!same_as_source(image.data())) state.SkipWithError("libpng pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
}
BENCHMARK(BM_PngDecode_libpng)->Unit(benchmark::kMillisecond);

void BM_PngDecode_stb(benchmark::State &state) {
    const std::vector<uint8_t> &f = file();
    bool same = false;
    for (auto _ : state) {
        int w = 0, h = 0, n = 0;
        uint8_t *p = stbi_load_from_memory(f.data(), static_cast<int>(f.size()), &w, &h, &n, 3);
        if (!p) state.SkipWithError("stb_image decode failed");
        same = p && same_as_source(p);
        stbi_image_free(p);
    }
    if (!same) state.SkipWithError("stb_image pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
}
BENCHMARK(BM_PngDecode_stb)->Unit(benchmark::kMillisecond);

std::vector<uint8_t> &rgb_source() {
    static std::vector<uint8_t> rgb = [] {
        std::vector<uint8_t> v(src().bgr);
        for (size_t i = 0; i < v.size(); i += 3) std::swap(v[i], v[i + 2]);
        return v;
    }();
    return rgb;
}

void BM_PngEncode_libpng(benchmark::State &state) {
    std::vector<uint8_t> out(size_t{W} * H * 4);
    png_alloc_size_t n = 0;
    for (auto _ : state) {
        png_image im{};
        im.version = PNG_IMAGE_VERSION;
        im.width = W, im.height = H, im.format = PNG_FORMAT_RGB;
        n = out.size();
        if (!png_image_write_to_memory(&im, out.data(), &n, 0, rgb_source().data(), 0, nullptr))
            state.SkipWithError("libpng encode failed");
        png_image_free(&im);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
    state.counters["file_bytes"] = static_cast<double>(n);
}
BENCHMARK(BM_PngEncode_libpng)->Unit(benchmark::kMillisecond);

void BM_PngEncode_stb(benchmark::State &state) {
    int n = 0;
    for (auto _ : state) {
        n = 0;
        auto count = [](void *context, void *, int size) { *static_cast<int *>(context) += size; };
        if (!stbi_write_png_to_func(count, &n, W, H, 3, rgb_source().data(), W * 3))
            state.SkipWithError("stb_image_write encode failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * 3);
    state.counters["file_bytes"] = n;
}
BENCHMARK(BM_PngEncode_stb)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
