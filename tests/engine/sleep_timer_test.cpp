// The sleep timer and the rewind after a long pause, measured on the virtual card.
#include <atomic>
#include <cmath>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AudioEngine.h"
#include "AudioEngineExtension.h"
#include "IPlayer.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using namespace ae_test;
const int kRate = 44100;

struct Fired {
    std::atomic<int> count{0}, mode{0};
    std::atomic<bool> onCaller{false};
    std::thread::id caller = std::this_thread::get_id();
};
void onFired(void *user, int mode) {
    auto *f = static_cast<Fired *>(user);
    f->mode = mode;
    f->onCaller = std::this_thread::get_id() == f->caller;
    ++f->count;
}

// Frames in [from, to) seconds of interleaved stereo.
std::vector<int16_t> span(const std::vector<int16_t> &s, double from, double to) {
    const size_t a = std::min(s.size(), size_t(from * kRate + 0.5) * 2);
    return {s.begin() + a,
            s.begin() + std::max(a, std::min(s.size(), size_t(to * kRate + 0.5) * 2))};
}
double level(const std::vector<int16_t> &s, double from, double to) {
    return rms_dbfs(span(s, from, to), 2, 0);
}

class Sleep : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        engine = static_cast<AudioEngine *>(AudioEngine_CreateAudioEngine());
        engine->setStateChangedCb([] {});
        ext = AudioEngine_GetExtension(engine);
        ae_ext_set_sleep_callback(ext, onFired, &fired);
    }
    void TearDown() override {
        engine->closeFile();
        AudioEngine_DestroyAudioEngine(engine);
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }
    // What the card has played once it has stopped growing.
    std::vector<int16_t> settled() {
        for (size_t n = SIZE_MAX; n != vcard_captured_frames(); usleep(150000))
            n = vcard_captured_frames();
        return captured_samples();
    }
    bool firedAndPaused(int count = 1) {
        return wait_until([&] { return fired.count == count && engine->getState() == 2; }, 20000);
    }
    bool finished() {
        return wait_until([&] { return engine->getState() == 3; }, 20000);
    }
    // Frames the card gets for `file` played whole (the tempo stage keeps back a few at the end).
    size_t plainFrames(const char *file) {
        vcard_setup();
        EXPECT_EQ(engine->openFile(media_path(file)), 0);
        EXPECT_EQ(engine->start(), 0);
        EXPECT_TRUE(finished());
        const size_t n = settled().size() / 2;
        engine->closeFile();
        return n;
    }
    AudioEngine *engine = nullptr;
    ae_ext *ext = nullptr;
    Fired fired;
};

TEST_F(Sleep, SettingsAreCheckedAndKeptUntilChanged) {
    EXPECT_EQ(ae_ext_get_sleep_fade_ms(ext), 10000);
    const struct {
        int mode;
        int64_t ms;
        int result, modeAfter;
        int64_t left;
    } rows[] = {{7, 1000, -1, 0, -1}, {-1, 1000, -1, 0, -1},   {1, 0, -1, 0, -1},
                {1, -5, -1, 0, -1},   {1, 90000, 0, 1, 90000}, {3, 0, 0, 3, 0},
                {0, 0, 0, 0, -1},     {2, 5, 0, 2, 0}};
    for (const auto &r : rows) {
        EXPECT_EQ(ae_ext_set_sleep_timer(ext, r.mode, r.ms), r.result) << r.mode << " " << r.ms;
        EXPECT_EQ(ae_ext_get_sleep_mode(ext), r.modeAfter);
        EXPECT_EQ(ae_ext_sleep_left_ms(ext), r.left); // nothing open: no time left to a bound
    }
    EXPECT_EQ(ae_ext_extend_sleep_timer(ext, 2000), 0); // a chapter stop becomes a timed one
    EXPECT_EQ(ae_ext_get_sleep_mode(ext), 1);
    EXPECT_EQ(ae_ext_sleep_left_ms(ext), 2000);
    EXPECT_EQ(ae_ext_set_sleep_timer(ext, 0, 0), 0);
    EXPECT_EQ(ae_ext_extend_sleep_timer(ext, 2000), -1);
    EXPECT_EQ(ae_ext_set_sleep_fade_ms(ext, -1), -1);
    EXPECT_EQ(ae_ext_set_sleep_fade_ms(ext, 0), 0);
    EXPECT_EQ(ae_ext_set_rewind_after_pause(ext, 2), -1);
    EXPECT_EQ(ae_ext_get_rewind_after_pause(ext), 0);
    EXPECT_EQ(ae_ext_set_sleep_timer(nullptr, 1, 1000), -1);
}

// A timed stop after `armMs` with a fade of `fadeMs`: the level falls over the fade, the card
// gets exactly the time, and the resume plays the file on from where the fade began, whole.
TEST_F(Sleep, TimedStopFadesThenResumesWhereTheFadeBegan) {
    const struct { int armMs, fadeMs; } rows[] = {{4000, 2000}, {1500, 3000}, {2500, 0}};
    std::vector<int16_t> source;
    ASSERT_TRUE(read_wav(media_path("steps_8s.wav"), &source));
    const double full = level(source, 0.5, 0.6);
    const long plain = long(plainFrames("steps_8s.wav"));
    for (const auto &r : rows) {
        SCOPED_TRACE(r.armMs);
        engine->closeFile();
        vcard_setup();
        fired.count = 0;
        ASSERT_EQ(engine->openFile(media_path("steps_8s.wav")), 0);
        ASSERT_EQ(ae_ext_set_sleep_fade_ms(ext, r.fadeMs), 0);
        ASSERT_EQ(ae_ext_set_sleep_timer(ext, AE_SLEEP_AFTER_TIME, r.armMs), 0);
        ASSERT_EQ(engine->start(), 0);
        ASSERT_TRUE(firedAndPaused());
        EXPECT_EQ(fired.mode, AE_SLEEP_AFTER_TIME);
        EXPECT_FALSE(fired.onCaller);
        EXPECT_EQ(ae_ext_get_sleep_mode(ext), 0);
        const std::vector<int16_t> stopped = settled();
        const size_t end = size_t(r.armMs) * kRate / 1000;
        ASSERT_EQ(stopped.size() / 2, end);
        const double t = r.armMs / 1000.0, fade = std::min(r.fadeMs, r.armMs) / 1000.0;
        // Full up to the fade; -12 dB half way (the amplitude falls with the square of the
        // time left); near silence at the end.
        if (t - fade >= 0.1) {
            EXPECT_NEAR(level(stopped, t - fade - 0.1, t - fade), full, 0.5);
        }
        if (fade > 0) {
            EXPECT_NEAR(level(stopped, t - fade / 2 - 0.02, t - fade / 2 + 0.02), full - 12, 1.0);
            EXPECT_LT(level(stopped, t - 0.02, t), full - 40);
            for (double w = t - fade; w + 0.2 < t; w += 0.1)
                EXPECT_LT(level(stopped, w + 0.1, w + 0.2), level(stopped, w, w + 0.1)) << w;
        }
        engine->resume();
        ASSERT_TRUE(finished());
        const std::vector<int16_t> got = settled();
        const std::vector<int16_t> rest(got.begin() + long(end) * 2, got.end());
        EXPECT_NEAR(long(rest.size() / 2), plain - long((t - fade) * kRate), 8);
        EXPECT_NEAR(level(rest, 0.05, 0.15), full, 0.5);
        EXPECT_NEAR(zero_crossing_frequency(span(rest, 0, 0.2), 2, 0, kRate),
                    300 + 100 * std::floor(t - fade), 5);
    }
}

// Extended during its fade, the timer plays at the full level again within the output's queue
// and stops after the added time, fading once more.
TEST_F(Sleep, ExtendDuringTheFadeRestoresTheLevel) {
    vcard_set_speed(4);
    ASSERT_EQ(engine->openFile(media_path("steps_8s.wav")), 0);
    ASSERT_EQ(ae_ext_set_sleep_fade_ms(ext, 2000), 0);
    ASSERT_EQ(ae_ext_set_sleep_timer(ext, AE_SLEEP_AFTER_TIME, 3000), 0);
    ASSERT_EQ(engine->start(), 0);
    ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > 1.6 * kRate; }, 20000));
    const double at = double(vcard_captured_frames()) / kRate;
    ASSERT_EQ(ae_ext_extend_sleep_timer(ext, 2000), 0);
    const int64_t left = ae_ext_sleep_left_ms(ext);
    EXPECT_GT(left, 2000);
    EXPECT_LT(left, 3400);
    ASSERT_TRUE(firedAndPaused());
    const std::vector<int16_t> got = settled();
    EXPECT_EQ(got.size() / 2, size_t(5 * kRate));
    const double full = level(got, 0.5, 0.6);
    EXPECT_LT(level(got, at - 0.1, at), full - 1);
    EXPECT_NEAR(level(got, at + 0.7, at + 0.8), full, 0.3);
    EXPECT_LT(level(got, 4.9, 5.0), full - 20);
}

// Armed for the chapter's end, playback stops at the end sample the container gives (1.234 s
// and 2.567 s, not whole seconds), without a fade; each resume goes on from there, so the whole
// file plays once.
TEST_F(Sleep, ChapterStopsEndAtTheChaptersEndSample) {
    const long plain = long(plainFrames("chapters_tones_4s.flac"));
    vcard_setup();
    ASSERT_EQ(engine->openFile(media_path("chapters_tones_4s.flac")), 0);
    const struct {
        size_t stopFrame;
        double tone;
    } rows[] = {{54419, 1000}, {113205, 2000}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.stopFrame);
        ASSERT_EQ(ae_ext_set_sleep_timer(ext, AE_SLEEP_END_OF_CHAPTER, 0), 0);
        ASSERT_EQ(r.tone == 1000 ? engine->start() : engine->resume(), 0);
        ASSERT_TRUE(firedAndPaused(r.tone == 1000 ? 1 : 2));
        EXPECT_EQ(fired.mode, AE_SLEEP_END_OF_CHAPTER);
        const std::vector<int16_t> got = settled();
        ASSERT_EQ(got.size() / 2, r.stopFrame);
        const double stop = double(r.stopFrame) / kRate;
        EXPECT_NEAR(zero_crossing_frequency(span(got, stop - 0.2, stop), 2, 0, kRate), r.tone,
                    r.tone / 50);
        EXPECT_NEAR(level(got, stop - 0.01, stop), level(got, stop - 0.2, stop - 0.1), 0.5);
    }
    engine->resume();
    ASSERT_TRUE(finished());
    const long whole = long(settled().size() / 2);
    EXPECT_GE(whole, plain);
    EXPECT_LE(whole, 4 * kRate);
}

// At a track's end: a bare engine finishes there; a player opens the next track and holds it
// paused at its start, and a resume plays it.
TEST_F(Sleep, TrackEndLeavesThePlayersNextTrackPausedAtItsStart) {
    ASSERT_EQ(engine->openFile(media_path("tone440_3s.wav")), 0);
    ASSERT_EQ(ae_ext_set_sleep_timer(ext, AE_SLEEP_END_OF_TRACK, 0), 0);
    ASSERT_EQ(engine->start(), 0);
    ASSERT_TRUE(finished());
    EXPECT_EQ(fired.mode, AE_SLEEP_END_OF_TRACK);
    EXPECT_EQ(settled().size() / 2, size_t(3 * kRate));

    vcard_setup();
    tavrel::utilities::IPlayer *player = AudioEngine_CreatePlayer();
    ae_ext *pext = AudioEngine_GetPlayerExtension(player);
    Fired pfired;
    ae_ext_set_sleep_callback(pext, onFired, &pfired);
    std::vector<tavrel::utilities::IPlayer::Track> list(2);
    list[0].filename = media_path("tone440_3s.wav");
    list[1].filename = media_path("tone1000_3s.wav");
    player->SetPlayList(list);
    ASSERT_EQ(ae_ext_set_sleep_timer(pext, AE_SLEEP_END_OF_TRACK, 0), 0);
    ASSERT_EQ(player->PlayTrack(0, -1, false), 0);
    ASSERT_TRUE(wait_until([&] { return player->GetState() == 3; }, 20000));
    EXPECT_EQ(pfired.count, 1);
    player->HandlePlayerStateChanged();
    EXPECT_EQ(player->GetCurrentTrack(), 1);
    EXPECT_EQ(player->GetState(), 2);
    EXPECT_EQ(player->GetTrackPosition(), 0);
    EXPECT_EQ(settled().size() / 2, size_t(3 * kRate));
    player->SetState(tavrel::utilities::IPlayer::Playing);
    ASSERT_TRUE(wait_until([&] { return player->GetState() == 3; }, 20000));
    const std::vector<int16_t> got = settled();
    EXPECT_NEAR(got.size() / 2, 6 * kRate, 256); // less what the tempo stage keeps back
    EXPECT_NEAR(zero_crossing_frequency(span(got, 3, 6), 2, 0, kRate), 1000, 5);
    player->SetState(tavrel::utilities::IPlayer::Stopped);
    AudioEngine_DestroyPlayer(player);
}

TEST(RewindAfterPause, GrowsSmoothlyFromAMinuteToADay) {
    const int64_t minute = 60000, hour = 60 * minute, day = 24 * hour;
    const std::pair<int64_t, int64_t> rows[] = {{-1, 0},       {minute, 0},  {minute + 1, 3000},
                                                {hour, 10000}, {day, 20000}, {30 * day, 20000}};
    for (const auto &[paused, rewind] : rows)
        EXPECT_EQ(ae_ext_rewind_for_pause_ms(paused), rewind) << paused;
    for (int64_t p = minute + 1, last = 0; p < day; p += p / 7) { // rising ever more slowly
        const int64_t r = ae_ext_rewind_for_pause_ms(p), next = ae_ext_rewind_for_pause_ms(p * 2);
        EXPECT_GT(r, last) << p;
        EXPECT_LE(next - r, 3000) << p;
        last = r;
    }
}

// A resume after a pause of `pausedMs` (the clock set back) from 7 s plays from 7 s less the
// rewind, to the sample, or from the start; without a rewind, from the seek point of 7 s (up to
// `slack` frames before).
TEST_F(Sleep, ResumeAfterALongPauseStartsEarlier) {
    const struct {
        int enabled;
        int64_t pausedMs, fromMs;
        long slack;
    } rows[] = {{1, 30000, 7000, 4410},
                {1, 600000, 7000 - ae_ext_rewind_for_pause_ms(600000), 0},
                {1, 172800000, 0, 0},
                {0, 600000, 7000, 4410}};
    const long plain = long(plainFrames("steps_8s.wav"));
    for (const auto &r : rows) {
        SCOPED_TRACE(r.pausedMs);
        engine->closeFile();
        vcard_setup();
        ASSERT_EQ(ae_ext_set_rewind_after_pause(ext, r.enabled), 0);
        ASSERT_EQ(engine->openFile(media_path("steps_8s.wav")), 0);
        engine->seekStream(7000);
        ASSERT_EQ(engine->startPaused(), 0);
        engine->pausedAtMs -= r.pausedMs;
        engine->resume();
        ASSERT_TRUE(finished());
        const long got = long(settled().size() / 2), want = plain - std::lround(r.fromMs * 44.1);
        EXPECT_GE(got, want - 8);
        EXPECT_LE(got, want + 8 + r.slack);
    }
}

} // namespace
