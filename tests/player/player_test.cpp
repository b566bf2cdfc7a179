// The playlist player through IPlayer, over a real engine playing on the virtual card.
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "IPlayer.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using tavrel::utilities::IPlayer;
using Track = IPlayer::Track;

// Counts events. A track end seen on the play thread is posted to the application's thread (the
// test's), which hands it back with pump(), as an application's event loop does.
struct Recorder : tavrel::utilities::PlayerCb {
    explicit Recorder(IPlayer *p) : player(p) {}
    void OnTrackChanged() override { ++trackChanged; }
    void OnPositionChanged() override {}
    void OnStateChanged() override {
        posted += std::this_thread::get_id() != app && player->GetState() == IPlayer::Finished;
    }
    bool pump(int timeout_ms = 5000) {
        if (!ae_test::wait_until([&] { return posted > 0; }, timeout_ms))
            return false;
        --posted;
        player->HandlePlayerStateChanged();
        return true;
    }
    IPlayer *player;
    const std::thread::id app = std::this_thread::get_id();
    std::atomic<int> trackChanged{0}, posted{0};
};

// Up to 8 tracks of distinct short files, then tracks of the paths in `more`.
std::vector<Track> media_list(size_t n, const std::vector<std::string> &more = {}) {
    static const char *const names[] = {"tone440_3s.wav",   "tone440_3s.flac",    "tone440_3s.ogg",
                                        "tone440_3s.mp3",   "tone1000_3s.wav",    "tone100_3s.wav",
                                        "known_pcm_1s.wav", "tone440_3s_mono.wav"};
    std::vector<Track> list(n + more.size());
    for (size_t i = 0; i < list.size(); ++i)
        list[i].filename = i < n ? ae_test::media_path(names[i]) : more[i - n];
    return list;
}

class Player : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        player = AudioEngine_CreatePlayer();
        rec.player = player;
        player->setCb(&rec);
    }
    void TearDown() override {
        AudioEngine_DestroyPlayer(player);
        deinit_alsa_output(); // the next test opens the device afresh, at its own speed
        close_alsa_ex(0);
    }

    IPlayer *player = nullptr;
    Recorder rec{nullptr};
};

TEST_F(Player, NextAndPreviousByModeAtTheEndsOfTheList) {
    // Mode (7: unknown); list size; index played first (-1: a file the list then lost); Next (1) or
    // Previous (0); the current track afterwards; how many tracks the call started.
    const std::tuple<int, int, int, bool, int, int> rows[] = {
        {0, 5, 2, 1, 2, 1},  {0, 5, 2, 0, 2, 1},   {1, 5, 4, 1, 0, 1},  {1, 5, 0, 0, 4, 1},
        {2, 5, 4, 1, 4, 0},  {2, 5, 0, 0, 0, 0},   {2, 5, 2, 1, 3, 1},  {2, 5, 2, 0, 1, 1},
        {7, 5, 2, 1, 2, 1},  {1, 5, -1, 1, 0, 1},  {3, 5, -1, 1, 0, 1}, {0, 5, -1, 1, -1, 0},
        {1, 5, -1, 0, 4, 1}, {2, 5, -1, 0, -1, 0}, {3, 5, -1, 0, 0, 1}, {1, 1, 0, 0, 0, 2},
        {2, 1, 0, 0, 0, 1},  {0, 1, 0, 0, 0, 2},   {2, 1, 0, 1, 0, 0}};
    for (const auto &[mode, n, start, next, current, starts] : rows) {
        SCOPED_TRACE(::testing::Message() << mode << " " << n << " " << start << " " << next);
        player->SetPlayList(media_list(start < 0 ? n + 1 : n));
        ASSERT_EQ(player->PlayTrack(start < 0 ? n : start, -1, false), 0);
        player->SetPlayList(media_list(n)); // -1: the file that plays is no longer listed
        player->SetMode(static_cast<IPlayer::PlayMode>(mode));
        const int changes = rec.trackChanged;
        next ? player->NextTrack() : player->PreviousTrack();
        EXPECT_EQ(player->GetCurrentTrack(), current);
        EXPECT_EQ(rec.trackChanged - changes, starts);
    }
}

// Queued files come first in every mode, even at the end of the list; Previous ignores them. The
// queue holds files; a new list keeps the playing file current; an empty one stops the next move.
TEST_F(Player, PlayNextQueueAndPlaylistChanges) {
    std::vector<Track> list = media_list(6);
    player->SetPlayList(list);
    for (int mode : {0, 1, 2, 3, 7}) {
        player->SetMode(static_cast<IPlayer::PlayMode>(mode));
        ASSERT_EQ(player->PlayTrack(5, -1, false), 0); // the last
        player->EnqueueTrack(1);
        player->EnqueueTrack(3);
        player->PreviousTrack();
        player->NextTrack();
        EXPECT_EQ(player->GetCurrentTrack(), 1) << mode;
        player->NextTrack();
        EXPECT_EQ(player->GetCurrentTrack(), 3) << mode;
    }
    list.push_back(list[4]);
    player->SetPlayList(list);
    ASSERT_EQ(player->PlayTrack(6, -1, true), 0);
    std::swap(list[2], list[4]); // 0 1 4 3 2 5 4
    player->SetPlayList(list);
    EXPECT_EQ(player->GetCurrentTrack(), 2);
    player->EnqueueTrack(6);
    EXPECT_EQ(player->GetTrackEnqueueIndex(2), 0);
    player->NextTrack(); // the queued file, not the next index
    EXPECT_EQ(player->GetCurrentTrack(), 2);
    for (bool next : {true, false}) {
        player->SetPlayList({});
        EXPECT_NE(player->GetState(), IPlayer::Stopped);
        next ? player->NextTrack() : player->PreviousTrack();
        EXPECT_EQ(player->GetState(), IPlayer::Stopped);
        player->SetPlayList(list);
        ASSERT_EQ(player->PlayTrack(1, -1, true), 0);
    }
    for (unsigned i : {3u, 5u, 3u, 1u, 7u}) // 7: no such track
        player->EnqueueTrack(i);
    player->DequeueTrack(7);
    player->DequeueTrack(3);                          // the first of the two
    const int expected[] = {-1, 2, -1, 1, -1, 0, -1}; // queue: 5 3 1
    for (unsigned i = 0; i < 7; ++i)
        EXPECT_EQ(player->GetTrackEnqueueIndex(i), expected[i]) << i;
}

// Tracks out of the list or whose file is gone are refused without touching playback; a file the
// engine cannot open stops it. Either way the current track stays.
TEST_F(Player, FailedStartsLeaveTheCurrentTrack) {
    const std::vector<Track> list = media_list(
        2, {ae_test::tmp_path("player_no_such_file.wav"), ae_test::media_path("not_audio.mp3")});
    player->SetPlayList(list);
    ASSERT_EQ(player->PlayTrack(1, -1, true), 0);
    for (int index : {-1, 4, 2})
        EXPECT_EQ(player->PlayTrack(index, 0, false), -1) << index;
    EXPECT_NE(player->GetState(), IPlayer::Stopped);
    EXPECT_EQ(player->PlayTrack(3, 0, false), -1);
    EXPECT_EQ(player->GetState(), IPlayer::Stopped);
    EXPECT_EQ(player->GetCurrentTrack(), 1);
    EXPECT_EQ(player->GetPlayingTrack().filename, list[1].filename);
}

// A track end, handed back on the application's thread, moves the player on, also past a track
// whose decoding fails part-way.
TEST_F(Player, TrackEndsAdvanceOnTheApplicationsThread) {
    player->SetPlayList(media_list(2, {ae_test::media_path("tone440_corrupt.mp3")}));
    const std::tuple<IPlayer::PlayMode, int, std::vector<int>> rows[] = {
        {IPlayer::Sequential, 0, {1, 2, 2}}, {IPlayer::RepeatList, 1, {2, 0, 1, 2, 0}}};
    for (const auto &[mode, start, currents] : rows) {
        player->SetMode(mode);
        ASSERT_EQ(player->PlayTrack(start, -1, false), 0);
        for (int current : currents) {
            ASSERT_TRUE(rec.pump()) << mode;
            EXPECT_EQ(player->GetCurrentTrack(), current) << mode;
        }
        EXPECT_FALSE(mode == IPlayer::Sequential && rec.pump(500)) << "past the last track";
    }
}

// Chapters keep their order and indices, untitled ones too; a file without any has none.
TEST_F(Player, ChaptersOfTheOpenFile) {
    ASSERT_EQ(player->openFile(AE_PLAYER_CHAPTERS_FILE), 0);
    const auto chapters = player->getChapters();
    ASSERT_EQ(chapters.size(), 3u);
    const char *titles[] = {"Opening", "", "Closing"};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(
            std::tie(chapters[i].index, chapters[i].title, chapters[i].start, chapters[i].end),
            std::make_tuple(i, std::string(titles[i]), 1000 * i, 1000 * i + 1000));
    ASSERT_EQ(player->openFile(ae_test::media_path("tone440_3s.wav")), 0);
    EXPECT_TRUE(player->getChapters().empty());
}

// Random calls racing the play thread, track ends handed back between them; half the players are
// destroyed while they play. Bounded to about 40 s.
TEST_F(Player, SoakOfRandomCallsWithTrackEnds) {
    const std::vector<Track> files = media_list(8, {ae_test::media_path("tone440_corrupt.mp3"),
                                                    ae_test::tmp_path("player_soak_missing.wav")});
    std::mt19937 rng(20240611u);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    for (int round = 0; round < 4; ++round) {
        IPlayer *p = AudioEngine_CreatePlayer();
        Recorder rec(p);
        p->setCb(&rec);
        const std::function<void()> ops[] = {
            [&] { p->PlayTrack(pick(-1, 11), pick(-1, 2), pick(0, 99) == 0); },
            [&] { pick(0, 1) ? p->NextTrack() : p->PreviousTrack(); },
            [&] { pick(0, 1) ? p->TogglePlaying() : p->SetState(IPlayer::PlayState(pick(0, 4))); },
            [&] { p->SetTrackPosition(pick(-2, 4)); },
            [&] { p->SetMode(IPlayer::PlayMode(pick(0, 4))); },
            [&] { p->setTempo(pick(0, 50) / 10.0); },
            [&] { pick(0, 1) ? p->EnqueueTrack(pick(0, 11)) : p->DequeueTrack(pick(0, 11)); },
            [&] { p->SetPlayList(std::vector<Track>(files.begin() + pick(0, 10), files.end())); },
            [&] { p->SetVolume(pick(0, 100)); },
            [&] { p->setCb(pick(0, 3) ? &rec : nullptr); },
            [&] { rec.pump(20); }};
        for (int i = 0; i < 1000 && std::chrono::steady_clock::now() < deadline; ++i) {
            ops[pick(0, static_cast<int>(std::size(ops)) - 1)]();
            while (rec.pump(0))
                continue;
        }
        if (round % 2 == 0)
            p->SetState(IPlayer::Stopped);
        AudioEngine_DestroyPlayer(p);
    }
}

} // namespace
