// Fonts where the build found no font system: no face can be had, so text
// files load with IMG_ERR_TYPE.
#include "brivanta.h"
#include "platform/platform.h"

namespace brv {

int os_font_open(const font_request &, os_font **font) {
    *font = nullptr;
    return IMG_ERR_TYPE;
}
void os_font_close(os_font *) {}
int32_t os_font_line_height(os_font *, int32_t) { return 0; }
int32_t os_font_advance(os_font *, uint32_t) { return IMG_ERR_TYPE; }
int os_font_draw(os_font *, const uint32_t *, const int32_t *, int32_t, uint8_t *, int32_t, int32_t, int32_t) {
    return IMG_ERR_TYPE;
}

}  // namespace brv
