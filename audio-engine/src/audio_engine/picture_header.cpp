// Reading the size and pixel format of a PNG or JPEG picture from its header, the way FFmpeg's
// decoders derive them, for the cases where that derivation is plain. Anything unusual (a
// transparency chunk, an Adobe colour transform, a comment that changes the decoder's choice,
// unusual sampling, more than 8 bits) is left to FFmpeg.
#include "picture_header.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavcodec/codec_par.h>
#include <libavformat/avformat.h>
#include <libavutil/pixfmt.h>
}

#include <cstring>
#include <initializer_list>

namespace {

uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

unsigned be16(const uint8_t *p) {
    return unsigned(p[0]) << 8 | p[1];
}

// PNG: the IHDR chunk, and no tRNS chunk before the image data (it adds an alpha channel to
// the decoded layout of grey and RGB pictures).
bool readPng(const uint8_t *d, size_t size, PictureShape &shape) {
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    if (size < 33 || memcmp(d, kSignature, 8) != 0 || memcmp(d + 12, "IHDR", 4) != 0 ||
        be32(d + 8) != 13)
        return false;
    const uint32_t w = be32(d + 16), h = be32(d + 20);
    const int depth = d[24], colour = d[25];
    for (size_t at = 33; at + 8 <= size;) { // chunks up to the first IDAT
        const uint32_t length = be32(d + at);
        if (memcmp(d + at + 4, "IDAT", 4) == 0)
            break;
        if (memcmp(d + at + 4, "tRNS", 4) == 0 && colour != 3)
            return false;
        if (length > size - at - 8)
            return false;
        at += size_t(length) + 12;
    }
    AVPixelFormat format = AV_PIX_FMT_NONE;
    if (depth == 8)
        format = colour == 0   ? AV_PIX_FMT_GRAY8
                 : colour == 2 ? AV_PIX_FMT_RGB24
                 : colour == 3 ? AV_PIX_FMT_PAL8
                 : colour == 4 ? AV_PIX_FMT_YA8
                 : colour == 6 ? AV_PIX_FMT_RGBA
                               : AV_PIX_FMT_NONE;
    else if (depth == 16)
        format = colour == 0   ? AV_PIX_FMT_GRAY16BE
                 : colour == 2 ? AV_PIX_FMT_RGB48BE
                 : colour == 4 ? AV_PIX_FMT_YA16BE
                 : colour == 6 ? AV_PIX_FMT_RGBA64BE
                               : AV_PIX_FMT_NONE;
    else if (colour == 3 && (depth == 1 || depth == 2 || depth == 4))
        format = AV_PIX_FMT_PAL8;
    if (format == AV_PIX_FMT_NONE || w == 0 || h == 0 || w > INT32_MAX || h > INT32_MAX)
        return false;
    shape.width = int(w);
    shape.height = int(h);
    shape.format = format;
    return true;
}

// Whether a JPEG comment is one the MJPEG decoder acts on.
bool decisiveComment(const uint8_t *text, size_t size) {
    for (const char *prefix : {"AVID", "CS=", "Intel(R) JPEG Library", "Metasoft", "MULTISCOPE"}) {
        const size_t n = strlen(prefix);
        if (size >= n && memcmp(text, prefix, n) == 0)
            return true;
    }
    return false;
}

// JPEG: the markers up to the first frame header (SOF0 to SOF2, 8 bits, three components numbered
// 1 to 3). The sampling factors give the layout as the MJPEG decoder reduces them.
bool readJpeg(const uint8_t *d, size_t size, PictureShape &shape) {
    if (size < 4 || d[0] != 0xFF || d[1] != 0xD8)
        return false;
    for (size_t at = 2; at + 4 <= size;) {
        if (d[at] != 0xFF)
            return false;
        const int marker = d[at + 1];
        if (marker == 0xFF) { // fill byte
            ++at;
            continue;
        }
        if (marker == 0xDA || marker == 0xD9 || marker == 0xD8 || marker == 0x01 ||
            (marker >= 0xD0 && marker <= 0xD7)) // a scan, an end or a bare marker first
            return false;
        const size_t length = be16(d + at + 2);
        if (length < 2 || length > size - at - 2)
            return false;
        const uint8_t *segment = d + at + 4;
        // Some comments switch the decoder to limited range, flip or stretch the picture; an
        // Adobe segment can make it RGB; an AVI1 segment can make it interlaced.
        if ((marker == 0xFE && decisiveComment(segment, length - 2)) || marker == 0xEE ||
            (marker == 0xE0 && length >= 6 && memcmp(segment, "AVI1", 4) == 0))
            return false;
        if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 &&
            marker != 0xCC) {
            if (marker > 0xC2 || length < 8 || segment[0] != 8)
                return false;
            const unsigned h = be16(segment + 1), w = be16(segment + 3);
            const unsigned components = segment[5];
            if (w == 0 || h == 0 || length != 8 + 3 * components)
                return false;
            if (components != 3)
                return false;
            uint32_t id = 0; // the factors as the decoder packs them, 4 bits each
            for (unsigned c = 0; c < 3; ++c) {
                const uint8_t *component = segment + 6 + 3 * c;
                const unsigned hs = component[1] >> 4, vs = component[1] & 15;
                if (component[0] != c + 1 || hs < 1 || hs > 4 || vs < 1 || vs > 4)
                    return false;
                id |= (hs << 4 | vs) << (24 - 8 * c);
            }
            if (!(id & 0xD0D0D0D0)) // every horizontal factor 2: halved
                id -= (id & 0xF0F0F0F0) >> 1;
            if (!(id & 0x0D0D0D0D)) // every vertical factor 2: halved
                id -= (id & 0x0F0F0F0F) >> 1;
            shape.format = id == 0x11111100   ? AV_PIX_FMT_YUVJ444P
                           : id == 0x22111100 ? AV_PIX_FMT_YUVJ420P
                           : id == 0x21111100 ? AV_PIX_FMT_YUVJ422P
                                              : AV_PIX_FMT_NONE;
            if (shape.format == AV_PIX_FMT_NONE)
                return false;
            shape.width = int(w);
            shape.height = int(h);
            return true;
        }
        at += 2 + length;
    }
    return false;
}

} // namespace

bool readPictureShape(int codec, const uint8_t *data, size_t size, PictureShape &shape) {
    if (!data)
        return false;
    if (codec == AV_CODEC_ID_PNG)
        return readPng(data, size, shape);
    if (codec == AV_CODEC_ID_MJPEG)
        return readJpeg(data, size, shape);
    return false;
}

void describeAttachedPictures(AVFormatContext *format) {
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        AVStream *stream = format->streams[i];
        const AVPacket &picture = stream->attached_pic;
        if (!(stream->disposition & AV_DISPOSITION_ATTACHED_PIC) || picture.size <= 0)
            continue;
        PictureShape shape;
        AVCodecParameters *parameters = stream->codecpar;
        if (!readPictureShape(parameters->codec_id, picture.data, size_t(picture.size), shape))
            continue;
        parameters->width = shape.width;
        parameters->height = shape.height;
        parameters->format = shape.format;
    }
}
