#!/bin/bash
# Benchmark of zip-member input: a 10-minute MP3 played as a deflated (and a stored) member of a
# zip archive against the same file on disk (CPU time through engine_bench, into ALSA's null
# PCM), and the time a backward seek inside the member takes (restart and skip, zip_seek_bench).
#
#   bench/zip_bench.sh <build-dir> [runs]
#
# Brings engine_bench in <build-dir> up to date, builds zip_seek_bench next to it, generates the
# media once into <build-dir>/bench/zip_media and prints Markdown tables. run.sh calls it too.
set -euo pipefail

build=${1:?usage: zip_bench.sh <build-dir> [runs]}
runs=${2:-5}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build=$(cd "$build" && pwd)
media=$build/bench/zip_media
bench=$build/bench/engine_bench
seekbench=$build/bench/zip_seek_bench
export ALSA_CONFIG_PATH=$here/asound.conf
FFMPEG=${FFMPEG:-ffmpeg}
CXX=${CXX:-c++}

cmake --build "$build" -j2 --target engine_bench >/dev/null
[ -e "$build/audio-engine/libaudio-engine-host.so" ] ||
    cmake --build "$build" -j2 --target audio-engine-host >/dev/null
if [ ! -x "$seekbench" ] || [ "$here/zip_seek_bench.cpp" -nt "$seekbench" ]; then
    "$CXX" -std=c++17 -O2 -Wall -Wextra -Werror -I"$root/audio-engine/platform" \
        "$here/zip_seek_bench.cpp" -L"$build/audio-engine" -laudio-engine-host \
        -Wl,-rpath,"$build/audio-engine" -o "$seekbench"
fi

# --- Media: 10 minutes of a tone over pink noise, MP3 128 kb/s, zipped stored and deflated ----
mkdir -p "$media"
if [ ! -e "$media/long.mp3" ]; then
    "$FFMPEG" -nostdin -y -loglevel error \
        -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=600" \
        -f lavfi -i "anoisesrc=color=pink:amplitude=0.2:sample_rate=44100:duration=600" \
        -filter_complex "[0:a][1:a]amix=inputs=2:normalize=0,pan=stereo|c0=c0|c1=c0[a]" \
        -map "[a]" -c:a libmp3lame -b:a 128k -f mp3 "$media/.tmp.long.mp3"
    mv "$media/.tmp.long.mp3" "$media/long.mp3"
fi
[ -e "$media/deflated.zip" ] || (cd "$media" && zip -q -X -9 .tmp.deflated.zip long.mp3 &&
    mv .tmp.deflated.zip deflated.zip)
[ -e "$media/stored.zip" ] || (cd "$media" && zip -q -X -0 .tmp.stored.zip long.mp3 &&
    mv .tmp.stored.zip stored.zip)

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

cpu_of() { # cpu_of <path>: median CPU seconds of `runs` plays
    for _ in $(seq "$runs"); do
        "$bench" "$1" 2>/dev/null | sed -n 's/.*cpu_s=\([0-9.]*\).*/\1/p'
    done | median
}

plain=$(cpu_of "$media/long.mp3")
deflated=$(cpu_of "$media/deflated.zip:#zip(long.mp3)")
stored=$(cpu_of "$media/stored.zip:#zip(long.mp3)")

echo "## Playing a 10-minute MP3 (128 kb/s) from a zip member, median of $runs runs"
echo
echo "| Source | CPU s | Ratio to the plain file |"
echo "|---|---|---|"
echo "| plain file | $plain | 1.00 |"
echo "| deflated member | $deflated | $(awk -v a="$deflated" -v b="$plain" 'BEGIN{printf "%.3f", a/b}') |"
echo "| stored member | $stored | $(awk -v a="$stored" -v b="$plain" 'BEGIN{printf "%.3f", a/b}') |"
echo
echo "## Backward seek inside the member (restart and skip to the target), median of $runs"
echo
echo "| Member | Target | Bytes skipped | ms (median) | ms (min) |"
echo "|---|---|---|---|---|"
for kind in deflated stored; do
    "$seekbench" "$media/$kind.zip" long.mp3 "$runs" |
        sed -n 's/target_pct=\([0-9]*\) target_bytes=\([0-9]*\) ms_median=\([0-9.]*\) ms_min=\([0-9.]*\)/| '"$kind"' | \1 % | \2 | \3 | \4 |/p'
done
