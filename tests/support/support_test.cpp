// The helpers whose faults would let other tests pass silently: the frequency and level
// analysis of captured sound, and the negative answers of log matching and waiting.
#include "test_support.h"

#include "qz_log.h"

#include <gtest/gtest.h>

namespace {

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

TEST(support, LogMatchingAndWaitingSayNo) {
    ae_test::LogCapture log;
    qz_print_log2(2, "main.c", 9, "int main()", "from the test %d", 99);
    EXPECT_TRUE(log.contains(2, "from the test 99"));
    EXPECT_FALSE(log.contains(5, "from the test")) << "the level must match";
    EXPECT_FALSE(log.contains("not logged"));
    EXPECT_EQ(log.count("from the test"), 1);
    EXPECT_FALSE(ae_test::wait_until([] { return false; }, 20));
}

} // namespace
