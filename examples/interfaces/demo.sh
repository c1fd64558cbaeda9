#!/usr/bin/env bash
# Plays the session of demo.confsim: the plugin against the simulated daemon, in namespaces of their
# own, so that nothing of this machine is changed. Needs no root.
#
#     demo.sh BUILD_DIR
#
# The exit status is 0 only when every step had the outcome that it should have.
# shellcheck disable=SC2016 # the shells that run the quoted programs expand them
set -euo pipefail

if (($# != 1)); then
    printf 'usage: %s BUILD_DIR\n' "$0" >&2
    exit 2
fi
build=$(realpath "$1")
confsim=$build/tools/confsim/confsim
plugin=$build/examples/interfaces/interfaces-plugin
cd "$(dirname "${BASH_SOURCE[0]}")"

session=$(mktemp)
found=$(mktemp)
store=$(mktemp -d)
trap 'rm -rf "$session" "$found" "$store"' EXIT

# Finds out what there is in a network of our own, if we can have one: the interfaces that /proc and
# /sys list, and whether software interfaces can be made.
look_around()
{
    echo 'expect-exit 0 30' >"$session"
    "$confsim" run --network --script "$session" -- bash -c '
        echo "proc:" $(sed -n "s/^ *\([^: ]*\):.*/\1/p" /proc/net/dev | LC_ALL=C sort)
        echo "sys:" $(cd /sys/class/net && ls -d */ | LC_ALL=C sort | tr -d /)
        for kind in dummy ifb; do
            ip link add probe0 type $kind && echo "links: $kind" && break
        done
        true' >"$found" 2>&1 || true
}

answer()
{
    sed -n "s/^$1: //p" "$found"
}

# leave_out WHAT: removes the steps of the session that stand between "# only with WHAT" and "# end".
leave_out()
{
    sed -i "/^# only with $1\$/,/^# end\$/d" "$session"
}

# All that the plugin says is checked against the model, where confsim can read one.
model=(--yang ietf-interfaces.yang --strict)
"$confsim" run "${model[@]}" -- true </dev/null >"$found" 2>&1 || true
if grep -q 'built without libyang' "$found"; then
    model=()
fi

look_around
cp demo.confsim "$session"
if [[ -n $(answer proc) && $(answer proc) == "$(answer sys)" ]]; then
    echo 'The session has a network of its own. A datagram to nobody makes its loopback interface'
    echo 'count something.'
    run=(run --network)
    start='echo hello >/dev/udp/127.0.0.1/9; "$0" && sleep 2 && exec "$0"'
    if [[ -z $(answer links) ]]; then
        echo 'No interfaces can be made in it, so the plugin only records its configuration.'
        leave_out 'new interfaces'
    fi
else
    echo 'This machine does not give us a network of our own. So the plugin only records its'
    echo 'configuration, and the steps that look at interfaces of our own are left out.'
    run=(run)
    start='"$0" --record-only && sleep 2 && exec "$0" --record-only'
    leave_out 'new interfaces'
    leave_out 'a private network'
fi
echo 'Lines that begin with ">" are the commands of the session, those with "*" are what happens by'
echo 'itself, and those with "interfaces:" come from the plugin.'

"$confsim" "${run[@]}" "${model[@]}" --config interfaces-startup.xml --store "$store" --script "$session" -- \
    bash -c "$start" "$plugin" 2>&1 | sed -u 's/^> # [0-9]/\n&/' | tee "$found"
grep -q 'interface\[name=lan1\] stands behind .*\[name=lan0\]$' "$found"
grep -q '<name>lan0</name>' "$store/deployment.xml"
echo
echo 'Every step had the outcome that it should have.'
