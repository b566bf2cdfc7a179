#!/bin/sh
# Generates the test media into the directory given as $1 with the ffmpeg tool. Idempotent: a
# file that already exists is left alone (delete it to regenerate). Content is deterministic:
# sine tones, a test-pattern video and a sample ramp whose values tests can recompute.
# Prints nothing on success; on failure names the file and exits non-zero.
set -eu

out=${1:?usage: generate_media.sh <output-dir>}
FFMPEG=${FFMPEG:-ffmpeg}
here=$(cd "$(dirname "$0")" && pwd)
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

# The 3 s WAV with a header that claims 7 samples per second (byte rate 28), and one that
# claims 1,195,853,639 (0x47474747; byte rate 0x1c1c1c1c): damaged beyond what the filters run.
if [ ! -e rate_7hz.wav ]; then
    cp tone440_3s.wav .tmp.$$.rate
    printf '\007\000\000\000\034\000\000\000' |
        dd of=.tmp.$$.rate bs=1 seek=24 conv=notrunc status=none
    mv .tmp.$$.rate rate_7hz.wav
fi
if [ ! -e rate_1ghz.wav ]; then
    cp tone440_3s.wav .tmp.$$.rate
    printf 'GGGG\034\034\034\034' | dd of=.tmp.$$.rate bs=1 seek=24 conv=notrunc status=none
    mv .tmp.$$.rate rate_1ghz.wav
fi

# --- Tags, chapters and cover pictures -------------------------------------------------------
# make_tagged: as make, but the tags and chapters mapped on the command line are kept.
make_tagged() {
    file=$1
    shift
    [ -e "$file" ] && return 0
    tmp=".tmp.$$.$file"
    if ! "$FFMPEG" -nostdin -y -loglevel error "$@" -fflags +bitexact -flags:v +bitexact \
        -flags:a +bitexact "$tmp"; then
        rm -f "$tmp"
        echo "generate_media.sh: cannot make $file" >&2
        exit 1
    fi
    mv "$tmp" "$file"
}

# Tags as written (UTF-8, mixed-case keys, blanks kept) and three chapters: 0 to 1.999999 s
# (microseconds), 12.9 to 75.25 s (hundredths), 75.25 to 80 s without a title.
if [ ! -e tags_chapters.ffmeta ]; then
    cat >.tmp.$$.ffmeta <<'META'
;FFMETADATA1
title=Čítanka — 読書
artist=Author Name
Album=Mixed Case Key
comment=  spaced value  
[CHAPTER]
TIMEBASE=1/1000000
START=0
END=1999999
title=Opening
[CHAPTER]
TIMEBASE=1/100
START=1290
END=7525
title=Střed
[CHAPTER]
TIMEBASE=1/1000
START=75250
END=80000
META
    mv .tmp.$$.ffmeta tags_chapters.ffmeta
fi
make_tagged tags_chapters_80s.mka -f lavfi -i "$(sine 440 44100 80)" -i tags_chapters.ffmeta \
    -map 0:a -map_metadata 1 -map_chapters 1 -ac 1 -c:a libmp3lame -b:a 32k -f matroska
# Tags and a chapter but no audio stream: the open fails after the stream information.
make_tagged tags_video_only.mkv -f lavfi -i "testsrc=size=64x48:rate=5:duration=2" \
    -metadata title="No sound" -metadata Comment=pictures -map_chapters -1 \
    -c:v mjpeg -pix_fmt yuvj420p -f matroska

# Audio whose first second is recognisable: 300 Hz for 1 s, then 1000 Hz for 2 s.
MARKED="aevalsrc=exprs=0.25*sin(2*PI*t*if(lt(t\,1)\,300\,1000)):c=stereo:s=44100:d=3"
make marked_3s.mp3 -f lavfi -i "$MARKED" -c:a libmp3lame -b:a 128k -f mp3

# A 64x48 picture of four 32x24 blocks: red, green (top), blue, white (bottom), exact in PNG.
BLOCKS="color=c=0xFF0000:s=32x24:d=1,format=rgb24[r];color=c=0x00FF00:s=32x24:d=1,format=rgb24[g];\
color=c=0x0000FF:s=32x24:d=1,format=rgb24[b];color=c=0xFFFFFF:s=32x24:d=1,format=rgb24[w];\
[r][g]hstack[top];[b][w]hstack[bottom];[top][bottom]vstack"
make cover_rgbw.png -f lavfi -i "$BLOCKS" -frames:v 1 -c:v png -pix_fmt rgb24 -f image2
make cover_rgbw.jpg -i cover_rgbw.png -c:v mjpeg -q:v 2 -pix_fmt yuvj444p -f image2
# An odd-sized solid picture (rows of 37 pixels), 0x336699.
make cover_odd.png -f lavfi -i "color=c=0x336699:s=37x23:d=1,format=rgb24" -frames:v 1 \
    -c:v png -pix_fmt rgb24 -f image2

make cover_jpeg_3s.mp3 -f lavfi -i "$MARKED" -i cover_rgbw.jpg -map 0:a -map 1:v \
    -c:a libmp3lame -b:a 128k -c:v copy -disposition:v attached_pic -id3v2_version 3 -f mp3
make cover_png_3s.flac -f lavfi -i "$MARKED" -i cover_rgbw.png -map 0:a -map 1:v \
    -c:a flac -c:v copy -disposition:v attached_pic -f flac
make cover_odd_3s.mp3 -f lavfi -i "$MARKED" -i cover_odd.png -map 0:a -map 1:v \
    -c:a libmp3lame -b:a 128k -c:v copy -disposition:v attached_pic -id3v2_version 3 -f mp3

# --- Speech-like narration ---------------------------------------------------------------------
# speech "<amplitude>:<voice s>:<pause s> ...": voiced bursts (140 Hz and two harmonics, four
# syllables a second) with pauses of exactly the given lengths, over a -63 dBFS noise floor.
# An amplitude of 0.5 is about -14 dBFS RMS; 0.75 -10 dBFS; 0.075 -30 dBFS.
speech() {
    awk -v steps="$1" 'BEGIN {
        n = split(steps, seg, " "); t = 0; amp = ""
        for (i = 1; i <= n; i++) {
            split(seg[i], f, ":")
            amp = amp (amp == "" ? "" : "+") sprintf("between(t\\,%g\\,%g)*%g", t, t + f[2], f[1])
            t += f[2] + f[3]
        }
        printf "aevalsrc=exprs=(%s)*(0.7+0.3*sin(2*PI*4*t))*(sin(2*PI*140*t)+0.5*sin(2*PI*280*t)+0.3*sin(2*PI*420*t))+0.0017*(2*random(0)-1):c=mono:s=44100:d=%g", amp, t
    }'
}
# Pauses of 0.3, 2, 0.45, 1 s after a voice at -14 dBFS, then 0.3, 2, 0.6, 0.2 s after one 20 dB
# quieter, and a final 0.5 s (tests/engine/listening_test.cpp measures them).
make speech_pauses.mp3 -f lavfi \
    -i "$(speech "0.5:1:0.3 0.5:1:2 0.5:1:0.45 0.5:1:1 0.05:1:0.3 0.05:1:2 0.05:1:0.6 0.05:1:0.2 0.5:1:0.5")" \
    -ar 22050 -c:a libmp3lame -b:a 64k -f mp3
# A narration alternating a quiet (-30 dBFS) and a loud (-10 dBFS) voice every 5 s, each with a
# 0.5 s pause at its end.
make voice_levels.mp3 -f lavfi \
    -i "$(speech "0.075:4.5:0.5 0.75:4.5:0.5 0.075:4.5:0.5 0.75:4.5:0.5")" \
    -ar 22050 -c:a libmp3lame -b:a 64k -f mp3

# --- Zip archives ---------------------------------------------------------------------------------
# Ten seconds whose second k (0..9) is a tone of 200 + 100 k Hz, so a position can be heard.
make steps_10s.mp3 -f lavfi \
    -i "aevalsrc=exprs=0.25*sin(2*PI*t*(200+100*floor(t))):c=stereo:s=44100:d=10" \
    -c:a libmp3lame -b:a 128k -f mp3

# zip_archive <archive> <zip options>: steps_10s.mp3 and marked_3s.mp3 at the top and
# steps_10s.mp3 again as sub/steps_10s.mp3.
zip_archive() {
    archive=$1
    shift
    [ -e "$archive" ] && return 0
    work=.tmp.$$.zipwork
    rm -rf "$work"
    mkdir -p "$work/sub"
    cp steps_10s.mp3 marked_3s.mp3 "$work/"
    cp steps_10s.mp3 "$work/sub/"
    if ! (cd "$work" && zip -q -X "$@" ../.tmp.$$.zip steps_10s.mp3 marked_3s.mp3 \
        sub/steps_10s.mp3); then
        rm -rf "$work" .tmp.$$.zip
        echo "generate_media.sh: cannot make $archive" >&2
        exit 1
    fi
    rm -rf "$work"
    mv .tmp.$$.zip "$archive"
}
zip_archive book_stored.zip -0
zip_archive book_deflated.zip -9

# The first 60 % of the stored archive: no central directory.
if [ ! -e book_corrupt.zip ]; then
    size=$(wc -c <book_stored.zip)
    head -c $((size * 60 / 100)) book_stored.zip >.tmp.$$.corrupt.zip
    mv .tmp.$$.corrupt.zip book_corrupt.zip
fi

# --- The corpus of real-world file shapes ------------------------------------------------------
. "$here/generate_corpus.sh"

# --- Sleep timer ------------------------------------------------------------------------------
# Steps: the tone rises by 100 Hz every second, 300 Hz to 1000 Hz, so the time can be heard.
make steps_8s.wav -f lavfi \
    -i "aevalsrc=exprs=0.25*sin(2*PI*t*(300+100*floor(t))):c=stereo:s=44100:d=8" \
    -c:a pcm_s16le -f wav
# Three chapters whose bounds are not whole seconds (FLAC's chapter comments, ms), each with its
# own tone: 1000 Hz to 1.234 s, 2000 Hz to 2.567 s, then 500 Hz to the end at 4 s.
make_tagged chapters_tones_4s.flac -f lavfi \
    -i "aevalsrc=exprs=0.25*sin(2*PI*t*if(lt(t\,1.234)\,1000\,if(lt(t\,2.567)\,2000\,500))):c=stereo:s=44100:d=4" \
    -map_metadata -1 -metadata CHAPTER000=00:00:00.000 -metadata CHAPTER001=00:00:01.234 \
    -metadata CHAPTER002=00:00:02.567 -c:a flac -f flac
make chapters_tones_4s.wav -i chapters_tones_4s.flac -c:a pcm_s16le -f wav
