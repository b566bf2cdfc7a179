// An attached picture's size and pixel format as read from its header are what FFmpeg's stream
// information step finds by decoding it (else the engine would open a stream FFmpeg describes
// otherwise), or nothing, leaving that step to decode it.
#include <string>

#include <gtest/gtest.h>

#include "picture_header.h"
#include "test_support.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using namespace ae_test;

// Pictures the ffmpeg tool makes: encoder, pixel format, whether the header is read.
const struct {
    const char *codec, *pixels;
    bool read;
} kPictures[] = {
    {"png", "rgb24", true},      {"png", "rgba", true},       {"png", "gray", true},
    {"png", "ya8", true},        {"png", "pal8", true},       {"png", "rgb48be", true},
    {"png", "rgba64be", true},   {"png", "gray16be", true},   {"png", "monob", false},
    {"mjpeg", "yuvj420p", true}, {"mjpeg", "yuvj422p", true}, {"mjpeg", "yuvj444p", true},
    {"mjpeg", "yuv420p", false}}; // "CS=ITU601"

TEST(PictureHeader, TellsWhatTheDecoderFinds) {
    for (const auto &p : kPictures) {
        SCOPED_TRACE(std::string(p.codec) + " " + p.pixels);
        const std::string path = tmp_path(std::string("header_") + p.pixels + "." + p.codec);
        const std::string make = std::string(AE_FFMPEG) +
                                 " -nostdin -v error -y -f lavfi -i testsrc2=s=94x38 -frames:v 1"
                                 " -strict -1 -f image2 -c:v " +
                                 p.codec + " -pix_fmt " + p.pixels + " " + path;
        ASSERT_EQ(system(make.c_str()), 0);
        const std::vector<uint8_t> bytes = read_file(path);
        AVFormatContext *format = nullptr;
        ASSERT_EQ(avformat_open_input(&format, path.c_str(), nullptr, nullptr), 0);
        ASSERT_GE(avformat_find_stream_info(format, nullptr), 0);
        const AVCodecParameters *found = format->streams[0]->codecpar;
        PictureShape shape;
        EXPECT_EQ(readPictureShape(found->codec_id, bytes.data(), bytes.size(), shape), p.read);
        if (p.read) {
            EXPECT_EQ(std::to_string(shape.width) + "x" + std::to_string(shape.height) + " " +
                          std::to_string(shape.format),
                      std::to_string(found->width) + "x" + std::to_string(found->height) + " " +
                          std::to_string(found->format));
        }
        // Cut inside the header: nothing is read.
        EXPECT_FALSE(readPictureShape(found->codec_id, bytes.data(), 20, shape));
        avformat_close_input(&format);
    }
}

} // namespace
