// Printing onto device contexts: the same calls on Linux memory surfaces and,
// in the Windows suite under Wine, on GDI memory DCs over 32-bit DIB
// sections, held to the same expected pixels.  The clipboard save beside it.
#include "display/display.h"
#include "test_dc.h"

namespace {

// 120 x 300 at 24 bits, red the column, green and blue the row from the top:
// every printed pixel names its source pixel.  Gamma 100: identity tones.
int row_coded_handle() {
    picture p{120, 300, 24, {}, {}};
    for (int y = 0; y < p.height; y++) {
        bytes row(stride_of(p.width, 24));
        for (int x = 0; x < p.width; x++) {
            row[3 * x] = static_cast<uint8_t>(y >> 8);
            row[3 * x + 1] = static_cast<uint8_t>(y);
            row[3 * x + 2] = static_cast<uint8_t>(x);
        }
        p.rows.push_back(row);
    }
    block_ref b(dib_of_picture(p, 300, 200));
    const int h = IMG_create_handle(b.data);
    IMG_set_gamma(h, 100);
    return h;
}
uint32_t coded(int x, int y) { return static_cast<uint32_t>(x) << 16 | (y & 255) << 8 | y >> 8; }

int calls = 0, last_total = 0, stop_at = 0;
int IMG_CALLBACK count_rows(void *, int total) {
    last_total = total;
    return ++calls == stop_at ? -4 : 0;
}

}  // namespace

// The crop (10, 20, 100, 50) of a 300-row picture starts at row 230 from the
// bottom; each path puts the source pixels where the destination says.  The
// banded print calls the status callback once per device row and stops on
// its first -4; display never calls it.  The fast path's coordinates are cut
// to 16 bits: -3 reaches the device as 65533.
TEST(Print, PathsMapTheCropRectangle) {
    enum { FAST, BANDED, DISPLAY };
    const struct {
        int path, left, top, width, height, scale, stop, want;  // scale 0: nothing lands
    } cases[] = {
        {FAST, 5, 5, 100, 50, 1, 0, 0},     {BANDED, 5, 5, 100, 50, 1, 0, 0}, {BANDED, 0, 0, 200, 100, 2, 0, 0},
        {FAST, 0, 0, 200, 100, 2, 0, 0},    {FAST, -3, 0, 100, 50, 0, 0, 0},  {BANDED, 0, 0, 100, 50, 0, 1, -4},
        {DISPLAY, 0, 0, 100, 50, 1, 1, 0},
    };
    const int h = row_coded_handle();
    ASSERT_EQ(IMG_set_croprect(h, 10, 20, 100, 50), 0);
    for (const auto &c : cases) {
        scoped_dc dc(210, 110);
        calls = 0;
        stop_at = c.stop;
        IMG_set_statusbar(nullptr, count_rows, 1);
        const int r = c.path == FAST     ? IMG_print_bitmap_fast(h, dc.dc, c.left, c.top, c.width, c.height)
                      : c.path == BANDED ? IMG_print_bitmap(h, dc.dc, c.left, c.top, c.width, c.height)
                                         : IMG_display_bitmap(h, dc.dc, c.left, c.top, c.width, c.height);
        IMG_set_statusbar(nullptr, nullptr, 0);
        EXPECT_EQ(r, c.want);
        EXPECT_EQ(calls, c.path != BANDED ? 0 : c.stop ? 1 : c.height);
        if (c.path == BANDED) {
            EXPECT_EQ(last_total, c.height);
        }
        const auto px = dc.pixels();
        int wrong = 0;
        for (int y = 0; y < 110; y++)
            for (int x = 0; x < 210; x++) {
                const int i = x - c.left, j = y - c.top;
                const bool in = c.scale && i >= 0 && i < c.width && j >= 0 && j < c.height;
                wrong += px[y * 210 + x] != (in ? coded(10 + i / c.scale, 20 + j / c.scale) : 0xFFFFFFu);
            }
        EXPECT_EQ(wrong, 0) << "case " << (&c - cases);
    }
    // The resolution fields, hidden from the driver, are back.
    uint8_t header[40 + 1024];
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 300u);
    EXPECT_EQ(get32(header + 28), 200u);
    IMG_delete_bitmap(h);
    EXPECT_EQ(IMG_print_bitmap(h, nullptr, 0, 0, 1, 1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_print_bitmap_fast(h, nullptr, 0, 0, 1, 1), IMG_ERR_HANDLE);
}

#ifndef _WIN32
// What a printer reports shapes the print: a scaling factor of (1, 1)
// doubles the fast path's destination; a 300 dpi printer without one (or
// with a horizontal factor of 0) lightens the tones: 0 -> 24, 255 stays.
TEST(Print, PrinterCapabilities) {
    const int h = row_coded_handle();
    scoped_dc dc(250, 120);
    IMG_dc_set_caps(dc.dc, -1, "", 96, 1, 1);
    ASSERT_EQ(IMG_print_bitmap_fast(h, dc.dc, 0, 0, 60, 50), 0);
    const auto px = dc.pixels();
    EXPECT_EQ(px[99 * 250 + 119], coded(119, 297));  // 120 x 100: every column, every third row
    EXPECT_EQ(px[50 * 250 + 120], 0xFFFFFFu);
    EXPECT_EQ(px[100 * 250 + 50], 0xFFFFFFu);

    handle_record rec = {};
    const struct {
        int colours, dpi, scale_x, zero;
    } tones[] = {{2, 300, -1, 24}, {2, 300, 0, 24}, {2, 300, 1, 0}, {2, 299, -1, 0}, {-1, 600, -1, 24}};
    for (const auto &t : tones) {
        IMG_dc_set_caps(dc.dc, t.colours, "", t.dpi, t.scale_x, 0);
        uint8_t tone[256];
        build_tone_table(&rec, dc.dc, t.colours == 2, tone);
        EXPECT_EQ(tone[0], t.zero) << t.dpi << " dpi, scale " << t.scale_x;
        EXPECT_EQ(tone[255], 255);
    }

    IMG_delete_bitmap(h);
}

// Printers refuse what they cannot be and leave nothing behind when memory fails.
TEST(Print, PrinterSurfaceArgumentsAndFaults) {
    const std::string pdf = temp_path("faults.pdf");
    void *dc = nullptr;
    if (IMG_dc_create_printer(pdf.c_str(), nullptr, 100, 1000, 1000, &dc) == IMG_ERR_TYPE)
        GTEST_SKIP() << "built without cairo and CUPS";
    EXPECT_EQ(IMG_dc_end_doc(dc), 0);
    EXPECT_EQ(IMG_dc_end_doc(dc), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_delete(dc), 0);
    EXPECT_EQ(IMG_dc_create_printer("/nonexistent/x.pdf", nullptr, 100, 1000, 1000, &dc), IMG_ERR_CREATE);
    EXPECT_EQ(IMG_dc_start_page(nullptr), IMG_ERR_HANDLE);
    const int blocks = mem_live_blocks(), live = gfx_live_objects();
    for (int k = 1; k <= 3; k++) {
        mem_fail_after(k);
        EXPECT_EQ(IMG_dc_create_printer(pdf.c_str(), nullptr, 100, 1000, 1000, &dc), IMG_ERR_MEMORY) << k;
        mem_fail_after(0);
        EXPECT_EQ(dc, nullptr);
    }
    EXPECT_EQ(mem_live_blocks(), blocks);
    EXPECT_EQ(gfx_live_objects(), live);
}
#endif

#ifdef _WIN32
// The clipboard's DIB goes to the file as it stands: header, a full colour
// table's worth of bytes (reading on into the rows when the DIB's own table
// is shorter), then the rows from where that table ends.
TEST(Clipboard, DibSavedAsBmpFile) {
    const std::string out = temp_path("clipboard.bmp");
    for (const int used : {0, 2}) {
        const picture p = make_picture(7, 5, 8, 11);
        bytes dib = dib_of_picture(p);
        put32(dib.data() + 32, static_cast<uint32_t>(used));
        if (used) dib.erase(dib.begin() + 40 + 4 * used, dib.begin() + 40 + 1024);
        HGLOBAL g = GlobalAlloc(GMEM_MOVEABLE, dib.size());
        std::memcpy(GlobalLock(g), dib.data(), dib.size());
        GlobalUnlock(g);
        ASSERT_TRUE(OpenClipboard(nullptr));
        EmptyClipboard();
        SetClipboardData(CF_DIB, g);
        CloseClipboard();
        ASSERT_EQ(IMG_save_clipboard(out.c_str(), nullptr), 1);
        bytes want = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        put32(want.data() + 2, 14 + 1064 + 5 * 8);
        put32(want.data() + 10, 14 + 1064);
        for (size_t i = 0; i < 1064; i++) want.push_back(i < dib.size() ? dib[i] : 0);
        want.insert(want.end(), dib.begin() + (used ? 40 + 4 * used : 1064), dib.end());
        EXPECT_EQ(read_file(out), want) << used << " colours";
    }
    ASSERT_TRUE(OpenClipboard(nullptr));
    EmptyClipboard();
    CloseClipboard();
    EXPECT_EQ(IMG_save_clipboard(out.c_str(), nullptr), IMG_ERR_OPEN);
}
#endif
