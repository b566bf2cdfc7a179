// Replays the saved inputs of one fuzz target (fuzz/regressions/<target>/, one crashing or
// once-crashing input per file) and a few inputs made from the test media through the target's
// own entry function, in the normal test run, without libFuzzer. Built once per target with
// AE_FUZZ_TARGET naming it.
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz_harness.h"
#include "test_support.h"

namespace {

using ae_test::read_file;

// One input through the entry function, with a deadline: a hang fails the process.
void replay(const std::string &what, const std::vector<uint8_t> &input) {
    ae_test::run_with_deadline("fuzz replay of " + what, 60000,
                               [&] { LLVMFuzzerTestOneInput(input.data(), input.size()); });
}

std::vector<uint8_t> withPrefix(std::vector<uint8_t> prefix, const std::string &file) {
    const std::vector<uint8_t> media = read_file(ae_test::media_path(file));
    EXPECT_FALSE(media.empty()) << file;
    prefix.insert(prefix.end(), media.begin(), media.end());
    return prefix;
}

TEST(AE_FUZZ_SUITE, SavedInputs) {
    setenv("AE_FUZZ_RAW_SPEEDS", "1", 1); // saved inputs keep the values they were found with
    ae_fuzz::init();
    const std::string dir = std::string(AE_FUZZ_REGRESSIONS) + "/" + AE_FUZZ_TARGET;
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        replay(name, read_file(dir + "/" + name));
    }
    printf("replayed %zu saved inputs from %s\n", names.size(), dir.c_str());
}

TEST(AE_FUZZ_SUITE, MediaInputs) {
    ae_fuzz::init();
    const std::string target = AE_FUZZ_TARGET;
    std::vector<std::vector<uint8_t>> inputs;
    if (target == "stream") {
        // tempo 1.0, rate 1.0, flags, no equaliser, 16 idle operations, then the media
        std::vector<uint8_t> plain = {254, 254, 0, 0};
        plain.resize(20, 7);
        std::vector<uint8_t> unseekable = {200, 64, 3, 1, 0, 0x10, 0x27, 6};
        for (uint8_t op = 0; op < 16; ++op)
            unseekable.push_back(op);
        for (const char *file : {"tone440_3s.mp3", "cover_png_3s.flac", "tags_chapters_80s.mka"})
            inputs.push_back(withPrefix(plain, file));
        inputs.push_back(withPrefix(unseekable, "tone440_3s.ogg"));
        inputs.push_back(std::vector<uint8_t>(plain.begin(), plain.end()));
    } else if (target == "zip") {
        const std::string member = "sub/steps_10s.mp3";
        std::vector<uint8_t> prefix = {static_cast<uint8_t>(member.size())};
        prefix.insert(prefix.end(), member.begin(), member.end());
        prefix.insert(prefix.end(), {0, 10, 1, 2, 3, 0, 200, 7});
        inputs.push_back(withPrefix(prefix, "book_deflated.zip"));
        inputs.push_back(withPrefix(prefix, "book_stored.zip"));
        inputs.push_back(withPrefix(prefix, "book_corrupt.zip"));
    } else {
        inputs.push_back({3, 254, 254, 0});
        inputs.push_back({3, 250, 251, 2, 0, 0x40, 0x1f, 6, 0, 0xe8, 3, 250});
        inputs.push_back({9, 0, 0, 1, 0x80, 255, 255, 255, 127, 0, 0, 0, 128, 2, 2, 3, 3, 4, 1});
        inputs.push_back({5, 255, 0, 0, 0, 0, 0, 0, 0, 0, 255, 0, 0, 0, 0, 0, 0, 0xf8, 0x7f});
    }
    for (size_t i = 0; i < inputs.size(); ++i) {
        SCOPED_TRACE(i);
        replay("media input " + std::to_string(i), inputs[i]);
    }
}

} // namespace
