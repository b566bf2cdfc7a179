// AudioEngine: media read from a member of a zip archive ("archive:#zip(member)"). The reader
// only reads forward, skips forward and restarts a member, so the seek callback emulates random
// access: forward targets are skipped to, earlier ones restart the member and skip from its
// start (in a compressed member, decompressing up to the target).
#include "AudioEngine.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <cstdio>

namespace {

const char kZipTag[] = ":#zip(";
const size_t kZipTagLength = sizeof kZipTag - 1;
const int kZipIoBufferSize = 1024 * 1024;

// The reader counts in 32 bits: skips take the low 32 bits of the distance.
unsigned int skipCount(int64_t distance) {
    return static_cast<unsigned int>(distance);
}

} // namespace

void AudioEngine::addAVIOZipContext(const std::string &path) {
    const size_t pos = path.find(kZipTag);
    if (pos == std::string::npos)
        return;
    // The archive is what precedes the tag; the member what follows it, without the path's last
    // character (the closing parenthesis, or whatever stands there).
    const std::string archive = path.substr(0, pos);
    const size_t first = pos + kZipTagLength;
    const std::string member =
        path.size() > first ? path.substr(first, path.size() - 1 - first) : std::string();

    if (zip_reader->IsOpen())
        zip_reader->Close();
    if (zip_reader->Open(archive, member) != 0)
        return;
    zip_member = member;
    if (archive.empty() || member.empty())
        return;

    bool allocated = false;
    if (!formatCtx) {
        formatCtx = avformat_alloc_context();
        if (!formatCtx)
            return;
        allocated = true;
    }
    uint8_t *buffer = static_cast<uint8_t *>(av_malloc(kZipIoBufferSize));
    AVIOContext *io = buffer ? avio_alloc_context(buffer, kZipIoBufferSize, 0, this,
                                                  &AudioEngine::AVIOZip_read_packet, nullptr,
                                                  &AudioEngine::AVIOZip_seek)
                             : nullptr;
    if (!io) {
        av_free(buffer);
        if (allocated) {
            avformat_free_context(formatCtx);
            formatCtx = nullptr;
        }
        return;
    }
    zipIoCtx = io;
    formatCtx->pb = zipIoCtx;
    formatCtx->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_FAST_SEEK;
}

int AudioEngine::AVIOZip_read_packet(void *opaque, uint8_t *buf, int buf_size) {
    return static_cast<AudioEngine *>(opaque)->read_packet(buf, buf_size);
}

int64_t AudioEngine::AVIOZip_seek(void *opaque, int64_t offset, int whence) {
    AudioEngine *engine = static_cast<AudioEngine *>(opaque);
    switch (whence) {
    case SEEK_SET:
        return engine->seek_set(offset);
    case SEEK_CUR:
        return engine->seek_cur(offset);
    case SEEK_END:
        return engine->seek_end(offset);
    case AVSEEK_FORCE | SEEK_SET:
        return engine->seek_force(offset);
    case AVSEEK_SIZE:
        return engine->seek_size();
    default:
        fprintf(stderr, "whence [%d]\n", whence);
        return -1;
    }
}

// The reader answers 0 at the end of the member (and after a read error); FFmpeg wants
// AVERROR_EOF there.
int AudioEngine::read_packet(uint8_t *buf, int size) {
    if (size <= 0)
        return 0;
    const int got = zip_reader->Read(buf, static_cast<unsigned int>(size));
    return got > 0 ? got : AVERROR_EOF;
}

void AudioEngine::restartZipMember() {
    zip_reader->ChangeFile(zip_member);
}

int64_t AudioEngine::seek_set(int64_t offset) {
    if (offset < 0)
        return AVERROR(EINVAL);
    const int64_t cur = zip_reader->Tell();
    if (offset < cur) {
        restartZipMember();
        zip_reader->Skip(skipCount(offset));
    } else if (offset > cur) {
        zip_reader->Skip(skipCount(offset - cur));
    }
    return zip_reader->Tell();
}

int64_t AudioEngine::seek_force(int64_t offset) {
    return seek_set(offset);
}

int64_t AudioEngine::seek_cur(int64_t offset) {
    if (offset >= 0) {
        zip_reader->Skip(skipCount(offset));
        return zip_reader->Tell();
    }
    const int64_t cur = zip_reader->Tell();
    if (cur + offset < 0)
        return AVERROR(EINVAL);
    restartZipMember();
    zip_reader->Skip(skipCount(cur + offset));
    return zip_reader->Tell();
}

int64_t AudioEngine::seek_end(int64_t offset) {
    const int64_t size = static_cast<int32_t>(zip_reader->GetCurrentFileSize());
    const int64_t cur = zip_reader->Tell();
    const int64_t target = offset + size;
    if (target < 0)
        return AVERROR(EINVAL);
    if (target < cur) {
        restartZipMember();
        zip_reader->Skip(skipCount(target));
    } else {
        zip_reader->Skip(skipCount(target - cur));
    }
    return zip_reader->Tell();
}

int64_t AudioEngine::seek_size() {
    return static_cast<int64_t>(zip_reader->GetCurrentFileSize());
}
