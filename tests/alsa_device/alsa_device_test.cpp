// The output layer on the virtual card: the ring of pieces, the device, the play thread, the mixer.
#include <algorithm>
#include <chrono>
#include <thread>
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "alsa_device.h"
#include "alsa_output_internal.h"
#include "mp_state.h"
#include "test_support.h"
#include "vcard.h"

namespace {

class AlsaDevice : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        mp_control_set_volume(0);
    }
    void TearDown() override {
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }
    // Fills the next free piece with samples unique to `seed` and pushes it; returns the samples
    // the card should play (a piece holds no more than ABUF_PIECE_MAX_FRAMES, whatever it says).
    static std::vector<int16_t> push(int rate, int frames, int seed) {
        abuf_piece *piece = nullptr;
        EXPECT_TRUE(ae_test::wait_until([&] { return (piece = get_output_buffer()); }, 5000));
        if (piece == nullptr)
            return {};
        *piece = abuf_piece{rate, frames, {}};
        auto *samples = reinterpret_cast<int16_t *>(piece->data);
        for (int i = 0; i < ABUF_PIECE_MAX_FRAMES * 2; ++i)
            samples[i] = static_cast<int16_t>(seed * 7919 + i * 31);
        std::vector<int16_t> held(samples, samples + std::min(frames, +ABUF_PIECE_MAX_FRAMES) * 2);
        EXPECT_EQ(push_output_buffer(piece), 0);
        return held;
    }
};

TEST_F(AlsaDevice, OpenAndCloseTheDevice) {
    enum Call { Open, Close, Pause };
    // Call and its argument (rate: negative means 44100; drain; pause), an open error injected and
    // how many opens meet it, the answer, the count of events starting with a prefix, open or not.
    // An open device is closed before it opens again; -EBUSY is waited out, -ENODEV is not.
    const std::tuple<Call, int, int, int, int, const char *, int, int> steps[] = {
        {Open, -1, 0, 0, 1, "open 44100", 1, 1},
        {Open, 96000, 0, 0, 1, "close", 1, 1},
        {Open, 96001, 0, 0, 0, "open ", 2, 0},
        {Close, 1, 0, 0, 0, "close", 3, 0},
        {Pause, 1, 0, 0, 0, "pause", 0, 0},
        {Open, 44100, -EBUSY, 3, 1, "open-fail -16", 3, 1},
        {Close, 1, 0, 0, 1, "drain", 1, 0},
        {Open, 44100, -ENODEV, 1, 0, "open-fail -19", 1, 0},
        {Open, 44100, 0, 0, 1, "open 44100", 3, 1},
        {Close, 0, 0, 0, 1, "drain", 1, 0},
        {Close, 0, 0, 0, 0, "close", 5, 0}};
    for (const auto &[call, arg, fail, fails, rc, event, count, opened] : steps) {
        SCOPED_TRACE(std::to_string(call) + " " + std::to_string(arg) + " " + event);
        if (fails)
            vcard_fail_open(fail, fails);
        EXPECT_EQ(call == Open    ? open_alsa(arg)
                  : call == Close ? (arg ? close_alsa() : close_alsa_ex(0))
                                  : pause_alsa(arg),
                  rc);
        EXPECT_EQ(vcard_count_events(event), count);
        EXPECT_EQ(is_alsa_opened() + vcard_is_open(), 2 * opened);
    }
}

TEST_F(AlsaDevice, PlayThreadPlaysWhatIsPushed) {
    // Write error once 1000 frames are in; the rates of the first and later pieces; the frames of
    // each piece; the piece the card loses (the fault's); events seen once and one never seen;
    // whether the output works on (else it waits for a reset).
    using Row = std::tuple<int, int, int, std::vector<int>, size_t, std::vector<const char *>,
                           const char *, int>;
    const Row rows[] = {
        {0, 44100, 44100, {4608, 1, 1000, 4607, 4608, 2, 333, 4608}, 9, {"open 44100"}, "drop", 1},
        {0, 44100, 44100, {100000}, 9, {"open 44100"}, "xrun", 1},
        {-ENODEV, 44100, 44100, {1000, 1000}, 1, {"open 44100", "gone"}, "xrun", 0},
        {0, 22050, 48000, {2000, 2000}, 9, {"open 22050", "drain", "open 48000"}, "drop", 1},
        {-EPIPE, 44100, 44100, {1000, 1000, 1000}, 1, {"open 44100", "xrun"}, "drop", 1}};
    for (const auto &[fault, rate, rate_after, frames, lost, events, absent, works] : rows) {
        SCOPED_TRACE(std::to_string(&fault - &std::get<0>(rows[0])));
        SetUp();
        if (fault)
            vcard_fail_write_after(fault, 1000);
        ASSERT_EQ(init_alsa_output(), 0);
        abuf_piece stray{44100, 16, {}}; // only the pieces handed out are taken
        EXPECT_EQ(push_output_buffer(&stray) + push_output_buffer(nullptr), -2);
        std::vector<int16_t> expected;
        for (size_t i = 0; i < frames.size(); ++i) {
            auto sent = push(i ? rate_after : rate, frames[i], static_cast<int>(i) + 1);
            expected.insert(expected.end(), sent.begin(), i == lost ? sent.begin() : sent.end());
        }
        ASSERT_TRUE(ae_test::wait_until(
            [&, works = works] {
                return vcard_captured_frames() >= expected.size() / 2 &&
                       alsa_output_working() == works && is_alsa_opened() == works;
            },
            5000));
        EXPECT_EQ(ae_test::captured_samples(), expected);
        for (const char *event : events)
            EXPECT_EQ(vcard_count_events(event), 1) << event;
        EXPECT_EQ(vcard_count_events(absent), 0);
        EXPECT_EQ(init_alsa_output(), 1); // already running, or stopped until it is reset
        TearDown();
    }
}

TEST_F(AlsaDevice, IdleDeviceClosesAndTheNextPieceReopensAtTheUsersVolume) {
    vcard_set_speed(1.0); // real time: the device runs while it is paused and resumed
    vcard_set_mixer_range(0, 255);
    mp_control_set_volume(20);
    ASSERT_EQ(init_alsa_output(), 0);
    for (int i = 0; i < 3; ++i)
        push(44100, ABUF_PIECE_MAX_FRAMES, i);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_captured_frames() > 0; }, 5000));
    EXPECT_EQ(vcard_mixer_value(), 51);
    EXPECT_EQ(pause_alsa(1) + pause_alsa(0), 0);
    EXPECT_EQ(vcard_count_events("pause 1") + vcard_count_events("pause 0"), 2);
    // A second without audio closes the device without draining it (a stream that ran dry
    // meanwhile may have stopped already), and the mixer.
    ASSERT_TRUE(ae_test::wait_until([] { return is_alsa_opened() == 0; }, 5000));
    EXPECT_EQ(vcard_count_events("drain"), 0);
    EXPECT_EQ(AlsaMixerSetVolume(10), -1);
    mp_control_set_volume(50);
    vcard_set_mixer_value(0);
    push(44100, 1000, 4);
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_mixer_value() == 127; }, 5000));
    EXPECT_EQ(vcard_count_events("open 44100"), 2);
}

// A pause silences the card at once and its resume plays on from the same sample, on a card
// that pauses and on one whose buffer must be dropped and written again; a drop discards all
// that is queued. The record maps what the card plays back to the pieces' tags.
TEST_F(AlsaDevice, PauseAndDropAnswerAtOnceAndTheRecordFollowsTheCard) {
    enum Action { Pause, Drop, DropWhilePaused };
    const std::tuple<int, Action> rows[] = {{1, Pause}, {0, Pause},           {1, Drop},
                                            {0, Drop},  {1, DropWhilePaused}, {0, DropWhilePaused}};
    const int pieces = 8, frames = ABUF_PIECE_MAX_FRAMES, rate = 44100;
    for (const auto &[can_pause, action] : rows) {
        SCOPED_TRACE(std::to_string(can_pause) + " " + std::to_string(action));
        SetUp();
        vcard_set_speed(2.0);
        vcard_set_can_pause(can_pause);
        ASSERT_EQ(init_alsa_output(), 0);
        // Piece i holds media from i seconds on, played at 1.5 times its speed.
        auto pushTagged = [&](int i) {
            abuf_piece *piece = nullptr;
            EXPECT_TRUE(ae_test::wait_until([&] { return (piece = get_output_buffer()); }, 5000));
            const alsa_output_tag tag{i * 1000000LL, 1.5, 7};
            EXPECT_EQ(alsa_output_tag_piece(piece, &tag), 0);
            return push(rate, frames, i); // fills the piece got above and pushes it
        };
        std::vector<int16_t> sent;
        for (int i = 0; i < pieces / 2; ++i) {
            auto s = pushTagged(i);
            sent.insert(sent.end(), s.begin(), s.end());
        }
        ASSERT_TRUE(ae_test::wait_until([] { return vcard_heard_frames() > 6000; }, 5000));
        alsa_output_position at{};
        ASSERT_EQ(alsa_output_playing(&at), 0);
        EXPECT_EQ(at.source, 7);
        EXPECT_GT(at.queued_us, 0);
        if (action != Drop) {
            ASSERT_EQ(alsa_output_pause(1), 0);
            const size_t heard = vcard_heard_frames();
            ASSERT_EQ(alsa_output_playing(&at), 0);
            EXPECT_TRUE(at.paused);
            // The card's frame `heard` is piece heard / frames, that far into it.
            const double media = heard / frames + 1.5 * (heard % frames) / rate;
            EXPECT_NEAR(at.media_us / 1e6, media, 0.002);
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            EXPECT_EQ(vcard_heard_frames(), heard) << "sound after the pause";
        }
        if (action != Pause) {
            const size_t before = vcard_heard_frames();
            ASSERT_EQ(alsa_output_drop(), 0);
            EXPECT_GE(vcard_heard_frames(), before);
            sent.resize(vcard_heard_frames() * 2);  // the rest is never heard
            EXPECT_NE(alsa_output_playing(&at), 0); // nothing tagged left
            EXPECT_EQ(at.queued_us, 0);
        }
        EXPECT_EQ(alsa_output_pause(0), 0);
        for (int i = pieces / 2; i < pieces; ++i) {
            auto s = pushTagged(i);
            sent.insert(sent.end(), s.begin(), s.end());
        }
        const size_t kept = sent.size() / 2;
        ASSERT_TRUE(ae_test::wait_until([&] { return vcard_heard_frames() >= kept; }, 5000));
        std::vector<int16_t> heard(kept * 2 + 2);
        heard.resize(vcard_heard(heard.data(), kept + 1) * 2);
        EXPECT_TRUE(heard == sent)
            << "lost or repeated audio: " << heard.size() << " of " << sent.size();
        // A drop while the device is paused leaves nothing to resume.
        EXPECT_EQ(vcard_count_events("pause"), !can_pause        ? 0
                                               : action == Pause ? 2
                                                                 : action == DropWhilePaused);
        TearDown();
    }
}

// The 0..100 volume onto the control's range and back, and the ramp of one unit per step.
TEST_F(AlsaDevice, MixerMapsAndRampsTheControl) {
    // Range; the control's value; no control; calls: AlsaMixerSetVolume(v), or a ramp to v - 1000
    // when v >= 900 (a second ramp, and a direct set, wait for the running one to arrive); the
    // values written; the volume read back at the start.
    const std::tuple<long, long, long, bool, std::vector<int>, std::vector<long>, long> rows[] = {
        {0, 255, 127, false, {100, 50, 0, 101, -1}, {255, 127, 0, 255, 0}, 49},
        {10, 20, 17, false, {55, 100, 0}, {15, 20, 10}, 70},
        {5, 5, 5, false, {}, {}, 0},               // an empty range reads as 0
        {0, 100, 50, false, {1050}, {49, 50}, 50}, // steps away and back
        {0, 100, 0, false, {1005, 1002, 7}, {1, 2, 3, 4, 5, 4, 3, 2, 7}, 0},
        {0, 255, 0, true, {50}, {}, -5}}; // nothing written or read
    for (const auto &[min, max, value, hidden, calls, expected, read] : rows) {
        SCOPED_TRACE(std::to_string(min) + ".." + std::to_string(max));
        vcard_setup();
        vcard_set_mixer_range(min, max);
        vcard_set_mixer_value(value);
        vcard_hide_mixer(hidden);
        ASSERT_EQ(AlsaMixerInit("mpd_volume"), hidden ? 2 : 0);
        long volume = -5;
        EXPECT_EQ(AlsaMixerGetVolume(&volume), hidden ? 2 : 0);
        EXPECT_EQ(volume, read);
        for (int v : calls)
            EXPECT_EQ(v >= 900 ? AlsaMixerSetSoftVolume(v - 1000) : AlsaMixerSetVolume(v),
                      hidden ? -1 : 0);
        EXPECT_EQ(AlsaMixerDestroy(), 1); // joins the ramp
        std::vector<long> writes(64);
        writes.resize(vcard_mixer_writes(writes.data(), writes.size()));
        EXPECT_EQ(writes, expected);
    }
}

} // namespace
