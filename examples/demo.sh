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
# The agent ends after one notification. The plugin is started when the agent has subscribed, which
# its third answer says.
# shellcheck disable=SC2016 # the shell that runs the programs expands it
"$build/tools/confsim/confsim" run --script legacy/banner.confsim -- bash -c '
    "$1" 1 >/var/tmp/agent &
    agent=$!
    until grep -q "<ok/>" /var/tmp/agent; do sleep 0.1; done
    "$0" /var/tmp/banner &
    wait "$agent" && ended=0 || ended=$?
    cat /var/tmp/agent
    echo "agent: exit status $ended"
    wait' "$build/examples/legacy/banner-plugin" "$build/examples/agent/agent" 2>&1 | tee "$printed"
grep -q '<banner-changed/>$' "$printed"
grep -q '^agent: exit status 0$' "$printed"

printf '\n=== A plugin of routes, and the YANG module of its data ===\n\n'
if ! "$build/tools/confsim/confsim" run --yang routes/routes.yang -- true </dev/null \
    >"$printed" 2>&1 && grep -q 'built without libyang' "$printed"; then
    echo 'This confsim knows no YANG modules, so the session is left out.'
else
    (cd routes && "$build/tools/confsim/confsim" run --strict --yang routes.yang \
        --script demo.confsim -- "$build/examples/routes/routes-plugin") 2>&1 | tee "$printed"
    grep -q '^routes: route to 10.0.0.0/8 by west: changed, metric 7$' "$printed"
    grep -q '^routes: preference 10.2.0.0/16: behind 10.0.0.0/8$' "$printed"
fi

printf '\n=== The interfaces plugin inside a daemon (nothing is changed, only recorded) ===\n\n'
"$build/examples/local/local-daemon" "$build/examples/interfaces/interfaces-module.so" \
    interfaces/interfaces.xml | tee "$printed"
grep -q 'interface\[name=lan1\]: ok$' "$printed"
grep -q '^reset-interface-counters of mgmt0: ok$' "$printed"

printf '\n=== The interfaces plugin, whose daemon is killed, twice ===\n\n'
interfaces/restart.sh "$build"

printf '\n=== A plugin in C++ whose daemon is killed, three times ===\n\n'
users/demo.sh "$build"

printf '\nEvery step of every session had the outcome that it should have.\n'
