// Every fault we know, one row each: the device missing, busy, gone or underrun, the mixer control
// missing, failing caller streams, broken zip members, truncated and deleted files. The row plants
// its fault; the runner checks the answer (Finished, or refused: one error, the engine Stopped),
// log lines, card events, notifications and sound length, within a deadline so a hang fails.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
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

using namespace ae_test;
using tavrel::utilities::IAudioEngine;
using tavrel::utilities::IPlayer;
using Bytes = std::vector<uint8_t>;
const size_t kRate = 44100, kPiece = ABUF_PIECE_MAX_FRAMES, kAny = SIZE_MAX;
const std::regex kOpenFailed("Failed (to open|avformat_find_stream_info|to find codec|to avcodec_"
                             "open2)|Could not find audio stream"); // the reasons an open fails
enum Outcome { Finished, Refused, OpenFails, FinishedOrOpenFails, OwnChecks };
struct FaultTest;
using Act = std::function<void(FaultTest &)>;

// logs: lines containing the text, how many (-1: at least one at error level); events: card
// events starting with the text, how many; sequence: the notifications before the answer's own
// (S state, E<state> error, P position at the end).
struct Row {
    std::string name, media; // media: opened before `act` unless empty
    Outcome outcome;
    Act act;
    std::vector<std::pair<std::string, int>> logs = {}, events = {};
    size_t minFrames = 0, maxFrames = kAny; // sound captured by the card
    std::string sequence = "";
    Act after = nullptr; // checks once the answer came
};

struct FaultTest : ::testing::TestWithParam<Row> {
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        vcard_hide_mixer(GetParam().name == "MixerControlMissing");
        ASSERT_NE(engine = AudioEngine_CreateAudioEngine(), nullptr);
        engine->setStateChangedCb([this] { note('S'); });
        engine->setTrackPositionChangedCb([this] { note('P'); });
        engine->setErrorCallback([this](IAudioEngine::ErrorType type) {
            EXPECT_EQ(type, IAudioEngine::NoOutputDevice);
            note('E');
        });
    }
    void TearDown() override {
        run_with_deadline("tear-down", 30000, [this] {
            engine->closeFile();
            AudioEngine_DestroyAudioEngine(engine);
            deinit_alsa_output();
            close_alsa_ex(0);
            AlsaMixerDestroy();
        });
        unlink(scratch.c_str());
    }
    void note(char kind) { // position updates only at the end; errors with the state inside
        const int state = engine->getState();
        positions += kind == 'P';
        std::lock_guard<std::mutex> lock(mutex);
        if (kind != 'P' || state == 3)
            notes += kind + (kind == 'E' ? std::to_string(state) : "");
    }
    std::string seen() {
        std::lock_guard<std::mutex> lock(mutex);
        return notes;
    }
    void open(const std::string &path) { ASSERT_EQ(engine->openFile(path), 0) << log.dump(); }
    // The 10 s tone from a caller stream whose reads return nothing from failFrom halves on.
    void openStream(size_t failFrom, bool seekable = true, int seekMs = -1) {
        stream = std::make_unique<MemoryStream>(media_path("tone440_10s.mp3"));
        stream->failReadsFrom(failFrom == kAny ? kAny : stream->size() * failFrom / 2, 0);
        if (!seekable)
            stream->refuseSeeks();
        if (engine->openWithStream(stream.get()) == 0 && seekMs >= 0)
            engine->seekStream(seekMs);
    }
    // The file's bytes edited, written to a scratch file which is then opened (`zip`: as the only
    // member of a stored archive).
    void openEdited(const std::string &file, bool zip, const std::function<void(Bytes &)> &edit) {
        scratch = tmp_path("faults_" + std::to_string(getpid()) + "_" + file);
        const std::string command = "rm -f " + scratch + "; zip -q -X -0 -j " + scratch + " ";
        ASSERT_TRUE(!zip || system((command + media_path(file)).c_str()) == 0);
        Bytes bytes = read_file(zip ? scratch : media_path(file));
        edit(bytes);
        ASSERT_TRUE(write_file(scratch, bytes));
        engine->openFile(zip ? scratch + ":#zip(" + file + ")" : scratch);
    }
    // Starts with the card at `speed` and waits until it has played more than `frames`.
    void playFor(double speed, size_t frames) {
        vcard_set_speed(speed);
        ASSERT_EQ(engine->start(), 0);
        ASSERT_TRUE(wait_until([=] { return vcard_captured_frames() > frames; }, 10000));
    }
    // Paused while the device goes: briefly (it stays open: a write finds it gone) or longer than
    // the output's idle second (it was closed: the reopen finds it missing).
    void goneWhilePaused(int pausedMs) {
        playFor(1.0, kRate / 10);
        engine->pause();
        ASSERT_TRUE(pausedMs < 1000 || wait_until([] { return vcard_is_open() == 0; }, 10000));
        pausedMs < 1000 ? vcard_fail_write_after(-ENODEV, 0) : vcard_fail_open(-ENODEV, -1);
        std::this_thread::sleep_for(std::chrono::milliseconds(pausedMs));
        EXPECT_EQ(seen(), "SS");
        engine->resume();
    }

    IAudioEngine *engine = nullptr;
    LogCapture log;
    std::unique_ptr<MemoryStream> stream;
    std::string scratch;
    std::mutex mutex;
    std::string notes;
    std::atomic<int> positions{0};
};

TEST_P(FaultTest, AnswersAndRecovers) {
    const Row &row = GetParam();
    run_with_deadline("fault row " + row.name, 30000, [&] {
        if (!row.media.empty())
            open(media_path(row.media));
        if (row.act)
            row.act(*this);
        if (row.outcome == OwnChecks)
            return;
        if (row.outcome >= OpenFails && !engine->isFileOpened()) {
            EXPECT_TRUE(std::regex_search(log.dump(), kOpenFailed)) << log.dump();
            EXPECT_EQ(engine->start(), -1);
        } else {
            ASSERT_NE(row.outcome, OpenFails);
            const bool refused = row.outcome == Refused;
            ASSERT_TRUE(engine->getState() != 0 || !seen().empty() || engine->start() == 0);
            ASSERT_TRUE(wait_until([&] { return engine->getState() == (refused ? 0 : 3); }, 20000));
            EXPECT_EQ(engine->getPosition(), refused ? 0 : engine->getDurationMs());
            EXPECT_EQ(alsa_output_working(), !refused);
            EXPECT_TRUE(!refused || log.contains(2, "No output device")) << log.dump();
            EXPECT_TRUE(wait_until([&] { return vcard_is_open() == 0 || !refused; }, 3000));
            // One error, in state Stopped; the end of the media and the notification of start()
            // may come in either order.
            const std::regex sequence(row.sequence + (refused ? "SE0[^PE]*" : "SPS|PSS"));
            EXPECT_TRUE(wait_until([&] { return std::regex_match(seen(), sequence); }, 2000))
                << seen();
            EXPECT_GE(vcard_captured_frames(), row.minFrames);
            EXPECT_LE(vcard_captured_frames(), row.maxFrames);
        }
        for (const auto &l : row.logs)
            EXPECT_EQ(l.second < 0 ? -log.contains(2, l.first) : log.count(l.first), l.second)
                << l.first << "\n"
                << log.dump();
        for (const auto &e : row.events)
            EXPECT_EQ(vcard_count_events(e.first.c_str()), e.second) << e.first;
        if (row.after)
            row.after(*this);
    });
}

// A stored member whose last quarter is cut out, the directory moved up to match.
void cutZipMember(Bytes &b) {
    const size_t eocd = b.size() - 22;
    uint32_t cd;
    memcpy(&cd, &b[eocd + 16], 4);
    b.erase(b.begin() + cd * 3 / 4, b.begin() + cd * 3 / 4 + cd / 4);
    cd -= cd / 4;
    memcpy(&b[b.size() - 6], &cd, 4);
}

// Second k of the steps is 200 + 100 k Hz: what plays plays once, in order, never falling.
void neverFalls(FaultTest &) {
    const std::vector<int16_t> s = captured_samples();
    for (size_t at = kRate, last = 0, f; at + kRate <= s.size(); at += kRate, last = f) {
        f = zero_crossing_frequency({s.begin() + at, s.begin() + at + kRate}, 2, 0, kRate);
        EXPECT_GE(f + 60, last) << "half second " << at / kRate;
    }
}

void releaseStream(FaultTest &t) { // nothing the engine does after closeFile touches the stream
    t.openStream(kAny);
    ASSERT_EQ(t.engine->start(), 0);
    ASSERT_TRUE(wait_until([&] { return t.positions >= 3; }, 10000));
    t.engine->closeFile();
    t.stream->retire();
    t.engine->getPosition();
    t.engine->seekStream(1000);
    t.engine->start();
    t.engine->stop();
    EXPECT_EQ(t.stream->usesAfterRetire.load(), 0);
    t.stream.reset();
    t.open(media_path("tone440_3s.mp3"));
    std::lock_guard<std::mutex> lock(t.mutex);
    t.notes.clear();
}

// A position set on the player while stopped does not outlive the track it was set on.
void positionOutlivesTrack(FaultTest &) {
    IPlayer *player = AudioEngine_CreatePlayer();
    IPlayer::Track track;
    track.filename = media_path("tone440_10s.mp3");
    player->SetPlayList({track});
    ASSERT_EQ(player->PlayTrack(0, -1, false), 0);
    player->SetState(IPlayer::Stopped);
    player->SetTrackPosition(5);
    ASSERT_EQ(player->openFile(media_path("tone440_3s.wav")), 0);
    EXPECT_EQ(player->GetTrackSize(), 3);
    EXPECT_LE(player->GetTrackPosition(), 3);
    AudioEngine_DestroyPlayer(player);
}

const char kTone[] = "tone440_3s.wav", kLong[] = "tone440_10s.mp3";
void cutTenths(FaultTest &t, const char *file, int tenths) {
    t.openEdited(file, false, [tenths](Bytes &b) { b.resize(b.size() * tenths / 10); });
}
template <int error, int count> void failOpen(FaultTest &) {
    vcard_fail_open(error, count);
}
template <int error, long frames> void failWrite(FaultTest &) {
    vcard_fail_write_after(error, frames);
}

// clang-format off
std::vector<Row> rows() {
    std::vector<Row> r = {
        {"DeviceMissingAtOpen", kTone, Refused, failOpen<-ENODEV, -1>,
         {{"No such device", -1}}, {{"open-fail -19", 1}, {"open ", 1}}},
        {"DeviceBusyFor50Attempts", kTone, Finished, failOpen<-EBUSY, 50>,
         {}, {{"open-fail -16", 50}}, size_t(2.5 * kRate)},
        {"DeviceBusyFor200Attempts", kTone, Refused, failOpen<-EBUSY, 200>,
         {}, {{"open-fail -16", 102}}},
        // The piece that met the underrun is dropped; the rest plays.
        {"UnderrunMidTrack", kTone, Finished, failWrite<-EPIPE, kRate>,
         {}, {{"xrun", 1}}, size_t(2.5 * kRate) - kPiece},
        {"DeviceGoneMidTrack", kTone, Refused, failWrite<-ENODEV, kRate>,
         {{"No device", 2}}, {{"gone", 1}}, kRate, kRate + kPiece},
        {"DeviceGoneWhilePausedBriefly", kLong, Refused,
         [](FaultTest &t) { t.goneWhilePaused(300); },
         {{"No device", -1}}, {{"gone", 1}}, 0, kAny, "SS"},
        {"DeviceGoneWhilePausedLong", kLong, Refused,
         [](FaultTest &t) { t.goneWhilePaused(1500); },
         {{"No such device", -1}}, {{"gone", 0}}, 0, kAny, "SS"},
        {"MixerControlMissing", kTone, Finished, nullptr, {}, {}, size_t(2.5 * kRate), kAny, "",
         [](FaultTest &t) { EXPECT_TRUE(t.engine->setVolume(50) && t.engine->getVolume() == -1); }},
        {"StreamReadsZeroForeverFromStart", "", OpenFails, [](FaultTest &t) { t.openStream(0); },
         {}, {}, 0, kAny, "", [](FaultTest &t) { EXPECT_LT(t.stream->reads.load(), 1000); }},
        {"StreamReadsZeroForeverInTheMiddle", "", Finished, [](FaultTest &t) { t.openStream(1); },
         {}, {}, 4 * kRate, 6 * kRate},
        // The failed seek is logged and playback goes on from the start.
        {"StreamSeekFails", "", Finished, [](FaultTest &t) { t.openStream(kAny, false, 8000); },
         {{"Failed to av_seek_frame", -1}}, {}, 8 * kRate},
        {"StreamReleasedAfterCloseFile", "", Finished, releaseStream},
        {"ZipMemberTruncatedInArchive", "", FinishedOrOpenFails,
         [](FaultTest &t) { t.openEdited("steps_10s.mp3", true, cutZipMember); },
         {}, {}, 6 * kRate, 8 * kRate, "", neverFalls},
        {"ZipMemberCrcError", "", Finished, [](FaultTest &t) {
             t.openEdited(kLong, true, [](Bytes &b) { b[30 + b[26] + b[28] + 60000] ^= 0x5a; });
         }}, // a byte of the member's data, past its local header
        {"FileDeletedWhilePlaying", "", Finished, [](FaultTest &t) {
             t.openEdited(kLong, false, [](Bytes &) {});
             t.playFor(8.0, kRate);
             ASSERT_EQ(unlink(t.scratch.c_str()), 0);
         }, {}, {}, 9 * kRate},
        {"PlayerPositionAfterAnotherTrackOpened", "", OwnChecks, positionOutlivesTrack},
    };
    // Files cut at every tenth: the open fails for a known reason, or what is there plays.
    for (const char *file : {"tone440_3s.wav", "tone440_3s.mp3", "tone440_3s.flac",
                             "tone440_3s.ogg", "tone440_3s.opus", "tone440_3s.m4a",
                             "cover_jpeg_3s.mp3"})
        for (int tenths = 1; tenths <= 9; ++tenths)
            r.push_back({std::regex_replace(file, std::regex("\\."), "_") + "_cut_at_" +
                             std::to_string(tenths * 10), "", FinishedOrOpenFails,
                         [=](FaultTest &t) { cutTenths(t, file, tenths); },
                         {}, {}, 0, size_t(3.5 * kRate)});
    return r;
}
// clang-format on

void PrintTo(const Row &row, std::ostream *os) {
    *os << row.name;
}

INSTANTIATE_TEST_SUITE_P(Matrix, FaultTest, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

} // namespace
