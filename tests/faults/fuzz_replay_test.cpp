// Each fuzz target's saved inputs (fuzz/regressions/<target>/: each once crashed the library) and
// its seed corpus (fuzz/make_seeds.sh over the test media) through its entry function, in time.
#include <glob.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

int ae_fuzz_stream(const uint8_t *data, size_t size);
int ae_fuzz_zip(const uint8_t *data, size_t size);
int ae_fuzz_filters(const uint8_t *data, size_t size);

TEST(FuzzReplay, SavedInputsAndSeedsPass) {
    setenv("AE_FUZZ_RAW_SPEEDS", "1", 1); // saved inputs keep the values they were found with
    const std::string seeds = ae_test::tmp_path("fuzz_seeds_" + std::to_string(getpid())) + "/";
    const std::string make = "sh " AE_FUZZ_DIR "/make_seeds.sh " + ae_test::media_path("") + " ";
    ASSERT_EQ(system((make + seeds + " >/dev/null").c_str()), 0);
    const std::pair<std::string, int (*)(const uint8_t *, size_t)> targets[] = {
        {"stream", ae_fuzz_stream}, {"zip", ae_fuzz_zip}, {"filters", ae_fuzz_filters}};
    for (const auto &target : targets) {
        glob_t seen; // sorted, hidden files left out
        glob((AE_FUZZ_DIR "/regressions/" + target.first + "/*").c_str(), 0, nullptr, &seen);
        ASSERT_EQ(glob((seeds + target.first + "/*").c_str(), GLOB_APPEND, nullptr, &seen), 0);
        for (size_t i = 0; i < seen.gl_pathc; ++i) {
            const std::vector<uint8_t> input = ae_test::read_file(seen.gl_pathv[i]);
            ae_test::run_with_deadline(std::string("fuzz replay of ") + seen.gl_pathv[i], 60000,
                                       [&] { target.second(input.data(), input.size()); });
        }
        globfree(&seen);
    }
}
