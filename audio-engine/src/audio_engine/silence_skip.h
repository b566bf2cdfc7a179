// Skip silence: a stage on decoded audio, in front of the filter graph (so before the tempo
// stages), that shortens long pauses and keeps the short ones.
//
// The audio is classified in blocks of 10 ms of media time. A block is a pause when its level
// is below a threshold that follows the recording: 30 dB under the recent voice peaks, and no
// more than 12 dB over the recent noise floor (whichever is lower), never above -70 dBFS's
// floor. A pause plays its first part at once; the rest is held back until the pause is known
// to be longer than the level's minimum gap. A longer pause keeps only its first and last part
// (together the level's kept length), joined by a short crossfade so the cut makes no click.
// Pauses at most the minimum gap long play whole, so sentence pauses stay as they were.
//
// Each frame handed on carries, as its best-effort timestamp, the media time of its first
// sample (so positions stay in the book's time) and a pts that runs on without gaps (so the
// filters after it see continuous audio).
#ifndef AUDIO_ENGINE_SILENCE_SKIP_H
#define AUDIO_ENGINE_SILENCE_SKIP_H

#include <atomic>
#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/rational.h>
}

class SilenceSkipper {
public:
    SilenceSkipper();
    ~SilenceSkipper();
    SilenceSkipper(const SilenceSkipper &) = delete;
    SilenceSkipper &operator=(const SilenceSkipper &) = delete;

    // Whether audio is held: a stage switched off must still hand it on.
    bool holding() const;
    // Takes the samples of `in` (left untouched) at `level` (ae_skip_silence; 0 hands on
    // everything held and `in` whole) and returns what is ready to play, or null when nothing
    // is (the frame belongs to the stage and is valid until the next call). `tb` is the time
    // base of the frame's timestamps.
    AVFrame *process(const AVFrame *in, int level, AVRational tb);
    // At the end of the media: everything still held (a long final pause keeps its kept
    // length), or null.
    AVFrame *flush();
    // After a seek: drops held audio and starts a new timeline, keeping the voice and noise
    // levels learnt so far.
    void reset();
    // For a new media: reset() and forgets the levels and the time saved.
    void restart();
    // Media time removed since the last restart(), in milliseconds; any thread.
    int64_t savedMs() const { return savedMs_.load(); }

private:
    struct Params {
        int minGapMs; // pauses up to this long play whole
        int keepMs;   // what a longer pause is cut down to
    };
    bool configure(const AVFrame *in, AVRational tb);
    void release();
    void classifyBlock(int frames, const Params &params);
    void emit(AVAudioFifo *from, int frames, int64_t mediaFirst);
    void emitHeld();
    AVFrame *takeOutput();
    double blockLevelDb(int frames) const;
    void saveCrossfade();

    // Format the stage is set up for.
    int format_ = -1;
    int rate_ = 0;
    AVChannelLayout layout_{};
    AVRational tb_{1, 1};
    AVAudioFifo *pending_ = nullptr; // samples not yet classified (less than a block)
    AVAudioFifo *held_ = nullptr;    // the pause held back
    AVAudioFifo *ready_ = nullptr;   // classified audio to hand on
    AVFrame *block_ = nullptr;       // one block being classified
    AVFrame *out_ = nullptr;         // what process() returns
    std::vector<float> crossfade_;   // the start of a cut-out part, planar, for the crossfade

    // Timeline: media sample indices from `origin_` (in tb_), counted from the last reset.
    bool haveOrigin_ = false;
    int64_t origin_ = 0;
    int64_t pendingFirst_ = 0; // media index of pending_'s first sample
    int64_t heldFirst_ = 0;
    int64_t readyFirst_ = 0;
    int64_t emitted_ = 0; // samples handed on since the reset: the continuous pts

    // The pause under way.
    int64_t pauseFrames_ = 0;
    bool cutting_ = false;

    // Levels learnt (dBFS), kept across seeks.
    double voiceDb_;
    double noiseDb_;
    int64_t savedUs_ = 0; // play thread
    std::atomic<int64_t> savedMs_{0};
};

#endif
