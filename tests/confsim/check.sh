#!/bin/sh
# Runs one case: check.sh CASE DIRECTORY-OF-CONFSIM DIRECTORY-OF-THE-TEST-PROGRAMS
# Everything happens in the sandbox of "confsim run".
# shellcheck disable=SC2016 # the shells that run the quoted programs expand them
set -eu
cd "$(dirname "$0")"
confsim=$2/confsim
plugin=$3/confsim_plugin
hostile=$3/confsim_hostile
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
output=$work/output
: >"$work/stdin"

# Runs confsim with the given arguments and compares its exit status; the output is kept.
ends_with()
{
    wanted=$1
    shift
    seen=0
    "$confsim" "$@" >"$output" 2>&1 <"$work/stdin" || seen=$?
    cat "$output"
    [ "$seen" = "$wanted" ] || { echo "exit status $seen instead of $wanted: $*"; exit 1; }
}

says()
{
    grep -qF -e "$1" "$output" || { echo "not said: $1"; exit 1; }
}

says_not()
{
    if grep -qF -e "$1" "$output"; then
        echo "said: $1"
        exit 1
    fi
}

case $1 in
editing)
    ends_with 0 run --config running.xml --script editing.confsim -- true
    ;;
commit)
    ends_with 0 run --timeout 2 --script commit.confsim -- "$plugin"
    says "ended with exit status 3"
    ;;
start)
    ends_with 0 run --config running.xml --script start.confsim -- \
        sh -c '"$0" good cfgr & "$0" smooth smooth & wait' "$plugin"
    ;;
stores)
    ends_with 0 run --store "$work/store" --script stores.confsim -- "$plugin"
    ends_with 0 run --store "$work/store" --config running.xml --script restored.confsim -- true
    # A module known by its prefix only keeps its name.
    echo '<x:top xmlns:x="urn:example:y"><leaf>1</leaf></x:top>' >"$work/prefixed.xml"
    echo 'show /x:top/leaf' >"$work/stdin"
    ends_with 0 run --store "$work/second" --config "$work/prefixed.xml" -- true
    ends_with 0 run --store "$work/second" -- true
    says '>1</x:leaf>'
    # A disk without room for the bigger configuration: the change is taken back.
    (
        ulimit -f 8
        ends_with 0 run --store "$work/store" --script full.confsim -- "$plugin"
    )
    ends_with 0 run --store "$work/store" --script restored.confsim -- true
    ;;
killed)
    # Whatever was reported as committed before a kill is there afterwards.
    number=0
    confirmed=0
    while [ "$number" -lt 20000 ]; do
        number=$((number + 1))
        printf 'set /test:system/value %s\ncommit\n' "$number"
    done >"$work/script"
    for delay in 0.05 0.1 0.15 0.2 0.25 0.3 0.35 0.4; do
        "$confsim" run --store "$work/store" --script "$work/script" -- true >"$output" 2>&1 &
        sleep "$delay"
        kill -KILL "$!"
        wait "$!" || true
        confirmed=$(awk '/^> set/ {value = $4} /^committed/ {last = value} END {print last + 0}' \
            "$output")
        ends_with 0 run --store "$work/store" -- true
        echo "show" >"$work/stdin"
        ends_with 0 run --store "$work/store" -- true
        : >"$work/stdin"
        stored=$(sed -n 's/.*>\([0-9]*\)<\/value>.*/\1/p' "$output")
        [ "${stored:-0}" -ge "$confirmed" ] || { echo "lost: $confirmed"; exit 1; }
    done
    [ "$confirmed" -gt 0 ] || { echo "nothing was committed"; exit 1; }
    ;;
hostile)
    ends_with 0 run --script hostile.confsim -- sh -c \
        '"$0" & until [ -e /var/tmp/activated ]; do sleep 0.05; done; "$1"; wait' \
        "$plugin" "$hostile"
    says "does not read what it is sent"
    ;;
trace)
    ends_with 0 run --config running.xml --script trace.confsim -- "$plugin"
    says '--> good'
    says '<path>/test:system/user[name="ann"]</path>'
    says '<password>******</password>'
    says_not s3cret
    ;;
exits)
    ends_with 2 --nonsense
    ends_with 2 run
    ends_with 2 --script nothing.confsim
    ends_with 0 run -- true
    ends_with 1 run --script running.xml -- true
    says 'running.xml:1: there is no command <config>'
    ends_with 1 run --config editing.confsim -- true
    ends_with 1 run --script trace.confsim --timeout 0.1 -- /nothing/there
    says 'trace.confsim:2: plugin good was not activated in time'
    says 'ended with exit status 127'
    # Inside, the profile belongs to the confsim outside.
    ends_with 1 run --script trace.confsim --timeout 1 -- "$confsim"
    says 'belongs to a daemon that is alive, at /var/tmp'
    echo sleep 0.5 >"$work/stdin"
    ends_with 0 run -- sh -c 'trap "" TERM; sleep 60'
    says 'sh does not end and is killed'
    ;;
*)
    echo "no case $1"
    exit 1
    ;;
esac
