// What reaches the card: every container and source layout comes out as 44100 Hz stereo S16 of
// the right pitch and length, and tempo, rate and equaliser shape the sound as they should.
// The card consumes at once (speed 0), so these tests take no real playing time.
#include <cmath>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "engine_fixture.h"

namespace engine_test {
namespace {

using ae_test::captured_samples;
using ae_test::rms_dbfs;
using ae_test::zero_crossing_frequency;

// Audio that the filters may still hold when the media ends (not played): up to two windows of
// each tempo stage and the resampler's delay, about a quarter second of the source.
const size_t kTail = kRate / 4;

// Half periods of a tone on channel 0 whose length is off by more than a quarter: audio lost or
// repeated inside a tone shows up here.
int discontinuities(const std::vector<int16_t> &s, double hz) {
    const double half = kRate / hz / 2;
    int count = 0;
    long last = -1;
    // The last 2048 frames are left out: a lossy encoder's end padding (AAC) is part of the
    // file but not a clean tone.
    const size_t frames = s.size() / 2 > 2048 ? s.size() / 2 - 2048 : 0;
    for (size_t i = 1; i < frames; ++i) {
        if ((s[2 * (i - 1)] < 0) != (s[2 * i] < 0)) {
            const long at = static_cast<long>(i);
            if (last >= 0 && std::fabs(at - last - half) > half / 4)
                ++count;
            last = at;
        }
    }
    return count;
}

class EngineSoundTest : public EngineTest {
protected:
    // The device only ever ran at 44100 Hz, and both channels carry `hz`.
    void expectToneAt44100(double hz, double tolerance = 5.0) {
        EXPECT_GE(vcard_count_events("open 44100"), 1);
        EXPECT_EQ(vcard_count_events("open "), vcard_count_events("open 44100"));
        const std::vector<int16_t> s = captured_samples();
        ASSERT_FALSE(s.empty());
        EXPECT_NEAR(zero_crossing_frequency(s, 2, 0, kRate), hz, tolerance);
        EXPECT_NEAR(zero_crossing_frequency(s, 2, 1, kRate), hz, tolerance);
        EXPECT_GT(rms_dbfs(s, 2, 0), -40.0);
        EXPECT_NEAR(rms_dbfs(s, 2, 0), rms_dbfs(s, 2, 1), 1.0);
        EXPECT_EQ(discontinuities(s, hz), 0) << "audio lost or repeated inside the tone";
    }

    // The capture holds `expected` frames, less at most `tail` that the filters kept.
    static void expectFrames(size_t expected, size_t tail) {
        const size_t frames = vcard_captured_frames();
        EXPECT_LE(frames, expected + kRate / 50) << "expected about " << expected;
        EXPECT_GE(frames + tail, expected) << "expected about " << expected;
    }
};

// --- Containers, codecs, sample rates and layouts ---------------------------------------------

struct Source {
    const char *file;
    size_t tail; // codec delay/padding and filter tail, frames at 44100 Hz
};
void PrintTo(const Source &v, std::ostream *os) {
    *os << v.file;
}

class EngineFormatTest : public EngineSoundTest, public ::testing::WithParamInterface<Source> {};

TEST_P(EngineFormatTest, PlaysAs44100StereoToneOfItsLength) {
    const Source src = GetParam();
    playToEnd(src.file);
    EXPECT_EQ(engine_->getDurationMs(), 3000);
    EXPECT_EQ(engine_->getPosition(), 3000);
    expectToneAt44100(440.0);
    expectFrames(3 * kRate, src.tail);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, EngineFormatTest,
    ::testing::Values(Source{"tone440_3s.wav", kTail}, Source{"tone440_3s.mp3", kTail},
                      Source{"tone440_3s.m4a", kTail}, Source{"tone440_3s.flac", kTail},
                      Source{"tone440_3s.ogg", kTail}, Source{"tone440_3s.opus", kTail},
                      Source{"tone440_3s_mono.wav", kTail}, Source{"tone440_3s_8000.wav", kTail},
                      Source{"tone440_3s_22050.wav", kTail}, Source{"tone440_3s_48000.wav", kTail},
                      Source{"tone440_3s_96000.wav", kTail}, Source{"tone440_3s_5.1.flac", kTail},
                      Source{"av_3s.mp4", kTail}),
    [](const ::testing::TestParamInfo<Source> &info) {
        std::string name = info.param.file;
        for (char &c : name)
            if (!isalnum(static_cast<unsigned char>(c)))
                c = '_';
        return name;
    });

// A PCM source at the output format keeps its values (the tempo stages at 1.0 only smooth
// their window joins) and its channel order.
TEST_F(EngineSoundTest, KnownSamplesKeepTheirValuesAndChannels) {
    playToEnd("known_pcm_1s.wav");
    const std::vector<int16_t> s = captured_samples();
    const size_t frames = s.size() / 2;
    ASSERT_GE(frames, size_t(kRate) - kTail);
    ASSERT_LE(frames, size_t(kRate));
    const std::vector<int16_t> expected = ae_test::known_pcm(0, frames);
    size_t off = 0;
    size_t offSwapped = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        off += std::abs(int(s[i]) - int(expected[i])) > 64;
        offSwapped += std::abs(int(s[i]) - int(expected[i ^ 1])) > 64;
    }
    EXPECT_LT(off, s.size() / 100);
    EXPECT_GT(offSwapped, s.size() / 2);
}

// --- Tempo and rate ---------------------------------------------------------------------------

struct Shaping {
    const char *file;
    double tempo;
    double rate;
    double seconds; // length that is heard
    double hz;      // pitch that is heard
    const char *name;
};
void PrintTo(const Shaping &v, std::ostream *os) {
    *os << v.name;
}

class EngineShapingTest : public EngineSoundTest, public ::testing::WithParamInterface<Shaping> {};

TEST_P(EngineShapingTest, LengthAndPitch) {
    const Shaping p = GetParam();
    engine_->setTempo(p.tempo);
    engine_->setSampleRateMultiplier(p.rate);
    playToEnd(p.file);
    EXPECT_EQ(engine_->getPosition(), 3000);
    expectToneAt44100(p.hz, p.hz / 100);
    const size_t tail = static_cast<size_t>(kTail / std::min(p.tempo * p.rate, 1.0));
    // (the tail is measured in the source's time, so slowed output holds proportionally more)
    expectFrames(static_cast<size_t>(p.seconds * kRate), tail);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, EngineShapingTest,
    ::testing::Values(Shaping{"tone440_3s.wav", 2.0, 1.0, 1.5, 440, "Tempo2"},
                      Shaping{"tone440_3s.mp3", 2.0, 1.0, 1.5, 440, "Tempo2Mp3"},
                      Shaping{"tone440_3s.wav", 0.5, 1.0, 6.0, 440, "TempoHalf"},
                      Shaping{"tone440_3s.wav", 4.0, 1.0, 0.75, 440, "Tempo4"},
                      Shaping{"tone440_3s.wav", 1.0, 1.5, 2.0, 660, "Rate1_5"},
                      Shaping{"tone440_3s.wav", 1.0, 0.5, 6.0, 220, "RateHalf"},
                      Shaping{"tone440_3s.wav", 2.0, 1.5, 1.0, 660, "Tempo2Rate1_5"},
                      // 8 kHz sources give filtered frames longer than one output piece.
                      Shaping{"tone440_3s_8000.wav", 0.25, 1.0, 12.0, 440, "LowRateTempoQuarter"},
                      Shaping{"tone440_3s_8000.wav", 1.0, 2.0, 1.5, 880, "LowRateRate2"},
                      Shaping{"tone440_3s_8000.wav", 1.0, 0.5, 6.0, 220, "LowRateRateHalf"},
                      Shaping{"tone440_3s_8000.wav", 0.5, 0.5, 12.0, 220, "LowRateBothSlow"}),
    [](const ::testing::TestParamInfo<Shaping> &info) { return std::string(info.param.name); });

// A tempo set while the loop runs applies from the next decoded frame: set at the first
// position report of a 3 s file, nearly all of the file is heard at double speed.
TEST_F(EngineSoundTest, TempoChangeDuringPlaybackAppliesAtTheNextFrame) {
    std::atomic<bool> changed{false};
    engine_->setTrackPositionChangedCb([&] {
        if (!changed.exchange(true))
            engine_->setTempo(2.0);
    });
    playToEnd("tone440_3s.wav");
    EXPECT_TRUE(changed.load());
    const size_t frames = vcard_captured_frames();
    EXPECT_LE(frames, size_t(1.5 * kRate + 0.2 * kRate));
    EXPECT_GE(frames, size_t(1.5 * kRate - 2 * kTail));
    EXPECT_NEAR(zero_crossing_frequency(captured_samples(), 2, 0, kRate), 440.0, 5.0);
    // The old graph's content is dropped at the rebuild: one join, nothing else.
    EXPECT_LE(discontinuities(captured_samples(), 440.0), 2);
}

// --- Equaliser --------------------------------------------------------------------------------

// Ten bands, all flat but 1 kHz cut by 12 dB. (Between and beyond its points the equaliser
// interpolates the gain: one point alone would set the gain of every frequency.)
const std::vector<std::pair<int, int>> kBands = {{31, 0},   {62, 0},     {125, 0},  {250, 0},
                                                 {500, 0},  {1000, -12}, {2000, 0}, {4000, 0},
                                                 {8000, 0}, {16000, 0}};

struct EqCase {
    const char *file;
    double dropDb; // level change the point (1000 Hz, -12 dB) makes
    const char *name;
};
void PrintTo(const EqCase &v, std::ostream *os) {
    *os << v.name;
}

class EngineEqualiserTest : public EngineSoundTest, public ::testing::WithParamInterface<EqCase> {};

TEST_P(EngineEqualiserTest, OnePointCutsItsBandOnly) {
    const EqCase c = GetParam();
    playToEnd(c.file);
    const std::vector<int16_t> plain = captured_samples();
    // Skip the equaliser's onset, measure the steady part.
    const std::vector<int16_t> plainSteady(plain.begin() + kRate, plain.end());

    engine_->closeFile(); // ends the finished loop before the next open
    engine_->setEqualizerSettings(kBands);
    vcard_setup();
    playToEnd(c.file);
    const std::vector<int16_t> eq = captured_samples();
    ASSERT_GT(eq.size(), size_t(4 * kRate));
    const std::vector<int16_t> eqSteady(eq.begin() + kRate, eq.end());

    for (int ch = 0; ch < 2; ++ch)
        EXPECT_NEAR(rms_dbfs(eqSteady, 2, ch) - rms_dbfs(plainSteady, 2, ch), c.dropDb, 1.5)
            << "channel " << ch;
}

INSTANTIATE_TEST_SUITE_P(Bands, EngineEqualiserTest,
                         ::testing::Values(EqCase{"tone1000_3s.wav", -12.0, "Tone1000"},
                                           EqCase{"tone100_3s.wav", 0.0, "Tone100"}),
                         [](const ::testing::TestParamInfo<EqCase> &info) {
                             return std::string(info.param.name);
                         });

// An emptied list removes the equaliser again at the next open.
TEST_F(EngineSoundTest, EmptyEqualiserListRestoresTheLevel) {
    playToEnd("tone1000_3s.wav");
    const double plain = rms_dbfs(captured_samples(), 2, 0);
    engine_->setEqualizerSettings(kBands);
    engine_->setEqualizerSettings({});
    engine_->closeFile();
    vcard_setup();
    playToEnd("tone1000_3s.wav");
    EXPECT_NEAR(rms_dbfs(captured_samples(), 2, 0), plain, 0.5);
}

} // namespace
} // namespace engine_test
