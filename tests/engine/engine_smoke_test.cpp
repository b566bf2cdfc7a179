// First end-to-end check of the engine: open a file, start, play to Finished on the virtual card
// (which consumes audio at once), and look at what reached the card.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "IAudioEngineStream.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

using tavrel::utilities::IAudioEngine;

namespace {

const int kRate = 44100;

class EngineSmokeTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        vcard_set_speed(0);
        set_alsa_device_name("");
        engine_ = AudioEngine_CreateAudioEngine();
        ASSERT_NE(engine_, nullptr);
        engine_->setStateChangedCb([this] { ++stateNotifications_; });
        engine_->setTrackPositionChangedCb([this] { ++positionNotifications_; });
    }

    void TearDown() override {
        if (engine_ != nullptr) {
            engine_->closeFile();
            AudioEngine_DestroyAudioEngine(engine_);
        }
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }

    // Plays `file` to the end and waits until the output layer has played out and released
    // the device, so the capture is complete.
    void playToEnd(const std::string &file) {
        ASSERT_EQ(engine_->openFile(ae_test::media_path(file)), 0);
        ASSERT_TRUE(engine_->isFileOpened());
        ASSERT_EQ(engine_->start(), 0);
        ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getState() == 3; }, 20000))
            << "state " << engine_->getState();
        ASSERT_TRUE(ae_test::wait_until([] { return vcard_is_open() == 0; }, 5000));
    }

    IAudioEngine *engine_ = nullptr;
    std::atomic<int> stateNotifications_{0};
    std::atomic<int> positionNotifications_{0};
};

TEST_F(EngineSmokeTest, WavPlaysToFinishedAs44100StereoOfItsLength) {
    playToEnd("tone440_3s.wav");

    EXPECT_EQ(engine_->getDurationMs(), 3000);
    EXPECT_EQ(engine_->getPosition(), 3000);
    EXPECT_EQ(stateNotifications_.load(), 2); // start(), then Finished from the play thread
    EXPECT_GT(positionNotifications_.load(), 1);

    // The device only ever ran at 44100 Hz.
    EXPECT_GE(vcard_count_events("open 44100"), 1);
    EXPECT_EQ(vcard_count_events("open "), vcard_count_events("open 44100"));

    // Three seconds, less what the filters still hold at the end (their tail is not played).
    const size_t expected = 3 * kRate;
    const size_t frames = vcard_captured_frames();
    EXPECT_LE(frames, expected);
    EXPECT_GE(frames, expected - kRate / 10);

    const std::vector<int16_t> samples = ae_test::captured_samples();
    ASSERT_EQ(samples.size(), frames * 2);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, 2, 0, kRate), 440.0, 5.0);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, 2, 1, kRate), 440.0, 5.0);
    EXPECT_GT(ae_test::rms_dbfs(samples, 2, 0), -40.0);
}

TEST_F(EngineSmokeTest, MonoFileIsPlayedOnBothChannels) {
    playToEnd("tone440_3s_mono.wav");

    const std::vector<int16_t> samples = ae_test::captured_samples();
    ASSERT_GE(samples.size() / 2, size_t(2 * kRate));
    EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, 2, 0, kRate), 440.0, 5.0);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, 2, 1, kRate), 440.0, 5.0);
    EXPECT_NEAR(ae_test::rms_dbfs(samples, 2, 0), ae_test::rms_dbfs(samples, 2, 1), 0.1);
}

TEST_F(EngineSmokeTest, LowRateAtQuarterTempoIsSplitOverPiecesWithoutLoss) {
    // 8 kHz audio slowed four times: filtered frames far longer than one output piece.
    engine_->setTempo(0.25);
    playToEnd("tone440_3s_8000.wav");

    EXPECT_EQ(engine_->getPosition(), 3000);
    const size_t expected = 12 * kRate;
    const size_t frames = vcard_captured_frames();
    EXPECT_LE(frames, expected);
    EXPECT_GE(frames, expected - 3 * kRate); // the tail inside the slowed tempo stages
    const std::vector<int16_t> samples = ae_test::captured_samples();
    EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, 2, 0, kRate), 440.0, 5.0);
}

// A caller stream over a file read into memory.
class MemoryStream : public tavrel::utilities::IAudioEngineStream {
public:
    explicit MemoryStream(const std::string &path) {
        FILE *f = fopen(path.c_str(), "rb");
        if (f == nullptr)
            return;
        uint8_t chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
            bytes_.insert(bytes_.end(), chunk, chunk + n);
        fclose(f);
    }
    int read(uint8_t *buffer, int size) override {
        if (pos_ >= bytes_.size())
            return AVERROR_EOF;
        const size_t n = std::min(bytes_.size() - pos_, static_cast<size_t>(size));
        std::copy(bytes_.begin() + pos_, bytes_.begin() + pos_ + n, buffer);
        pos_ += n;
        return static_cast<int>(n);
    }
    int seek(int64_t offset, int whence) override {
        const int64_t size = static_cast<int64_t>(bytes_.size());
        int64_t target;
        switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return static_cast<int>(size);
        case SEEK_SET:
            target = offset;
            break;
        case SEEK_CUR:
            target = static_cast<int64_t>(pos_) + offset;
            break;
        case SEEK_END:
            target = size + offset;
            break;
        default:
            return -1;
        }
        if (target < 0 || target > size)
            return -1;
        pos_ = static_cast<size_t>(target);
        return static_cast<int>(target);
    }
    bool empty() const { return bytes_.empty(); }

private:
    std::vector<uint8_t> bytes_;
    size_t pos_ = 0;
};

TEST_F(EngineSmokeTest, CallerStreamPlaysToFinished) {
    // A second stream replaces the first one's I/O context; the first stream is left alone.
    MemoryStream first(ae_test::media_path("tone440_3s.wav"));
    MemoryStream stream(ae_test::media_path("tone440_3s.mp3"));
    ASSERT_FALSE(first.empty());
    ASSERT_FALSE(stream.empty());
    ASSERT_EQ(engine_->openWithStream(&first), 0);
    ASSERT_EQ(engine_->openWithStream(&stream), 0);
    EXPECT_EQ(engine_->getDurationMs(), 3000);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getState() == 3; }, 20000));
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_is_open() == 0; }, 5000));
    EXPECT_GE(vcard_captured_frames(), size_t(2 * kRate));
    EXPECT_NEAR(ae_test::zero_crossing_frequency(ae_test::captured_samples(), 2, 0, kRate), 440.0,
                5.0);
}

// Transport and settings from the caller's thread while the play thread runs: the sanitizer
// builds check this for races and leaks.
TEST_F(EngineSmokeTest, TransportAndSettingsWhilePlaying) {
    vcard_set_speed(4.0);
    ASSERT_EQ(engine_->openFile(ae_test::media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);

    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    for (int i = 0; std::chrono::steady_clock::now() < until; ++i) {
        switch (i % 6) {
        case 0:
            engine_->setTempo(i % 12 == 0 ? 1.5 : 0.75);
            break;
        case 1:
            engine_->setSampleRateMultiplier(i % 12 == 1 ? 1.25 : 1.0);
            break;
        case 2:
            engine_->setEqualizerSettings({{60, 3}, {1000, -2}});
            break;
        case 3:
            engine_->seekStream((i * 700) % 9000);
            break;
        case 4:
            engine_->pause();
            break;
        case 5:
            engine_->resume();
            break;
        }
        EXPECT_GE(engine_->getPosition(), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    EXPECT_GT(vcard_captured_frames(), 0u);
}

// A tempo that atempo refuses: the open fails; during playback the rebuild fails and playback
// ends Finished with the media closed, through the play loop's failure handler.
TEST_F(EngineSmokeTest, GraphThatCannotBeBuiltFailsOpenOrEndsPlayback) {
    ae_test::LogCapture log;
    engine_->setTempo(0.1);
    EXPECT_EQ(engine_->openFile(ae_test::media_path("tone440_3s.wav")), -1);
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_TRUE(log.contains(2, "error initializing tempo filter"));

    engine_->setTempo(1.0);
    vcard_set_speed(1.0);
    ASSERT_EQ(engine_->openFile(ae_test::media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_captured_frames() > 0; }, 5000));
    engine_->setTempo(0.1);
    ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getState() == 3; }, 5000));
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->getPosition(), 10000);
    EXPECT_EQ(engine_->start(), -1);
    engine_->setTempo(1.0);
}

TEST_F(EngineSmokeTest, OutputThatCannotOpenStopsWithNoOutputDevice) {
    std::atomic<int> errors{0};
    engine_->setErrorCallback([&](IAudioEngine::ErrorType type) {
        EXPECT_EQ(type, IAudioEngine::NoOutputDevice);
        EXPECT_EQ(engine_->getState(), 0);
        ++errors;
    });
    vcard_fail_open(-ENODEV, -1);
    ASSERT_EQ(engine_->openFile(ae_test::media_path("tone440_3s.wav")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([&] { return errors.load() == 1; }, 5000));
    EXPECT_EQ(engine_->stop(), 0);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(engine_->getPosition(), 0);
    EXPECT_TRUE(engine_->isFileOpened());
    // start(), the play thread's three stop notifications, then stop().
    EXPECT_EQ(stateNotifications_.load(), 5);
}

TEST_F(EngineSmokeTest, DestroyingAPlayingEngineEndsItsThread) {
    vcard_set_speed(1.0);
    ASSERT_EQ(engine_->openFile(ae_test::media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_captured_frames() > 0; }, 5000));
    AudioEngine_DestroyAudioEngine(engine_);
    engine_ = nullptr;
}

} // namespace
