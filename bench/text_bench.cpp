// Text import on a 1 MB text file from memory: the first page loaded into a
// handle (the whole file is read once to choose its encoding), the last
// page (every line laid out before it), and the page count, beside a plain
// count of the line feeds in the same bytes.  Then whole processes on the
// same file: our tool's first page to an uncompressed TIFF beside
// GraphicsMagick's text reader drawing the first page in the same face, size
// and resolution (ImageMagick's text reader aborts on this machine).
#include "brivanta.h"
#include "bench/bench_process.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// Lines of prose of varied length, some longer than the page is wide (not
// starting "Lin", which another type claims).
void *text_block(int *size) {
    static void *block;
    static int bytes;
    if (!block) {
        std::string text;
        for (int i = 0; text.size() < (1u << 20); i++)
            text += "Row " + std::to_string(i) + ": " + std::string(static_cast<size_t>(i * 37 % 90), 'x') +
                    " the quick brown fox\tjumps over the lazy dog.\n";
        bytes = static_cast<int>(text.size());
        block = IMG_mem_lock(IMG_mem_alloc(bytes));
        std::memcpy(block, text.data(), text.size());
        IMGLOW_set_auto_detect(IMG_TYPE_TEXT);
    }
    *size = bytes;
    return block;
}

void load_page(benchmark::State &state, int page) {
    int size = 0;
    void *block = text_block(&size);
    for (auto _ : state) {
        int h = IMG_decompress_bitmap_mem(block, page);
        if (h < 0) state.SkipWithError("the text did not load");
        IMG_delete_bitmap(h);
    }
    state.SetBytesProcessed(int64_t{state.iterations()} * size);
}

void BM_first_page(benchmark::State &state) { load_page(state, 0); }
void BM_last_page(benchmark::State &state) {
    int size = 0;
    load_page(state, IMGLOW_get_pages_mem(text_block(&size)) - 1);
}

void BM_page_count(benchmark::State &state) {
    int size = 0;
    void *block = text_block(&size);
    for (auto _ : state) benchmark::DoNotOptimize(IMGLOW_get_pages_mem(block));
    state.SetBytesProcessed(int64_t{state.iterations()} * size);
}

void BM_count_line_feeds(benchmark::State &state) {
    int size = 0;
    auto *bytes = static_cast<const char *>(text_block(&size));
    for (auto _ : state) benchmark::DoNotOptimize(std::count(bytes, bytes + size, '\n'));
    state.SetBytesProcessed(int64_t{state.iterations()} * size);
}

// The 1 MB text written once to a temporary file, removed at exit.
struct temp_path {
    std::string path;
    ~temp_path() {
        if (!path.empty()) std::remove(path.c_str());
    }
} temp;

const std::string &text_file() {
    std::string &path = temp.path;
    if (path.empty()) {
        int size = 0;
        void *block = text_block(&size);
        std::string p = "/tmp/text_bench_" + std::to_string(getpid()) + ".txt";
        FILE *out = std::fopen(p.c_str(), "wb");
        if (out && std::fwrite(block, 1, static_cast<size_t>(size), out) == static_cast<size_t>(size) &&
            std::fclose(out) == 0)
            path = p;
    }
    return path;
}

void whole_process(benchmark::State &state, bool ours) {
    const std::string &in = text_file();
    const std::string out = in + ".tif";
    // Courier New's stand-in at the default page's size: 60 lines in 9.5 inches.
    const std::vector<std::string> args =
        ours ? std::vector<std::string>{BRIVANTA_TOOL, "convert", "--type", "0", in, out}
             : std::vector<std::string>{"gm", "convert", "-density", "200", "-font",
                                        "/usr/share/fonts/truetype/liberation/LiberationMono-Regular.ttf",
                                        "-pointsize", "11.4", "text:" + in + "[0]", out};
    for (auto _ : state)
        if (in.empty() || !run_quietly(args)) state.SkipWithError("process failed");
    std::remove(out.c_str());
}
void BM_our_tool_first_page(benchmark::State &state) { whole_process(state, true); }
void BM_graphicsmagick_first_page(benchmark::State &state) { whole_process(state, false); }

BENCHMARK(BM_first_page)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_last_page)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_page_count)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_count_line_feeds)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_our_tool_first_page)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_graphicsmagick_first_page)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
