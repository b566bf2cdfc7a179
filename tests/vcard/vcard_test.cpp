// The virtual sound card itself: parameters, capture, pacing, injected faults, mixer, events.
#include "test_support.h"
#include "vcard.h"

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string events() {
    char *text = vcard_events();
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

// The output layer's hardware-parameter sequence. Intermediate refinements may be refused
// (their failure leaves the space unchanged); the installation itself must succeed.
struct HwResult {
    int hw_params = -1;
    int prepare = -1;
    unsigned int rate = 0;
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_uframes_t period = 0;
};

HwResult configure(snd_pcm_t *pcm, unsigned int rate) {
    HwResult r;
    snd_pcm_hw_params_t *hw;
    snd_pcm_hw_params_alloca(&hw);
    EXPECT_GE(snd_pcm_hw_params_any(pcm, hw), 0);
    EXPECT_EQ(snd_pcm_hw_params_set_rate_resample(pcm, hw, 1), 0);
    EXPECT_EQ(snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED), 0);
    EXPECT_EQ(snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16_LE), 0);
    EXPECT_EQ(snd_pcm_hw_params_set_channels(pcm, hw, 2), 0);
    EXPECT_EQ(snd_pcm_hw_params_set_rate(pcm, hw, rate, 0), 0);
    unsigned int buffer_time = 500000;
    int dir = 0;
    EXPECT_EQ(snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer_time, &dir), 0);
    snd_pcm_uframes_t buffer = 0;
    EXPECT_EQ(snd_pcm_hw_params_get_buffer_size(hw, &buffer), 0);
    unsigned int period_time = 100000;
    EXPECT_EQ(snd_pcm_hw_params_set_period_time_near(pcm, hw, &period_time, &dir), 0);
    snd_pcm_uframes_t period = 0;
    EXPECT_EQ(snd_pcm_hw_params_get_period_size(hw, &period, &dir), 0);
    snd_pcm_uframes_t period_near = 8192;
    snd_pcm_hw_params_set_period_size_near(pcm, hw, &period_near, &dir);
    snd_pcm_uframes_t buffer_min = 4096, buffer_max = 2 * 4096;
    snd_pcm_hw_params_set_buffer_size_min(pcm, hw, &buffer_min);
    snd_pcm_hw_params_set_buffer_size_max(pcm, hw, &buffer_max);
    r.hw_params = snd_pcm_hw_params(pcm, hw);
    if (r.hw_params < 0)
        return r;
    snd_pcm_hw_params_get_rate(hw, &r.rate, &dir);
    snd_pcm_hw_params_get_buffer_size(hw, &r.buffer);
    snd_pcm_hw_params_get_period_size(hw, &r.period, &dir);
    r.prepare = snd_pcm_prepare(pcm);
    return r;
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
        HwResult r = configure(pcm_, rate);
        ASSERT_EQ(r.hw_params, 0);
        ASSERT_EQ(r.prepare, 0);
    }
    void close() {
        ASSERT_EQ(snd_pcm_close(pcm_), 0);
        pcm_ = nullptr;
    }
    snd_pcm_t *pcm_ = nullptr;
};

class vcard_rates : public vcard, public ::testing::WithParamInterface<unsigned int> {};

TEST_P(vcard_rates, OutputLayerParametersAreAccepted) {
    ASSERT_EQ(snd_pcm_open(&pcm_, "mpd_sm", SND_PCM_STREAM_PLAYBACK, 0), 0);
    EXPECT_TRUE(vcard_is_open());
    HwResult r = configure(pcm_, GetParam());
    ASSERT_EQ(r.hw_params, 0);
    EXPECT_EQ(r.prepare, 0);
    EXPECT_EQ(r.rate, GetParam());
    EXPECT_GE(r.buffer, 4096u);
    EXPECT_GT(r.period, 0u);
    EXPECT_LE(r.period, r.buffer / 2);
    EXPECT_EQ(vcard_count_events(("open " + std::to_string(GetParam())).c_str()), 1) << events();
    close();
    EXPECT_FALSE(vcard_is_open());
}

INSTANTIATE_TEST_SUITE_P(vcard, vcard_rates,
                         ::testing::Values(8000u, 11025u, 22050u, 32000u, 44100u, 48000u, 88200u,
                                           96000u));

TEST_F(vcard, DefaultPcmIsTheCardAndNullExists) {
    snd_pcm_t *pcm = nullptr;
    ASSERT_EQ(snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, 0), 0);
    EXPECT_TRUE(vcard_is_open());
    snd_pcm_close(pcm);
    ASSERT_EQ(snd_pcm_open(&pcm, "null", SND_PCM_STREAM_PLAYBACK, 0), 0);
    EXPECT_FALSE(vcard_is_open());
    snd_pcm_close(pcm);
    EXPECT_LT(snd_pcm_open(&pcm, "no_such_pcm", SND_PCM_STREAM_PLAYBACK, 0), 0);
}

TEST_F(vcard, CaptureIsByteIdentical) {
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
}

TEST_F(vcard, SetupClearsCaptureAndEvents) {
    open();
    ASSERT_EQ(write_all(pcm_, pattern(1000, 1)), 1000);
    close();
    EXPECT_EQ(vcard_captured_frames(), 1000u);
    vcard_setup();
    EXPECT_EQ(vcard_captured_frames(), 0u);
    EXPECT_EQ(events(), "");
    open();
    ASSERT_EQ(write_all(pcm_, pattern(10, 2)), 10);
    close();
    EXPECT_EQ(ae_test::captured_samples(), pattern(10, 2));
}

TEST_F(vcard, RealTimeSpeedPacesPlayback) {
    vcard_set_speed(1.0);
    open();
    auto start = Clock::now();
    ASSERT_EQ(write_all(pcm_, pattern(22050, 1)), 22050); // 0.5 s
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    double took = seconds_since(start);
    EXPECT_GE(took, 0.4);
    EXPECT_LT(took, 5.0);
    close();
    EXPECT_EQ(vcard_captured_frames(), 22050u);
}

TEST_F(vcard, BlockingWritesWaitForTheClock) {
    vcard_set_speed(4.0);
    open();
    snd_pcm_sframes_t avail = snd_pcm_avail(pcm_);
    EXPECT_GT(avail, 0);
    auto start = Clock::now();
    // 2 s of audio at 4x: the buffer (0.5 s) fills and later writes must wait.
    ASSERT_EQ(write_all(pcm_, pattern(88200, 1)), 88200);
    double took = seconds_since(start);
    EXPECT_GE(took, 0.2);
    EXPECT_LT(took, 5.0);
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    close();
    EXPECT_EQ(vcard_captured_frames(), 88200u);
}

TEST_F(vcard, CaptureCanBeReadWhileAnotherThreadPlays) {
    vcard_set_speed(8.0);
    open();
    std::vector<int16_t> all = pattern(44100, 3);
    long written = 0;
    std::thread player([&] {
        written = write_all(pcm_, all);
        snd_pcm_drain(pcm_);
    });
    size_t seen = 0;
    std::vector<int16_t> buf(44100 * 2);
    while (seen < 44100 &&
           ae_test::wait_until([&] { return vcard_captured_frames() > seen; }, 5000)) {
        seen = vcard_capture(buf.data(), 44100);
        EXPECT_TRUE(
            std::equal(buf.begin(), buf.begin() + static_cast<long>(seen * 2), all.begin()));
        vcard_count_events("write ");
    }
    player.join();
    EXPECT_EQ(written, 44100);
    EXPECT_EQ(seen, 44100u);
    close();
}

TEST_F(vcard, SpeedZeroConsumesAtOnce) {
    open();
    auto start = Clock::now();
    ASSERT_EQ(write_all(pcm_, pattern(441000, 1)), 441000); // 10 s
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    EXPECT_LT(seconds_since(start), 3.0);
    close();
}

TEST_F(vcard, PauseStopsTheClock) {
    vcard_set_speed(1.0);
    open();
    ASSERT_EQ(write_all(pcm_, pattern(17640, 1)), 17640); // 0.4 s
    ASSERT_EQ(snd_pcm_pause(pcm_, 1), 0);
    EXPECT_EQ(snd_pcm_state(pcm_), SND_PCM_STATE_PAUSED);
    snd_pcm_sframes_t before = 0, after = 0;
    ASSERT_EQ(snd_pcm_delay(pcm_, &before), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    ASSERT_EQ(snd_pcm_delay(pcm_, &after), 0);
    EXPECT_EQ(before, after) << "nothing is consumed while paused";
    EXPECT_GT(after, 0);
    ASSERT_EQ(snd_pcm_pause(pcm_, 0), 0);
    ASSERT_TRUE(ae_test::wait_until(
        [&] {
            snd_pcm_sframes_t d = 0;
            snd_pcm_delay(pcm_, &d);
            return d < after;
        },
        2000));
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    close();
    EXPECT_EQ(vcard_count_events("pause 1"), 1);
    EXPECT_EQ(vcard_count_events("pause 0"), 1);
}

TEST_F(vcard, InjectedBusyOpenFailsThreeTimes) {
    vcard_fail_open(-EBUSY, 3);
    for (int i = 0; i < 3; ++i) {
        snd_pcm_t *pcm = nullptr;
        EXPECT_EQ(snd_pcm_open(&pcm, "mpd_sm", SND_PCM_STREAM_PLAYBACK, 0), -EBUSY);
        EXPECT_FALSE(vcard_is_open());
    }
    open();
    EXPECT_EQ(vcard_count_events("open-fail -16"), 3) << events();
}

TEST_F(vcard, InjectedNoDeviceOpenFailsEveryTime) {
    vcard_fail_open(-ENODEV, -1);
    for (int i = 0; i < 5; ++i) {
        snd_pcm_t *pcm = nullptr;
        EXPECT_EQ(snd_pcm_open(&pcm, "mpd_sm", SND_PCM_STREAM_PLAYBACK, 0), -ENODEV);
    }
    vcard_fail_open(0, 0);
    open();
}

TEST_F(vcard, UnderrunIsReportedAtTheNextWriteAndPrepareRecovers) {
    open();
    vcard_fail_write_after(-EPIPE, 1000);
    std::vector<int16_t> first = pattern(4608, 1);
    EXPECT_EQ(snd_pcm_writei(pcm_, first.data(), 4608), 1000);
    EXPECT_EQ(snd_pcm_writei(pcm_, first.data() + 2000, 3608), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm_), SND_PCM_STATE_XRUN);
    EXPECT_EQ(vcard_count_events("xrun"), 1);
    ASSERT_EQ(snd_pcm_prepare(pcm_), 0);
    std::vector<int16_t> second = pattern(4608, 2);
    EXPECT_EQ(write_all(pcm_, second), 4608);
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    close();
    std::vector<int16_t> expected(first.begin(), first.begin() + 2000);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(ae_test::captured_samples(), expected);
}

TEST_F(vcard, ImmediateUnderrun) {
    open();
    vcard_fail_write_after(-EPIPE, 0);
    std::vector<int16_t> s = pattern(100, 1);
    EXPECT_EQ(snd_pcm_writei(pcm_, s.data(), 100), -EPIPE);
    EXPECT_EQ(snd_pcm_recover(pcm_, -EPIPE, 1), 0);
    EXPECT_EQ(snd_pcm_writei(pcm_, s.data(), 100), 100);
    EXPECT_EQ(vcard_captured_frames(), 100u);
}

TEST_F(vcard, DisconnectedDeviceStaysGone) {
    open();
    vcard_fail_write_after(-ENODEV, 500);
    std::vector<int16_t> s = pattern(4608, 1);
    EXPECT_EQ(snd_pcm_writei(pcm_, s.data(), 4608), 500);
    EXPECT_EQ(snd_pcm_writei(pcm_, s.data(), 4608), -ENODEV);
    EXPECT_EQ(snd_pcm_state(pcm_), SND_PCM_STATE_DISCONNECTED);
    EXPECT_EQ(snd_pcm_prepare(pcm_), -ENODEV);
    EXPECT_EQ(snd_pcm_writei(pcm_, s.data(), 4608), -ENODEV);
    EXPECT_EQ(snd_pcm_recover(pcm_, -ENODEV, 1), -ENODEV);
    EXPECT_EQ(vcard_count_events("gone"), 1);
    close();
    EXPECT_EQ(vcard_captured_frames(), 500u);
    // Only that handle is gone: the next open works again.
    open();
}

TEST_F(vcard, EventsRecordTheDeviceLife) {
    open(48000);
    ASSERT_EQ(write_all(pcm_, pattern(1000, 1)), 1000);
    ASSERT_EQ(snd_pcm_drain(pcm_), 0);
    close();
    EXPECT_EQ(events(), "open 48000\nprepare\nprepare\nwrite 1000\ndrain\nclose");

    vcard_setup();
    open();
    ASSERT_EQ(write_all(pcm_, pattern(1000, 1)), 1000);
    ASSERT_EQ(snd_pcm_drop(pcm_), 0);
    close();
    EXPECT_EQ(vcard_count_events("open 44100"), 1);
    EXPECT_EQ(vcard_count_events("write "), 1);
    EXPECT_EQ(vcard_count_events("drop"), 1) << events();
    EXPECT_EQ(vcard_count_events("drain"), 0);
    EXPECT_EQ(vcard_count_events("close"), 1);

    // Closing a stream that still plays drops it.
    vcard_setup();
    vcard_set_speed(1.0);
    open();
    ASSERT_EQ(write_all(pcm_, pattern(1000, 1)), 1000);
    close();
    EXPECT_EQ(vcard_count_events("drop"), 1) << events();
    EXPECT_EQ(vcard_count_events("close"), 1);
}

// --- Mixer -----------------------------------------------------------------------------------

struct Mixer {
    snd_mixer_t *handle = nullptr;
    snd_mixer_elem_t *elem = nullptr;
    int open() {
        int err = snd_mixer_open(&handle, 0);
        if (err == 0)
            err = snd_mixer_attach(handle, "default");
        if (err == 0)
            err = snd_mixer_selem_register(handle, nullptr, nullptr);
        if (err == 0)
            err = snd_mixer_load(handle);
        if (err != 0)
            return err;
        snd_mixer_selem_id_t *sid;
        snd_mixer_selem_id_alloca(&sid);
        snd_mixer_selem_id_set_index(sid, 0);
        snd_mixer_selem_id_set_name(sid, "mpd_volume");
        elem = snd_mixer_find_selem(handle, sid);
        return 0;
    }
    ~Mixer() {
        if (handle)
            snd_mixer_close(handle);
    }
};

TEST_F(vcard, MixerRangeAndValueAreShared) {
    vcard_set_mixer_range(10, 20);
    vcard_set_mixer_value(15);
    Mixer a, b;
    ASSERT_EQ(a.open(), 0);
    ASSERT_EQ(b.open(), 0);
    ASSERT_NE(a.elem, nullptr);
    ASSERT_NE(b.elem, nullptr);
    EXPECT_EQ(snd_mixer_selem_has_playback_volume(a.elem), 1);
    long min = -1, max = -1;
    ASSERT_EQ(snd_mixer_selem_get_playback_volume_range(a.elem, &min, &max), 0);
    EXPECT_EQ(min, 10);
    EXPECT_EQ(max, 20);
    long value = -1;
    ASSERT_EQ(snd_mixer_selem_get_playback_volume(a.elem, SND_MIXER_SCHN_FRONT_LEFT, &value), 0);
    EXPECT_EQ(value, 15);

    ASSERT_EQ(snd_mixer_selem_set_playback_volume_all(b.elem, 18), 0);
    EXPECT_EQ(vcard_mixer_value(), 18);
    long writes[8];
    ASSERT_EQ(vcard_mixer_writes(writes, 8), 1u);
    EXPECT_EQ(writes[0], 18);

    ASSERT_GE(snd_mixer_handle_events(a.handle), 0);
    ASSERT_EQ(snd_mixer_selem_get_playback_volume(a.elem, SND_MIXER_SCHN_FRONT_LEFT, &value), 0);
    EXPECT_EQ(value, 18);

    vcard_set_mixer_value(11);
    ASSERT_GE(snd_mixer_handle_events(b.handle), 0);
    ASSERT_EQ(snd_mixer_selem_get_playback_volume(b.elem, SND_MIXER_SCHN_FRONT_LEFT, &value), 0);
    EXPECT_EQ(value, 11);
    size_t n = vcard_mixer_writes(writes, 8);
    EXPECT_EQ(n, 1u) << "test-side values are not library writes";
    EXPECT_EQ(writes[n - 1], 18);
}

TEST_F(vcard, MixerDefaultsAfterSetup) {
    Mixer m;
    ASSERT_EQ(m.open(), 0);
    ASSERT_NE(m.elem, nullptr);
    long min = -1, max = -1, value = -1;
    ASSERT_EQ(snd_mixer_selem_get_playback_volume_range(m.elem, &min, &max), 0);
    EXPECT_EQ(min, 0);
    EXPECT_EQ(max, 255);
    ASSERT_EQ(snd_mixer_selem_get_playback_volume(m.elem, SND_MIXER_SCHN_FRONT_LEFT, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(vcard_mixer_writes(nullptr, 0), 0u);
}

TEST_F(vcard, StereoMixerTakesOneWritePerChannel) {
    vcard_set_mixer_channels(2);
    vcard_set_mixer_value(7);
    Mixer m;
    ASSERT_EQ(m.open(), 0);
    ASSERT_NE(m.elem, nullptr);
    EXPECT_EQ(snd_mixer_selem_is_playback_mono(m.elem), 0);
    long value = -1;
    ASSERT_EQ(snd_mixer_selem_get_playback_volume(m.elem, SND_MIXER_SCHN_FRONT_RIGHT, &value), 0);
    EXPECT_EQ(value, 7);
    ASSERT_EQ(snd_mixer_selem_set_playback_volume_all(m.elem, 9), 0);
    long writes[8];
    EXPECT_EQ(vcard_mixer_writes(writes, 8), 2u);
    EXPECT_EQ(writes[0], 9);
    EXPECT_EQ(vcard_mixer_value(), 9);
}

TEST_F(vcard, HiddenMixerIsNotFound) {
    vcard_hide_mixer(1);
    Mixer m;
    ASSERT_EQ(m.open(), 0);
    EXPECT_EQ(m.elem, nullptr);
    vcard_hide_mixer(0);
    Mixer again;
    ASSERT_EQ(again.open(), 0);
    EXPECT_NE(again.elem, nullptr);
}

TEST_F(vcard, ControlFindsElementByNumid) {
    snd_ctl_t *ctl = nullptr;
    ASSERT_EQ(snd_ctl_open(&ctl, "default", 0), 0);
    snd_ctl_elem_value_t *v;
    snd_ctl_elem_value_alloca(&v);
    snd_ctl_elem_value_set_numid(v, 1);
    vcard_set_mixer_value(42);
    ASSERT_EQ(snd_ctl_elem_read(ctl, v), 0);
    EXPECT_EQ(snd_ctl_elem_value_get_integer(v, 0), 42);
    snd_ctl_close(ctl);
}

} // namespace
