// The handle-level row sink that readers feed when loading into a handle.
#pragma once
#include "frame/frame.h"

struct load_context {
    void *header;     // the announced header, set by the begin step
    int handle;
    int reduction;    // reduced bit count, 0 = none
};

int IMG_CALLBACK handle_begin_image(void *header, void *context);
int IMG_CALLBACK handle_put_row(unsigned char *row, void *context, int r, int byte_count);
