// The host platform library as the audio library uses it: the zip reader, the log, bitmaps.
#include <gtest/gtest.h>
#include <zip.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "QzZipManager.h"
#include "bitmap.h"
#include "host_platform.h"
#include "qz_log.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Text-like runs mixed with pseudo-random bytes: compressible, but not trivially.
Bytes data(size_t size, uint32_t x) {
    Bytes out(size);
    for (size_t i = 0; i < size; i++)
        out[i] = i % 97 < 60 ? 'a' + (i / 97 + x) % 26 : (x = x * 1664525u + 1013904223u) >> 24;
    return out;
}
const Bytes kStored = data(300007, 1), kDeflated = data(450011, 2), kNested = data(5003, 3);

// An archive of (name, bytes, method) members: a name ending in '/' is a folder, method -1
// stores the member encrypted.
std::string zip(const char *file,
                const std::vector<std::tuple<std::string, const Bytes *, int>> &members) {
    const std::string path = ae_test::tmp_path(file);
    zip_t *za = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const auto &[name, bytes, method] : members) {
        zip_int64_t i =
            bytes ? zip_file_add(za, name.c_str(),
                                 zip_source_buffer(za, bytes->data(), bytes->size(), 0), 0)
                  : zip_dir_add(za, name.c_str(), 0);
        zip_set_file_compression(za, i, method < 0 ? ZIP_CM_STORE : method, 0);
        EXPECT_EQ(method < 0 ? zip_file_set_encryption(za, i, ZIP_EM_TRAD_PKWARE, "pw") : 0, 0);
    }
    EXPECT_EQ(zip_close(za), 0);
    return path;
}

TEST(Platform, ZipReaderReadsSkipsAndRewindsMembers) {
    const std::string other = zip("platform_other.zip", {{"o.bin", &kNested, ZIP_CM_DEFLATE}});
    const std::string book = zip("platform_book.zip", {{"s.bin", &kStored, ZIP_CM_STORE},
                                                       {"d.bin", &kDeflated, ZIP_CM_DEFLATE},
                                                       {"a/", nullptr, 0},
                                                       {"a/c1/t 1.mp3", &kNested, 8},
                                                       {"e.bin", &kNested, -1}});
    // Member, read in chunks of, skip after its first 10 bytes. Only the first three open.
    const char *const names[] = {"s.bin", "d.bin", "a/c1/t 1.mp3", "e.bin", "m.bin", "a/", "a", ""};
    const Bytes *const contents[] = {&kStored, &kDeflated, &kNested};
    const std::tuple<int, unsigned, unsigned> rows[] = {
        {0, 7, 299000}, {0, 65537, ~0u}, {1, 1, 200000}, {1, 1048579, 450011}, {2, 4093, 4000},
        {3, 64, 0},     {4, 64, 0},      {5, 64, 0},     {6, 64, 0},           {7, 64, 0}};
    for (const auto &[index, chunk, skip] : rows) {
        const std::string member = names[index];
        SCOPED_TRACE(member + " chunk " + std::to_string(chunk));
        const Bytes *bytes = index < 3 ? contents[index] : nullptr;
        const Bytes expected = bytes ? *bytes : Bytes{};
        tavrel::QzZipManager zm;
        ASSERT_EQ(zm.Open(other, "o.bin"), 0); // replaced by the next open, failed or not
        ASSERT_EQ(zm.Open(book, member) == 0, bytes != nullptr);
        EXPECT_EQ(int64_t(zm.GetCurrentFileSize()) + zm.Tell(),
                  bytes ? int64_t(expected.size()) : -1);
        Bytes got, buf(std::max(chunk, 64u));
        for (int n; (n = zm.Read(buf.data(), chunk)) > 0 && got.size() <= expected.size();)
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        EXPECT_TRUE(got == expected);
        // Rewound, skipped into (or to the end, never past it) and read from there.
        EXPECT_EQ((zm.ChangeFile(member) == 0) + zm.Read(buf.data(), 10) + (zm.Skip(skip) == 0),
                  bytes ? 12 : 0);
        const size_t at = std::min<size_t>(expected.size(), 10 + size_t(skip));
        EXPECT_EQ(zm.Tell(), bytes ? int(at) : -1);
        const int n = zm.Read(buf.data(), 64);
        EXPECT_EQ(n, int(std::min<size_t>(64, expected.size() - at)));
        EXPECT_TRUE(n == 0 || std::memcmp(buf.data(), expected.data() + at, n) == 0);
        EXPECT_NE(zm.ChangeFile("o.bin"), 0);
    }
}

// Archives that are cut short do not open; damaged member data reads no more than the member's
// size, intact bytes where the data is intact (a wrong CRC only), then nothing.
TEST(Platform, ZipReaderSurvivesDamagedArchives) {
    // Method; bytes cut from the end; offset into the member data and bytes corrupted there
    // (-1: the CRC in both headers). Methods: 0 stored, 8 deflated.
    const std::tuple<int, size_t, size_t, int> rows[] = {
        {0, 0, 1000, 1},   {8, 0, 100000, 64},        {0, 0, 0, -1}, {8, 0, 0, -1}, {0, 10, 0, 0},
        {0, 150000, 0, 0}, {0, size_t(1) << 40, 0, 0}};
    for (const auto &[method, cut, at, flips] : rows) {
        const Bytes &original = method == ZIP_CM_STORE ? kStored : kDeflated;
        const std::string path = zip("platform_damaged.zip", {{"a.bin", &original, method}});
        Bytes z = ae_test::read_file(path);
        const size_t data = 30 + z[26] + (z[27] << 8) + z[28] + (z[29] << 8), e = z.size() - 22;
        for (int i = 0; i < flips; i++)
            z[data + at + i] ^= 0x5A;
        if (flips < 0)
            z[14] ^= 0xFF, z[(z[e + 16] | z[e + 17] << 8 | z[e + 18] << 16) + 16] ^= 0xFF;
        z.resize(cut > z.size() ? 0 : z.size() - cut);
        ASSERT_TRUE(ae_test::write_file(path, z));
        tavrel::QzZipManager zm;
        ASSERT_EQ(zm.Open(path, "a.bin") == 0, cut == 0) << cut;
        size_t got = 0, same = 0;
        uint8_t buf[65521];
        for (int n; (n = zm.Read(buf, sizeof buf)) > 0 && got <= original.size(); got += n)
            same += same == got && std::memcmp(buf, original.data() + got, n) == 0 ? n : 0;
        EXPECT_LE(got, original.size());
        EXPECT_EQ(same, flips < 0 ? got : same);
        EXPECT_EQ(zm.Read(buf, 64), 0);
        zm.Skip(0xFFFFFFF0u);
        EXPECT_LE(zm.Tell(), int(original.size()));
    }
}

// Lines reach the sink whole, without a trailing newline; echoed, each reaches standard error
// as one "[L<level>] file:line function: message" line, however long.
TEST(Platform, LogLinesReachTheSinkAndStandardErrorWhole) {
    std::vector<std::string> lines, expected = {"rate 44100 ch 2 ok 0.5"};
    ae_test::StderrCapture err;
    host_set_log_sink([](int, const char *, int, const char *, const char *message,
                         void *user) { static_cast<decltype(lines) *>(user)->push_back(message); },
                      &lines, 1);
    qz_print_log2(4, "f.c", 1, "g", "rate %d ch %u %s %.1f\n", 44100, 2u, "ok", 0.5);
    for (size_t size : {1006, 1007, 1008, 20000}) { // lines of 1023 to 1025 bytes, and longer
        expected.push_back(std::string(size, 'x') + "|99");
        qz_print_log2(4, "f.c", 1, "g", "%s|%d", expected.back().substr(0, size).c_str(), 99);
    }
    host_set_log_sink(nullptr, nullptr, 1);
    EXPECT_EQ(lines, expected);
    std::string all;
    for (const std::string &line : expected)
        all += "[L4] f.c:1 g: " + line + "\n";
    EXPECT_EQ(err.text(), all);
}

// One block: the header, then from byte 8 rows of zeros padded with 0xA5 to a multiple of four.
TEST(Platform, BitmapRowsArePadded) {
    for (int format : {QZ_BITMAP_GRAY8, QZ_BITMAP_RGB24}) {
        for (int w : {1, 2, 3, 4, 5, 8, 641}) {
            qz_bitmap *bm = NewBitmapWithFormat(w, 3, format);
            ASSERT_NE(bm, nullptr);
            const int row = w * (format == QZ_BITMAP_RGB24 ? 3 : 1), stride = bm->stride;
            EXPECT_EQ(bm->data - reinterpret_cast<uint8_t *>(bm), 8);
            EXPECT_TRUE(stride % 4 == 0 && stride > row && bm->width == w && bm->height == 3 &&
                        bm->format == format)
                << stride << " width " << w;
            for (int i = 0; i < 3 * stride; i++)
                ASSERT_EQ(bm->data[i], i % stride < row ? 0 : 0xA5) << i << " width " << w;
            std::free(bm);
        }
    }
    EXPECT_EQ(NewBitmapWithFormat(0, 10, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(21845, 1, QZ_BITMAP_RGB24), nullptr); // stride beyond 16 bits
}

} // namespace
