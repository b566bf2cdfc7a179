// Opening and closing the PCM device directly: rates, reopening, drain or drop, pause. (Busy and
// missing devices are rows of the fault matrix.)
#include "output_fixture.h"

namespace {

class DeviceTest : public OutputTest {};

TEST_F(DeviceTest, RateRules) {
    ae_test::LogCapture log;
    ASSERT_EQ(open_alsa(-1), 1);
    EXPECT_EQ(vcard_count_events("open 44100"), 1) << "a negative rate means 44100 Hz";
    EXPECT_EQ(is_alsa_opened(), 1);

    ASSERT_EQ(open_alsa(96000), 1);
    EXPECT_EQ(vcard_count_events("open 96000"), 1);
    EXPECT_EQ(log.count("close alsa in open alsa"), 1) << "the open device was closed first";

    EXPECT_EQ(open_alsa(96001), 0);
    EXPECT_EQ(log.count("Can`t play! Bad sample rate = 96001"), 1);
    EXPECT_EQ(is_alsa_opened(), 0);
    EXPECT_EQ(vcard_is_open(), 0) << "the refused open leaves no handle behind";
}

TEST_F(DeviceTest, CloseDrainsOrDropsAndIsANoOpWhenClosed) {
    ae_test::LogCapture log;
    EXPECT_EQ(close_alsa(), 0);
    EXPECT_EQ(close_alsa_ex(0), 0);
    EXPECT_EQ(log.lines().size(), 0u) << "closing a closed device logs nothing";

    ASSERT_EQ(open_alsa_ex("mpd_sm", 44100), 1);
    EXPECT_EQ(close_alsa(), 1);
    EXPECT_EQ(vcard_count_events("drain"), 1);
    ASSERT_EQ(open_alsa_ex("mpd_sm", 44100), 1);
    EXPECT_EQ(close_alsa_ex(0), 1);
    EXPECT_EQ(vcard_count_events("drop"), 1);
    EXPECT_EQ(vcard_count_events("close"), 2);
    EXPECT_EQ(log.count("alsa is closed!!!"), 2);
    EXPECT_EQ(vcard_is_open(), 0);
}

// A log line names the operation it belongs to (the exported call or the play thread), not
// whichever internal helper wrote it: that is where someone reading the device log looks.
TEST_F(DeviceTest, LogLinesNameTheOperationTheyBelongTo) {
    ae_test::LogCapture log;
    EXPECT_EQ(open_alsa(96001), 0);
    ASSERT_EQ(open_alsa(44100), 1);
    EXPECT_EQ(close_alsa(), 1);
    ASSERT_EQ(init_alsa_output(), 0);
    push(22050, 1024, 1);
    ASSERT_TRUE(ae_test::wait_until([] { return is_alsa_opened() == 1; }, 5000));

    int checked = 0;
    for (const ae_test::LogEntry &e : log.entries()) {
        if (e.message.find("Bad sample rate") != std::string::npos ||
            e.message.rfind("buffer_size", 0) == 0 || e.message.rfind("period_size", 0) == 0) {
            EXPECT_EQ(e.function, "open_alsa_ex") << e.message;
            ++checked;
        } else if (e.message == "close_alsa" || e.message == "alsa is closed!!!") {
            EXPECT_EQ(e.function, "close_alsa_ex") << e.message;
            ++checked;
        } else if (e.message.rfind("Our samplerate is", 0) == 0) {
            EXPECT_EQ(e.function, "play_proc") << e.message;
            ++checked;
        }
    }
    EXPECT_GE(checked, 7) << log.dump();
}

TEST_F(DeviceTest, PauseReachesAnOpenDeviceOnly) {
    EXPECT_EQ(pause_alsa(1), 0);
    EXPECT_EQ(vcard_count_events("pause"), 0) << "no device, nothing to pause";

    // Real-time pacing keeps the device running while we pause and resume it.
    vcard_set_speed(1.0);
    ASSERT_EQ(init_alsa_output(), 0);
    for (int i = 0; i < 3; ++i)
        push(44100, ABUF_PIECE_MAX_FRAMES, i);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_captured_frames() > 0; }, 5000));
    EXPECT_EQ(pause_alsa(1), 0);
    EXPECT_EQ(pause_alsa(0), 0);
    EXPECT_EQ(vcard_count_events("pause 1"), 1);
    EXPECT_EQ(vcard_count_events("pause 0"), 1);
}

} // namespace
