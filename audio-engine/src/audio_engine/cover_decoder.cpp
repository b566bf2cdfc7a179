// The cover's decoding thread and the conversion of a decoded picture to the display's layout.
#include "cover_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>

namespace {

// Larger pictures (and empty ones) give no cover.
const int kMaxCoverSide = 8192;
// Row alignment of the converted image: room for the scaler's widest vector stores.
const int kRowAlign = 64;

// The test hold of the decoding threads. Never destroyed: a thread may still use it while the
// process exits.
struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool hold = false;
};
Gate &gate() {
    static Gate *g = new Gate;
    return *g;
}
std::atomic<int> running{0};

struct CodecOwner {
    AVCodecContext *ctx = nullptr;
    ~CodecOwner() { avcodec_free_context(&ctx); }
};
struct FrameOwner {
    AVFrame *frame = av_frame_alloc();
    ~FrameOwner() { av_frame_free(&frame); }
};
struct ScalerOwner {
    SwsContext *ctx = nullptr;
    ~ScalerOwner() { sws_freeContext(ctx); }
};

} // namespace

PackedPicture::~PackedPicture() {
    av_free(pixels_);
}

bool PackedPicture::convert(const AVFrame *frame, int w, int h, int source, bool colour) {
    if (pixels_ || w <= 0 || h <= 0 || w > kMaxCoverSide || h > kMaxCoverSide)
        return false;
    if (frame->width != w || frame->height != h || source == AV_PIX_FMT_NONE)
        return false;
    const AVPixelFormat target = colour ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_GRAY8;
    ScalerOwner scaler;
    scaler.ctx = sws_getCachedContext(nullptr, w, h, static_cast<AVPixelFormat>(source), w, h,
                                      target, SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    if (!scaler.ctx)
        return false;
    // sws_scale writes into an image of our own whose rows are padded: its vector code stores
    // whole blocks and runs past the end of a row of exactly w pixels.
    uint8_t *planes[4] = {nullptr, nullptr, nullptr, nullptr};
    int lineSizes[4] = {0, 0, 0, 0};
    if (av_image_alloc(planes, lineSizes, w, h, target, kRowAlign) < 0)
        return false;
    pixels_ = planes[0];
    if (sws_scale(scaler.ctx, frame->data, frame->linesize, 0, frame->height, planes, lineSizes) !=
        h) {
        av_freep(&pixels_);
        return false;
    }
    width_ = w;
    height_ = h;
    lineSize_ = lineSizes[0];
    colour_ = colour;
    return true;
}

qz_bitmap *PackedPicture::toBitmap() const {
    if (!pixels_)
        return nullptr;
    qz_bitmap *bitmap =
        NewBitmapWithFormat(width_, height_, colour_ ? QZ_BITMAP_RGB24 : QZ_BITMAP_GRAY8);
    if (!bitmap)
        return nullptr;
    // Each row's pixels go to the bitmap's row; its padding is left as the platform made it.
    const size_t row = size_t(width_) * (colour_ ? 3 : 1);
    if (bitmap->stride < row) {
        free(bitmap);
        return nullptr;
    }
    for (int y = 0; y < height_; ++y)
        memcpy(bitmap->data + size_t(y) * bitmap->stride, pixels_ + size_t(y) * size_t(lineSize_),
               row);
    return bitmap;
}

std::shared_ptr<CoverDecoder>
CoverDecoder::start(const AVPacket *packet, const AVCodecParameters *parameters, bool colour) {
    std::shared_ptr<CoverDecoder> job(new CoverDecoder(colour));
    job->packet_ = av_packet_alloc();
    job->parameters_ = avcodec_parameters_alloc();
    if (!job->packet_ || !job->parameters_ || av_packet_ref(job->packet_, packet) < 0 ||
        avcodec_parameters_copy(job->parameters_, parameters) < 0) {
        job->done_ = true; // no picture, as when its decoder cannot be opened
        return job;
    }
    ++running;
    try {
        std::thread([job]() mutable {
            job->run();
            job.reset(); // the last owner may be this thread: release before counting out
            --running;
        }).detach();
    } catch (const std::system_error &) {
        job->run();
        --running;
    }
    return job;
}

CoverDecoder::~CoverDecoder() {
    av_packet_free(&packet_);
    avcodec_parameters_free(&parameters_);
}

void CoverDecoder::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    finished_.wait(lock, [this] { return done_.load(); });
}

void CoverDecoder::run() {
    {
        Gate &g = gate();
        std::unique_lock<std::mutex> lock(g.mutex);
        g.opened.wait(lock, [&g] { return !g.hold; });
    }
    if (!abandoned_) {
        try {
            decode();
        } catch (const std::bad_alloc &) {
            failure_ = "Failed to allocate the cover";
        }
    }
    av_packet_free(&packet_); // the picture's data is no longer needed
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    finished_.notify_all();
}

// Decodes the one packet as the demuxer would have delivered it: the first frame it gives is
// the picture. A decoder that wants more input gets none (an attached picture has no other
// packet) and gives no picture.
void CoverDecoder::decode() {
    const AVCodec *codec = avcodec_find_decoder(parameters_->codec_id);
    if (!codec)
        return;
    CodecOwner decoder;
    decoder.ctx = avcodec_alloc_context3(codec);
    if (!decoder.ctx || avcodec_parameters_to_context(decoder.ctx, parameters_) < 0 ||
        avcodec_open2(decoder.ctx, codec, nullptr) != 0)
        return;
    FrameOwner frame;
    if (!frame.frame) {
        failure_ = "Failed to av_frame_alloc";
        return;
    }
    const int sent = avcodec_send_packet(decoder.ctx, packet_);
    if (sent < 0 && sent != AVERROR(EAGAIN)) {
        failure_ = "Failed to avcodec_send_packet";
        return;
    }
    const int received = avcodec_receive_frame(decoder.ctx, frame.frame);
    if (received == AVERROR(EAGAIN)) {
        if (sent == AVERROR(EAGAIN))
            failure_ = "Can't require more input and more output simultaneously!!!";
        return;
    }
    if (received < 0) {
        failure_ = "Failed to avcodec_receive_frame";
        return;
    }
    if (abandoned_)
        return;
    // The size is the stream's; the pixel layout is the one the decoder delivered.
    auto picture = std::make_unique<PackedPicture>();
    if (picture->convert(frame.frame, parameters_->width, parameters_->height, frame.frame->format,
                         colour_))
        picture_ = std::move(picture);
}

void holdCoverDecoders(bool hold) {
    Gate &g = gate();
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.hold = hold;
    }
    g.opened.notify_all();
}

int coverDecodersRunning() {
    return running.load();
}
