// The engine on the virtual card, through IAudioEngine and its zip-member I/O operations.
#include <cmath>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "AudioEngine.h"
#include "alsa_device.h"
#include "host_platform.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using namespace ae_test;
using tavrel::utilities::IAudioEngine;
const int kRate = 44100;

template <class Row> std::string rowName(const ::testing::TestParamInfo<Row> &info) {
    std::string name = std::to_string(info.index) + "_" + info.param.file;
    for (char &c : name)
        c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

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
        engine_->setErrorCallback([this](IAudioEngine::ErrorType) { record('E'); });
        host_platform_clear_calls();
    }
    void TearDown() override {
        if (engine_ != nullptr)
            AudioEngine_DestroyAudioEngine(engine_);
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
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
    // A media file, "made:" at 1000 Hz (the lowest rate taken), or through a caller stream
    // ("stream:", "fail:" failing every read).
    int open(const std::string &file) {
        const size_t colon = file.find(':');
        const std::string kind = file.substr(0, colon), name = file.substr(colon + 1);
        if (colon == std::string::npos || file.compare(colon, 5, ":#zip") == 0)
            return engine_->openFile(media_path(file));
        if (kind == "made") { // tone440_3s_8000.wav relabelled 1000 Hz: 24 s at 55 Hz
            std::vector<uint8_t> b = read_file(media_path("tone440_3s_8000.wav"));
            const uint32_t rates[2] = {1000, 4000}; // frames and bytes a second, stereo 16 bits
            memcpy(b.data() + 24, rates, sizeof rates);
            return write_file(tmp_path(name), b) ? engine_->openFile(tmp_path(name)) : -1;
        }
        stream_.reset(new MemoryStream(media_path(name)));
        if (kind == "fail")
            stream_->failReadsFrom(0, AVERROR(EIO));
        return engine_->openWithStream(stream_.get());
    }
    // To Finished and the card closed, so the capture is complete.
    bool finished() {
        return wait_until([&] { return engine_->getState() == 3; }, 20000) &&
               wait_until([] { return vcard_is_open() == 0; }, 5000);
    }
    std::vector<int16_t> play(const std::string &file) {
        engine_->closeFile(); // ends a finished loop before the next open
        notes_.clear();
        vcard_setup();
        EXPECT_EQ(open(file), 0) << file;
        EXPECT_EQ(engine_->start(), 0);
        EXPECT_TRUE(finished()) << "state " << engine_->getState();
        return captured_samples();
    }
    static std::string platformCalls() {
        std::vector<host_platform_call> calls(100000);
        calls.resize(std::min(host_platform_calls(calls.data(), calls.size()), calls.size()));
        std::string out;
        for (const host_platform_call &c : calls)
            out += c.kind + std::to_string(c.value) + ' ';
        return out;
    }
    std::unique_ptr<MemoryStream> stream_;
    IAudioEngine *engine_ = nullptr;
    std::thread::id caller_;
    std::mutex mutex_;
    std::string notes_;
    std::atomic<double> tempoAtFirstPosition_{0};
};

// Opens that fail: nothing opened, started or notified, and the next open still works.
TEST_F(EngineTest, FailedOpensAndStartsLeaveNothingBehind) {
    for (const char *file :
         {"no_such_file.mp3", "not_audio.mp3", "video_only_3s.mp4", "rate_7hz.wav", "rate_1ghz.wav",
          "fail:tone440_3s.mp3", "no_such_archive.zip:#zip(marked_3s.mp3)",
          "book_stored.zip:#zip(no_such_member.mp3)", "book_stored.zip:#zip(sub/)",
          "book_stored.zip:#zip(", "book_corrupt.zip:#zip(marked_3s.mp3)",
          "marked_3s.mp3:#zip(marked_3s.mp3)"}) {
        SCOPED_TRACE(file);
        EXPECT_EQ(open(file), -1);
        EXPECT_FALSE(engine_->isFileOpened());
        EXPECT_EQ(engine_->start(), -1);
        EXPECT_EQ(engine_->getState(), 0);
        EXPECT_EQ(notes(), "");
        ASSERT_EQ(open("book_deflated.zip:#zip(marked_3s.mp3)"), 0);
        EXPECT_EQ(open(file), -1); // over open media
    }
#ifndef AE_TEST_EMULATED      // qemu's address space may not refuse the stack below
    pthread_attr_t huge, old; // a play thread that cannot be made: no memory for its stack
    pthread_getattr_default_np(&old);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3);
    ASSERT_EQ(open("marked_3s.mp3"), 0);
    pthread_setattr_default_np(&huge);
    EXPECT_EQ(engine_->start(), -1);
    pthread_setattr_default_np(&old);
    EXPECT_EQ(engine_->getState(), 0);
#endif
    EXPECT_GE(play("marked_3s.mp3").size(), size_t(4 * kRate));
}

// What reaches the card: 44100 Hz stereo of the right pitch, length and level, a row per
// container, source shape and filter set-up (tempo in each of its three ranges).

struct Sound {
    const char *file;
    double hz = 440, minSec = 2.75, maxSec = 3.02; // tone (0: none), length heard
    double tempo = 1, rate = 1, live = 0;          // live: a tempo set at the first position
    double eqDb = 0, startHz = 0; // level change by a 1 kHz equaliser cut; tone of the first 0.4 s
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

class EngineSound : public EngineTest, public ::testing::WithParamInterface<Sound> {};

TEST_P(EngineSound, ToneLengthAndLevel) {
    const Sound s = GetParam();
    const std::vector<std::pair<int, int>> bands = {{31, 0},   {62, 0},     {125, 0},  {250, 0},
                                                    {500, 0},  {1000, -12}, {2000, 0}, {4000, 0},
                                                    {8000, 0}, {16000, 0}};
    if (s.eqDb != 0) // flat but 1 kHz
        engine_->setEqualizerSettings(bands);
    engine_->setTempo(s.tempo);
    engine_->setSampleRateMultiplier(s.rate);
    tempoAtFirstPosition_ = s.live;
    const std::vector<int16_t> got = play(s.file);
    EXPECT_TRUE(std::regex_match(notes(), std::regex("ScPpSp|Pp(ScSp|SpSc)"))) << notes();
    EXPECT_EQ(engine_->getPosition(), engine_->getDurationMs());
    EXPECT_GE(heard(), s.minSec);
    EXPECT_LE(heard(), s.maxSec);
    EXPECT_EQ(vcard_count_events("open "), vcard_count_events("open 44100"));
    ASSERT_GT(got.size(), size_t(kRate));
    if (s.hz > 0) {
        for (int ch = 0; ch < 2; ++ch)
            EXPECT_NEAR(zero_crossing_frequency(got, 2, ch, kRate), s.hz,
                        std::max(5.0, s.hz / 100));
        EXPECT_GT(rms_dbfs(got, 2, 0), -40.0);
        EXPECT_NEAR(rms_dbfs(got, 2, 0), rms_dbfs(got, 2, 1), 1.0);
        EXPECT_LE(s.eqDb ? 0 : discontinuities(got, s.hz), s.live > 0 ? 2 : 0); // one join
    }
    if (s.startHz > 0) { // played from its start, the cover picture skipped
        const std::vector<int16_t> head(got.begin(), got.begin() + 2 * (4 * kRate / 10));
        EXPECT_NEAR(zero_crossing_frequency(head, 2, 0, kRate), s.startHz, 10.0);
        EXPECT_NEAR(rms_dbfs(head, 2, 0), rms_dbfs(got, 2, 0), 3.0);
    }
    std::vector<int16_t> source; // against the steady part, after the equaliser's onset
    for (int ch = 0; s.eqDb != 0 && ch < 2 && read_wav(media_path(s.file), &source); ++ch)
        EXPECT_NEAR(rms_dbfs(std::vector<int16_t>(got.begin() + kRate, got.end()), 2, ch) -
                        rms_dbfs(source, 2, ch),
                    s.eqDb, 1.5);
    const auto near = [](int a, int b) { return std::abs(a - b) <= 64; };
    EXPECT_TRUE(strcmp(s.file, "known_pcm_1s.wav") != 0 || // values and channel order kept
                std::equal(got.begin(), got.end(), known_pcm(0, got.size() / 2).begin(), near));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EngineSound,
    ::testing::Values(Sound{"tone440_3s.wav"}, Sound{"tone440_3s.mp3"}, Sound{"tone440_3s.m4a"},
                      Sound{"tone440_3s.flac"}, Sound{"tone440_3s.ogg"}, Sound{"tone440_3s.opus"},
                      Sound{"av_3s.mp4"}, Sound{"tone440_3s_mono.wav"},
                      Sound{"tone440_3s_5.1.flac"}, Sound{"made:rate_1000hz.wav", 55, 23.75, 24.02},
                      Sound{"stream:tone440_3s.flac"}, Sound{"tone440_corrupt.mp3", 0, 8, 10},
                      Sound{"known_pcm_1s.wav", 0, 0.75, 1},
                      Sound{"cover_jpeg_3s.mp3", 0, 2.75, 3, 1, 1, 0, 0, 300},
                      Sound{"tone440_3s_8000.wav", 440, 11, 12.02, 0.25},
                      Sound{"tone440_3s.mp3", 440, 1.25, 1.52, 2},
                      Sound{"tone440_3s.wav", 440, 0.5, 0.77, 4},
                      Sound{"tone440_3s.wav", 660, 1.75, 2.02, 1, 1.5},
                      Sound{"tone440_3s.wav", 440, 1.0, 1.7, 1, 1, 2},
                      Sound{"tone1000_3s.wav", 1000, 2.75, 3.02, 1, 1, 0, -12}),
    rowName<Sound>);

// Steps (see step()) at a card speed (times real time), and the end: notifications (regex, see
// record()), position (-1: any), seconds heard and platform media-player states (regex).
struct Transport {
    const char *file;
    double speed;
    const char *steps, *notes;
    int position;
    double minSec, maxSec;
    const char *calls = "";
};

class EngineTransport : public EngineTest, public ::testing::WithParamInterface<Transport> {
protected:
    // o open, S start, a wait for more audio, p pause, P the platform told, r resume, x stop, k
    // seek, = the position is, K seek while playing (the first new position is the target's
    // second), w Finished, T a tempo refused at the first position, L the media closed by that.
    bool step(char op, int n) {
        const size_t frames = vcard_captured_frames();
        int64_t seen = -1;
        return op == 'o'   ? open(GetParam().file) == 0
               : op == 'S' ? engine_->start() == 0
               : op == 'a' ? wait_until([&] { return vcard_captured_frames() > frames; }, 10000)
               : op == 'p' ? engine_->pause() == 0 && engine_->getState() == 2
               : op == 'P'
                   ? wait_until([] { return platformCalls().find("S3") != std::string::npos; },
                                5000)
               : op == 'r' ? engine_->resume() == 0 && engine_->getState() == 1
               : op == 'x'
                   ? engine_->stop() == 0 && engine_->getState() == 0 && engine_->getPosition() == 0
               : op == 'k' ? engine_->seekStream(n) == 0
               : op == '=' ? engine_->getPosition() == n
               : op == 'K'
                   ? engine_->seekStream(n) == 0 &&
                         wait_until([&] { return (seen = engine_->getPosition()) >= n - 1000; },
                                    20000) &&
                         seen == n
               : op == 'w' ? finished()
               : op == 'T' ? (tempoAtFirstPosition_ = 0.1) > 0
               : op == 'L' ? !engine_->isFileOpened() && engine_->start() == -1 &&
                                 open(GetParam().file) != 0 && (engine_->setTempo(1.0), true)
               : op == 'D' ? (AudioEngine_DestroyAudioEngine(engine_), engine_ = nullptr, true)
               : op == 't' ? (engine_->setTempo(n / 10.0), true) // D destroy, t tempo in tenths
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

const char *kEnd = "ScPpSp|Pp(ScSp|SpSc)", *k3 = "tone440_3s.wav", *k10 = "tone440_10s.mp3";
INSTANTIATE_TEST_SUITE_P(
    Rows, EngineTransport,
    ::testing::Values(
        // Plays to the end; a finished engine ends again at once, nothing rewinds.
        Transport{"tone440_3s.mp3", 0, "oSwSw", "(ScPpSp|Pp(ScSp|SpSc)){2}", 3000, 2.75, 3.02,
                  "^(S2 (B4 S0 )+)+$"},
        // A second pause or resume notifies nothing; the loop holds and goes on.
        Transport{k3, 2, "oSappPrrw", "ScScScPpSp", 3000, 2.75, 3.02, "^S2 .*(S3 )+S2 .*B4 S0 $"},
        // A stop seen in pause, a start goes on from where it stopped; one while playing stops.
        Transport{k3, 2, "oSapxSw", "ScScSpSpSpSc(ScPpSp|Pp(ScSp|SpSc))", 3000, 2.75, 3.02,
                  "B4 S0 $"},
        Transport{k10, 1, "oSaSax", "Sc(SpSp(Sp)?Sc){2}", 0, 0, 9, "B4 S0 $"},
        Transport{k10, 2, "t20oSw", kEnd, 10000, 4.75, 5.02, "B4 S0 $"},
        // Seeks while stopped: past the end ignored, negative to the start, lost by an open.
        Transport{k10, 0, "ok12000=0k5999=5999Sw", kEnd, 10000, 4.9, 5.5},
        Transport{k10, 0, "ok5000k-1=5000Sw", kEnd, 10000, 9.9, 10.02},
        Transport{k10, 0, "ok5000oSw", kEnd, 10000, 9.9, 10.02},
        Transport{k10, 2, "oSapk3000=3000rpk8000=8000rw", "ScScScScScPpSp", 10000, 0, 7.5},
        Transport{k10, 2, "oSaK8000p=8000rwk1000=10000", "ScScScPpSp", 10000, 0, 5},
        Transport{k3, 0, "ToSw=3000L", kEnd, -1, 0, 3.02, "B4 S0 $"},
        Transport{k10, 1, "oSaD", ".*", -1, 0, 10}),
    rowName<Transport>);

// Every operation while the play thread runs (ThreadSanitizer watches); a deadlock aborts.
TEST_F(EngineTest, TransportHammeredWhilePlaying) {
    vcard_set_speed(8.0);
    ASSERT_EQ(engine_->openFile(media_path("tone440_10s.mp3")), 0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > 0; }, 10000));
    run_with_deadline("transport against the play thread", 60000, [&] {
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
    EXPECT_EQ(engine_->getState(), 0);
}

// Rows open a file (null: close) in turn. Tags and chapters go with an open reaching the stream
// information, the cover (a bitmap of the display's layout, rows padded) with the media.
TEST_F(EngineTest, TagsChaptersAndCoverFollowTheOpens) {
    const struct {
        const char *file;
        int result;
        size_t tags, chapters;
        int width, height, colour, tolerance; // of the cover (width 0: none; tolerance -1: any)
    } steps[] = {{"tags_chapters_80s.mka", 0, 5, 3, 0, 0, 1, 0},
                 {nullptr, 0, 5, 3, 0, 0, 1, 0},
                 {"not_audio.mp3", -1, 5, 3, 0, 0, 1, 0},
                 {"tags_video_only.mkv", -1, 3, 0, 0, 0, 1, 0},
                 {"cover_jpeg_3s.mp3", 0, 0, 0, 64, 48, 1, 12},
                 {"cover_jpeg_3s.mp3", 0, 0, 0, 64, 48, 0, 12},
                 {"marked_3s.mp3", 0, 0, 0, 0, 0, 1, 0},
                 {"cover_png_3s.flac", 0, 0, 0, 64, 48, 0, 0},
                 {nullptr, 0, 0, 0, 0, 0, 1, 0},
                 {"cover_png_3s.flac", 0, 0, 0, 64, 48, 1, 0},
                 {"no_such_file.mp3", -1, 0, 0, 0, 0, 1, 0},
                 {"cover_odd_3s.mp3", 0, 0, 0, 37, 23, 1, 0},
                 {"cover_odd_3s.mp3", 0, 0, 0, 37, 23, 0, 0},
                 {"av_3s.mp4", 0, 3, 0, 160, 120, 1, -1}};
    const int rgbs[5][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}, {51, 102, 153}};
    for (const auto &s : steps) {
        SCOPED_TRACE(s.file ? s.file : "close");
        host_set_display_color(s.colour);
        EXPECT_EQ(s.file ? engine_->openFile(media_path(s.file)) : (engine_->closeFile(), 0),
                  s.result);
        EXPECT_EQ(engine_->getMetadata().size(), s.tags);
        EXPECT_EQ(engine_->getChapters().size(), s.chapters);
        const qz_bitmap *bm = engine_->getCover();
        ASSERT_EQ(bm ? bm->width : 0, s.width);
        if (bm == nullptr)
            continue;
        EXPECT_EQ(bm->height, s.height);
        EXPECT_EQ(bm->format, s.colour);
        const int depth = s.colour ? 3 : 1;
        const size_t row = size_t(s.width) * depth;
        ASSERT_GT(bm->stride, row);
        for (int y = 0; y < s.height; ++y)
            for (size_t i = row; i < bm->stride; ++i) // the host's filler
                ASSERT_EQ(bm->data[y * bm->stride + i], 0xA5) << "padding of row " << y;
        for (int y = 12; s.tolerance >= 0 && y < s.height; y += 24)
            for (int x = 16; x < s.width; x += 32) { // 32x24 blocks, at their centres
                const int *rgb = rgbs[s.width == 64 ? (y >= 24 ? 2 : 0) + (x >= 32) : 4];
                for (int k = 0; k < depth; ++k) // grey: full-range BT.601 luma
                    EXPECT_NEAR(bm->data[y * bm->stride + x * depth + k],
                                s.colour ? rgb[k]
                                         : 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2],
                                s.tolerance + (s.colour ? 0 : 3))
                        << x << "," << y;
            }
    }
    ASSERT_EQ(engine_->openFile(media_path("tags_chapters_80s.mka")), 0);
    const auto tags = engine_->getMetadata(); // UTF-8 bytes, key case and blanks as stored
    EXPECT_EQ(tags.at("title"), "\xC4\x8C\xC3\xADtanka \xE2\x80\x94 \xE8\xAA\xAD\xE6\x9B\xB8");
    EXPECT_EQ(tags.at("COMMENT"), "  spaced value  ");
    // Bounds cut to whole seconds: 0..1.999999 s "Opening", 12.9..75.25 s, 75.25..80 s untitled.
    std::string chapters;
    for (const auto &c : engine_->getChapters())
        chapters += std::to_string(c.startMs) + "-" + std::to_string(c.endMs) + " " +
                    (c.metadata.count("title") ? c.metadata.at("title") : "") + ";";
    EXPECT_EQ(chapters, "0-1000 Opening;12000-75000 St\xC5\x99"
                        "ed;75000-80000 ;");
}

// "archive:#zip(member)" sounds exactly as the file itself (any last character closes the
// name), and the member's own bytes are reached by every seek the I/O context is asked for.
TEST_F(EngineTest, ZipMemberPlaysAsThePlainFileAndSeeksToEveryByte) {
    const std::vector<int16_t> plain = play("steps_10s.mp3");
    const std::vector<uint8_t> file = read_file(media_path("steps_10s.mp3"));
    const int64_t size = int64_t(file.size());
    const int forceSet = AVSEEK_FORCE | SEEK_SET, forceCur = AVSEEK_FORCE | SEEK_CUR;
    // whence, offset, where it lands (< 0: refused), bytes read there
    const std::tuple<int, int64_t, int64_t, int> ops[] = {
        {AVSEEK_SIZE, 0, size, 0}, {SEEK_SET, 50000, 50000, 100}, {SEEK_SET, 1234, 1234, 100},
        {forceSet, 777, 777, 50},  {SEEK_CUR, 1000, 1827, 10},    {SEEK_CUR, -837, 1000, 10},
        {SEEK_CUR, -1010, 0, 10},  {SEEK_CUR, -11, -1, 0},        {SEEK_END, -100, size - 100, 100},
        {SEEK_END, -size, 0, 20},  {SEEK_END, -size - 1, -1, 0},  {SEEK_END, 0, size, 1},
        {SEEK_SET, -1, -1, 0},     {forceCur, 10, -1, 0}};
    for (const char *archive : {"book_stored.zip", "book_deflated.zip"}) {
        SCOPED_TRACE(archive);
        const std::string member = std::string(archive) + ":#zip(sub/steps_10s.mp3]";
        EXPECT_TRUE(play(member) == plain);
        engine_->closeFile();
        ASSERT_EQ(open(member), 0);
        auto *engine = static_cast<AudioEngine *>(engine_);
        for (const auto &[whence, offset, at, read] : ops) {
            SCOPED_TRACE(std::to_string(whence) + " " + std::to_string(offset));
            const int64_t got = AudioEngine::AVIOZip_seek(engine, offset, whence);
            EXPECT_TRUE(at < 0 ? got < 0 : got == at) << got;
            std::vector<uint8_t> bytes(static_cast<size_t>(read));
            const int n = read ? AudioEngine::AVIOZip_read_packet(engine, bytes.data(), read) : 0;
            EXPECT_EQ(n, at == size && read ? AVERROR_EOF : read); // not 0 at the end
            EXPECT_TRUE(n <= 0 || std::equal(bytes.begin(), bytes.end(), file.begin() + at));
        }
    }
}

} // namespace
