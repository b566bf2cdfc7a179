// The listening features in the player program: skip silence, voice levelling, the sleep timer
// and the rewind after a long pause, set from the command line and by keys, shown on the status
// line.
#include "aeplay_app.h"
#include "aeplay_events.h"
#include "aeplay_format.h"

using tavrel::utilities::IPlayer;

namespace aeplay {

namespace {

const char *const kSkipNames[] = {"off", "natural", "strong"};
const char *const kLevelNames[] = {"off", "gentle", "strong"};

// The 'z' key's cycle: off, timed stops, the end of the chapter, the end of the track.
struct SleepPreset {
    int mode;
    int64_t ms;
};
const SleepPreset kSleepPresets[] = {
    {AE_SLEEP_OFF, 0},
    {AE_SLEEP_AFTER_TIME, 15 * 60000},
    {AE_SLEEP_AFTER_TIME, 30 * 60000},
    {AE_SLEEP_AFTER_TIME, 60 * 60000},
    {AE_SLEEP_END_OF_CHAPTER, 0},
    {AE_SLEEP_END_OF_TRACK, 0},
};
const int kSleepPresetCount = sizeof kSleepPresets / sizeof kSleepPresets[0];
const int64_t kSleepExtendMs = 10 * 60000; // 'Z'

// Runs on the engine's play thread: only wakes the main loop (see aeplay_app.h, rule 2).
void on_sleep_fired(void *, int) {
    events().post(EventPipe::kSleep);
}

} // namespace

// Before the first track: the settings the player keeps across tracks and opens.
void App::startListening() {
    ext_ = AudioEngine_GetPlayerExtension(player_);
    if (ext_ == nullptr) {
        message("this player has no listening features", true);
        return;
    }
    ae_ext_set_skip_silence(ext_, options_.skipSilence);
    ae_ext_set_voice_level(ext_, options_.level);
    ae_ext_set_rewind_after_pause(ext_, options_.rewind ? 1 : 0);
    if (options_.sleepFadeMs >= 0)
        ae_ext_set_sleep_fade_ms(ext_, options_.sleepFadeMs);
    ae_ext_set_sleep_callback(ext_, on_sleep_fired, nullptr);
    // Armed before the first track starts, so that it counts from the first sample (the output
    // may run far ahead of our thread); a chapter stop is that of the chapter playback starts in.
    if (options_.sleepMode != AE_SLEEP_OFF &&
        ae_ext_set_sleep_timer(ext_, options_.sleepMode, options_.sleepMs) != 0)
        message("the sleep timer could not be set", true);
}

// After the timer paused playback (on the main thread). Without a terminal nobody can resume:
// aeplay ends, keeping the place.
void App::sleepFired() {
    // A track end: the player moves on to the next track, which waits paused at its start.
    if (player_->GetState() == IPlayer::Finished)
        handleState();
    if (quit_)
        return; // that was the end of the list
    keepPlace(true);
    message("sleep timer: paused at " + clock_text(player_->GetTrackPosition()) + " of track " +
            std::to_string(player_->GetCurrentTrack() + 1) +
            (keys_ ? " (space resumes)" : ", the place is kept"));
    if (!keys_)
        quit_ = true;
}

void App::listeningKey(char key) {
    if (ext_ == nullptr)
        return;
    switch (key) {
    case 's':
        ae_ext_set_skip_silence(ext_, (ae_ext_get_skip_silence(ext_) + 1) % 3);
        break;
    case 'l':
        ae_ext_set_voice_level(ext_, (ae_ext_get_voice_level(ext_) + 1) % 3);
        break;
    case 'r':
        ae_ext_set_rewind_after_pause(ext_, ae_ext_get_rewind_after_pause(ext_) == 1 ? 0 : 1);
        message(std::string("rewind after a pause ") +
                (ae_ext_get_rewind_after_pause(ext_) == 1 ? "on" : "off"));
        break;
    case 'z': {
        if (ae_ext_get_sleep_mode(ext_) == AE_SLEEP_OFF)
            sleepPreset_ = 0; // it fired or was cancelled: the cycle starts again
        sleepPreset_ = (sleepPreset_ + 1) % kSleepPresetCount;
        const SleepPreset &preset = kSleepPresets[sleepPreset_];
        ae_ext_set_sleep_timer(ext_, preset.mode, preset.ms);
        break;
    }
    case 'Z':
        if (ae_ext_get_sleep_mode(ext_) == AE_SLEEP_OFF)
            ae_ext_set_sleep_timer(ext_, AE_SLEEP_AFTER_TIME, kSleepExtendMs);
        else
            ae_ext_extend_sleep_timer(ext_, kSleepExtendMs);
        break;
    default:
        break;
    }
}

// " | skip natural -0:42 | level gentle | sleep 29:59": what is on, for the status line.
std::string App::listeningText() {
    if (ext_ == nullptr)
        return "";
    std::string text;
    const int skip = ae_ext_get_skip_silence(ext_);
    if (skip > 0 && skip < 3)
        text += std::string(" | skip ") + kSkipNames[skip] + " -" +
                clock_text(static_cast<int>(ae_ext_silence_saved_ms(ext_) / 1000));
    const int level = ae_ext_get_voice_level(ext_);
    if (level > 0 && level < 3)
        text += std::string(" | level ") + kLevelNames[level];
    // The time left before the timer acts: playing time, or the chapter's or track's rest.
    const int mode = ae_ext_get_sleep_mode(ext_);
    const int64_t left = ae_ext_sleep_left_ms(ext_);
    if (mode != AE_SLEEP_OFF && left >= 0)
        text += " | sleep " + clock_text(static_cast<int>((left + 999) / 1000)) +
                (mode == AE_SLEEP_END_OF_CHAPTER ? " (chapter)"
                 : mode == AE_SLEEP_END_OF_TRACK ? " (track)"
                                                 : "");
    return text;
}

} // namespace aeplay
