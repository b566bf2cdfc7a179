// The shared test helpers and the generated media they read.
#include "test_support.h"

#include "qz_log.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <thread>

namespace {

TEST(support, KnownPcmFileHoldsTheFormula) {
    std::vector<int16_t> samples;
    int channels = 0, rate = 0;
    ASSERT_TRUE(
        ae_test::read_wav(ae_test::media_path("known_pcm_1s.wav"), &samples, &channels, &rate));
    EXPECT_EQ(channels, 2);
    EXPECT_EQ(rate, 44100);
    ASSERT_EQ(samples.size(), 44100u * 2);
    EXPECT_EQ(samples, ae_test::known_pcm(0, 44100));
}

TEST(support, ToneAnalysis) {
    struct {
        const char *file;
        double hz;
    } tones[] = {{"tone440_3s.wav", 440},
                 {"tone1000_3s.wav", 1000},
                 {"tone100_3s.wav", 100},
                 {"tone440_3s_8000.wav", 440},
                 {"tone440_3s_96000.wav", 440}};
    for (const auto &t : tones) {
        std::vector<int16_t> samples;
        int channels = 0, rate = 0;
        ASSERT_TRUE(ae_test::read_wav(ae_test::media_path(t.file), &samples, &channels, &rate))
            << t.file;
        EXPECT_NEAR(ae_test::zero_crossing_frequency(samples, channels, 0, rate), t.hz, t.hz * 0.01)
            << t.file;
        // The sine source has amplitude 1/8 and -ac 2 spreads it at -3 dB: about -24 dBFS RMS.
        EXPECT_NEAR(ae_test::rms_dbfs(samples, channels, 1), -24.1, 0.5) << t.file;
    }
    std::vector<int16_t> silence(2000, 0);
    EXPECT_EQ(ae_test::rms_dbfs(silence, 2, 0), -200.0);
    EXPECT_EQ(ae_test::zero_crossing_frequency(silence, 2, 0, 44100), 0.0);
}

TEST(support, MediaExist) {
    for (const char *name :
         {"tone440_3s.mp3", "tone440_3s.flac", "tone440_3s.ogg", "tone440_3s.opus",
          "tone440_3s.m4a", "mix100_1000_3s.wav", "tone440_3s_mono.wav", "tone440_3s_22050.wav",
          "tone440_3s_48000.wav", "tone440_3s_5.1.flac", "av_3s.mp4", "video_only_3s.mp4",
          "tone440_10s.mp3", "empty.mp3", "not_audio.mp3", "tone440_truncated.mp3",
          "tone440_corrupt.mp3"})
        EXPECT_EQ(access(ae_test::media_path(name).c_str(), R_OK), 0) << name;
}

TEST(support, StderrCaptureRestores) {
    {
        ae_test::StderrCapture err;
        std::fprintf(stderr, "captured %d\n", 1);
        EXPECT_EQ(err.text(), "captured 1\n");
        ::write(2, "raw\n", 4);
        EXPECT_EQ(err.text(), "captured 1\nraw\n");
    }
    ae_test::StderrCapture again;
    EXPECT_EQ(again.text(), "");
}

TEST(support, LogCaptureRecordsLinesFromAnyThread) {
    ae_test::LogCapture log;
    std::thread other([] {
        for (int i = 0; i < 100; ++i)
            qz_print_log2(5, "other.c", 7, "void other()", "from the other thread %d", i);
    });
    for (int i = 0; i < 100; ++i)
        qz_print_log2(2, "main.c", 9, "int main()", "from the test %d", i);
    other.join();
    EXPECT_EQ(log.count("from the other thread"), 100);
    EXPECT_EQ(log.count("from the test"), 100);
    EXPECT_TRUE(log.contains(2, "from the test 99"));
    EXPECT_FALSE(log.contains(5, "from the test"));
    EXPECT_EQ(log.lines().size(), 200u);
    bool found = false;
    for (const ae_test::LogEntry &e : log.entries()) {
        if (e.message == "from the other thread 0") {
            found = true;
            EXPECT_EQ(e.level, 5);
            EXPECT_EQ(e.line, 7);
            EXPECT_EQ(e.function, "void other()");
            EXPECT_NE(e.file.find("other.c"), std::string::npos);
        }
    }
    EXPECT_TRUE(found) << log.dump();
    log.clear();
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST(support, WaitUntil) {
    int calls = 0;
    EXPECT_TRUE(ae_test::wait_until([&] { return ++calls == 3; }, 1000));
    EXPECT_FALSE(ae_test::wait_until([] { return false; }, 20));
}

TEST(support, TmpPathIsWritable) {
    std::string path = ae_test::tmp_path("support_test_file");
    std::ofstream(path) << "x";
    EXPECT_EQ(access(path.c_str(), R_OK), 0);
    std::remove(path.c_str());
}

} // namespace
