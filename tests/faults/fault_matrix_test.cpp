// Every fault we know, played against the engine, one row each: the device missing or busy at
// open, underruns, the device vanishing while playing or paused, the mixer control missing,
// caller streams that fail, broken zip members, truncated and deleted files. A row opens the
// media and plants its fault; the runner then starts the engine, waits for the row's answer
// (Finished, or refused with an error and the engine Stopped) and checks the row's log lines,
// card events and captured length. Each row has a deadline so that a hang fails it; the
// sanitizer builds watch the rows for leaks and races.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "IPlayer.h"
#include "alsa_device.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using ae_test::media_path;
using ae_test::wait_until;
using tavrel::utilities::IAudioEngine;
const size_t kRate = 44100, kPiece = ABUF_PIECE_MAX_FRAMES;
enum Outcome { Finished, Refused, OpenFails, FinishedOrOpenFails, OwnChecks };
struct FaultTest;
using Counts = std::vector<std::pair<std::string, int>>;

struct Row {
    std::string name;
    Outcome outcome;
    std::function<void(FaultTest &)> act; // opens the media and plants the fault
    Counts logs;   // lines containing the text: how many (-1: at least one at error level)
    Counts events; // card events starting with the text: how many
    size_t minFrames = 0, maxFrames = SIZE_MAX;
    std::string sequence = ""; // notifications (S state, E error, P position at the end)
    std::function<void()> beforeEngine = nullptr;
    std::function<void()> after = nullptr;
};

struct FaultTest : ::testing::TestWithParam<Row> {
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        if (GetParam().beforeEngine)
            GetParam().beforeEngine();
        engine = AudioEngine_CreateAudioEngine();
        ASSERT_NE(engine, nullptr);
        engine->setStateChangedCb([this] { note('S'); });
        engine->setTrackPositionChangedCb([this] { note('P'); });
        engine->setErrorCallback([this](IAudioEngine::ErrorType type) {
            EXPECT_EQ(type, IAudioEngine::NoOutputDevice);
            note('E');
        });
    }
    void TearDown() override {
        ae_test::run_with_deadline("tear-down", 30000, [this] {
            engine->closeFile();
            AudioEngine_DestroyAudioEngine(engine);
            deinit_alsa_output();
            close_alsa_ex(0);
            AlsaMixerDestroy();
        });
    }
    void note(char kind) {
        const int state = engine->getState();
        std::lock_guard<std::mutex> lock(mutex);
        if (kind != 'P' || state == 3)
            notes += kind;
        errorState = kind == 'E' && errorState < 0 ? state : errorState;
    }
    std::string seen() {
        std::lock_guard<std::mutex> lock(mutex);
        return notes;
    }
    int count(char kind) {
        const std::string s = seen();
        return static_cast<int>(std::count(s.begin(), s.end(), kind));
    }
    void open(const std::string &path) { ASSERT_EQ(engine->openFile(path), 0) << log.dump(); }
    void openStream(size_t failFrom, bool seekable) {
        stream = std::make_unique<ae_test::MemoryStream>(media_path("tone440_10s.mp3"));
        stream->failReadsFrom(failFrom == SIZE_MAX ? SIZE_MAX : stream->size() * failFrom / 2, 0);
        if (!seekable)
            stream->refuseSeeks();
        engine->openWithStream(stream.get());
    }
    // A stored zip archive of one media file, `edit` applied to its bytes.
    std::string zip(const char *file, const std::function<void(std::vector<uint8_t> &)> &edit) {
        const std::string path = ae_test::tmp_path("faults_" + std::to_string(getpid()) + ".zip");
        EXPECT_EQ(
            system(
                ("rm -f " + path + "; zip -q -X -0 -j " + path + " " + media_path(file)).c_str()),
            0);
        std::vector<uint8_t> bytes = ae_test::read_file(path);
        edit(bytes);
        EXPECT_TRUE(ae_test::write_file(path, bytes));
        return path + ":#zip(" + file + ")";
    }
    void pausedThenGone(int pausedMs) {
        vcard_set_speed(1.0);
        open(media_path("tone440_10s.mp3"));
        ASSERT_EQ(engine->start(), 0);
        ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > kRate / 10; }, 10000));
        engine->pause();
        if (pausedMs > 1000) { // the output's idle second closes the device: its reopen fails
            ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 10000));
            vcard_fail_open(-ENODEV, -1);
        } else { // the device stays open: the next write finds it gone
            vcard_fail_write_after(-ENODEV, 0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pausedMs));
        EXPECT_EQ(engine->getState(), 2);
        EXPECT_EQ(seen(), "SS");
        engine->resume();
    }

    IAudioEngine *engine = nullptr;
    ae_test::LogCapture log;
    std::unique_ptr<ae_test::MemoryStream> stream;
    std::mutex mutex;
    std::string notes;
    int errorState = -1;
};

TEST_P(FaultTest, AnswersAndRecovers) {
    const Row &row = GetParam();
    ae_test::run_with_deadline("fault row " + row.name, 30000, [&] {
        row.act(*this);
        if (row.outcome == OwnChecks)
            return;
        if (row.outcome >= OpenFails && !engine->isFileOpened()) {
            EXPECT_TRUE(std::regex_search(log.dump(),
                                          std::regex("Failed (to open|avformat_find_stream_info|to "
                                                     "find codec|to avcodec_open2)|Could "
                                                     "not find audio stream")))
                << log.dump();
            EXPECT_EQ(engine->start(), -1);
            return;
        }
        ASSERT_NE(row.outcome, OpenFails);
        if (engine->getState() == 0 && count('E') == 0)
            ASSERT_EQ(engine->start(), 0);
        const bool refused = row.outcome == Refused;
        ASSERT_TRUE(wait_until(
            [&] { return engine->getState() == (refused ? 0 : 3) && count('E') == refused; },
            20000))
            << "state " << engine->getState() << "\n"
            << log.dump();
        EXPECT_EQ(engine->getPosition(), refused ? 0 : engine->getDurationMs());
        EXPECT_EQ(alsa_output_working(), !refused);
        if (refused) {
            EXPECT_TRUE(log.contains(2, "No output device")) << log.dump();
            EXPECT_EQ(errorState, 0);
            EXPECT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 3000));
        }
        const std::string sequence = !row.sequence.empty() ? row.sequence
                                     : refused             ? "SE"
                                                           : "SPS|PSS";
        // The end of the media and the notification of start() may come in either order.
        EXPECT_TRUE(
            wait_until([&] { return std::regex_match(seen(), std::regex(sequence)); }, 2000))
            << seen();
        for (const auto &l : row.logs)
            EXPECT_TRUE(l.second < 0 ? log.contains(2, l.first) : log.count(l.first) == l.second)
                << l.first << "\n"
                << log.dump();
        for (const auto &e : row.events)
            EXPECT_EQ(vcard_count_events(e.first.c_str()), e.second) << e.first;
        EXPECT_GE(vcard_captured_frames(), row.minFrames);
        EXPECT_LE(vcard_captured_frames(), row.maxFrames);
        if (row.after)
            row.after();
    });
}

void openTone(FaultTest &t) {
    t.open(media_path("tone440_3s.wav"));
}

std::vector<Row> rows() {
    std::vector<Row> r = {
        {"DeviceMissingAtOpen",
         Refused,
         [](FaultTest &t) {
             openTone(t);
             vcard_fail_open(-ENODEV, -1);
         },
         {{"No such device", -1}},
         {{"open-fail -19", 1}, {"open ", 1}}},
        {"DeviceBusyFor50Attempts",
         Finished,
         [](FaultTest &t) {
             openTone(t);
             vcard_fail_open(-EBUSY, 50);
         },
         {},
         {{"open-fail -16", 50}},
         size_t(2.5 * kRate)},
        {"DeviceBusyFor200Attempts",
         Refused,
         [](FaultTest &t) {
             openTone(t);
             vcard_fail_open(-EBUSY, 200);
         },
         {},
         {{"open-fail -16", 102}}},
        {"UnderrunMidTrack",
         Finished,
         [](FaultTest &t) {
             openTone(t);
             vcard_fail_write_after(-EPIPE, kRate);
         },
         {},
         {{"xrun", 1}},
         size_t(2.5 * kRate) - kPiece}, // the piece that met it is dropped
        {"DeviceGoneMidTrack",
         Refused,
         [](FaultTest &t) {
             openTone(t);
             vcard_fail_write_after(-ENODEV, kRate);
         },
         {{"No device", 2}},
         {{"gone", 1}},
         kRate,
         kRate + kPiece},
        {"DeviceGoneWhilePausedBriefly",
         Refused,
         [](FaultTest &t) { t.pausedThenGone(300); },
         {{"No device", -1}},
         {{"gone", 1}},
         0,
         SIZE_MAX,
         "SSSE"},
        {"DeviceGoneWhilePausedLong",
         Refused,
         [](FaultTest &t) { t.pausedThenGone(1500); },
         {{"No such device", -1}},
         {{"gone", 0}},
         0,
         SIZE_MAX,
         "SSSE"},
        {"MixerControlMissing",
         Finished,
         [](FaultTest &t) {
             EXPECT_NE(t.engine->setVolume(50), 0);
             EXPECT_EQ(t.engine->getVolume(), -1);
             openTone(t);
         },
         {},
         {},
         size_t(2.5 * kRate),
         SIZE_MAX,
         "",
         [] { vcard_hide_mixer(1); }},
        {"StreamReadsZeroForeverFromStart", OpenFails,
         [](FaultTest &t) {
             t.openStream(0, true);
             EXPECT_LT(t.stream->reads.load(), 1000);
         }},
        {"StreamReadsZeroForeverInTheMiddle",
         Finished,
         [](FaultTest &t) { t.openStream(1, true); },
         {},
         {},
         4 * kRate,
         6 * kRate},
        {"StreamSeekFails",
         Finished,
         [](FaultTest &t) { // playback goes on from the start
             t.openStream(SIZE_MAX, false);
             t.engine->seekStream(8000);
         },
         {{"Failed to av_seek_frame", -1}},
         {},
         8 * kRate},
        {"StreamReleasedAfterCloseFile", Finished,
         [](FaultTest &t) {
             t.openStream(SIZE_MAX, true);
             ASSERT_EQ(t.engine->start(), 0);
             ASSERT_TRUE(wait_until([&] { return vcard_captured_frames() > 3 * kRate; }, 10000));
             t.engine->closeFile();
             t.stream->retire();
             // Nothing the engine may still do touches the old stream, which may then go.
             t.engine->getPosition();
             t.engine->seekStream(1000);
             t.engine->start();
             t.engine->stop();
             EXPECT_EQ(t.stream->usesAfterRetire.load(), 0);
             t.stream.reset();
             t.open(media_path("tone440_3s.mp3"));
             t.notes.clear();
         }},
        // A stored member whose last quarter is cut out, the directory moved up to match: what is
        // there plays once, in order (second k of the steps is 200 + 100 k Hz, never falling).
        {"ZipMemberTruncatedInArchive",
         FinishedOrOpenFails,
         [](FaultTest &t) {
             t.engine->openFile(t.zip("steps_10s.mp3", [](std::vector<uint8_t> &b) {
                 const size_t eocd = b.size() - 22;
                 uint32_t cd;
                 memcpy(&cd, &b[eocd + 16], 4);
                 const uint32_t cut = cd / 4;
                 b.erase(b.begin() + cd * 3 / 4, b.begin() + cd * 3 / 4 + cut);
                 cd -= cut;
                 memcpy(&b[eocd - cut + 16], &cd, 4);
             }));
         },
         {},
         {},
         6 * kRate,
         8 * kRate,
         "",
         nullptr,
         [] {
             const std::vector<int16_t> s = ae_test::captured_samples();
             for (size_t at = kRate, last = 0; at + kRate <= s.size();
                  at += kRate) { // half seconds
                 const size_t f = ae_test::zero_crossing_frequency(
                     {s.begin() + at, s.begin() + at + kRate}, 2, 0, kRate);
                 EXPECT_GE(f + 60, last) << "half second " << at / kRate;
                 last = f;
             }
         }},
        {"ZipMemberCrcError", Finished,
         [](FaultTest &t) {
             t.open(t.zip("tone440_10s.mp3", [](std::vector<uint8_t> &b) {
                 for (size_t i = 30 + b[26] + b[28] + 60000, end = i + 64; i < end; ++i)
                     b[i] ^= 0x5a; // past the local header
             }));
         }},
        {"FileDeletedWhilePlaying",
         Finished,
         [](FaultTest &t) {
             const std::string copy =
                 ae_test::tmp_path("faults_" + std::to_string(getpid()) + ".mp3");
             ASSERT_TRUE(
                 ae_test::write_file(copy, ae_test::read_file(media_path("tone440_10s.mp3"))));
             vcard_set_speed(8.0);
             t.open(copy);
             ASSERT_EQ(t.engine->start(), 0);
             ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > kRate; }, 10000));
             ASSERT_EQ(unlink(copy.c_str()), 0);
         },
         {},
         {},
         9 * kRate},
        // A position set while stopped does not outlive the track it was set on.
        {"PlayerPositionAfterAnotherTrackOpened", OwnChecks,
         [](FaultTest &) {
             tavrel::utilities::IPlayer *player = AudioEngine_CreatePlayer();
             tavrel::utilities::IPlayer::Track track;
             track.filename = media_path("tone440_10s.mp3");
             player->SetPlayList({track});
             ASSERT_EQ(player->PlayTrack(0, -1, false), 0);
             player->SetState(tavrel::utilities::IPlayer::Stopped);
             player->SetTrackPosition(5);
             ASSERT_EQ(player->openFile(media_path("tone440_3s.wav")), 0);
             EXPECT_EQ(player->GetTrackSize(), 3);
             EXPECT_LE(player->GetTrackPosition(), 3);
             AudioEngine_DestroyPlayer(player);
         }},
    };
    // Files cut at every tenth of their length: the open fails for a known reason, or what is
    // there plays and the media ends Finished.
    for (const char *file :
         {"tone440_3s.wav", "tone440_3s.mp3", "tone440_3s.flac", "tone440_3s.ogg",
          "tone440_3s.opus", "tone440_3s.m4a", "cover_jpeg_3s.mp3"})
        for (int tenth = 1; tenth <= 9; ++tenth)
            r.push_back(
                {std::regex_replace(std::string("Truncated_") + file, std::regex("\\."), "_") +
                     "_" + std::to_string(tenth * 10),
                 FinishedOrOpenFails,
                 [file, tenth](FaultTest &t) {
                     std::vector<uint8_t> b = ae_test::read_file(media_path(file));
                     b.resize(b.size() * tenth / 10);
                     const std::string copy =
                         ae_test::tmp_path("faults_" + std::to_string(getpid()) + file);
                     ASSERT_TRUE(ae_test::write_file(copy, b));
                     t.engine->openFile(copy);
                 },
                 {},
                 {},
                 0,
                 size_t(3.5 * kRate)});
    return r;
}

INSTANTIATE_TEST_SUITE_P(Matrix, FaultTest, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

} // namespace
