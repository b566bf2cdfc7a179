#!/usr/bin/env bash
# The binary interface applications are built against, checked for each build folder given:
#   1. the library exports exactly the names of audio-engine/exports.map, none of them C++;
#   2. abidiff against the record abi/<arch>.abi, added symbols ignored: anything removed or
#      changed fails and prints the report;
#   3. abidiff again, printing what was added since the record.
# usage: abi/check.sh BUILD_DIR...            (a build with debug information: RelWithDebInfo)
#        abi/check.sh --record BUILD_DIR...   write the records instead (see abi/README.md)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

record=0
if [ "${1:-}" = --record ]; then
    record=1
    shift
fi
if [ $# -eq 0 ]; then
    sed -n '2,8p' "$0"
    exit 2
fi

arch_of() { # the record's name for the machine of an ELF file
    case $(readelf -h "$1" | sed -n 's/^ *Machine: *//p') in
    *X86-64) echo x86_64 ;;
    ARM) echo armhf ;;
    *) echo unknown ;;
    esac
}

exports_as_listed() { # exports_as_listed <library> <exports.map>
    local expected actual cxx=0
    expected=$(sed -n '/global:/,/local:/p' "$2" | tr ' ;' '\n\n' |
               grep -E '^[A-Za-z_][A-Za-z0-9_]*$' | grep -v -x -e global -e local -e extern | sort)
    actual=$(nm -D --defined-only "$1" | awk '{print $3}' | grep -v '^$' | sort)
    if grep -q '^_Z' <<<"$expected" || grep -q 'extern *"C++"' "$2"; then
        echo "$2 lists C++ names; the library exports C functions only"
        cxx=1
    fi
    if [ "$expected" != "$actual" ]; then
        echo "exported symbols differ from $2 (< listed only, > exported only):"
        diff <(printf '%s\n' "$expected") <(printf '%s\n' "$actual") || true
        return 1
    fi
    [ $cxx = 0 ] || return 1
    echo "$(wc -l <<<"$actual") symbols exported, as listed in exports.map"
}

status=0
for build in "$@"; do
    lib=$build/audio-engine/libaudio-engine.so
    src=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
    if [ ! -e "$lib" ] || [ -z "$src" ]; then
        echo "abi: no built library in $build" >&2
        exit 2
    fi
    if ! readelf -S "$lib" | grep '\.debug_info' >/dev/null; then
        echo "abi: $lib has no debug information (build type RelWithDebInfo or Debug)" >&2
        exit 2
    fi
    arch=$(arch_of "$lib")
    rec=$here/$arch.abi
    if [ "$arch" = unknown ]; then
        echo "abi: $lib is for a machine without a record" >&2
        exit 2
    fi
    # Types defined outside the public headers are the library's own business: dropped. The
    # compiler's own include folders count as public: the C++ library's types (std::string,
    # std::vector of Track) are part of the interface, and libabigail takes the headers of a
    # cross compiler (/usr/arm-linux-gnueabihf/include) for private ones.
    sysinc=$(sed -n 's/^set(CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES "\(.*\)")$/\1/p' \
             "$build"/CMakeFiles/*/CMakeCXXCompiler.cmake | head -n 1 | tr ';' '\n')
    if [ -z "$sysinc" ]; then
        echo "abi: the compiler's include folders are not in $build/CMakeFiles" >&2
        exit 2
    fi
    hd=--headers-dir2 # abidiff: the headers of the build, the record has only public types
    [ $record = 1 ] && hd=--headers-dir
    public=(--drop-private-types)
    while read -r dir; do
        public+=("$hd" "$dir")
    done < <(printf '%s\n' "$src/audio-engine/include" "$src/audio-engine/src/alsa_device" "$sysinc")

    if [ $record = 1 ]; then
        abidw --no-corpus-path --no-elf-needed "${public[@]}" "$lib" >"$rec"
        echo "abi: $rec written from $lib"
        continue
    fi

    echo "== ABI of $lib ($arch) against abi/$arch.abi"
    exports_as_listed "$lib" "$src/audio-engine/exports.map" || status=1
    rc=0
    report=$(abidiff --no-added-syms "${public[@]}" "$rec" "$lib") || rc=$?
    if [ $rc -ne 0 ]; then
        echo "ABI BROKEN (abidiff exit status $rc): removed or changed since the record:"
        echo "$report"
        status=1
        continue
    fi
    echo "nothing removed or changed since the record; added:"
    # Additions alone make abidiff exit with 4 (ABI change); 1 and 2 are its own errors.
    abidiff "${public[@]}" "$rec" "$lib" || [ $? -ge 4 ] || status=1
done
exit $status
