#!/usr/bin/env bash
# Plays a session with every example, each in namespaces of its own, without root.
#
#     demo.sh BUILD_DIR
#
# The exit status is 0 only when every step had the outcome that it should have.
set -euo pipefail

if (($# != 1)); then
    printf 'usage: %s BUILD_DIR\n' "$0" >&2
    exit 2
fi
build=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")"
printed=$(mktemp)
trap 'rm -f "$printed"' EXIT

interfaces/demo.sh "$build"

printf '\n=== A plugin of the older interface, and an agent that listens ===\n\n'
# shellcheck disable=SC2016 # the shell that runs the program expands it
"$build/tools/confsim/confsim" run --script legacy/banner.confsim -- bash -c \
    '"$0" /var/tmp/banner & sleep 0.5; "$1" 1; echo "agent: exit status $?"; wait' \
    "$build/examples/legacy/banner-plugin" "$build/examples/agent/agent" 2>&1 | tee "$printed"
grep -q '<banner-changed/>$' "$printed"
grep -q '^agent: exit status 0$' "$printed"

printf '\n=== The interfaces plugin inside a daemon (nothing is changed, only recorded) ===\n\n'
"$build/examples/local/local-daemon" "$build/examples/interfaces/interfaces-module.so" \
    interfaces/interfaces.xml | tee "$printed"
grep -q 'interface\[name=lan1\]: ok$' "$printed"
grep -q '^reset-interface-counters of mgmt0: ok$' "$printed"

printf '\nEvery step of every session had the outcome that it should have.\n'
