// Playlist and navigation by mode, the shuffle order and the play queue.
#include "player_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>

namespace {

const auto kBadMode = static_cast<IPlayer::PlayMode>(7);

struct NavCase {
    const char *name;
    IPlayer::PlayMode mode;
    int n, start;        // playlist size; index played first, -1: the playing file left the list
    bool next;           // NextTrack, else PreviousTrack
    int current, starts; // GetCurrentTrack afterwards; tracks started by the call
};

void PrintTo(const NavCase &v, std::ostream *os) {
    *os << v.name;
}

const NavCase kNav[] = {
    {"RepeatTrackNext", IPlayer::RepeatTrack, 5, 2, true, 2, 1},
    {"RepeatTrackPrev", IPlayer::RepeatTrack, 5, 2, false, 2, 1},
    {"RepeatListNextAtEnd", IPlayer::RepeatList, 5, 4, true, 0, 1},
    {"RepeatListPrevAtStart", IPlayer::RepeatList, 5, 0, false, 4, 1},
    {"SequentialNextAtEnd", IPlayer::Sequential, 5, 4, true, 4, 0},
    {"SequentialPrevAtStart", IPlayer::Sequential, 5, 0, false, 0, 0},
    {"SequentialNext", IPlayer::Sequential, 5, 2, true, 3, 1},
    {"SequentialPrev", IPlayer::Sequential, 5, 2, false, 1, 1},
    {"BadModeNext", kBadMode, 5, 2, true, 2, 1},
    {"BadModePrev", kBadMode, 5, 2, false, 2, 1},
    {"GoneRepeatListNext", IPlayer::RepeatList, 5, -1, true, 0, 1},
    {"GoneSequentialNext", IPlayer::Sequential, 5, -1, true, 0, 1},
    {"GoneShuffleNext", IPlayer::Shuffle, 5, -1, true, 0, 1},
    {"GoneRepeatTrackNext", IPlayer::RepeatTrack, 5, -1, true, -1, 0},
    {"GoneRepeatListPrev", IPlayer::RepeatList, 5, -1, false, 4, 1},
    {"GoneSequentialPrev", IPlayer::Sequential, 5, -1, false, -1, 0},
    {"GoneShufflePrev", IPlayer::Shuffle, 5, -1, false, 0, 1},
    {"GoneRepeatTrackPrev", IPlayer::RepeatTrack, 5, -1, false, -1, 0},
    {"OneRepeatListPrev", IPlayer::RepeatList, 1, 0, false, 0, 2},
    {"OneSequentialPrev", IPlayer::Sequential, 1, 0, false, 0, 1},
    {"OneShufflePrev", IPlayer::Shuffle, 1, 0, false, 0, 2},
    {"OneRepeatTrackPrev", IPlayer::RepeatTrack, 1, 0, false, 0, 2},
    {"OneSequentialNext", IPlayer::Sequential, 1, 0, true, 0, 0},
};

// Plays `start` of `list`; start -1 plays a file that the list then loses.
void play_from(IPlayer *player, std::vector<Track> list, int start) {
    if (start < 0) {
        std::vector<Track> longer = media_list(static_cast<int>(list.size()) + 1);
        player->SetPlayList(longer);
        ASSERT_EQ(player->PlayTrack(static_cast<int>(list.size()), -1, false), 0);
    }
    player->SetPlayList(list);
    if (start >= 0) {
        ASSERT_EQ(player->PlayTrack(start, -1, false), 0);
    }
    ASSERT_EQ(player->GetCurrentTrack(), start);
}

class Navigation : public PlayerTest, public ::testing::WithParamInterface<NavCase> {};

TEST_P(Navigation, ByModeAtTheEnds) {
    const NavCase &c = GetParam();
    std::vector<Track> list = media_list(c.n);
    play_from(player, list, c.start);
    player->SetMode(c.mode);
    const std::string before = playing();
    const int changes = rec->trackChanged;
    c.next ? player->NextTrack() : player->PreviousTrack();
    EXPECT_EQ(player->GetCurrentTrack(), c.current);
    EXPECT_EQ(rec->trackChanged - changes, c.starts);
    EXPECT_EQ(playing(), c.starts > 0 ? list[c.current].filename : before);
    EXPECT_EQ(player->GetMode(), c.mode);
}

INSTANTIATE_TEST_SUITE_P(Player, Navigation, ::testing::ValuesIn(kNav),
                         [](const auto &info) { return std::string(info.param.name); });

using PlayerNavigation = PlayerTest;

TEST_F(PlayerNavigation, NewPlayerAndEmptyList) {
    EXPECT_EQ(player->GetCurrentTrack(), 0);
    EXPECT_EQ(player->GetMode(), IPlayer::Sequential);
    EXPECT_EQ(playing(), "");
    for (bool next : {true, false}) {
        player->SetPlayList(media_list(2));
        ASSERT_EQ(player->PlayTrack(1, -1, true), 0);
        player->SetPlayList({});
        EXPECT_NE(player->GetState(), IPlayer::Stopped) << "SetPlayList leaves playback alone";
        next ? player->NextTrack() : player->PreviousTrack();
        EXPECT_EQ(player->GetState(), IPlayer::Stopped);
    }
}

// Lookups take the first entry of a file; a replaced list keeps the playing file current.
TEST_F(PlayerNavigation, PlayingFileFollowedAcrossLists) {
    std::vector<Track> list = media_list(6);
    list.push_back(list[5]);
    player->SetPlayList(list);
    ASSERT_EQ(player->PlayTrack(6, -1, true), 0);
    EXPECT_EQ(player->GetCurrentTrack(), 6);
    std::swap(list[2], list[5]);
    player->SetPlayList(list);
    EXPECT_EQ(player->GetCurrentTrack(), 2);
    EXPECT_NE(player->GetState(), IPlayer::Stopped);
    player->EnqueueTrack(6);
    EXPECT_EQ(player->GetTrackEnqueueIndex(2), 0);
    player->NextTrack(); // the queued file, not the next index
    EXPECT_EQ(player->GetCurrentTrack(), 2);
    EXPECT_EQ(player->GetTrackEnqueueIndex(6), -1);
}

TEST_F(PlayerNavigation, FailuresLeaveTheCurrentTrack) {
    std::vector<Track> list = media_list(2);
    list.push_back(track_of(ae_test::tmp_path("player_no_such_file.wav")));
    list.push_back(track_of(ae_test::media_path("not_audio.mp3")));
    player->SetPlayList(list);
    ASSERT_EQ(player->PlayTrack(1, -1, true), 0);
    ae_test::LogCapture log;
    for (int index : {-1, 4, 2})
        EXPECT_EQ(player->PlayTrack(index, 0, false), -1) << index;
    EXPECT_NE(player->GetState(), IPlayer::Stopped) << "the engine was not touched";

    EXPECT_EQ(player->PlayTrack(3, 0, false), -1);
    EXPECT_EQ(player->GetState(), IPlayer::Stopped) << "the previous track was closed";
    EXPECT_EQ(player->openFile(ae_test::media_path("not_audio.mp3")), -1);
    EXPECT_EQ(player->openFile(list[0].filename), 0);
    EXPECT_EQ(player->GetState(), IPlayer::Stopped);
    EXPECT_EQ(player->GetCurrentTrack(), 1);
    EXPECT_EQ(playing(), list[1].filename);
    std::vector<std::string> own;
    for (const ae_test::LogEntry &e : log.entries()) {
        if (e.file == "audio-engine/src/player")
            own.push_back(std::to_string(e.level) + ":" + std::to_string(e.line) + ":" +
                          e.function + ":" + e.message);
    }
    EXPECT_EQ(own, (std::vector<std::string>{
                       "2:54:virtual int tavrel::player::Player::PlayTrack(int, int, bool): "
                       "err:[-1] ",
                       "2:39:virtual int tavrel::player::Player::openFile(const std::string "
                       "&): err:[-1] "}));
}

// --- Shuffle order -----------------------------------------------------------------------------

// The order drawn for `n` tracks with `seed`: indices by key rand() % n, ties in list order.
std::vector<int> expected_order(unsigned seed, int n) {
    srand(seed);
    std::vector<std::pair<unsigned, int>> keyed;
    for (int i = 0; i < n; ++i)
        keyed.emplace_back(static_cast<unsigned>(rand()) % n, i);
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<int> order;
    for (const auto &k : keyed)
        order.push_back(k.second);
    return order;
}

class ShuffleOrder : public PlayerTest, public ::testing::WithParamInterface<int> {};

// From outside the list NextTrack starts index 0, then both directions walk the seeded order
// with wrap, visiting every track once per turn.
TEST_P(ShuffleOrder, WalksTheSeededPermutation) {
    const int n = GetParam();
    play_from(player, media_list(n), -1);
    time_t before, after;
    do {
        before = time(nullptr);
        player->SetMode(IPlayer::Shuffle);
        after = time(nullptr);
    } while (before != after);
    const std::vector<int> order = expected_order(static_cast<unsigned>(before), n);
    player->NextTrack();
    ASSERT_EQ(player->GetCurrentTrack(), 0);
    const int at = static_cast<int>(std::find(order.begin(), order.end(), 0) - order.begin());
    for (int step = 1; step <= n; ++step) {
        player->NextTrack();
        EXPECT_EQ(player->GetCurrentTrack(), order[(at + step) % n]) << "step " << step;
    }
    for (int step = 1; step <= n; ++step) {
        player->PreviousTrack();
        EXPECT_EQ(player->GetCurrentTrack(), order[(at - step % n + n) % n]) << "step " << step;
    }
}

INSTANTIATE_TEST_SUITE_P(Player, ShuffleOrder, ::testing::Values(1, 2, 5, 13));

// --- Play queue --------------------------------------------------------------------------------

using PlayerQueue = PlayerTest;

TEST_F(PlayerQueue, EnqueueDequeueIndexAndPlaylistChanges) {
    std::vector<Track> list = media_list(6);
    player->SetPlayList(list);
    for (unsigned i : {3u, 5u, 3u, 1u, 6u})
        player->EnqueueTrack(i);
    player->DequeueTrack(6);
    player->DequeueTrack(3);
    const int expected[] = {-1, 2, -1, 1, -1, 0, -1}; // queue: 5 3 1
    for (unsigned i = 0; i < 7; ++i)
        EXPECT_EQ(player->GetTrackEnqueueIndex(i), expected[i]) << i;
    list.erase(list.begin() + 3);
    std::reverse(list.begin(), list.end()); // 5 4 2 1 0
    player->SetPlayList(list);
    EXPECT_EQ(player->GetTrackEnqueueIndex(0), 0);
    EXPECT_EQ(player->GetTrackEnqueueIndex(3), 1);
    player->SetPlayList({});
    player->SetPlayList(list);
    EXPECT_EQ(player->GetTrackEnqueueIndex(0), -1);
}

// The queue comes first in every mode, also at the end of the list; PreviousTrack ignores it.
TEST_F(PlayerQueue, ConsumedBeforeTheModeInEveryMode) {
    player->SetPlayList(media_list(6));
    for (int mode : {0, 1, 2, 3, 7}) {
        player->SetMode(static_cast<IPlayer::PlayMode>(mode));
        ASSERT_EQ(player->PlayTrack(5, -1, false), 0);
        player->EnqueueTrack(2);
        player->EnqueueTrack(4);
        player->PreviousTrack();
        player->NextTrack();
        EXPECT_EQ(player->GetCurrentTrack(), 2) << "mode " << mode;
        player->NextTrack();
        EXPECT_EQ(player->GetCurrentTrack(), 4) << "mode " << mode;
        EXPECT_EQ(player->GetTrackEnqueueIndex(4), -1);
    }
}

TEST_F(PlayerQueue, VanishedFileIsConsumedAndNothingStarts) {
    std::vector<Track> list = media_list(2);
    std::string doomed = ae_test::tmp_path("player_doomed.wav");
    std::filesystem::copy_file(list[0].filename, doomed,
                               std::filesystem::copy_options::overwrite_existing);
    list.push_back(track_of(doomed));
    player->SetPlayList(list);
    ASSERT_EQ(player->PlayTrack(1, -1, false), 0);
    player->EnqueueTrack(2);
    std::filesystem::remove(doomed);
    const int changes = rec->trackChanged;
    player->NextTrack();
    EXPECT_EQ(player->GetTrackEnqueueIndex(2), -1);
    EXPECT_EQ(player->GetCurrentTrack(), 1);
    EXPECT_EQ(rec->trackChanged, changes);
}

} // namespace
