// AudioEngine: the cover picture of the open media. The attached picture is decoded once while
// the media is opened, converted to the display's pixel layout (RGB24 on a colour display, GRAY8
// on a grey one) and kept as a device bitmap until the media is released.
#include "AudioEngine.h"

#include "engine_log.h"
#include "ffmpeg_error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Larger pictures (and empty ones) give no cover.
const int kMaxCoverSide = 8192;
// Row alignment of the converted image: room for the scaler's widest vector stores.
const int kRowAlign = 64;

// Owners of what one conversion allocates, so every way out releases them.
struct ScalerOwner {
    SwsContext *ctx = nullptr;
    ~ScalerOwner() { sws_freeContext(ctx); }
};

struct PackedImage {
    uint8_t *pixels = nullptr;
    ~PackedImage() { av_free(pixels); }
};

// Converts `frame` (w x h) into a new device bitmap: RGB24 (format 1) or GRAY8 (format 0),
// row y at byte 8 + y * stride. Null when the picture cannot be converted; nothing is written
// then.
qz_bitmap *convertPicture(const AVFrame *frame, int w, int h, AVPixelFormat source, bool colour) {
    if (w <= 0 || h <= 0 || w > kMaxCoverSide || h > kMaxCoverSide)
        return nullptr;
    if (frame->width != w || frame->height != h || source == AV_PIX_FMT_NONE)
        return nullptr;

    const AVPixelFormat target = colour ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_GRAY8;
    ScalerOwner scaler;
    scaler.ctx = sws_getCachedContext(nullptr, w, h, source, w, h, target, SWS_FAST_BILINEAR,
                                      nullptr, nullptr, nullptr);
    if (!scaler.ctx)
        return nullptr;

    // sws_scale writes into an image of our own whose rows are padded: its vector code stores
    // whole blocks and runs past the end of a row of exactly w pixels. The pixels of each row
    // are then copied to the bitmap's rows, whose padding is left as the platform made it.
    uint8_t *planes[4] = {nullptr, nullptr, nullptr, nullptr};
    int lineSizes[4] = {0, 0, 0, 0};
    PackedImage packed;
    if (av_image_alloc(planes, lineSizes, w, h, target, kRowAlign) < 0)
        return nullptr;
    packed.pixels = planes[0];
    if (sws_scale(scaler.ctx, frame->data, frame->linesize, 0, frame->height, planes, lineSizes) !=
        h)
        return nullptr;

    qz_bitmap *bitmap = NewBitmapWithFormat(w, h, colour ? QZ_BITMAP_RGB24 : QZ_BITMAP_GRAY8);
    if (!bitmap)
        return nullptr;
    const size_t row = static_cast<size_t>(av_image_get_linesize(target, w, 0));
    if (bitmap->stride < row) {
        free(bitmap);
        return nullptr;
    }
    for (int y = 0; y < h; ++y)
        memcpy(bitmap->data + static_cast<size_t>(y) * bitmap->stride,
               planes[0] + static_cast<size_t>(y) * static_cast<size_t>(lineSizes[0]), row);
    return bitmap;
}

} // namespace

qz_bitmap *AudioEngine::getCover() {
    return cover.load();
}

// Last step of the opening sequence. Media without a usable picture stream are left as they
// are: nothing read, nothing logged, no seek.
void AudioEngine::read_cover() {
    const int index = av_find_best_stream(formatCtx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0)
        return;
    coverStreamIndex = index;
    const AVCodecParameters *parameters = formatCtx->streams[index]->codecpar;
    const AVCodec *codec = avcodec_find_decoder(parameters->codec_id);
    if (!codec)
        return;
    coverDecoderCtx = avcodec_alloc_context3(codec);
    if (!coverDecoderCtx)
        return;
    if (avcodec_parameters_to_context(coverDecoderCtx, parameters) < 0)
        return;
    if (avcodec_open2(coverDecoderCtx, codec, nullptr) != 0)
        return;

    read_video_frame();

    // Whatever was read to find the picture is read again by the play loop, from the audio
    // stream's first packet. A seek to time 0 would skip the packets stamped before 0 (the
    // encoder delay of AAC in MP4), and the decoder would start on a later packet.
    if (avformat_seek_file(formatCtx, audioStreamIndex, INT64_MIN, INT64_MIN, INT64_MIN, 0) < 0)
        av_seek_frame(formatCtx, -1, 0, 0);
}

// Reads packets up to the first decoded frame of the picture stream and converts it. Failures
// are logged and give no cover; the end of the input before a frame gives none silently.
void AudioEngine::read_video_frame() {
    if (qz_bitmap *previous = cover.exchange(nullptr))
        free(previous);

    AVPacket *packet = nullptr;
    AVFrame *frame = nullptr;
    try {
        packet = av_packet_alloc();
        if (!packet)
            throw FfmpegError("Failed to av_packet_alloc");
        frame = av_frame_alloc();
        if (!frame)
            throw FfmpegError("Failed to av_frame_alloc");

        bool decoded = false;
        while (!decoded && av_read_frame(formatCtx, packet) >= 0) {
            if (packet->stream_index != coverStreamIndex) {
                av_packet_unref(packet);
                continue;
            }
            const int sent = avcodec_send_packet(coverDecoderCtx, packet);
            if (sent < 0 && sent != AVERROR(EAGAIN))
                throw FfmpegError("Failed to avcodec_send_packet");
            const int received = avcodec_receive_frame(coverDecoderCtx, frame);
            if (received == AVERROR(EAGAIN)) {
                if (sent == AVERROR(EAGAIN))
                    throw FfmpegError("Can't require more input and more output simultaneously!!!");
                av_packet_unref(packet);
                continue;
            }
            if (received < 0)
                throw FfmpegError("Failed to avcodec_receive_frame");
            decoded = true;
        }

        if (decoded) {
            const AVCodecParameters *parameters = formatCtx->streams[coverStreamIndex]->codecpar;
            // The size is the stream's; the pixel layout is read as the decoder delivered it
            // (the stream's own, unless the decoder chose another one).
            const AVPixelFormat source = static_cast<AVPixelFormat>(frame->format);
            cover = convertPicture(frame, parameters->width, parameters->height, source,
                                   device_display_colormask() != 0);
        }
    } catch (const std::exception &e) {
        AE_LOG(2, "%s", e.what());
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
}
