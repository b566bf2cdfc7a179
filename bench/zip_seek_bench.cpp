// zip_seek_bench: the cost of a backward seek inside a zip member, as the engine's zip I/O
// context performs it: restart the member (ChangeFile) and skip from its start to the target.
//
//   zip_seek_bench ARCHIVE MEMBER [runs]
//
// For targets at 10 %, 25 %, 50 %, 75 % and 90 % of the member, one line each:
//   target_pct=<p> target_bytes=<n> ms_median=<ms> ms_min=<ms>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "QzZipManager.h"

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: zip_seek_bench ARCHIVE MEMBER [runs]\n");
        return 2;
    }
    const std::string member = argv[2];
    const int runs = argc > 3 ? std::max(1, atoi(argv[3])) : 5;
    tavrel::QzZipManager zip;
    if (zip.Open(argv[1], member) != 0) {
        fprintf(stderr, "cannot open %s in %s\n", argv[2], argv[1]);
        return 1;
    }
    const unsigned int size = zip.GetCurrentFileSize();
    for (int pct : {10, 25, 50, 75, 90}) {
        const unsigned int target =
            static_cast<unsigned int>(static_cast<double>(size) * pct / 100);
        std::vector<double> ms;
        for (int r = 0; r < runs; ++r) {
            zip.Skip(size); // stand at the end, as after playing on
            const auto t0 = std::chrono::steady_clock::now();
            zip.ChangeFile(member);
            zip.Skip(target);
            const auto t1 = std::chrono::steady_clock::now();
            if (zip.Tell() != static_cast<int>(target)) {
                fprintf(stderr, "landed at %d, not %u\n", zip.Tell(), target);
                return 1;
            }
            ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        }
        std::sort(ms.begin(), ms.end());
        printf("target_pct=%d target_bytes=%u ms_median=%.2f ms_min=%.2f\n", pct, target,
               ms[ms.size() / 2], ms.front());
    }
    return 0;
}
