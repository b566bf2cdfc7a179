// Every fault we know, one row each: the row plants it, the runner checks the answer (Finished,
// or refused: one error, the engine Stopped), card events, notifications and sound, in time.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <ostream>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "alsa_device.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using namespace ae_test;
using tavrel::utilities::IAudioEngine;
using Bytes = std::vector<uint8_t>;
const size_t kRate = 44100, kPiece = ABUF_PIECE_MAX_FRAMES, kAny = SIZE_MAX, kMost = 2.5 * kRate;
const char kLong[] = "tone440_10s.mp3";
enum Outcome { Finished, Refused, FinishedOrOpenFails };
using F = struct FaultTest;

// `act` plants the fault (the runner opens the 3 s tone if it opened nothing and must play).
struct Row {
    std::string name;
    Outcome outcome;
    std::function<void(F &)> act;
    std::pair<std::string, int> events = {}; // card events starting with a text, how many
    size_t minFrames = 0, maxFrames = kAny;  // the sound the card played
};
void PrintTo(const Row &row, std::ostream *os) { // ctest shows the fault and the answer
    const char *const answer[] = {"finishes", "is refused", "finishes or fails to open"};
    *os << row.name << ": " << answer[row.outcome];
    if (!row.events.first.empty())
        *os << ", card events \"" << row.events.first << "\": " << row.events.second;
}

struct FaultTest : ::testing::TestWithParam<Row> {
    // S state, E<state> error, P position (counted; noted only at the end).
    void note(char kind, int error = IAudioEngine::NoOutputDevice) {
        EXPECT_EQ(error, IAudioEngine::NoOutputDevice);
        const int state = engine->getState();
        positions += kind == 'P';
        std::lock_guard<std::mutex> lock(mutex);
        if (kind != 'P' || state == 3)
            notes += kind + (kind == 'E' ? std::to_string(state) : "");
    }
    std::string seen(bool clear = false) {
        std::lock_guard<std::mutex> lock(mutex);
        return clear ? std::exchange(notes, "") : notes;
    }
    void open(const char *file) { ASSERT_EQ(engine->openFile(media_path(file)), 0); }
    // The 10 s tone from a caller stream whose reads return nothing from failFrom halves on.
    int openStream(size_t failFrom, bool seekable = true) {
        stream = std::make_unique<MemoryStream>(media_path(kLong));
        stream->failReadsFrom(failFrom == kAny ? kAny : stream->size() * failFrom / 2, 0);
        if (!seekable)
            stream->refuseSeeks();
        return engine->openWithStream(stream.get());
    }
    // Opens a scratch copy of the file (`zip`: as the only member of a stored archive), edited.
    void openEdited(const std::string &file, bool zip, const std::function<void(Bytes &)> &edit) {
        scratch = tmp_path("faults_" + std::to_string(getpid()) + "_" + file);
        const std::string zipIt = "rm -f " + scratch + "; zip -q -X -0 -j " + scratch + " ";
        ASSERT_TRUE(!zip || system((zipIt + media_path(file)).c_str()) == 0);
        Bytes bytes = read_file(zip ? scratch : media_path(file));
        edit(bytes);
        ASSERT_TRUE(write_file(scratch, bytes));
        engine->openFile(zip ? scratch + ":#zip(" + file + ")" : scratch);
    }
    void playFor(double speed, size_t frames) { // until the card has played more than `frames`
        vcard_set_speed(speed);
        ASSERT_EQ(engine->start(), 0);
        ASSERT_TRUE(wait_until([=] { return vcard_captured_frames() > frames; }, 10000));
    }

    IAudioEngine *engine = nullptr;
    std::unique_ptr<MemoryStream> stream;
    std::string scratch, notes;
    std::mutex mutex;
    std::atomic<int> positions{0};
};

TEST_P(FaultTest, AnswersAndRecovers) {
    const Row &row = GetParam();
    vcard_setup();
    vcard_hide_mixer(row.name == "MixerControlMissing");
    ASSERT_NE(engine = AudioEngine_CreateAudioEngine(), nullptr);
    engine->setStateChangedCb([this] { note('S'); });
    engine->setTrackPositionChangedCb([this] { note('P'); });
    engine->setErrorCallback([this](IAudioEngine::ErrorType type) { note('E', type); });
    run_with_deadline("fault row " + row.name, 30000, [&] {
        row.act(*this);
        if (row.outcome == FinishedOrOpenFails && !engine->isFileOpened()) {
            EXPECT_EQ(engine->start(), -1);
            return;
        }
        if (!engine->isFileOpened())
            open("tone440_3s.wav");
        const bool refused = row.outcome == Refused;
        ASSERT_TRUE(engine->getState() != 0 || !seen().empty() || engine->start() == 0);
        ASSERT_TRUE(wait_until([&] { return engine->getState() == (refused ? 0 : 3); }, 20000));
        EXPECT_EQ(engine->getPosition(), refused ? 0 : engine->getDurationMs());
        EXPECT_EQ(alsa_output_working(), !refused);
        EXPECT_TRUE(wait_until([&] { return vcard_is_open() == 0 || !refused; }, 3000));
        // One error, in state Stopped; start()'s notification comes after the play thread has
        // started, so the thread's error or end may come before it.
        const std::regex sequence(refused ? "SE0[^PE]*|E0S[^PE]*" : "SPS|PSS");
        EXPECT_TRUE(wait_until([&] { return std::regex_match(seen(), sequence); }, 2000)) << seen();
        EXPECT_GE(vcard_captured_frames(), row.minFrames);
        EXPECT_LE(vcard_captured_frames(), row.maxFrames);
        const std::string &event = row.events.first;
        EXPECT_TRUE(event.empty() || vcard_count_events(event.c_str()) == row.events.second)
            << event;
    });
    run_with_deadline("tear-down", 30000, [this] {
        engine->closeFile();
        AudioEngine_DestroyAudioEngine(engine);
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    });
    unlink(scratch.c_str());
}

template <int error, int count> void failOpen(F &) {
    vcard_fail_open(error, count);
}
template <int error, long frames> void failWrite(F &) {
    vcard_fail_write_after(error, frames);
}

// Paused while the device goes: briefly (a write finds it gone) or past the idle close (the
// reopen).
template <int pausedMs> void goneWhilePaused(F &t) {
    t.open(kLong);
    t.playFor(1.0, kRate / 10);
    t.engine->pause();
    ASSERT_TRUE(pausedMs < 1000 || wait_until([] { return vcard_is_open() == 0; }, 10000));
    pausedMs < 1000 ? vcard_fail_write_after(-ENODEV, 0) : vcard_fail_open(-ENODEV, -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(pausedMs));
    EXPECT_EQ(t.seen(true), "SS");
    t.engine->resume();
}

// A stored member whose last quarter is cut out, the directory moved up to match.
void cutZipMember(Bytes &b) {
    uint32_t cd;
    memcpy(&cd, &b[b.size() - 6], 4);
    b.erase(b.begin() + cd * 3 / 4, b.begin() + cd * 3 / 4 + cd / 4);
    cd -= cd / 4;
    memcpy(&b[b.size() - 6], &cd, 4);
}

// Nothing the engine does after closeFile touches the stream; then another file plays.
void releaseStream(F &t) {
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
    t.seen(true);
}

// clang-format off
std::vector<Row> rows() {
    std::vector<Row> r = {
        {"DeviceMissingAtOpen", Refused, failOpen<-ENODEV, -1>, {"open-fail -19", 1}},
        {"DeviceBusyFor50Attempts", Finished, failOpen<-EBUSY, 50>, {"open-fail -16", 50}, kMost},
        {"DeviceBusyFor200Attempts", Refused, failOpen<-EBUSY, 200>, {"open-fail -16", 102}},
        // The piece that met the underrun is dropped; the rest plays.
        {"UnderrunMidTrack", Finished, failWrite<-EPIPE, kRate>, {"xrun", 1}, kMost - kPiece},
        {"DeviceGoneMidTrack", Refused, failWrite<-ENODEV, kRate>, {"gone", 1}, kRate,
         kRate + kPiece},
        {"DeviceGoneWhilePausedBriefly", Refused, goneWhilePaused<300>, {"gone", 1}},
        {"DeviceGoneWhilePausedLong", Refused, goneWhilePaused<1500>, {"gone", 0}},
        {"MixerControlMissing", Finished, [](F &t) {
             EXPECT_TRUE(t.engine->setVolume(50) && t.engine->getVolume() == -1); }, {}, kMost},
        {"StreamReadsZeroForeverFromStart", FinishedOrOpenFails,
         [](F &t) { EXPECT_TRUE(t.openStream(0) != 0 && t.stream->reads < 1000); }},
        {"StreamReadsZeroForeverInTheMiddle", Finished, [](F &t) { t.openStream(1); }, {},
         4 * kRate, 6 * kRate},
        {"StreamSeekFails", Finished, [](F &t) {
             ASSERT_EQ(t.openStream(kAny, false), 0);
             t.engine->seekStream(8000); }, {}, 8 * kRate},
        {"StreamReleasedAfterCloseFile", Finished, releaseStream, {}, kMost},
        // The picture's header is whole, its image data is not: no cover, the audio plays.
        {"CoverImageDataCorrupt", Finished, [](F &t) {
             t.openEdited("cover_png_3s.flac", false, [](Bytes &b) {
                 auto *idat = static_cast<uint8_t *>(memmem(b.data(), b.size(), "IDAT", 4));
                 ASSERT_NE(idat, nullptr);
                 memset(idat + 4, 0x5a, 16); });
             ASSERT_TRUE(t.engine->isFileOpened());
             EXPECT_EQ(t.engine->getCover(), nullptr); }, {}, kMost},
        // The missing quarter is skipped, not played twice.
        {"ZipMemberTruncatedInArchive", FinishedOrOpenFails,
         [](F &t) { t.openEdited("steps_10s.mp3", true, cutZipMember); }, {}, 6 * kRate, 8 * kRate},
        {"ZipMemberCrcError", Finished, [](F &t) { // a byte of the member's data flipped
             t.openEdited(kLong, true, [](Bytes &b) { b[30 + b[26] + b[28] + 60000] ^= 0x5a; });
         }, {}, 9 * kRate},
        {"FileDeletedWhilePlaying", Finished, [](F &t) {
             t.openEdited(kLong, false, [](Bytes &) {});
             t.playFor(8.0, kRate);
             ASSERT_EQ(unlink(t.scratch.c_str()), 0); }, {}, 9 * kRate},
    };
    // Files cut short, in a header or in the data: the open fails, or what is there plays.
    for (const char *file : {"tone440_3s.wav", "tone440_3s.mp3", "tone440_3s.flac",
                             "tone440_3s.ogg", "tone440_3s.opus", "tone440_3s.m4a",
                             "cover_jpeg_3s.mp3"})
        for (int tenths = 1; tenths <= 9; ++tenths)
            r.push_back({std::regex_replace(file, std::regex("\\."), "_") + "_cut_at_" +
                         std::to_string(tenths * 10), FinishedOrOpenFails, [=](F &t) {
                             const auto cut = [=](Bytes &b) { b.resize(b.size() * tenths / 10); };
                             t.openEdited(file, false, cut);
                         }, {}, 0, 7 * kRate / 2});
    return r;
}
// clang-format on

INSTANTIATE_TEST_SUITE_P(Matrix, FaultTest, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

} // namespace
