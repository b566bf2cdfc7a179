// qz_print_log2 through the host's log sink: the fields and the formatted message reach the sink
// whole, and with echo the same line reaches standard error.
#include "host_platform.h"
#include "qz_log.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Line {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

void CaptureSink(int level, const char *file, int line, const char *function, const char *message,
                 void *user) {
    static_cast<std::vector<Line> *>(user)->push_back({level, file, line, function, message});
}

TEST(platform_log, SinkGetsFieldsAndWholeMessagesAndEchoWritesOneLine) {
    std::vector<Line> lines;
    std::string err;
    std::string big(20000, 'x'); // longer than any stack buffer in the formatter
    big[0] = '<';
    big.back() = '>';
    {
        ae_test::StderrCapture capture;
        host_set_log_sink(CaptureSink, &lines, 1);
        qz_print_log2(2, "audio-engine/src/x.c", 42, "int open_device(int)",
                      "rate %d ch %u %s %.1f\n", 44100, 2u, "ok", 0.5);
        qz_print_log2(4, "f.c", 1, "g", "%s|%d", big.c_str(), 99);
        host_set_log_sink(nullptr, nullptr, 1);
        err = capture.text();
    }
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].file, "audio-engine/src/x.c");
    EXPECT_EQ(lines[0].line, 42);
    EXPECT_EQ(lines[0].function, "int open_device(int)");
    EXPECT_EQ(lines[0].message, "rate 44100 ch 2 ok 0.5") << "the trailing newline is dropped";
    EXPECT_EQ(lines[1].message, big + "|99");
    EXPECT_EQ(err, "[L2] audio-engine/src/x.c:42 int open_device(int): rate 44100 ch 2 ok 0.5\n"
                   "[L4] f.c:1 g: " +
                       big + "|99\n");
}

} // namespace
