// Every fault we know, played against the engine, one row each: the device missing or busy at
// open, underruns, the device vanishing while playing or paused, caller streams that fail,
// broken zip members, truncated and deleted files, a missing mixer control. Each row checks the
// engine's answer (result, log line, state, notifications), runs with a deadline so that a hang
// fails the row, and relies on the sanitizer builds for leaks and races.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "IAudioEngine.h"
#include "alsa_device.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

namespace {

using ae_test::LogCapture;
using ae_test::media_path;
using ae_test::wait_until;
using tavrel::utilities::IAudioEngine;

const int kRate = 44100;
const int kRowDeadlineMs = 30000;

using ae_test::read_file;
using ae_test::write_file;
using FaultStream = ae_test::MemoryStream;

class FaultTest;

// One row: a name, what to do before the engine exists (card faults that must hit the
// engine's first open of the device), and the row itself.
struct Fault {
    std::string name;
    std::function<void()> beforeEngine;
    std::function<void(FaultTest &)> run;
};

class FaultTest : public ::testing::TestWithParam<Fault> {
public:
    // --- What the rows use ---------------------------------------------------------------------
    IAudioEngine *engine = nullptr;
    std::unique_ptr<LogCapture> log;

    int count(char kind) {
        std::lock_guard<std::mutex> lock(notesMutex_);
        int n = 0;
        for (const auto &note : notes_)
            n += note.first == kind;
        return n;
    }
    // The notifications, position updates left out except the final one of a Finished run.
    std::string sequence() {
        std::lock_guard<std::mutex> lock(notesMutex_);
        std::string out;
        for (const auto &note : notes_)
            if (note.first != 'P' || note.second == 3)
                out += note.first;
        return out;
    }
    // getState() as it was inside the first error notification (-1 without one).
    int stateAtError() {
        std::lock_guard<std::mutex> lock(notesMutex_);
        for (const auto &note : notes_)
            if (note.first == 'E')
                return note.second;
        return -1;
    }
    bool waitState(int state, int timeoutMs = 20000) {
        return wait_until([&] { return engine->getState() == state; }, timeoutMs);
    }
    bool waitError(int timeoutMs = 20000) {
        return wait_until([&] { return count('E') > 0 && engine->getState() == 0; }, timeoutMs);
    }
    std::string logDump() { return log->dump(); }

    // Starts the open media and expects it to end by itself: Finished, the position at the
    // duration, the end notified once, no error.
    void expectPlaysToEnd(int timeoutMs = 20000) {
        ASSERT_EQ(engine->start(), 0);
        ASSERT_TRUE(waitState(3, timeoutMs)) << "state " << engine->getState() << "\n" << logDump();
        EXPECT_EQ(engine->getPosition(), engine->getDurationMs());
        EXPECT_EQ(count('E'), 0);
        // The caller's notification of start() and the loop's end may come in either order
        // when the media ends at once.
        EXPECT_TRUE(wait_until(
            [&] {
                const std::string s = sequence();
                return s == "SPS" || s == "PSS";
            },
            2000))
            << sequence();
    }

    // Expects the output failure answer: the error notification (in state Stopped), the
    // engine Stopped at position 0, the output layer stopped.
    void expectOutputRefused() {
        ASSERT_TRUE(waitError()) << "state " << engine->getState() << "\n" << logDump();
        EXPECT_EQ(count('E'), 1);
        EXPECT_EQ(stateAtError(), 0);
        EXPECT_TRUE(log->contains(2, "No output device")) << logDump();
        EXPECT_EQ(engine->getState(), 0);
        EXPECT_EQ(engine->getPosition(), 0);
        EXPECT_EQ(alsa_output_working(), 0);
        EXPECT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 3000));
        EXPECT_EQ(sequence().substr(0, 2), "SE") << sequence();
        EXPECT_EQ(sequence().find('P'), std::string::npos) << sequence();
    }

    // A scratch path unique to this row.
    std::string scratch(const std::string &name) {
        return ae_test::tmp_path("faults_" + std::to_string(getpid()) + "_" + name);
    }

protected:
    void SetUp() override {
        vcard_setup();
        vcard_set_speed(0);
        set_alsa_device_name("");
        const Fault &row = GetParam();
        if (row.beforeEngine)
            row.beforeEngine();
        log = std::make_unique<LogCapture>();
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
        joined("tear-down", [this] {
            if (engine != nullptr) {
                engine->closeFile();
                EXPECT_FALSE(engine->isFileOpened());
                AudioEngine_DestroyAudioEngine(engine);
                engine = nullptr;
            }
            deinit_alsa_output();
            close_alsa_ex(0);
            AlsaMixerDestroy();
        });
        log.reset();
    }

    static void joined(const std::string &what, const std::function<void()> &body) {
        ae_test::run_with_deadline("fault row " + what, kRowDeadlineMs, body);
    }

    void note(char kind) {
        const int s = engine->getState();
        std::lock_guard<std::mutex> lock(notesMutex_);
        notes_.emplace_back(kind, s);
    }

    std::mutex notesMutex_;
    std::vector<std::pair<char, int>> notes_;
};

TEST_P(FaultTest, AnswersAndRecovers) {
    joined(GetParam().name, [this] { GetParam().run(*this); });
}

// --- Rows --------------------------------------------------------------------------------------

const char kTone[] = "tone440_3s.wav";     // 3 s, 44100 Hz stereo
const char kLongMp3[] = "tone440_10s.mp3"; // 10 s
const char kShortMp3[] = "tone440_3s.mp3"; // 3 s
const char kSteps[] = "steps_10s.mp3";     // 10 s, second k at 200 + 100 k Hz

void openTone(FaultTest &t, const char *file = kTone) {
    ASSERT_EQ(t.engine->openFile(media_path(file)), 0) << t.logDump();
}

// Zip archives built for the rows with the zip tool.
// With `copies` each file is also stored as sub/<file>, after a "sub/" folder entry.
std::string makeZip(FaultTest &t, const std::string &name, const std::string &options,
                    const std::vector<std::string> &files, bool copies = true) {
    const std::string dir = t.scratch(name + ".d");
    const std::string archive = t.scratch(name);
    std::string cmd = "rm -rf '" + dir + "' '" + archive + "' && mkdir -p '" + dir + "/sub' && ";
    for (const std::string &f : files)
        cmd += "cp '" + media_path(f) + "' '" + dir + "/' && cp '" + media_path(f) + "' '" + dir +
               "/sub/' && ";
    cmd +=
        "cd '" + dir + "' && zip -q -X " + options + " '" + archive + "'" + (copies ? " sub/" : "");
    for (const std::string &f : files)
        cmd += " '" + f + "'" + (copies ? " 'sub/" + f + "'" : std::string());
    cmd += " && cd / && rm -rf '" + dir + "'";
    EXPECT_EQ(system(cmd.c_str()), 0) << cmd;
    return archive;
}

uint32_t le32(const std::vector<uint8_t> &b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

// Offset of the end-of-central-directory record.
size_t eocdOffset(const std::vector<uint8_t> &b) {
    for (size_t i = b.size() - 22;; --i) {
        if (le32(b, i) == 0x06054b50)
            return i;
        if (i == 0)
            return SIZE_MAX;
    }
}

// Offset of the data of the first member (after its local header).
size_t firstMemberData(const std::vector<uint8_t> &b) {
    const size_t nameLength = b[26] | (b[27] << 8);
    const size_t extraLength = b[28] | (b[29] << 8);
    return 30 + nameLength + extraLength;
}

// Frequency of each half second of the captured left channel.
std::vector<int> halfSecondFrequencies() {
    const std::vector<int16_t> all = ae_test::captured_samples();
    std::vector<int> out;
    const size_t step = kRate / 2 * 2;
    for (size_t at = 0; at + step <= all.size(); at += step) {
        std::vector<int16_t> part(all.begin() + at, all.begin() + at + step);
        out.push_back(static_cast<int>(ae_test::zero_crossing_frequency(part, 2, 0, kRate)));
    }
    return out;
}

std::string join(const std::vector<int> &v) {
    std::string s;
    for (int x : v)
        s += std::to_string(x) + " ";
    return s;
}

std::vector<Fault> rows() {
    std::vector<Fault> r;

    // --- Output device ---------------------------------------------------------------------------
    r.push_back({"DeviceMissingAtOpen", nullptr, [](FaultTest &t) {
                     openTone(t);
                     const int opens = vcard_count_events("open "); // the engine's own check
                     vcard_fail_open(-ENODEV, -1);
                     ASSERT_EQ(t.engine->start(), 0);
                     t.expectOutputRefused();
                     EXPECT_TRUE(t.log->contains(2, "No such device: mpd_sm")) << t.logDump();
                     EXPECT_TRUE(t.log->contains(2, "Failed to open alsa device"));
                     EXPECT_EQ(t.log->count("Waiting release"), 0); // no retry
                     EXPECT_EQ(vcard_count_events("open-fail -19"), 1);
                     EXPECT_EQ(vcard_count_events("open "), opens);
                 }});
    r.push_back({"DeviceBusyFor50Attempts", nullptr, [](FaultTest &t) {
                     openTone(t);
                     vcard_fail_open(-EBUSY, 50);
                     t.expectPlaysToEnd();
                     EXPECT_EQ(t.log->count("Waiting release"), 50);
                     EXPECT_FALSE(t.log->contains("unable to open pcm device"));
                     EXPECT_EQ(vcard_count_events("open-fail -16"), 50);
                     EXPECT_GE(vcard_captured_frames(), size_t(2.5 * kRate));
                 }});
    r.push_back({"DeviceBusyFor200Attempts", nullptr, [](FaultTest &t) {
                     openTone(t);
                     vcard_fail_open(-EBUSY, 200);
                     ASSERT_EQ(t.engine->start(), 0);
                     t.expectOutputRefused();
                     EXPECT_EQ(t.log->count("Waiting release"), 101);
                     EXPECT_TRUE(t.log->contains(2, "unable to open pcm device")) << t.logDump();
                     EXPECT_TRUE(t.log->contains(2, "Failed to open alsa device"));
                     EXPECT_EQ(vcard_count_events("open-fail -16"), 102);
                 }});
    r.push_back({"UnderrunMidTrack", nullptr, [](FaultTest &t) {
                     openTone(t);
                     vcard_fail_write_after(-EPIPE, kRate);
                     t.expectPlaysToEnd();
                     EXPECT_TRUE(t.log->contains(2, "underrun occurred")) << t.logDump();
                     EXPECT_EQ(vcard_count_events("xrun"), 1);
                     // The piece that met the underrun is dropped; the rest plays.
                     EXPECT_GE(vcard_captured_frames(),
                               size_t(2.5 * kRate) - ABUF_PIECE_MAX_FRAMES);
                     EXPECT_EQ(alsa_output_working(), 1);
                 }});
    r.push_back({"DeviceGoneMidTrack", nullptr, [](FaultTest &t) {
                     openTone(t);
                     vcard_fail_write_after(-ENODEV, kRate);
                     ASSERT_EQ(t.engine->start(), 0);
                     t.expectOutputRefused();
                     EXPECT_EQ(t.log->count("No device"), 2) << t.logDump();
                     EXPECT_EQ(vcard_count_events("gone"), 1);
                     EXPECT_GE(vcard_captured_frames(), size_t(kRate));
                     EXPECT_LE(vcard_captured_frames(), size_t(kRate + ABUF_PIECE_MAX_FRAMES));
                 }});
    // Paused briefly (the device stays open: a write finds it gone) and for longer than the
    // output's idle second (the device was closed: the reopen finds it missing).
    for (int pausedMs : {300, 1500}) {
        r.push_back({"DeviceGoneWhilePaused" + std::to_string(pausedMs) + "ms", nullptr,
                     [pausedMs](FaultTest &t) {
                         vcard_set_speed(1.0);
                         openTone(t, kLongMp3);
                         ASSERT_EQ(t.engine->start(), 0);
                         ASSERT_TRUE(
                             wait_until([] { return vcard_captured_frames() > 4410; }, 10000));
                         t.engine->pause();
                         EXPECT_EQ(t.engine->getState(), 2);
                         const bool idleClosed = pausedMs > 1000;
                         if (idleClosed) {
                             // What was queued plays out, then the idle second closes it.
                             ASSERT_TRUE(wait_until([] { return vcard_is_open() == 0; }, 10000));
                             vcard_fail_open(-ENODEV, -1);
                         } else {
                             vcard_fail_write_after(-ENODEV, 0);
                         }
                         std::this_thread::sleep_for(std::chrono::milliseconds(pausedMs));
                         EXPECT_EQ(t.engine->getState(), 2);
                         EXPECT_EQ(t.count('E'), 0);
                         t.engine->resume();
                         ASSERT_TRUE(t.waitError(10000)) << t.logDump();
                         EXPECT_EQ(t.count('E'), 1);
                         EXPECT_EQ(t.stateAtError(), 0);
                         EXPECT_TRUE(t.log->contains(2, "No output device"));
                         if (idleClosed) {
                             EXPECT_TRUE(t.log->contains(2, "No such device")) << t.logDump();
                             EXPECT_EQ(vcard_count_events("gone"), 0);
                         } else {
                             EXPECT_TRUE(t.log->contains(2, "No device")) << t.logDump();
                             EXPECT_EQ(vcard_count_events("gone"), 1);
                         }
                         EXPECT_EQ(t.engine->getState(), 0);
                         EXPECT_EQ(t.engine->getPosition(), 0);
                         EXPECT_EQ(alsa_output_working(), 0);
                     }});
    }
    r.push_back({"MixerControlMissing", [] { vcard_hide_mixer(1); },
                 [](FaultTest &t) {
                     EXPECT_NE(t.engine->setVolume(50), 0);
                     EXPECT_EQ(t.engine->getVolume(), -1);
                     openTone(t);
                     t.expectPlaysToEnd();
                     EXPECT_GE(vcard_captured_frames(), size_t(2.5 * kRate));
                     EXPECT_NE(t.engine->setVolume(30), 0);
                     EXPECT_EQ(t.engine->getVolume(), -1);
                 }});

    // --- Caller streams --------------------------------------------------------------------------
    r.push_back({"StreamReadsZeroForeverFromStart", nullptr, [](FaultTest &t) {
                     FaultStream s(media_path(kShortMp3));
                     s.failReadsFrom(0, 0);
                     EXPECT_EQ(t.engine->openWithStream(&s), -1);
                     EXPECT_TRUE(t.log->contains(2, "Failed to open")) << t.logDump();
                     EXPECT_LT(s.reads.load(), 1000);
                     t.engine->closeFile();
                 }});
    r.push_back({"StreamReadsZeroForeverInTheMiddle", nullptr, [](FaultTest &t) {
                     FaultStream s(media_path(kLongMp3));
                     s.failReadsFrom(s.size() / 2, 0);
                     ASSERT_EQ(t.engine->openWithStream(&s), 0) << t.logDump();
                     t.expectPlaysToEnd();
                     EXPECT_GE(vcard_captured_frames(), size_t(4 * kRate));
                     EXPECT_LE(vcard_captured_frames(), size_t(6 * kRate));
                     t.engine->closeFile();
                 }});
    r.push_back({"StreamSeekFails", nullptr, [](FaultTest &t) {
                     FaultStream s(media_path(kLongMp3));
                     s.refuseSeeks();
                     ASSERT_EQ(t.engine->openWithStream(&s), 0) << t.logDump();
                     const int seeksAtOpen = s.seeks.load();
                     t.engine->seekStream(8000);
                     t.expectPlaysToEnd();
                     // The seek reached the stream and failed, and playback went on from the
                     // start, not from second 8 (the failed attempt may read ahead a little).
                     EXPECT_GT(s.seeks.load(), seeksAtOpen);
                     EXPECT_TRUE(t.log->contains(2, "Failed to av_seek_frame")) << t.logDump();
                     EXPECT_GE(vcard_captured_frames(), size_t(8 * kRate));
                     t.engine->closeFile();
                 }});
    r.push_back({"StreamReleasedAfterCloseFile", nullptr, [](FaultTest &t) {
                     auto first = std::make_unique<FaultStream>(media_path(kLongMp3));
                     ASSERT_EQ(t.engine->openWithStream(first.get()), 0);
                     ASSERT_EQ(t.engine->start(), 0);
                     ASSERT_TRUE(wait_until([&] { return t.count('P') >= 3; }, 10000));
                     t.engine->closeFile();
                     EXPECT_FALSE(t.engine->isFileOpened());
                     first->retire();
                     // Everything the engine may still do: none of it may touch the old stream.
                     t.engine->getPosition();
                     t.engine->seekStream(1000);
                     t.engine->start();
                     t.engine->stop();
                     EXPECT_EQ(first->usesAfterRetire.load(), 0);
                     first.reset(); // the application may now destroy it
                     FaultStream second(media_path(kShortMp3));
                     ASSERT_EQ(t.engine->openWithStream(&second), 0);
                     ASSERT_EQ(t.engine->start(), 0);
                     ASSERT_TRUE(t.waitState(3));
                     t.engine->closeFile();
                 }});

    // --- Zip members -----------------------------------------------------------------------------
    r.push_back({"ZipMemberTruncatedInArchive", nullptr, [](FaultTest &t) {
                     // Half the member's data is cut out of a stored archive whose directory is
                     // moved to match: the member ends early inside the archive.
                     const std::string archive = makeZip(t, "trunc.zip", "-0", {kSteps}, false);
                     std::vector<uint8_t> b = read_file(archive);
                     ASSERT_GT(b.size(), 100000u);
                     const size_t eocd = eocdOffset(b);
                     ASSERT_NE(eocd, SIZE_MAX);
                     // One member: its last quarter is cut out (the directory moves up to match).
                     const size_t cdOffset = le32(b, eocd + 16);
                     const size_t cutFrom = cdOffset * 3 / 4, cut = cdOffset / 4;
                     b.erase(b.begin() + cutFrom, b.begin() + cutFrom + cut);
                     const uint32_t moved = static_cast<uint32_t>(cdOffset - cut);
                     const size_t newEocd = eocd - cut;
                     for (int i = 0; i < 4; ++i)
                         b[newEocd + 16 + i] = static_cast<uint8_t>(moved >> (8 * i));
                     ASSERT_TRUE(write_file(archive, b));
                     const std::string path = archive + ":#zip(" + kSteps + ")";
                     const int opened = t.engine->openFile(path);
                     if (opened != 0) {
                         EXPECT_TRUE(t.log->contains(2, "Failed to open " + path)) << t.logDump();
                         return;
                     }
                     t.expectPlaysToEnd();
                     // What is there plays once, in order: second k is 200 + 100 k Hz, so the
                     // tone never falls back.
                     const std::vector<int> f = halfSecondFrequencies();
                     for (size_t i = 1; i < f.size(); ++i)
                         EXPECT_GE(f[i], f[i - 1] - 60) << "half second " << i << ": " << join(f);
                     EXPECT_LE(vcard_captured_frames(), size_t(8 * kRate)) << join(f);
                     EXPECT_GE(vcard_captured_frames(), size_t(6 * kRate)) << join(f);
                 }});
    r.push_back({"ZipMemberCrcError", nullptr, [](FaultTest &t) {
                     const std::string archive = makeZip(t, "crc.zip", "-0", {kLongMp3});
                     std::vector<uint8_t> b = read_file(archive);
                     ASSERT_GT(b.size(), 100000u);
                     // sub/ comes first without data; the file's data follows its header.
                     const size_t sub = firstMemberData(b);
                     std::vector<uint8_t> rest(b.begin() + sub, b.end());
                     const size_t data = sub + firstMemberData(rest);
                     for (size_t i = 0; i < 64; ++i)
                         b[data + 60000 + i] ^= 0x5a;
                     ASSERT_TRUE(write_file(archive, b));
                     const std::string path = archive + ":#zip(" + kLongMp3 + ")";
                     ASSERT_EQ(t.engine->openFile(path), 0) << t.logDump();
                     t.expectPlaysToEnd();
                 }});
    r.push_back({"FileDeletedWhilePlaying", nullptr, [](FaultTest &t) {
                     const std::string copy = t.scratch("deleted.mp3");
                     ASSERT_TRUE(write_file(copy, read_file(media_path(kLongMp3))));
                     vcard_set_speed(8.0);
                     ASSERT_EQ(t.engine->openFile(copy), 0);
                     ASSERT_EQ(t.engine->start(), 0);
                     ASSERT_TRUE(wait_until([] { return vcard_captured_frames() > 44100; }, 10000));
                     ASSERT_EQ(unlink(copy.c_str()), 0);
                     ASSERT_TRUE(t.waitState(3, 20000)) << t.logDump();
                     EXPECT_EQ(t.engine->getPosition(), t.engine->getDurationMs());
                     EXPECT_EQ(t.count('E'), 0);
                     EXPECT_GE(vcard_captured_frames(), size_t(9 * kRate));
                 }});
    // Truncated at every tenth of their length: the open fails with one of its reasons, or
    // what is there plays and the media ends Finished.
    for (const char *file :
         {"tone440_3s.wav", "tone440_3s.mp3", "tone440_3s.flac", "tone440_3s.ogg",
          "tone440_3s.opus", "tone440_3s.m4a", "cover_jpeg_3s.mp3"}) {
        for (int tenth = 1; tenth <= 9; ++tenth) {
            std::string name = std::string("Truncated_") + file + "_" + std::to_string(tenth * 10);
            for (char &c : name)
                if (c == '.')
                    c = '_';
            r.push_back({name, nullptr, [file, tenth](FaultTest &t) {
                             std::vector<uint8_t> b = read_file(media_path(file));
                             ASSERT_FALSE(b.empty());
                             b.resize(b.size() * tenth / 10);
                             const std::string copy = t.scratch(std::to_string(tenth) + file);
                             ASSERT_TRUE(write_file(copy, b));
                             if (t.engine->openFile(copy) != 0) {
                                 const bool known =
                                     t.log->contains(2, "Failed to open " + copy) ||
                                     t.log->contains(2, "Failed avformat_find_stream_info") ||
                                     t.log->contains(2, "Could not find audio stream") ||
                                     t.log->contains(2, "Failed to find codec") ||
                                     t.log->contains(2, "Failed to avcodec_open2");
                                 EXPECT_TRUE(known) << t.logDump();
                                 EXPECT_FALSE(t.engine->isFileOpened());
                                 EXPECT_EQ(t.engine->start(), -1);
                                 return;
                             }
                             t.expectPlaysToEnd();
                             EXPECT_LE(vcard_captured_frames(), size_t(3.5 * kRate));
                             unlink(copy.c_str());
                         }});
        }
    }
    return r;
}

void PrintTo(const Fault &fault, std::ostream *os) {
    *os << fault.name;
}

INSTANTIATE_TEST_SUITE_P(Matrix, FaultTest, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Fault> &info) {
                             return info.param.name;
                         });

} // namespace
