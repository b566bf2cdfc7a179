#!/bin/bash
# What a listener and the battery notice, engine against the ffmpeg tool, on the tests' virtual
# sound card paced at real time (tests/vcard, which records when each write arrives):
#   1. start: PlayTrack to the first write at the card (MP3, M4A, FLAC, Ogg; no cover, a
#      600x600 JPEG cover, a 3000x3000 PNG cover);
#   2. seek: seekStream to 50 % of a 10-minute file while playing, to the first write of audio
#      from there (plain MP3, M4A, FLAC; the MP3 as a deflated and a stored zip member); and
#      pause: the audio the card still plays after pause();
#   3. track change: the silence the card gets between the files of a three-file book;
#   4. battery: CPU seconds, wake-ups (voluntary context switches) and peak RSS over 3 minutes
#      of real-time playback;
#   5. instructions: callgrind instruction counts on 30 s files (deterministic on a busy machine);
#   6. the device's budget: start, seek and track change with one eighth of one pinned CPU, and
#      the lowest CPU quota at which each program plays tempo 2.0 with an equaliser without an
#      underrun (cgroup cpu controller, as root; skipped with a note where there is none).
#
#   bench/listen.sh <build-dir>      BENCH_QUICK=1: fewer runs and 30 s of battery playback;
#                                    BENCH_TABLES="1 3": only those tables
#
# Needs the build's test folder configured (AE_BUILD_TESTS, for the card) and valgrind.
set -euo pipefail

build=${1:?usage: listen.sh <build-dir>}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
media=$build/bench/listen_media
FFMPEG=${FFMPEG:-ffmpeg}
quick=${BENCH_QUICK:-0}
if [ "$quick" = 1 ]; then
    start_runs=5 tool_runs=3 seek_runs=2 change_runs=1 battery_s=30
else
    start_runs=20 tool_runs=10 seek_runs=5 change_runs=3 battery_s=180
fi

cmake --build "$build" -j2 --target listen_bench vcard_dump engine_bench >/dev/null
lb=$build/bench/listen_bench
export VCARD_PRELOAD=$build/bench/libvcard_dump.so
card_conf=$build/tests/vcard/asound.conf
null_conf=$here/asound.conf
log=$build/bench/listen.log # the library's traces on standard error
: >"$log"

# --- Media -------------------------------------------------------------------------------------
mkdir -p "$media"
ff() { "$FFMPEG" -nostdin -y -loglevel error "$@"; }
tone_noise() { # tone_noise <seconds> <rate>: the lavfi inputs of a tone over pink noise
    echo "-f lavfi -i sine=frequency=440:sample_rate=$2:duration=$1"
    echo "-f lavfi -i anoisesrc=color=pink:amplitude=0.2:sample_rate=$2:duration=$1"
}
MIX="[0:a][1:a]amix=inputs=2:normalize=0,pan=stereo|c0=c0|c1=c0"
declare -A CODEC=([mp3]="-c:a libmp3lame -b:a 128k -f mp3" [m4a]="-c:a aac -b:a 128k -f ipod"
                  [flac]="-c:a flac -f flac" [ogg]="-c:a libvorbis -q:a 4 -f ogg")
gen() { # gen <file> <ffmpeg arguments...>: once, atomically
    local file=$media/$1
    shift
    [ -e "$file" ] && return 0
    ff "$@" "$media/.tmp.${file##*/}" && mv "$media/.tmp.${file##*/}" "$file"
}
be32() {
    printf "\\x$(printf %02x $(($1 >> 24 & 255)))\\x$(printf %02x $(($1 >> 16 & 255)))"
    printf "\\x$(printf %02x $(($1 >> 8 & 255)))\\x$(printf %02x $(($1 & 255)))"
}
# The Ogg muxer takes no picture stream: the cover goes into a METADATA_BLOCK_PICTURE comment.
ogg_cover() { # ogg_cover <in.ogg> <picture> <mime> <side> <out>
    local meta=$media/.meta.txt side=$4
    {
        printf ';FFMETADATA1\nMETADATA_BLOCK_PICTURE='
        { be32 3; be32 ${#3}; printf %s "$3"; be32 0; be32 "$side"; be32 "$side"; be32 24
          be32 0; be32 "$(stat -c %s "$2")"; cat "$2"; } | base64 -w0 | sed 's/=/\\=/g'
        echo
    } >"$meta"
    gen "$5" -i "$1" -f ffmetadata -i "$meta" -map 0:a -map_metadata:s:a:0 1:g -c copy -f ogg
    rm -f "$meta"
}

gen cover600.jpg -f lavfi -i "testsrc2=s=600x600,noise=alls=20:allf=t" -frames:v 1 -q:v 3 \
    -f image2
gen cover3000.png -f lavfi -i "testsrc2=s=3000x3000,noise=alls=8:allf=t" -frames:v 1 -f image2
for ext in mp3 m4a flac ogg; do
    # 30 s for start and instructions; 10 minutes whose audio stops at 295 s for seek (the
    # silence tells post-seek audio apart) and battery (3 minutes from the start).
    # shellcheck disable=SC2046,SC2086
    gen clip.$ext $(tone_noise 30 44100) -filter_complex "$MIX" ${CODEC[$ext]}
    # shellcheck disable=SC2046,SC2086
    gen long.$ext $(tone_noise 295 44100) -filter_complex "$MIX,apad=whole_dur=600" \
        ${CODEC[$ext]}
    for c in 600.jpg 3000.png; do
        if [ "$ext" = ogg ]; then
            ogg_cover "$media/clip.ogg" "$media/cover$c" "image/${c#*.}" "${c%.*}" "clip_$c.ogg"
            continue
        fi
        mux=(-f "${CODEC[$ext]##*-f }")
        [ "$ext" = mp3 ] && mux+=(-id3v2_version 3)
        gen "clip_$c.$ext" -i "$media/clip.$ext" -i "$media/cover$c" -map 0:a -map 1:v -c copy \
            -disposition:v:0 attached_pic "${mux[@]}"
    done
done
[ -e "$media/deflated.zip" ] || (cd "$media" && zip -q -X -9 .tmp.d.zip long.mp3 &&
    mv .tmp.d.zip deflated.zip)
[ -e "$media/stored.zip" ] || (cd "$media" && zip -q -X -0 .tmp.s.zip long.mp3 &&
    mv .tmp.s.zip stored.zip)
# A book of three 10 s chapters; the third is at 48 kHz.
for ch in 1:44100 2:44100 3:48000; do
    # shellcheck disable=SC2046,SC2086
    gen "chapter${ch%%:*}.mp3" $(tone_noise 10 "${ch#*:}") -filter_complex "$MIX" ${CODEC[mp3]}
done

chain() { # chain <stream rate>: the engine's graph at tempo 1.0
    echo "atempo=tempo=1.0,atempo=tempo=1.0,asetrate=$1,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3"
}
rate_of() { ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate -of csv=p=0 "$1"; }
tool() { # tool <input options and file...>: the ffmpeg tool playing on the card
    echo "$FFMPEG -nostdin -loglevel error $* -map 0:a -af $(chain 44100) -f alsa mpd_sm"
}
# The levelling graph behind the chain at the strong level (AE_VOICE_LEVEL_STRONG).
LEVEL=",asetnsamples=n=1024:p=0,speechnorm=p=0.5:e=10:c=2:r=0.02:f=0.01:t=0.015:l=1,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3"
want() { [[ " ${BENCH_TABLES:-1 2 3 4 5 6} " == *" $1 "* ]]; }
val() { sed -n "s/.*$1=\([^ ]*\).*/\1/p"; } # val <key>: a key=value of one line
load() { cut -d' ' -f1-3 /proc/loadavg; }

export ALSA_CONFIG_PATH=$card_conf
echo "# Listening benchmarks ($(nproc) CPUs; load average $(load) at the start)"
echo

# --- 1. Start ----------------------------------------------------------------------------------
if want 1; then
    echo "## 1. Start: PlayTrack(i, 0, false) to the first frame at the card, ms (load $(load))"
    echo
    echo "Engine: median and worst of $start_runs. Tool: the ffmpeg tool from its launch to its first"
    echo "write, median and worst of $tool_runs (it reads no cover)."
    echo
    echo "| file | cover | engine median | engine worst | tool median | tool worst |"
    echo "|---|---|---:|---:|---:|---:|"
    for ext in mp3 m4a flac ogg; do
        for c in none 600.jpg 3000.png; do
            f=$media/clip.$ext
            [ "$c" != none ] && f=$media/clip_$c.$ext
            e=$("$lb" start "$start_runs" "$f" 2>>"$log")
            # shellcheck disable=SC2046
            t=$("$lb" tool-start "$tool_runs" $(tool -i "$f" -t 0.3))
            echo "| $ext | $c | $(val median_ms <<<"$e") | $(val worst_ms <<<"$e") |" \
                "$(val median_ms <<<"$t") | $(val worst_ms <<<"$t") |"
        done
    done
    echo
fi

# --- 2. Seek -----------------------------------------------------------------------------------
if want 2; then
    echo "## 2. Seek to 300 s of 600 while playing, to the first post-seek frame at the card, ms (load $(load))"
    echo
    echo "Engine: seekStream(300000) 1.5 s into playback, median and worst of $seek_runs. Tool: the"
    echo "nearest it does, a launch with -ss 300 to its first write (no zip input)."
    echo
    echo "| file | engine median | engine worst | tool -ss median | tool -ss worst |"
    echo "|---|---:|---:|---:|---:|"
    for f in long.mp3 long.m4a long.flac deflated.zip stored.zip; do
        path=$media/$f
        [ "${f##*.}" = zip ] && path="$media/$f:#zip(long.mp3)"
        e=$("$lb" seek "$seek_runs" 300 "$path" 2>>"$log")
        t="median_ms=n/a worst_ms=n/a"
        # shellcheck disable=SC2046
        [ "${f##*.}" != zip ] && t=$("$lb" tool-start "$tool_runs" $(tool -ss 300 -i "$path" -t 0.3))
        echo "| $f | $(val median_ms <<<"$e") | $(val worst_ms <<<"$e") | $(val median_ms <<<"$t") |" \
            "$(val worst_ms <<<"$t") |"
    done
    echo
    echo "## 2b. Pause while playing: audio the card still played after pause() was called, ms (load $(load))"
    echo
    echo "Engine: pause() 1.5 s into playback, by the card's clock (frames heard, dropped ones"
    echo "excepted), median and worst of $seek_runs."
    echo
    echo "| file | engine median | engine worst |"
    echo "|---|---:|---:|"
    for f in long.mp3 long.m4a long.flac; do
        e=$("$lb" pause "$seek_runs" "$media/$f" 2>>"$log")
        echo "| $f | $(val median_ms <<<"$e") | $(val worst_ms <<<"$e") |"
    done
    echo
fi

# --- 3. Track change ---------------------------------------------------------------------------
if want 3; then
    echo "## 3. Track change: silence at the card between chapters of a three-file book, ms (load $(load))"
    echo
    echo "Player in Sequential mode, HandlePlayerStateChanged on the application's thread; median and"
    echo "worst of $change_runs books. Tool: the ffmpeg tool playing the three files with its concat"
    echo "demuxer (one process, no reopening), total silence after its first write."
    echo
    echo "| change | engine median | engine worst | device opens per book |"
    echo "|---|---:|---:|---:|"
    "$lb" change "$change_runs" 0 "$media/chapter1.mp3" "$media/chapter2.mp3" "$media/chapter3.mp3" \
        2>>"$log" |
        while read -r _ k from _ to rest; do
            echo "| $k: $from -> $to | $(val silence_ms <<<"$rest") | $(val worst_ms <<<"$rest") |" \
                "$(val opens <<<"$rest") |"
        done
    # Control: the application starts the next chapter 800 ms late, which the card must show.
    "$lb" change 1 800 "$media/chapter1.mp3" "$media/chapter2.mp3" 2>>"$log" | head -1 |
        while read -r _ _ _ _ _ rest; do
            echo "| control: 1 -> 2 started 800 ms late | $(val silence_ms <<<"$rest") |" \
                "$(val worst_ms <<<"$rest") | $(val opens <<<"$rest") |"
        done
    list=$media/.concat.txt
    printf "file '%s'\n" "$media/chapter1.mp3" "$media/chapter2.mp3" "$media/chapter3.mp3" >"$list"
    t=$("$lb" tool-change "$FFMPEG" -nostdin -loglevel error -f concat -safe 0 -i "$list" -map 0:a \
        -af "atempo=tempo=1.0,atempo=tempo=1.0,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3" \
        -f alsa mpd_sm)
    echo "| tool, whole book | $(val silence_ms <<<"$t") | $(val worst_ms <<<"$t") | 1 |"
    echo
fi

# --- 4. Battery --------------------------------------------------------------------------------
if want 4; then
    echo "## 4. Battery: $battery_s s of real-time playback, per hour of audio (load $(load))"
    echo
    echo "All the programs run at once (they are paced by the card and mostly sleep). CPU: user +"
    echo "system seconds of the whole process; wake-ups: voluntary context switches (/usr/bin/time)."
    echo "Then the engine held paused for the same time (the cost of its 10 ms polling), with skip"
    echo "silence at the natural level (against the engine with it off: the stage's own cost; the"
    echo "tone over noise has no pause to cut) and with voice levelling strong (against the tool"
    echo "running the same chain)."
    echo
    echo "| file | engine CPU s/h | tool CPU s/h | CPU ratio | engine wake-ups/h | tool wake-ups/h | engine peak RSS MB | tool peak RSS MB |"
    echo "|---|---:|---:|---:|---:|---:|---:|---:|"
    out=$(mktemp -d)
    for ext in mp3 m4a flac ogg; do
        /usr/bin/time -o "$out/e.$ext" -f '%U %S %w %M' "$lb" play "$battery_s" "$media/long.$ext" \
            2>>"$log" &
        # shellcheck disable=SC2046
        VCARD_SPEED=1 /usr/bin/time -o "$out/t.$ext" -f '%U %S %w %M' $(tool -i "$media/long.$ext" \
            -t "$battery_s") >/dev/null 2>&1 &
    done
    # The engine held paused: its play thread polls every 10 ms and does nothing else.
    /usr/bin/time -o "$out/p" -f '%U %S %w %M' "$lb" play "$battery_s" "$media/long.mp3" paused \
        2>>"$log" &
    /usr/bin/time -o "$out/skip" -f '%U %S %w %M' "$lb" play "$battery_s" "$media/long.mp3" skip=1 \
        2>>"$log" &
    /usr/bin/time -o "$out/level" -f '%U %S %w %M' "$lb" play "$battery_s" "$media/long.mp3" \
        level=2 2>>"$log" &
    # shellcheck disable=SC2046
    VCARD_SPEED=1 /usr/bin/time -o "$out/tlevel" -f '%U %S %w %M' $FFMPEG -nostdin -loglevel error \
        -i "$media/long.mp3" -t "$battery_s" -map 0:a -af "$(chain 44100)$LEVEL" -f alsa mpd_sm \
        >/dev/null 2>&1 &
    wait
    # row <label> <engine record> <reference record>
    row() {
        read -r eu es ew em <"$2"
        read -r tu ts tw tm <"$3"
        awk -v f="$1" -v s="$battery_s" -v eu="$eu" -v es="$es" -v ew="$ew" -v em="$em" \
            -v tu="$tu" -v ts="$ts" -v tw="$tw" -v tm="$tm" 'BEGIN {
            h = s / 3600; ec = eu + es; tc = tu + ts
            printf "| %s | %.1f | %.1f | %.2f | %d | %d | %.1f | %.1f |\n", f, ec / h, tc / h,
                (tc > 0 ? ec / tc : 0), ew / h, tw / h, em / 1024, tm / 1024 }'
    }
    for ext in mp3 m4a flac ogg; do
        row "long.$ext" "$out/e.$ext" "$out/t.$ext"
    done
    read -r pu ps pw pm <"$out/p"
    awk -v s="$battery_s" -v pu="$pu" -v ps="$ps" -v pw="$pw" -v pm="$pm" 'BEGIN {
        h = s / 3600
        printf "| long.mp3, engine paused | %.1f | | | %d | | %.1f | |\n", (pu + ps) / h, pw / h,
            pm / 1024 }'
    row "long.mp3, skip silence natural (tool column: engine, skip off)" "$out/skip" "$out/e.mp3"
    row "long.mp3, levelling strong (tool: same chain)" "$out/level" "$out/tlevel"
    rm -rf "$out"
    echo
fi

# --- 5. Instructions ---------------------------------------------------------------------------
if want 5; then
    echo "## 5. Instructions: callgrind, 30 s files into the null PCM (load $(load))"
    echo
    echo "Engine: engine_bench (whole process: both threads, start-up included). Tool: the ffmpeg"
    echo "tool with one decoder and one filter thread. Millions of instructions (Ir)."
    echo
    echo "| file | engine Mi | tool Mi | ratio |"
    echo "|---|---:|---:|---:|"
    export ALSA_CONFIG_PATH=$null_conf
    ir() { # ir <command...>: instructions of the whole run
        valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>&1 >/dev/null |
            sed -n 's/.*Collected : *\([0-9]*\).*/\1/p'
    }
    for ext in mp3 m4a flac ogg "mp3 levelling" "flac levelling" "mp3 skip silence"; do
        f=$media/clip.${ext%% *}
        case $ext in
        *levelling)
            e=$(ir "$build/bench/engine_bench" "$f" --level 2 2>>"$log")
            t=$(ir "$FFMPEG" -nostdin -loglevel error -threads 1 -filter_threads 1 -i "$f" \
                -af "$(chain "$(rate_of "$f")")$LEVEL" -f alsa null)
            ;;
        *skip*) # against the engine with skip silence off
            t=$(ir "$build/bench/engine_bench" "$f" 2>>"$log")
            e=$(ir "$build/bench/engine_bench" "$f" --skip 1 2>>"$log")
            ;;
        *) e=$(ir "$build/bench/engine_bench" "$f" 2>>"$log") ;;
        esac
        if [ "$ext" != "${ext%% *}" ]; then
            awk -v f="clip.${ext%% *}, ${ext#* }" -v e="$e" -v t="$t" \
                'BEGIN { printf "| %s | %.1f | %.1f | %.3f |\n", f, e / 1e6, t / 1e6, e / t }'
            continue
        fi
        t=$(ir "$FFMPEG" -nostdin -loglevel error -threads 1 -filter_threads 1 -i "$f" \
            -af "$(chain "$(rate_of "$f")")" -f alsa null)
        awk -v f="clip.$ext" -v e="$e" -v t="$t" \
            'BEGIN { printf "| %s | %.1f | %.1f | %.3f |\n", f, e / 1e6, t / 1e6, e / t }'
    done
    echo
fi
# --- 6. The device's budget --------------------------------------------------------------------
# One core several times slower than this one: the process gets `quota` microseconds of CPU time
# every period, on CPU 0 only (cgroup v1 cpu.cfs_quota_us, or v2 cpu.max where it is delegated).
# The period is 10 ms, and 100 ms for quotas under 10 %, which a 10 ms period cannot express (the
# kernel's smallest quota is 1 ms).
cg_dir=""
cg_setup() { # sets cg_dir, or prints why not
    if [ -w /sys/fs/cgroup/cpu ] && [ -e /sys/fs/cgroup/cpu/cpu.cfs_quota_us ]; then
        cg_dir=/sys/fs/cgroup/cpu/ae_bench_quota
        mkdir -p "$cg_dir" && return 0
    elif grep -qw cpu /sys/fs/cgroup/cgroup.controllers 2>/dev/null; then
        cg_dir=/sys/fs/cgroup/ae_bench_quota
        grep -qw cpu /sys/fs/cgroup/cgroup.subtree_control ||
            echo +cpu >/sys/fs/cgroup/cgroup.subtree_control 2>/dev/null
        mkdir -p "$cg_dir" && [ -e "$cg_dir/cpu.max" ] && return 0
    fi
    cg_dir=""
    echo "No CPU controller to use here (needs root and cgroup v1 cpu or a delegated v2 cpu.max):"
    echo "table 6 skipped."
    return 1
}
quota() { # quota <us> <period us> <command...>: the command with that share of CPU 0
    local us=$1 period=$2
    shift 2
    if [ -e "$cg_dir/cpu.cfs_quota_us" ]; then
        # The kernel refuses a quota below the current period's 1 ms minimum: set it in an order
        # that is valid at every step.
        echo -1 >"$cg_dir/cpu.cfs_quota_us"
        echo "$period" >"$cg_dir/cpu.cfs_period_us"
        echo "$us" >"$cg_dir/cpu.cfs_quota_us"
    else
        echo "$us $period" >"$cg_dir/cpu.max"
    fi
    sh -c 'echo $$ >"$1/cgroup.procs" && shift && exec taskset -c 0 "$@"' sh "$cg_dir" "$@"
}
if want 6 && cg_setup; then
    eighth=1250
    echo "## 6. The device's budget: one eighth of one CPU, and the lowest quota without underruns (load $(load))"
    echo
    echo "Each program runs on CPU 0 with a CPU quota per 10 ms period (the card's clock needs none)."
    echo "a. At 1250 us per 10 ms: start (30 s MP3), seek (to 300 s of 600), pause, and the silence at the"
    echo "track changes of the three-chapter book, ms; engine median and worst of $seek_runs, tool of $seek_runs."
    echo
    echo "| what | engine median | engine worst | tool median | tool worst |"
    echo "|---|---:|---:|---:|---:|"
    for c in none 600.jpg 3000.png; do
        f=$media/clip.mp3
        [ "$c" != none ] && f=$media/clip_$c.mp3
        e=$(quota $eighth 10000 "$lb" start "$seek_runs" "$f" 2>>"$log")
        # shellcheck disable=SC2046
        t=$(quota $eighth 10000 "$lb" tool-start "$seek_runs" $(tool -i "$f" -t 0.3))
        echo "| start, cover $c | $(val median_ms <<<"$e") | $(val worst_ms <<<"$e") |" \
            "$(val median_ms <<<"$t") | $(val worst_ms <<<"$t") |"
    done
    e=$(quota $eighth 10000 "$lb" seek "$seek_runs" 300 "$media/long.mp3" 2>>"$log")
    # shellcheck disable=SC2046
    t=$(quota $eighth 10000 "$lb" tool-start "$seek_runs" $(tool -ss 300 -i "$media/long.mp3" -t 0.3))
    echo "| seek (tool: launch with -ss) | $(val median_ms <<<"$e") | $(val worst_ms <<<"$e") |" \
        "$(val median_ms <<<"$t") | $(val worst_ms <<<"$t") |"
    e=$(quota $eighth 10000 "$lb" pause "$seek_runs" "$media/long.mp3" 2>>"$log")
    echo "| pause: audio heard after pause() (the tool cannot pause) | $(val median_ms <<<"$e") |" \
        "$(val worst_ms <<<"$e") | | |"
    quota $eighth 10000 "$lb" change "$seek_runs" 0 "$media/chapter1.mp3" "$media/chapter2.mp3" \
        "$media/chapter3.mp3" 2>>"$log" |
        while read -r _ k from _ to rest; do
            echo "| silence at change $k: $from -> $to | $(val silence_ms <<<"$rest") |" \
                "$(val worst_ms <<<"$rest") | | |"
        done
    list=$media/.concat.txt
    printf "file '%s'\n" "$media/chapter1.mp3" "$media/chapter2.mp3" "$media/chapter3.mp3" >"$list"
    t=$(quota $eighth 10000 "$lb" tool-change "$FFMPEG" -nostdin -loglevel error -f concat -safe 0 \
        -i "$list" -map 0:a -af "$(chain 44100)" -f alsa mpd_sm)
    echo "| silence over the whole book, tool (concat) | | | $(val silence_ms <<<"$t") |" \
        "$(val worst_ms <<<"$t") |"
    echo
    play_s=60
    [ "$quick" = 1 ] && play_s=20
    eq="firequalizer=gain_entry='entry(60.0, 3.0); entry(1000.0, -2.0)'"
    tempo2="atempo=tempo=2.0,atempo=tempo=1.0,asetrate=44100,$eq,aformat=sample_fmts=s16:sample_rates=44100:channel_layouts=0x3"
    echo "b. $play_s s of the 10-minute MP3 at tempo 2.0 with two equaliser points (60 Hz +3 dB, 1 kHz"
    echo "-2 dB): underruns (times the card ran dry) at falling quotas of a 100 ms period, down to each"
    echo "program's first failure. The same chain in both (the engine's, traced)."
    echo
    echo "| quota, % of a CPU | engine underruns | tool underruns |"
    echo "|---:|---:|---:|"
    engine_low=none tool_low=none engine_on=1 tool_on=1
    for us in 20000 12500 8000 6000 4000 3000 2000 1500 1000; do
        [ $engine_on = 0 ] && [ $tool_on = 0 ] && break
        eu="" tu=""
        if [ $engine_on = 1 ]; then
            eu=$(quota "$us" 100000 "$lb" underruns "$play_s" 2.0 "$media/long.mp3" 2>>"$log" | val underruns)
            if [ "${eu:-1}" = 0 ]; then engine_low=$us; else engine_on=0; fi
        fi
        if [ $tool_on = 1 ]; then
            tu=$(VCARD_SPEED=1 quota "$us" 100000 "$lb" tool-underruns "$FFMPEG" -nostdin -loglevel error \
                -i "$media/long.mp3" -map 0:a -af "$tempo2" -t "$play_s" -f alsa mpd_sm | val underruns)
            if [ "${tu:-1}" = 0 ]; then tool_low=$us; else tool_on=0; fi
        fi
        awk -v us="$us" -v e="$eu" -v t="$tu" 'BEGIN { printf "| %.1f | %s | %s |\n", us / 1000, e, t }'
    done
    pct() { [ "$1" = none ] && echo "above 20" || awk -v us="$1" 'BEGIN { printf "%.1f", us / 1000 }'; }
    echo
    echo "Lowest quota without an underrun: engine $(pct $engine_low) %, tool $(pct $tool_low) % of a CPU."
    echo
    rmdir "$cg_dir" 2>/dev/null || true
fi
echo "Load average at the end: $(load)"
