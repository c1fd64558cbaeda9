#!/usr/bin/env bash
# Runs every test of a build that counts what it runs of the library, the fault lane among them, and
# prints the share of branches taken; see coverage.py.
# usage: coverage.sh BUILD_DIR JOBS
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "$1")

find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" --output-on-failure --no-tests=error --parallel "$2" \
    >"$build/tests.log" || { cat "$build/tests.log"; exit 1; }
gcovr --gcov-executable 'llvm-cov-14 gcov' --root . --filter src/lib/ --json "$build/coverage.json" \
    "$build"
python3 scripts/coverage.py "$build/coverage.json"
