# The corpus of real-world file shapes: the containers and codecs people copy onto the device,
# odd rates and layouts, covers, chapters, and files joined from parts of different formats.
# Sourced by generate_media.sh, in the media folder, with its make_tagged (bit-exact output,
# tags and chapters kept). Every file is a few seconds of sine tones; tags, chapters and
# pictures are set here, and tests/media/corpus.txt says what each file holds.

# tone <frequency> <rate> <seconds>: a lavfi input of a sine at amplitude 1/8.
tone() {
    echo "-f lavfi -i sine=frequency=$1:sample_rate=$2:duration=$3"
}
T3="$(tone 440 44100 3)"
TAGS="-metadata title=Corpus -metadata artist=Reader"

# Pictures: a small one for most covers, and one of 2000x2000 pixels (a few kilobytes of PNG).
make_tagged corpus_cover_small.png -f lavfi -i "color=c=0x336699:s=64x48:d=1,format=rgb24" \
    -frames:v 1 -c:v png -f image2
make_tagged corpus_cover_2000.png -f lavfi -i "color=c=0x996633:s=2000x2000:d=1,format=rgb24" \
    -frames:v 1 -c:v png -f image2

# Three chapters of one second each, titled "Chapter 1" to "Chapter 3".
if [ ! -e corpus_chapters.ffmeta ]; then
    {
        echo ';FFMETADATA1'
        echo 'title=Corpus'
        echo 'artist=Reader'
        for i in 1 2 3; do
            printf '[CHAPTER]\nTIMEBASE=1/1000\nSTART=%d\nEND=%d\ntitle=Chapter %d\n' \
                $(((i - 1) * 1000)) $((i * 1000)) "$i"
        done
    } >.tmp.$$.ffmeta
    mv .tmp.$$.ffmeta corpus_chapters.ffmeta
fi
CHAPTERS="-i corpus_chapters.ffmeta -map 0:a -map_metadata 1 -map_chapters 1"

# --- MPEG audio ----------------------------------------------------------------------------------
make_tagged corpus_cbr.mp3 $T3 -ac 2 -c:a libmp3lame -b:a 128k $TAGS -f mp3
make_tagged corpus_vbr.mp3 $T3 -ac 2 -c:a libmp3lame -q:a 4 $TAGS -f mp3 # Xing/LAME header
make_tagged corpus_cover_2000.mp3 $T3 -i corpus_cover_2000.png -map 0:a -map 1:v -ac 2 \
    -c:a libmp3lame -b:a 128k -c:v copy -disposition:v attached_pic -id3v2_version 3 $TAGS \
    -f mp3
make_tagged corpus_mono_8k.mp3 $(tone 440 8000 3) -ac 1 -c:a libmp3lame -b:a 16k $TAGS -f mp3
make_tagged corpus_short.mp3 $(tone 440 44100 0.2) -ac 2 -c:a libmp3lame -b:a 128k $TAGS -f mp3
make_tagged corpus.mp2 $T3 -ac 2 -c:a mp2 -b:a 192k -f mp2

# 1000 bytes of text before the first frame, no tag in front of it.
if [ ! -e corpus_junk.mp3 ]; then
    make_tagged .corpus_plain.mp3 $T3 -ac 2 -c:a libmp3lame -b:a 128k -id3v2_version 0 \
        -write_xing 0 -f mp3
    { yes 'junk before the first frame' | head -c 1000; cat .corpus_plain.mp3; } >.tmp.$$.junk
    mv .tmp.$$.junk corpus_junk.mp3
    rm -f .corpus_plain.mp3
fi

# Joined files: two parts encoded apart and concatenated byte for byte, without tags or Xing
# headers, as joining tools do. The sample rate changes (440 Hz at 16 kHz, then 1000 Hz at
# 8 kHz; the same bit rate, so the length estimate holds), or the layout changes (440 Hz mono,
# then 880 Hz stereo).
joined() { # joined <file> <part 1 arguments> -- <part 2 arguments>
    joined_file=$1
    shift
    [ -e "$joined_file" ] && return 0
    first=""
    while [ "$1" != "--" ]; do
        first="$first $1"
        shift
    done
    shift
    # shellcheck disable=SC2086
    make_tagged .$joined_file.part1.mp3 $first -c:a libmp3lame -b:a 32k -id3v2_version 0 -write_xing 0 \
        -f mp3
    make_tagged .$joined_file.part2.mp3 "$@" -c:a libmp3lame -b:a 32k -id3v2_version 0 \
        -write_xing 0 -f mp3
    cat .$joined_file.part1.mp3 .$joined_file.part2.mp3 >.tmp.$$.joined
    rm -f .$joined_file.part1.mp3 .$joined_file.part2.mp3
    mv .tmp.$$.joined "$joined_file"
}
joined corpus_joined_rate.mp3 $(tone 440 16000 3) -ac 1 -- $(tone 1000 8000 3) -ac 1
joined corpus_joined_layout.mp3 $(tone 440 44100 3) -ac 1 -- $(tone 880 44100 3) -ac 2

# --- AAC and Apple containers ------------------------------------------------------------------
make_tagged corpus.aac $T3 -ac 2 -c:a aac -b:a 128k -f adts
make_tagged corpus_chapters.m4a $T3 $CHAPTERS -ac 2 -c:a aac -b:a 128k -f ipod
make_tagged corpus_chapters.m4b $T3 $CHAPTERS -ac 2 -c:a aac -b:a 64k -f ipod
make_tagged corpus_alac.m4a $T3 -ac 2 -c:a alac $TAGS -f ipod
make_tagged corpus_5.1.m4a $T3 -af "pan=5.1|FL=c0|FR=c0|FC=c0|LFE=c0|BL=c0|BR=c0" -c:a aac \
    -b:a 256k $TAGS -f ipod
make_tagged corpus_av.mp4 -f lavfi -i "testsrc=size=160x120:rate=10:duration=3" $T3 -map 0:v \
    -map 1:a -c:v libx264 -preset ultrafast -pix_fmt yuv420p -threads 1 -c:a aac -b:a 128k -ac 2 \
    $TAGS -f mp4

# --- Lossless and PCM ----------------------------------------------------------------------------
make_tagged corpus_cover.flac $T3 -i corpus_cover_small.png -map 0:a -map 1:v -ac 2 -c:a flac \
    -c:v copy -disposition:v attached_pic $TAGS -f flac
make_tagged corpus_7.1.flac $T3 -af "pan=7.1|FL=c0|FR=c0|FC=c0|LFE=c0|BL=c0|BR=c0|SL=c0|SR=c0" \
    -c:a flac $TAGS -f flac
make_tagged corpus_192k.flac $(tone 440 192000 3) -ac 2 -c:a flac $TAGS -f flac
make_tagged corpus_s16.wav $T3 -ac 2 -c:a pcm_s16le $TAGS -f wav
make_tagged corpus_s24.wav $T3 -ac 2 -c:a pcm_s24le $TAGS -f wav
make_tagged corpus_float.wav $T3 -ac 2 -c:a pcm_f32le $TAGS -f wav
make_tagged corpus.aiff $T3 -ac 2 -c:a pcm_s16be $TAGS -f aiff
make_tagged corpus.wv $T3 -ac 2 -c:a wavpack $TAGS -f wv
# An audio stream and not one frame in it.
make_tagged corpus_no_frames.wav $T3 -ac 2 -c:a pcm_s16le -t 0 -f wav

# --- Other lossy codecs --------------------------------------------------------------------------
make_tagged corpus.ogg $T3 -ac 2 -c:a libvorbis -q:a 4 $TAGS -f ogg
make_tagged corpus.opus $T3 -ac 2 -c:a libopus -b:a 96k $TAGS -f opus
make_tagged corpus.wma $T3 -ac 2 -c:a wmav2 -b:a 128k $TAGS -f asf
make_tagged corpus.ac3 $T3 -ac 2 -c:a ac3 -b:a 192k -f ac3
make_tagged corpus_chapters.mka $T3 $CHAPTERS -ac 2 -c:a libvorbis -q:a 4 -f matroska
