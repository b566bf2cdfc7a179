#include "test_support.h"

#include "host_platform.h"
#include "vcard.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace ae_test {

namespace {

#ifndef AE_TEST_MEDIA_DEFAULT
#define AE_TEST_MEDIA_DEFAULT "tests/media/files"
#endif
#ifndef AE_TEST_TMP_DEFAULT
#define AE_TEST_TMP_DEFAULT "/tmp"
#endif

std::string env_or(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value && *value ? value : fallback;
}

void make_dirs(const std::string &dir) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/')
            ::mkdir(dir.substr(0, pos).c_str(), 0755);
    }
}

} // namespace

std::string media_path(const std::string &name) {
    return env_or("AE_TEST_MEDIA", AE_TEST_MEDIA_DEFAULT) + "/" + name;
}

std::string tmp_path(const std::string &name) {
    std::string dir = env_or("AE_TEST_TMP", AE_TEST_TMP_DEFAULT);
    make_dirs(dir);
    return dir + "/" + name;
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::vector<uint8_t> bytes;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return bytes;
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
    return bytes;
}

bool write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    const bool ok = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

void run_with_deadline(const std::string &what, int timeout_ms, const std::function<void()> &body) {
    std::atomic<bool> done{false};
    std::thread runner([&] {
        body();
        done = true;
    });
    if (!wait_until([&] { return done.load(); }, timeout_ms, 10)) {
        std::fprintf(stderr, "HUNG: %s did not return within %d ms\n", what.c_str(), timeout_ms);
        std::fflush(stderr);
        std::abort();
    }
    runner.join();
}

// --- Log capture -------------------------------------------------------------------------------

// The sink stays a plain function over a registry of live captures, so a line logged while a
// capture is being destroyed never touches freed memory.
struct LogCapture::Impl {
    mutable std::mutex mu;
    std::vector<LogEntry> entries;
    bool echo = false;
};

namespace {

std::mutex g_sink_mu;
std::vector<LogCapture::Impl *> g_captures;

void log_sink(int level, const char *file, int line, const char *function, const char *message,
              void *) {
    std::lock_guard<std::mutex> lock(g_sink_mu);
    for (LogCapture::Impl *impl : g_captures) {
        std::lock_guard<std::mutex> entries_lock(impl->mu);
        impl->entries.push_back(LogEntry{level, file ? file : "", line, function ? function : "",
                                         message ? message : ""});
    }
}

// Serialises installations. The host calls the sink under a lock of its own, so g_sink_mu is
// never held while calling into the host.
std::mutex g_install_mu;

void install_sink() {
    bool active = false, echo = false;
    {
        std::lock_guard<std::mutex> lock(g_sink_mu);
        active = !g_captures.empty();
        for (LogCapture::Impl *impl : g_captures)
            echo = echo || impl->echo;
    }
    if (active)
        host_set_log_sink(log_sink, nullptr, echo ? 1 : 0);
    else
        host_set_log_sink(nullptr, nullptr, 1);
}

} // namespace

LogCapture::LogCapture(bool echo) : impl_(std::make_shared<Impl>()) {
    impl_->echo = echo;
    std::lock_guard<std::mutex> install(g_install_mu);
    {
        std::lock_guard<std::mutex> lock(g_sink_mu);
        g_captures.push_back(impl_.get());
    }
    install_sink();
}

LogCapture::~LogCapture() {
    {
        std::lock_guard<std::mutex> install(g_install_mu);
        {
            std::lock_guard<std::mutex> lock(g_sink_mu);
            g_captures.erase(std::remove(g_captures.begin(), g_captures.end(), impl_.get()),
                             g_captures.end());
        }
        install_sink();
    }
    if (!impl_->echo && ::testing::Test::HasFailure()) {
        std::string text = dump();
        if (!text.empty())
            std::fprintf(stderr, "--- log lines captured by the failed test ---\n%s", text.c_str());
    }
}

std::vector<LogEntry> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->entries;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    for (const LogEntry &e : entries())
        out.push_back(e.message);
    return out;
}

int LogCapture::count(const std::string &substring) const {
    int n = 0;
    for (const LogEntry &e : entries())
        n += e.message.find(substring) != std::string::npos;
    return n;
}

bool LogCapture::contains(int level, const std::string &substring) const {
    for (const LogEntry &e : entries()) {
        if (e.level == level && e.message.find(substring) != std::string::npos)
            return true;
    }
    return false;
}

bool LogCapture::contains(const std::string &substring) const {
    return count(substring) > 0;
}

std::string LogCapture::dump() const {
    std::ostringstream out;
    for (const LogEntry &e : entries())
        out << "[L" << e.level << "] " << e.function << ": " << e.message << "\n";
    return out.str();
}

// --- Standard error ----------------------------------------------------------------------------

StderrCapture::StderrCapture() {
    std::string pattern = tmp_path("stderr-XXXXXX");
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    file_fd_ = ::mkstemp(name.data());
    if (file_fd_ < 0) {
        ADD_FAILURE() << "cannot create " << pattern << ": " << std::strerror(errno);
        return;
    }
    path_ = name.data();
    std::fflush(stderr);
    saved_fd_ = ::dup(2);
    ::dup2(file_fd_, 2);
}

StderrCapture::~StderrCapture() {
    if (file_fd_ < 0)
        return;
    std::fflush(stderr);
    ::dup2(saved_fd_, 2);
    ::close(saved_fd_);
    ::close(file_fd_);
    ::unlink(path_.c_str());
}

std::string StderrCapture::text() const {
    std::string out;
    if (file_fd_ < 0)
        return out;
    std::fflush(stderr);
    char buf[4096];
    off_t pos = 0;
    for (;;) {
        ssize_t n = ::pread(file_fd_, buf, sizeof buf, pos);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
        pos += n;
    }
    return out;
}

// --- Sound -------------------------------------------------------------------------------------

std::vector<int16_t> captured_samples() {
    std::vector<int16_t> out(vcard_captured_frames() * 2);
    out.resize(vcard_capture(out.data(), out.size() / 2) * 2);
    return out;
}

std::vector<int16_t> channel_of(const std::vector<int16_t> &interleaved, int channels,
                                int channel) {
    std::vector<int16_t> out;
    if (channels <= 0 || channel < 0 || channel >= channels)
        return out;
    out.reserve(interleaved.size() / channels);
    for (size_t i = static_cast<size_t>(channel); i < interleaved.size();
         i += static_cast<size_t>(channels))
        out.push_back(interleaved[i]);
    return out;
}

double zero_crossing_frequency(const std::vector<int16_t> &interleaved, int channels, int channel,
                               int rate) {
    std::vector<int16_t> s = channel_of(interleaved, channels, channel);
    // Rising crossings from negative to non-negative: one per period. Interpolating the exact
    // crossing points keeps the estimate good on short excerpts.
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            double at = static_cast<double>(i - 1) +
                        static_cast<double>(-s[i - 1]) / (static_cast<double>(s[i]) - s[i - 1]);
            if (crossings == 0)
                first = at;
            last = at;
            ++crossings;
        }
    }
    if (crossings < 2 || last <= first)
        return 0.0;
    return (crossings - 1) * static_cast<double>(rate) / (last - first);
}

double rms_dbfs(const std::vector<int16_t> &interleaved, int channels, int channel) {
    std::vector<int16_t> s = channel_of(interleaved, channels, channel);
    if (s.empty())
        return -200.0;
    double sum = 0;
    for (int16_t v : s)
        sum += static_cast<double>(v) * v;
    double rms = std::sqrt(sum / static_cast<double>(s.size())) / 32768.0;
    return rms > 0 ? 20.0 * std::log10(rms) : -200.0;
}

int peak(const std::vector<int16_t> &interleaved, int channels, int channel) {
    int p = 0;
    for (int16_t v : channel_of(interleaved, channels, channel))
        p = std::max(p, std::abs(static_cast<int>(v)));
    return p;
}

bool read_wav(const std::string &path, std::vector<int16_t> *samples, int *channels, int *rate) {
    std::ifstream in(path, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto u16 = [&](size_t at) {
        return static_cast<unsigned>(static_cast<unsigned char>(data[at])) |
               static_cast<unsigned>(static_cast<unsigned char>(data[at + 1])) << 8;
    };
    auto u32 = [&](size_t at) { return u16(at) | u16(at + 2) << 16; };
    if (data.size() < 12 || data.compare(0, 4, "RIFF") != 0 || data.compare(8, 4, "WAVE") != 0)
        return false;
    int ch = 0, hz = 0, bits = 0;
    for (size_t at = 12; at + 8 <= data.size();) {
        std::string id = data.substr(at, 4);
        size_t size = u32(at + 4);
        size_t body = at + 8;
        if (id == "fmt " && body + 16 <= data.size()) {
            unsigned tag = u16(body);
            if (tag != 1 && tag != 0xFFFE)
                return false;
            ch = static_cast<int>(u16(body + 2));
            hz = static_cast<int>(u32(body + 4));
            bits = static_cast<int>(u16(body + 14));
        } else if (id == "data") {
            if (bits != 16 || ch == 0)
                return false;
            size = std::min(size, data.size() - body);
            samples->resize(size / 2);
            std::memcpy(samples->data(), data.data() + body, samples->size() * 2);
            if (channels)
                *channels = ch;
            if (rate)
                *rate = hz;
            return true;
        }
        at = body + size + (size & 1);
    }
    return false;
}

int16_t known_pcm_sample(size_t frame, int channel) {
    long v = channel == 0 ? static_cast<long>((frame * 37) % 65536)
                          : static_cast<long>((frame * 101 + 12345) % 65536);
    return static_cast<int16_t>(v - 32768);
}

std::vector<int16_t> known_pcm(size_t first, size_t frames) {
    std::vector<int16_t> out;
    out.reserve(frames * 2);
    for (size_t f = first; f < first + frames; ++f) {
        out.push_back(known_pcm_sample(f, 0));
        out.push_back(known_pcm_sample(f, 1));
    }
    return out;
}

// --- Waiting -----------------------------------------------------------------------------------

bool wait_until(const std::function<bool()> &predicate, int timeout_ms, int poll_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (predicate())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms > 0 ? poll_ms : 1));
    }
}

} // namespace ae_test

// --- Per-process virtual card ----------------------------------------------------------------

namespace {

class VcardEnvironment : public ::testing::Environment {
public:
    void SetUp() override { vcard_setup(); }
};

const bool g_vcard_environment_registered = [] {
// A test binary started by hand (not by CTest) still finds the card, the media and a
// scratch directory; libasound reads ALSA_CONFIG_PATH at its first configuration load.
#ifdef AE_TEST_ALSA_CONFIG_DEFAULT
    setenv("ALSA_CONFIG_PATH", AE_TEST_ALSA_CONFIG_DEFAULT, 0);
#endif
    setenv("AE_TEST_MEDIA", AE_TEST_MEDIA_DEFAULT, 0);
    setenv("AE_TEST_TMP", AE_TEST_TMP_DEFAULT, 0);
    ::testing::AddGlobalTestEnvironment(new VcardEnvironment);
    return true;
}();

} // namespace

// Referenced by the link options of ae_test_support, so that this object (and the registration
// above) is linked into every test binary even if it uses no other helper.
extern "C" int ae_test_support_anchor(void) {
    return g_vcard_environment_registered ? 1 : 0;
}
