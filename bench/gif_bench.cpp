// GIF decode and encode of a 2000 x 1500 8-bit picture, here and in giflib
// (linked into this benchmark only), from and to memory.
#include "brivanta.h"

#include <benchmark/benchmark.h>
#include <gif_lib.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr int W = 2000, H = 1500;

// Smooth shapes with a little noise: compresses like a reduced photograph.
struct picture {
    std::vector<uint8_t> pixels = std::vector<uint8_t>(size_t{W} * H);
    std::vector<uint8_t> header = std::vector<uint8_t>(40 + 1024);
    picture() {
        uint32_t seed = 12345;
        for (int y = 0; y < H; y++)
            for (int x = 0; x < W; x++) {
                seed = seed * 1664525u + 1013904223u;
                int v = ((x / 9) ^ (y / 7)) + ((x * y) >> 14) + static_cast<int>(seed >> 30);
                pixels[size_t{W} * y + x] = static_cast<uint8_t>(v);
            }
        int32_t h[10] = {40, W, H, 1 | 8 << 16, 0, W * H, 0, 0, 0, 0};
        std::memcpy(header.data(), h, 40);
        for (int i = 0; i < 256; i++) {
            header[40 + 4 * i] = static_cast<uint8_t>(i);
            header[41 + 4 * i] = static_cast<uint8_t>(255 - i);
            header[42 + 4 * i] = static_cast<uint8_t>(i * 3);
        }
    }
};

const picture &source() {
    static picture p;
    return p;
}

int IMG_CALLBACK get_row(void *context, unsigned char *buffer, int r, int) {
    std::memcpy(buffer, static_cast<const picture *>(context)->pixels.data() + size_t{W} * r, W);
    return 0;
}

int IMG_CALLBACK put_row(unsigned char *row, void *context, int r, int) {
    std::memcpy(static_cast<uint8_t *>(context) + size_t{W} * r, row, W);
    return 0;
}
int IMG_CALLBACK accept_header(void *, void *) { return 0; }

// Our writer's output, in a block of exactly its size.
struct encoded {
    int block = 0;
    void *data = nullptr;
    int size = 0;
    encoded() {
        int big = IMG_mem_alloc(W * H * 2);
        void *out = IMG_mem_lock(big);
        size = IMGLOW_save_bitmap_mem(out, source().header.data(), IMG_TYPE_GIF, get_row,
                                      const_cast<picture *>(&source()));
        block = IMG_mem_alloc(size);
        data = IMG_mem_lock(block);
        std::memcpy(data, out, static_cast<size_t>(size));
        IMG_mem_unlock(big);
        IMG_mem_free(big);
    }
};

const encoded &gif_file() {
    static encoded e;
    return e;
}

void BM_GifDecode_Brivanta(benchmark::State &state) {
    std::vector<uint8_t> image(size_t{W} * H);
    for (auto _ : state) {
        int r = IMGLOW_decompress_bitmap_mem(gif_file().data, 0, put_row, image.data(), accept_header);
        if (r < 0) state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(image.data());
    }
    if (image != source().pixels) state.SkipWithError("decoded pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H);
    state.counters["file_bytes"] = gif_file().size;
}

struct memory_reader {
    const uint8_t *data;
    int size, pos;
};

int read_memory(GifFileType *gif, GifByteType *buf, int n) {
    auto *m = static_cast<memory_reader *>(gif->UserData);
    if (n > m->size - m->pos) n = m->size - m->pos;
    std::memcpy(buf, m->data + m->pos, static_cast<size_t>(n));
    m->pos += n;
    return n;
}

void BM_GifDecode_Giflib(benchmark::State &state) {
    std::vector<uint8_t> image(size_t{W} * H);
    for (auto _ : state) {
        memory_reader m{static_cast<const uint8_t *>(gif_file().data), gif_file().size, 0};
        int err = 0;
        GifFileType *gif = DGifOpen(&m, read_memory, &err);
        GifRecordType type;
        bool ok = gif != nullptr;
        while (ok && DGifGetRecordType(gif, &type) == GIF_OK && type != TERMINATE_RECORD_TYPE) {
            if (type == IMAGE_DESC_RECORD_TYPE) {
                ok = DGifGetImageDesc(gif) == GIF_OK;
                for (int y = 0; ok && y < H; y++) ok = DGifGetLine(gif, image.data() + size_t{W} * y, W) == GIF_OK;
                break;
            }
            if (type == EXTENSION_RECORD_TYPE) {
                int code;
                GifByteType *ext;
                ok = DGifGetExtension(gif, &code, &ext) == GIF_OK;
                while (ok && ext) ok = DGifGetExtensionNext(gif, &ext) == GIF_OK;
            }
        }
        if (!ok) state.SkipWithError("giflib decode failed");
        if (gif) DGifCloseFile(gif, &err);
        benchmark::DoNotOptimize(image.data());
    }
    if (image != source().pixels) state.SkipWithError("giflib pixels differ");
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H);
}

void BM_GifEncode_Brivanta(benchmark::State &state) {
    int block = IMG_mem_alloc(W * H * 2);
    void *out = IMG_mem_lock(block);
    int n = 0;
    for (auto _ : state) {
        n = IMGLOW_save_bitmap_mem(out, source().header.data(), IMG_TYPE_GIF, get_row, const_cast<picture *>(&source()));
        if (n < 0) state.SkipWithError("encode failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H);
    state.counters["file_bytes"] = n;
    IMG_mem_unlock(block);
    IMG_mem_free(block);
}

struct memory_writer {
    std::vector<uint8_t> bytes;
};

int write_memory(GifFileType *gif, const GifByteType *buf, int n) {
    auto *m = static_cast<memory_writer *>(gif->UserData);
    m->bytes.insert(m->bytes.end(), buf, buf + n);
    return n;
}

void BM_GifEncode_Giflib(benchmark::State &state) {
    memory_writer m;
    m.bytes.reserve(size_t{W} * H * 2);
    GifColorType colours[256];
    for (int i = 0; i < 256; i++) colours[i] = {static_cast<GifByteType>(i * 3), static_cast<GifByteType>(255 - i),
                                                static_cast<GifByteType>(i)};
    for (auto _ : state) {
        m.bytes.clear();
        int err = 0;
        GifFileType *gif = EGifOpen(&m, write_memory, &err);
        ColorMapObject *map = GifMakeMapObject(256, colours);
        bool ok = gif && map && EGifPutScreenDesc(gif, W, H, 8, 0, map) == GIF_OK &&
                  EGifPutImageDesc(gif, 0, 0, W, H, false, nullptr) == GIF_OK;
        for (int y = 0; ok && y < H; y++)
            ok = EGifPutLine(gif, const_cast<GifPixelType *>(source().pixels.data() + size_t{W} * y), W) == GIF_OK;
        if (gif) EGifCloseFile(gif, &err);
        GifFreeMapObject(map);
        if (!ok) state.SkipWithError("giflib encode failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H);
    state.counters["file_bytes"] = static_cast<double>(m.bytes.size());
}

}  // namespace

BENCHMARK(BM_GifDecode_Brivanta)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GifDecode_Giflib)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GifEncode_Brivanta)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GifEncode_Giflib)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
