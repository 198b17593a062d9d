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
#include <string>

namespace {

// The system's defaults, then a small colour pattern (later lines win).
const std::string base_settings = "\ntest-picture \"Color pattern\"\nbr_x 41.0\nbr_y 23.0\ngeometry_quant 0.0\n"
                                  "read-limit true\nread-limit-size 997\n";

class Sane : public ::testing::Test {
protected:
    void SetUp() override {
        temp_before = getenv("TMPDIR") ? getenv("TMPDIR") : "";
        blocks = mem_live_blocks();
        void *lib = dlopen("libsane.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!lib || std::system("scanimage --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no SANE here";
        dlclose(lib);
        dir = use_private_temp_dir("sane_cfg");
        setenv("SANE_CONFIG_DIR", dir.c_str(), 1);
        write_file(dir + "dll.conf", bytes{'t', 'e', 's', 't', '\n'});
        configure("");
        IMG_scan_set_caps(0, 0, 0, 0, 0, 0, 0);
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
    void configure(const std::string &lines) {
        bytes conf = read_file("/etc/sane.d/test.conf");
        std::string more = base_settings + lines;
        conf.insert(conf.end(), more.begin(), more.end());
        write_file(dir + "test.conf", conf);
    }
    // What scanimage's picture looks like as red, green, blue (16-bit samples
    // by their high byte).  Its lines are written as they come, so a padded
    // picture is read with padding more pixels a line than it declares.
    bytes scanimage(const std::string &options, int *width, int *height, int padding = 0) {
        std::string out = dir + "scanimage.pnm";
        if (std::system(("scanimage -d test:0 " + options + " > " + out + " 2>/dev/null").c_str())) return {};
        bytes f = read_file(out);
        f.push_back(0);
        char magic = 0;
        int maxval = 1, used = 0;
        const char *text = reinterpret_cast<const char *>(f.data());
        int more = 0;  // one newline ends the header: sample bytes may look like space
        if (std::sscanf(text, "P%c\n# SANE data follows\n%d %d%n", &magic, width, height, &used) < 3) return {};
        if (magic != '4') std::sscanf(text + used, "%d%n", &maxval, &more);
        const uint8_t *data = f.data() + used + more + 1;
        const int samples = magic == '6' ? 3 : 1, size = maxval > 255 ? 2 : 1, line = *width + padding;
        bytes rgb;
        for (int y = 0; y < *height; y++)
            for (int x = 0; x < *width; x++)
                for (int c = 0; c < 3; c++)
                    rgb.push_back(magic == '4' ? (data[y * ((line + 7) / 8) + x / 8] >> (7 - x % 8) & 1 ? 0 : 255)
                                               : data[((y * line + x) * samples + (samples == 3 ? c : 0)) * size]);
        return rgb;
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
    // scanimage takes three-pass colour at 8 bits only: the 16-bit one is held
    // to the single-pass picture.  Then odd parameters: unknown height, padded
    // lines, estimates before the start.
    const struct {
        const char *backend, *reference;
        int padding;
    } cases[] = {
        {"mode Gray\ndepth 8\n", "", 0},
        {"mode Gray\ndepth 16\n", "", 0},
        {"mode Gray\ndepth 1\ntest-picture \"Grid\"\n", "", 0},
        {"mode Color\ndepth 8\n", "", 0},
        {"mode Color\ndepth 16\n", "", 0},
        {"mode Color\nthree-pass true\nthree-pass-order GBR\n", "", 0},
        {"mode Color\ndepth 16\nthree-pass true\n", "three-pass false\n", 0},
        {"hand-scanner true\nbr_y 80.0\n", "", 0},
        {"mode Color\nppl-loss 5\n", "", 5},
        {"mode Color\nfuzzy-parameters true\n", "", 0},
    };
    for (auto &c : cases) {
        configure(c.backend);
        int h = IMG_scan_acquire(nullptr, 0);
        configure(std::string(c.backend) + c.reference);
        expect_same_as_scanimage(h, "", c.backend, c.padding);
    }
}

TEST_F(Sane, CapsBecomeOptions) {
    // Thousandths of an inch as millimetres, sizes clear of whole pixels.
    ASSERT_EQ(IMG_scan_set_caps(75, IMG_SCAN_LINEART, 0, 200, 120, 1010, 530), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0),
                             "--depth 1 --resolution 75 -l 5.08 -t 3.048 -x 25.654 -y 13.462", "lineart");
    ASSERT_EQ(IMG_scan_set_caps(60, IMG_SCAN_COLOUR, 0, 0, 0, 0, 0), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0), "--mode Color --resolution 60", "colour");
    EXPECT_EQ(IMG_scan_set_caps(0, 4, 0, 0, 0, 0, 0), IMG_ERR_TYPE);
    char names[64];
    ASSERT_EQ(IMG_scan_list_sources(names, sizeof names), 2);
    EXPECT_STREQ(names + 7, "test:1");
    EXPECT_EQ(IMG_scan_list_sources(names, 10), 2);  // room for one name
    EXPECT_EQ(names[7], 0);
    ASSERT_EQ(IMG_scan_open_source(nullptr, "test:1"), 0);
    expect_same_as_scanimage(IMG_scan_acquire(nullptr, 0), "--mode Color --resolution 60", "second device");
}

TEST_F(Sane, FailuresGiveTheirCodes) {
    const struct {
        const char *backend, *library;
        int want;
    } cases[] = {{"read-status-code \"SANE_STATUS_CANCELLED\"\n", "", IMG_ERR_STOPPED},
                 {"read-status-code \"SANE_STATUS_IO_ERROR\"\n", "", IMG_ERR_MEMORY},
                 {"", "libsane-missing.so.9", IMG_ERR_SCAN_ACQUIRE}};
    for (auto &c : cases) {
        configure(c.backend);
        setenv("BRIVANTA_SANE_LIBRARY", c.library, 1);
        EXPECT_EQ(IMG_scan_acquire(nullptr, 0), c.want) << c.backend << c.library;
    }
    unsetenv("BRIVANTA_SANE_LIBRARY");
    configure("");
    IMG_set_statusbar(nullptr, [](void *, int) { return -1; }, 1);
    EXPECT_EQ(IMG_scan_acquire(nullptr, 0), IMG_ERR_STOPPED);
    IMG_set_statusbar(nullptr, nullptr, 0);
    EXPECT_EQ(IMG_scan_open_source(nullptr, "test:7"), IMG_ERR_SCAN_SOURCE);
    write_file(dir + "dll.conf", bytes{'\n'});  // no backend, so no device
    EXPECT_EQ(IMG_scan_acquire(nullptr, 0), IMG_ERR_SCAN_SOURCE);
}

TEST_F(Sane, FeederPagesIntoOneFileOrNumberedFiles) {
    // The test backend's feeder is empty after ten pages; a flatbed series is one page.
    int w = 0, h = 0;
    bytes want = scanimage("", &w, &h);
    const struct {
        int source, type, pages;
        const char *name;
    } cases[] = {{IMG_SCAN_FEEDER, IMG_TYPE_TIFF_PACKBITS, 10, "pages.tif"},
                 {IMG_SCAN_FLATBED, IMG_TYPE_TIFF, 1, "flat.tif"},
                 {IMG_SCAN_FEEDER, -1, 10, "pg"}};
    for (auto &c : cases) {
        ASSERT_EQ(IMG_scan_set_caps(0, 0, c.source, 0, 0, 0, 0), 0);
        std::string name = dir + c.name, first = c.type < 0 ? name + "00000000.img" : name;
        write_file(first, bytes(10, 'x'));  // replaced, not added to
        EXPECT_GE(IMG_scan_pages(nullptr, name.c_str(), c.type, 0), 0) << c.name;
        if (c.type >= 0) {
            EXPECT_EQ(IMGLOW_get_pages(name.c_str()), c.pages) << c.name;
        }
        for (int n = 0; n <= c.pages; n++) {
            char file[16];
            std::snprintf(file, sizeof file, "%08d.img", n);
            bytes f = read_file(c.type < 0 ? name + file : name);
            if (c.type < 0) {
                EXPECT_EQ(f.empty(), n == c.pages) << n;
            }
            if (n < c.pages) {
                EXPECT_TRUE(appearance(load_pic(f, nullptr, c.type < 0 ? 0 : n)) == want) << c.name << n;
            }
        }
    }
    // A read failure part way through a series ends it as a source failure.
    configure("read-status-code \"SANE_STATUS_IO_ERROR\"\n");
    EXPECT_EQ(IMG_scan_pages(nullptr, (dir + "pg").c_str(), 1, 0), IMG_ERR_SCAN_SOURCE);
}

}  // namespace
