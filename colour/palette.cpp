// The fixed palettes that readers, writers and reductions ask for by name.
#include "colour/colour.h"

#include <strings.h>

namespace brv {

namespace {

void put_entry(uint8_t *q, int blue, int green, int red) {
    q[0] = static_cast<uint8_t>(blue);
    q[1] = static_cast<uint8_t>(green);
    q[2] = static_cast<uint8_t>(red);
    q[3] = 0;
}

// Eight colours at a dim level, then the same eight at full level.
void sixteen_colours(uint8_t *pal, int dim) {
    for (int i = 0; i < 16; i++) {
        int level = i < 8 ? dim : 255;
        put_entry(pal + 4 * i, (i & 4) ? level : 0, (i & 2) ? level : 0, (i & 1) ? level : 0);
    }
}

bool name_is(const char *name, const char *want) { return name && strcasecmp(name, want) == 0; }

}  // namespace

void set_named_palette(dib_info *header, const char *name) {
    uint8_t *pal = reinterpret_cast<uint8_t *>(header) + 40;
    int bits = header->biBitCount;
    if (bits == 1) {
        put_entry(pal, 0, 0, 0);
        put_entry(pal + 4, 255, 255, 255);
    } else if (name_is(name, "tiff")) {
        if (bits > 8) return;
        int n = 1 << bits;
        // Deliberately not stretched: a 4-bit ramp ends at 240.
        for (int i = 0; i < n; i++) {
            int v = i * (256 / n);
            if (v > 255) v = 255;
            put_entry(pal + 4 * i, v, v, v);
        }
    } else if (name_is(name, "332") || name_is(name, "targa")) {
        for (int i = 0; i < 256; i++)
            put_entry(pal + 4 * i, (i & 3) * 85, ((i >> 2) & 7) * 255 / 7, ((i >> 5) & 7) * 255 / 7);
    } else if (name_is(name, "dither")) {
        sixteen_colours(pal, 200);
    } else {
        sixteen_colours(pal, 128);
    }
}

}  // namespace brv
