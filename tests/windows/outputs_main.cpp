// Writes, into one directory, every file the library makes from a fixed set
// of inputs: each picture recipe saved under every type code, each saved file
// loaded back, load-time reductions, and every fixture decoded.  The Linux
// and Windows builds run it on the same inputs and their directories must
// match byte for byte.
// Usage: brivanta_outputs OUT_DIR [FIXTURES_DIR]
#include "test_util.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

FILE *summary = nullptr;

// The whole block behind a handle: header, colour table and rows with their
// padding, so stray bytes differ too.
bytes block_of(int handle) {
    int w, h, b;
    int block = IMG_bitmap_info(handle, &w, &h, &b);
    if (block <= 0) return {};
    auto *p = static_cast<uint8_t *>(IMG_mem_lock(block));
    bytes out(p, p + IMG_mem_size(block));
    IMG_mem_unlock(block);
    return out;
}

void record_load(const std::string &dir, const std::string &name, int handle) {
    std::fprintf(summary, "%s load %d\n", name.c_str(), handle < 0 ? handle : 0);
    if (handle < 0) return;
    write_file(dir + "/" + name + ".dib", block_of(handle));
    IMG_delete_bitmap(handle);
}

void save_every_type(const std::string &dir, int handle, const std::string &stem) {
    for (int type = 0; type <= IMG_TYPE_IMT; type++) {
        std::string name = stem + "_type" + std::to_string(type);
        std::string path = dir + "/" + name;
        int r = IMG_save_bitmap(handle, path.c_str(), type);
        int m = 0;
        bytes in_memory = save_bytes(handle, type, &m);
        std::fprintf(summary, "%s save %d memory %d\n", name.c_str(), r < 0 ? r : 0, m < 0 ? m : 0);
        if (r < 0) {
            fs::remove(path);
            continue;
        }
        // The file and the memory save of one call must agree on every system.
        if (read_file(path) != in_memory) std::fprintf(summary, "%s file and memory saves differ\n", name.c_str());
        record_load(dir, name, IMG_decompress_bitmap(path.c_str()));
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: brivanta_outputs OUT_DIR [FIXTURES_DIR]\n");
        return 2;
    }
    std::string dir = argv[1];
    std::error_code ec;
    fs::create_directories(dir, ec);
    summary = std::fopen((dir + "/summary.txt").c_str(), "wb");
    if (!summary) {
        std::fprintf(stderr, "cannot write into %s\n", dir.c_str());
        return 1;
    }

    struct recipe {
        int width, height, bits;
        bool grey;
    };
    const recipe recipes[] = {
        {37, 23, 1, false}, {37, 23, 4, false}, {37, 23, 8, false}, {37, 23, 24, false},
        {64, 1, 8, true},   {1, 40, 24, false}, {61, 17, 8, true},  {19, 33, 4, true},
    };
    uint32_t seed = 7;
    for (const recipe &c : recipes) {
        picture p = c.grey ? grey_palette_picture(c.width, c.height, c.bits, seed++) : make_picture(c.width, c.height, c.bits, seed++);
        int h = handle_of(p);
        std::string stem = std::to_string(c.width) + "x" + std::to_string(c.height) + "x" + std::to_string(c.bits) + (c.grey ? "g" : "");
        if (h < 0) {
            std::fprintf(summary, "%s handle %d\n", stem.c_str(), h);
            continue;
        }
        save_every_type(dir, h, stem);

        // Load-time reductions from the BMP of each picture, both dither modes.
        bytes file = save_bytes(h, IMG_TYPE_BMP);
        for (int reduce : {1, 4, 8})
            for (int mode : {0, 1}) {
                IMGLOW_set_decomp_reduction(reduce);
                IMGLOW_set_dithermode(mode);
                record_load(dir, stem + "_reduce" + std::to_string(reduce) + "_dither" + std::to_string(mode),
                            load_bytes(file));
            }
        IMGLOW_set_decomp_reduction(0);
        IMGLOW_set_dithermode(0);
        IMG_delete_bitmap(h);
    }

    if (argc > 2 && fs::is_directory(argv[2], ec)) {
        std::vector<fs::path> files;
        for (auto it = fs::recursive_directory_iterator(argv[2], ec); !ec && it != fs::recursive_directory_iterator();
             it.increment(ec))
            if (it->is_regular_file(ec)) files.push_back(it->path());
        std::sort(files.begin(), files.end());
        for (const fs::path &f : files) {
            std::string rel = fs::relative(f, argv[2], ec).generic_string();
            std::replace(rel.begin(), rel.end(), '/', '_');
            std::fprintf(summary, "%s type %d\n", rel.c_str(), IMGLOW_get_filetype(f.string().c_str()));
            record_load(dir, "fixture_" + rel, IMG_decompress_bitmap(f.string().c_str()));
        }
    }
    std::fclose(summary);
    return 0;
}
