// The sleep timer's setting and count, and the rewind rule after a long pause.
//
// SleepTimer is shared by the application's thread (arm, extend, cancel, read) and the engine's
// play thread (count the audio it hands to the output, shape the level of a fade, fire). Its own
// mutex guards it; the notification runs outside that mutex.
#ifndef AUDIO_ENGINE_SLEEP_TIMER_H
#define AUDIO_ENGINE_SLEEP_TIMER_H

#include <cstdint>
#include <mutex>

#include "AudioEngineExtension.h"

class SleepTimer {
public:
    // Playing time is counted in frames of the output, which always runs at this rate.
    static const int kOutputRate = 44100;

    // Arms `mode` (`ms` of playing time for AE_SLEEP_AFTER_TIME) or cancels with AE_SLEEP_OFF:
    // 0, or -1 for an unknown mode or a time that is not positive.
    int arm(int mode, int64_t ms);
    int mode() const;
    // Cancels what is armed.
    void disarm();
    // Turns the armed timer into a timed stop of `leftMs` plus `ms`: 0, or -1 when nothing is
    // armed or `ms` is not positive. Past the fade again, the level is full at the next block.
    int extend(int64_t ms, int64_t leftMs);
    // Playing time left of a timed stop, -1 for the other modes and when off.
    int64_t timedLeftMs() const;
    // Changes with every arm and extend: the play thread finds the chapter's end again.
    unsigned generation() const;

    int setFadeMs(int64_t ms); // 0, or -1 for a negative length
    int64_t fadeMs() const;

    void setCallback(ae_sleep_fired_cb cb, void *user);
    // Disarms and calls the notification with `mode` (play thread).
    void fire(int mode);

    // Play thread: `frames` interleaved S16 stereo frames about to go out. Counts them against
    // a timed stop and scales those inside the fade. Returns how many of them may play; fewer
    // than `frames`, or the last one exactly, set *ended. *fadeBegins is the index of the first
    // faded frame when the fade begins within them, else -1.
    int shape(int16_t *samples, int frames, bool *ended, int *fadeBegins);

    // The fade's gain at `left` frames before the end of a fade `fade` frames long.
    static double fadeGain(int64_t left, int64_t fade);

private:
    mutable std::mutex mutex_;
    int mode_ = AE_SLEEP_OFF;
    int64_t leftFrames_ = 0; // a timed stop: frames still to play
    int64_t fadeFrames_ = 0; // its fade: the setting, or all that was left when shorter
    int64_t fadeSettingMs_ = 10000;
    bool fading_ = false; // the fade has begun
    unsigned generation_ = 0;
    ae_sleep_fired_cb cb_ = nullptr;
    void *user_ = nullptr;
};

// The rewind, in milliseconds, for a resume after a pause of `pausedMs` (see
// ae_ext_rewind_for_pause_ms).
int64_t rewindForPauseMs(int64_t pausedMs);

#endif
