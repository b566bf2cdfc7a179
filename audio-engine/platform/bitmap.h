/* Display capability and device bitmaps (platform library). */
#ifndef AUDIO_ENGINE_PLATFORM_BITMAP_H
#define AUDIO_ENGINE_PLATFORM_BITMAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A device bitmap: one heap block, released with free(). Rows start at `data`, one every
 * `stride` bytes. Format 1 holds RGB24 pixels (red, green, blue), format 0 one grey byte. */
typedef struct qz_bitmap {
    uint16_t width;
    uint16_t height;
    uint16_t format;
    uint16_t stride; /* bytes 6..7 */
    uint8_t data[];  /* from byte 8 */
} qz_bitmap;

enum { QZ_BITMAP_GRAY8 = 0, QZ_BITMAP_RGB24 = 1 };

/* Non-zero when the display shows colour. */
int device_display_colormask(void);
/* A new bitmap of the given size and format code, or NULL. */
qz_bitmap *NewBitmapWithFormat(int width, int height, int format);

#ifdef __cplusplus
}
#endif

#endif
