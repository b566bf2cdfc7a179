// Shared harness of the fuzz targets: one engine on the virtual sound card (paced at speed 0, so
// playback runs as fast as the engine can decode), an in-memory byte stream, a reader that
// draws values from the fuzz input, and bounded playback.
//
// The entry functions (LLVMFuzzerTestOneInput) build without libFuzzer too: the replay driver
// and the regression test call them once per saved input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "IAudioEngine.h"
#include "IAudioEngineStream.h"

namespace ae_fuzz {

using tavrel::utilities::IAudioEngine;

// Once per process: ALSA configuration of the virtual card, the card itself at speed 0, the
// library's log silenced (set AE_FUZZ_LOG=1 to see it), and the engine.
void init();
// The process's engine, made by init().
IAudioEngine *engine();

// Draws values from the front of a byte range; an exhausted range yields zeros.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }
    double f64();
    // Tempo or rate: mostly inside [lo, hi], sometimes a boundary or an out-of-range value.
    double speed(double lo, double hi);
    // Up to `max` equaliser points.
    std::vector<std::pair<int, int>> equalizer(size_t max);
    // The rest of the range.
    const uint8_t *rest() const { return data_ + pos_; }
    size_t remaining() const { return size_ - pos_; }
    void skip(size_t n) { pos_ += n < remaining() ? n : remaining(); }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// A caller stream over bytes held in memory.
class ByteStream : public tavrel::utilities::IAudioEngineStream {
public:
    ByteStream(const uint8_t *data, size_t size, bool seekable, bool sized)
        : data_(data), size_(size), seekable_(seekable), sized_(sized) {}
    int read(uint8_t *buffer, int size) override;
    int seek(int64_t offset, int whence) override;

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
    bool seekable_;
    bool sized_;
};

// Reads what the open media reports (tags, chapters, cover, duration) and checks the answers
// that hold for every media.
void inspect(IAudioEngine *engine);

// Starts the open media and lets it play for at most `budgetMs` of wall time (or `pieces`
// position updates), applying one operation drawn from `ops` every few milliseconds (seek,
// pause and resume, tempo, rate, equaliser); then stops if it still runs. Checks that the
// state stays in 0..3 and the position is never negative. Leaves the media open.
void playBounded(IAudioEngine *engine, Input &ops, int budgetMs, int pieces);

// A WAV file in memory: a 440 Hz tone of `ms` milliseconds at `rate` Hz with `channels`
// channels (S16).
std::vector<uint8_t> toneWav(int rate, int channels, int ms);

// A scratch directory on tmpfs (/dev/shm when it exists) private to this process.
std::string scratchDir();

} // namespace ae_fuzz

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
