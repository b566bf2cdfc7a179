// Tags, chapters and the cover picture of the opened media, through IAudioEngine: what the
// demuxer reports, kept across closes and failed opens, and the picture as a device bitmap of
// the display's layout.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "engine_fixture.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace engine_test {
namespace {

using ae_test::LogCapture;
using ae_test::media_path;
using Tags = std::map<std::string, std::string>;

const int kPadding = 0xA5; // what the host platform puts into the bytes after each row

// The container's tags as libavformat itself reports them.
Tags demuxerTags(const std::string &path) {
    Tags tags;
    AVFormatContext *ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) != 0)
        return tags;
    if (avformat_find_stream_info(ctx, nullptr) >= 0) {
        const AVDictionaryEntry *e = nullptr;
        while ((e = av_dict_get(ctx->metadata, "", e, AV_DICT_IGNORE_SUFFIX)) != nullptr)
            tags[e->key] = e->value;
    }
    avformat_close_input(&ctx);
    return tags;
}

class EngineInfoTest : public EngineTest {
protected:
    void TearDown() override {
        host_set_display_color(1);
        EngineTest::TearDown();
    }
};

// --- Tags and chapters
// ----------------------------------------------------------------------------

TEST_F(EngineInfoTest, TagsAreTheDemuxersByteForByte) {
    const std::string path = media_path("tags_chapters_80s.mka");
    ASSERT_EQ(engine_->openFile(path), 0);
    const Tags tags = engine_->getMetadata();
    EXPECT_EQ(tags, demuxerTags(path));
    // UTF-8 as bytes, key case and surrounding blanks as stored.
    EXPECT_EQ(tags.at("title"), "\xC4\x8C\xC3\xADtanka \xE2\x80\x94 \xE8\xAA\xAD\xE6\x9B\xB8");
    EXPECT_EQ(tags.at("ARTIST"), "Author Name");
    EXPECT_EQ(tags.at("ALBUM"), "Mixed Case Key");
    EXPECT_EQ(tags.at("COMMENT"), "  spaced value  ");
    EXPECT_EQ(tags.count("artist"), 0u);
}

TEST_F(EngineInfoTest, ChapterBoundsAreCutToWholeSeconds) {
    ASSERT_EQ(engine_->openFile(media_path("tags_chapters_80s.mka")), 0);
    const std::vector<IAudioEngine::Chapter> chapters = engine_->getChapters();
    ASSERT_EQ(chapters.size(), 3u);
    // 0 .. 1.999999 s
    EXPECT_EQ(chapters[0].startMs, 0);
    EXPECT_EQ(chapters[0].endMs, 1000);
    EXPECT_EQ(chapters[0].metadata, (Tags{{"title", "Opening"}}));
    // 12.9 .. 75.25 s
    EXPECT_EQ(chapters[1].startMs, 12000);
    EXPECT_EQ(chapters[1].endMs, 75000);
    EXPECT_EQ(chapters[1].metadata.at("title"), "St\xC5\x99"
                                                "ed");
    // 75.25 .. 80 s, untitled
    EXPECT_EQ(chapters[2].startMs, 75000);
    EXPECT_EQ(chapters[2].endMs, 80000);
    EXPECT_EQ(chapters[2].metadata.count("title"), 0u);
}

TEST_F(EngineInfoTest, TagsAndChaptersOutliveCloseAndOpensThatFailEarly) {
    ASSERT_EQ(engine_->openFile(media_path("tags_chapters_80s.mka")), 0);
    const Tags tags = engine_->getMetadata();
    ASSERT_FALSE(tags.empty());

    engine_->closeFile();
    EXPECT_EQ(engine_->getMetadata(), tags);
    EXPECT_EQ(engine_->getChapters().size(), 3u);

    // Fails before the stream information: nothing replaced.
    EXPECT_EQ(engine_->openFile(media_path("no_such_file.mp3")), -1);
    EXPECT_EQ(engine_->openFile(media_path("not_audio.mp3")), -1);
    EXPECT_EQ(engine_->getMetadata(), tags);
    EXPECT_EQ(engine_->getChapters().size(), 3u);

    // Fails after it (no audio stream): that file's tags and (no) chapters replace them.
    LogCapture log;
    EXPECT_EQ(engine_->openFile(media_path("tags_video_only.mkv")), -1);
    EXPECT_TRUE(log.contains(2, "Could not find audio stream"));
    EXPECT_EQ(engine_->getMetadata().at("title"), "No sound");
    EXPECT_EQ(engine_->getMetadata().at("COMMENT"), "pictures");
    EXPECT_TRUE(engine_->getChapters().empty());

    // The next successful open replaces them again.
    ASSERT_EQ(engine_->openFile(media_path("tone440_3s.wav")), 0);
    EXPECT_EQ(engine_->getMetadata(), demuxerTags(media_path("tone440_3s.wav")));
    EXPECT_EQ(engine_->getMetadata().count("title"), 0u);
    EXPECT_TRUE(engine_->getChapters().empty());
}

// Reads while another thread opens: each read sees one file's tags whole (run under TSan).
TEST_F(EngineInfoTest, ReadsDuringOpensSeeWholeLists) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done.load()) {
            const Tags tags = engine_->getMetadata();
            const auto chapters = engine_->getChapters();
            if (!tags.empty() && tags.count("title") != 0) {
                EXPECT_TRUE(tags.at("title") == "No sound" || tags.at("title").size() > 8);
            }
            EXPECT_TRUE(chapters.empty() || chapters.size() == 3u);
        }
    });
    for (int i = 0; i < 20; ++i) {
        engine_->openFile(media_path(i % 2 ? "tags_video_only.mkv" : "tags_chapters_80s.mka"));
        engine_->closeFile();
    }
    done = true;
    reader.join();
}

// --- Cover
// ----------------------------------------------------------------------------------------

struct CoverCase {
    const char *file;
    bool colour;
    int width;
    int height;
    int tolerance; // per channel
    const char *name;
};

void PrintTo(const CoverCase &v, std::ostream *os) {
    *os << v.name;
}

class EngineCoverTest : public EngineInfoTest, public ::testing::WithParamInterface<CoverCase> {};

// The expected value at (x, y) of the 64x48 four-block picture, RGB.
void blockColour(int x, int y, int rgb[3]) {
    static const int colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    const int *c = colours[(y >= 24 ? 2 : 0) + (x >= 32 ? 1 : 0)];
    rgb[0] = c[0];
    rgb[1] = c[1];
    rgb[2] = c[2];
}

// Full-range BT.601 luma.
int luma(const int rgb[3]) {
    return static_cast<int>(std::lround(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]));
}

TEST_P(EngineCoverTest, PictureBecomesABitmapOfTheDisplaysLayout) {
    const CoverCase c = GetParam();
    host_set_display_color(c.colour ? 1 : 0);
    ASSERT_EQ(engine_->openFile(media_path(c.file)), 0);
    const qz_bitmap *bm = engine_->getCover();
    ASSERT_NE(bm, nullptr);
    EXPECT_EQ(bm->width, c.width);
    EXPECT_EQ(bm->height, c.height);
    EXPECT_EQ(bm->format, c.colour ? 1 : 0);
    const int bpp = c.colour ? 3 : 1;
    const size_t row = static_cast<size_t>(c.width) * bpp;
    ASSERT_GT(bm->stride, row); // the host's rows are padded

    int worst = 0;
    for (int y = 0; y < c.height; ++y) {
        const uint8_t *line = bm->data + static_cast<size_t>(y) * bm->stride;
        for (size_t i = row; i < bm->stride; ++i)
            ASSERT_EQ(line[i], kPadding) << "padding of row " << y << " byte " << i;
        for (int x = 0; x < c.width; ++x) {
            int rgb[3];
            if (c.width == 64) {
                // Block edges of a JPEG blur: look at the inner part of each block only.
                const int bx = x % 32, by = y % 24;
                if (c.tolerance > 0 && (bx < 4 || bx > 27 || by < 4 || by > 19))
                    continue;
                blockColour(x, y, rgb);
            } else {
                rgb[0] = 0x33;
                rgb[1] = 0x66;
                rgb[2] = 0x99;
            }
            if (c.colour) {
                for (int k = 0; k < 3; ++k) {
                    const int d = std::abs(line[x * 3 + k] - rgb[k]);
                    worst = std::max(worst, d);
                    ASSERT_LE(d, c.tolerance) << "pixel " << x << "," << y << " channel " << k;
                }
            } else {
                const int d = std::abs(line[x] - luma(rgb));
                worst = std::max(worst, d);
                ASSERT_LE(d, c.tolerance + 3) << "pixel " << x << "," << y;
            }
        }
    }
    RecordProperty("worst_difference", worst);
}

INSTANTIATE_TEST_SUITE_P(
    Pictures, EngineCoverTest,
    ::testing::Values(CoverCase{"cover_png_3s.flac", true, 64, 48, 0, "PngColour"},
                      CoverCase{"cover_png_3s.flac", false, 64, 48, 0, "PngGrey"},
                      CoverCase{"cover_jpeg_3s.mp3", true, 64, 48, 12, "JpegColour"},
                      CoverCase{"cover_jpeg_3s.mp3", false, 64, 48, 12, "JpegGrey"},
                      CoverCase{"cover_odd_3s.mp3", true, 37, 23, 0, "OddColour"},
                      CoverCase{"cover_odd_3s.mp3", false, 37, 23, 0, "OddGrey"}),
    [](const ::testing::TestParamInfo<CoverCase> &info) { return std::string(info.param.name); });

// The first 0.4 s that reached the card are the file's first second (300 Hz, not 1000 Hz).
void expectStartOfMarkedFile() {
    const std::vector<int16_t> all = ae_test::captured_samples();
    ASSERT_GE(all.size(), size_t(2 * kRate));
    const std::vector<int16_t> head(all.begin(), all.begin() + 2 * (4 * kRate / 10));
    EXPECT_NEAR(ae_test::zero_crossing_frequency(head, 2, 0, kRate), 300.0, 10.0);
    EXPECT_NEAR(ae_test::rms_dbfs(head, 2, 0), ae_test::rms_dbfs(all, 2, 0), 3.0);
}

TEST_F(EngineInfoTest, FileWithoutPictureHasNoCoverAndPlaysFromItsStart) {
    LogCapture log;
    playToEnd("marked_3s.mp3");
    EXPECT_EQ(engine_->getCover(), nullptr);
    expectStartOfMarkedFile();
    EXPECT_GE(vcard_captured_frames(), size_t(3 * kRate) - kRate / 10);
}

TEST_F(EngineInfoTest, FileWithPictureIsRewoundAndPlaysWhole) {
    for (const char *file : {"cover_jpeg_3s.mp3", "cover_png_3s.flac"}) {
        SCOPED_TRACE(file);
        vcard_setup();
        vcard_set_speed(0);
        playToEnd(file);
        EXPECT_NE(engine_->getCover(), nullptr);
        expectStartOfMarkedFile();
        // The last FLAC block may stay inside the decoder and filters, as for any FLAC file.
        EXPECT_GE(vcard_captured_frames(), size_t(3 * kRate) - kRate / 4);
        EXPECT_LE(vcard_captured_frames(), size_t(3 * kRate));
        engine_->closeFile();
    }
}

TEST_F(EngineInfoTest, CoverIsReleasedWithTheMediaAndReplacedByTheNextOpen) {
    ASSERT_EQ(engine_->openFile(media_path("cover_jpeg_3s.mp3")), 0);
    ASSERT_NE(engine_->getCover(), nullptr);
    ASSERT_EQ(engine_->openFile(media_path("cover_odd_3s.mp3")), 0);
    ASSERT_NE(engine_->getCover(), nullptr);
    EXPECT_EQ(engine_->getCover()->width, 37);
    ASSERT_EQ(engine_->openFile(media_path("marked_3s.mp3")), 0);
    EXPECT_EQ(engine_->getCover(), nullptr);
    ASSERT_EQ(engine_->openFile(media_path("cover_png_3s.flac")), 0);
    ASSERT_NE(engine_->getCover(), nullptr);
    engine_->closeFile();
    EXPECT_EQ(engine_->getCover(), nullptr);
    // An open that fails releases it too.
    ASSERT_EQ(engine_->openFile(media_path("cover_png_3s.flac")), 0);
    EXPECT_EQ(engine_->openFile(media_path("no_such_file.mp3")), -1);
    EXPECT_EQ(engine_->getCover(), nullptr);
    // Many opens in a row: under the address sanitizer, no bitmap or decoder is left behind.
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(engine_->openFile(media_path(i % 2 ? "cover_png_3s.flac" : "cover_jpeg_3s.mp3")),
                  0);
}

// A video stream that is not a single picture: its first frame is the cover, and the audio
// still plays from the start.
TEST_F(EngineInfoTest, VideoStreamGivesItsFirstFrame) {
    ASSERT_EQ(engine_->openFile(media_path("av_3s.mp4")), 0);
    const qz_bitmap *bm = engine_->getCover();
    ASSERT_NE(bm, nullptr);
    EXPECT_EQ(bm->width, 160);
    EXPECT_EQ(bm->height, 120);
    playOpened();
    EXPECT_GE(vcard_captured_frames(), size_t(3 * kRate) - kRate / 5);
}

} // namespace
} // namespace engine_test
