#!/usr/bin/env bash
# Runs the fuzz targets of a build, each for some time and several at once, and prints what came of
# it. New inputs are kept in BUILD_DIR/corpus, those that show a fault in BUILD_DIR/findings; a
# target ends with its first finding. Fails when there are findings, older ones included.
# usage: fuzz.sh BUILD_DIR [--jobs COUNT] [TARGET...] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "$1")
shift
seconds=60
jobs=$(nproc)
targets=()
while (($# > 0)); do
    if [[ $1 == --jobs && ${2-} =~ ^[1-9][0-9]*$ ]]; then
        jobs=$2
        shift
    elif [[ $1 =~ ^[0-9]+$ ]]; then
        seconds=$1
    elif [[ -x $build/tests/fuzz/fuzz_$1 ]]; then
        targets+=("$1")
    else
        printf 'fuzz.sh: there is no target %s; there are:%s\n' "$1" \
            "$(printf ' %s' tests/fuzz/corpus/*/ | sed 's@tests/fuzz/corpus/\([^/]*\)/@\1@g')" >&2
        exit 2
    fi
    shift
done
if ((${#targets[@]} == 0)); then
    mapfile -t targets < <(cd tests/fuzz/corpus && printf '%s\n' *)
fi

# statistic TARGET NAME: one of the figures that libFuzzer ends its log with; 0 if it did not come
# so far.
statistic()
{
    sed -n "s/^stat::$2: *//p" "$build/logs/fuzz-$1.log" | tail -n 1 | grep . || printf '0\n'
}

# What still runs ends with the script. Fewer rare features than by default are enough to choose
# inputs by; to count them took more time than some inputs.
trap 'kill $(jobs -rp) 2>/dev/null || true' EXIT
declare -A process
for target in "${targets[@]}"; do
    while (($(jobs -rp | wc -l) >= jobs)); do
        wait -n || true
    done
    mkdir -p "$build/corpus/$target" "$build/findings/$target" "$build/logs"
    dictionary=()
    if [[ -f tests/fuzz/$target.dict ]]; then
        dictionary=(-dict="tests/fuzz/$target.dict")
    fi
    "$build/tests/fuzz/fuzz_$target" "${dictionary[@]}" -max_total_time="$seconds" -max_len=4096 \
        -timeout=25 -entropic_number_of_rarest_features=10 -print_final_stats=1 \
        -artifact_prefix="$build/findings/$target/" "$build/corpus/$target" \
        "tests/fuzz/corpus/$target" >"$build/logs/fuzz-$target.log" 2>&1 &
    process[$target]=$!
done
for target in "${targets[@]}"; do
    wait "${process[$target]}" || printf '%s: see %s\n' "$target" "$build/logs/fuzz-$target.log" >&2
done

all_findings=0
printf '%-16s %12s %10s %12s %10s\n' target executions 'a second' 'new inputs' findings
for target in "${targets[@]}"; do
    findings=$(find "$build/findings/$target" -type f | wc -l)
    all_findings=$((all_findings + findings))
    printf '%-16s %12d %10d %12d %10d\n' "$target" \
        "$(statistic "$target" number_of_executed_units)" \
        "$(statistic "$target" average_exec_per_sec)" "$(statistic "$target" new_units_added)" \
        "$findings"
done
((all_findings == 0))
