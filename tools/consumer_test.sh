#!/usr/bin/env bash
# Builds tools/examples/minimal.cpp outside the source tree, as an application does, and plays a
# 2 s tone with each build:
#   1. against an installed prefix (`cmake --install BUILD --prefix` a temporary folder), once
#      with pkg-config and once with find_package(AudioEngine);
#   2. against the armhf Debian packages in PKGDIR/armhf, installed into the machine's multiarch
#      tree (dpkg -i, removed again at the end), with the cross compiler, again with pkg-config
#      and with find_package, run under qemu.
# There is no sound card: an ALSA configuration of this script's own makes the device's PCM
# `mpd_sm` an ALSA file PCM, so what the library plays lands in a WAV file, which must hold the
# tone (its length, and a level far above silence).
# usage: tools/consumer_test.sh BUILD PKGDIR    (./dev consumer-test; ./dev package makes PKGDIR)
set -euo pipefail
build=$(cd "$1" && pwd)
pkgdir=$2
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/ae-consumer.XXXXXX")
sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
installed_armhf=()

cleanup() {
    if [ ${#installed_armhf[@]} -gt 0 ]; then
        dpkg_locked -r "${installed_armhf[@]}" >/dev/null || echo "consumer: could not remove ${installed_armhf[*]}" >&2
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# dpkg, waiting while another dpkg or apt holds its lock (machines shared by several builds).
dpkg_locked() {
    local _
    for _ in $(seq 60); do
        $sudo dpkg "$@" 2>"$work/dpkg.err" && return 0
        grep -q "lock" "$work/dpkg.err" || break
        sleep 5
    done
    cat "$work/dpkg.err" >&2
    return 1
}

fail() {
    echo "consumer: FAILED: $*" >&2
    exit 1
}

ffmpeg -v error -f lavfi -i sine=frequency=440:duration=2 -ac 2 -ar 44100 "$work/tone.flac"

# play NAME COMMAND...: runs the program on the tone with mpd_sm written to NAME.wav, then checks
# that file: 2 s of 44.1 kHz stereo S16 are 352800 bytes; the tone peaks near -20 dBFS.
play() {
    local name=$1
    shift
    cat >"$work/$name.asoundrc" <<CONF
pcm.mpd_sm {
    type file
    slave.pcm { type null }
    file "$work/$name.wav"
    format "wav"
}
CONF
    ALSA_CONFIG_PATH="$work/$name.asoundrc" "$@" "$work/tone.flac" >"$work/$name.log" 2>&1 ||
        { cat "$work/$name.log" >&2; fail "$name: the program failed"; }
    local size peak
    size=$(stat -c %s "$work/$name.wav" 2>/dev/null || echo 0)
    if [ "$size" -lt 330000 ] || [ "$size" -gt 400000 ]; then
        fail "$name: $work/$name.wav has $size bytes, not about 2 s of audio (352844)"
    fi
    peak=$(ffmpeg -nostats -i "$work/$name.wav" -af volumedetect -f null - 2>&1 |
           sed -n 's/.*max_volume: \(-*[0-9.]*\) dB.*/\1/p')
    awk -v p="${peak:--999}" 'BEGIN { exit !(p > -30 && p < -12) }' ||
        fail "$name: the WAV peaks at ${peak:-?} dB, not near the tone's level"
    echo "consumer: $name played the tone ($size bytes, peak $peak dB)"
}

# --- 1. The host build, installed into a prefix -------------------------------------------------
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
pc=$(find "$prefix" -name audio-engine.pc)
libdir=$(dirname "$(dirname "$pc")")

# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror "$src/tools/examples/minimal.cpp" -pthread -o "$work/minimal-pc" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs audio-engine)
LD_LIBRARY_PATH=$libdir play host-pkg-config "$work/minimal-pc"

cmake -S "$src/tools/examples/consumer" -B "$work/cmake-host" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/cmake-host.log" 2>&1 || { cat "$work/cmake-host.log" >&2; fail "host find_package"; }
cmake --build "$work/cmake-host" >>"$work/cmake-host.log" 2>&1 ||
    { cat "$work/cmake-host.log" >&2; fail "host find_package build"; }
grep "AudioEngine " "$work/cmake-host.log"
# The prefix is outside the loader's paths: the program's run path (CMake sets one) finds the
# library, but not the library's own dependency on the host platform layer.
LD_LIBRARY_PATH=$libdir play host-find-package "$work/cmake-host/minimal"

# --- 2. The armhf packages, installed into the multiarch tree -----------------------------------
debs=()
for p in libaudio-engine1 libaudio-engine-host1 libaudio-engine-dev; do
    f=$(find "$pkgdir/armhf" -maxdepth 1 -name "${p}_*_armhf.deb" 2>/dev/null | sort | tail -1)
    [ -n "$f" ] || fail "no $p armhf package in $pkgdir/armhf (./dev package makes them)"
    debs+=("$f")
done
dpkg_locked -i "${debs[@]}" >/dev/null
installed_armhf=(libaudio-engine-dev:armhf libaudio-engine1:armhf libaudio-engine-host1:armhf)

# shellcheck disable=SC2046
arm-linux-gnueabihf-g++ -std=c++17 -Wall -Wextra -Werror "$src/tools/examples/minimal.cpp" \
    -pthread -o "$work/minimal-armhf-pc" $(arm-linux-gnueabihf-pkg-config --cflags --libs audio-engine)
readelf -h "$work/minimal-armhf-pc" | grep -q "Machine: *ARM$" || fail "not an armhf program"
# -L /: the armhf loader and libraries of the multiarch tree (see cmake/toolchains/armhf.cmake).
play armhf-pkg-config qemu-arm -L / "$work/minimal-armhf-pc"

cmake -S "$src/tools/examples/consumer" -B "$work/cmake-armhf" \
    -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchains/armhf.cmake" >"$work/cmake-armhf.log" 2>&1 ||
    { cat "$work/cmake-armhf.log" >&2; fail "armhf find_package"; }
cmake --build "$work/cmake-armhf" >>"$work/cmake-armhf.log" 2>&1 ||
    { cat "$work/cmake-armhf.log" >&2; fail "armhf find_package build"; }
grep "AudioEngine " "$work/cmake-armhf.log"
play armhf-find-package qemu-arm -L / "$work/cmake-armhf/minimal"
echo "consumer: 4 passed, 0 failed"
