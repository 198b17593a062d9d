// Text import on a 1 MB text file from memory: the first page loaded into a
// handle (the whole file is read once to choose its encoding), the last
// page (every line laid out before it), and the page count, beside a plain
// count of the line feeds in the same bytes.
#include "brivanta.h"

#include <benchmark/benchmark.h>

#include <algorithm>
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

BENCHMARK(BM_first_page)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_last_page)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_page_count)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_count_line_feeds)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
