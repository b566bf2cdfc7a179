// The engine's internal FFmpeg failure: thrown inside the engine, caught at every interface
// operation and at the top of the play loop, never let out of the library.
#ifndef AUDIO_ENGINE_FFMPEG_ERROR_H
#define AUDIO_ENGINE_FFMPEG_ERROR_H

#include <exception>
#include <string>

class FfmpegError : public std::exception {
public:
    explicit FfmpegError(const std::string &message) : message_(message) {}

    const std::string &message() const noexcept { return message_; }
    const char *what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

#endif
