// Decoded-row checksums for the TIFF strip decoders and the row converter:
// stored LZW and PackBits files (known pictures coded by an independent
// coder, odd and damaged streams), and every converter path.
#include "codecs/tiff_test_util.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// FNV-1a over the result, the number of rows and every delivered row.  The
// stored sums count success as 1, the reader's success value when they were
// taken.
uint64_t checksum(const decoded &d) {
    uint64_t h = 1469598103934665603ull;
    auto mix = [&h](uint8_t v) { h = (h ^ v) * 1099511628211ull; };
    for (int v : {d.rc < 0 ? d.rc : 1, d.calls, d.bits()})
        for (int k = 0; k < 4; k++) mix(static_cast<uint8_t>(static_cast<uint32_t>(v) >> 8 * k));
    for (const bytes &row : d.rows) {
        mix(static_cast<uint8_t>(row.size()));
        mix(static_cast<uint8_t>(row.size() >> 8));
        for (uint8_t v : row) mix(v);
    }
    return h;
}

}  // namespace

// Each stored file decodes to its checksum, and loads from a file as it
// does from memory (where a block is decoded in place).
TEST(TiffGolden, StoredStripsDecodeAsBefore) {
    int files = 0;
    for (const std::string &line : data_lines("tiff/golden.txt")) {
        std::istringstream in(line);
        std::string name, sum;
        in >> name >> sum;
        const std::string path = data_path("tiff/" + name);
        const bytes file = read_file(path);
        EXPECT_EQ(checksum(run_tiff(file)), std::stoull(sum, nullptr, 16)) << name;
        int from_file = IMG_decompress_bitmap(path.c_str()), from_memory = load_bytes(file);
        ASSERT_EQ(from_file >= 0, from_memory >= 0) << name;
        if (from_file >= 0) {
            EXPECT_EQ(picture_of(from_file), picture_of(from_memory)) << name;
        }
        IMG_delete_bitmap(from_file);
        IMG_delete_bitmap(from_memory);
        files++;
    }
    EXPECT_EQ(files, 41);
}

// Every row converter path, through uncompressed strips of noise at four
// widths in both byte orders.
TEST(TiffGolden, EveryConverterPath) {
    int cases = 0;
    for (const std::string &line : data_lines("tiff/convert.txt")) {
        std::istringstream in(line);
        std::string name, golden;
        uint32_t bits, samples, photometric, predictor, planar, ycbcr;
        in >> name >> bits >> samples >> photometric >> predictor >> planar >> std::hex >> ycbcr >> golden;
        uint64_t all = 0;
        for (uint32_t width : {1u, 6u, 37u, 70u})
            for (bool mm : {false, true}) {
                const uint32_t height = 3;
                const uint64_t plane_bits = static_cast<uint64_t>(width) * bits;
                const size_t row = planar == 2 ? (plane_bits + 7) / 8 : (plane_bits * samples + 7) / 8;
                uint32_t s = width * 7 + bits;
                bytes strip(row * (planar == 2 ? height * samples : height));
                for (uint8_t &v : strip) v = static_cast<uint8_t>(lcg_next(s));
                // Planar pages list one strip per plane.
                std::vector<bytes> strips;
                const size_t per_strip = planar == 2 ? row * height : strip.size();
                for (size_t at = 0; at < strip.size(); at += per_strip)
                    strips.emplace_back(strip.begin() + static_cast<long>(at), strip.begin() + static_cast<long>(at + per_strip));
                tiff_page p = simple_page(width, height, bits, samples, photometric, 1, strips);
                if (predictor != 1) set_field(p, 317, 3, {predictor});
                if (planar != 1) set_field(p, 284, 3, {planar});
                if (ycbcr) set_field(p, 530, 3, {ycbcr & 0xFFFF, ycbcr >> 16});
                all = all * 31 + checksum(run_tiff(build_tiff({p}, mm)));
            }
        EXPECT_EQ(all, std::stoull(golden, nullptr, 16)) << name;
        cases++;
    }
    EXPECT_EQ(cases, 36);
}
