// The handle-level row sink that readers feed when loading into a handle.
#pragma once
#include "frame/frame.h"

namespace brv {

struct load_context {
    void *header;     // the announced header, set by the begin step
    int handle;
    int reduction;    // reduced bit count, 0 = none
    // Set by a load that clears, when it ends, what no reader wrote: its
    // bitmap may then be taken uncleared.
    bool clears_at_end = false;
    // Per stored row, set once the row is written; null when the bitmap was
    // made clear.
    uint8_t *written = nullptr;
};

int IMG_CALLBACK handle_begin_image(void *header, void *context);
int IMG_CALLBACK handle_put_row(unsigned char *row, void *context, int r, int byte_count);

// A reader of a source that detection cannot name, given the parameters its
// caller was given instead of a start offset.
using raw_reader_fn = int (*)(const void *params, IMG_put_row_fn put_row, void *context,
                              IMG_begin_image_fn begin_image, int fd);
// Loads through such a reader into a new handle, as every load does: the
// handle, or a negative code with no handle left.
int load_raw_into_handle(int fd, raw_reader_fn read, const void *params);

}  // namespace brv
