// AudioEngine: opening the media, closing it and releasing what the opening built.
#include "AudioEngine.h"

#include "engine_log.h"
#include "ffmpeg_error.h"
#include "silence_skip.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include <cstdlib>

namespace {

const char kZipTag[] = ":#zip(";

// Whole seconds of `ts` (in `tb`), in milliseconds; 0 when FFmpeg does not know it.
int64_t wholeSecondsMs(int64_t ts, AVRational tb) {
    if (ts == AV_NOPTS_VALUE || ts < 0)
        return 0;
    return av_rescale_q(ts, tb, AVRational{1, 1000000}) / 1000000 * 1000;
}

} // namespace

int AudioEngine::openFile(const std::string &path) {
    return openFileInt(path, nullptr);
}

int AudioEngine::openFileInt(const std::string &path, AVIOContext *io) {
    AE_LOG(4, "Open file %s", path.c_str());
    {
        // A position or seek left from the previous media means nothing in the next one.
        std::lock_guard<std::mutex> lock(engineMutex);
        positionMs = -1;
        lastPositionMs = -1;
        seekRequested = false;
    }
    skipper->restart(); // time saved counts from the open; the levels are learnt anew
    try {
        if (formatCtx)
            cleanup();

        if (path.find(kZipTag) != std::string::npos)
            addAVIOZipContext(path); // on failure nothing is attached and the open below fails

        if (io) {
            formatCtx = avformat_alloc_context();
            if (!formatCtx)
                throw FfmpegError("Failed to open " + path);
            formatCtx->pb = io;
        }

        // On failure avformat_open_input frees the context (not a custom I/O context).
        if (avformat_open_input(&formatCtx, path.c_str(), nullptr, nullptr) != 0) {
            formatCtx = nullptr;
            freeZipIo();
            throw FfmpegError("Failed to open " + path);
        }
        mediaOpen = true;

        if (avformat_find_stream_info(formatCtx, nullptr) < 0)
            throw FfmpegError("Failed avformat_find_stream_info");

        captureMetadata();

        int index = av_find_best_stream(formatCtx, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (index < 0)
            throw FfmpegError("Could not find audio stream");
        audioStreamIndex = index;
        AVStream *audio = formatCtx->streams[index];

        // A stream that does not know its own duration (Matroska keeps only the segment's)
        // takes the container's.
        durationMs = audio->duration != AV_NOPTS_VALUE
                         ? wholeSecondsMs(audio->duration, audio->time_base)
                         : wholeSecondsMs(formatCtx->duration, AV_TIME_BASE_Q);

        const AVCodec *codec = avcodec_find_decoder(audio->codecpar->codec_id);
        if (!codec)
            throw FfmpegError("Failed to find codec");
        decoderCtx = avcodec_alloc_context3(codec);
        if (!decoderCtx)
            throw FfmpegError("Failed to allocate decoder context");
        if (avcodec_parameters_to_context(decoderCtx, audio->codecpar) < 0)
            throw FfmpegError("Failed to avcodec_parameters_to_context");
        if (avcodec_open2(decoderCtx, codec, nullptr) < 0)
            throw FfmpegError("Failed to avcodec_open2");

        // The play loop never feeds or pulls a graph that failed to build.
        if (init_filter_graph(formatCtx, audio) < 0)
            throw FfmpegError("Failed to build the filter graph");

        read_cover();
        decoderOpen = true;
        return 0;
    } catch (const std::exception &e) {
        // FfmpegError from the sequence above, or an allocation failure on the way.
        AE_LOG(2, "%s", e.what());
        cleanup();
        return -1;
    }
}

void AudioEngine::closeFile() {
    if (state != Stopped)
        stop();
    cleanup();
}

void AudioEngine::cleanup() {
    AE_LOG(4, "Cleanup audio engine");
    releaseMedia();
}

void AudioEngine::releaseMedia() {
    decoderOpen = false;
    free_filter_graph();
    free_level_graph();
    avcodec_free_context(&decoderCtx);
    avcodec_free_context(&coverDecoderCtx);
    avformat_close_input(&formatCtx);
    freeZipIo();
    mediaOpen = false;
    if (qz_bitmap *picture = cover.exchange(nullptr))
        free(picture);
}

void AudioEngine::freeZipIo() {
    if (!zipIoCtx)
        return;
    av_freep(&zipIoCtx->buffer);
    avio_context_free(&zipIoCtx);
}
