// The engine's own operations behind the zip-member I/O context and the tag capture, called
// directly on an AudioEngine (this binary is built from the engine's sources).
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AudioEngine.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace {

using ae_test::media_path;

class EngineInternalsTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        engine_.reset(new AudioEngine());
    }
    void TearDown() override {
        engine_->closeFile();
        engine_.reset();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }

    // Reads `size` bytes through the read callback.
    std::vector<uint8_t> readMember(int size) {
        std::vector<uint8_t> out(static_cast<size_t>(size));
        const int got = AudioEngine::AVIOZip_read_packet(engine_.get(), out.data(), size);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }

    std::vector<uint8_t> expected(const std::vector<uint8_t> &file, size_t at, size_t size) {
        return std::vector<uint8_t>(file.begin() + at, file.begin() + at + size);
    }

    std::unique_ptr<AudioEngine> engine_;
};

class EngineZipSeekOpsTest : public EngineInternalsTest,
                             public ::testing::WithParamInterface<const char *> {};

TEST_P(EngineZipSeekOpsTest, EverySeekLandsOnTheRightByte) {
    const std::vector<uint8_t> file = ae_test::read_file(media_path("steps_10s.mp3"));
    ASSERT_GT(file.size(), 100000u);
    const int64_t size = static_cast<int64_t>(file.size());
    ASSERT_EQ(engine_->openFile(media_path(GetParam()) + ":#zip(sub/steps_10s.mp3)"), 0);
    void *op = engine_.get();

    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 0, AVSEEK_SIZE), size);
    EXPECT_EQ(engine_->seek_size(), size);

    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 50000, SEEK_SET), 50000); // forward
    EXPECT_EQ(readMember(100), expected(file, 50000, 100));
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 50100, SEEK_SET), 50100); // where it stands
    EXPECT_EQ(readMember(10), expected(file, 50100, 10));
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 1234, SEEK_SET), 1234); // back
    EXPECT_EQ(readMember(100), expected(file, 1234, 100));
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 777, AVSEEK_FORCE | SEEK_SET), 777);
    EXPECT_EQ(readMember(50), expected(file, 777, 50));

    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 1000, SEEK_CUR), 1827);
    EXPECT_EQ(readMember(10), expected(file, 1827, 10));
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, -837, SEEK_CUR), 1000);
    EXPECT_EQ(readMember(10), expected(file, 1000, 10));

    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, -100, SEEK_END), size - 100);
    EXPECT_EQ(readMember(100), expected(file, file.size() - 100, 100));
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, -size + 5, SEEK_END), 5); // back from the end
    EXPECT_EQ(readMember(5), expected(file, 5, 5));

    // The end of the member reads as AVERROR_EOF, not 0.
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 0, SEEK_END), size);
    uint8_t byte = 0;
    EXPECT_EQ(AudioEngine::AVIOZip_read_packet(op, &byte, 1), AVERROR_EOF);

    // Targets before the start move nothing.
    EXPECT_LT(AudioEngine::AVIOZip_seek(op, -1, SEEK_SET), 0);
    EXPECT_EQ(AudioEngine::AVIOZip_seek(op, 0, SEEK_SET), 0);
    EXPECT_EQ(readMember(64), expected(file, 0, 64));
}

INSTANTIATE_TEST_SUITE_P(Archives, EngineZipSeekOpsTest,
                         ::testing::Values("book_stored.zip", "book_deflated.zip"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param[5] == 's' ? "Stored" : "Deflated");
                         });

TEST_F(EngineInternalsTest, UnknownWhenceIsReportedAndRefused) {
    ASSERT_EQ(engine_->openFile(media_path("book_stored.zip") + ":#zip(marked_3s.mp3)"), 0);
    std::string text;
    {
        ae_test::StderrCapture err;
        EXPECT_EQ(AudioEngine::AVIOZip_seek(engine_.get(), 10, AVSEEK_FORCE | SEEK_CUR), -1);
        EXPECT_EQ(AudioEngine::AVIOZip_seek(engine_.get(), 10, 7), -1);
        text = err.text();
    }
    EXPECT_EQ(text, "whence [131073]\nwhence [7]\n");
}

// The zip I/O context goes with the demuxer; a failed member open leaves none behind.
TEST_F(EngineInternalsTest, ZipContextIsReleasedWithTheMedia) {
    const std::string path = media_path("book_deflated.zip") + ":#zip(marked_3s.mp3)";
    ASSERT_EQ(engine_->openFile(path), 0);
    ASSERT_NE(engine_->formatCtx, nullptr);
    EXPECT_NE(engine_->formatCtx->flags & AVFMT_FLAG_CUSTOM_IO, 0);
    EXPECT_NE(engine_->formatCtx->flags & AVFMT_FLAG_FAST_SEEK, 0);
    engine_->cleanup();
    EXPECT_EQ(engine_->formatCtx, nullptr);
    EXPECT_TRUE(engine_->zip_reader->IsOpen()); // the archive stays open until the next one
    EXPECT_EQ(engine_->openFile(media_path("book_deflated.zip") + ":#zip(missing)"), -1);
    EXPECT_FALSE(engine_->zip_reader->IsOpen());
    EXPECT_EQ(engine_->openFile(media_path("marked_3s.mp3")), 0);
}

// Tag capture from a demuxer state built by hand: keys met twice end with their last value,
// chapter bounds are cut toward zero to whole seconds.
TEST_F(EngineInternalsTest, CaptureKeepsLastOfRepeatedKeysAndCutsChapterBounds) {
    AVFormatContext *ctx = avformat_alloc_context();
    ASSERT_NE(ctx, nullptr);
    av_dict_set(&ctx->metadata, "artist", "first", AV_DICT_MULTIKEY);
    av_dict_set(&ctx->metadata, "Artist", "other case", AV_DICT_MULTIKEY);
    av_dict_set(&ctx->metadata, "artist", "last", AV_DICT_MULTIKEY);
    av_dict_set(&ctx->metadata, "empty", "", 0);

    struct Bound {
        int64_t start, end;
        AVRational tb;
        const char *title;
    };
    const Bound bounds[] = {{0, 1999999, {1, 1000000}, "One"},
                            {129, 7525, {1, 10}, nullptr},
                            {0, 90500, {1, 1000}, "Three"},
                            {-1500, 3, {1, 1}, "Negative"}};
    const unsigned count = sizeof bounds / sizeof bounds[0];
    ctx->chapters = static_cast<AVChapter **>(av_calloc(count, sizeof(AVChapter *)));
    ASSERT_NE(ctx->chapters, nullptr);
    for (unsigned i = 0; i < count; ++i) {
        AVChapter *c = static_cast<AVChapter *>(av_mallocz(sizeof(AVChapter)));
        ASSERT_NE(c, nullptr);
        c->id = 100 + i;
        c->start = bounds[i].start;
        c->end = bounds[i].end;
        c->time_base = bounds[i].tb;
        if (bounds[i].title)
            av_dict_set(&c->metadata, "title", bounds[i].title, 0);
        ctx->chapters[i] = c;
        ctx->nb_chapters = i + 1;
    }

    engine_->formatCtx = ctx;
    engine_->captureMetadata();
    engine_->formatCtx = nullptr;
    avformat_free_context(ctx);

    const std::map<std::string, std::string> tags = engine_->getMetadata();
    EXPECT_EQ(tags, (std::map<std::string, std::string>{
                        {"artist", "last"}, {"Artist", "other case"}, {"empty", ""}}));
    const auto chapters = engine_->getChapters();
    ASSERT_EQ(chapters.size(), 4u);
    EXPECT_EQ(chapters[0].startMs, 0);
    EXPECT_EQ(chapters[0].endMs, 1000);
    EXPECT_EQ(chapters[0].metadata.at("title"), "One");
    EXPECT_EQ(chapters[1].startMs, 12000);
    EXPECT_EQ(chapters[1].endMs, 752000);
    EXPECT_TRUE(chapters[1].metadata.empty());
    EXPECT_EQ(chapters[2].endMs, 90000);
    EXPECT_EQ(chapters[3].startMs, -1500000); // truncation toward zero, whole seconds
    EXPECT_EQ(chapters[3].endMs, 3000);
}

} // namespace
