// tavrel::QzZipManager over archives written by the test itself with libzip.
#include "QzZipManager.h"
#include "test_support.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using tavrel::QzZipManager;

namespace {

using Bytes = std::vector<unsigned char>;

// Compressible but not trivial: text-like runs mixed with pseudo-random bytes.
Bytes MakeData(size_t size, std::uint32_t seed) {
    Bytes out(size);
    std::uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; i++) {
        x = x * 1664525u + 1013904223u;
        out[i] = (i % 97 < 60) ? static_cast<unsigned char>('a' + (i / 97 + seed) % 26)
                               : static_cast<unsigned char>(x >> 24);
    }
    return out;
}

struct Member {
    std::string name;
    Bytes data;
    zip_int32_t method = ZIP_CM_STORE;
    bool directory = false;
};

void WriteZip(const fs::path &path, const std::vector<Member> &members) {
    int error = 0;
    zip_t *za = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(za, nullptr) << "zip_open error " << error;
    for (const Member &m : members) {
        if (m.directory) {
            ASSERT_GE(zip_dir_add(za, m.name.c_str(), ZIP_FL_ENC_UTF_8), 0);
            continue;
        }
        zip_source_t *src = zip_source_buffer(za, m.data.data(), m.data.size(), 0);
        ASSERT_NE(src, nullptr);
        zip_int64_t idx = zip_file_add(za, m.name.c_str(), src, ZIP_FL_ENC_UTF_8);
        if (idx < 0)
            zip_source_free(src);
        ASSERT_GE(idx, 0) << zip_strerror(za);
        ASSERT_EQ(zip_set_file_compression(za, static_cast<zip_uint64_t>(idx), m.method, 0), 0);
    }
    ASSERT_EQ(zip_close(za), 0) << zip_strerror(za);
}

Bytes ReadFile(const fs::path &path) {
    return ae_test::read_file(path.string());
}
void WriteFile(const fs::path &path, const Bytes &data) {
    ASSERT_TRUE(ae_test::write_file(path.string(), data));
}

std::uint32_t Le32(const Bytes &b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) |
           (static_cast<std::uint32_t>(b[at + 3]) << 24);
}
unsigned Le16(const Bytes &b, size_t at) {
    return b[at] | (b[at + 1] << 8);
}

// Offset of the central directory entry of the first member (archive without a comment).
size_t CentralEntryOffset(const Bytes &zip) {
    size_t eocd = zip.size() - 22;
    EXPECT_EQ(Le32(zip, eocd), 0x06054b50u);
    return Le32(zip, eocd + 16);
}

// Offset of the first member's (compressed) data, from its local header at offset 0.
size_t FirstMemberDataOffset(const Bytes &zip) {
    EXPECT_EQ(Le32(zip, 0), 0x04034b50u);
    return 30 + Le16(zip, 26) + Le16(zip, 28);
}

// Reads the selected member to its end with `chunk`-sized reads.
Bytes ReadAll(QzZipManager &zm, unsigned chunk, size_t limit = 64u << 20) {
    Bytes out;
    Bytes buf(chunk);
    for (;;) {
        int n = zm.Read(buf.data(), chunk);
        EXPECT_GE(n, 0);
        EXPECT_LE(n, static_cast<int>(chunk));
        if (n <= 0)
            break;
        out.insert(out.end(), buf.begin(), buf.begin() + n);
        if (out.size() > limit) {
            ADD_FAILURE() << "read more than " << limit << " bytes";
            break;
        }
    }
    return out;
}

class platform_zip : public ::testing::Test {
protected:
    void SetUp() override {
        const char *base = std::getenv("AE_TEST_TMP");
        fs::path root = base && *base ? fs::path(base) : fs::temp_directory_path();
        fs::create_directories(root);
        std::string pattern = (root / "zipreader-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir = pattern;

        stored = MakeData(300007, 1);
        deflated = MakeData(450011, 2);
        nested = MakeData(5003, 3);
        archive = dir / "book.zip";
        WriteZip(archive, {{"stored.bin", stored, ZIP_CM_STORE},
                           {"deflated.bin", deflated, ZIP_CM_DEFLATE},
                           {"audio/", {}, ZIP_CM_STORE, true},
                           {"audio/ch01/track 1.mp3", nested, ZIP_CM_DEFLATE}});
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    const Bytes &Member(const std::string &name) {
        return name == "stored.bin" ? stored : name == "deflated.bin" ? deflated : nested;
    }

    void ExpectNothingOpen(QzZipManager &zm) {
        EXPECT_FALSE(zm.IsOpen());
        EXPECT_EQ(zm.Tell(), -1);
        EXPECT_EQ(zm.GetCurrentFileSize(), 0u);
        unsigned char b[16];
        EXPECT_EQ(zm.Read(b, sizeof b), 0);
    }

    fs::path dir, archive;
    Bytes stored, deflated, nested;
};

TEST_F(platform_zip, ReadsMembersByteIdenticalInOddChunks) {
    // The archive really holds both kinds, or the inflating path would go untested.
    int error = 0;
    zip_t *za = zip_open(archive.c_str(), ZIP_RDONLY, &error);
    ASSERT_NE(za, nullptr);
    zip_stat_t st;
    ASSERT_EQ(zip_stat(za, "stored.bin", 0, &st), 0);
    EXPECT_EQ(st.comp_method, ZIP_CM_STORE);
    ASSERT_EQ(zip_stat(za, "deflated.bin", 0, &st), 0);
    EXPECT_EQ(st.comp_method, ZIP_CM_DEFLATE);
    EXPECT_LT(st.comp_size, st.size);
    zip_discard(za);

    for (const char *name : {"stored.bin", "deflated.bin", "audio/ch01/track 1.mp3"}) {
        const Bytes &expected = Member(name);
        for (unsigned chunk : {1u, 7u, 4093u, 65537u, (1u << 20) + 3}) {
            SCOPED_TRACE(std::string(name) + " chunk " + std::to_string(chunk));
            QzZipManager zm;
            ASSERT_EQ(zm.Open(archive.string(), name), 0);
            EXPECT_TRUE(zm.IsOpen());
            EXPECT_EQ(zm.Tell(), 0);
            EXPECT_EQ(zm.GetCurrentFileSize(), expected.size());
            EXPECT_TRUE(ReadAll(zm, chunk) == expected);
            EXPECT_EQ(zm.Tell(), static_cast<int>(expected.size()));
        }
    }
}

// Skips to, past and far past the end stop at the end; reads there give 0.
TEST_F(platform_zip, SkipPastTheEndStopsAtTheEnd) {
    for (const char *name : {"stored.bin", "deflated.bin"}) {
        const unsigned size = static_cast<unsigned>(Member(name).size());
        for (unsigned skip : {size, size - 10 + 1, 0xFFFFFFF0u}) {
            SCOPED_TRACE(std::string(name) + " skip " + std::to_string(skip));
            QzZipManager zm;
            ASSERT_EQ(zm.Open(archive.string(), name), 0);
            unsigned char buf[64];
            ASSERT_EQ(zm.Read(buf, 10), 10);
            zm.Skip(skip);
            EXPECT_EQ(zm.Tell(), static_cast<int>(size));
            EXPECT_EQ(zm.Read(buf, sizeof buf), 0);
            EXPECT_EQ(zm.Skip(1), 0);
            EXPECT_EQ(zm.Tell(), static_cast<int>(size));
        }
    }
}

TEST_F(platform_zip, ChangeFileRewindsAndSwitchesMembers) {
    QzZipManager zm;
    ASSERT_EQ(zm.Open(archive.string(), "deflated.bin"), 0);
    unsigned char buf[4096];
    ASSERT_EQ(zm.Skip(200000), 0);
    ASSERT_EQ(zm.Read(buf, sizeof buf), static_cast<int>(sizeof buf));

    ASSERT_EQ(zm.ChangeFile("deflated.bin"), 0);
    EXPECT_EQ(zm.Tell(), 0);
    ASSERT_EQ(zm.Read(buf, sizeof buf), static_cast<int>(sizeof buf));
    EXPECT_EQ(std::memcmp(buf, deflated.data(), sizeof buf), 0);

    ASSERT_EQ(zm.ChangeFile("stored.bin"), 0);
    EXPECT_EQ(zm.Tell(), 0);
    EXPECT_EQ(zm.GetCurrentFileSize(), stored.size());
    EXPECT_TRUE(ReadAll(zm, 65536) == stored);

    // A stored member read to its end, then rewound and skipped into.
    ASSERT_EQ(zm.ChangeFile("stored.bin"), 0);
    ASSERT_EQ(zm.Skip(299000), 0);
    ASSERT_EQ(zm.Read(buf, 1007), 1007);
    EXPECT_EQ(std::memcmp(buf, stored.data() + 299000, 1007), 0);
    EXPECT_EQ(zm.Read(buf, sizeof buf), 0);

    // A member that is not there (or a folder entry) keeps the archive but selects nothing.
    EXPECT_NE(zm.ChangeFile("absent.bin"), 0);
    EXPECT_TRUE(zm.IsOpen());
    EXPECT_EQ(zm.Tell(), -1);
    EXPECT_EQ(zm.Read(buf, 8), 0);
    EXPECT_NE(zm.ChangeFile("audio/"), 0);
    ASSERT_EQ(zm.ChangeFile("audio/ch01/track 1.mp3"), 0);
    EXPECT_TRUE(ReadAll(zm, 999) == nested);
}

TEST_F(platform_zip, OpenFailuresLeaveNothingOpen) {
    Bytes zip = ReadFile(archive);
    WriteFile(dir / "noise.zip", MakeData(4096, 9));
    WriteFile(dir / "empty.zip", {});
    WriteFile(dir / "truncated.zip", Bytes(zip.begin(), zip.begin() + zip.size() / 2));
    WriteFile(dir / "no-end.zip", Bytes(zip.begin(), zip.end() - 10));

    struct Case {
        fs::path path;
        const char *member;
    } cases[] = {
        {dir / "missing.zip", "stored.bin"},
        {archive, "missing.bin"},
        {archive, "audio/"},
        {archive, "audio"},
        {archive, ""},
        {dir / "noise.zip", "stored.bin"},
        {dir / "empty.zip", "stored.bin"},
        {dir / "truncated.zip", "stored.bin"},
        {dir / "no-end.zip", "stored.bin"},
        {dir, "stored.bin"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path.string() + " : " + c.member);
        QzZipManager zm;
        // A failed Open also closes the archive open before.
        ASSERT_EQ(zm.Open(archive.string(), "stored.bin"), 0);
        EXPECT_NE(zm.Open(c.path.string(), c.member), 0);
        ExpectNothingOpen(zm);
        EXPECT_NE(zm.ChangeFile("stored.bin"), 0);
        EXPECT_NE(zm.Skip(10), 0);
    }
    QzZipManager zm;
    ASSERT_EQ(zm.Open(archive.string(), "stored.bin"), 0);
    EXPECT_EQ(zm.Close(), 0);
    ExpectNothingOpen(zm);
}

TEST_F(platform_zip, SecondOpenReplacesTheFirst) {
    Bytes other = MakeData(7777, 4);
    fs::path second = dir / "second.zip";
    WriteZip(second, {{"other.bin", other, ZIP_CM_DEFLATE}});
    QzZipManager zm;
    ASSERT_EQ(zm.Open(archive.string(), "stored.bin"), 0);
    unsigned char buf[100];
    ASSERT_EQ(zm.Read(buf, sizeof buf), 100);
    ASSERT_EQ(zm.Open(second.string(), "other.bin"), 0);
    EXPECT_EQ(zm.Tell(), 0);
    EXPECT_EQ(zm.GetCurrentFileSize(), other.size());
    EXPECT_TRUE(ReadAll(zm, 1000) == other);
    EXPECT_NE(zm.ChangeFile("stored.bin"), 0) << "the first archive must be closed";
}

// --- Damaged members: never more than the member's size, only correct leading bytes where the
// data itself is intact, then 0 for good. (libzip checks the CRC only when a read reaches the
// end of the data; the reader stops at the member's size, so a wrong CRC must simply never make
// it misbehave.)

struct Damage {
    const char *name;
    zip_int32_t method;
    int kind; // 0: 64 bytes flipped in the middle, 1: one bit flipped early, 2: wrong CRC
};
void PrintTo(const Damage &d, std::ostream *os) {
    *os << d.name;
}

class platform_zip_damage : public platform_zip, public ::testing::WithParamInterface<Damage> {};

TEST_P(platform_zip_damage, ReadingStopsWithinTheMember) {
    const Damage &d = GetParam();
    const Bytes &original = d.method == ZIP_CM_STORE ? stored : deflated;
    fs::path path = dir / "damaged.zip";
    WriteZip(path, {{"a.bin", original, d.method}});
    Bytes zip = ReadFile(path);
    const size_t data = FirstMemberDataOffset(zip);
    const size_t central = CentralEntryOffset(zip);
    ASSERT_EQ(Le32(zip, central), 0x02014b50u);
    const size_t compressed = Le32(zip, central + 20);
    ASSERT_GT(compressed, 1000u);
    if (d.kind == 0) {
        for (size_t i = data + compressed / 2; i < data + compressed / 2 + 64; i++)
            zip[i] ^= 0x5A;
    } else if (d.kind == 1) {
        zip[data + 1000] ^= 0x01;
    } else {
        zip[central + 16] ^= 0xFF; // CRC-32 in the central directory
        zip[14] ^= 0xFF;           // and in the local header
    }
    WriteFile(path, zip);

    QzZipManager zm;
    ASSERT_EQ(zm.Open(path.string(), "a.bin"), 0);
    Bytes got = ReadAll(zm, 65521, original.size() + 1);
    EXPECT_LE(got.size(), original.size());
    if (d.kind == 2) {
        EXPECT_TRUE(std::equal(got.begin(), got.end(), original.begin()));
    }
    unsigned char buf[64];
    EXPECT_EQ(zm.Read(buf, sizeof buf), 0);
    EXPECT_EQ(zm.Read(buf, sizeof buf), 0);
    EXPECT_LE(zm.Tell(), static_cast<int>(original.size()));
    zm.Skip(0xFFFFFFF0u);
    EXPECT_LE(zm.Tell(), static_cast<int>(original.size()));
    ASSERT_EQ(zm.ChangeFile("a.bin"), 0);
    zm.Skip(static_cast<unsigned>(original.size() - 10));
    EXPECT_LE(zm.Tell(), static_cast<int>(original.size()));
}

INSTANTIATE_TEST_SUITE_P(Data, platform_zip_damage,
                         ::testing::Values(Damage{"DeflatedCorrupt", ZIP_CM_DEFLATE, 0},
                                           Damage{"StoredCorrupt", ZIP_CM_STORE, 1},
                                           Damage{"StoredWrongCrc", ZIP_CM_STORE, 2},
                                           Damage{"DeflatedWrongCrc", ZIP_CM_DEFLATE, 2}),
                         [](const ::testing::TestParamInfo<Damage> &info) {
                             return std::string(info.param.name);
                         });

} // namespace
