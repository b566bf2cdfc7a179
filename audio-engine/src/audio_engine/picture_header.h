// The size and pixel layout of an attached picture, read from the picture's own header.
//
// FFmpeg's stream-information step decodes a picture stream whose size or pixel format it does
// not know yet, which for a large cover costs as much as decoding it for the display. Filling
// in what the header says first leaves that step nothing to find out.
#ifndef AUDIO_ENGINE_PICTURE_HEADER_H
#define AUDIO_ENGINE_PICTURE_HEADER_H

#include <cstddef>
#include <cstdint>

extern "C" {
struct AVFormatContext;
}

// What the decoder will report for a picture: width, height and AVPixelFormat.
struct PictureShape {
    int width = 0, height = 0;
    int format = -1; // AV_PIX_FMT_NONE
};

// Reads the header of a PNG or baseline/progressive JPEG picture (codec is an AVCodecID).
// False for any other codec and for any header whose decoded layout is not certain (then the
// stream is left for FFmpeg to find out).
bool readPictureShape(int codec, const uint8_t *data, size_t size, PictureShape &shape);

// Gives every attached picture of `format` whose header is understood the size and pixel
// format its decoder would find, so that avformat_find_stream_info need not decode it.
void describeAttachedPictures(AVFormatContext *format);

#endif
