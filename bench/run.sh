#!/bin/bash
# Benchmark: CPU time and peak memory of the engine playing 10-minute files into ALSA's null PCM,
# against the ffmpeg tool running the same decode and filter chain into the same PCM.
#
#   bench/run.sh <build-dir> [runs]        (./dev bench runs `bench/run.sh build`)
#
# Brings engine_bench in <build-dir> up to date, generates the media once into
# <build-dir>/bench/media, runs every file x setting `runs` times (default 3) with each program
# and prints a Markdown table: median CPU seconds per hour of audio, median peak RSS, ratios.
# Then runs zip_bench.sh (zip-member input) with the same number of runs, unless
# BENCH_SKIP_ZIP=1. The load average before and after is printed: the numbers mean little on a
# machine that is busy with other work.
set -euo pipefail

build=${1:?usage: run.sh <build-dir> [runs]}
runs=${2:-3}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
media=$build/bench/media
bench=$build/bench/engine_bench
export ALSA_CONFIG_PATH=$here/asound.conf
FFMPEG=${FFMPEG:-ffmpeg}
FFPROBE=${FFPROBE:-ffprobe}
SECONDS_OF_AUDIO=600

# Always through the build tool: an engine_bench left from an older engine would be measured.
cmake --build "$build" -j2 --target engine_bench >/dev/null

# --- Media: 10 minutes of a tone over pink noise, 44.1 kHz stereo ---------------------------
mkdir -p "$media"
make_media() { # make_media <file> <codec arguments...>
    local file=$1
    shift
    [ -e "$media/$file" ] && return 0
    "$FFMPEG" -nostdin -y -loglevel error \
        -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=$SECONDS_OF_AUDIO" \
        -f lavfi -i "anoisesrc=color=pink:amplitude=0.2:sample_rate=44100:duration=$SECONDS_OF_AUDIO" \
        -filter_complex "[0:a][1:a]amix=inputs=2:normalize=0,pan=stereo|c0=c0|c1=c0[a]" \
        -map "[a]" "$@" "$media/.tmp.$file"
    mv "$media/.tmp.$file" "$media/$file"
}
make_media long.mp3 -c:a libmp3lame -b:a 128k -f mp3
make_media long.m4a -c:a aac -b:a 128k -f ipod
make_media long.flac -c:a flac -f flac
make_media long.ogg -c:a libvorbis -q:a 4 -f ogg

# --- The engine's filter chain, as it builds it -------------------------------------------------
# Ten bands; the same points as engine_bench --eq.
BANDS="31:3 62:2 125:1 250:0 500:-1 1000:-2 2000:-1 4000:0 8000:2 16000:3"
eq_filter() {
    local entries="" sep=""
    for b in $BANDS; do
        entries+="${sep}entry($(printf '%.1f' "${b%%:*}"), $(printf '%.1f' "${b##*:}"))"
        sep="; "
    done
    echo "firequalizer=gain_entry='$entries'"
}
# chain <tempo> <stream rate> <eq 0|1>: tempo split over two stages, rate stage, optional
# equaliser, output format.
chain() {
    local t=$1 sr=$2 eq=$3 first second
    read -r first second < <(awk -v t="$t" 'BEGIN {
        if (t < 0.5) { f = 0.5; s = t * 2 } else if (t > 2.0) { f = 2.0; s = t * 0.5 }
        else { f = t; s = 1.0 }
        printf "%.1f %.1f\n", f, s }')
    local c="atempo=tempo=$first,atempo=tempo=$second,asetrate=$sr"
    [ "$eq" = 1 ] && c+=",$(eq_filter)"
    echo "$c,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3"
}
# The levelling graph behind the chain at the strong level (engine_bench --level 2).
LEVEL=",asetnsamples=n=1024:p=0,speechnorm=p=0.5:e=10:c=2:r=0.02:f=0.01:t=0.015:l=1,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3"


# measure <command...>: prints "<user+sys seconds> <max RSS kB>" of one run.
measure() {
    local tf rc=0
    tf=$(mktemp)
    /usr/bin/time -o "$tf" -f '%U %S %M' "$@" >/dev/null 2>&1 || rc=$?
    if [ "$rc" != 0 ]; then
        echo "run.sh: failed ($rc): $*" >&2
        rm -f "$tf"
        return 1
    fi
    awk '{ printf "%.3f %d\n", $1 + $2, $3 }' "$tf"
    rm -f "$tf"
}
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

echo "Load average before: $(cut -d' ' -f1-3 /proc/loadavg) ($(nproc) CPUs); median of $runs runs"
echo
printf '| file | setting | engine CPU s/h | ffmpeg CPU s/h | CPU ratio | engine peak RSS MB | ffmpeg peak RSS MB | RSS ratio |\n'
printf '|---|---|---:|---:|---:|---:|---:|---:|\n'
for file in long.mp3 long.m4a long.flac long.ogg; do
    path=$media/$file
    sr=$("$FFPROBE" -v error -select_streams a:0 -show_entries stream=sample_rate -of csv=p=0 "$path")
    dur=$("$FFPROBE" -v error -select_streams a:0 -show_entries format=duration -of csv=p=0 "$path")
    # Skip silence has no counterpart in the tool: its row's tool runs the plain chain, so its
    # CPU ratio over the tempo 1.0 row's is the stage's own cost.
    for setting in "tempo 1.0" "tempo 1.5" "equaliser" "levelling" "skip silence"; do
        case $setting in
        "tempo 1.0") args=(--tempo 1.0); af=$(chain 1.0 "$sr" 0) ;;
        "tempo 1.5") args=(--tempo 1.5); af=$(chain 1.5 "$sr" 0) ;;
        equaliser) args=(--tempo 1.0 --eq); af=$(chain 1.0 "$sr" 1) ;;
        levelling) args=(--tempo 1.0 --level 2); af=$(chain 1.0 "$sr" 0)$LEVEL ;;
        "skip silence") args=(--tempo 1.0 --skip 1); af=$(chain 1.0 "$sr" 0) ;;
        esac
        ecpu=() ; erss=() ; fcpu=() ; frss=()
        for ((i = 0; i < runs; i++)); do
            # Plain assignments, so that a failed run stops the script (set -e).
            out=$(measure "$bench" "$path" "${args[@]}")
            read -r c m <<<"$out"
            ecpu+=("$c"); erss+=("$m")
            out=$(measure "$FFMPEG" -nostdin -loglevel error -i "$path" -af "$af" -f alsa null)
            read -r c m <<<"$out"
            fcpu+=("$c"); frss+=("$m")
        done
        ec=$(printf '%s\n' "${ecpu[@]}" | median); fc=$(printf '%s\n' "${fcpu[@]}" | median)
        er=$(printf '%s\n' "${erss[@]}" | median); fr=$(printf '%s\n' "${frss[@]}" | median)
        awk -v f="$file" -v s="$setting" -v d="$dur" -v ec="$ec" -v fc="$fc" -v er="$er" \
            -v fr="$fr" 'BEGIN {
            h = d / 3600
            printf "| %s | %s | %.2f | %.2f | %.2f | %.1f | %.1f | %.2f |\n", f, s, ec / h,
                fc / h, ec / fc, er / 1024, fr / 1024, er / fr }'
    done
done
echo
echo "Load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

if [ "${BENCH_SKIP_ZIP:-0}" != 1 ]; then
    echo
    "$here/zip_bench.sh" "$build" "$runs"
fi
