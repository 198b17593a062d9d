// The handle-level row sink that readers feed when loading into a handle.
#pragma once
#include "frame/frame.h"

struct load_context {
    void *header;     // the announced header, set by the begin step
    int handle;
    int reduction;    // reduced bit count, 0 = none
    int32_t rows_lo = 0, rows_hi = 0;  // the band of stored rows already written: [lo, hi)
};

int IMG_CALLBACK handle_begin_image(void *header, void *context);
int IMG_CALLBACK handle_put_row(unsigned char *row, void *context, int r, int byte_count);
// Clears the rows no reader wrote: the bitmap is not cleared when it is made.
void handle_clear_missing_rows(const load_context &ctx);
