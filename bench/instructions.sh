#!/usr/bin/env bash
# Counts the instructions of each road that the program `instructions` can take, and compares them
# with instructions.txt: fails where one has grown by more than 5 %, exits with 77 where the file's
# counts are for another compiler, C library or libxml2.
# usage: instructions.sh BUILD [--accept]      --accept writes the counts into the file
#
# valgrind counts, for the process of the client alone; in a build for ARM, qemu does. Each road is
# taken n and 2n times: the difference is free of start-up. What depends on the processor is switched
# off: the C library's choice of functions for strings, and its limits that follow from the caches.
set -euo pipefail
shopt -s inherit_errexit
build=$1
accept=${2:-}
program=$build/bench/instructions
list=$(dirname "${BASH_SOURCE[0]}")/instructions.txt
sysroot=$(sed -n 's/^CONFSVC_ARM_SYSROOT:[A-Z]*=//p' "$build/CMakeCache.txt")

off=-AVX,-AVX2,-AVX512F,-AVX512VL,-BMI2,-ERMS,-FSRM,-LZCNT,-MOVBE,-SSE4_1,-SSE4_2,-SSSE3
caches=glibc.cpu.x86_data_cache_size=0x8000:glibc.cpu.x86_shared_cache_size=0x100000
caches+=:glibc.cpu.x86_non_temporal_threshold=0xc0000
clean=(env -i PATH=/usr/bin:/bin TZ=UTC0 LC_ALL=C LD_BIND_NOW=1)

# counted PATH COUNT: the instructions of one run.
if [[ -n $sysroot ]]; then
    runner=(qemu-arm -L "$sysroot")
    counted()
    {
        "${clean[@]}" "${runner[@]}" -singlestep -d exec,nochain "$program" "$@" 2>&1 >/dev/null |
            grep -c '^Trace'
    }
else
    runner=()
    counted()
    {
        "${clean[@]}" GLIBC_TUNABLES="glibc.cpu.hwcaps=$off:$caches" \
            valgrind --tool=callgrind --callgrind-out-file=/dev/null --vgdb=no \
            --child-silent-after-fork=yes "$program" "$@" 2>&1 |
            sed -n 's/.*Collected *: *//p' | grep .
    }
    command -v valgrind >/dev/null || { echo "valgrind is not installed" && exit 77; }
fi

versions=$("${runner[@]}" "$program" versions)
machine=${versions%%,*}
known=$(sed -n "/^$machine,/p" "$list")
if [[ $known != "$versions" && $accept != --accept ]]; then
    printf 'there are no counts for %s, only for %s\n' "$versions" "${known:-other machines}"
    exit 77
fi

lines=("$versions")
status=0
printf '%-16s %12s %12s %9s\n' "$machine" accepted now change
while read -r name n; do
    count=$((($(counted "$name" $((2 * n))) - $(counted "$name" "$n")) / n))
    before=$(awk -v key="$machine $name" '$1 " " $2 == key {print $3}' "$list")
    lines+=("$machine $name $count")
    verdict=
    if ((${before:-0} == 0 || count * 100 > before * 105)) && [[ $accept != --accept ]]; then
        verdict=" GREW"
        status=1
    fi
    printf '%-16s %12s %12d %8s%%%s\n' "$name" "${before:--}" "$count" \
        "$(awk -v a="${before:-$count}" -v b="$count" 'BEGIN {printf "%+.1f", (b / a - 1) * 100}')" \
        "$verdict"
done <<END
round_trip 50
pushed_64 4
pull_16384 8
system_log 50
filtered_line 500
append_65536 20
END
if [[ $accept == --accept ]]; then
    kept=$(sed "/^$machine[, ]/d" "$list")
    printf '%s\n' "$kept" "${lines[@]}" >"$list"
fi
exit "$status"
