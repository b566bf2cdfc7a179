// Helpers of the test binaries: generated media and scratch paths, standard error captured,
// analysis of captured sound, waiting with a deadline. Linking ae_test_support resets the
// virtual sound card before the first test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ae_test {

// A file made by tests/media/generate_media.sh; a scratch file (not made unique).
std::string media_path(const std::string &name);
std::string tmp_path(const std::string &name);

std::vector<uint8_t> read_file(const std::string &path);
bool write_file(const std::string &path, const std::vector<uint8_t> &bytes);

// Runs `body` on a thread and aborts the process when it has not returned within `timeout_ms`:
// a hang must not pass as a slow test.
void run_with_deadline(const std::string &what, int timeout_ms, const std::function<void()> &body);

// Polls `predicate` until it holds (true) or `timeout_ms` has passed (false).
bool wait_until(const std::function<bool()> &predicate, int timeout_ms, int poll_ms = 2);

// Standard error (file descriptor 2) redirected into a scratch file while it lives.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;
    std::string text() const;

private:
    int saved_fd_ = -1;
    std::string path_;
};

// Everything the virtual card has played: interleaved S16 stereo.
std::vector<int16_t> captured_samples();
// Of one channel of interleaved samples: frequency from rising zero crossings (0 without two),
// RMS level in dBFS (-200 for silence).
double zero_crossing_frequency(const std::vector<int16_t> &interleaved, int channels, int channel,
                               int rate);
double rms_dbfs(const std::vector<int16_t> &interleaved, int channels, int channel);
// The S16 samples of a PCM WAV file; false if it is not one.
bool read_wav(const std::string &path, std::vector<int16_t> *samples, int *channels = nullptr,
              int *rate = nullptr);
// known_pcm_1s.wav's interleaved samples from frame `first` (values the test can recompute).
std::vector<int16_t> known_pcm(size_t first, size_t frames);

} // namespace ae_test
