// AudioEngine: the cover picture of the open media, converted to the display's pixel layout
// (RGB24 on a colour display, GRAY8 on a grey one) and kept as a device bitmap until the media is
// released.
//
// A picture attached to the file is decoded by a CoverDecoder while the audio starts; the first
// getCover() waits for it and makes the bitmap. A picture that has to be read through the
// demuxer (the first frame of a video stream) is decoded while the media opens.
#include "AudioEngine.h"
#include "AudioEngineExtension.h"

#include "cover_decoder.h"
#include "engine_log.h"
#include "ffmpeg_error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include <cerrno>
#include <cstdint>
#include <cstdlib>

qz_bitmap *AudioEngine::getCover() {
    std::shared_ptr<CoverDecoder> job;
    {
        std::lock_guard<std::mutex> lock(coverMutex);
        job = coverJob;
    }
    if (job) {
        job->wait();
        std::lock_guard<std::mutex> lock(coverMutex);
        if (coverJob == job) { // neither released nor replaced while we waited
            if (job->failure())
                AE_LOG(2, "%s", job->failure());
            if (job->picture())
                cover = job->picture()->toBitmap();
            coverJob.reset();
        }
    }
    return cover.load();
}

int AudioEngine::coverReady() {
    std::lock_guard<std::mutex> lock(coverMutex);
    return !coverJob || coverJob->done() ? 1 : 0;
}

void AudioEngine::releaseCover() {
    std::shared_ptr<CoverDecoder> job;
    {
        std::lock_guard<std::mutex> lock(coverMutex);
        job.swap(coverJob);
    }
    if (job)
        job->abandon(); // its thread ends on its own and releases what it holds
    if (qz_bitmap *picture = cover.exchange(nullptr))
        free(picture);
}

// Last step of the opening sequence. Media without a usable picture stream are left as they
// are: nothing read, nothing logged, no seek.
void AudioEngine::read_cover() {
    const int index = av_find_best_stream(formatCtx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0)
        return;
    coverStreamIndex = index;
    const AVStream *picture = formatCtx->streams[index];
    if ((picture->disposition & AV_DISPOSITION_ATTACHED_PIC) && picture->attached_pic.size > 0) {
        releaseCover();
        auto job = CoverDecoder::start(&picture->attached_pic, picture->codecpar,
                                       device_display_colormask() != 0);
        std::lock_guard<std::mutex> lock(coverMutex);
        coverJob = std::move(job);
        return;
    }

    const AVCodecParameters *parameters = picture->codecpar;
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
    releaseCover();

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
            PackedPicture picture;
            if (picture.convert(frame, parameters->width, parameters->height, frame->format,
                                device_display_colormask() != 0))
                cover = picture.toBitmap();
        }
    } catch (const std::exception &e) {
        AE_LOG(2, "%s", e.what());
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
}

extern "C" AE_EXPORT int ae_ext_cover_ready(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->coverReady() : -1;
}
