// The table of formats through the exports: every writer's output is
// detected as the code that wrote it and loads when the table says it
// reads, and the error texts cover every code the library returns.
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(Formats, WriterOutputsAreDetectedAsTheirCodeAndLoadWhenReadable) {
    int tested = 0;
    for (int code = 0;; code++) {
        char key[32];
        int caps = IMGLOW_get_type_info(code, key, sizeof key, nullptr, 0, nullptr, 0);
        if (caps < 0) break;
        if (!(caps & IMG_TYPE_CAN_WRITE)) continue;
        // The first depth the writer takes.
        bytes file;
        for (int bits : {24, 8, 1}) {
            // Icons are detected at 16, 32 and 64 pixels wide, and read as square.
            int h = handle_of(code == IMG_TYPE_ICO ? make_picture(32, 32, bits, 5) : make_picture(40, 24, bits, 5));
            int r = 0;
            file = save_bytes(h, code, &r);
            IMG_delete_bitmap(h);
            if (r >= 0) break;
            file.clear();
        }
        ASSERT_FALSE(file.empty()) << key;
        block_ref b(file);
        if (code == IMG_TYPE_EPS) {  // PostScript text; what loads is a binary wrapper's preview
            EXPECT_EQ(load_bytes(file), IMG_ERR_TYPE);
            continue;
        }
        if (caps & IMG_TYPE_DETECTED) {
            // The memory query leaves the X formats and Sun raster unnamed, by design.
            const bool by_mem = code != IMG_TYPE_XBM && code != IMG_TYPE_XPM && code != IMG_TYPE_XWD &&
                                code != IMG_TYPE_SUNRAS;
            EXPECT_EQ(IMGLOW_get_filetype_mem(b.data), by_mem ? code : IMG_ERR_TYPE) << key;
        }
        int h = load_bytes(file);
        EXPECT_EQ(h >= 0, (caps & IMG_TYPE_CAN_READ) != 0) << key << " loads with " << h;
        if (h >= 0) IMG_delete_bitmap(h);
        tested++;
    }
    EXPECT_GE(tested, 10) << "the loop saw the writers";
    EXPECT_EQ(IMGLOW_get_type_info(44, nullptr, 0, nullptr, 0, nullptr, 0), IMG_ERR_TYPE);
}

TEST(Formats, ErrorTextsAreCutToTheBuffer) {
    for (int code : {IMG_ERR_MEMORY, IMG_ERR_OPEN, IMG_ERR_HEADER, IMG_ERR_CREATE, IMG_ERR_TYPE, IMG_ERR_EPS_PREVIEW,
                     IMG_ERR_WRITE, IMG_ERR_PAGE, IMG_ERR_DATA, IMG_ERR_HANDLE, IMG_ERR_SCAN_SOURCE,
                     IMG_ERR_SCAN_ACQUIRE, IMG_ERR_STOPPED, IMG_ERR_DEPTH, IMG_ERR_NO_TRANSPARENT}) {
        char text[8] = "xxxxxxx";
        int n = IMG_get_error_text(code, text, 5);
        EXPECT_GT(n, 5) << code;
        EXPECT_EQ(std::strlen(text), 4u) << code;
    }
    char text[4] = "xx";
    EXPECT_EQ(IMG_get_error_text(-4, text, sizeof text), IMG_ERR_TYPE);
    EXPECT_STREQ(text, "");
}
