#!/usr/bin/env bash
# Runs clang-tidy over the sources of the library, the tools, the examples and the test support that
# BUILD_DIR has compile commands for. A source that passed is not looked at again until it, a
# header, the checks or its compile command changes.
# usage: check-tidy.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$1
jobs=${CONFSVC_JOBS:-$(nproc)}

passed_dir="$build_dir/tidy"
mkdir -p "$passed_dir"

mapfile -t headers < <(scripts/list-sources.sh '*.h' '*.hpp')
common=$({ clang-tidy --version; cat .clang-tidy "${headers[@]}"; } | sha256sum)

# The entries of a compile database made by CMake stand one member a line, the command before the
# file.
todo=()
total=0
while IFS=$'\t' read -r command file; do
    total=$((total + 1))
    key=$({ printf '%s\n' "$common" "$command"; cat "$file"; } | sha256sum)
    stamp="$passed_dir/${key%% *}"
    if [[ ! -e $stamp ]]; then
        todo+=("$stamp" "$file")
    fi
done < <(sed -n 's/^ *"command": "\(.*\)",$/\1/p; s/^ *"file": "\(.*\)",\{0,1\}$/\1/p' \
    "$build_dir/compile_commands.json" | paste - - |
    grep -E $'\t'"$PWD/(src|tools|examples|tests/support)/" | sort -u -k2 -t $'\t')

printf '%d sources, %d to check\n' "$total" $((${#todo[@]} / 2))
((total > 0))
if ((${#todo[@]} == 0)); then
    exit 0
fi
printf '%s\0' "${todo[@]}" | xargs -0 -n 2 -P "$jobs" bash -c '
    # The counts of warnings in system headers say nothing.
    if clang-tidy --quiet -p "$0" "$2" 2> >(grep -v " warnings\{0,1\} generated\.$" >&2); then
        : >"$1"
    else
        exit 1
    fi' "$build_dir"
