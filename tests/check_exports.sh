#!/bin/sh
# Fails unless the library exports exactly the symbols of its ABI list, all unmangled.
# usage: check_exports.sh <library> <exports.map>
set -eu
lib=$1
map=$2
expected=$(sed -n '/global:/,/local:/p' "$map" | tr ' ;' '\n\n' | grep -E '^[A-Za-z_][A-Za-z0-9_]*$' |
           grep -v -e '^global$' -e '^local$' | sort)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sort)
if [ "$expected" != "$actual" ]; then
    echo "exported symbols differ from $map:"
    printf '%s\n' "$expected" > /tmp/exports.expected.$$
    printf '%s\n' "$actual" > /tmp/exports.actual.$$
    diff /tmp/exports.expected.$$ /tmp/exports.actual.$$ || true
    rm -f /tmp/exports.expected.$$ /tmp/exports.actual.$$
    exit 1
fi
echo "$(printf '%s\n' "$actual" | wc -l) symbols exported, as listed"
