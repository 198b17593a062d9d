// Windows only: scanning through the stand-in source manager of
// twain_source.cpp, copied into the Windows directory for each test.
#if defined(_WIN32) && defined(BRIVANTA_TEST_TWAIN_DLL)
#include "frame/frame.h"
#include "platform/scanner.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

std::string windows_copy() {
    char dir[MAX_PATH];
    GetWindowsDirectoryA(dir, MAX_PATH);
    return std::string(dir) + "\\TWAIN32.DLL";
}

// The page the virtual source makes: what the user would see of it.
bytes generated_page(int page, int bits, int width) {
    bytes rgb;
    for (int y = 0; y < 30; y++)
        for (int x = 0; x < width; x++) {
            uint8_t v = static_cast<uint8_t>(x * 3 + y * 5 + page * 7);
            uint8_t g = bits == 8 ? v : v & 1 ? 255 : 0;
            if (bits == 24) rgb.insert(rgb.end(), {static_cast<uint8_t>(255 - v), static_cast<uint8_t>(v ^ 0x55), v});
            else rgb.insert(rgb.end(), {g, g, g});
        }
    return rgb;
}

class Twain : public ::testing::Test {
protected:
    void SetUp() override {
        scanner_shutdown();
        std::string from = BRIVANTA_TEST_TWAIN_DLL;
        if (from[0] == '/') from = "Z:" + from;
        ASSERT_TRUE(CopyFileA(from.c_str(), windows_copy().c_str(), FALSE));
        SetEnvironmentVariableA("BRIVANTA_TEST_TWAIN", "");
        IMG_scan_set_caps(0, 0, 0, 0, 0, 0, 0);
        blocks = mem_live_blocks();
    }
    void TearDown() override {
        // No source left open or enabled, no block left behind.
        auto state = reinterpret_cast<void (*)(int *, int *, int *)>(
            reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("TWAIN32.DLL"), "test_twain_state")));
        if (state) {
            int open = -1, dsm = -1, enabled = -1;
            state(&open, &dsm, &enabled);
            EXPECT_EQ(open, 0);
            EXPECT_EQ(enabled, 0);
        }
        EXPECT_EQ(scanner_open_devices(), 0);
        EXPECT_EQ(mem_live_blocks(), blocks);
        scanner_shutdown();
        DeleteFileA(windows_copy().c_str());
    }
    static void configure(const char *words) { SetEnvironmentVariableA("BRIVANTA_TEST_TWAIN", words); }
    int blocks = 0;
};

TEST_F(Twain, MissingManagerGives17) {
    scanner_shutdown();
    ASSERT_TRUE(DeleteFileA(windows_copy().c_str()));
    EXPECT_EQ(IMG_scan_acquire(nullptr, 1), IMG_ERR_SCAN_ACQUIRE);
    EXPECT_EQ(IMG_scan_pages(nullptr, "pg", 1, 1), IMG_ERR_SCAN_ACQUIRE);
    EXPECT_EQ(IMG_scan_open_source(nullptr, "Virtual Scanner A"), IMG_ERR_SCAN_ACQUIRE);
}

TEST_F(Twain, AcquireResults) {
    const struct {
        const char *words;
        int want;
    } cases[] = {{"close", IMG_ERR_STOPPED},        {"cancel", IMG_ERR_STOPPED},
                 {"fail=0", IMG_ERR_MEMORY},        {"refuse", IMG_ERR_SCAN_SOURCE},
                 {"refuse-enable", IMG_ERR_SCAN_SOURCE}, {"refuse-dsm", IMG_ERR_SCAN_SOURCE}};
    for (auto &c : cases) {
        scanner_shutdown();  // so that the manager is opened again
        configure(c.words);
        EXPECT_EQ(IMG_scan_acquire(nullptr, 1), c.want) << c.words;
    }
    configure("");
    int h = IMG_scan_acquire(nullptr, 1);
    EXPECT_EQ(appearance(picture_of(h)), generated_page(0, 8, 40));
    IMG_delete_bitmap(h);
}

TEST_F(Twain, CapsAreNegotiatedOnlyWithoutTheDialog) {
    configure("pages=2");
    ASSERT_EQ(IMG_scan_set_caps(150, IMG_SCAN_LINEART, IMG_SCAN_DUPLEX, 0, 0, 2000, 1000), 0);
    EXPECT_EQ(IMG_scan_set_caps(-1, 0, 0, 0, 0, 0, 0), IMG_ERR_TYPE);
    for (int show_ui : {0, 1}) {
        int h = IMG_scan_acquire(nullptr, show_ui);
        picture p = picture_of(h);
        EXPECT_EQ(p.bits, show_ui ? 8 : 1) << show_ui;
        EXPECT_EQ(appearance(p), generated_page(0, p.bits, show_ui ? 40 : 60)) << show_ui;
        IMG_delete_bitmap(h);
    }
    // Duplex doubles the pages of the feeder.
    std::string prefix = temp_path("twain_duplex_");
    EXPECT_GE(IMG_scan_pages(nullptr, prefix.c_str(), 1, 0), 0);
    for (int n = 0; n < 5; n++)
        EXPECT_EQ(GetFileAttributesA((prefix + "0000000" + std::to_string(n) + ".img").c_str()) != INVALID_FILE_ATTRIBUTES,
                  n < 4) << n;
}

TEST_F(Twain, PageSeries) {
    std::string prefix = temp_path("twain_pg");
    std::string name = temp_path("twain_scan.tif");
    write_file(prefix + "00000000.img", bytes(10, 'x'));  // replaced, not appended to
    write_file(name, bytes(10, 'x'));
    configure("pages=3");
    EXPECT_GE(IMG_scan_pages(nullptr, prefix.c_str(), -1, 1), 0);
    for (int n = 0; n < 3; n++) {
        int code = 0;
        picture p = load_pic(read_file(prefix + "0000000" + std::to_string(n) + ".img"), &code);
        EXPECT_EQ(appearance(p), generated_page(n, 8, 40)) << n << " " << code;
    }
    EXPECT_GE(IMG_scan_pages(nullptr, name.c_str(), IMG_TYPE_TIFF, 1), 0);
    EXPECT_EQ(IMGLOW_get_pages(name.c_str()), 3);
    for (int n = 0; n < 3; n++) EXPECT_EQ(appearance(load_pic(read_file(name), nullptr, n)), generated_page(n, 8, 40));

    // A failed transfer ends the series as a source failure, the pages before it kept.
    configure("pages=3 fail=1");
    std::string cut = temp_path("twain_cut");
    EXPECT_EQ(IMG_scan_pages(nullptr, cut.c_str(), 1, 1), IMG_ERR_SCAN_SOURCE);
    EXPECT_NE(GetFileAttributesA((cut + "00000000.img").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesA((cut + "00000001.img").c_str()), INVALID_FILE_ATTRIBUTES);

    // Without a prefix the files are numbers in the current directory.
    std::string dir = use_private_temp_dir("twain_cwd");
    char old[MAX_PATH];
    GetCurrentDirectoryA(MAX_PATH, old);
    SetCurrentDirectoryA(dir.c_str());
    configure("");
    EXPECT_GE(IMG_scan_pages(nullptr, nullptr, IMG_TYPE_TIFF, 1), 0);
    EXPECT_NE(GetFileAttributesA("00000000.img"), INVALID_FILE_ATTRIBUTES);
    DeleteFileA("00000000.img");
    SetCurrentDirectoryA(old);
}

TEST_F(Twain, ChoosingAndListingSources) {
    char names[64];
    EXPECT_EQ(IMG_scan_list_sources(names, sizeof names), 2);
    EXPECT_STREQ(names, "Virtual Scanner A");
    EXPECT_STREQ(names + 18, "Virtual Scanner B");
    EXPECT_EQ(IMG_scan_list_sources(names, 20), 2);  // room for one name only
    EXPECT_EQ(names[18], 0);

    EXPECT_EQ(IMG_scan_open_source(nullptr, "No Such Scanner"), IMG_ERR_SCAN_SOURCE);
    configure("select-cancel");
    EXPECT_EQ(IMG_scan_open_source(nullptr, nullptr), IMG_ERR_STOPPED);
    for (const char *choice : {"Virtual Scanner B", ""}) {  // by name, then the dialog's pick
        configure("");
        ASSERT_EQ(IMG_scan_open_source(nullptr, choice), 0);
        int h = IMG_scan_acquire(nullptr, 1);
        EXPECT_EQ(appearance(picture_of(h)), generated_page(0, 24, 40)) << choice;
        IMG_delete_bitmap(h);
    }
}

}  // namespace
#endif
