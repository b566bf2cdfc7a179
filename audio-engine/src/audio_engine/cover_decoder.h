// Decoding a cover picture away from the thread that opens the media.
//
// An attached picture (the cover stored in the file's header) is one packet that the demuxer
// holds from the moment the file is open. The opening thread hands a reference to that packet
// and a copy of the stream's codec parameters to a CoverDecoder, whose thread decodes the picture
// and converts it to the display's pixel layout while the audio starts. The thread touches
// neither the demuxer nor the platform: the device bitmap is made by whoever asks for the cover.
//
// The thread owns what it uses, the decoder included, through shared ownership: an engine that
// closes the media, opens another or is destroyed lets go of the decoder without waiting, and the
// thread releases everything when it ends.
#ifndef AUDIO_ENGINE_COVER_DECODER_H
#define AUDIO_ENGINE_COVER_DECODER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "bitmap.h"

extern "C" {
struct AVCodecParameters;
struct AVFrame;
struct AVPacket;
}

// A picture in the display's layout (RGB24 on a colour display, GRAY8 on a grey one), its rows
// `lineSize` bytes apart.
class PackedPicture {
public:
    PackedPicture() = default;
    ~PackedPicture();
    PackedPicture(const PackedPicture &) = delete;
    PackedPicture &operator=(const PackedPicture &) = delete;

    // Converts `frame`, whose size must be w x h and pixels `source` (an AVPixelFormat), with
    // the size kept. False when the picture cannot be converted (empty, over 8192 pixels a side,
    // a size other than the stream's, no converter).
    bool convert(const AVFrame *frame, int w, int h, int source, bool colour);
    // A new device bitmap of these pixels, row y at data + y * stride; null when the platform
    // gives none or one with rows too short.
    qz_bitmap *toBitmap() const;

private:
    int width_ = 0, height_ = 0, lineSize_ = 0;
    bool colour_ = false;
    uint8_t *pixels_ = nullptr;
};

class CoverDecoder {
public:
    // Starts decoding `packet` with `parameters` (both copied: the caller may release its own at
    // once). Decodes on the calling thread when no thread can be started.
    static std::shared_ptr<CoverDecoder> start(const AVPacket *packet,
                                               const AVCodecParameters *parameters, bool colour);
    ~CoverDecoder();
    CoverDecoder(const CoverDecoder &) = delete;
    CoverDecoder &operator=(const CoverDecoder &) = delete;

    // Whether the decode has ended (with a picture or without); never blocks.
    bool done() const { return done_.load(); }
    // Blocks until the decode has ended.
    void wait();
    // After wait(): the picture (null: none) and the message of a decoding failure (null when
    // there is none to report; a picture whose decoder does not open gives none silently).
    const PackedPicture *picture() const { return picture_.get(); }
    const char *failure() const { return failure_; }
    // Nobody wants the picture any more: the thread skips what it has not started.
    void abandon() { abandoned_ = true; }

private:
    CoverDecoder(bool colour) : colour_(colour) {}
    void run();
    void decode();

    AVPacket *packet_ = nullptr;
    AVCodecParameters *parameters_ = nullptr;
    const bool colour_;
    std::atomic<bool> abandoned_{false};
    // Written by the decoding thread before done_ is set, read only after it.
    std::unique_ptr<PackedPicture> picture_;
    const char *failure_ = nullptr;
    std::atomic<bool> done_{false};
    std::mutex mutex_;
    std::condition_variable finished_;
};

// For tests: hold (true) the decoding threads before they decode, or let them go on; and how
// many decoding threads have not yet ended and released what they own.
void holdCoverDecoders(bool hold);
int coverDecodersRunning();

#endif
