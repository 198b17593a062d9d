// Windows only: scanning through the stand-in source manager of
// twain_source.cpp, copied into the Windows directory for each test.
#if defined(_WIN32) && defined(BRIVANTA_TEST_TWAIN_DLL)
#include "frame/frame.h"
#include "platform/scanner.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
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
    ASSERT_EQ(IMG_scan_set_caps(150, IMG_SCAN_LINEART, 0, 0, 0, 2000, 1000), 0);
    EXPECT_EQ(IMG_scan_set_caps(-1, 0, 0, 0, 0, 0, 0), IMG_ERR_TYPE);
    for (int show_ui : {0, 1}) {
        int h = IMG_scan_acquire(nullptr, show_ui);
        picture p = picture_of(h);
        EXPECT_EQ(p.bits, show_ui ? 8 : 1) << show_ui;
        EXPECT_EQ(appearance(p), generated_page(0, p.bits, show_ui ? 40 : 60)) << show_ui;
        IMG_delete_bitmap(h);
    }
}

// Page files in a folder of the test's own, as the current directory.
TEST_F(Twain, PageSeries) {
    std::string dir = temp_path("twain_pages");
    char old[MAX_PATH];
    GetCurrentDirectoryA(MAX_PATH, old);
    ASSERT_TRUE(CreateDirectoryA(dir.c_str(), nullptr) && SetCurrentDirectoryA(dir.c_str()));
    auto exists = [](const std::string &f) { return GetFileAttributesA(f.c_str()) != INVALID_FILE_ATTRIBUTES; };
    write_file("pg00000000.img", bytes(10, 'x'));  // replaced, not added to
    write_file("scan.tif", bytes(10, 'x'));
    configure("pages=3");
    EXPECT_GE(IMG_scan_pages(nullptr, "pg", -1, 1), 0);
    EXPECT_GE(IMG_scan_pages(nullptr, "scan.tif", IMG_TYPE_TIFF, 1), 0);
    EXPECT_GE(IMG_scan_pages(nullptr, nullptr, IMG_TYPE_TIFF, 1), 0);  // no name: numbered files
    EXPECT_EQ(IMGLOW_get_pages("scan.tif"), 3);
    for (int n = 0; n < 4; n++) {
        std::string leaf = "0000000" + std::to_string(n) + ".img";
        EXPECT_EQ(exists("pg" + leaf) && exists(leaf), n < 3) << n;
        if (n < 3) {
            EXPECT_EQ(appearance(load_pic(read_file("pg" + leaf))), generated_page(n, 8, 40)) << n;
            EXPECT_EQ(appearance(load_pic(read_file("scan.tif"), nullptr, n)), generated_page(n, 8, 40)) << n;
        }
    }
    // A failed transfer ends a series as a source failure, keeping the pages
    // before it; a duplex feeder gives twice the pages.
    configure("pages=3 fail=1");
    EXPECT_EQ(IMG_scan_pages(nullptr, "cut", 1, 1), IMG_ERR_SCAN_SOURCE);
    EXPECT_TRUE(exists("cut00000000.img") && !exists("cut00000001.img"));
    configure("pages=2");
    ASSERT_EQ(IMG_scan_set_caps(0, 0, IMG_SCAN_DUPLEX, 0, 0, 0, 0), 0);
    EXPECT_GE(IMG_scan_pages(nullptr, "dup", 1, 0), 0);
    EXPECT_TRUE(exists("dup00000003.img") && !exists("dup00000004.img"));
    SetCurrentDirectoryA(old);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
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
