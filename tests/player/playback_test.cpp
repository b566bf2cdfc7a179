// Track ends handed back through HandlePlayerStateChanged, transport, position, volume, filter
// settings, chapters, callbacks, and a soak of random calls.
#include "player_fixture.h"

#include <cmath>
#include <functional>
#include <random>

#include "mp_state.h"

namespace {

struct EndCase {
    const char *name;
    IPlayer::PlayMode mode;
    int start;
    std::vector<int> currents; // GetCurrentTrack after each track end
};

class EndOfTrack : public PlayerTest, public ::testing::WithParamInterface<EndCase> {};

// The middle track's decoding fails part-way; it ends like any other.
TEST_P(EndOfTrack, AdvancesOnTheApplicationsThread) {
    const EndCase &c = GetParam();
    std::vector<Track> list = media_list(2);
    list.insert(list.begin() + 1, track_of(ae_test::media_path("tone440_corrupt.mp3")));
    player->SetPlayList(list);
    player->SetMode(c.mode);
    ASSERT_EQ(player->PlayTrack(c.start, -1, false), 0);
    for (size_t i = 0; i < c.currents.size(); ++i) {
        ASSERT_TRUE(rec->pump()) << "track end " << i;
        EXPECT_EQ(player->GetCurrentTrack(), c.currents[i]) << "track end " << i;
    }
    if (c.mode == IPlayer::Sequential) {
        EXPECT_FALSE(rec->pump(500)) << "nothing follows the last track";
        EXPECT_EQ(player->GetState(), IPlayer::Finished);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Player, EndOfTrack,
    ::testing::Values(EndCase{"Sequential", IPlayer::Sequential, 0, {1, 2, 2}},
                      EndCase{"RepeatList", IPlayer::RepeatList, 1, {2, 0, 1, 2, 0}}),
    [](const auto &info) { return std::string(info.param.name); });

using PlayerTransport = RealTimeTest;

TEST_F(PlayerTransport, StatesToggleAndSeconds) {
    player->SetPlayList({track_of(ae_test::media_path("tone440_10s.mp3"))});
    player->TogglePlaying(); // current index -1: nothing to restart
    EXPECT_EQ(player->GetState(), IPlayer::Stopped);
    const struct {
        std::function<void()> act;
        IPlayer::PlayState after;
    } steps[] = {
        {[&] { player->SetState(IPlayer::Playing); }, IPlayer::Playing}, // starts the first
        {[&] { player->TogglePlaying(); }, IPlayer::Paused},
        {[&] { player->TogglePlaying(); }, IPlayer::Playing},
        {[&] { player->SetState(IPlayer::Paused); }, IPlayer::Paused},
        {[&] { player->SetState(static_cast<IPlayer::PlayState>(9)); }, IPlayer::Paused},
        {[&] { player->SetState(IPlayer::Playing); }, IPlayer::Playing},
        {[&] { player->SetState(IPlayer::Stopped); }, IPlayer::Stopped},
        {[&] { player->SetState(IPlayer::Playing); }, IPlayer::Stopped}, // file still open
        {[&] { player->TogglePlaying(); }, IPlayer::Playing},            // restarts it
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].act();
        EXPECT_EQ(player->GetState(), steps[i].after) << "step " << i;
    }
    EXPECT_EQ(player->GetCurrentTrack(), 0);
    EXPECT_EQ(player->GetTrackSize(), 10);
    EXPECT_LT(player->GetTrackPosition(), 2);

    ASSERT_EQ(player->PlayTrack(0, 6, true), 0);
    EXPECT_EQ(player->GetState(), IPlayer::Paused);
    EXPECT_EQ(player->GetTrackPosition(), 6);
    player->SetTrackPosition(-3); // no seek
    EXPECT_EQ(player->GetTrackPosition(), 6);
    player->SetTrackPosition(9);
    EXPECT_EQ(player->GetTrackPosition(), 9);
    player->SetState(IPlayer::Playing);
    ASSERT_TRUE(ae_test::wait_until([&] { return player->GetState() == IPlayer::Finished; }, 5000));
    EXPECT_EQ(player->GetTrackPosition(), 10);
    player->TogglePlaying();
    player->SetState(IPlayer::Playing);
    EXPECT_EQ(player->GetState(), IPlayer::Finished);
}

// A player destroyed while its track plays, or after it ended without a stop, stops and joins.
TEST_F(PlayerTransport, DestroyWhilePlayingOrFinished) {
    for (int position : {0, 9}) {
        IPlayer *other = AudioEngine_CreatePlayer();
        other->SetPlayList({track_of(ae_test::media_path("tone440_10s.mp3"))});
        ASSERT_EQ(other->PlayTrack(0, position, false), 0);
        EXPECT_TRUE(
            position == 0 ||
            ae_test::wait_until([&] { return other->GetState() == IPlayer::Finished; }, 5000));
        AudioEngine_DestroyPlayer(other);
    }
    AudioEngine_DestroyPlayer(nullptr);
}

TEST_F(PlayerTest, VolumeTempoAndRate) {
    EXPECT_EQ(player->GetMaxVolume(), 100);
    for (int hidden : {0, 1}) { // a player made while the mixer is missing cannot set it
        vcard_hide_mixer(hidden);
        vcard_set_mixer_value(0);
        IPlayer *other = AudioEngine_CreatePlayer();
        other->SetVolume(35 + hidden);
        EXPECT_EQ(other->GetVolume(), 35 + hidden);
        EXPECT_EQ(mp_control_volume(), 35 + hidden);
        EXPECT_EQ(vcard_mixer_value() > 0, !hidden);
        AudioEngine_DestroyPlayer(other);
    }
    vcard_hide_mixer(0);

    const double nan = std::nan("");
    const struct {
        bool tempo;
        double value, read;
    } cases[] = {{true, 0.25, 0.25}, {true, 4.0, 4.0},  {true, 0.2, 1.5}, {true, 4.5, 1.5},
                 {true, nan, 1.5},   {false, 0.5, 0.5}, {false, 2.0, 2},  {false, 0.49, 1.5},
                 {false, 2.01, 1.5}, {false, nan, 1.5}};
    for (const auto &c : cases) {
        // From 1.5, so that a refused value shows as kept, not as reset to 1.
        player->setTempo(1.5);
        player->setSampleRateMultiplier(1.5);
        c.tempo ? player->setTempo(c.value) : player->setSampleRateMultiplier(c.value);
        EXPECT_EQ(c.tempo ? player->getTempo() : player->getSampleRateMultiplier(), c.read)
            << (c.tempo ? "tempo " : "rate ") << c.value;
    }
}

TEST_F(PlayerTest, ChaptersWithIndicesAndEmptyTitles) {
    ASSERT_EQ(player->openFile(AE_PLAYER_CHAPTERS_FILE), 0);
    EXPECT_EQ(player->getMetadata()["title"], "Book");
    const auto chapters = player->getChapters();
    ASSERT_EQ(chapters.size(), 3u);
    const char *titles[] = {"Opening", "", "Closing"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(chapters[i].index, i);
        EXPECT_EQ(chapters[i].filename, "");
        EXPECT_EQ(chapters[i].title, titles[i]);
        EXPECT_EQ(chapters[i].start, 1000 * i);
        EXPECT_EQ(chapters[i].end, 1000 * (i + 1));
    }
    ASSERT_EQ(player->openFile(ae_test::media_path("tone440_3s.wav")), 0);
    EXPECT_TRUE(player->getChapters().empty());
}

TEST_F(PlayerTest, DetachedCallbackObjectHearsNothing) {
    player->setCb(nullptr);
    player->SetPlayList(media_list(2));
    ASSERT_EQ(player->PlayTrack(0, -1, false), 0);
    ASSERT_TRUE(ae_test::wait_until([&] { return player->GetState() == IPlayer::Finished; }, 5000));
    player->HandlePlayerStateChanged();
    EXPECT_EQ(player->GetCurrentTrack(), 1);
    player->SetState(IPlayer::Stopped);
    EXPECT_EQ(rec->trackChanged + rec->stateChanged + rec->positionChanged, 0);
}

// Thousands of random calls on short files at a fast card, track ends handed back between
// them; half the players are destroyed while they play. Bounded to about 40 s.
TEST(PlayerSoak, RandomCallsWithTrackEnds) {
    vcard_set_speed(0);
    std::vector<Track> files = media_list(8);
    files.push_back(track_of(ae_test::media_path("tone440_corrupt.mp3")));
    files.push_back(track_of(ae_test::tmp_path("player_soak_missing.wav")));
    std::mt19937 rng(20240611u);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    auto playlist = [&] {
        std::vector<Track> list = files;
        std::shuffle(list.begin(), list.end(), rng);
        list.resize(pick(0, 3) == 0 ? pick(0, 2) : pick(3, 10));
        return list;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    int calls = 0;
    for (int round = 0; round < 4 && std::chrono::steady_clock::now() < deadline; ++round) {
        IPlayer *p = AudioEngine_CreatePlayer();
        Recorder rec(p);
        p->setCb(&rec);
        const std::function<void()> ops[] = {
            [&] { p->PlayTrack(pick(-1, 11), pick(-1, 2), pick(0, 99) == 0); },
            [&] { p->NextTrack(); },
            [&] { p->PreviousTrack(); },
            [&] { p->TogglePlaying(); },
            [&] { p->SetState(static_cast<IPlayer::PlayState>(pick(0, 4))); },
            [&] { p->SetTrackPosition(pick(-2, 4)); },
            [&] { p->SetMode(static_cast<IPlayer::PlayMode>(pick(0, 4))); },
            [&] { p->setTempo(pick(0, 50) / 10.0); },
            [&] { p->setSampleRateMultiplier(pick(0, 25) / 10.0); },
            [&] { p->EnqueueTrack(pick(0, 11)); },
            [&] { p->DequeueTrack(pick(0, 11)); },
            [&] { p->SetPlayList(playlist()); },
            [&] {
                p->setEqualizerSettings({{pick(20, 16000), pick(-12, 12)}});
            },
            [&] { p->SetVolume(pick(0, 100)); },
            [&] { p->setCb(pick(0, 3) == 0 ? nullptr : &rec); },
            [&] { p->getChapters(), p->getMetadata(), p->getCover(), p->GetPlayingTrack(); },
            [&] {
                EXPECT_GE(p->GetTrackPosition() + p->GetTrackSize(), 0);
                EXPECT_GE(p->GetCurrentTrack(), -1);
                EXPECT_LE(p->GetTrackEnqueueIndex(pick(0, 11)), calls);
            },
            [&] { rec.pump(20); },
        };
        for (int i = 0; i < 1000 && std::chrono::steady_clock::now() < deadline; ++i, ++calls) {
            ops[pick(0, static_cast<int>(std::size(ops)) - 1)]();
            while (rec.pump(0)) {
            }
        }
        if (round % 2 == 0)
            p->SetState(IPlayer::Stopped);
        AudioEngine_DestroyPlayer(p);
    }
    EXPECT_GE(calls, 1000) << "too slow to soak";
    deinit_alsa_output();
    close_alsa_ex(0);
}

} // namespace
