// Printing onto device contexts: the same calls on Linux memory surfaces and,
// in the Windows suite under Wine, on GDI memory DCs over 32-bit DIB
// sections, held to the same expected pixels.  The clipboard save beside it.
#include "display/display.h"
#include "platform/graphics.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <vector>
#ifdef _WIN32
#include <windows.h>
#else
#include "platform/posix/surface.h"
#endif

namespace {

#ifdef _WIN32
struct print_dc {
    HDC dc = CreateCompatibleDC(nullptr);
    HBITMAP bitmap = nullptr, old = nullptr;
    uint32_t *bits = nullptr;
    int w, h;
    print_dc(int w_, int h_) : w(w_), h(h_) {
        BITMAPINFO bi = {};
        bi.bmiHeader = {sizeof(BITMAPINFOHEADER), w, -h, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
        void *p = nullptr;
        bitmap = CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &p, nullptr, 0);
        bits = static_cast<uint32_t *>(p);
        std::fill_n(bits, static_cast<size_t>(w) * h, 0xFFFFFFu);
        old = static_cast<HBITMAP>(SelectObject(dc, bitmap));
    }
    ~print_dc() {
        SelectObject(dc, old);
        DeleteObject(bitmap);
        DeleteDC(dc);
    }
    void *get() const { return dc; }
    uint32_t at(int x, int y) const {
        GdiFlush();
        return bits[static_cast<size_t>(y) * w + x] & 0xFFFFFF;
    }
};
#else
struct print_dc {
    void *dc = nullptr;
    int w, h;
    print_dc(int w_, int h_) : w(w_), h(h_) { IMG_dc_create_memory(w, h, &dc); }
    ~print_dc() { IMG_dc_delete(dc); }
    void *get() const { return dc; }
    uint32_t at(int x, int y) const {
        uint32_t v = 0;
        IMG_dc_read_pixels(dc, x, y, 1, 1, &v);
        return v;
    }
};
#endif

// 120 x 300 at 24 bits: red is the column, green and blue the row from the
// top, so every printed pixel names the source pixel it came from.
int row_coded_handle() {
    picture p;
    p.width = 120;
    p.height = 300;
    p.bits = 24;
    for (int y = 0; y < p.height; y++) {
        bytes row(stride_of(p.width, 24));
        for (int x = 0; x < p.width; x++) {
            row[3 * x] = static_cast<uint8_t>(y >> 8);
            row[3 * x + 1] = static_cast<uint8_t>(y);
            row[3 * x + 2] = static_cast<uint8_t>(x);
        }
        p.rows.push_back(row);
    }
    const int h = handle_of(p);
    IMG_set_gamma(h, 100);  // an identity tone table
    return h;
}
uint32_t coded(int x, int y) { return static_cast<uint32_t>(x) << 16 | (y & 255) << 8 | y >> 8; }

int calls = 0, last_total = 0, stop_at = 0;
int IMG_CALLBACK count_rows(void *, int total) {
    last_total = total;
    return ++calls == stop_at ? -4 : 0;
}

}  // namespace

// The crop (10, 20, 100, 50) of a 300-row picture starts at row 230 from
// the bottom; both paths put the same source pixels where the destination
// says, the banded one calling the status callback once per device row.
TEST(Print, BothPathsMapTheCropRectangle) {
    const struct {
        bool fast;
        int left, top, width, height;
        int scale;  // device pixels per source pixel; 0: nothing lands on the device
    } cases[] = {
        {true, 5, 5, 100, 50, 1},   {false, 5, 5, 100, 50, 1},
        {false, 0, 0, 200, 100, 2}, {true, 0, 0, 200, 100, 2},
        // Coordinates cut to 16 bits: -3 reaches the device as 65533.
        {true, -3, 0, 100, 50, 0},
    };
    const int h = row_coded_handle();
    ASSERT_GE(h, 0);
    ASSERT_EQ(IMG_set_croprect(h, 10, 20, 100, 50), 0);
    for (const auto &c : cases) {
        print_dc dc(210, 110);
        calls = 0;
        stop_at = 0;
        IMG_set_statusbar(nullptr, count_rows, 1);
        const int r = c.fast ? IMG_print_bitmap_fast(h, dc.get(), c.left, c.top, c.width, c.height)
                             : IMG_print_bitmap(h, dc.get(), c.left, c.top, c.width, c.height);
        IMG_set_statusbar(nullptr, nullptr, 0);
        EXPECT_EQ(r, 0);
        EXPECT_EQ(calls, c.fast ? 0 : c.height);
        if (!c.fast) {
            EXPECT_EQ(last_total, c.height);
        }
        int wrong = 0;
        for (int y = 0; y < dc.h; y++)
            for (int x = 0; x < dc.w; x++) {
                const int i = x - c.left, j = y - c.top;
                const bool in = c.scale && i >= 0 && i < c.width && j >= 0 && j < c.height;
                wrong += dc.at(x, y) != (in ? coded(10 + i / c.scale, 20 + j / c.scale) : 0xFFFFFFu);
            }
        EXPECT_EQ(wrong, 0) << (c.fast ? "fast " : "banded ") << c.left << "," << c.top << " " << c.width;
        int left, top, width, height;
        IMG_get_croprect(h, &left, &top, &width, &height);
        EXPECT_EQ(left + top + width + height, 10 + 20 + 100 + 50);
    }
    IMG_delete_bitmap(h);
}

// A callback that stops at once ends the print with its value; the display
// of the same handle never calls it and draws everything.
TEST(Print, StatusStopEndsPrintNotDisplay) {
    const int h = row_coded_handle();
    ASSERT_GE(h, 0);
    print_dc printed(120, 300), shown(120, 300);
    calls = 0;
    stop_at = 1;
    IMG_set_statusbar(nullptr, count_rows, 1);
    EXPECT_EQ(IMG_print_bitmap(h, printed.get(), 0, 0, 120, 300), -4);
    EXPECT_EQ(IMG_display_bitmap(h, shown.get(), 0, 0, 120, 300), 0);
    IMG_set_statusbar(nullptr, nullptr, 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(printed.at(0, 299), 0xFFFFFFu);
    int wrong = 0;
    for (int y = 0; y < 300; y++)
        for (int x = 0; x < 120; x++) wrong += shown.at(x, y) != coded(x, y);
    EXPECT_EQ(shown.at(7, 9), coded(7, 9)) << std::hex;
    EXPECT_EQ(wrong, 0);
    IMG_delete_bitmap(h);
    EXPECT_EQ(IMG_print_bitmap(h, printed.get(), 0, 0, 1, 1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_print_bitmap_fast(h, printed.get(), 0, 0, 1, 1), IMG_ERR_HANDLE);
}

// The fast path hides the resolution fields and the mapping only while it
// transfers.
TEST(Print, FastPathRestoresHeaderAndMapping) {
    picture p = make_picture(16, 8, 8, 3);
    block_ref b(dib_of_picture(p, 300, 200));
    const int h = IMG_create_handle(b.data);
    ASSERT_GE(h, 0);
    print_dc dc(40, 40);
    const gfx_mapping m = {GFX_MM_ANISOTROPIC, {0, 0}, {100, 100}, {0, 0}, {40, 40}};
    gfx_set_mapping(dc.get(), m);
    EXPECT_EQ(IMG_print_bitmap_fast(h, dc.get(), 0, 0, 100, 100), 0);
    gfx_mapping after;
    gfx_get_mapping(dc.get(), &after);
    EXPECT_EQ(after.mode, GFX_MM_ANISOTROPIC);
    EXPECT_EQ(after.window_ext.x, 100);
    EXPECT_EQ(after.viewport_ext.y, 40);
    uint8_t header[40 + 1024];
    IMGLOW_get_bitmap_header(h, header);
    EXPECT_EQ(get32(header + 24), 300u);
    EXPECT_EQ(get32(header + 28), 200u);
    IMG_delete_bitmap(h);
}

#ifndef _WIN32
// What a printer reports shapes the print: a scaling factor of (1, 1)
// doubles the fast path's destination; a fine printer without one lightens
// the tones (0 -> 24, 255 stays); bands hold at most 61440 bytes.
TEST(Print, PrinterCapabilities) {
    const int h = row_coded_handle();
    ASSERT_GE(h, 0);
    print_dc dc(250, 120);
    IMG_dc_set_caps(dc.get(), -1, "", 96, 1, 1);
    ASSERT_EQ(IMG_print_bitmap_fast(h, dc.get(), 0, 0, 60, 50), 0);
    // 120 x 100 device pixels: every column, every third row.
    EXPECT_EQ(dc.at(119, 99), coded(119, 297));
    EXPECT_EQ(dc.at(60, 50), coded(60, 150));
    EXPECT_EQ(dc.at(120, 50), 0xFFFFFFu);
    EXPECT_EQ(dc.at(50, 100), 0xFFFFFFu);

    handle_record rec = {};
    const struct {
        int colours, dpi, scale_x;
        int zero, full;
    } tones[] = {
        {2, 300, -1, 24, 255}, {2, 300, 0, 24, 255}, {2, 300, 1, 0, 255}, {2, 299, -1, 0, 255}, {-1, 600, -1, 24, 255},
    };
    for (const auto &t : tones) {
        IMG_dc_set_caps(dc.get(), t.colours, "", t.dpi, t.scale_x, 0);
        uint8_t tone[256];
        build_tone_table(&rec, dc.get(), t.colours == 2, tone);
        EXPECT_EQ(tone[0], t.zero) << t.dpi << " dpi, scale " << t.scale_x;
        EXPECT_EQ(tone[255], t.full);
    }

    // Bands: 200 pixels of 4 bytes make 76 rows a band, 4 bands for 300 rows.
    static int presents;
    static const surface_hooks counting = {[](surface *, int, int, int, int) { presents++; }, nullptr, nullptr};
    print_dc wide(200, 300);
    surface_of(wide.get())->hooks = &counting;
    presents = 0;
    EXPECT_EQ(IMG_print_bitmap(h, wide.get(), 0, 0, 200, 300), 0);
    EXPECT_EQ(presents, 4);
    surface_of(wide.get())->hooks = nullptr;
    IMG_delete_bitmap(h);
}

// Printers refuse bad arguments, leave nothing behind when memory fails,
// and their page calls refuse a surface that is no printer.
TEST(Print, PrinterSurfaceArgumentsAndFaults) {
    const std::string pdf = temp_path("faults.pdf");
    void *dc = nullptr;
    if (IMG_dc_create_printer(pdf.c_str(), nullptr, 100, 1000, 1000, &dc) == IMG_ERR_TYPE)
        GTEST_SKIP() << "built without cairo and CUPS";
    EXPECT_EQ(IMG_dc_end_page(dc), 1);
    EXPECT_EQ(IMG_dc_end_doc(dc), 0);
    EXPECT_EQ(IMG_dc_end_doc(dc), IMG_ERR_TYPE);
    EXPECT_EQ(IMG_dc_delete(dc), 0);
    const struct {
        const char *file, *queue;
        int dpi, w, h, want;
    } cases[] = {
        {nullptr, nullptr, 100, 1000, 1000, IMG_ERR_TYPE}, {pdf.c_str(), nullptr, 0, 1000, 1000, IMG_ERR_TYPE},
        {pdf.c_str(), nullptr, 100, 0, 1000, IMG_ERR_TYPE}, {"/nonexistent/x.pdf", nullptr, 100, 1000, 1000, IMG_ERR_CREATE},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(IMG_dc_create_printer(c.file, c.queue, c.dpi, c.w, c.h, &dc), c.want) << c.file << " " << c.dpi;
        EXPECT_EQ(dc, nullptr);
    }
    print_dc memory(4, 4);
    EXPECT_EQ(IMG_dc_start_page(memory.get()), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_dc_end_doc(memory.get()), IMG_ERR_HANDLE);
    const int blocks = mem_live_blocks(), live = gfx_live_objects();
    for (int k = 1; k <= 3; k++) {
        mem_fail_after(k);
        const int r = IMG_dc_create_printer(pdf.c_str(), nullptr, 100, 1000, 1000, &dc);
        mem_fail_after(0);
        EXPECT_EQ(r, IMG_ERR_MEMORY) << k;
        EXPECT_EQ(dc, nullptr);
    }
    EXPECT_EQ(mem_live_blocks(), blocks);
    EXPECT_EQ(gfx_live_objects(), live);
}
#endif

// The clipboard's DIB goes to the file as it stands: header, a full colour
// table's worth of bytes (reading on into the rows when the DIB's table is
// shorter), then the rows from where the DIB's own table ends.
TEST(Clipboard, DibSavedAsBmpFile) {
#ifdef _WIN32
    const struct {
        int bits, used;
    } cases[] = {{4, 0}, {8, 0}, {24, 0}, {8, 2}};
    const std::string out = temp_path("clipboard.bmp");
    for (const auto &c : cases) {
        const picture p = make_picture(7, 5, c.bits, 11);
        bytes dib = dib_of_picture(p);
        // A short table: the DIB as an application would hand it over.
        if (c.used) {
            put32(dib.data() + 32, static_cast<uint32_t>(c.used));
            dib.erase(dib.begin() + 40 + 4 * c.used, dib.begin() + 40 + palette_bytes(c.bits));
        }
        HGLOBAL g = GlobalAlloc(GMEM_MOVEABLE, dib.size());
        std::memcpy(GlobalLock(g), dib.data(), dib.size());
        GlobalUnlock(g);
        ASSERT_TRUE(OpenClipboard(nullptr));
        EmptyClipboard();
        ASSERT_NE(SetClipboardData(CF_DIB, g), nullptr);
        CloseClipboard();
        ASSERT_EQ(IMG_save_clipboard(out.c_str(), nullptr), 1);
        const bytes file = read_file(out);
        const uint32_t head = 40 + palette_bytes(c.bits), first_row = c.used ? 40 + 4 * c.used : head;
        bytes want = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        put32(want.data() + 2, 14 + head + 5 * stride_of(7, c.bits));
        put32(want.data() + 10, 14 + head);
        for (uint32_t i = 0; i < head; i++) want.push_back(i < dib.size() ? dib[i] : 0);
        want.insert(want.end(), dib.begin() + first_row, dib.end());
        EXPECT_EQ(file, want) << c.bits << " bits, " << c.used << " colours";
        if (!c.used) EXPECT_EQ(load_pic(file), p);
    }
    ASSERT_TRUE(OpenClipboard(nullptr));
    EmptyClipboard();
    CloseClipboard();
    EXPECT_EQ(IMG_save_clipboard(out.c_str(), nullptr), IMG_ERR_OPEN);
#else
    // Without an X server the clipboard cannot be opened.
    EXPECT_EQ(IMG_save_clipboard(temp_path("clipboard.bmp").c_str(), const_cast<char *>(":4711")), IMG_ERR_OPEN);
#endif
}
