#!/usr/bin/env bash
# What the library takes: the size of its stripped file, which has a limit in an optimised build,
# and, where the programs for that were built, memory and time to start (see footprint.cpp).
# usage: footprint.sh BUILD
set -euo pipefail
build=$1
library=$build/src/lib/libconfsvc.so.1
strip=$(sed -n 's/^CMAKE_STRIP:[A-Z]*=//p' "$build/CMakeCache.txt")

limit=81920
if readelf -h "$library" | grep -q ELF64; then
    limit=116736
fi
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$library"
size=$(stat -c %s "$stripped")
printf '%-24s %9d of %d\n' "stripped size, bytes" "$size" "$limit"
printf '%-24s %9d\n' "relocations" "$(readelf -rW "$library" | grep -c ' R_')"
printf '%-24s %s\n' "needed libraries" \
    "$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p' | paste -sd ' ')"

programs=("$build"/bench/footprint{,_plugin,_baseline})
if [[ -x ${programs[0]} ]]; then
    # Pages of a file that is not yet on the disk count as dirty, too.
    sync "$(readlink -f "$library")" "${programs[@]}"
    "${programs[@]}"
fi
((size <= limit))
