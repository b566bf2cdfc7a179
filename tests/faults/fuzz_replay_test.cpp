// Each fuzz target's saved inputs (fuzz/regressions/<target>/: each once crashed the library) and
// inputs made from the test media, through the targets' entry functions, each with a deadline.
#include <dirent.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "test_support.h"

int ae_fuzz_stream(const uint8_t *data, size_t size);
int ae_fuzz_zip(const uint8_t *data, size_t size);
int ae_fuzz_filters(const uint8_t *data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;
const Bytes kPlain = {254, 254, 0, 0, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
const Bytes kUnseekable = {
    200, 64, 3, 1, 0, 0x10, 0x27, 6,  0,  1,  2, 3, 4,
    5,   6,  7, 8, 9, 10,   11,   12, 13, 14, 15}; // tempo, rate, flags, one equaliser point,
                                                   // operations
const Bytes kZip = {17,  's', 'u', 'b', '/', 's', 't', 'e', 'p', 's', '_', '1', '0', 's',
                    '.', 'm', 'p', '3', 0,   10,  1,   2,   3,   0,   200, 7}; // member, operations

struct Target {
    const char *name;
    int (*entry)(const uint8_t *, size_t);
    std::vector<std::pair<Bytes, std::string>> made; // a prefix and the media appended to it
};

class FuzzReplay : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzReplay, SavedAndMediaInputsPass) {
    setenv("AE_FUZZ_RAW_SPEEDS", "1", 1); // saved inputs keep the values they were found with
    const Target &t = GetParam();
    const std::string dir = std::string(AE_FUZZ_REGRESSIONS) + "/" + t.name;
    std::vector<std::pair<std::string, Bytes>> inputs;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.')
                inputs.emplace_back(e->d_name, ae_test::read_file(dir + "/" + e->d_name));
        closedir(d);
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &m : t.made) {
        Bytes b = m.first, media = ae_test::read_file(ae_test::media_path(m.second));
        ASSERT_EQ(media.empty(), m.second.empty()) << m.second;
        b.insert(b.end(), media.begin(), media.end());
        inputs.emplace_back("media " + m.second, b);
    }
    for (const auto &in : inputs)
        ae_test::run_with_deadline("fuzz replay of " + in.first, 60000,
                                   [&] { t.entry(in.second.data(), in.second.size()); });
}

INSTANTIATE_TEST_SUITE_P(
    Targets, FuzzReplay,
    ::testing::Values(
        Target{"stream",
               ae_fuzz_stream,
               {{kPlain, "tone440_3s.mp3"},
                {kPlain, "cover_png_3s.flac"},
                {kPlain, "tags_chapters_80s.mka"},
                {kUnseekable, "tone440_3s.ogg"},
                {kPlain, ""}}},
        Target{
            "zip",
            ae_fuzz_zip,
            {{kZip, "book_deflated.zip"}, {kZip, "book_stored.zip"}, {kZip, "book_corrupt.zip"}}},
        Target{"filters",
               ae_fuzz_filters,
               {{{3, 254, 254, 0}, ""},
                {{3, 250, 251, 2, 0, 0x40, 0x1f, 6, 0, 0xe8, 3, 250}, ""},
                {{9, 0, 0, 1, 0x80, 255, 255, 255, 127, 0, 0, 0, 128, 2, 2, 3, 3, 4, 1}, ""},
                {{5, 255, 0, 0, 0, 0, 0, 0, 0, 0, 255, 0, 0, 0, 0, 0, 0, 0xf8, 0x7f}, ""}}}),
    [](const ::testing::TestParamInfo<Target> &info) { return info.param.name; });

} // namespace
