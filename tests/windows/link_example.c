/* A Windows program that links brivanta.lib and calls the exports as the
 * header declares them: converts a file to another type code.
 * Usage: brivanta_link_example IN OUT TYPE */
#include <stdio.h>
#include <stdlib.h>

#include "brivanta.h"

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s IN OUT TYPE\n", argv[0]);
        return 2;
    }
    int handle = IMG_decompress_bitmap(argv[1]);
    if (handle < 0) {
        fprintf(stderr, "load failed: %d\n", handle);
        return 1;
    }
    int width, height, bits;
    IMG_bitmap_info(handle, &width, &height, &bits);
    int result = IMG_save_bitmap(handle, argv[2], atoi(argv[3]));
    IMG_delete_bitmap(handle);
    if (result < 0) {
        fprintf(stderr, "save failed: %d\n", result);
        return 1;
    }
    printf("%dx%d, %d bits\n", width, height, bits);
    return 0;
}
