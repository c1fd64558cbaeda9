#!/usr/bin/env bash
# Prints the project's files that match the given patterns, one a line, relative to its root, build
# results excluded. Also files that are not committed yet; without git, all files that are there.
# usage: list-sources.sh PATTERN...    for instance '*.cpp' '*.h'
set -euo pipefail
cd "$(dirname "$0")/.."

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files --cached --others --exclude-standard -- "$@" | sort -u
else
    names=()
    for pattern in "$@"; do
        names+=(-o -path "./$pattern")
    done
    find . \( -name .git -o -path ./build -o -path './build-*' \) -prune \
        -o -type f \( "${names[@]:1}" \) -printf '%P\n' | sort -u
fi | while IFS= read -r file; do
    if [[ -f $file ]]; then
        printf '%s\n' "$file"
    fi
done
