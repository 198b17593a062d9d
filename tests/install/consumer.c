/* A program outside the project, built against an installed tree: the
 * library's version must be the package's, and a picture must load. */
#include <stdio.h>
#include <string.h>
#include "brivanta.h"

int main(int argc, char **argv) {
    if (argc != 3) return 2;
    int major = 0, minor = 0, width = 0, height = 0, bits = 0;
    IMG_qor_version(&major, &minor);
    char version[32];
    snprintf(version, sizeof version, "%d.%d", major, minor);
    int h = IMG_decompress_bitmap(argv[1]);
    if (h < 0 || IMG_bitmap_info(h, &width, &height, &bits) <= 0) return 1;
    printf("%s %dx%dx%d\n", version, width, height, bits);
    return strcmp(version, argv[2]) != 0;
}
