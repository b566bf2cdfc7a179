// AudioEngine: media read from an application's IAudioEngineStream through a custom FFmpeg I/O
// context. The adapter adds nothing: every request reaches the stream as FFmpeg made it and
// every answer reaches FFmpeg as the stream gave it.
#include "AudioEngine.h"

#include "engine_log.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <cstdio>

namespace {
const int kStreamIoBufferSize = 4096;
}

int AudioEngine::openWithStream(IAudioEngineStream *callerStream) {
    stream = callerStream;

    // The previous context may still be the I/O of the open demuxer, which the opening
    // sequence closes first; it is freed once that has happened.
    AVIOContext *previous = streamIoCtx;
    streamIoCtx = nullptr;
    streamIoBuffer = static_cast<unsigned char *>(av_malloc(kStreamIoBufferSize));
    if (streamIoBuffer) {
        streamIoCtx = avio_alloc_context(streamIoBuffer, kStreamIoBufferSize, 0, this,
                                         &AudioEngine::doReadPacket, nullptr, &AudioEngine::doSeek);
        if (!streamIoCtx)
            av_freep(&streamIoBuffer);
    }

    int result;
    if (streamIoCtx) {
        result = openFileInt("dummyfilename", streamIoCtx);
    } else {
        AE_LOG(2, "%s", "Failed to allocate the stream I/O context");
        if (formatCtx)
            cleanup();
        result = -1;
    }

    if (previous) {
        av_freep(&previous->buffer);
        avio_context_free(&previous);
    }
    return result;
}

void AudioEngine::freeStreamIo() {
    if (!streamIoCtx) {
        av_freep(&streamIoBuffer);
        return;
    }
    av_freep(&streamIoCtx->buffer);
    avio_context_free(&streamIoCtx);
    streamIoBuffer = nullptr;
}

int AudioEngine::doReadPacket(void *opaque, uint8_t *buf, int buf_size) {
    AudioEngine *engine = static_cast<AudioEngine *>(opaque);
    int res = engine->stream->read(buf, buf_size);
    fprintf(stderr, "doReadPacket called buf_size = %d, res = %d\n", buf_size, res);
    // FFmpeg 5 and later retry a read of 0 bytes forever: a stream that has nothing more to
    // give has reached its end.
    return res == 0 && buf_size > 0 ? AVERROR_EOF : res;
}

int64_t AudioEngine::doSeek(void *opaque, int64_t offset, int whence) {
    AudioEngine *engine = static_cast<AudioEngine *>(opaque);
    int res = engine->stream->seek(offset, whence);
    fprintf(stderr, "doSeek called, whence = %d, offset = %lld, res = %d\n", whence,
            static_cast<long long>(offset), res);
    return static_cast<int64_t>(res);
}
