#!/usr/bin/env bash
# Compares every C and C++ file with what clang-format makes of it. Repair: clang-format -i FILE
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(scripts/list-sources.sh '*.c' '*.cpp' '*.h' '*.hpp')
printf '%d files\n' "${#files[@]}"
((${#files[@]} > 0))
clang-format --dry-run -Werror --style=file "${files[@]}"
