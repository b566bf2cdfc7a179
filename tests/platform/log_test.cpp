// qz_print_log2: formatting, the test sink, and one intact line per call on standard error even
// when several threads log at once.
#include "host_platform.h"
#include "qz_log.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Line {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

struct Capture {
    std::mutex lock;
    std::vector<Line> lines;
};

void CaptureSink(int level, const char *file, int line, const char *function, const char *message,
                 void *user) {
    auto *c = static_cast<Capture *>(user);
    std::lock_guard<std::mutex> g(c->lock);
    c->lines.push_back({level, file, line, function, message});
}

// Sends standard error to a file for the lifetime of the object.
class StderrToFile {
public:
    StderrToFile() {
        const char *base = std::getenv("AE_TEST_TMP");
        std::filesystem::path root =
            base && *base ? std::filesystem::path(base) : std::filesystem::temp_directory_path();
        std::filesystem::create_directories(root);
        path_ = (root / ("log-" + std::to_string(getpid()) + ".txt")).string();
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_GE(fd, 0);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrToFile() {
        Restore();
        std::remove(path_.c_str());
    }
    void Restore() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }
    std::string Contents() {
        Restore();
        std::ifstream in(path_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

private:
    std::string path_;
    int saved_ = -1;
};

class platform_log : public ::testing::Test {
protected:
    void TearDown() override { host_set_log_sink(nullptr, nullptr, 1); }
};

TEST_F(platform_log, SinkReceivesFieldsAndFormattedMessage) {
    Capture c;
    host_set_log_sink(CaptureSink, &c, 0);
    qz_print_log2(2, "audio-engine/src/x.c", 42, "int open_device(int)", "rate %d ch %u %s %.1f",
                  44100, 2u, "ok", 0.5);
    qz_print_log2(5, "b.cpp", 7, "void f()", "plain");
    ASSERT_EQ(c.lines.size(), 2u);
    EXPECT_EQ(c.lines[0].level, 2);
    EXPECT_EQ(c.lines[0].file, "audio-engine/src/x.c");
    EXPECT_EQ(c.lines[0].line, 42);
    EXPECT_EQ(c.lines[0].function, "int open_device(int)");
    EXPECT_EQ(c.lines[0].message, "rate 44100 ch 2 ok 0.5");
    EXPECT_EQ(c.lines[1].level, 5);
    EXPECT_EQ(c.lines[1].message, "plain");
}

TEST_F(platform_log, LongMessagesArriveWhole) {
    Capture c;
    host_set_log_sink(CaptureSink, &c, 0);
    std::string big(20000, 'x');
    big[0] = '<';
    big.back() = '>';
    qz_print_log2(4, "f.c", 1, "g", "%s|%d", big.c_str(), 99);
    ASSERT_EQ(c.lines.size(), 1u);
    EXPECT_EQ(c.lines[0].message, big + "|99");
}

TEST_F(platform_log, TrailingNewlineDoesNotMakeAnEmptyLine) {
    Capture c;
    host_set_log_sink(CaptureSink, &c, 0);
    qz_print_log2(4, "f.c", 1, "g", "done\n");
    ASSERT_EQ(c.lines.size(), 1u);
    EXPECT_EQ(c.lines[0].message, "done");
}

TEST_F(platform_log, RemovedSinkIsNoLongerCalled) {
    Capture c;
    host_set_log_sink(CaptureSink, &c, 0);
    qz_print_log2(4, "f.c", 1, "g", "one");
    host_set_log_sink(nullptr, nullptr, 0);
    StderrToFile err;
    qz_print_log2(4, "f.c", 1, "g", "two");
    EXPECT_EQ(c.lines.size(), 1u);
    EXPECT_NE(err.Contents().find("two"), std::string::npos) << "no sink: lines go to stderr";
}

TEST_F(platform_log, EchoWritesOneLineToStandardError) {
    StderrToFile err;
    qz_print_log2(4, "audio-engine/src/alsa_device.c", 123, "int alsa_open(void)", "hello %d", 5);
    EXPECT_EQ(err.Contents(),
              "[L4] audio-engine/src/alsa_device.c:123 int alsa_open(void): hello 5\n");
}

TEST_F(platform_log, SinkWithoutEchoKeepsStandardErrorQuiet) {
    Capture c;
    StderrToFile err;
    host_set_log_sink(CaptureSink, &c, 0);
    qz_print_log2(2, "f.c", 3, "g", "quiet");
    EXPECT_EQ(err.Contents(), "");
    EXPECT_EQ(c.lines.size(), 1u);
}

TEST_F(platform_log, SinkWithEchoWritesBoth) {
    Capture c;
    StderrToFile err;
    host_set_log_sink(CaptureSink, &c, 1);
    qz_print_log2(2, "f.c", 3, "g", "both");
    EXPECT_EQ(err.Contents(), "[L2] f.c:3 g: both\n");
    EXPECT_EQ(c.lines.size(), 1u);
}

TEST_F(platform_log, ConcurrentLinesNeverInterleave) {
    constexpr int kThreads = 8, kLines = 300;
    Capture c;
    StderrToFile err;
    host_set_log_sink(CaptureSink, &c, 1);
    const std::string pad(700, '.'); // longer than any stack buffer in the formatter
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([t, &pad] {
            for (int i = 0; i < kLines; i++)
                qz_print_log2(4, "t.c", t, "worker", "t%d-%d %s end", t, i, pad.c_str());
        });
    for (auto &th : threads)
        th.join();
    host_set_log_sink(nullptr, nullptr, 1);

    std::set<std::string> expected;
    for (int t = 0; t < kThreads; t++)
        for (int i = 0; i < kLines; i++)
            expected.insert("t" + std::to_string(t) + "-" + std::to_string(i) + " " + pad + " end");

    std::set<std::string> from_sink;
    for (const Line &l : c.lines)
        from_sink.insert(l.message);
    EXPECT_EQ(c.lines.size(), expected.size());
    EXPECT_TRUE(from_sink == expected);

    std::istringstream in(err.Contents());
    std::string line;
    std::set<std::string> from_stderr;
    size_t count = 0;
    while (std::getline(in, line)) {
        count++;
        const std::string prefix = "[L4] t.c:";
        ASSERT_EQ(line.compare(0, prefix.size(), prefix), 0) << line.substr(0, 80);
        size_t colon = line.find(" worker: ");
        ASSERT_NE(colon, std::string::npos);
        from_stderr.insert(line.substr(colon + 9));
    }
    EXPECT_EQ(count, expected.size());
    EXPECT_TRUE(from_stderr == expected);
}

TEST_F(platform_log, NullArgumentsDoNotCrash) {
    Capture c;
    host_set_log_sink(CaptureSink, &c, 0);
    qz_print_log2(4, nullptr, 0, nullptr, "x");
    ASSERT_EQ(c.lines.size(), 1u);
    EXPECT_EQ(c.lines[0].message, "x");
}

} // namespace
