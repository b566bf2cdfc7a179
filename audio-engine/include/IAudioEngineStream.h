// Byte source that an application hands to IAudioEngine::openWithStream instead of a path.
#ifndef AUDIO_ENGINE_IAUDIOENGINESTREAM_H
#define AUDIO_ENGINE_IAUDIOENGINESTREAM_H

#include <cstdint>

namespace tavrel {
namespace utilities {

// Implemented and owned by the application. The engine keeps a plain pointer to the stream most
// recently opened and never deletes it: keep the stream alive and leave it alone until the
// media is closed or another one is opened.
//
// Both operations are called on whichever thread drives FFmpeg for the engine at the time: the
// thread calling openWithStream() while the media is opened and probed, later the engine's play
// thread (also from inside seekStream() processing, with the engine's lock held). They must not
// call back into the engine.
class IAudioEngineStream {
public:
    virtual ~IAudioEngineStream() = default;

    // Copies up to `size` bytes at the current position into `buffer` and advances. Returns the
    // number of bytes copied, or a negative FFmpeg error code (AVERROR_EOF at the end). The
    // result reaches FFmpeg unchanged, except that 0 is taken as the end of the stream.
    virtual int read(uint8_t *buffer, int size) = 0;

    // Moves to `offset` relative to `whence` (0 SEEK_SET, 1 SEEK_CUR, 2 SEEK_END; FFmpeg may add
    // AVSEEK_FORCE, 0x20000) and returns the new position; with AVSEEK_SIZE (0x10000) returns the
    // total size without moving, or a negative value when unknown. A negative result reports
    // failure. Positions and sizes from 2 GiB upward cannot be reported.
    virtual int seek(int64_t offset, int whence) = 0;
};

} // namespace utilities
} // namespace tavrel

#endif
