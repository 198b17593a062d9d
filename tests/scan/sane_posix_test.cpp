// Scanning on Linux against SANE's own test backend, configured in a private
// folder so that no real device is touched.  Pictures are compared with what
// scanimage gets from the same backend settings.
#include "frame/frame.h"
#include "platform/scanner.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <string>

namespace {

using settings_map = std::map<std::string, std::string>;

// The backend's settings for a small picture; a case overrides some.
settings_map base_settings() {
    return {{"number_of_devices", "2"}, {"mode", "Gray"}, {"depth", "8"}, {"hand-scanner", "false"},
            {"three-pass", "false"}, {"three-pass-order", "RGB"}, {"resolution_min", "1.0"},
            {"resolution_max", "1200.0"}, {"resolution_quant", "1.0"}, {"resolution", "50.0"},
            {"test-picture", "\"Color pattern\""}, {"invert-endianess", "false"}, {"read-limit", "true"},
            {"read-limit-size", "997"}, {"read-delay", "false"}, {"read-delay-duration", "1000"},
            {"read-status-code", "\"Default\""}, {"fuzzy-parameters", "false"}, {"ppl-loss", "0"},
            {"non-blocking", "false"}, {"select-fd", "false"}, {"enable-test-options", "false"},
            {"geometry_min", "0.0"}, {"geometry_max", "200.0"}, {"geometry_quant", "0.0"}, {"tl_x", "0.0"},
            {"tl_y", "0.0"}, {"br_x", "41.0"}, {"br_y", "23.0"}};
}

// What scanimage's PNM shows, as red, green, blue bytes (16-bit samples by
// their high byte), its lines padding pixels longer than its width says.
bytes pnm_appearance(const bytes &f, int *width, int *height, int padding) {
    size_t pos = 0;
    auto token = [&]() {
        std::string t;
        while (pos < f.size()) {
            if (f[pos] == '#') {
                while (pos < f.size() && f[pos] != '\n') pos++;
            } else if (std::isspace(f[pos])) {
                if (!t.empty()) break;
                pos++;
            } else {
                t += static_cast<char>(f[pos++]);
            }
        }
        return t;
    };
    std::string magic = token();
    *width = std::atoi(token().c_str());
    *height = std::atoi(token().c_str());
    int maxval = magic == "P4" ? 1 : std::atoi(token().c_str());
    pos++;
    bytes out;
    const int w = *width, line = w + padding;
    for (int y = 0; y < *height; y++)
        for (int x = 0; x < w; x++) {
            if (magic == "P4") {
                size_t at = pos + static_cast<size_t>(y) * ((w + 7) / 8) + x / 8;
                uint8_t v = at < f.size() && (f[at] >> (7 - x % 8) & 1) ? 0 : 255;
                out.insert(out.end(), 3, v);
                continue;
            }
            const int samples = magic == "P6" ? 3 : 1, size = maxval > 255 ? 2 : 1;
            for (int c = 0; c < 3; c++) {
                size_t at = pos + ((static_cast<size_t>(y) * line + x) * samples + (samples == 3 ? c : 0)) * size;
                out.push_back(at < f.size() ? f[at] : 0);
            }
        }
    return out;
}

class Sane : public ::testing::Test {
protected:
    void SetUp() override {
        temp_before = getenv("TMPDIR") ? getenv("TMPDIR") : "";
        void *lib = dlopen("libsane.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!lib || std::system("scanimage --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no SANE here";
        dlclose(lib);
        dir = use_private_temp_dir("sane_cfg");
        setenv("SANE_CONFIG_DIR", dir.c_str(), 1);
        unsetenv("BRIVANTA_SANE_LIBRARY");
        write_file(dir + "dll.conf", bytes{'t', 'e', 's', 't', '\n'});
        configure({});
        IMG_scan_set_caps(0, 0, 0, 0, 0, 0, 0);
        scanner_shutdown();
        blocks = mem_live_blocks();
    }
    void TearDown() override {
        EXPECT_EQ(scanner_open_devices(), 0);
        EXPECT_EQ(mem_live_blocks(), blocks);
        unsetenv("BRIVANTA_SANE_LIBRARY");
        scanner_shutdown();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
        if (temp_before.empty()) unsetenv("TMPDIR");
        else setenv("TMPDIR", temp_before.c_str(), 1);
    }
    void configure(const settings_map &changes) {
        settings_map s = base_settings();
        for (auto &[k, v] : changes) s[k] = v;
        std::string text;
        for (auto &[k, v] : s) text += k + " " + v + "\n";
        write_file(dir + "test.conf", bytes(text.begin(), text.end()));
    }
    // scanimage's picture from the same backend settings, with extra options.
    bytes scanimage(const std::string &options, int *width, int *height, int padding = 0) {
        std::string out = dir + "scanimage.pnm";
        std::string cmd = "scanimage -d test:0 --format=pnm " + options + " > " + out + " 2>/dev/null";
        if (std::system(cmd.c_str()) != 0) return {};
        return pnm_appearance(read_file(out), width, height, padding);
    }
    void expect_same_as_scanimage(int h, const std::string &options, const std::string &what, int padding = 0) {
        ASSERT_GE(h, 0) << what;
        int w = 0, ht = 0;
        bytes want = scanimage(options, &w, &ht, padding);
        picture p = picture_of(h);
        EXPECT_EQ(p.width, w) << what;
        EXPECT_EQ(p.height, ht) << what;
        EXPECT_TRUE(appearance(p) == want) << what;
        IMG_delete_bitmap(h);
    }
    std::string dir, temp_before;
    int blocks = 0;
};

TEST_F(Sane, EveryFrameFormatMatchesScanimage) {
    // scanimage takes three-pass colour at 8 bits only, so the 16-bit one is
    // held to the single-pass picture; it writes lines as they come, padding
    // included, so a padded picture is read with the padding's pixels.
    const struct {
        settings_map backend, reference;
        int padding;
    } cases[] = {
        {{{"mode", "Gray"}, {"depth", "8"}}, {}, 0},
        {{{"mode", "Gray"}, {"depth", "16"}}, {}, 0},
        {{{"mode", "Gray"}, {"depth", "1"}, {"test-picture", "\"Grid\""}}, {}, 0},
        {{{"mode", "Color"}, {"depth", "8"}}, {}, 0},
        {{{"mode", "Color"}, {"depth", "16"}}, {}, 0},
        {{{"mode", "Color"}, {"three-pass", "true"}, {"three-pass-order", "GBR"}}, {}, 0},
        {{{"mode", "Color"}, {"depth", "16"}, {"three-pass", "true"}}, {{"three-pass", "false"}}, 0},
        // Odd parameters: unknown height, padded lines, estimates before the start.
        {{{"mode", "Gray"}, {"hand-scanner", "true"}}, {}, 0},
        {{{"mode", "Color"}, {"ppl-loss", "5"}}, {}, 5},
        {{{"mode", "Color"}, {"fuzzy-parameters", "true"}}, {}, 0},
    };
    for (auto &c : cases) {
        configure(c.backend);
        std::string what;
        for (auto &[k, v] : c.backend) what += k + "=" + v + " ";
        int h = IMG_scan_acquire(nullptr, 0);
        settings_map reference = c.backend;
        for (auto &[k, v] : c.reference) reference[k] = v;
        configure(reference);
        expect_same_as_scanimage(h, "", what, c.padding);
    }
}

TEST_F(Sane, CapsBecomeOptions) {
    // Thousandths of an inch as millimetres, sizes clear of whole pixels.
    ASSERT_EQ(IMG_scan_set_caps(75, IMG_SCAN_LINEART, 0, 200, 120, 1010, 530), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0),
                             "--depth 1 --resolution 75 -l 5.08 -t 3.048 -x 25.654 -y 13.462", "lineart");
    ASSERT_EQ(IMG_scan_set_caps(60, IMG_SCAN_COLOUR, 0, 0, 0, 0, 0), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0), "--mode Color --resolution 60", "colour");
    ASSERT_EQ(IMG_scan_open_source(nullptr, "test:1"), 0);
    ASSERT_EQ(IMG_scan_set_caps(0, IMG_SCAN_GREY, 0, 0, 0, 0, 0), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0), "", "second device");
    EXPECT_EQ(IMG_scan_set_caps(0, 4, 0, 0, 0, 0, 0), IMG_ERR_TYPE);
}

TEST_F(Sane, FailuresGiveTheirCodes) {
    const struct {
        const char *status;
        int want;
    } reads[] = {{"\"SANE_STATUS_CANCELLED\"", IMG_ERR_STOPPED}, {"\"SANE_STATUS_IO_ERROR\"", IMG_ERR_MEMORY}};
    for (auto &r : reads) {
        configure({{"read-status-code", r.status}});
        EXPECT_EQ(IMG_scan_acquire(nullptr, 0), r.want) << r.status;
    }
    configure({});
    IMG_set_statusbar(nullptr, [](void *, int) IMG_CALLBACK { return -1; }, 1);
    EXPECT_EQ(IMG_scan_acquire(nullptr, 0), IMG_ERR_STOPPED);
    IMG_set_statusbar(nullptr, nullptr, 0);

    EXPECT_EQ(IMG_scan_open_source(nullptr, "test:7"), IMG_ERR_SCAN_SOURCE);
    write_file(dir + "dll.conf", bytes{'\n'});  // no backend, so no device
    EXPECT_EQ(IMG_scan_acquire(nullptr, 0), IMG_ERR_SCAN_SOURCE);
    char names[8] = "x";
    EXPECT_EQ(IMG_scan_list_sources(names, sizeof names), 0);
    EXPECT_EQ(names[0], 0);

    setenv("BRIVANTA_SANE_LIBRARY", "libsane-missing.so.9", 1);
    EXPECT_EQ(IMG_scan_acquire(nullptr, 0), IMG_ERR_SCAN_ACQUIRE);
    EXPECT_EQ(IMG_scan_pages(nullptr, "x", 1, 0), IMG_ERR_SCAN_ACQUIRE);
    EXPECT_EQ(IMG_scan_list_sources(names, sizeof names), IMG_ERR_SCAN_ACQUIRE);
}

TEST_F(Sane, FeederPagesIntoOneFileOrNumberedFiles) {
    // The test backend's feeder is empty after ten pages.
    ASSERT_EQ(IMG_scan_set_caps(0, 0, IMG_SCAN_FEEDER, 0, 0, 0, 0), 0);
    std::string tif = dir + "pages.tif";
    write_file(tif, bytes(10, 'x'));
    EXPECT_GE(IMG_scan_pages(nullptr, tif.c_str(), IMG_TYPE_TIFF_PACKBITS, 0), 0);
    EXPECT_EQ(IMGLOW_get_pages(tif.c_str()), 10);
    int w = 0, h = 0;
    bytes want = scanimage("", &w, &h);
    EXPECT_TRUE(appearance(load_pic(read_file(tif), nullptr, 9)) == want);

    std::string prefix = dir + "pg";
    write_file(prefix + "00000000.img", bytes(10, 'x'));
    EXPECT_GE(IMG_scan_pages(nullptr, prefix.c_str(), -1, 0), 0);
    char name[16];
    for (int n = 0; n < 11; n++) {
        std::snprintf(name, sizeof name, "pg%08d.img", n);
        bytes f = read_file(dir + name);
        EXPECT_EQ(!f.empty(), n < 10) << n;
        if (n < 10) {
            EXPECT_TRUE(appearance(load_pic(f)) == want) << n;
        }
    }
    // From the flatbed a series is one page.
    ASSERT_EQ(IMG_scan_set_caps(0, 0, IMG_SCAN_FLATBED, 0, 0, 0, 0), 0);
    std::string flat = dir + "flat.tif";
    EXPECT_GE(IMG_scan_pages(nullptr, flat.c_str(), IMG_TYPE_TIFF, 0), 0);
    EXPECT_EQ(IMGLOW_get_pages(flat.c_str()), 1);
    // A read failure part way through a series ends it as a source failure.
    configure({{"read-status-code", "\"SANE_STATUS_IO_ERROR\""}});
    EXPECT_EQ(IMG_scan_pages(nullptr, prefix.c_str(), 1, 0), IMG_ERR_SCAN_SOURCE);
}

}  // namespace
