// Skips and pauses heard at the virtual card: once a seek is carried out no audio from before
// its target is heard, a pause is silent as soon as pause() returns, and its resume loses and
// repeats nothing; a track that follows a natural end drops nothing.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "IPlayer.h"
#include "alsa_device.h"
#include "alsa_output_internal.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using namespace ae_test;
using tavrel::utilities::IPlayer;
const int kRate = 44100;

std::vector<int16_t> heard() {
    std::vector<int16_t> out(vcard_captured_frames() * 2);
    out.resize(vcard_heard(out.data(), out.size() / 2) * 2);
    return out;
}

std::vector<size_t> drops() {
    std::vector<size_t> at(64);
    at.resize(std::min(vcard_drops(at.data(), at.size()), at.size()));
    return at;
}

// Frequency of each 50 ms window of `pcm` that lies wholly before or after frame `cut`: the
// highest before it and the lowest after it.
std::pair<double, double> aroundCut(const std::vector<int16_t> &pcm, size_t cut) {
    const size_t window = kRate / 20;
    double before = 0, after = 1e9;
    for (size_t at = 0; (at + window) * 2 <= pcm.size(); at += window) {
        if (at < cut && at + window > cut)
            continue;
        const std::vector<int16_t> w(pcm.begin() + at * 2, pcm.begin() + (at + window) * 2);
        const double hz = zero_crossing_frequency(w, 2, 0, kRate);
        (at < cut ? before : after) = at < cut ? std::max(before, hz) : std::min(after, hz);
    }
    return {before, after};
}

bool heardAtLeast(double seconds) {
    return wait_until([&] { return vcard_heard_frames() >= seconds * kRate; }, 10000);
}

class AnswerAtOnce : public ::testing::Test {
protected:
    void SetUp() override { vcard_setup(); }
    void TearDown() override {
        if (player_) {
            player_->SetState(IPlayer::Stopped);
            AudioEngine_DestroyPlayer(player_);
        }
        deinit_alsa_output();
    }
    // A player over `files`, playing the first from `position` seconds on the card at `speed`.
    IPlayer *play(std::vector<std::string> files, int position, double speed) {
        vcard_set_speed(speed);
        player_ = AudioEngine_CreatePlayer();
        std::vector<IPlayer::Track> list(files.size());
        for (size_t i = 0; i < files.size(); ++i)
            list[i].filename = media_path(files[i]);
        player_->SetPlayList(list);
        EXPECT_EQ(player_->PlayTrack(0, position, false), 0);
        return player_;
    }
    bool finished() {
        return wait_until([&] { return player_->GetState() == IPlayer::Finished; }, 20000) &&
               wait_until([] { return vcard_is_open() == 0; }, 5000);
    }
    IPlayer *player_ = nullptr;
};

// steps_10s.mp3 sounds 200 + 100 k Hz in its second k: a skip from second 0 to second 7 while
// it plays must cut from 200 Hz to 900 Hz where the card's sound was dropped, with nothing
// of the old tone after the cut; also when the skip was asked for while paused (nothing is
// dropped until the resume).
TEST_F(AnswerAtOnce, NoAudioFromBeforeASkipIsHeardAfterIt) {
    enum How { SetTrackPosition, PlayTrackAt, SeekWhilePaused };
    for (How how : {SetTrackPosition, PlayTrackAt, SeekWhilePaused}) {
        SCOPED_TRACE(how);
        SetUp();
        IPlayer *p = play({"steps_10s.mp3"}, 0, 2.0);
        ASSERT_TRUE(heardAtLeast(0.3));
        if (how == SeekWhilePaused) {
            p->SetState(IPlayer::Paused);
            p->SetTrackPosition(7);
            const size_t still = vcard_heard_frames();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(vcard_heard_frames(), still);
            EXPECT_TRUE(drops().empty()); // nothing dropped while paused
            p->SetState(IPlayer::Playing);
        } else if (how == SetTrackPosition) {
            p->SetTrackPosition(7);
        } else {
            p->PlayTrack(0, 7, false);
        }
        ASSERT_TRUE(finished());
        const std::vector<int16_t> pcm = heard();
        const std::vector<size_t> cuts = drops();
        ASSERT_FALSE(cuts.empty()) << "the queued audio was not dropped";
        const auto [before, after] = aroundCut(pcm, cuts.back());
        EXPECT_LT(before, 450) << "cut at " << cuts.back();
        EXPECT_GT(after, 850) << "old audio after the cut at " << cuts.back();
        EXPECT_NEAR(double(pcm.size() / 2 - cuts.back()) / kRate, 3.0, 0.1);
        TearDown();
        player_ = nullptr;
    }
}

// Paused at 0.3 s on a card that pauses and on one whose buffer is dropped and written again:
// silent once pause() returns, and what is heard in the end is all of the file, once, as
// when it plays through.
TEST_F(AnswerAtOnce, PauseIsSilentAndResumeLosesAndRepeatsNothing) {
    play({"marked_3s.mp3"}, -1, 0);
    ASSERT_TRUE(finished());
    const std::vector<int16_t> through = heard();
    ASSERT_GT(through.size(), size_t(2 * 2 * kRate));
    TearDown();
    for (int canPause : {1, 0}) {
        SCOPED_TRACE(canPause);
        SetUp();
        vcard_set_can_pause(canPause);
        IPlayer *p = play({"marked_3s.mp3"}, -1, 2.0);
        ASSERT_TRUE(heardAtLeast(0.3));
        p->SetState(IPlayer::Paused);
        const size_t still = vcard_heard_frames();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(vcard_heard_frames(), still) << "sound after pause() returned";
        EXPECT_EQ(vcard_count_events("pause 1"), canPause);
        alsa_output_position at{};
        EXPECT_EQ(alsa_output_playing(&at), 0); // the media time the card stopped at
        EXPECT_NEAR(at.media_us / 1e6, double(still) / kRate, 0.03);
        p->SetState(IPlayer::Playing);
        ASSERT_TRUE(finished());
        EXPECT_TRUE(heard() == through) << heard().size() << " samples heard of " << through.size();
        TearDown();
        player_ = nullptr;
    }
}

// The next chapter after a natural end: the previous one's tail plays out, nothing is dropped.
TEST_F(AnswerAtOnce, TheNextTrackAfterAnEndDropsNothing) {
    IPlayer *p = play({"tone440_3s.mp3", "marked_3s.mp3"}, -1, 2.0);
    ASSERT_TRUE(wait_until([&] { return p->GetState() == IPlayer::Finished; }, 20000));
    p->HandlePlayerStateChanged();
    EXPECT_EQ(p->GetCurrentTrack(), 1);
    ASSERT_TRUE(finished());
    EXPECT_TRUE(drops().empty());
    EXPECT_EQ(heard().size(), vcard_captured_frames() * 2);
    EXPECT_GT(vcard_captured_frames(), size_t(5.5 * kRate));
}

} // namespace
