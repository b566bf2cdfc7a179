#!/bin/sh
# Generates the test media into the directory given as $1 with the ffmpeg tool. Idempotent: a
# file that already exists is left alone (delete it to regenerate). Content is deterministic:
# sine tones, a test-pattern video and a sample ramp whose values tests can recompute.
# Prints nothing on success; on failure names the file and exits non-zero.
set -eu

out=${1:?usage: generate_media.sh <output-dir>}
FFMPEG=${FFMPEG:-ffmpeg}
mkdir -p "$out"
cd "$out"

# Bit-exact output (no encoder tag or date), so regenerated files do not change.
BITEXACT="-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1"

# make <file> <ffmpeg arguments...>: runs ffmpeg into a temporary name and renames it, so an
# interrupted run never leaves a half-written file behind.
make() {
    file=$1
    shift
    [ -e "$file" ] && return 0
    tmp=".tmp.$$.$file"
    if ! "$FFMPEG" -nostdin -y -loglevel error "$@" $BITEXACT "$tmp"; then
        rm -f "$tmp"
        echo "generate_media.sh: cannot make $file" >&2
        exit 1
    fi
    mv "$tmp" "$file"
}

# The sine source has amplitude 1/8; "-ac 2" copies it to both channels at -3 dB (peak about
# 2900, about -24 dBFS RMS per channel).
sine() { # sine <frequency> <rate> <seconds>
    echo "sine=frequency=$1:sample_rate=$2:duration=$3"
}

# --- 440 Hz, 3 s, 44100 Hz stereo, in every container the player handles ------------------
S440="-f lavfi -i $(sine 440 44100 3)"
make tone440_3s.wav $S440 -ac 2 -c:a pcm_s16le -f wav
make tone440_3s.mp3 $S440 -ac 2 -c:a libmp3lame -b:a 128k -f mp3
make tone440_3s.flac $S440 -ac 2 -c:a flac -f flac
make tone440_3s.ogg $S440 -ac 2 -c:a libvorbis -q:a 4 -f ogg
make tone440_3s.opus $S440 -ac 2 -c:a libopus -b:a 96k -f opus
make tone440_3s.m4a $S440 -ac 2 -c:a aac -b:a 128k -f ipod

# --- Other tones and a mix ---------------------------------------------------------------------
make tone1000_3s.wav -f lavfi -i "$(sine 1000 44100 3)" -ac 2 -c:a pcm_s16le -f wav
make tone100_3s.wav -f lavfi -i "$(sine 100 44100 3)" -ac 2 -c:a pcm_s16le -f wav
make mix100_1000_3s.wav -f lavfi -i "$(sine 100 44100 3)" -f lavfi -i "$(sine 1000 44100 3)" \
    -filter_complex "[0:a][1:a]amix=inputs=2:normalize=0[a]" -map "[a]" \
    -ac 2 -c:a pcm_s16le -f wav

# --- Channel layouts and sample rates --------------------------------------------------------
make tone440_3s_mono.wav $S440 -ac 1 -c:a pcm_s16le -f wav
for rate in 8000 22050 48000 96000; do
    make tone440_3s_$rate.wav -f lavfi -i "$(sine 440 $rate 3)" -ac 2 -c:a pcm_s16le -f wav
done
make tone440_3s_5.1.flac $S440 -af "pan=5.1|FL=c0|FR=c0|FC=c0|LFE=c0|BL=c0|BR=c0" \
    -c:a flac -f flac

# --- Video ------------------------------------------------------------------------------------
make av_3s.mp4 -f lavfi -i "testsrc=size=160x120:rate=10:duration=3" $S440 \
    -map 0:v -map 1:a -c:v libx264 -preset ultrafast -pix_fmt yuv420p -threads 1 \
    -c:a aac -b:a 128k -ac 2 -shortest -f mp4
make video_only_3s.mp4 -f lavfi -i "testsrc=size=160x120:rate=10:duration=3" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -threads 1 -an -f mp4

# --- Longer file, for seeking -----------------------------------------------------------------
make tone440_10s.mp3 -f lavfi -i "$(sine 440 44100 10)" -ac 2 -c:a libmp3lame -b:a 128k -f mp3

# --- Known samples: 1 s of 44100 Hz stereo S16 whose values tests can recompute --------------
#   left[n]  = ((n * 37) mod 65536) - 32768
#   right[n] = ((n * 101 + 12345) mod 65536) - 32768
# (test_support.h: known_pcm_sample()).
make known_pcm_1s.wav -f lavfi \
    -i "aevalsrc=exprs=(mod(n*37\,65536)-32768)/32768|(mod(n*101+12345\,65536)-32768)/32768:c=stereo:s=44100:d=1" \
    -c:a pcm_s16le -f wav

# --- Broken files -----------------------------------------------------------------------------
[ -e empty.mp3 ] || : >empty.mp3
[ -e not_audio.mp3 ] || printf 'This is a plain text file, not audio.\nIt only has an .mp3 name.\n' \
    >not_audio.mp3

if [ ! -e tone440_truncated.mp3 ]; then
    size=$(wc -c <tone440_10s.mp3)
    head -c $((size * 30 / 100)) tone440_10s.mp3 >.tmp.$$.truncated
    mv .tmp.$$.truncated tone440_truncated.mp3
fi

# 16 KiB of text written over the middle of the 10 s file.
if [ ! -e tone440_corrupt.mp3 ]; then
    size=$(wc -c <tone440_10s.mp3)
    cp tone440_10s.mp3 .tmp.$$.corrupt
    yes 'corrupted frame data, not mpeg audio' | head -c 16384 |
        dd of=.tmp.$$.corrupt bs=1024 seek=$((size / 2 / 1024)) conv=notrunc status=none
    mv .tmp.$$.corrupt tone440_corrupt.mp3
fi
