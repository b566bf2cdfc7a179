#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) and runs each for a while.
#   fuzz/run.sh <build-dir> <seconds-per-target> [target...]
# Targets: stream zip filters (default: all). Each run starts from the seed corpus made from
# the test media and from what earlier runs kept in <build-dir>/fuzz/corpus/<target>. A crash
# leaves its input in <build-dir>/fuzz/artifacts/<target>/ and makes the script fail; copy it to
# fuzz/regressions/<target>/ so the regression test replays it. A summary line per target
# (executions, executions per second, coverage) goes to <build-dir>/fuzz/summary.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:?usage: fuzz/run.sh <build-dir> <seconds-per-target> [target...]}
seconds=${2:?usage: fuzz/run.sh <build-dir> <seconds-per-target> [target...]}
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(stream zip filters)
JOBS=${JOBS:-2}

cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAE_BUILD_FUZZ=ON -DAE_BUILD_BENCH=OFF \
    -DAE_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" -j "$JOBS" --target fuzz_seeds "${targets[@]/#/fuzz_}" \
    vcard_control

out=$(cd "$dir" && pwd)/fuzz
: >"$out/summary.txt"
status=0
for t in "${targets[@]}"; do
    mkdir -p "$out/corpus/$t" "$out/artifacts/$t"
    log="$out/$t.log"
    # The saved inputs first: each once crashed the library and must not any more.
    saved=(fuzz/regressions/"$t"/*)
    if [ -e "${saved[0]}" ]; then
        echo "fuzz: $t: replaying ${#saved[@]} saved inputs from fuzz/regressions/$t"
        if ! AE_FUZZ_RAW_SPEEDS=1 ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1} \
            UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
            "$out/fuzz_$t" -close_fd_mask=2 -timeout=20 -rss_limit_mb=2560 "${saved[@]}" \
            >"$out/$t.regressions.log" 2>&1; then
            echo "fuzz: $t: a saved input still fails (log: $out/$t.regressions.log)" >&2
            grep -E 'ERROR|SUMMARY|runtime error|check failed' "$out/$t.regressions.log" |
                head -5 >&2 || true
            status=1
        fi
    fi
    echo "fuzz: $t for ${seconds}s (log: $log)"
    # close_fd_mask=2: the library's stream traces go to a closed standard error; libFuzzer and
    # the sanitizers keep reporting on a copy of it.
    if ! ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1} \
        UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
        "$out/fuzz_$t" "$out/corpus/$t" "$out/seeds/$t" \
        -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2560 -max_len=262144 \
        -close_fd_mask=2 -print_final_stats=1 \
        -artifact_prefix="$out/artifacts/$t/" >"$log" 2>&1; then
        echo "fuzz: $t FAILED; its input is in $out/artifacts/$t/" >&2
        grep -E 'ERROR|SUMMARY|check failed|deadly signal|Test unit written' "$log" | head -20 >&2 || true
        status=1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
    corpus=$(ls "$out/corpus/$t" | wc -l)
    echo "$t: ${runs:-?} executions, ${speed:-?}/s, ${cov:-no coverage line}, corpus $corpus files" |
        tee -a "$out/summary.txt"
done
exit $status
