#!/usr/bin/env bash
# Soak run: plays a generated playlist on the fast virtual card for <minutes> while a second
# thread makes random player calls; checks memory and state consistency as it goes
# (tests/soak/soak.cpp). Builds what it needs in the main build tree, build/ (override with
# SOAK_BUILD_DIR).
#   tools/soak.sh <minutes> [seed]
# Runs of a minute or less check every 10 s, longer ones every minute.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:?usage: tools/soak.sh <minutes> [seed]}
shift
dir=${SOAK_BUILD_DIR:-build}
JOBS=${JOBS:-2}

cmake -S . -B "$dir" >/dev/null
cmake --build "$dir" -j "$JOBS" --target ae_soak ae_media_files vcard_control

check=60
awk "BEGIN { exit !($minutes <= 1) }" && check=10
ALSA_CONFIG_PATH="$PWD/$dir/tests/vcard/asound.conf" AE_TEST_MEDIA="$PWD/$dir/tests/media/files" \
    "$dir/tests/soak/ae_soak" "$minutes" "$check" "$@"
