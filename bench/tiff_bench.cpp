// TIFF decoding and encoding speed: a Group 4 A4 text page at 300 dpi, an LZW and a
// PackBits 2000 x 1500 RGB picture; each decoded from memory into a whole
// picture by this library and, in the same run, by the system's libtiff.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#ifdef BRIVANTA_BENCH_LIBTIFF
#include <tiffio.h>
#endif

namespace {

using bytes = std::vector<uint8_t>;

uint32_t next(uint32_t &s) {
    s = s * 1664525u + 1013904223u;
    return s >> 8;
}

// A text-like page: lines of word-shaped blobs of glyph strokes, 1 = black.
std::vector<bytes> text_page(int w, int h) {
    std::vector<bytes> rows(h, bytes((w + 7) / 8, 0));
    uint32_t s = 7;
    auto set = [&](int x, int y) { rows[y][x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7)); };
    for (int line = 0; line < 60; line++) {
        int top = 200 + line * 52;
        if (top + 40 > h - 200) break;
        int x = 240;
        while (x < w - 300) {
            int letters = 2 + next(s) % 8;
            for (int l = 0; l < letters; l++) {
                int gw = 14 + next(s) % 10, gh = 26 + next(s) % 8;
                for (int k = 0; k < 3; k++) {  // three strokes per glyph
                    int vx = x + next(s) % gw, len = gh / 2 + next(s) % (gh / 2);
                    for (int y = 0; y < len; y++)
                        for (int t = 0; t < 4; t++) set(vx + t, top + 34 - len + y);
                    int hy = top + next(s) % 34, hl = gw / 2 + next(s) % (gw / 2);
                    for (int xx = 0; xx < hl; xx++)
                        for (int t = 0; t < 3; t++) set(x + xx, hy + t);
                }
                x += gw + 4;
            }
            x += 24;
        }
    }
    return rows;
}

// A photograph-like RGB picture: smooth gradients, a few shapes, mild noise.
std::vector<bytes> picture(int w, int h) {
    std::vector<bytes> rows(h, bytes(3 * w));
    uint32_t s = 11;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            uint8_t *p = &rows[y][3 * x];
            int n = static_cast<int>(next(s) % 5) - 2;
            int dx = x - w / 2, dy = y - h / 2;
            bool disc = dx * dx + dy * dy < 300 * 300;
            p[0] = static_cast<uint8_t>((disc ? 220 : x * 200 / w) + n);
            p[1] = static_cast<uint8_t>((disc ? 40 : y * 180 / h) + n);
            p[2] = static_cast<uint8_t>(((x + y) / 16 % 2 ? 90 : 120) + n);
        }
    return rows;
}

// Megapixels decoded per CPU second beside the time, and the file's bytes.
void report(benchmark::State &state, const bytes &file, uint32_t w, uint32_t h) {
    state.counters["MP/s"] = benchmark::Counter(w * static_cast<double>(h) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file.size()));
}

#ifdef BRIVANTA_BENCH_LIBTIFF
// libtiff on a growable memory file.
struct mem_file {
    bytes data;
    toff_t pos = 0;
};
tsize_t mf_read(thandle_t h, tdata_t buf, tsize_t n) {
    auto *f = static_cast<mem_file *>(h);
    if (f->pos >= f->data.size()) return 0;
    tsize_t k = std::min<tsize_t>(n, static_cast<tsize_t>(f->data.size() - f->pos));
    std::memcpy(buf, f->data.data() + f->pos, k);
    f->pos += k;
    return k;
}
tsize_t mf_write(thandle_t h, tdata_t buf, tsize_t n) {
    auto *f = static_cast<mem_file *>(h);
    if (f->pos + n > f->data.size()) f->data.resize(f->pos + n);
    std::memcpy(f->data.data() + f->pos, buf, n);
    f->pos += n;
    return n;
}
toff_t mf_seek(thandle_t h, toff_t off, int whence) {
    auto *f = static_cast<mem_file *>(h);
    f->pos = whence == SEEK_SET ? off : whence == SEEK_CUR ? f->pos + off : f->data.size() + off;
    return f->pos;
}
int mf_close(thandle_t) { return 0; }
toff_t mf_size(thandle_t h) { return static_cast<mem_file *>(h)->data.size(); }
int mf_map(thandle_t, tdata_t *, toff_t *) { return 0; }
void mf_unmap(thandle_t, tdata_t, toff_t) {}

TIFF *open_mem(mem_file &f, const char *mode) {
    f.pos = 0;
    return TIFFClientOpen("mem", mode, &f, mf_read, mf_write, mf_seek, mf_close, mf_size, mf_map, mf_unmap);
}

// Files are written by libtiff, so both decoders read the same bytes.
bytes write_tiff(const std::vector<bytes> &rows, int w, int bits, int samples, int compression) {
    mem_file f;
    TIFF *t = open_mem(f, "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<int>(rows.size()));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, samples == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, samples == 3 ? TIFFDefaultStripSize(t, 0) : static_cast<uint32_t>(rows.size()));
    for (size_t y = 0; y < rows.size(); y++) TIFFWriteScanline(t, const_cast<uint8_t *>(rows[y].data()), static_cast<uint32_t>(y), 0);
    TIFFClose(t);
    return f.data;
}

// libtiff opening the file from memory each iteration and handing it to
// decode, which makes the whole picture.
template <class decode_fn>
void libtiff_run(benchmark::State &state, const bytes &file, decode_fn decode) {
    mem_file f;
    f.data = file;
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    uint32_t w = 0, h = 0;
    for (auto _ : state) {
        TIFF *t = open_mem(f, "rm");
        TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
        if (!decode(t, w, h)) state.SkipWithError("libtiff decode failed");
        TIFFClose(t);
    }
    report(state, file, w, h);
}

// What a user of libtiff does to get the picture into memory: one buffer for
// the whole image, every strip decoded by TIFFReadEncodedStrip into its
// place.  Samples stay in the file's RGB order (no BGR swap, no flip).
void libtiff_decode(benchmark::State &state, const bytes &file) {
    libtiff_run(state, file, [](TIFF *t, uint32_t, uint32_t) {
        const tmsize_t strip = TIFFStripSize(t);
        const tstrip_t strips = TIFFNumberOfStrips(t);
        std::unique_ptr<uint8_t[]> image(new uint8_t[static_cast<size_t>(strip) * strips]);
        bool ok = true;
        for (tstrip_t s = 0; s < strips; s++)
            ok &= TIFFReadEncodedStrip(t, s, image.get() + static_cast<size_t>(s) * strip, -1) >= 0;
        benchmark::DoNotOptimize(image[0]);
        return ok;
    });
}

// The libtiff call that gives what our load gives, a whole picture bottom-up
// with its samples reordered for display: TIFFReadRGBAImage into ABGR words.
void libtiff_rgba(benchmark::State &state, const bytes &file) {
    libtiff_run(state, file, [](TIFF *t, uint32_t w, uint32_t h) {
        std::unique_ptr<uint32_t[]> image(new uint32_t[static_cast<size_t>(w) * h]);
        const bool ok = TIFFReadRGBAImage(t, w, h, image.get(), 0) != 0;
        benchmark::DoNotOptimize(image[0]);
        return ok;
    });
}
#endif

// Ours through the whole load path: detection, the TIFF reader, the row
// converter (RGB to BGR for colour) and the frame storing each row bottom-up
// into a freshly allocated DIB behind a handle, which is then deleted.
void ours_decode(benchmark::State &state, const bytes &file) {
    int block = IMG_mem_alloc(static_cast<int>(file.size()));
    void *p = IMG_mem_lock(block);
    std::memcpy(p, file.data(), file.size());
    int w = 0, h = 0;
    for (auto _ : state) {
        int handle = IMG_decompress_bitmap_mem(p, 0);
        if (handle < 0) {
            state.SkipWithError("decode failed");
            break;
        }
        int bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        IMG_delete_bitmap(handle);
    }
    report(state, file, static_cast<uint32_t>(w), static_cast<uint32_t>(h));
    IMG_mem_unlock(block);
    IMG_mem_free(block);
}

#ifdef BRIVANTA_BENCH_LIBTIFF
const bytes &g4_page() {
    static bytes f = write_tiff(text_page(2480, 3508), 2480, 1, 1, COMPRESSION_CCITTFAX4);
    return f;
}
const bytes &lzw_picture() {
    static bytes f = write_tiff(picture(2000, 1500), 2000, 8, 3, COMPRESSION_LZW);
    return f;
}
const bytes &packbits_picture() {
    static bytes f = write_tiff(picture(2000, 1500), 2000, 8, 3, COMPRESSION_PACKBITS);
    return f;
}

void BM_Group4Page_ours(benchmark::State &s) { ours_decode(s, g4_page()); }
void BM_Group4Page_libtiff(benchmark::State &s) { libtiff_decode(s, g4_page()); }
void BM_LzwPicture_ours(benchmark::State &s) { ours_decode(s, lzw_picture()); }
void BM_LzwPicture_libtiff(benchmark::State &s) { libtiff_decode(s, lzw_picture()); }
void BM_LzwPicture_libtiff_rgba(benchmark::State &s) { libtiff_rgba(s, lzw_picture()); }
void BM_PackBitsPicture_ours(benchmark::State &s) { ours_decode(s, packbits_picture()); }
void BM_PackBitsPicture_libtiff(benchmark::State &s) { libtiff_decode(s, packbits_picture()); }
void BM_PackBitsPicture_libtiff_rgba(benchmark::State &s) { libtiff_rgba(s, packbits_picture()); }
BENCHMARK(BM_Group4Page_ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Group4Page_libtiff)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LzwPicture_ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LzwPicture_libtiff)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LzwPicture_libtiff_rgba)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PackBitsPicture_ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PackBitsPicture_libtiff)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PackBitsPicture_libtiff_rgba)->Unit(benchmark::kMillisecond);

// Encoding the same pictures: our writers into memory, libtiff into its
// growable memory file.
struct row_source {
    const std::vector<bytes> *rows;
};
int IMG_CALLBACK give_row(void *ctx, unsigned char *buffer, int y, int n) {
    const bytes &r = (*static_cast<row_source *>(ctx)->rows)[y];
    std::memcpy(buffer, r.data(), std::min<size_t>(r.size(), static_cast<size_t>(n)));
    return 0;
}

void ours_encode(benchmark::State &state, const std::vector<bytes> &rows, int w, int bits, int type) {
    uint8_t header[40 + 8] = {};
    auto put = [&](int at, uint32_t v, int n) { for (int i = 0; i < n; i++) header[at + i] = static_cast<uint8_t>(v >> 8 * i); };
    put(0, 40, 4), put(4, static_cast<uint32_t>(w), 4), put(8, static_cast<uint32_t>(rows.size()), 4);
    put(12, 1, 2), put(14, static_cast<uint32_t>(bits), 2);
    header[44] = header[45] = header[46] = 255;
    size_t raw = rows.size() * rows[0].size();
    int block = IMG_mem_alloc(static_cast<int>(raw * 2 + 100000));
    void *out = IMG_mem_lock(block);
    row_source src{&rows};
    for (auto _ : state) {
        std::memset(out, 0, 8);
        int n = IMGLOW_save_bitmap_mem(out, header, type, give_row, &src);
        if (n < 0) state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(raw));
    IMG_mem_unlock(block);
    IMG_mem_free(block);
}

void libtiff_encode(benchmark::State &state, const std::vector<bytes> &rows, int w, int bits, int samples, int comp) {
    TIFFSetErrorHandler(nullptr);
    TIFFSetWarningHandler(nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(write_tiff(rows, w, bits, samples, comp).size());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(rows.size() * rows[0].size()));
}

const std::vector<bytes> &page_rows() {
    static std::vector<bytes> r = text_page(2480, 3508);
    return r;
}
const std::vector<bytes> &picture_rows() {
    static std::vector<bytes> r = picture(2000, 1500);
    return r;
}
void BM_Group4Encode_ours(benchmark::State &s) { ours_encode(s, page_rows(), 2480, 1, IMG_TYPE_TIFF_G4); }
void BM_Group4Encode_libtiff(benchmark::State &s) { libtiff_encode(s, page_rows(), 2480, 1, 1, COMPRESSION_CCITTFAX4); }
void BM_LzwEncode_ours(benchmark::State &s) { ours_encode(s, picture_rows(), 2000, 24, IMG_TYPE_TIFF_LZW); }
void BM_LzwEncode_libtiff(benchmark::State &s) { libtiff_encode(s, picture_rows(), 2000, 8, 3, COMPRESSION_LZW); }
BENCHMARK(BM_Group4Encode_ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Group4Encode_libtiff)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LzwEncode_ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LzwEncode_libtiff)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
