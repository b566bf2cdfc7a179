// Members of zip archives, through IAudioEngine: "archive:#zip(member)" plays exactly as the
// file itself, seeks inside stored and deflated members, and every way of naming a member that
// is not there fails like a missing file without spoiling the next open.
#include <malloc.h>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "engine_fixture.h"

namespace engine_test {
namespace {

using ae_test::LogCapture;
using ae_test::media_path;

std::string memberPath(const std::string &archive, const std::string &member) {
    return media_path(archive) + ":#zip(" + member + ")";
}

// Memory held by this process in KiB: resident pages, or under a user-mode emulator, which
// reports its own pages instead, the heap in use.
long residentKiB() {
#ifdef AE_TEST_EMULATED
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
#endif
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr)
        return 0;
    long pages = 0, resident = 0;
    const int n = fscanf(f, "%ld %ld", &pages, &resident);
    fclose(f);
    return n == 2 ? resident * 4 : 0;
}

class EngineZipTest : public EngineTest {
protected:
    std::vector<int16_t> playAndCapture(const std::string &path) {
        vcard_setup();
        vcard_set_speed(0);
        EXPECT_EQ(engine_->openFile(path), 0) << path;
        playOpened();
        engine_->closeFile();
        return ae_test::captured_samples();
    }
};

struct Member {
    const char *archive;
    const char *member;
    const char *plain;
    const char *name;
};

void PrintTo(const Member &v, std::ostream *os) {
    *os << v.name;
}

class EngineZipMemberTest : public EngineZipTest, public ::testing::WithParamInterface<Member> {};

TEST_P(EngineZipMemberTest, PlaysExactlyAsThePlainFile) {
    const Member m = GetParam();
    const std::vector<int16_t> plain = playAndCapture(media_path(m.plain));
    LogCapture log;
    const std::string path = memberPath(m.archive, m.member);
    const std::vector<int16_t> zipped = playAndCapture(path);
    EXPECT_TRUE(log.contains(4, "Open file " + path));
    ASSERT_GT(plain.size(), size_t(2 * kRate));
    EXPECT_EQ(zipped.size(), plain.size());
    EXPECT_TRUE(zipped == plain) << "the member does not sound like the file";
}

INSTANTIATE_TEST_SUITE_P(
    Members, EngineZipMemberTest,
    ::testing::Values(
        Member{"book_stored.zip", "marked_3s.mp3", "marked_3s.mp3", "Stored"},
        Member{"book_deflated.zip", "marked_3s.mp3", "marked_3s.mp3", "Deflated"},
        Member{"book_stored.zip", "sub/steps_10s.mp3", "steps_10s.mp3", "StoredInFolder"},
        Member{"book_deflated.zip", "sub/steps_10s.mp3", "steps_10s.mp3", "DeflatedInFolder"}),
    [](const ::testing::TestParamInfo<Member> &info) { return std::string(info.param.name); });

TEST_F(EngineZipTest, MemberReportsItsDuration) {
    ASSERT_EQ(engine_->openFile(memberPath("book_deflated.zip", "steps_10s.mp3")), 0);
    EXPECT_EQ(engine_->getDurationMs(), 10000);
    EXPECT_TRUE(engine_->isFileOpened());
}

// The last character is dropped whatever it is.
TEST_F(EngineZipTest, AnyLastCharacterClosesTheMemberName) {
    EXPECT_EQ(engine_->openFile(media_path("book_stored.zip") + ":#zip(marked_3s.mp3]"), 0);
}

// Which second of steps_10s.mp3 (second k is 200 + 100 k Hz) each 50 ms of the capture holds;
// -1 where the frequency is not clearly one of them.
std::vector<int> secondsHeard(const std::vector<int16_t> &all) {
    std::vector<int> seconds;
    const size_t window = kRate / 20;
    for (size_t at = 0; (at + window) * 2 <= all.size(); at += window) {
        const std::vector<int16_t> part(all.begin() + at * 2, all.begin() + (at + window) * 2);
        const double f = ae_test::zero_crossing_frequency(part, 2, 0, kRate);
        const double k = (f - 200.0) / 100.0;
        const long r = std::lround(k);
        seconds.push_back(std::fabs(k - r) < 0.3 && r >= 0 && r <= 9 ? static_cast<int>(r) : -1);
    }
    return seconds;
}

// Where playback went after each jump: the first second heard steadily (two windows alike)
// after each place where the second heard goes down or up by more than one.
std::vector<int> landings(const std::vector<int> &seconds) {
    std::vector<int> out;
    int last = -1;
    for (size_t i = 0; i + 1 < seconds.size(); ++i) {
        const int s = seconds[i];
        if (s < 0 || seconds[i + 1] != s)
            continue;
        if (last >= 0 && (s < last || s > last + 1))
            out.push_back(s);
        last = s;
    }
    return out;
}

class EngineZipSeekTest : public EngineZipTest,
                          public ::testing::WithParamInterface<const char *> {};

TEST_P(EngineZipSeekTest, SeeksForwardAndBackInsideTheMember) {
    ASSERT_EQ(engine_->openFile(memberPath(GetParam(), "steps_10s.mp3")), 0);
    // Slow enough that the seek back is asked for well before the media ends.
    vcard_set_speed(2.0);
    ASSERT_EQ(engine_->start(), 0);
    ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getPosition() >= 2000; }, 10000));
    engine_->seekStream(7000); // forward: a skip
    ASSERT_TRUE(ae_test::wait_until([this] { return engine_->getPosition() >= 8000; }, 10000));
    engine_->seekStream(3000); // back: the member starts again
    ASSERT_TRUE(waitState(3));
    ASSERT_TRUE(ae_test::wait_until([] { return vcard_is_open() == 0; }, 5000));

    const std::vector<int> heard = secondsHeard(ae_test::captured_samples());
    std::string trace;
    for (int s : heard)
        trace += s < 0 ? '.' : static_cast<char>('0' + s);
    EXPECT_EQ(landings(heard), (std::vector<int>{7, 3})) << trace;
    EXPECT_EQ(engine_->getPosition(), 10000);
}

INSTANTIATE_TEST_SUITE_P(Archives, EngineZipSeekTest,
                         ::testing::Values("book_stored.zip", "book_deflated.zip"),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param[5] == 's' ? "Stored" : "Deflated");
                         });

struct BadMember {
    const char *path; // relative to the media folder
    const char *name;
};

void PrintTo(const BadMember &v, std::ostream *os) {
    *os << v.name;
}

class EngineZipBadTest : public EngineZipTest, public ::testing::WithParamInterface<BadMember> {};

TEST_P(EngineZipBadTest, FailsLikeAMissingFileAndTheNextOpenWorks) {
    const std::string path = media_path(GetParam().path);
    LogCapture log;
    EXPECT_EQ(engine_->openFile(path), -1);
    EXPECT_TRUE(log.contains(2, "Failed to open " + path)) << log.dump();
    EXPECT_FALSE(engine_->isFileOpened());
    EXPECT_EQ(engine_->start(), -1);

    ASSERT_EQ(engine_->openFile(memberPath("book_deflated.zip", "marked_3s.mp3")), 0);
    EXPECT_EQ(engine_->getDurationMs(), 3000);
    EXPECT_EQ(engine_->openFile(path), -1);
    ASSERT_EQ(engine_->openFile(media_path("marked_3s.mp3")), 0);
    playOpened();
    EXPECT_GE(vcard_captured_frames(), size_t(2 * kRate));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, EngineZipBadTest,
    ::testing::Values(BadMember{"no_such_archive.zip:#zip(marked_3s.mp3)", "MissingArchive"},
                      BadMember{"book_stored.zip:#zip(no_such_member.mp3)", "MissingMember"},
                      BadMember{"book_stored.zip:#zip(sub/)", "FolderEntry"},
                      BadMember{"book_stored.zip:#zip(", "EndsWithTheTag"},
                      BadMember{"book_stored.zip:#zip()", "EmptyMemberName"},
                      BadMember{"book_corrupt.zip:#zip(marked_3s.mp3)", "CorruptArchive"},
                      BadMember{"marked_3s.mp3:#zip(marked_3s.mp3)", "NotAnArchive"}),
    [](const ::testing::TestParamInfo<BadMember> &info) { return std::string(info.param.name); });

// A long run of seeks back and forth in a deflated member, then many opens: memory stays flat
// (the address sanitizer checks that nothing leaks).
TEST_F(EngineZipTest, SeekLoopAndRepeatedOpensKeepMemoryFlat) {
    const std::string path = memberPath("book_deflated.zip", "steps_10s.mp3");
    ASSERT_EQ(engine_->openFile(path), 0);
    vcard_set_speed(16.0);
    ASSERT_EQ(engine_->start(), 0);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int i = 0; std::chrono::steady_clock::now() < until; ++i) {
        engine_->seekStream(i % 2 ? 8000 : 1000);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (engine_->getState() == 3) {
            ASSERT_EQ(engine_->start(), 0); // rare: the seeks keep it going
        }
    }
    EXPECT_EQ(engine_->stop(), 0);
    engine_->closeFile();

    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(engine_->openFile(path), 0);
    const long before = residentKiB();
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(engine_->openFile(path), 0);
        if (i % 3 == 0)
            engine_->closeFile();
    }
    const long after = residentKiB();
    // AddressSanitizer keeps freed blocks in quarantine, so resident memory says nothing
    // there; its leak checker answers the same question at exit.
#ifndef __SANITIZE_ADDRESS__
    // Each open allocates a 1 MiB I/O buffer: a leak of it alone would add about 300 MiB.
    EXPECT_LT(after - before, 16 * 1024) << before << " KiB -> " << after << " KiB";
#else
    (void)before;
    (void)after;
#endif
}

} // namespace
} // namespace engine_test
