// Media the engine cannot play, or can play only in part, and byte streams supplied by the
// application: each open fails with its logged reason or playback ends Finished; nothing hangs
// and (under the address sanitizer) nothing leaks.
#include <cerrno>
#include <ostream>
#include <string>

#include "engine_fixture.h"

namespace engine_test {
namespace {

using ae_test::LogCapture;
using ae_test::media_path;

// --- Files that do not open -------------------------------------------------------------------

struct BadFile {
    const char *file;
    const char *message; // level-2 line; "%s" stands for the path given to openFile
    const char *name;
};
void PrintTo(const BadFile &v, std::ostream *os) {
    *os << v.name;
}

class EngineBadFileTest : public EngineTest, public ::testing::WithParamInterface<BadFile> {};

TEST_P(EngineBadFileTest, OpenFailsWithItsReason) {
    const BadFile b = GetParam();
    const std::string path = media_path(b.file);
    std::string message = b.message;
    const size_t at = message.find("%s");
    if (at != std::string::npos)
        message.replace(at, 2, path);

    LogCapture log;
    EXPECT_EQ(engine_->openFile(path), -1);
    EXPECT_TRUE(log.contains(2, message)) << log.dump();
    EXPECT_TRUE(log.contains(4, "Open file " + path));
    EXPECT_TRUE(log.contains(4, "Cleanup audio engine"));
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->start(), -1);
    EXPECT_TRUE(log.contains(2, "File is not opened"));
    EXPECT_EQ(engine_->getState(), 0);
    EXPECT_TRUE(notes().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Files, EngineBadFileTest,
    ::testing::Values(BadFile{"no_such_file.mp3", "Failed to open %s", "Missing"},
                      BadFile{"empty.mp3", "Failed to open %s", "Empty"},
                      BadFile{"not_audio.mp3", "Failed to open %s", "Text"},
                      BadFile{"video_only_3s.mp4", "Could not find audio stream", "VideoOnly"},
                      // The filters could not run it (one of them would abort the process).
                      BadFile{"rate_7hz.wav", "unsupported sample rate 7", "SampleRate7Hz"},
                      // ... or would take gigabytes of buffers.
                      BadFile{"rate_1ghz.wav", "unsupported sample rate 1195853639",
                              "SampleRate1GHz"}),
    [](const ::testing::TestParamInfo<BadFile> &info) { return std::string(info.param.name); });

// --- Files that play in part ------------------------------------------------------------------

struct DamagedFile {
    const char *file;
    size_t minFrames; // audio that must still be heard
    const char *name;
};
void PrintTo(const DamagedFile &v, std::ostream *os) {
    *os << v.name;
}

class EngineDamagedFileTest : public EngineTest,
                              public ::testing::WithParamInterface<DamagedFile> {};

TEST_P(EngineDamagedFileTest, PlaysWhatIsThereAndFinishes) {
    const DamagedFile d = GetParam();
    playToEnd(d.file);
    EXPECT_EQ(engine_->getState(), 3);
    EXPECT_EQ(engine_->getPosition(), engine_->getDurationMs());
    EXPECT_EQ(engine_->getPosition() % 1000, 0);
    EXPECT_GE(vcard_captured_frames(), d.minFrames);
    EXPECT_LE(vcard_captured_frames(), size_t(10 * kRate));
    expectFinishedSequence();
}

INSTANTIATE_TEST_SUITE_P(
    Files, EngineDamagedFileTest,
    ::testing::Values(DamagedFile{"tone440_truncated.mp3", 2 * kRate, "Truncated"},
                      DamagedFile{"tone440_corrupt.mp3", 8 * kRate, "Corrupted"}),
    [](const ::testing::TestParamInfo<DamagedFile> &info) { return std::string(info.param.name); });

// --- Caller streams ---------------------------------------------------------------------------

TEST_F(EngineTest, StreamIsNamedDummyfilenameAndPlays) {
    MemoryStream stream(media_path("tone440_3s.flac"));
    ASSERT_GT(stream.size(), 0u);
    LogCapture log;
    ASSERT_EQ(engine_->openWithStream(&stream), 0);
    EXPECT_TRUE(log.contains(4, "Open file dummyfilename"));
    EXPECT_EQ(engine_->getDurationMs(), 3000);
    playOpened();
    EXPECT_GE(vcard_captured_frames(), size_t(3 * kRate) - kRate / 4);
    expectFinishedSequence();
}

TEST_F(EngineTest, StreamFailingFromTheStartDoesNotOpen) {
    MemoryStream stream(media_path("tone440_3s.mp3"));
    stream.failReadsFrom(0, AVERROR(EIO));
    LogCapture log;
    EXPECT_EQ(engine_->openWithStream(&stream), -1);
    EXPECT_TRUE(log.contains(2, "Failed to open dummyfilename")) << log.dump();
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->start(), -1);
    EXPECT_TRUE(notes().empty());
    // The next stream opens on a fresh I/O context.
    MemoryStream good(media_path("tone440_3s.wav"));
    EXPECT_EQ(engine_->openWithStream(&good), 0);
}

// A read error in the middle of the media ends playback like the end of the media.
TEST_F(EngineTest, StreamFailingMidwayEndsFinished) {
    MemoryStream stream(media_path("tone440_10s.mp3"));
    stream.failReadsFrom(stream.size() / 2, AVERROR(EIO));
    ASSERT_EQ(engine_->openWithStream(&stream), 0);
    EXPECT_EQ(engine_->getDurationMs(), 10000);
    playOpened();
    EXPECT_EQ(engine_->getPosition(), 10000);
    EXPECT_TRUE(engine_->isFileOpened());
    const size_t frames = vcard_captured_frames();
    EXPECT_GE(frames, size_t(4 * kRate));
    EXPECT_LE(frames, size_t(6 * kRate));
    expectFinishedSequence();
}

// A stream that cannot seek still plays; a seek back is logged as failed and playback goes on
// from where it was to the end.
TEST_F(EngineTest, StreamThatCannotSeekPlaysThroughASeekRequest) {
    MemoryStream stream(media_path("tone440_3s.wav"));
    stream.refuseSeeks();
    LogCapture log;
    ASSERT_EQ(engine_->openWithStream(&stream), 0) << log.dump();
    vcard_set_speed(1.0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getPosition() >= 1000; }, 10000));
    engine_->seekStream(0);
    ASSERT_TRUE(waitState(3));
    EXPECT_TRUE(log.contains(2, "Failed to av_seek_frame")) << log.dump();
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_is_open() == 0; }, 5000));
    // Nothing was played twice; the failed attempt may have read ahead of the play position.
    EXPECT_GE(vcard_captured_frames(), size_t(1.5 * kRate));
    EXPECT_LE(vcard_captured_frames(), size_t(3 * kRate));
    // Without seeks the size, and with it the duration, may be unknown.
    EXPECT_EQ(engine_->getPosition(), engine_->getDurationMs());
}

// Several streams in a row on one engine: each replaces the previous I/O context.
TEST_F(EngineTest, StreamsReplaceEachOther) {
    MemoryStream a(media_path("tone440_3s.ogg"));
    MemoryStream b(media_path("tone440_3s.opus"));
    MemoryStream c(media_path("tone440_3s.m4a"));
    ASSERT_EQ(engine_->openWithStream(&a), 0);
    ASSERT_EQ(engine_->openWithStream(&b), 0);
    ASSERT_EQ(engine_->openWithStream(&c), 0);
    const int readsA = a.reads.load();
    const int readsB = b.reads.load();
    playOpened();
    EXPECT_EQ(a.reads.load(), readsA);
    EXPECT_EQ(b.reads.load(), readsB);
    EXPECT_GE(vcard_captured_frames(), size_t(2 * kRate));
    engine_->closeFile();
    ASSERT_EQ(engine_->openFile(media_path("tone440_3s.wav")), 0);
}

} // namespace
} // namespace engine_test
