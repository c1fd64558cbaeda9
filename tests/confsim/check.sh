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
