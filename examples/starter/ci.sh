#!/usr/bin/env bash
# The commands that CI runs, and that you can run yourself:
#
#     ./ci.sh install [DIRECTORY]     installs compilers, and the confsvc packages from a directory
#     ./ci.sh test                    builds with sanitizers, and runs the tests
#     ./ci.sh chaos [SEEDS] [FIRST]   runs tests/chaos.confsim with a number of seeds
#     ./ci.sh seed SEED               runs it with one seed, after a build
#
# Results are in build/*.junit.xml, and in build/chaos-SEED.log for each seed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

build()
{
    cmake -B build -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS='-fsanitize=address,undefined' >/dev/null
    cmake --build build
}

command=${1:-test}
(($# == 0)) || shift
case $command in
install)
    apt-get update
    apt-get install --yes --no-install-recommends cmake gcc libc6-dev make pkg-config \
        "$(realpath "${1:-packages}")"/*.deb
    ;;
test)
    build
    ctest --test-dir build --output-on-failure
    ;;
chaos)
    build
    first=${2:-1}
    # Sessions spend most of their time waiting, so many of them can run at once.
    seq "$first" $((first + ${1:-20} - 1)) | xargs --max-procs=10 --replace ./ci.sh seed '{}'
    ;;
seed)
    log=build/chaos-$1.log
    if ! confsim run --strict --trace --timeout 2 -D SEED="$1" --script tests/chaos.confsim \
        -- build/hello >"$log" 2>&1; then
        printf 'seed %d fails: see %s\n' "$1" "$log"
        tail -n 5 "$log"
        exit 1
    fi
    ;;
*)
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" >&2
    exit 2
    ;;
esac
