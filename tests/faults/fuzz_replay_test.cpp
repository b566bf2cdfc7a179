// Each fuzz target's saved inputs (fuzz/regressions/<target>/: each once crashed the library) and
// its seed corpus made from the test media by fuzz/make_seeds.sh, through the target's entry
// function, each input with a deadline.
#include <dirent.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "test_support.h"

int ae_fuzz_stream(const uint8_t *data, size_t size);
int ae_fuzz_zip(const uint8_t *data, size_t size);
int ae_fuzz_filters(const uint8_t *data, size_t size);

namespace {

using Target = std::pair<std::string, int (*)(const uint8_t *, size_t)>;
class FuzzReplay : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzReplay, SavedInputsAndSeedsPass) {
    setenv("AE_FUZZ_RAW_SPEEDS", "1", 1); // saved inputs keep the values they were found with
    const std::string seeds = ae_test::tmp_path("fuzz_seeds_" + std::to_string(getpid()));
    static const int made = system(("sh " AE_FUZZ_DIR "/make_seeds.sh " + ae_test::media_path("") +
                                    " " + seeds + " >/dev/null")
                                       .c_str());
    ASSERT_EQ(made, 0);
    for (const std::string &dir :
         {AE_FUZZ_DIR "/regressions/" + GetParam().first, seeds + "/" + GetParam().first}) {
        std::vector<std::string> names;
        if (DIR *d = opendir(dir.c_str())) {
            while (dirent *e = readdir(d))
                if (e->d_name[0] != '.')
                    names.push_back(dir + "/" + e->d_name);
            closedir(d);
        }
        std::sort(names.begin(), names.end());
        for (const std::string &name : names) {
            const std::vector<uint8_t> input = ae_test::read_file(name);
            ae_test::run_with_deadline("fuzz replay of " + name, 60000,
                                       [&] { GetParam().second(input.data(), input.size()); });
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay,
                         ::testing::Values(Target{"stream", ae_fuzz_stream},
                                           Target{"zip", ae_fuzz_zip},
                                           Target{"filters", ae_fuzz_filters}),
                         [](const ::testing::TestParamInfo<Target> &info) {
                             return info.param.first;
                         });

} // namespace
