// The ring of three pieces as the producer sees it, before and after the play thread runs.
#include "output_fixture.h"

namespace {

class RingTest : public OutputTest {};

TEST_F(RingTest, HandsOutTheSamePieceUntilItIsPushedThenRunsFullAfterTwo) {
    // No play thread yet: nothing is released, so two pushes fill the ring.
    abuf_piece *first = get_output_buffer();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(get_output_buffer(), first);
    fill(first, 44100, 16, 1);
    EXPECT_EQ(push_output_buffer(first), 0);

    abuf_piece *second = get_output_buffer();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(push_output_buffer(second), 0);
    EXPECT_EQ(get_output_buffer(), nullptr);
}

TEST_F(RingTest, WrongOrUnavailablePieceIsRefusedAndLeavesTheRingAlone) {
    ae_test::LogCapture log;
    abuf_piece *expected = get_output_buffer();
    abuf_piece stray{};
    EXPECT_EQ(push_output_buffer(&stray), -1);
    EXPECT_EQ(push_output_buffer(nullptr), -1);
    EXPECT_EQ(get_output_buffer(), expected);
    EXPECT_EQ(log.count("wrong buffer"), 2);

    ASSERT_EQ(push_output_buffer(expected), 0);
    abuf_piece *second = get_output_buffer();
    ASSERT_EQ(push_output_buffer(second), 0);
    // Full ring: even the piece pushed first is refused now, and so is a null piece (which
    // is what get_output_buffer answers): neither may wrap the write index onto the reader.
    EXPECT_EQ(push_output_buffer(expected), -1);
    EXPECT_EQ(push_output_buffer(nullptr), -1);
    EXPECT_EQ(get_output_buffer(), nullptr);
    EXPECT_EQ(log.count("wrong buffer"), 4);
}

TEST_F(RingTest, StartAndStopAnswerOnceAndPushesFailAfterStop) {
    EXPECT_EQ(deinit_alsa_output(), 1);
    ASSERT_EQ(init_alsa_output(), 0);
    EXPECT_EQ(init_alsa_output(), 1);
    EXPECT_EQ(alsa_output_working(), 1);
    EXPECT_EQ(deinit_alsa_output(), 0);
    EXPECT_EQ(deinit_alsa_output(), 1);

    EXPECT_EQ(alsa_output_working(), 0);
    abuf_piece *piece = get_output_buffer();
    ASSERT_NE(piece, nullptr) << "the reset ring has a free piece";
    fill(piece, 44100, 16, 1);
    EXPECT_EQ(push_output_buffer(piece), -19);

    // Starting again clears the stop.
    ASSERT_EQ(init_alsa_output(), 0);
    EXPECT_EQ(alsa_output_working(), 1);
    EXPECT_EQ(push_output_buffer(piece), 0);
}

TEST_F(RingTest, DeviceNameIsCutToItsBufferAndSelectsTheDeviceOfTheNextOpen) {
    std::string long_name(1500, 'x');
    char *stored = set_alsa_device_name(long_name.c_str());
    EXPECT_EQ(std::strlen(stored), 1023u);
    EXPECT_EQ(std::string(stored), long_name.substr(0, 1023));

    // A short name after a long one replaces it whole.
    EXPECT_STREQ(set_alsa_device_name("null"), "null");
    ASSERT_EQ(init_alsa_output(), 0);
    push(44100, 1024, 1);
    ASSERT_TRUE(ae_test::wait_until([] { return is_alsa_opened() == 1; }, 5000));
    EXPECT_EQ(vcard_count_events("open "), 0) << "the null device took the audio";
}

} // namespace
