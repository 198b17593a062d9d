// Printer device contexts where the build found neither cairo nor CUPS:
// none can be made, and no surface is a printer.
#include "brivanta.h"

extern "C" {

int IMG_API IMG_dc_create_printer(const char *, const char *, int, int, int, void **dc) {
    if (dc) *dc = nullptr;
    return IMG_ERR_TYPE;
}
int IMG_API IMG_dc_start_page(void *) { return IMG_ERR_HANDLE; }
int IMG_API IMG_dc_end_page(void *) { return IMG_ERR_HANDLE; }
int IMG_API IMG_dc_end_doc(void *) { return IMG_ERR_HANDLE; }

}  // extern "C"
