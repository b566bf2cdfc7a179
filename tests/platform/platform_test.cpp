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

// An archive of (name, bytes, method) members: no bytes makes a folder, method -1 encrypts.
std::string zip(const char *file, std::vector<std::tuple<const char *, const Bytes *, int>> list) {
    const std::string path = ae_test::tmp_path(file);
    zip_t *za = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const auto &[name, b, method] : list) {
        zip_int64_t i =
            b ? zip_file_add(za, name, zip_source_buffer(za, b->data(), b->size(), 0), 0)
              : zip_dir_add(za, name, 0);
        zip_set_file_compression(za, i, method < 0 ? ZIP_CM_STORE : method, 0);
        EXPECT_EQ(method < 0 ? zip_file_set_encryption(za, i, ZIP_EM_TRAD_PKWARE, "pw") : 0, 0);
    }
    EXPECT_EQ(zip_close(za), 0);
    return path;
}

TEST(Platform, ZipReaderReadsSkipsAndRewindsMembers) {
    const std::string other = zip("platform_other.zip", {{"o.bin", &kNested, 8}});
    const std::string book = zip("platform_book.zip", {{"s.bin", &kStored, 0},
                                                       {"d.bin", &kDeflated, 8},
                                                       {"a/", nullptr, 0},
                                                       {"a/c1/t 1.mp3", &kNested, 8},
                                                       {"e.bin", &kNested, -1}});
    // Member (only the first three open), read in chunks of, skip after its first 10 bytes.
    const char *const names[] = {"s.bin", "d.bin", "a/c1/t 1.mp3", "e.bin", "m.bin", "a/", ""};
    const Bytes *const contents[] = {&kStored, &kDeflated, &kNested};
    const std::tuple<int, unsigned, unsigned> rows[] = {
        {0, 7, 299000},       {0, 65537, ~0u}, {1, 1, 200000},
        {1, 1048579, 450011}, {2, 4093, 4000}, {3, 64, 0},
        {4, 64, 0},           {5, 64, 0},      {6, 64, 0}};
    for (const auto &[index, chunk, skip] : rows) {
        SCOPED_TRACE(std::string(names[index]) + " chunk " + std::to_string(chunk));
        const Bytes expected = index < 3 ? *contents[index] : Bytes{};
        tavrel::QzZipManager zm;
        ASSERT_EQ(zm.Open(other, "o.bin"), 0); // replaced by the next open, failed or not
        ASSERT_EQ(zm.Open(book, names[index]) == 0, index < 3);
        EXPECT_EQ(int64_t(zm.GetCurrentFileSize()) + zm.Tell(),
                  index < 3 ? int64_t(expected.size()) : -1);
        Bytes got, buf(std::max(chunk, 64u));
        for (int n; (n = zm.Read(buf.data(), chunk)) > 0 && got.size() <= expected.size();)
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        EXPECT_TRUE(got == expected);
        // Rewound, skipped into (or to the end, never past it) and read from there.
        EXPECT_EQ((zm.ChangeFile(names[index]) == 0) + zm.Read(buf.data(), 10) +
                      (zm.Skip(skip) == 0),
                  index < 3 ? 12 : 0);
        const size_t at = std::min<size_t>(expected.size(), 10 + size_t(skip));
        const int n = zm.Read(buf.data(), 64);
        EXPECT_EQ(n, int(std::min<size_t>(64, expected.size() - at)));
        EXPECT_TRUE(n == 0 || std::memcmp(buf.data(), expected.data() + at, n) == 0);
    }
}

// Lines reach the sink whole and without a trailing newline, however long.
TEST(Platform, LogLinesReachTheSinkWhole) {
    std::vector<std::string> lines, expected = {"rate 44100 ch 2 ok 0.5"};
    host_set_log_sink([](int, const char *, int, const char *, const char *message,
                         void *user) { static_cast<decltype(lines) *>(user)->push_back(message); },
                      &lines, 0);
    qz_print_log2(4, "f.c", 1, "g", "rate %d ch %u %s %.1f\n", 44100, 2u, "ok", 0.5);
    for (size_t size : {1007, 20000}) { // lines of 1024 bytes on standard error, and longer
        expected.push_back(std::string(size, 'x') + "|99");
        qz_print_log2(4, "f.c", 1, "g", "%s|%d", expected.back().substr(0, size).c_str(), 99);
    }
    host_set_log_sink(nullptr, nullptr, 1);
    EXPECT_EQ(lines, expected);
}

// Rows of zeros padded with 0xA5 to a multiple of four bytes.
TEST(Platform, BitmapRowsArePadded) {
    for (auto [format, w, bytes] : {std::tuple{QZ_BITMAP_GRAY8, 4, 1},
                                    {QZ_BITMAP_RGB24, 1, 3},
                                    {QZ_BITMAP_GRAY8, 3, 1},
                                    {QZ_BITMAP_RGB24, 641, 3}}) {
        qz_bitmap *bm = NewBitmapWithFormat(w, 3, format);
        ASSERT_NE(bm, nullptr);
        const int row = w * bytes, stride = bm->stride;
        EXPECT_TRUE(stride % 4 == 0 && stride > row) << stride << " width " << w;
        for (int i = 0; i < 3 * stride; i++)
            ASSERT_EQ(bm->data[i], i % stride < row ? 0 : 0xA5) << i << " width " << w;
        std::free(bm);
    }
    EXPECT_EQ(NewBitmapWithFormat(0, 10, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(21845, 1, QZ_BITMAP_RGB24), nullptr); // stride beyond 16 bits
}

} // namespace
