// Window surfaces where the build found no X11: memory surfaces only.
#include "brivanta.h"

extern "C" {

int IMG_API IMG_dc_create_window(const char *, int, int, const char *, void **dc) {
    if (dc) *dc = nullptr;
    return IMG_ERR_TYPE;
}

int IMG_API IMG_dc_next_event(void *, int, IMG_event *) { return IMG_ERR_HANDLE; }

}  // extern "C"
