// The play thread on the virtual card: lazy open, rate changes, idle close, failures, and
// what reaches the device.
#include <cerrno>

#include "output_fixture.h"

namespace {

class PlayThreadTest : public OutputTest {};

TEST_F(PlayThreadTest, CapturedAudioIsByteIdenticalToWhatWasPushed) {
    ASSERT_EQ(init_alsa_output(), 0);
    std::vector<int16_t> expected;
    const int sizes[] = {4608, 1, 1000, 4607, 4608, 2, 333, 4608};
    int seed = 0;
    for (int frames : sizes) {
        auto samples = push(44100, frames, ++seed);
        expected.insert(expected.end(), samples.begin(), samples.end());
    }
    ASSERT_TRUE(wait_captured(expected.size() / 2));
    EXPECT_EQ(captured(), expected);
}

TEST_F(PlayThreadTest, PieceClaimingMoreThanItHoldsIsPlayedOnlyUpToItsSize) {
    ASSERT_EQ(init_alsa_output(), 0);
    abuf_piece *piece = next_piece();
    fill(piece, 44100, ABUF_PIECE_MAX_FRAMES, 3);
    auto expected = samples_of(piece, ABUF_PIECE_MAX_FRAMES);
    piece->frames = 100000;
    ASSERT_EQ(push_output_buffer(piece), 0);
    ASSERT_TRUE(wait_captured(ABUF_PIECE_MAX_FRAMES));
    ASSERT_TRUE(ae_test::wait_until([] { return get_output_buffer() != nullptr; }, 5000));
    EXPECT_EQ(captured(), expected);
}

TEST_F(PlayThreadTest, FirstPieceOpensAtItsRateAndARateChangeDrainsAndReopens) {
    ASSERT_EQ(init_alsa_output(), 0);
    push(22050, 2000, 1);
    ASSERT_TRUE(wait_captured(2000));
    EXPECT_EQ(is_alsa_opened(), 1);
    push(48000, 2000, 2);
    ASSERT_TRUE(wait_captured(4000));

    std::string log = events();
    auto first_open = log.find("open 22050");
    auto drain = log.find("drain");
    auto second_open = log.find("open 48000");
    ASSERT_NE(first_open, std::string::npos) << log;
    ASSERT_NE(second_open, std::string::npos) << log;
    EXPECT_EQ(log.substr(0, first_open).find("close"), std::string::npos)
        << "nothing was open before the first piece";
    ASSERT_NE(drain, std::string::npos) << log;
    EXPECT_LT(first_open, drain);
    EXPECT_LT(drain, second_open);
    EXPECT_EQ(vcard_count_events("drop"), 0) << log;
}

TEST_F(PlayThreadTest, IdleSecondClosesWithDropAndTheNextPieceRestoresTheUserVolume) {
    ae_test::LogCapture log;
    vcard_set_mixer_range(0, 255);
    mp_control_set_volume(20);
    ASSERT_EQ(init_alsa_output(), 0);
    push(44100, 1000, 1);
    ASSERT_TRUE(wait_captured(1000));
    EXPECT_EQ(vcard_mixer_value(), 51);

    // No audio for a second: the device closes discarding what is queued.
    ASSERT_TRUE(ae_test::wait_until([] { return is_alsa_opened() == 0; }, 4000));
    EXPECT_EQ(log.count("close alsa on timeout"), 1);
    EXPECT_EQ(vcard_count_events("drop"), 1);
    EXPECT_EQ(vcard_count_events("drain"), 0);
    EXPECT_EQ(AlsaMixerSetVolume(10), -1) << "the mixer was destroyed with the device";

    // Someone changed the volume meanwhile; the next piece reopens and reapplies it.
    mp_control_set_volume(50);
    vcard_set_mixer_value(0);
    push(44100, 1000, 2);
    ASSERT_TRUE(wait_captured(2000));
    EXPECT_EQ(vcard_count_events("open 44100"), 2);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_mixer_value() == 127; }, 2000));
    EXPECT_EQ(AlsaMixerSetVolume(100), 0) << "the mixer was opened again";
}

TEST_F(PlayThreadTest, UnderrunDropsOnlyThePieceThatHitItAndPlayingGoesOn) {
    ae_test::LogCapture log;
    ASSERT_EQ(init_alsa_output(), 0);
    vcard_fail_write_after(-EPIPE, 1000);
    auto first = push(44100, 1000, 1);
    auto lost = push(44100, 1000, 2);
    auto third = push(44100, 1000, 3);
    auto fourth = push(44100, 1000, 4);
    ASSERT_TRUE(wait_captured(3000));
    ASSERT_TRUE(ae_test::wait_until([] { return get_output_buffer() != nullptr; }, 2000));

    std::vector<int16_t> expected = first;
    expected.insert(expected.end(), third.begin(), third.end());
    expected.insert(expected.end(), fourth.begin(), fourth.end());
    EXPECT_EQ(captured(), expected);
    EXPECT_EQ(log.count("underrun occurred"), 1);
    EXPECT_EQ(alsa_output_working(), 1);
}

TEST_F(PlayThreadTest, DeviceGoneStopsTheLayerUntilItIsReset) {
    ae_test::LogCapture log;
    ASSERT_EQ(init_alsa_output(), 0);
    vcard_fail_write_after(-ENODEV, 1000);
    push(44100, 1000, 1);
    push(44100, 1000, 2);
    ASSERT_TRUE(ae_test::wait_until([] { return alsa_output_working() == 0; }, 5000));
    EXPECT_EQ(log.count("No device"), 2);
    ASSERT_TRUE(ae_test::wait_until([] { return is_alsa_opened() == 0; }, 5000));

    // Both pieces were taken off the ring (the second one met the fault): one is free again.
    abuf_piece *piece = get_output_buffer();
    ASSERT_NE(piece, nullptr);
    fill(piece, 44100, 10, 3);
    EXPECT_EQ(push_output_buffer(piece), -19);
    EXPECT_EQ(init_alsa_output(), 1) << "the finished thread is still registered";
    EXPECT_EQ(deinit_alsa_output(), 0);

    // After the reset the layer works again (the virtual device is back).
    vcard_setup();
    ASSERT_EQ(init_alsa_output(), 0);
    auto samples = push(44100, 500, 4);
    ASSERT_TRUE(wait_captured(500));
    EXPECT_EQ(captured(), samples);
}

TEST_F(PlayThreadTest, StopWhileWaitingForAudioEndsPromptly) {
    ae_test::LogCapture log;
    ASSERT_EQ(init_alsa_output(), 0);
    push(44100, 1000, 1);
    ASSERT_TRUE(wait_captured(1000));
    // Device open and the thread in its timed wait: deinit wakes it at once, so the thread
    // closes the device on its way out, not on the idle timeout.
    EXPECT_EQ(deinit_alsa_output(), 0);
    EXPECT_EQ(is_alsa_opened(), 0);
    EXPECT_EQ(vcard_count_events("drop"), 1);
    EXPECT_EQ(log.count("close alsa on timeout"), 0) << log.dump();
    EXPECT_EQ(log.count("close alsa on loop exit"), 1) << log.dump();
}

} // namespace
