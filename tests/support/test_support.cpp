#include "test_support.h"

#include "vcard.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace ae_test {

namespace {
std::string env_or(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value && *value ? value : fallback;
}
} // namespace

std::string media_path(const std::string &name) {
    return env_or("AE_TEST_MEDIA", AE_TEST_MEDIA_DEFAULT) + "/" + name;
}

std::string tmp_path(const std::string &name) {
    std::string dir = env_or("AE_TEST_TMP", AE_TEST_TMP_DEFAULT);
    std::filesystem::create_directories(dir);
    return dir + "/" + name;
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

bool write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out.flush());
}

void run_with_deadline(const std::string &what, int timeout_ms, const std::function<void()> &body) {
    std::atomic<bool> done{false};
    std::thread runner([&] {
        body();
        done = true;
    });
    if (!wait_until([&] { return done.load(); }, timeout_ms, 10)) {
        std::fprintf(stderr, "HUNG: %s did not return within %d ms\n", what.c_str(), timeout_ms);
        std::abort();
    }
    runner.join();
}

bool wait_until(const std::function<bool()> &predicate, int timeout_ms, int poll_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms));
    }
    return true;
}

// --- Standard error ----------------------------------------------------------------------------

StderrCapture::StderrCapture() {
    std::string pattern = tmp_path("stderr-XXXXXX");
    int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
        ADD_FAILURE() << "cannot create " << pattern;
        return;
    }
    path_ = pattern;
    std::fflush(stderr);
    saved_fd_ = ::dup(2);
    ::dup2(fd, 2);
    ::close(fd);
}

StderrCapture::~StderrCapture() {
    if (saved_fd_ < 0)
        return;
    std::fflush(stderr);
    ::dup2(saved_fd_, 2);
    ::close(saved_fd_);
    ::unlink(path_.c_str());
}

std::string StderrCapture::text() const {
    std::fflush(stderr);
    std::vector<uint8_t> bytes = read_file(path_);
    return std::string(bytes.begin(), bytes.end());
}

// --- Sound -------------------------------------------------------------------------------------

std::vector<int16_t> captured_samples() {
    std::vector<int16_t> out(vcard_captured_frames() * 2);
    out.resize(vcard_capture(out.data(), out.size() / 2) * 2);
    return out;
}

double zero_crossing_frequency(const std::vector<int16_t> &s, int channels, int channel, int rate) {
    // Interpolated rising crossings, one a period: good on short excerpts too.
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = channel + channels; i < s.size(); i += channels) {
        const int a = s[i - channels], b = s[i];
        if (a < 0 && b >= 0) {
            last = static_cast<double>(i / channels - 1) + static_cast<double>(-a) / (b - a);
            first = crossings++ == 0 ? last : first;
        }
    }
    return crossings < 2 || last <= first ? 0.0 : (crossings - 1) * rate / (last - first);
}

double rms_dbfs(const std::vector<int16_t> &s, int channels, int channel) {
    double sum = 0;
    size_t n = 0;
    for (size_t i = channel; i < s.size(); i += channels, ++n)
        sum += static_cast<double>(s[i]) * s[i];
    return sum > 0 ? 20.0 * std::log10(std::sqrt(sum / n) / 32768.0) : -200.0;
}

bool read_wav(const std::string &path, std::vector<int16_t> *samples, int *channels, int *rate) {
    const std::vector<uint8_t> d = read_file(path);
    auto u16 = [&](size_t at) { return static_cast<unsigned>(d[at] | d[at + 1] << 8); };
    auto u32 = [&](size_t at) { return u16(at) | u16(at + 2) << 16; };
    if (d.size() < 12 || std::memcmp(d.data(), "RIFF", 4) || std::memcmp(&d[8], "WAVE", 4))
        return false;
    unsigned ch = 0, hz = 0, bits = 0;
    for (size_t at = 12; at + 8 <= d.size();) {
        const size_t size = u32(at + 4), body = at + 8;
        if (!std::memcmp(&d[at], "fmt ", 4) && body + 16 <= d.size()) {
            if (u16(body) != 1 && u16(body) != 0xFFFE)
                return false;
            ch = u16(body + 2), hz = u32(body + 4), bits = u16(body + 14);
        } else if (!std::memcmp(&d[at], "data", 4)) {
            if (bits != 16 || ch == 0)
                return false;
            samples->resize(std::min(size, d.size() - body) / 2);
            std::memcpy(samples->data(), &d[body], samples->size() * 2);
            if (channels)
                *channels = static_cast<int>(ch);
            if (rate)
                *rate = static_cast<int>(hz);
            return true;
        }
        at = body + size + (size & 1);
    }
    return false;
}

std::vector<int16_t> known_pcm(size_t first, size_t frames) {
    // left[n] = ((n * 37) mod 65536) - 32768, right[n] = ((n * 101 + 12345) mod 65536) - 32768
    std::vector<int16_t> out;
    for (size_t n = first; n < first + frames; ++n) {
        out.push_back(static_cast<int16_t>(static_cast<long>((n * 37) % 65536) - 32768));
        out.push_back(static_cast<int16_t>(static_cast<long>((n * 101 + 12345) % 65536) - 32768));
    }
    return out;
}

} // namespace ae_test

// --- Every test process: the test environment and a reset card --------------------

namespace {
class TestEnvironment : public ::testing::Environment {
public:
    void SetUp() override { vcard_setup(); }
};

const bool g_registered = [] {
    // A binary started by hand (not by CTest) still finds the card, the media and a scratch
    // folder; libasound reads ALSA_CONFIG_PATH at its first configuration load.
    setenv("ALSA_CONFIG_PATH", AE_TEST_ALSA_CONFIG_DEFAULT, 0);
    setenv("AE_TEST_MEDIA", AE_TEST_MEDIA_DEFAULT, 0);
    setenv("AE_TEST_TMP", AE_TEST_TMP_DEFAULT, 0);
    ::testing::AddGlobalTestEnvironment(new TestEnvironment);
    return true;
}();
} // namespace

// Named by ae_test_support's link options, so every test binary keeps the registration above.
extern "C" int ae_test_support_anchor(void) {
    return g_registered ? 1 : 0;
}
