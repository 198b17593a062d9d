// The clipboard where the build found no X11 client library: always empty.
#include "brivanta.h"
#include "platform/platform.h"

namespace brv {

int os_clipboard_picture(void *, mem_block *block, uint32_t *size, int *) {
    *block = 0;
    *size = 0;
    return IMG_ERR_OPEN;
}

}  // namespace brv
