// The sleep timer's count and fade (SleepTimer), and the rewind rule after a long pause.
#include "sleep_timer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace {

int64_t msToFrames(int64_t ms) {
    return ms * SleepTimer::kOutputRate / 1000;
}

} // namespace

int SleepTimer::arm(int mode, int64_t ms) {
    if (mode < AE_SLEEP_OFF || mode > AE_SLEEP_END_OF_TRACK)
        return -1;
    if (mode == AE_SLEEP_AFTER_TIME && (ms <= 0 || ms > INT64_MAX / kOutputRate))
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    mode_ = mode;
    leftFrames_ = mode == AE_SLEEP_AFTER_TIME ? msToFrames(ms) : 0;
    // A time shorter than the fade fades over all of it, from the full level.
    fadeFrames_ = std::min(msToFrames(fadeSettingMs_), leftFrames_);
    fading_ = false;
    ++generation_;
    return 0;
}

int SleepTimer::mode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mode_;
}

void SleepTimer::disarm() {
    std::lock_guard<std::mutex> lock(mutex_);
    mode_ = AE_SLEEP_OFF;
    leftFrames_ = 0;
    fading_ = false;
    ++generation_;
}

int SleepTimer::extend(int64_t ms, int64_t leftMs) {
    if (ms <= 0 || ms > INT64_MAX / kOutputRate / 2)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (mode_ == AE_SLEEP_OFF)
        return -1;
    if (mode_ == AE_SLEEP_AFTER_TIME) {
        leftFrames_ += msToFrames(ms);
    } else {
        mode_ = AE_SLEEP_AFTER_TIME;
        leftFrames_ = msToFrames(std::max<int64_t>(leftMs, 0) + ms);
        fadeFrames_ = std::min(msToFrames(fadeSettingMs_), leftFrames_);
    }
    if (leftFrames_ > fadeFrames_)
        fading_ = false; // the next block plays at the full level
    ++generation_;
    return 0;
}

int64_t SleepTimer::timedLeftMs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mode_ == AE_SLEEP_AFTER_TIME ? leftFrames_ * 1000 / kOutputRate : -1;
}

unsigned SleepTimer::generation() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return generation_;
}

int SleepTimer::setFadeMs(int64_t ms) {
    if (ms < 0 || ms > INT64_MAX / kOutputRate)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    fadeSettingMs_ = ms;
    if (!fading_) // a fade under way keeps its length
        fadeFrames_ = std::min(msToFrames(ms), leftFrames_);
    return 0;
}

int64_t SleepTimer::fadeMs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fadeSettingMs_;
}

void SleepTimer::setCallback(ae_sleep_fired_cb cb, void *user) {
    std::lock_guard<std::mutex> lock(mutex_);
    cb_ = cb;
    user_ = user;
}

void SleepTimer::fire(int mode) {
    ae_sleep_fired_cb cb;
    void *user;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = AE_SLEEP_OFF;
        leftFrames_ = 0;
        fading_ = false;
        ++generation_;
        cb = cb_;
        user = user_;
    }
    if (cb)
        cb(user, mode);
}

// The amplitude falls with the square of the time left: the loudness then falls about evenly
// over the fade instead of lingering near the full level and dropping at the end.
double SleepTimer::fadeGain(int64_t left, int64_t fade) {
    if (fade <= 0 || left >= fade)
        return 1.0;
    const double r = left <= 0 ? 0.0 : double(left) / double(fade);
    return r * r;
}

int SleepTimer::shape(int16_t *samples, int frames, bool *ended, int *fadeBegins) {
    *ended = false;
    *fadeBegins = -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (mode_ != AE_SLEEP_AFTER_TIME || frames <= 0)
        return frames;
    const int keep = leftFrames_ < frames ? static_cast<int>(leftFrames_) : frames;
    for (int i = 0; i < keep; ++i) {
        // Frames left once this one has played: the last one plays at level 0.
        const int64_t left = leftFrames_ - i - 1;
        if (left >= fadeFrames_)
            continue;
        if (!fading_) {
            fading_ = true;
            *fadeBegins = i;
        }
        const double gain = fadeGain(left, fadeFrames_);
        samples[2 * i] = static_cast<int16_t>(std::lrint(samples[2 * i] * gain));
        samples[2 * i + 1] = static_cast<int16_t>(std::lrint(samples[2 * i + 1] * gain));
    }
    leftFrames_ -= keep;
    *ended = leftFrames_ == 0;
    return keep;
}

// Nothing up to a minute; then 3 s after a minute, 10 s after an hour and 20 s after a day, on
// the one parabola in the logarithm of the pause through those three points (so the rewind
// grows smoothly and ever more slowly), and 20 s for any longer pause.
int64_t rewindForPauseMs(int64_t pausedMs) {
    const double minute = 60e3, hour = 3600e3, day = 86400e3;
    if (pausedMs <= minute)
        return 0;
    if (pausedMs >= day)
        return 20000;
    const double x = std::log(pausedMs / minute);
    const double x1 = std::log(hour / minute), x2 = std::log(day / minute);
    const double y0 = 3000, y1 = 10000, y2 = 20000; // at x = 0, x1, x2
    // Lagrange form through (0, y0), (x1, y1), (x2, y2).
    const double y = y0 * (x - x1) * (x - x2) / (x1 * x2) + y1 * x * (x - x2) / (x1 * (x1 - x2)) +
                     y2 * x * (x - x1) / (x2 * (x2 - x1));
    return static_cast<int64_t>(std::lrint(y));
}
