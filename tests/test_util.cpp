// Picture recipes, memory blocks, handle pixel access and file helpers the
// tests share.
#include "test_util.h"
#include "platform/platform.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#ifdef _WIN32
#include <process.h>
#include <windows.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

// Bytes a row's pixels take, before padding.
static int used_bytes(int width, int bits) {
    return bits == 1 ? (width + 7) / 8 : bits == 4 ? (width + 1) / 2 : bits == 24 ? width * 3 : width;
}

uint32_t stride_of(int width, int bits) { return (static_cast<uint32_t>(used_bytes(width, bits)) + 3) & ~3u; }

// Pixels that mix runs and noise, so run-length coders see both; padding
// bits and bytes stay zero, as a stored bitmap keeps them.
picture make_picture(int width, int height, int bits, uint32_t seed) {
    picture p;
    p.width = width;
    p.height = height;
    p.bits = bits;
    if (bits <= 8) {
        p.palette.resize(4u << bits);
        for (size_t i = 0; i < p.palette.size(); i += 4) {
            p.palette[i] = static_cast<uint8_t>(lcg_next(seed));
            p.palette[i + 1] = static_cast<uint8_t>(lcg_next(seed));
            p.palette[i + 2] = static_cast<uint8_t>(lcg_next(seed));
        }
        if (bits == 1) p.palette = {0, 0, 0, 0, 255, 255, 255, 0};
    }
    int used = used_bytes(width, bits);
    for (int y = 0; y < height; y++) {
        bytes row(stride_of(width, bits), 0);
        int x = 0;
        while (x < used) {
            uint32_t n = 1 + lcg_next(seed) % 12;
            bool run = lcg_next(seed) & 1;
            uint8_t v = static_cast<uint8_t>(lcg_next(seed));
            for (uint32_t k = 0; k < n && x < used; k++, x++) row[x] = run ? v : static_cast<uint8_t>(lcg_next(seed));
        }
        if (bits == 1 && (width & 7)) row[used - 1] &= static_cast<uint8_t>(0xFF00 >> (width & 7));
        if (bits == 4 && (width & 1)) row[used - 1] &= 0xF0;
        p.rows.push_back(row);
    }
    return p;
}

picture grey_palette_picture(int width, int height, int bits, uint32_t seed) {
    picture p = make_picture(width, height, bits, seed);
    int n = 1 << bits;
    for (int i = 0; i < n; i++) {
        uint8_t v = static_cast<uint8_t>(i * 255 / (n - 1));
        p.palette[4 * i] = p.palette[4 * i + 1] = p.palette[4 * i + 2] = v;
    }
    return p;
}

block_ref::block_ref(const bytes &content) : block_ref(static_cast<uint32_t>(content.size())) {
    if (data && !content.empty()) std::memcpy(data, content.data(), content.size());
}
block_ref::block_ref(uint32_t size)
    : block(IMG_mem_alloc(static_cast<int>(size))), data(static_cast<uint8_t *>(IMG_mem_lock(block))) {}
block_ref::~block_ref() {
    if (block) IMG_mem_unlock(block), IMG_mem_free(block);
}

bytes dib_of_picture(const picture &p, int xdpi, int ydpi) {
    uint32_t stride = stride_of(p.width, p.bits);
    bytes d(40 + p.palette.size() + stride * p.height);
    int32_t h[10] = {40, p.width, p.height, 1 | p.bits << 16, 0, static_cast<int32_t>(stride * p.height),
                     xdpi, ydpi, 0, 0};
    std::memcpy(d.data(), h, 40);
    if (!p.palette.empty()) std::memcpy(d.data() + 40, p.palette.data(), p.palette.size());
    for (int y = 0; y < p.height; y++)
        std::memcpy(d.data() + 40 + p.palette.size() + (p.height - 1 - y) * stride, p.rows[y].data(), stride);
    return d;
}

uint32_t px(const picture &p, int x, int y) {
    const bytes &r = p.rows[y];
    if (p.bits == 24) return r[3 * x] | r[3 * x + 1] << 8 | r[3 * x + 2] << 16;
    return p.bits == 8 ? r[x] : p.bits == 4 ? (r[x / 2] >> (x & 1 ? 0 : 4)) & 15 : (r[x / 8] >> (7 - x % 8)) & 1;
}

bytes appearance(const picture &p) {
    bytes out;
    for (int y = 0; y < p.height; y++)
        for (int x = 0; x < p.width; x++) {
            const uint32_t v = px(p, x, y);
            if (p.bits == 24) out.insert(out.end(), {uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
            else out.insert(out.end(), {p.palette[4 * v + 2], p.palette[4 * v + 1], p.palette[4 * v]});
        }
    return out;
}

int handle_of(const picture &p) {
    block_ref b(dib_of_picture(p));
    return IMG_create_handle(b.data);
}

picture picture_of(int handle, bool padding) {
    picture p;
    int block = IMG_bitmap_info(handle, &p.width, &p.height, &p.bits);
    if (block <= 0) return p;
    auto *dib = static_cast<uint8_t *>(IMG_mem_lock(block));
    uint32_t pal = p.bits == 24 ? 0 : 4u << p.bits;
    p.palette.assign(dib + 40, dib + 40 + pal);
    uint32_t stride = stride_of(p.width, p.bits);
    int used = used_bytes(p.width, p.bits);
    for (int y = 0; y < p.height; y++) {
        const uint8_t *src = dib + 40 + pal + (p.height - 1 - y) * stride;
        bytes row(stride, 0);
        std::memcpy(row.data(), src, padding ? stride : used);
        if (!padding && p.bits == 1 && (p.width & 7)) row[used - 1] &= static_cast<uint8_t>(0xFF00 >> (p.width & 7));
        if (!padding && p.bits == 4 && (p.width & 1)) row[used - 1] &= 0xF0;
        p.rows.push_back(row);
    }
    IMG_mem_unlock(block);
    return p;
}

bytes read_file(const std::string &name) {
    std::ifstream f(name, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

bytes from_hex(const std::string &hex) {
    bytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return b;
}

std::string data_path(const std::string &name) { return BRIVANTA_SOURCE_DIR "/tests/data/" + name; }

std::vector<std::string> data_lines(const std::string &name) {
    std::ifstream f(data_path(name));
    std::vector<std::string> lines;
    for (std::string line; std::getline(f, line);)
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}

void write_file(const std::string &name, const bytes &content) {
    std::ofstream(name, std::ios::binary).write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

std::string temp_path(const std::string &leaf) {
    char dir[512];
    if (!os_temp_dir(dir, sizeof dir)) dir[0] = 0;
    return std::string(dir) + "brivanta_test_" + std::to_string(getpid()) + "_" + leaf;
}

std::string use_private_temp_dir(const std::string &tag) {
    std::string dir = temp_path(tag);
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
#ifdef _WIN32
    // GetTempPathA reads TMP first, then TEMP.
    SetEnvironmentVariableA("TMP", dir.c_str());
    SetEnvironmentVariableA("TEMP", dir.c_str());
    return dir + "\\";
#else
    setenv("TMPDIR", dir.c_str(), 1);
    return dir + "/";
#endif
}

int temp_files_in(const std::string &dir) {
#ifdef _WIN32
    const std::string prefix = "img";
#else
    const std::string prefix = "brivanta-";
#endif
    std::error_code ec;
    int n = 0;
    for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        n += it->path().filename().string().rfind(prefix, 0) == 0;
    return n;
}

int load_bytes(const bytes &file) {
    block_ref b(file);
    return IMG_decompress_bitmap_mem(b.data, 0);
}

bytes save_bytes(int handle, int type, int *result) {
    // Generous room: the saved size is what the call reports.
    block_ref b(uint32_t{64u << 20});
    int n = IMG_save_bitmap_mem(handle, b.data, type);
    if (result) *result = n;
    if (n < 0) return {};
    return bytes(b.data, b.data + n);
}
