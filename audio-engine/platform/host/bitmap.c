/* Host display capability and bitmaps. Rows are deliberately wider than the pixels they hold
 * (rounded up to 4 bytes, plus 4 more) and the padding is filled with HOST_BITMAP_PADDING, so
 * code that assumes stride == width * bytes-per-pixel, or that writes past a row, shows up in
 * tests. Pixels start at zero. */
#include "bitmap.h"
#include "host_platform.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

enum { HOST_BITMAP_PADDING = 0xA5, HOST_BITMAP_EXTRA = 4 };

_Static_assert(offsetof(qz_bitmap, stride) == 6, "stride at bytes 6..7");
_Static_assert(offsetof(qz_bitmap, data) == 8, "pixels from byte 8");

static int display_color = 1;

void host_set_display_color(int color) {
    __atomic_store_n(&display_color, color != 0, __ATOMIC_RELAXED);
}

int device_display_colormask(void) {
    return __atomic_load_n(&display_color, __ATOMIC_RELAXED);
}

qz_bitmap *NewBitmapWithFormat(int width, int height, int format) {
    size_t bpp;
    if (format == QZ_BITMAP_RGB24)
        bpp = 3;
    else if (format == QZ_BITMAP_GRAY8)
        bpp = 1;
    else
        return NULL;
    if (width <= 0 || width > 65535 || height <= 0 || height > 65535)
        return NULL;

    size_t row = (size_t)width * bpp;
    size_t stride = ((row + 3) & ~(size_t)3) + HOST_BITMAP_EXTRA;
    if (stride > 65535)
        return NULL;
    if ((size_t)height > (SIZE_MAX - sizeof(qz_bitmap)) / stride)
        return NULL;

    qz_bitmap *bm = malloc(sizeof(qz_bitmap) + stride * (size_t)height);
    if (!bm)
        return NULL;
    bm->width = (uint16_t)width;
    bm->height = (uint16_t)height;
    bm->format = (uint16_t)format;
    bm->stride = (uint16_t)stride;
    for (size_t y = 0; y < (size_t)height; y++) {
        uint8_t *line = bm->data + y * stride;
        memset(line, 0, row);
        memset(line + row, HOST_BITMAP_PADDING, stride - row);
    }
    return bm;
}
