#!/bin/sh
# Builds the seed corpora of the fuzz targets from the generated test media.
#   make_seeds.sh <media-dir> <output-dir>
# Writes <output-dir>/stream, <output-dir>/zip and <output-dir>/filters (replaced each time).
set -eu
media=${1:?usage: make_seeds.sh <media-dir> <output-dir>}
out=${2:?usage: make_seeds.sh <media-dir> <output-dir>}
rm -rf "$out/stream" "$out/zip" "$out/filters" "$out/.work"
mkdir -p "$out/stream" "$out/zip" "$out/filters" "$out/.work"
work=$out/.work

# Operation bytes that do nothing (op % 8 == 7), so seeds play straight through.
idle16='\007\007\007\007\007\007\007\007\007\007\007\007\007\007\007\007'
idle8='\007\007\007\007\007\007\007\007'

# --- stream: [tempo 1.0] [rate 1.0] [flags] [no equaliser] [16 idle operations] [media] --------
# Files above 64 KiB contribute their first 64 KiB (the header, the tags and the cover).
n=0
for f in "$media"/*; do
    [ -f "$f" ] || continue
    case "$f" in *.zip | *.ffmeta | *.png | *.jpg) continue ;; esac
    name=$(basename "$f")
    {
        printf '\376\376\000\000'
        printf "$idle16"
        head -c 65536 "$f"
    } >"$out/stream/$name"
    n=$((n + 1))
done
# The same media through an unseekable stream of unknown size, with tempo, rate, an
# equaliser and operations.
for name in tone440_3s.mp3 tone440_3s.ogg cover_jpeg_3s.mp3; do
    [ -f "$media/$name" ] || continue
    {
        printf '\310\100\003\002\000\350\003\006\000\020\047\372'
        printf '\000\001\002\003\004\005\006\007\000\001\002\003\004\005\006\007'
        head -c 65536 "$media/$name"
    } >"$out/stream/unseekable_$name"
done

# --- zip: [name length] [name] [8 idle operations] [archive] -----------------------------------
seed_zip() { # seed_zip <seed-name> <member-name> <archive>
    len=$(printf '%s' "$2" | wc -c)
    {
        printf "\\$(printf '%03o' "$len")"
        printf '%s' "$2"
        printf "$idle8"
        cat "$3"
    } >"$out/zip/$1"
}
for name in tone440_3s.mp3 tone440_3s.ogg tone440_3s.flac marked_3s.mp3 known_pcm_1s.wav; do
    [ -f "$media/$name" ] || continue
    cp "$media/$name" "$work/$name"
    (cd "$work" && rm -f s.zip d.zip && zip -q -X -0 s.zip "$name" && zip -q -X -9 d.zip "$name")
    seed_zip "stored_$name" "$name" "$work/s.zip"
    seed_zip "deflated_$name" "$name" "$work/d.zip"
    rm -f "$work/$name"
done
# A member in a folder, and a folder entry.
mkdir -p "$work/sub"
cp "$media/tone440_3s.mp3" "$work/sub/a.mp3"
(cd "$work" && rm -f s.zip && zip -q -X -0 s.zip sub/ sub/a.mp3)
seed_zip sub_member "sub/a.mp3" "$work/s.zip"
seed_zip dir_member "sub/" "$work/s.zip"
if [ -f "$media/book_deflated.zip" ]; then
    seed_zip book_sub "sub/steps_10s.mp3" "$media/book_deflated.zip"
fi

# --- filters: [tone format] [tempo] [rate] [equaliser] [operations...] ------------------------
printf '\003\376\376\000' >"$out/filters/plain"
printf '\003\372\373\002\000\100\037\006\000\350\003\372' >"$out/filters/limits"
printf '\011\000\000\001\200\377\377\377\177\000\000\000\200\002\002\003\003\004\001\000\000' \
    >"$out/filters/mono_8000"
printf '\005\144\144\000\002\377\000\000\000\000\000\000\000\000\003\377\000\000\000\000\000\000\370\177' \
    >"$out/filters/raw_values"
printf '\004\200\200\003\000\144\000\003\000\350\003\375\000\020\047\012\004\003\000\100\037\014\002\050\003\050' \
    >"$out/filters/live_changes"

rm -rf "$work"
echo "make_seeds.sh: $n stream seeds, $(ls "$out/zip" | wc -l) zip seeds, $(ls "$out/filters" | wc -l) filter seeds"
