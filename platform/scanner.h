// The scanner boundary: the system's source manager (TWAIN on Windows, SANE
// elsewhere) seen as something that delivers pictures as packed DIBs.  The
// page loop, page files and handles are the scan code's; a system's file
// beside this header only opens sources and transfers pictures.
#pragma once
#include <cstdint>

namespace brv {

// What IMG_scan_set_caps asked for; 0 in a field leaves the source's own setting.
struct scan_caps {
    int32_t resolution;  // dots per inch
    int32_t mode;        // IMG_SCAN_COLOUR, IMG_SCAN_GREY, IMG_SCAN_LINEART
    int32_t source;      // IMG_SCAN_FLATBED, IMG_SCAN_FEEDER, IMG_SCAN_DUPLEX
    int32_t left, top, width, height;  // thousandths of an inch; width or height 0: whole area
};

// Called once per picture the source transfers, with the DIB (header, colour
// table, bottom-up rows) locked for the call, or with null and the failed
// transfer's code (IMG_ERR_MEMORY, or IMG_ERR_STOPPED for a cancel).  The
// system code frees the picture afterwards.  A negative result ends the
// session; otherwise the next pending picture is taken when all_pages is set.
struct scan_delivery {
    int (*page)(void *context, const void *dib, int code);
    void *context;
    bool all_pages;
};

// One session: opens the chosen or default source, negotiates caps (on
// Windows only when its user interface is hidden), delivers pictures, closes
// the source.  The last result of page, or, when no picture came, the
// source's code: IMG_ERR_SCAN_SOURCE, IMG_ERR_SCAN_ACQUIRE, IMG_ERR_STOPPED.
int scanner_session(void *window, bool show_ui, const scan_caps &caps, const scan_delivery &delivery);

// Chooses the source later sessions use: by name, or with null or "" the
// system's selection dialog (Windows) or the first device (elsewhere).
int scanner_select(void *window, const char *name);

// Calls each with every source's name, in the system's order: the number of
// sources, or a negative code.
int scanner_list(void (*each)(void *context, const char *name), void *context);

// Closes what stays open between sessions (the TWAIN source manager) and
// forgets the chosen source.
void scanner_shutdown();

// Devices opened and not yet closed: 0 between sessions.
int scanner_open_devices();

}  // namespace brv
