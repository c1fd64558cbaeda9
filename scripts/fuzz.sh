#!/usr/bin/env bash
# Runs the fuzz targets of a build, each for some time, and prints what came of it. New inputs are
# kept in BUILD_DIR/corpus, those that show a fault in BUILD_DIR/findings; a target ends with its
# first finding. Fails when there are findings, older ones included.
# usage: fuzz.sh BUILD_DIR [TARGET] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "$1")
shift
seconds=60
targets=()
for word in "$@"; do
    if [[ $word =~ ^[0-9]+$ ]]; then
        seconds=$word
    elif [[ -x $build/tests/fuzz/fuzz_$word ]]; then
        targets+=("$word")
    else
        printf 'fuzz.sh: there is no target %s; there are:%s\n' "$word" \
            "$(printf ' %s' tests/fuzz/corpus/*/ | sed 's@tests/fuzz/corpus/\([^/]*\)/@\1@g')" >&2
        exit 2
    fi
done
if ((${#targets[@]} == 0)); then
    mapfile -t targets < <(cd tests/fuzz/corpus && printf '%s\n' *)
fi

# statistic NAME: one of the figures that libFuzzer ends its log with; 0 if it did not come so far.
statistic()
{
    sed -n "s/^stat::$1: *//p" "$log" | tail -n 1 | grep . || printf '0\n'
}

all_findings=0
printf '%-16s %12s %10s %12s %10s\n' target executions 'a second' 'new inputs' findings
for target in "${targets[@]}"; do
    options=()
    if [[ -f tests/fuzz/$target.dict ]]; then
        options+=(-dict="tests/fuzz/$target.dict")
    fi
    found=$build/findings/$target
    log=$build/logs/fuzz-$target.log
    mkdir -p "$build/corpus/$target" "$build/logs" "$found"
    "$build/tests/fuzz/fuzz_$target" "${options[@]}" -max_total_time="$seconds" -max_len=4096 -timeout=25 \
        -print_final_stats=1 -artifact_prefix="$found/" "$build/corpus/$target" \
        "tests/fuzz/corpus/$target" >"$log" 2>&1 || printf '%s: see %s\n' "$target" "$log" >&2
    findings=$(find "$found" -type f | wc -l)
    all_findings=$((all_findings + findings))
    printf '%-16s %12d %10d %12d %10d\n' "$target" "$(statistic number_of_executed_units)" \
        "$(statistic average_exec_per_sec)" "$(statistic new_units_added)" "$findings"
done
((all_findings == 0))
