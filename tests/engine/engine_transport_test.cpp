// Transport and notifications: the order and thread of every state, position and error
// notification, seeks in each state, the platform's media-player state, a device that goes away
// while playing, and transport hammered while the play thread runs.
//
// No assertion depends on how fast the machine is: the card either consumes at once or plays a
// few times faster than real time, and every wait is for an observable event with a generous
// timeout.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <regex>
#include <ostream>
#include <string>
#include <vector>

#include "engine_fixture.h"

namespace engine_test {
namespace {

using ae_test::LogCapture;
using ae_test::media_path;
using ae_test::wait_until;

bool endsWith(const std::string &s, const std::string &tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

class EngineTransportTest : public EngineTest {
protected:
    // Starts `file` on a card playing `speed` times faster than real time and waits until audio
    // reaches the card.
    void startPlaying(const std::string &file, double speed) {
        vcard_set_speed(speed);
        ASSERT_EQ(engine_->openFile(media_path(file)), 0);
        ASSERT_EQ(engine_->start(), 0);
        ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > 0; }, 10000));
    }
};

TEST_F(EngineTransportTest, FreshEngine) {
    AudioEngine_DestroyAudioEngine(nullptr);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->getDurationMs(), 0);
    EXPECT_EQ(engine_->getTempo(), 1.0);
    EXPECT_EQ(engine_->getSampleRateMultiplier(), 1.0);
    EXPECT_EQ(engine_->getCover(), nullptr);

    LogCapture log;
    EXPECT_EQ(engine_->start(), -1);
    EXPECT_TRUE(log.contains(2, "File is not opened"));
    EXPECT_EQ(engine_->pause(), 0);
    EXPECT_EQ(engine_->resume(), 0);
    EXPECT_EQ(engine_->seekStream(1000), 0);
    EXPECT_TRUE(notes().empty());
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(threadsOf('S'), "c");
    engine_->closeFile();
    EXPECT_TRUE(log.contains(4, "Cleanup audio engine"));
    EXPECT_EQ(threadsOf('S'), "c");
}

// start(), one position report per output pass, then Finished with the duration: the final
// position and state notifications come from the play thread in state Finished.
TEST_F(EngineTransportTest, EndOfMediaSequence) {
    playToEnd("tone440_3s.mp3");
    // start() notifies after launching the loop, which may report (and even end) first.
    const std::string s = threadsOf('S');
    EXPECT_TRUE(s == "cp" || s == "pc") << s;
    EXPECT_EQ(threadsOf('P').find('c'), std::string::npos);
    std::vector<Note> play;
    for (const Note &note : notes())
        if (!note.caller)
            play.push_back(note);
    ASSERT_GE(play.size(), 3u);
    EXPECT_EQ(play[play.size() - 2].kind, 'P');
    EXPECT_EQ(play[play.size() - 2].state, 3);
    EXPECT_EQ(play.back().kind, 'S');
    EXPECT_EQ(play.back().state, 3);
    EXPECT_EQ(engine_->getPosition(), 3000);

    const std::string calls = platformCalls();
    EXPECT_EQ(calls.rfind("S2 ", 0), 0u) << calls;
    EXPECT_TRUE(endsWith(calls, "B4 S0 ")) << calls;
    EXPECT_EQ(calls.find("S3"), std::string::npos) << calls;
    EXPECT_EQ(calls.find("S0 S"), std::string::npos) << "0 reported without BanSleep: " << calls;

    // A finished engine ends again at once: nothing rewinds.
    clearNotes();
    const size_t frames = vcard_captured_frames();
    EXPECT_EQ(engine_->start(), 0);
    ASSERT_TRUE(waitState(3));
    // start() notifies after launching the loop, which may already have ended.
    ASSERT_TRUE(wait_until([this] { return threadsOf('S').size() == 2; }, 5000));
    EXPECT_TRUE(threadsOf('S') == "cp" || threadsOf('S') == "pc") << threadsOf('S');
    EXPECT_EQ(engine_->getPosition(), 3000);
    EXPECT_EQ(vcard_captured_frames(), frames);
}

TEST_F(EngineTransportTest, PauseAndResume) {
    startPlaying("tone440_3s.wav", 2.0);
    EXPECT_EQ(engine_->pause(), 0);
    EXPECT_EQ(engine_->getState(), 2);
    EXPECT_EQ(engine_->pause(), 0); // no second notification
    ASSERT_TRUE(wait_until([] { return platformCalls().find("S3 ") != std::string::npos; }, 5000));
    const int64_t held = engine_->getPosition();
    const size_t frames = vcard_captured_frames();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(engine_->getPosition(), held);
    // What was queued before the pause may still play out, nothing more.
    EXPECT_LE(vcard_captured_frames(), frames + 3 * ABUF_PIECE_MAX_FRAMES);
    EXPECT_EQ(engine_->resume(), 0);
    EXPECT_EQ(engine_->getState(), 1);
    EXPECT_EQ(engine_->resume(), 0);
    ASSERT_TRUE(waitState(3));
    EXPECT_EQ(threadsOf('S'), "cccp");

    const std::string calls = platformCalls();
    EXPECT_TRUE(std::regex_search(calls, std::regex("^S2 .*(S3 )+S2 .*B4 S0 $"))) << calls;
}

// A stop seen while the loop holds in pause: the loop's stop check, its packet end and its
// exit each notify, then stop() itself. The engine can start again from where it stopped.
TEST_F(EngineTransportTest, StopWhilePausedThenStartContinues) {
    startPlaying("tone440_3s.wav", 2.0);
    engine_->pause();
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    EXPECT_TRUE(engine_->isFileOpened());
    EXPECT_EQ(threadsOf('S'), "ccpppc");
    EXPECT_EQ(notes().back().state, 0);
    EXPECT_TRUE(endsWith(platformCalls(), "B4 S0 ")) << platformCalls();

    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(waitState(3));
    ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 5000));
    const size_t frames = vcard_captured_frames();
    EXPECT_LE(frames, size_t(3 * kRate)); // not played from the start again
    EXPECT_GE(frames, size_t(3 * kRate) - kRate / 4);
}

TEST_F(EngineTransportTest, StopWhilePlaying) {
    startPlaying("tone440_10s.mp3", 1.0);
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    // Seen at a stop check inside a pass (three from the loop) or at a packet end (two).
    EXPECT_TRUE(std::regex_match(threadsOf('S'), std::regex("cppp?c"))) << threadsOf('S');
    EXPECT_EQ(notes().back().state, 0);
    engine_->closeFile();
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_TRUE(std::regex_match(threadsOf('S'), std::regex("cppp?c"))) << "closeFile notified";
}

// start() while playing ends the running loop (its stop notifications come from the old play
// thread while the caller waits), then launches a new one.
TEST_F(EngineTransportTest, StartWhilePlaying) {
    startPlaying("tone440_10s.mp3", 1.0);
    EXPECT_EQ(engine_->start(), 0);
    EXPECT_EQ(engine_->getState(), 1);
    EXPECT_TRUE(std::regex_match(threadsOf('S'), std::regex("cppp?c"))) << threadsOf('S');
    const size_t frames = vcard_captured_frames();
    ASSERT_TRUE(wait_until([&] { return vcard_captured_frames() > frames; }, 5000));
    EXPECT_EQ(engine_->stop(), 0);
}

// --- Positions --------------------------------------------------------------------------------

struct PositionCase {
    const char *file;
    double tempo;
    const char *name;
};
void PrintTo(const PositionCase &v, std::ostream *os) {
    *os << v.name;
}

class EnginePositionTest : public EngineTransportTest,
                           public ::testing::WithParamInterface<PositionCase> {};

// Polled while the media plays, the position is whole seconds, never negative, never goes
// back, and follows the media to its end; once Finished it is the duration.
TEST_P(EnginePositionTest, FollowsTheMediaInWholeSeconds) {
    const PositionCase c = GetParam();
    engine_->setTempo(c.tempo);
    vcard_set_speed(4.0 / c.tempo);
    ASSERT_EQ(engine_->openFile(media_path(c.file)), 0);
    const int64_t duration = engine_->getDurationMs();
    ASSERT_EQ(duration, 10000);
    ASSERT_EQ(engine_->start(), 0);
    std::vector<int64_t> seen;
    while (engine_->getState() == 1 && seen.size() < 200000) {
        seen.push_back(engine_->getPosition());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(waitState(3));
    EXPECT_EQ(engine_->getPosition(), duration);
    int64_t max = 0;
    for (size_t i = 0; i < seen.size(); ++i) {
        ASSERT_GE(seen[i], 0);
        ASSERT_EQ(seen[i] % 1000, 0) << seen[i];
        if (i > 0) {
            ASSERT_GE(seen[i], seen[i - 1]);
        }
        max = std::max(max, seen[i]);
    }
    EXPECT_GE(max, duration - 2000) << "position stopped at " << max;
}

INSTANTIATE_TEST_SUITE_P(Media, EnginePositionTest,
                         ::testing::Values(PositionCase{"tone440_10s.mp3", 1.0, "Mp3"},
                                           PositionCase{"tone440_10s.mp3", 2.0, "Mp3Tempo2"}),
                         [](const ::testing::TestParamInfo<PositionCase> &info) {
                             return std::string(info.param.name);
                         });

// --- Seeks ------------------------------------------------------------------------------------

TEST_F(EngineTransportTest, SeekWhileStoppedSetsThePositionAndPlaysFromThere) {
    ASSERT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
    engine_->seekStream(12000); // beyond the end: position unchanged
    EXPECT_EQ(engine_->getPosition(), 0);
    engine_->seekStream(5999);
    EXPECT_EQ(engine_->getPosition(), 5999);
    EXPECT_TRUE(notes().empty());
    playOpened();
    // One frame from the start may play before the seek; then seconds 5 to 10.
    const size_t frames = vcard_captured_frames();
    EXPECT_GE(frames, size_t(5 * kRate) - kRate / 10);
    EXPECT_LE(frames, size_t(5.5 * kRate));
}

TEST_F(EngineTransportTest, CancelledSeekPlaysEverything) {
    ASSERT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
    engine_->seekStream(5000);
    engine_->seekStream(-1);
    EXPECT_EQ(engine_->getPosition(), 5000);
    playOpened();
    EXPECT_GE(vcard_captured_frames(), size_t(10 * kRate) - kRate / 10);
}

// After a seek made while paused, the position reads the target at once and, once playing
// again, never falls back to where playback was before the seek (a seek to whole seconds may
// land up to a second early on a seek point).
TEST_F(EngineTransportTest, SeekWhilePausedThenResume) {
    startPlaying("tone440_10s.mp3", 2.0);
    std::string trace;
    int back = 0;
    for (int target : {3000, 6000, 8000}) {
        engine_->pause();
        engine_->seekStream(target);
        EXPECT_EQ(engine_->getPosition(), target);
        engine_->resume();
        trace += "| ";
        int64_t last = -1;
        for (;;) {
            const int64_t p = engine_->getPosition();
            if (p != last)
                trace += std::to_string(p) + " ";
            last = p;
            back += p < target - 1000;
            if (p >= target + 1000 || engine_->getState() != 1)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    EXPECT_EQ(back, 0) << "position went back before the seek target: " << trace;
    ASSERT_TRUE(waitState(3));
    ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 5000));
    // Seconds 0 to about 1, 3 to 4, 6 to 7 and 8 to 10 were played (and what played while
    // this thread was slow to pause): well short of the whole 10 s.
    EXPECT_LE(vcard_captured_frames(), size_t(7.5 * kRate));
}

TEST_F(EngineTransportTest, SeekWhilePlayingSkipsAhead) {
    startPlaying("tone440_10s.mp3", 2.0);
    engine_->seekStream(8000);
    // pause() right after the request finds it pending and reports its target at once.
    engine_->pause();
    EXPECT_EQ(engine_->getPosition(), 8000);
    EXPECT_EQ(threadsOf('P').back(), 'c');
    engine_->resume();
    ASSERT_TRUE(waitState(3));
    ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 5000));
    EXPECT_LE(vcard_captured_frames(), size_t(5 * kRate));
    engine_->seekStream(1000); // Finished: the position stays the duration
    EXPECT_EQ(engine_->getPosition(), 10000);
}

// --- Failures during playback -----------------------------------------------------------------

// The device is missing when the output opens it, or goes away mid-track: the loop reports
// NoOutputDevice once the state is Stopped, then notifies the stop from its stop check, packet
// end and exit; the media stays open.
class EngineDeviceLostTest : public EngineTransportTest,
                             public ::testing::WithParamInterface<bool> {};

TEST_P(EngineDeviceLostTest, StopsWithNoOutputDevice) {
    LogCapture log;
    if (GetParam())
        vcard_fail_write_after(-ENODEV, kRate);
    else
        vcard_fail_open(-ENODEV, -1);
    ASSERT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(wait_until([this] { return threadsOf('S') == "cppp"; }, 10000)) << sequence();
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    EXPECT_TRUE(log.contains(2, "No output device")) << log.dump();
    EXPECT_EQ(sequence(), "SESSS");
    for (const Note &n : notes()) {
        if (n.kind == 'E') {
            EXPECT_EQ(n.state, 0);
        }
    }
    EXPECT_LE(vcard_captured_frames(), size_t(kRate));
    EXPECT_TRUE(engine_->isFileOpened());
    EXPECT_TRUE(endsWith(platformCalls(), "B4 S0 ")) << platformCalls();
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(threadsOf('S'), "cpppc");
}

INSTANTIATE_TEST_SUITE_P(Device, EngineDeviceLostTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &info) {
                             return std::string(info.param ? "GoneMidTrack" : "MissingAtOpen");
                         });

// A failure inside the loop (here: a tempo that the filter refuses, set on the first position
// report) closes the media and ends Finished like the end of the media.
TEST_F(EngineTransportTest, LoopFailureClosesTheMediaAndFinishes) {
    std::atomic<bool> set{false};
    engine_->setTrackPositionChangedCb([&] {
        record('P');
        if (!set.exchange(true))
            engine_->setTempo(0.1);
    });
    playToEnd("tone440_3s.wav");
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->getPosition(), 3000);
    expectFinishedSequence();
    EXPECT_TRUE(endsWith(platformCalls(), "B4 S0 "));
    EXPECT_EQ(engine_->start(), -1);
    engine_->closeFile();
    // An open builds the same graph and fails with it.
    LogCapture log;
    EXPECT_EQ(engine_->openFile(media_path("tone440_3s.wav")), -1);
    EXPECT_TRUE(log.contains(2, "error initializing tempo filter")) << log.dump();
    EXPECT_FALSE(engine_->isFileOpened());
    engine_->setTempo(1.0);
}

// Destroying a playing engine stops and joins its play thread.
TEST_F(EngineTransportTest, DestroyWhilePlaying) {
    startPlaying("tone440_10s.mp3", 1.0);
    AudioEngine_DestroyAudioEngine(engine_);
    engine_ = nullptr;
}

// --- Concurrency ------------------------------------------------------------------------------

// One application thread drives every operation for two seconds while the play thread runs;
// the test fails (instead of hanging) if the pair deadlocks.
TEST_F(EngineTransportTest, TransportHammeredWhilePlaying) {
    // Audio reaches the card before the hammering starts: every setting change rebuilds the
    // filters, and on a slow machine the engine may not get a piece out between two of them.
    startPlaying("tone440_10s.mp3", 8.0);

    std::atomic<int> restarts{0};
    auto driver = std::async(std::launch::async, [&] {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        for (int i = 0; std::chrono::steady_clock::now() < until; ++i) {
            switch (i % 10) {
            case 0:
                engine_->setTempo(i % 20 == 0 ? 1.5 : 0.75);
                break;
            case 1:
                engine_->setSampleRateMultiplier(i % 20 == 1 ? 1.25 : 1.0);
                break;
            case 2:
                engine_->setEqualizerSettings({{60, 3}, {1000, -2}, {2000 + i % 14000, 1}});
                break;
            case 3:
                engine_->seekStream((i * 7) % 9 * 1000);
                break;
            case 4:
                engine_->pause();
                break;
            case 5:
                engine_->resume();
                break;
            case 6:
                engine_->seekStream(-1);
                break;
            case 7:
                if (engine_->getState() == 3) { // played through: go again
                    engine_->closeFile();
                    EXPECT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
                    EXPECT_EQ(engine_->start(), 0);
                    ++restarts;
                }
                break;
            default:
                break;
            }
            const int64_t p = engine_->getPosition();
            EXPECT_GE(p, 0);
            EXPECT_EQ(p % 1000, 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        engine_->stop();
    });
    if (driver.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "transport deadlocked with the play thread";
        fflush(stdout);
        std::_Exit(1);
    }
    driver.get();
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
}

} // namespace
} // namespace engine_test
