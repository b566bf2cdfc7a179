// The engine on the virtual card, through IAudioEngine and, for the zip-member I/O context, its
// own operations. Every wait is for an observable event with a deadline, never a timed assert.
#include <malloc.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "AudioEngine.h"
#include "alsa_device.h"
#include "host_platform.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using namespace ae_test;
using tavrel::utilities::IAudioEngine;
using Tags = std::map<std::string, std::string>;
const int kRate = 44100;

// A row's name in the test list: its index and file.
template <class Row> std::string rowName(const ::testing::TestParamInfo<Row> &info) {
    std::string name = std::to_string(info.index) + "_" + info.param.file;
    for (char &c : name)
        c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

// Frames captured so far, in seconds.
double heard() {
    return double(vcard_captured_frames()) / kRate;
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        caller_ = std::this_thread::get_id();
        engine_ = AudioEngine_CreateAudioEngine();
        ASSERT_NE(engine_, nullptr);
        engine_->setStateChangedCb([this] { record('S'); });
        engine_->setTrackPositionChangedCb([this] {
            record('P');
            const double t = tempoAtFirstPosition_.exchange(0);
            if (t > 0)
                engine_->setTempo(t);
        });
        engine_->setErrorCallback([this](IAudioEngine::ErrorType type) {
            EXPECT_EQ(type, IAudioEngine::NoOutputDevice);
            EXPECT_EQ(engine_->getState(), 0);
            record('E');
        });
        host_platform_clear_calls();
    }
    void TearDown() override {
        if (engine_ != nullptr) {
            engine_->closeFile();
            AudioEngine_DestroyAudioEngine(engine_);
        }
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
        host_set_display_color(1);
    }
    // Notifications as kind and thread ('c' caller, 'p' play thread), per-pass positions left
    // out: "ScPpSp" is start(), then the final position and Finished from the play thread.
    void record(char kind) {
        const bool mine = std::this_thread::get_id() == caller_;
        const bool pass = kind == 'P' && engine_->getState() != 3;
        std::lock_guard<std::mutex> lock(mutex_);
        notes_ += pass ? "" : std::string(1, kind) + (mine ? 'c' : 'p');
    }
    std::string notes() {
        std::lock_guard<std::mutex> lock(mutex_);
        return notes_;
    }
    bool waitState(int state) {
        return wait_until([&] { return engine_->getState() == state; }, 20000);
    }
    // To Finished, and until the card is closed, so the capture is complete.
    void playOpened() {
        ASSERT_EQ(engine_->start(), 0);
        ASSERT_TRUE(waitState(3)) << "state " << engine_->getState();
        ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 5000));
    }
    static std::string platformCalls() {
        std::vector<host_platform_call> calls(100000);
        const size_t n = std::min(host_platform_calls(calls.data(), calls.size()), calls.size());
        std::string out;
        for (size_t i = 0; i < n; ++i)
            out += calls[i].kind + std::to_string(calls[i].value) + ' ';
        return out;
    }
    IAudioEngine *engine_ = nullptr;
    std::thread::id caller_;
    std::mutex mutex_;
    std::string notes_;
    std::atomic<double> tempoAtFirstPosition_{0};
};

// --- Opens that fail: the reason logged, nothing notified, and the next open still works -----

struct BadOpen {
    const char *file; // in the media folder; "stream:" is a caller stream failing every read
    const char *message = "Failed to open %s";
};

class EngineOpenFailure : public EngineTest, public ::testing::WithParamInterface<BadOpen> {};

TEST_P(EngineOpenFailure, FailsWithItsReasonAndTheNextOpenWorks) {
    const BadOpen b = GetParam();
    const bool stream = strncmp(b.file, "stream:", 7) == 0;
    const std::string path = media_path(stream ? b.file + 7 : b.file);
    std::unique_ptr<MemoryStream> bytes(stream ? new MemoryStream(path) : nullptr);
    if (stream)
        bytes->failReadsFrom(0, AVERROR(EIO));
    LogCapture log;
    EXPECT_EQ(stream ? engine_->openWithStream(bytes.get()) : engine_->openFile(path), -1);
    EXPECT_TRUE(log.contains(2, std::regex_replace(b.message, std::regex("%s"), path)))
        << log.dump();
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->start(), -1);
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_EQ(notes(), "");
    ASSERT_EQ(engine_->openFile(media_path("book_deflated.zip") + ":#zip(marked_3s.mp3)"), 0);
    EXPECT_EQ(engine_->getDurationMs(), 3000);
    EXPECT_EQ(stream ? -1 : engine_->openFile(path), -1);
    ASSERT_EQ(engine_->openFile(media_path("marked_3s.mp3")), 0);
    playOpened();
    EXPECT_GE(heard(), 2.0);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EngineOpenFailure,
    ::testing::Values(BadOpen{"no_such_file.mp3"}, BadOpen{"empty.mp3"}, BadOpen{"not_audio.mp3"},
                      BadOpen{"video_only_3s.mp4", "Could not find audio stream"},
                      BadOpen{"rate_7hz.wav", "unsupported sample rate 7"},
                      BadOpen{"rate_1ghz.wav", "unsupported sample rate 1195853639"},
                      BadOpen{"stream:tone440_3s.mp3", "Failed to open dummyfilename"},
                      BadOpen{"no_such_archive.zip:#zip(marked_3s.mp3)"},
                      BadOpen{"book_stored.zip:#zip(no_such_member.mp3)"},
                      BadOpen{"book_stored.zip:#zip(sub/)"}, BadOpen{"book_stored.zip:#zip("},
                      BadOpen{"book_stored.zip:#zip()"},
                      BadOpen{"book_corrupt.zip:#zip(marked_3s.mp3)"},
                      BadOpen{"marked_3s.mp3:#zip(marked_3s.mp3)"}),
    rowName<BadOpen>);

// --- What reaches the card: 44100 Hz stereo of the right pitch, length and level -------------

struct Sound {
    const char *file; // "stream:" through a caller stream, "half:" one whose reads fail midway
    double hz = 440, minSec = 2.75, maxSec = 3.02; // tone (0: none), length heard
    double tempo = 1, rate = 1, liveTempo = 0;     // liveTempo: set at the first position report
    int eq = 0;                                    // 1: 1 kHz cut by 12 dB, 2: the same, cleared
    double eqDb = 0, startHz = 0; // level change by the equaliser; tone of the first 0.4 s
};

// Half periods of the tone on channel 0 off by more than a quarter: audio lost or repeated.
int discontinuities(const std::vector<int16_t> &s, double hz) {
    const double half = kRate / hz / 2;
    int count = 0;
    long last = -1;
    // A lossy encoder's end padding (the last 2048 frames) is not a clean tone.
    for (size_t i = 1; i + 2048 < s.size() / 2; ++i)
        if ((s[2 * (i - 1)] < 0) != (s[2 * i] < 0)) {
            count += last >= 0 && std::fabs(long(i) - last - half) > half / 4;
            last = long(i);
        }
    return count;
}

// A mono WAV at 1000 Hz, the lowest rate the engine takes, of a 100 Hz tone for 3 s.
std::string lowRateWav() {
    const uint32_t rate = 1000, frames = 3 * rate;
    std::vector<uint8_t> b;
    const auto put = [&b](const char *tag, uint32_t v, int bytes) {
        b.insert(b.end(), tag, tag + strlen(tag));
        for (int i = 0; i < bytes; ++i)
            b.push_back(uint8_t(v >> (8 * i)));
    };
    put("RIFF", 36 + 2 * frames, 4);
    put("WAVEfmt ", 16, 4);
    put("", 1 | 1 << 16, 4); // PCM, one channel
    put("", rate, 4);
    put("", 2 * rate, 4);
    put("", 2 | 16 << 16, 4); // two bytes a frame, 16 bits
    put("data", 2 * frames, 4);
    for (uint32_t i = 0; i < frames; ++i)
        put("", uint16_t(int16_t(10000 * std::sin(2 * M_PI * 100 * i / rate))), 2);
    EXPECT_TRUE(write_file(tmp_path("rate_1000hz.wav"), b));
    return tmp_path("rate_1000hz.wav");
}

class EngineSound : public EngineTest, public ::testing::WithParamInterface<Sound> {
protected:
    std::unique_ptr<MemoryStream> stream_;

    std::vector<int16_t> play(const Sound &s) {
        engine_->closeFile(); // ends a finished loop before the next open
        {
            std::lock_guard<std::mutex> lock(mutex_);
            notes_.clear();
        }
        vcard_setup();
        std::string file = s.file;
        const size_t colon = file.find(':');
        if (colon != std::string::npos) {
            stream_.reset(new MemoryStream(media_path(file.substr(colon + 1))));
            if (file[0] == 'h')
                stream_->failReadsFrom(stream_->size() / 2, AVERROR(EIO));
            EXPECT_EQ(engine_->openWithStream(stream_.get()), 0);
        } else {
            const bool made = file == "rate_1000hz.wav";
            EXPECT_EQ(engine_->openFile(made ? lowRateWav() : media_path(file)), 0) << file;
        }
        playOpened();
        return captured_samples();
    }
};

TEST_P(EngineSound, ToneLengthAndLevel) {
    const Sound s = GetParam();
    std::vector<int16_t> plain;
    if (s.eq != 0) {
        plain = play(s);
        std::vector<std::pair<int, int>> bands; // ten points, all flat but 1 kHz
        for (int hz : {31, 62, 125, 250, 500, 1000, 2000, 4000, 8000, 16000})
            bands.push_back({hz, hz == 1000 ? -12 : 0});
        engine_->setEqualizerSettings(bands);
        if (s.eq == 2)
            engine_->setEqualizerSettings({});
    }
    engine_->setTempo(s.tempo);
    engine_->setSampleRateMultiplier(s.rate);
    tempoAtFirstPosition_ = s.liveTempo;
    const std::vector<int16_t> got = play(s);
    EXPECT_EQ(tempoAtFirstPosition_.load(), 0) << "no position report";
    EXPECT_TRUE(std::regex_match(notes(), std::regex("ScPpSp|Pp(ScSp|SpSc)"))) << notes();
    EXPECT_EQ(engine_->getPosition(), engine_->getDurationMs());
    EXPECT_EQ(engine_->getPosition() % 1000, 0);
    EXPECT_GE(heard(), s.minSec);
    EXPECT_LE(heard(), s.maxSec);
    EXPECT_GE(vcard_count_events("open 44100"), 1);
    EXPECT_EQ(vcard_count_events("open "), vcard_count_events("open 44100"));
    ASSERT_GT(got.size(), size_t(kRate));
    if (s.hz > 0) {
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(zero_crossing_frequency(got, 2, ch, kRate), s.hz,
                        std::max(5.0, s.hz / 100));
        EXPECT_GT(rms_dbfs(got, 2, 0), -40.0);
        EXPECT_NEAR(rms_dbfs(got, 2, 0), rms_dbfs(got, 2, 1), 1.0);
        EXPECT_LE(s.eq ? 0 : discontinuities(got, s.hz), s.liveTempo > 0 ? 2 : 0); // one join
    }
    if (s.startHz > 0) { // played from its start, the cover picture skipped
        const std::vector<int16_t> head(got.begin(), got.begin() + 2 * (4 * kRate / 10));
        EXPECT_NEAR(zero_crossing_frequency(head, 2, 0, kRate), s.startHz, 10.0);
        EXPECT_NEAR(rms_dbfs(head, 2, 0), rms_dbfs(got, 2, 0), 3.0);
    }
    for (int ch = 0; s.eq != 0 && ch < 2; ++ch) // the steady part, after the equaliser's onset
        EXPECT_NEAR(rms_dbfs(std::vector<int16_t>(got.begin() + kRate, got.end()), 2, ch) -
                        rms_dbfs(std::vector<int16_t>(plain.begin() + kRate, plain.end()), 2, ch),
                    s.eqDb, 1.5);
    if (strcmp(s.file, "known_pcm_1s.wav") == 0) { // values and channel order kept
        const std::vector<int16_t> want = known_pcm(0, got.size() / 2);
        size_t off = 0, swapped = 0;
        for (size_t i = 0; i < got.size(); ++i) {
            off += std::abs(got[i] - want[i]) > 64;
            swapped += std::abs(got[i] - want[i ^ 1]) > 64;
        }
        EXPECT_LT(off, got.size() / 100);
        EXPECT_GT(swapped, got.size() / 2);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EngineSound,
    ::testing::Values(
        Sound{"tone440_3s.wav"}, Sound{"tone440_3s.mp3"}, Sound{"tone440_3s.m4a"},
        Sound{"tone440_3s.flac"}, Sound{"tone440_3s.ogg"}, Sound{"tone440_3s.opus"},
        Sound{"tone440_3s_mono.wav"}, Sound{"tone440_3s_8000.wav"}, Sound{"tone440_3s_22050.wav"},
        Sound{"tone440_3s_48000.wav"}, Sound{"tone440_3s_96000.wav"}, Sound{"tone440_3s_5.1.flac"},
        Sound{"rate_1000hz.wav", 100}, Sound{"av_3s.mp4"}, Sound{"stream:tone440_3s.flac"},
        Sound{"half:tone440_10s.mp3", 0, 4, 6}, Sound{"tone440_truncated.mp3", 0, 2, 10},
        Sound{"tone440_corrupt.mp3", 0, 8, 10}, Sound{"known_pcm_1s.wav", 0, 0.75, 1},
        Sound{"marked_3s.mp3", 0, 2.9, 3, 1, 1, 0, 0, 0, 300},
        Sound{"cover_jpeg_3s.mp3", 0, 2.75, 3, 1, 1, 0, 0, 0, 300},
        Sound{"cover_png_3s.flac", 0, 2.75, 3, 1, 1, 0, 0, 0, 300},
        Sound{"tone440_3s.wav", 440, 1.25, 1.52, 2}, Sound{"tone440_3s.mp3", 440, 1.25, 1.52, 2},
        Sound{"tone440_3s.wav", 440, 5.5, 6.02, 0.5}, Sound{"tone440_3s.wav", 440, 0.5, 0.77, 4},
        Sound{"tone440_3s.wav", 660, 1.75, 2.02, 1, 1.5},
        Sound{"tone440_3s.wav", 220, 5.5, 6.02, 1, 0.5},
        Sound{"tone440_3s.wav", 660, 0.75, 1.02, 2, 1.5},
        // 8 kHz sources give filtered frames longer than one output piece.
        Sound{"tone440_3s_8000.wav", 440, 11, 12.02, 0.25},
        Sound{"tone440_3s_8000.wav", 880, 1.25, 1.52, 1, 2},
        Sound{"tone440_3s_8000.wav", 220, 5.5, 6.02, 1, 0.5},
        Sound{"tone440_3s_8000.wav", 220, 11, 12.02, 0.5, 0.5},
        Sound{"tone440_3s.wav", 440, 1.0, 1.7, 1, 1, 2},
        Sound{"tone1000_3s.wav", 1000, 2.75, 3.02, 1, 1, 0, 1, -12},
        Sound{"tone100_3s.wav", 100, 2.75, 3.02, 1, 1, 0, 1, 0},
        Sound{"tone1000_3s.wav", 1000, 2.75, 3.02, 1, 1, 0, 2, 0}),
    rowName<Sound>);

// --- Transport: each row is a script of operations and what it must end with -----------------

struct Transport {
    const char *file;  // "noseek:" through a caller stream that refuses seeks
    double speed;      // of the card, times real time
    const char *steps; // see run()
    const char *notes; // regex over the notifications, see record()
    const char *calls; // regex over the media-player states given to the platform
    int position;      // at the end, -1: any
    double minSec, maxSec;
};

class EngineTransport : public EngineTest, public ::testing::WithParamInterface<Transport> {
protected:
    std::unique_ptr<MemoryStream> stream_;
    int target_ = 0;

    bool open() {
        const std::string file = GetParam().file;
        if (file.rfind("noseek:", 0) != 0)
            return engine_->openFile(media_path(file)) == 0;
        stream_.reset(new MemoryStream(media_path(file.substr(7))));
        stream_->refuseSeeks();
        return engine_->openWithStream(stream_.get()) == 0;
    }
    // Polls the position while the media plays: whole seconds, never back (after a seek:
    // never below `floor`); true when it reached `until`.
    bool follow(int64_t floor, int64_t until) {
        int64_t last = 0, max = 0;
        while (engine_->getState() == 1 && max < until) {
            const int64_t p = engine_->getPosition();
            EXPECT_EQ(p % 1000, 0);
            EXPECT_GE(p, floor > 0 ? floor : last); // a seek may land a second early
            last = p;
            max = std::max(max, p);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return max >= until;
    }
    // One step of a script: o open, S start, a wait for more audio at the card, p pause, P wait
    // until the platform is told, r resume, x stop, c close, k seek, = the position is, W wait
    // for the position, K seek while playing: the first position past the old ones is the
    // target's second, m follow after a seek, M follow to the end, w wait until Finished and
    // the card closed, F/G the device missing at open/gone after a second, E the loop stopped
    // for it and left the media open, T a tempo the filters refuse at the first position
    // report, L the media closed by that failure, D destroy, t tempo in tenths.
    bool step(char op, int n) {
        const size_t frames = vcard_captured_frames();
        int64_t seen = -1;
        return op == 'o'   ? open()
               : op == 'S' ? engine_->start() == 0
               : op == 'a' ? wait_until([&] { return vcard_captured_frames() > frames; }, 10000)
               : op == 'p' ? engine_->pause() == 0 && engine_->getState() == 2
               : op == 'P'
                   ? wait_until([] { return platformCalls().find("S3") != std::string::npos; },
                                5000)
               : op == 'r' ? engine_->resume() == 0 && engine_->getState() == 1
               : op == 'x'
                   ? engine_->stop() == 0 && engine_->getState() == 0 && engine_->getPosition() == 0
               : op == 'c' ? (engine_->closeFile(), true)
               : op == 'k' ? engine_->seekStream(target_ = n) == 0
               : op == '=' ? engine_->getPosition() == n
               : op == 'W' ? wait_until([&] { return engine_->getPosition() >= n; }, 20000)
               : op == 'K'
                   ? engine_->seekStream(n) == 0 &&
                         wait_until([&] { return (seen = engine_->getPosition()) >= n - 1000; },
                                    20000) &&
                         seen == n
               : op == 'm' ? (follow(target_ - 1000, target_ + 1000), true)
               : op == 'M' ? follow(0, engine_->getDurationMs() - 2000)
               : op == 'w' ? waitState(3) && wait_until([] { return vcard_is_open() == 0; }, 5000)
               : op == 'F' ? (vcard_fail_open(-ENODEV, -1), true)
               : op == 'G' ? (vcard_fail_write_after(-ENODEV, kRate), true)
               : op == 'E' ? wait_until([this] { return notes().size() >= 10; }, 10000) &&
                                 engine_->getState() == 0 && engine_->getPosition() == 0 &&
                                 engine_->isFileOpened()
               : op == 'T' ? (tempoAtFirstPosition_ = 0.1) > 0
               : op == 'L' ? !engine_->isFileOpened() && engine_->start() == -1 && !open() &&
                                 (engine_->setTempo(1.0), true)
               : op == 'D' ? (AudioEngine_DestroyAudioEngine(engine_), engine_ = nullptr, true)
               : op == 't' ? (engine_->setTempo(n / 10.0), true)
                           : false;
    }
};

TEST_P(EngineTransport, Script) {
    const Transport t = GetParam();
    vcard_set_speed(t.speed);
    for (const char *s = t.steps; *s;) {
        const char op = *s++;
        char *end = nullptr;
        const long n = strtol(s, &end, 10);
        s = end;
        ASSERT_TRUE(step(op, int(n))) << op << n << " " << notes() << " " << heard() << " s";
    }
    EXPECT_TRUE(std::regex_match(notes(), std::regex(t.notes))) << notes();
    EXPECT_TRUE(std::regex_search(platformCalls(), std::regex(t.calls))) << platformCalls();
    EXPECT_EQ(t.position < 0 ? t.position : engine_->getPosition(), t.position);
    EXPECT_GE(heard(), t.minSec);
    EXPECT_LE(heard(), t.maxSec);
}

const char *kEnd = "ScPpSp|Pp(ScSp|SpSc)";
INSTANTIATE_TEST_SUITE_P(
    Rows, EngineTransport,
    ::testing::Values(
        // Plays to the end; a finished engine ends again at once, nothing rewinds.
        Transport{"tone440_3s.mp3", 0, "oSwSw", "(ScPpSp|Pp(ScSp|SpSc)){2}", "^(S2 (B4 S0 )+)+$",
                  3000, 2.75, 3.02},
        // A second pause or resume notifies nothing; the loop holds and goes on.
        Transport{"tone440_3s.wav", 2, "oSappPrrw", "ScScScPpSp", "^S2 .*(S3 )+S2 .*B4 S0 $", 3000,
                  2.75, 3.02},
        // A stop seen in pause: stop check, packet end and exit notify, then stop(); a start
        // goes on from where it stopped.
        Transport{"tone440_3s.wav", 2, "oSapxSw", "ScScSpSpSpSc(ScPpSp|Pp(ScSp|SpSc))", "B4 S0 $",
                  3000, 2.75, 3.02},
        Transport{"tone440_10s.mp3", 1, "oSaxc", "ScSpSp(Sp)?Sc", "B4 S0 $", 0, 0, 9},
        Transport{"tone440_10s.mp3", 1, "oSaSax", "Sc(SpSp(Sp)?Sc){2}", "B4 S0 $", 0, 0, 9},
        Transport{"tone440_10s.mp3", 4, "oSMw", kEnd, "B4 S0 $", 10000, 9.75, 10.02},
        Transport{"tone440_10s.mp3", 2, "t20oSMw", kEnd, "B4 S0 $", 10000, 4.75, 5.02},
        // Seeks while stopped: past the end ignored, then from second 5 on.
        Transport{"tone440_10s.mp3", 0, "ok12000=0k5999=5999Sw", kEnd, "", 10000, 4.9, 5.5},
        Transport{"tone440_10s.mp3", 0, "ok5000k-1=5000Sw", kEnd, "", 10000, 9.9, 10.02},
        // A seek is forgotten by the next open.
        Transport{"tone440_10s.mp3", 0, "ok5000oSw", kEnd, "", 10000, 9.9, 10.02},
        Transport{"tone440_10s.mp3", 2, "oSapk3000=3000rmpk6000=6000rmpk8000=8000rmw",
                  "ScScScScScScScPpSp", "", 10000, 0, 7.5},
        Transport{"tone440_10s.mp3", 2, "oSak8000p=8000rwk1000=10000", "ScScScPpSp", "", 10000, 0,
                  5},
        Transport{"tone440_10s.mp3", 0.2, "oSaK8000x", "ScSpSp(Sp)?Sc", "", 0, 0, 9},
        // A stream that cannot seek plays on from where it was.
        Transport{"noseek:tone440_3s.wav", 1, "oSW1000k0w", kEnd, "", -1, 1.5, 3},
        Transport{"tone440_10s.mp3", 0, "FoSEx", "ScEpSpSpSpSc", "B4 S0 $", 0, 0, 0},
        Transport{"tone440_10s.mp3", 0, "GoSEx", "ScEpSpSpSpSc", "B4 S0 $", 0, 0, 1},
        Transport{"tone440_3s.wav", 0, "ToSw=3000L", kEnd, "B4 S0 $", -1, 0, 3.02},
        Transport{"tone440_10s.mp3", 1, "oSaD", ".*", "", -1, 0, 10}),
    rowName<Transport>);

// One application thread drives every operation while the play thread runs (ThreadSanitizer
// watches); the test fails instead of hanging if the two deadlock.
TEST_F(EngineTest, TransportHammeredWhilePlaying) {
    vcard_set_speed(8.0);
    ASSERT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > 0; }, 10000));
    auto driver = std::async(std::launch::async, [&] {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        for (int i = 0; std::chrono::steady_clock::now() < until; ++i) {
            const int op = i % 10;
            if (op == 0)
                engine_->setTempo(i % 20 == 0 ? 1.5 : 0.75);
            else if (op == 1)
                engine_->setSampleRateMultiplier(i % 20 == 1 ? 1.25 : 1.0);
            else if (op == 2)
                engine_->setEqualizerSettings({{60, 3}, {1000, -2}, {2000 + i % 14000, 1}});
            else if (op == 3 || op == 6)
                engine_->seekStream(op == 6 ? -1 : (i * 7) % 9 * 1000);
            else if (op == 4 || op == 5)
                EXPECT_EQ(op == 4 ? engine_->pause() : engine_->resume(), 0);
            else if (op == 7 && engine_->getState() == 3) { // played through: again
                engine_->closeFile();
                EXPECT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
                EXPECT_EQ(engine_->start(), 0);
            }
            EXPECT_EQ(engine_->getPosition() % 1000, 0);
            EXPECT_LE(engine_->getChapters().size() + engine_->getMetadata().size(), 100u);
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
}

// --- Tags, chapters and cover of the opened media --------------------------------------------

Tags demuxerTags(const std::string &path) {
    Tags tags;
    AVFormatContext *ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) != 0)
        return tags;
    if (avformat_find_stream_info(ctx, nullptr) >= 0) // the tags as libavformat reports them
        for (auto *e = av_dict_get(ctx->metadata, "", nullptr, AV_DICT_IGNORE_SUFFIX); e;
             e = av_dict_get(ctx->metadata, "", e, AV_DICT_IGNORE_SUFFIX))
            tags[e->key] = e->value;
    avformat_close_input(&ctx);
    return tags;
}

// Each row opens a file (null: closes) after the rows before it. Tags and chapters are
// replaced by an open that gets as far as the stream information; the cover goes with the media.
struct InfoStep {
    const char *file;
    int result;
    bool replaces;
    size_t chapters;
    int coverWidth; // -1: no cover
};

TEST_F(EngineTest, TagsChaptersAndCoverFollowTheOpens) {
    const InfoStep steps[] = {{"tags_chapters_80s.mka", 0, 1, 3, -1},
                              {nullptr, 0, 0, 3, -1},
                              {"no_such_file.mp3", -1, 0, 3, -1},
                              {"not_audio.mp3", -1, 0, 3, -1},
                              {"tags_video_only.mkv", -1, 1, 0, -1},
                              {"tone440_3s.wav", 0, 1, 0, -1},
                              {"cover_jpeg_3s.mp3", 0, 1, 0, 64},
                              {"cover_odd_3s.mp3", 0, 1, 0, 37},
                              {"marked_3s.mp3", 0, 1, 0, -1},
                              {"cover_png_3s.flac", 0, 1, 0, 64},
                              {nullptr, 0, 0, 0, -1},
                              {"cover_png_3s.flac", 0, 1, 0, 64},
                              {"no_such_file.mp3", -1, 0, 0, -1},
                              {"av_3s.mp4", 0, 1, 0, 160}};
    Tags expected;
    for (const InfoStep &s : steps) {
        SCOPED_TRACE(s.file ? s.file : "close");
        EXPECT_EQ(s.file ? engine_->openFile(media_path(s.file)) : (engine_->closeFile(), 0),
                  s.result);
        expected = s.replaces ? demuxerTags(media_path(s.file)) : expected;
        EXPECT_EQ(engine_->getMetadata(), expected);
        EXPECT_EQ(engine_->getChapters().size(), s.chapters);
        const qz_bitmap *cover = engine_->getCover();
        EXPECT_EQ(cover ? cover->width : -1, s.coverWidth);
    }
    ASSERT_EQ(engine_->openFile(media_path("tags_chapters_80s.mka")), 0);
    const Tags tags = engine_->getMetadata(); // UTF-8 bytes, key case and blanks as stored
    EXPECT_EQ(tags.at("title"), "\xC4\x8C\xC3\xADtanka \xE2\x80\x94 \xE8\xAA\xAD\xE6\x9B\xB8");
    EXPECT_EQ(tags.at("ARTIST") + "|" + tags.at("COMMENT"), "Author Name|  spaced value  ");
    // Bounds cut to whole seconds: 0..1.999999 s "Opening", 12.9..75.25 s, 75.25..80 s untitled.
    const auto chapters = engine_->getChapters();
    ASSERT_EQ(chapters.size(), 3u);
    const int64_t bounds[3][2] = {{0, 1000}, {12000, 75000}, {75000, 80000}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(chapters[i].startMs, bounds[i][0]);
        EXPECT_EQ(chapters[i].endMs, bounds[i][1]);
        EXPECT_EQ(chapters[i].metadata.count("title"), size_t(i < 2));
    }
    EXPECT_EQ(chapters[0].metadata.at("title") + chapters[1].metadata.at("title"),
              "OpeningSt\xC5\x99"
              "ed");
}

// The picture as a device bitmap of the display's layout: RGB24 or grey, padded rows.
struct Cover {
    const char *file;
    bool colour;
    int width, height, tolerance;
};

class EngineCover : public EngineTest, public ::testing::WithParamInterface<Cover> {};

TEST_P(EngineCover, PictureBecomesABitmapOfTheDisplaysLayout) {
    const Cover c = GetParam();
    host_set_display_color(c.colour ? 1 : 0);
    ASSERT_EQ(engine_->openFile(media_path(c.file)), 0);
    const qz_bitmap *bm = engine_->getCover();
    ASSERT_NE(bm, nullptr);
    EXPECT_EQ(bm->width, c.width);
    EXPECT_EQ(bm->height, c.height);
    EXPECT_EQ(bm->format, c.colour ? 1 : 0);
    const size_t row = size_t(c.width) * (c.colour ? 3 : 1);
    ASSERT_GT(bm->stride, row);
    static const int blocks[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    const int plain[3] = {0x33, 0x66, 0x99};
    for (int y = 0; y < c.height; ++y) {
        const uint8_t *line = bm->data + size_t(y) * bm->stride;
        for (size_t i = row; i < bm->stride; ++i)
            ASSERT_EQ(line[i], 0xA5) << "padding of row " << y; // the host's filler
        for (int x = 0; x < c.width; ++x) {
            // A JPEG blurs its block edges: only the inner part of each block counts.
            const int bx = x % 32, by = y % 24;
            if (c.tolerance > 0 && (bx < 4 || bx > 27 || by < 4 || by > 19))
                continue;
            const int *rgb = c.width == 64 ? blocks[(y >= 24 ? 2 : 0) + (x >= 32)] : plain;
            for (int k = 0; k < (c.colour ? 3 : 1); ++k) { // grey: full-range BT.601 luma
                const long want =
                    c.colour ? rgb[k]
                             : std::lround(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]);
                ASSERT_NEAR(line[x * (c.colour ? 3 : 1) + k], want,
                            c.tolerance + (c.colour ? 0 : 3))
                    << x << "," << y;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, EngineCover,
                         ::testing::Values(Cover{"cover_png_3s.flac", true, 64, 48, 0},
                                           Cover{"cover_png_3s.flac", false, 64, 48, 0},
                                           Cover{"cover_jpeg_3s.mp3", true, 64, 48, 12},
                                           Cover{"cover_jpeg_3s.mp3", false, 64, 48, 12},
                                           Cover{"cover_odd_3s.mp3", true, 37, 23, 0},
                                           Cover{"cover_odd_3s.mp3", false, 37, 23, 0}),
                         rowName<Cover>);

// --- Zip members ------------------------------------------------------------------------------

struct Member {
    const char *archive, *file, *plain; // file: the member
};

class EngineZipMember : public EngineTest, public ::testing::WithParamInterface<Member> {
protected:
    std::vector<int16_t> playCaptured(const std::string &path) {
        engine_->closeFile();
        vcard_setup();
        EXPECT_EQ(engine_->openFile(path), 0) << path;
        playOpened();
        return captured_samples();
    }
};

// "archive:#zip(member)" sounds exactly as the file itself (any last character closes the
// name), and the member's own bytes are reached by every seek the I/O context is asked for.
TEST_P(EngineZipMember, PlaysAsThePlainFileAndSeeksToEveryByte) {
    const Member m = GetParam();
    const std::vector<int16_t> plain = playCaptured(media_path(m.plain));
    const int64_t duration = engine_->getDurationMs();
    const std::string path = media_path(m.archive) + ":#zip(" + m.file + "]";
    const std::vector<int16_t> zipped = playCaptured(path);
    EXPECT_EQ(engine_->getDurationMs(), duration);
    ASSERT_GT(plain.size(), size_t(2 * kRate));
    EXPECT_TRUE(zipped == plain) << zipped.size() << " vs " << plain.size();

    // The I/O context's operations, called as the demuxer calls them.
    engine_->closeFile();
    auto *engine = static_cast<AudioEngine *>(engine_);
    ASSERT_EQ(engine->openFile(path), 0);
    const std::vector<uint8_t> file = read_file(media_path(m.plain));
    if (file.size() < 100000)
        return; // the offsets below are for the larger member
    const int64_t size = int64_t(file.size());
    const struct {
        int whence;
        int64_t offset, at; // at < 0: refused
        int read;
    } ops[] = {{AVSEEK_SIZE, 0, size, 0},
               {SEEK_SET, 50000, 50000, 100},
               {SEEK_SET, 50100, 50100, 10},
               {SEEK_SET, 1234, 1234, 100},
               {AVSEEK_FORCE | SEEK_SET, 777, 777, 50},
               {SEEK_CUR, 1000, 1827, 10},
               {SEEK_CUR, -837, 1000, 10},
               {SEEK_CUR, -1010, 0, 10},
               {SEEK_CUR, -11, -1, 0},
               {SEEK_END, -100, size - 100, 100},
               {SEEK_END, 5 - size, 5, 5},
               {SEEK_END, -size, 0, 20},
               {SEEK_END, -size - 1, -1, 0},
               {SEEK_END, 0, size, 1},
               {SEEK_SET, -1, -1, 0},
               {SEEK_SET, 0, 0, 64},
               {AVSEEK_FORCE | SEEK_CUR, 10, -1, 0},
               {7, 10, -1, 0}};
    for (const auto &op : ops) {
        SCOPED_TRACE(std::to_string(op.whence) + " " + std::to_string(op.offset));
        const int64_t got = AudioEngine::AVIOZip_seek(engine, op.offset, op.whence);
        EXPECT_TRUE(op.at < 0 ? got < 0 : got == op.at) << got;
        std::vector<uint8_t> bytes(size_t(op.read));
        const int n = op.read ? AudioEngine::AVIOZip_read_packet(engine, bytes.data(), op.read) : 0;
        EXPECT_EQ(n, op.at == size && op.read ? AVERROR_EOF : op.read); // not 0 at the end
        EXPECT_TRUE(n <= 0 || std::equal(bytes.begin(), bytes.end(), file.begin() + op.at));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EngineZipMember,
    ::testing::Values(Member{"book_stored.zip", "marked_3s.mp3", "marked_3s.mp3"},
                      Member{"book_deflated.zip", "marked_3s.mp3", "marked_3s.mp3"},
                      Member{"book_stored.zip", "sub/steps_10s.mp3", "steps_10s.mp3"},
                      Member{"book_deflated.zip", "sub/steps_10s.mp3", "steps_10s.mp3"}),
    rowName<Member>);

// Memory held by this process in KiB: resident pages, or the heap in use under a user-mode
// emulator (which reports its own pages).
long residentKiB() {
#ifdef AE_TEST_EMULATED
    const struct mallinfo2 info = mallinfo2();
    return long((info.uordblks + info.hblkhd) / 1024);
#endif
    long pages = 0, resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    const int n = f ? fscanf(f, "%ld %ld", &pages, &resident) : 0;
    if (f)
        fclose(f);
    return n == 2 ? resident * 4 : 0;
}

// Opens of a deflated member, again and again: memory stays flat. (AddressSanitizer keeps
// freed blocks in quarantine; its leak checker answers the same question at exit.)
TEST_F(EngineTest, RepeatedMemberOpensKeepMemoryFlat) {
    const std::string path = media_path("book_deflated.zip") + ":#zip(steps_10s.mp3)";
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(engine_->openFile(path), 0);
    const long before = residentKiB();
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(engine_->openFile(path), 0);
        if (i % 3 == 0)
            engine_->closeFile();
    }
#ifndef __SANITIZE_ADDRESS__
    // Each open takes a 1 MiB I/O buffer: a leak of it alone would add about 300 MiB.
    EXPECT_LT(residentKiB() - before, 16 * 1024) << before << " KiB before";
#else
    (void)before;
#endif
}

} // namespace
