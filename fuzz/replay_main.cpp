// Replays every file under the directories given through a fuzz target's
// entry point, so crash files stay regression tests on any compiler.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    int files = 0;
    for (int i = 1; i < argc; i++) {
        std::error_code ec;
        if (!std::filesystem::exists(argv[i], ec)) continue;
        for (const auto &e : std::filesystem::recursive_directory_iterator(argv[i], ec)) {
            if (!e.is_regular_file() || e.path().filename().string()[0] == '.') continue;
            std::ifstream f(e.path(), std::ios::binary);
            std::vector<uint8_t> data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            files++;
        }
    }
    std::printf("replayed %d files\n", files);
    return 0;
}
