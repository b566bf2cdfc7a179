// The virtual sound card, for the facts the other suites rely on: what is written is captured
// unchanged, injected open and write faults answer as documented, the mixer element's range and
// value are shared by every simple-mixer handle, and the events record the device's life.
#include "test_support.h"
#include "vcard.h"

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string events() {
    char *text = vcard_events();
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

std::vector<int16_t> pattern(size_t frames, int seed) {
    std::vector<int16_t> s(frames * 2);
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = static_cast<int16_t>(seed * 7919 + static_cast<int>(i) * 31);
    return s;
}

// Writes all frames, returning the first error (or the number of frames written).
long write_all(snd_pcm_t *pcm, const std::vector<int16_t> &s) {
    size_t frames = s.size() / 2, done = 0;
    while (done < frames) {
        snd_pcm_sframes_t n = snd_pcm_writei(pcm, s.data() + done * 2, frames - done);
        if (n < 0)
            return n;
        done += static_cast<size_t>(n);
    }
    return static_cast<long>(done);
}

class vcard : public ::testing::Test {
protected:
    void SetUp() override { vcard_setup(); }
    void TearDown() override {
        if (pcm_)
            snd_pcm_close(pcm_);
    }
    void open(unsigned int rate = 44100) {
        ASSERT_EQ(snd_pcm_open(&pcm_, "mpd_sm", SND_PCM_STREAM_PLAYBACK, 0), 0);
        ASSERT_EQ(snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2,
                                     rate, 1, 100000),
                  0);
    }
    void close() {
        ASSERT_EQ(snd_pcm_close(pcm_), 0);
        pcm_ = nullptr;
    }
    snd_pcm_t *pcm_ = nullptr;
};

TEST_F(vcard, CaptureIsWhatWasWrittenUntilSetupClearsIt) {
    open();
    std::vector<int16_t> all;
    for (int seed = 1; seed <= 7; ++seed) {
        std::vector<int16_t> s = pattern(4608, seed);
        ASSERT_EQ(write_all(pcm_, s), 4608);
        all.insert(all.end(), s.begin(), s.end());
    }
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    close();
    EXPECT_EQ(vcard_captured_frames(), all.size() / 2);
    EXPECT_EQ(ae_test::captured_samples(), all);
    std::vector<int16_t> head(200);
    EXPECT_EQ(vcard_capture(head.data(), 100), 100u);
    EXPECT_TRUE(std::equal(head.begin(), head.end(), all.begin()));

    vcard_setup();
    EXPECT_EQ(vcard_captured_frames(), 0u);
    EXPECT_EQ(events(), "");
}

// --- Events -----------------------------------------------------------------------------------

struct Life {
    const char *name;
    unsigned int rate;
    double speed;
    int end; // 0: drain, 1: drop, 2: close while it still plays
    const char *events;
};
void PrintTo(const Life &l, std::ostream *os) {
    *os << l.name;
}

class vcard_life : public vcard, public ::testing::WithParamInterface<Life> {};

TEST_P(vcard_life, EventsRecordTheDeviceLife) {
    const Life &l = GetParam();
    vcard_set_speed(l.speed);
    open(l.rate);
    ASSERT_EQ(write_all(pcm_, pattern(1000, 1)), 1000);
    if (l.end < 2) {
        ASSERT_EQ(l.end == 0 ? snd_pcm_drain(pcm_) : snd_pcm_drop(pcm_), 0);
    }
    close();
    EXPECT_EQ(events(), l.events);
}

INSTANTIATE_TEST_SUITE_P(
    vcard, vcard_life,
    ::testing::Values(
        Life{"Drain48000", 48000, 0, 0, "open 48000\nprepare\nwrite 1000\ndrain\nclose"},
        Life{"Drop", 44100, 0, 1, "open 44100\nprepare\nwrite 1000\ndrop\nclose"},
        Life{"ClosePlaying", 8000, 1.0, 2, "open 8000\nprepare\nwrite 1000\ndrop\nclose"}),
    [](const ::testing::TestParamInfo<Life> &info) { return std::string(info.param.name); });

// --- Injected faults --------------------------------------------------------------------------

struct OpenFault {
    int error, count, tries;
};
void PrintTo(const OpenFault &f, std::ostream *os) {
    *os << f.error << " x " << f.count;
}

class vcard_open_fault : public vcard, public ::testing::WithParamInterface<OpenFault> {};

TEST_P(vcard_open_fault, OpensFailAsToldThenWork) {
    const OpenFault &f = GetParam();
    vcard_fail_open(f.error, f.count);
    for (int i = 0; i < f.tries; ++i) {
        snd_pcm_t *pcm = nullptr;
        EXPECT_EQ(snd_pcm_open(&pcm, "mpd_sm", SND_PCM_STREAM_PLAYBACK, 0), f.error);
        EXPECT_FALSE(vcard_is_open());
    }
    EXPECT_EQ(vcard_count_events(("open-fail " + std::to_string(f.error)).c_str()), f.tries)
        << events();
    if (f.count < 0)
        vcard_fail_open(0, 0);
    open();
}

INSTANTIATE_TEST_SUITE_P(vcard, vcard_open_fault,
                         ::testing::Values(OpenFault{-EBUSY, 3, 3}, OpenFault{-ENODEV, -1, 5}));

struct WriteFault {
    const char *name;
    int error;
    long after;
    snd_pcm_state_t state;
    const char *event;
};
void PrintTo(const WriteFault &f, std::ostream *os) {
    *os << f.name;
}

class vcard_write_fault : public vcard, public ::testing::WithParamInterface<WriteFault> {};

// The write that reaches the limit places what it can; the next one fails. An underrun is
// recovered by prepare; a device gone stays gone on that handle only.
TEST_P(vcard_write_fault, NextWriteFailsOnce) {
    const WriteFault &f = GetParam();
    const bool gone = f.error == -ENODEV;
    open();
    vcard_fail_write_after(f.error, f.after);
    const std::vector<int16_t> first = pattern(4608, 1);
    if (f.after > 0) {
        EXPECT_EQ(snd_pcm_writei(pcm_, first.data(), 4608), f.after);
    }
    EXPECT_EQ(snd_pcm_writei(pcm_, first.data() + 2 * f.after, 4608 - f.after), f.error);
    EXPECT_EQ(snd_pcm_state(pcm_), f.state);
    EXPECT_EQ(vcard_count_events(f.event), 1) << events();
    EXPECT_EQ(snd_pcm_prepare(pcm_), gone ? -ENODEV : 0);
    const std::vector<int16_t> second = pattern(4608, 2);
    EXPECT_EQ(write_all(pcm_, second), gone ? -ENODEV : 4608);
    close();
    std::vector<int16_t> expected(first.begin(), first.begin() + 2 * f.after);
    if (!gone)
        expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(ae_test::captured_samples(), expected);
    EXPECT_EQ(vcard_count_events(f.event), 1);
    open();
}

INSTANTIATE_TEST_SUITE_P(
    vcard, vcard_write_fault,
    ::testing::Values(WriteFault{"Underrun", -EPIPE, 1000, SND_PCM_STATE_XRUN, "xrun"},
                      WriteFault{"ImmediateUnderrun", -EPIPE, 0, SND_PCM_STATE_XRUN, "xrun"},
                      WriteFault{"Gone", -ENODEV, 500, SND_PCM_STATE_DISCONNECTED, "gone"},
                      WriteFault{"GoneAtOnce", -ENODEV, 0, SND_PCM_STATE_DISCONNECTED, "gone"}),
    [](const ::testing::TestParamInfo<WriteFault> &info) { return std::string(info.param.name); });

// --- Mixer ------------------------------------------------------------------------------------

struct Mixer {
    snd_mixer_t *handle = nullptr;
    snd_mixer_elem_t *elem = nullptr;
    Mixer() {
        EXPECT_EQ(snd_mixer_open(&handle, 0), 0);
        EXPECT_EQ(snd_mixer_attach(handle, "default"), 0);
        EXPECT_EQ(snd_mixer_selem_register(handle, nullptr, nullptr), 0);
        EXPECT_EQ(snd_mixer_load(handle), 0);
        snd_mixer_selem_id_t *sid;
        snd_mixer_selem_id_alloca(&sid);
        snd_mixer_selem_id_set_name(sid, "mpd_volume");
        elem = snd_mixer_find_selem(handle, sid);
    }
    ~Mixer() { snd_mixer_close(handle); }
    long value() {
        long v = -1;
        EXPECT_GE(snd_mixer_handle_events(handle), 0);
        EXPECT_EQ(snd_mixer_selem_get_playback_volume(elem, SND_MIXER_SCHN_FRONT_LEFT, &v), 0);
        return v;
    }
    std::pair<long, long> range() {
        long min = -1, max = -1;
        EXPECT_EQ(snd_mixer_selem_get_playback_volume_range(elem, &min, &max), 0);
        return {min, max};
    }
};

TEST_F(vcard, MixerRangeAndValueAreSharedByEveryHandle) {
    {
        Mixer fresh; // the defaults after setup
        ASSERT_NE(fresh.elem, nullptr);
        EXPECT_EQ(fresh.range(), std::make_pair(0L, 255L));
        EXPECT_EQ(fresh.value(), 0);
        EXPECT_EQ(vcard_mixer_writes(nullptr, 0), 0u);
    }
    vcard_set_mixer_range(10, 20);
    vcard_set_mixer_value(15);
    Mixer a, b;
    ASSERT_NE(a.elem, nullptr);
    ASSERT_NE(b.elem, nullptr);
    EXPECT_EQ(a.range(), std::make_pair(10L, 20L));
    EXPECT_EQ(a.value(), 15);

    ASSERT_EQ(snd_mixer_selem_set_playback_volume_all(b.elem, 18), 0);
    EXPECT_EQ(vcard_mixer_value(), 18);
    EXPECT_EQ(a.value(), 18);
    vcard_set_mixer_value(11);
    EXPECT_EQ(b.value(), 11);
    long writes[8];
    ASSERT_EQ(vcard_mixer_writes(writes, 8), 1u) << "test-side values are not library writes";
    EXPECT_EQ(writes[0], 18);
}

} // namespace
