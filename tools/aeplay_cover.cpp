// PNG output of a cover bitmap through libavcodec's PNG encoder.
#include "aeplay_cover.h"

#include <cstdio>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

namespace aeplay {

bool write_png(const qz_bitmap &bitmap, const std::string &path, std::string *error) {
    if (bitmap.width == 0 || bitmap.height == 0 ||
        (bitmap.format != QZ_BITMAP_RGB24 && bitmap.format != QZ_BITMAP_GRAY8)) {
        *error = "the cover bitmap is empty or of an unknown format";
        return false;
    }
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        *error = "FFmpeg has no PNG encoder";
        return false;
    }
    auto free_context = [](AVCodecContext *c) { avcodec_free_context(&c); };
    std::unique_ptr<AVCodecContext, decltype(free_context)> ctx(avcodec_alloc_context3(codec),
                                                                free_context);
    auto free_frame = [](AVFrame *f) { av_frame_free(&f); };
    std::unique_ptr<AVFrame, decltype(free_frame)> frame(av_frame_alloc(), free_frame);
    auto free_packet = [](AVPacket *p) { av_packet_free(&p); };
    std::unique_ptr<AVPacket, decltype(free_packet)> packet(av_packet_alloc(), free_packet);
    if (!ctx || !frame || !packet) {
        *error = "out of memory";
        return false;
    }
    const AVPixelFormat format =
        bitmap.format == QZ_BITMAP_RGB24 ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_GRAY8;
    ctx->width = bitmap.width;
    ctx->height = bitmap.height;
    ctx->pix_fmt = format;
    ctx->time_base = AVRational{1, 1};
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        *error = "cannot open the PNG encoder";
        return false;
    }
    // The frame borrows the bitmap's rows; the encoder only reads them.
    frame->format = format;
    frame->width = bitmap.width;
    frame->height = bitmap.height;
    frame->data[0] = const_cast<uint8_t *>(bitmap.data);
    frame->linesize[0] = bitmap.stride;
    if (avcodec_send_frame(ctx.get(), frame.get()) < 0 ||
        avcodec_send_frame(ctx.get(), nullptr) < 0 ||
        avcodec_receive_packet(ctx.get(), packet.get()) < 0) {
        *error = "the PNG encoder failed";
        return false;
    }
    FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        *error = "cannot write " + path;
        return false;
    }
    const bool ok = std::fwrite(packet->data, 1, static_cast<size_t>(packet->size), out) ==
                    static_cast<size_t>(packet->size);
    if (std::fclose(out) != 0 || !ok) {
        *error = "cannot write " + path;
        return false;
    }
    return true;
}

} // namespace aeplay
