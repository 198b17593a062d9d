// The table of formats: one descriptor per type code, read by detection,
// the load and save dispatch, the type queries, page counting and the
// type-info export.
#pragma once
#include "frame/frame.h"

namespace brv {

// A signature test on the first ten bytes of the source; fd is positioned
// just after them (or where the previous probe left it) for the probes
// that look further on.
using probe_fn = bool (*)(const uint8_t *head, int fd);
// The compression variant of a detected family, read from offset 0: the
// variant's code or a negative code.
using refine_fn = int (*)(int fd);
// Page counters for the multi-page formats: the count, or a negative code.
using page_count_fn = int (*)(int fd);

enum format_flag : uint8_t {
    SAVED_BY_NAME = 1,  // an output name ending in the extension selects this code
    NAMED_BY_QUERY = 2, // IMGLOW_get_filetype reports the detected family
    NAMED_BY_FD_QUERY = 4,  // so do IMGLOW_get_filetype_fd and _mem
    APPENDS = 8,        // saving over a file of its family adds a page to it
};

struct format_info {
    int code;
    const char *key;     // short stable name, as the tool's --type takes it
    const char *name;
    const char *ext;     // file extension; a family's detection text
    int family;          // the code whose probe, reader and page counter serve this one
    int flag;            // the auto-detect flag it shares: its family's for the TIFF and BMP variants
    uint8_t flags;       // format_flag bits
    probe_fn probe;      // family rows only; null: detection never names it
    reader_fn read;      // family rows only; null: loads with IMG_ERR_TYPE
    writer_fn write;     // null: saves with IMG_ERR_TYPE
    page_count_fn count_pages;  // null: one page
    refine_fn refine;    // null: the family's code stands
};

constexpr int FORMAT_COUNT = 44;
extern const format_info formats[FORMAT_COUNT];
// The row of a type code; null outside the table.
inline const format_info *format_of(int code) {
    return code >= 0 && code < FORMAT_COUNT ? &formats[code] : nullptr;
}

// Family codes in the order detection tries their probes.
extern const uint8_t probe_order[];
extern const int probe_order_size;

// ---- Detection -----------------------------------------------------------------
constexpr int AUTO_DETECT_FLAGS = 44;
// Runs the enabled probes from the source's current position; the detected
// family's code, or -1.  The source is left at offset 0.
int detect_format(int fd);

}  // namespace brv
