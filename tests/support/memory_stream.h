// A caller stream (IAudioEngineStream) over a media file held in memory, with the faults the
// engine and fault tests need. After retire() any call counts as a use of a stream the engine
// no longer owns.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "IAudioEngineStream.h"
#include "test_support.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

namespace ae_test {

class MemoryStream : public tavrel::utilities::IAudioEngineStream {
public:
    explicit MemoryStream(const std::string &path) : bytes_(read_file(path)) {}

    // Reads from `offset` on answer `error` (0: reads that never return anything).
    void failReadsFrom(size_t offset, int error) {
        failFrom_ = offset;
        readError_ = error;
    }
    // Every seek (size queries included) answers -1.
    void refuseSeeks() { seekable_ = false; }
    void retire() { retired_ = true; }

    int read(uint8_t *buffer, int size) override {
        usesAfterRetire += retired_;
        ++reads;
        if (pos_ >= failFrom_)
            return readError_;
        if (pos_ >= bytes_.size())
            return AVERROR_EOF;
        size_t n = std::min(bytes_.size() - pos_, static_cast<size_t>(size));
        n = std::min(n, failFrom_ - pos_);
        std::copy(bytes_.begin() + pos_, bytes_.begin() + pos_ + n, buffer);
        pos_ += n;
        return static_cast<int>(n);
    }

    int seek(int64_t offset, int whence) override {
        usesAfterRetire += retired_;
        ++seeks;
        if (!seekable_)
            return -1;
        const int64_t size = static_cast<int64_t>(bytes_.size());
        int64_t target;
        switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return static_cast<int>(size);
        case SEEK_SET:
            target = offset;
            break;
        case SEEK_CUR:
            target = static_cast<int64_t>(pos_) + offset;
            break;
        case SEEK_END:
            target = size + offset;
            break;
        default:
            return -1;
        }
        if (target < 0 || target > size)
            return -1;
        pos_ = static_cast<size_t>(target);
        return static_cast<int>(target);
    }

    size_t size() const { return bytes_.size(); }
    std::atomic<int> reads{0}, seeks{0}, usesAfterRetire{0};

private:
    std::vector<uint8_t> bytes_;
    size_t pos_ = 0;
    size_t failFrom_ = SIZE_MAX;
    int readError_ = AVERROR(EIO);
    bool seekable_ = true;
    std::atomic<bool> retired_{false};
};

} // namespace ae_test
