#!/bin/sh
# Makes a short sample audiobook for trying the player: sample_book.mp3 in the folder given as
# $1, 20 s long, with tags, three chapters (a different tone in each) and a cover picture.
# Made with the ffmpeg tool; an existing file is left alone.
set -eu

out=${1:?usage: make_sample_book.sh <output-dir>}
FFMPEG=${FFMPEG:-ffmpeg}
mkdir -p "$out"
book="$out/sample_book.mp3"
[ -e "$book" ] && exit 0

meta="$out/.sample_book.ffmeta"
cat >"$meta" <<'META'
;FFMETADATA1
title=The Sample Book
artist=A. Reader
album=The Sample Book
album_artist=A. Reader
genre=Audiobook
date=2024
comment=Three tones in three chapters
[CHAPTER]
TIMEBASE=1/1000
START=0
END=7000
title=Chapter One: A
[CHAPTER]
TIMEBASE=1/1000
START=7000
END=14000
title=Chapter Two: C sharp
[CHAPTER]
TIMEBASE=1/1000
START=14000
END=20000
title=Chapter Three: E
META

tmp="$out/.tmp.$$.sample_book.mp3"
if ! "$FFMPEG" -nostdin -y -loglevel error \
    -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=7" \
    -f lavfi -i "sine=frequency=554:sample_rate=44100:duration=7" \
    -f lavfi -i "sine=frequency=659:sample_rate=44100:duration=6" \
    -f lavfi -i "testsrc=size=240x240:rate=1:duration=1" \
    -i "$meta" \
    -filter_complex "[0:a][1:a][2:a]concat=n=3:v=0:a=1[a]" \
    -map "[a]" -map 3:v -frames:v 1 -map_metadata 4 -map_chapters 4 \
    -ac 2 -c:a libmp3lame -b:a 128k -c:v png -disposition:v attached_pic \
    -id3v2_version 3 -metadata:s:v title="Cover" -metadata:s:v comment="Cover (front)" \
    -f mp3 "$tmp"; then
    rm -f "$tmp" "$meta"
    echo "make_sample_book.sh: cannot make $book" >&2
    exit 1
fi
rm -f "$meta"
mv "$tmp" "$book"
