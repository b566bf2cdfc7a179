// The listening features on the virtual card, measured on generated narration: the pauses that
// skip silence leaves, the levels that voice levelling reaches, and what a seek keeps.
#include <algorithm>
#include <cmath>
#include <thread>

#include <gtest/gtest.h>

#include "AudioEngine.h"
#include "AudioEngineExtension.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using namespace ae_test;
using tavrel::utilities::IAudioEngine;
const int kRate = 44100;

class ListeningTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        engine_ = AudioEngine_CreateAudioEngine();
        ext_ = AudioEngine_GetExtension(engine_);
        engine_->setStateChangedCb([] {});
        // Runs under the engine's lock, so it reads the position as the loop set it.
        engine_->setTrackPositionChangedCb([this] {
            if (engine_->getState() == 1)
                topPositionMs_ = std::max<int64_t>(topPositionMs_,
                                                   static_cast<AudioEngine *>(engine_)->positionMs);
        });
    }
    void TearDown() override {
        engine_->closeFile();
        AudioEngine_DestroyAudioEngine(engine_);
        deinit_alsa_output();
        close_alsa_ex(0);
    }
    std::vector<int16_t> play(const std::string &file) {
        engine_->closeFile();
        vcard_setup();
        topPositionMs_ = 0;
        EXPECT_EQ(engine_->openFile(media_path(file)), 0);
        EXPECT_EQ(engine_->start(), 0);
        EXPECT_TRUE(wait_until([&] { return engine_->getState() == 3; }, 30000));
        EXPECT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 5000));
        return captured_samples();
    }
    // Level of the left channel from `fromS` for `lengthS` seconds of the capture.
    static double levelDb(const std::vector<int16_t> &s, double fromS, double lengthS) {
        const size_t a = size_t(fromS * kRate) * 2, b = size_t((fromS + lengthS) * kRate) * 2;
        return rms_dbfs({s.begin() + std::min(a, s.size()), s.begin() + std::min(b, s.size())}, 2,
                        0);
    }
    IAudioEngine *engine_ = nullptr;
    ae_ext *ext_ = nullptr;
    std::atomic<int64_t> topPositionMs_{0};
};

// The pauses between voices (10 ms blocks under -48 dBFS, runs of 100 ms or more; the final
// pause is left out) and the loudest sample inside them, away from the voices' edges (a click
// at a cut would show).
std::vector<int> pausesMs(const std::vector<int16_t> &s, int *loudestInPauses) {
    std::vector<int> pauses, peaks;
    const size_t block = kRate / 100;
    *loudestInPauses = 0;
    for (size_t b = 0; (b + 1) * block * 2 <= s.size(); ++b) {
        const std::vector<int16_t> one(s.begin() + b * block * 2, s.begin() + (b + 1) * block * 2);
        if (rms_dbfs(one, 2, 0) < -48) {
            peaks.push_back(0);
            for (int16_t v : one)
                peaks.back() = std::max(peaks.back(), std::abs(int(v)));
            continue;
        }
        if (peaks.size() >= 10) {
            pauses.push_back(int(peaks.size()) * 10);
            *loudestInPauses =
                std::max(*loudestInPauses, *std::max_element(peaks.begin() + 2, peaks.end() - 2));
        }
        peaks.clear();
    }
    return pauses;
}

// speech_pauses.mp3 pauses 300, 2000, 450, 1000 ms after a voice at -14 dBFS, then 300, 2000,
// 600, 200 ms after one 20 dB quieter: natural shortens those over 500 ms to 250, strong those
// over 250 ms to 150; at a tempo the pauses shrink with the speech, no more.
struct PauseRow {
    int level;
    double tempo;
    std::vector<int> pausesMs;
};
const PauseRow kPauseRows[] = {
    {AE_SKIP_SILENCE_OFF, 1.0, {300, 2000, 450, 1000, 300, 2000, 600, 200}},
    {AE_SKIP_SILENCE_NATURAL, 1.0, {300, 250, 450, 250, 300, 250, 250, 200}},
    {AE_SKIP_SILENCE_STRONG, 1.0, {150, 150, 150, 150, 150, 150, 150, 200}},
    {AE_SKIP_SILENCE_NATURAL, 1.5, {200, 167, 300, 167, 200, 167, 167, 133}},
};

TEST_F(ListeningTest, SkipSilenceShortensLongPausesOnlyAndKeepsTheBooksTime) {
    for (const PauseRow &row : kPauseRows) {
        SCOPED_TRACE("level " + std::to_string(row.level) + ", tempo " + std::to_string(row.tempo));
        ASSERT_EQ(ae_ext_set_skip_silence(ext_, row.level), 0);
        engine_->setTempo(row.tempo);
        const std::vector<int16_t> got = play("speech_pauses.mp3");
        int loudest = 0;
        const std::vector<int> pauses = pausesMs(got, &loudest);
        ASSERT_EQ(pauses.size(), row.pausesMs.size()) << ::testing::PrintToString(pauses);
        for (size_t i = 0; i < pauses.size(); ++i)
            EXPECT_NEAR(pauses[i], row.pausesMs[i], 40) << "pause " << i;
        EXPECT_LT(loudest, 200) << "a click in a pause";
        // The time saved is what the output lacks; positions stay the book's (16 s).
        const double savedS = ae_ext_silence_saved_ms(ext_) / 1000.0;
        EXPECT_NEAR(got.size() / 2.0 / kRate, (16.35 - savedS) / row.tempo, 0.15);
        EXPECT_GE(topPositionMs_, 15000);
        EXPECT_EQ(engine_->getPosition(), 16000);
        EXPECT_EQ(ae_ext_get_skip_silence(ext_), row.level); // an open keeps the setting
    }
    EXPECT_EQ(ae_ext_set_skip_silence(ext_, 3), -1);
    EXPECT_EQ(ae_ext_set_skip_silence(nullptr, 1), -1);
}

// voice_levels.mp3 alternates a voice at -30 dBFS and one at -10 dBFS every 5 s. The last quiet
// and loud seconds end within the level's gap; pauses get no gain; nothing clips.
struct LevelRow {
    int level;
    double minGapDb, maxGapDb;
};
const LevelRow kLevelRows[] = {
    {AE_VOICE_LEVEL_OFF, 18, 22}, {AE_VOICE_LEVEL_GENTLE, 0, 12}, {AE_VOICE_LEVEL_STRONG, 0, 6}};

TEST_F(ListeningTest, VoiceLevellingBringsQuietAndLoudVoicesTogether) {
    for (const LevelRow &row : kLevelRows) {
        SCOPED_TRACE("level " + std::to_string(row.level));
        ASSERT_EQ(ae_ext_set_voice_level(ext_, row.level), 0);
        const std::vector<int16_t> got = play("voice_levels.mp3");
        const double gap = levelDb(got, 18.5, 1) - levelDb(got, 13.5, 1);
        EXPECT_GE(gap, row.minGapDb);
        EXPECT_LE(gap, row.maxGapDb);
        EXPECT_LT(levelDb(got, 14.6, 0.3), -60) << "hiss raised in the pause";
        EXPECT_LT(*std::max_element(got.begin(), got.end()), 32767);
        EXPECT_GT(*std::min_element(got.begin(), got.end()), -32768);
    }
    EXPECT_EQ(ae_ext_set_voice_level(ext_, -1), -1);
}

// A seek keeps the gain the leveller reached: the quiet voice plays raised at once after it
// (a new leveller would start it near -30 dBFS and take a second to raise it).
TEST_F(ListeningTest, SeekKeepsTheLevellersGain) {
    ASSERT_EQ(ae_ext_set_voice_level(ext_, AE_VOICE_LEVEL_STRONG), 0);
    vcard_set_speed(8);
    ASSERT_EQ(engine_->openFile(media_path("voice_levels.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(wait_until([&] { return engine_->getPosition() >= 13000; }, 10000));
    engine_->pause();
    size_t before = 0; // what was played before the seek, once the card has it all
    ASSERT_TRUE(wait_until(
        [&] {
            const size_t now = vcard_captured_frames(), last = before;
            before = now;
            return now == last && now > 0;
        },
        5000, 100));
    engine_->seekStream(11000);
    engine_->resume();
    ASSERT_TRUE(wait_until([&] { return vcard_captured_frames() > before + kRate; }, 10000));
    const std::vector<int16_t> got = captured_samples();
    EXPECT_GT(levelDb(got, double(before) / kRate + 0.05, 0.3), -20);
}

} // namespace
