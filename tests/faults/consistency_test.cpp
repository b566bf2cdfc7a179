// State consistency found by the soak (tools/soak.sh): a position set while stopped must not
// outlive the media it was set on.
#include <gtest/gtest.h>

#include "IPlayer.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using tavrel::utilities::IPlayer;

IPlayer::Track track(const char *file) {
    IPlayer::Track t;
    t.filename = ae_test::media_path(file);
    return t;
}

TEST(PlayerConsistency, PositionStaysWithinTheOpenTrack) {
    vcard_set_speed(0);
    IPlayer *player = AudioEngine_CreatePlayer();
    player->SetPlayList({track("tone440_10s.mp3"), track("tone440_3s.wav")});
    ASSERT_EQ(player->PlayTrack(0, -1, false), 0);
    player->SetState(IPlayer::Stopped);
    player->SetTrackPosition(5);
    EXPECT_EQ(player->GetTrackPosition(), 5);
    // Another track opened without starting it: 3 s long.
    ASSERT_EQ(player->openFile(ae_test::media_path("tone440_3s.wav")), 0);
    EXPECT_EQ(player->GetTrackSize(), 3);
    EXPECT_LE(player->GetTrackPosition(), player->GetTrackSize());
    AudioEngine_DestroyPlayer(player);
    deinit_alsa_output();
    close_alsa_ex(0);
}

} // namespace
