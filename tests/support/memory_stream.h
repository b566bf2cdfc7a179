// A caller stream over a media file held in memory, with the faults the tests need. After
// retire() any call counts as a use of a stream the engine no longer owns.
#pragma once

#include <algorithm>
#include <atomic>
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
    void refuseSeeks() { seekable_ = false; } // every seek, size queries too, answers -1
    void retire() { retired_ = true; }

    int read(uint8_t *buffer, int size) override {
        usesAfterRetire += retired_;
        ++reads;
        if (pos_ >= failFrom_)
            return readError_;
        if (pos_ >= bytes_.size())
            return AVERROR_EOF;
        size_t n = std::min({bytes_.size() - pos_, static_cast<size_t>(size), failFrom_ - pos_});
        std::copy_n(bytes_.begin() + pos_, n, buffer);
        pos_ += n;
        return static_cast<int>(n);
    }

    int seek(int64_t offset, int whence) override {
        usesAfterRetire += retired_;
        const int64_t size = static_cast<int64_t>(bytes_.size());
        const int how = whence & ~AVSEEK_FORCE;
        if (!seekable_ || how == AVSEEK_SIZE)
            return seekable_ ? static_cast<int>(size) : -1;
        const int64_t target = offset + (how == SEEK_CUR   ? static_cast<int64_t>(pos_)
                                         : how == SEEK_END ? size
                                                           : 0);
        if (target < 0 || target > size || (how != SEEK_SET && how != SEEK_CUR && how != SEEK_END))
            return -1;
        pos_ = static_cast<size_t>(target);
        return static_cast<int>(target);
    }

    size_t size() const { return bytes_.size(); }
    std::atomic<int> reads{0}, usesAfterRetire{0};

private:
    std::vector<uint8_t> bytes_;
    size_t pos_ = 0, failFrom_ = SIZE_MAX;
    int readError_ = AVERROR(EIO);
    bool seekable_ = true;
    std::atomic<bool> retired_{false};
};

} // namespace ae_test
