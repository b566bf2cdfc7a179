// Helpers shared by every test binary: paths of the generated media and of scratch files, log
// and standard-error capture, simple analysis of captured sound, and polling with a timeout.
//
// Linking ae_test_support also gives every test process a virtual sound card of its own:
// vcard_setup() runs once before the first test (a GoogleTest global environment).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ae_test {

// $AE_TEST_MEDIA/<name>: a file made by tests/media/generate_media.sh.
std::string media_path(const std::string &name);
// $AE_TEST_TMP/<name> (or /tmp/<name>); the directory is created. Names are not made unique:
// include something test-specific.
std::string tmp_path(const std::string &name);

// The bytes of a file (empty if it cannot be read); writes `bytes` to a file, true on success.
std::vector<uint8_t> read_file(const std::string &path);
bool write_file(const std::string &path, const std::vector<uint8_t> &bytes);

// Runs `body` on a thread of its own and ends the whole process when it does not return within
// `timeout_ms`: a hang must not pass as a slow test.
void run_with_deadline(const std::string &what, int timeout_ms, const std::function<void()> &body);

// --- Log capture -------------------------------------------------------------------------------

struct LogEntry {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

// Records every line logged through the platform's logging call while it lives (thread-safe:
// the library logs from its own threads). With `echo` false the lines do not reach standard
// error; if the running test has failed when the capture ends, they are printed then.
class LogCapture {
public:
    explicit LogCapture(bool echo = false);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogEntry> entries() const;
    // The messages, in order.
    std::vector<std::string> lines() const;
    // Number of lines whose message contains `substring`.
    int count(const std::string &substring) const;
    // Whether a line of `level` contains `substring`.
    bool contains(int level, const std::string &substring) const;
    bool contains(const std::string &substring) const;
    // All lines as "[L<level>] <function>: <message>\n", for failure messages.
    std::string dump() const;

    struct Impl;

private:
    std::shared_ptr<Impl> impl_;
};

// Redirects file descriptor 2 to a scratch file while it lives; text() returns what has been
// written so far. Standard error is restored on destruction.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    std::string text() const;

private:
    int saved_fd_ = -1;
    int file_fd_ = -1;
    std::string path_;
};

// --- Sound -------------------------------------------------------------------------------------

// Everything the virtual card has played: interleaved S16 stereo samples.
std::vector<int16_t> captured_samples();

// One channel of interleaved S16 samples.
std::vector<int16_t> channel_of(const std::vector<int16_t> &interleaved, int channels, int channel);
// Frequency in Hz estimated from the zero crossings of one channel (0 without any).
double zero_crossing_frequency(const std::vector<int16_t> &interleaved, int channels, int channel,
                               int rate);
// RMS level of one channel in dBFS (a full-scale sine is about -3 dB); -200 for silence.
double rms_dbfs(const std::vector<int16_t> &interleaved, int channels, int channel);
// Peak absolute sample of one channel.
int peak(const std::vector<int16_t> &interleaved, int channels, int channel);

// Reads the S16 samples of a PCM WAV file (any channel count); false if it is not one.
bool read_wav(const std::string &path, std::vector<int16_t> *samples, int *channels = nullptr,
              int *rate = nullptr);

// Sample of media file known_pcm_1s.wav (44100 Hz stereo S16, 44100 frames) at `frame`, for
// channel 0 (left) or 1 (right).
int16_t known_pcm_sample(size_t frame, int channel);
// All of known_pcm_1s.wav's samples, interleaved, from frame `first` for `frames` frames.
std::vector<int16_t> known_pcm(size_t first, size_t frames);

// --- Waiting -------------------------------------------------------------------------------------

// Polls `predicate` every few milliseconds until it is true (returns true) or `timeout_ms` has
// passed (returns false, after one last try).
bool wait_until(const std::function<bool()> &predicate, int timeout_ms, int poll_ms = 2);

} // namespace ae_test
