#!/bin/sh
# Runs one case: check.sh CASE DIRECTORY-OF-CONFSIM DIRECTORY-OF-THE-TEST-PROGRAMS
# Everything happens in the sandbox of "confsim run".
# shellcheck disable=SC2016 # the shells that run the quoted programs expand them
# shellcheck disable=SC3045 # the usual shells know ulimit -S
# shellcheck disable=SC2059 # the bytes of a case are written as escapes of printf
set -eu
cd "$(dirname "$0")"
confsim=$2/confsim
plugin=$3/confsim_plugin
work=$(mktemp -d)
covered=$(mktemp -d /var/tmp/confsim-XXXXXX) # below a directory that "confsim run" covers
trap 'rm -rf "$work" "$covered" "$covered".*' EXIT
trap 'exit 1' HUP INT TERM
output=$work/output
store=$work/store
input=/dev/null

fail()
{
    echo "$*"
    exit 1
}

# Runs confsim with the given arguments and compares its exit status; the output is kept.
ends_with()
{
    wanted=$1
    shift
    seen=0
    "$confsim" "$@" >"$output" 2>&1 <"$input" || seen=$?
    cat "$output"
    [ "$seen" = "$wanted" ] || fail "exit status $seen instead of $wanted: $*"
}

says()
{
    grep -qF -e "$1" "$output" || fail "not said: $1"
}

# What confsim is told on standard input from now on.
type_in()
{
    input=$work/input
    echo "$1" >"$input"
}

case $1 in
editing) ends_with 0 run --config running.xml --script editing.confsim -- true ;;
commit)
    ends_with 0 run --timeout 2 --script commit.confsim -- "$plugin"
    says "ended with exit status 3"
    ;;
late)
    ends_with 0 run --timeout 2 --config late.xml --script late.confsim -- sh -c \
        '"$0" good cfgr & until [ -e /var/tmp/activated ]; do sleep 0.05; done; "$0" helper; wait' \
        "$plugin"
    says 'good did not take over /test:system/log: no answer in time'
    ! grep -F 'good did not take over /test:system/user' "$output" || fail "what follows is lost"
    ;;
newcomer)
    ends_with 0 run --timeout 30 --script newcomer.confsim -- sh -c \
        '"$0" good & until [ -e /var/tmp/stalling ]; do sleep 0.05; done; rm /var/tmp/activated
         "$0" late cfgr & until [ -e /var/tmp/activated ]; do sleep 0.05; done
         while touch /var/tmp/go; do sleep 0.05; done' \
        "$plugin"
    ;;
start)
    ends_with 0 run --config running.xml --script start.confsim -- \
        sh -c '"$0" good cfgr & "$0" smooth smooth & wait' "$plugin"
    ;;
stores)
    ends_with 0 run --store "$store" --script stores.confsim -- "$plugin"
    ends_with 0 run --store "$store" --config running.xml --script restored.confsim -- true
    says '* the configuration of the store is used, not running.xml'
    # A disk without room for the bigger configuration: the change is taken back.
    (
        ulimit -f 8 # of what confsim says, too, so that goes through a pipe
        "$confsim" run --store "$store" --script full.confsim -- "$plugin" 2>&1 && echo "all went well"
    ) | cat >"$output"
    cat "$output"
    says 'all went well'
    ends_with 0 run --store "$store" --script restored.confsim -- true
    # A module known by its prefix only keeps its name.
    echo '<x:top xmlns:x="urn:example:y"><leaf>1</leaf></x:top>' >"$work/prefixed.xml"
    ends_with 0 run --store "$work/second" --config "$work/prefixed.xml" -- true
    type_in 'show /x:top/leaf'
    ends_with 0 run --store "$work/second" -- true
    says '>1</x:leaf>'
    # The name of a module does not end its namespace here.
    echo '<top xmlns="http://example.org/y/"><leaf>2</leaf></top>' >"$work/slash.xml"
    type_in 'show /y:top/leaf'
    ends_with 0 run --config "$work/slash.xml" -- true
    says '>2</leaf>'
    ;;
unreadable)
    # What the next start could not read is not taken.
    nested=$(printf '%254s' '')
    echo "$nested" | sed 's| |<a>|g; p; s|<|</|g' >"$work/deep.xml"
    ends_with 1 run --store "$store" --config "$work/deep.xml" -- true
    says 'nested too deep'
    for value in '\357\277\277' '\355\240\200' '\001' '\303' '\215\215' '\301\201'; do
        for command in "set /a:b $value" "set /a:b[c='$value']" "set /a:b$value" \
            "status /a:$value"; do
            type_in "$(printf "$command")"
            ends_with 1 run -- true
            says '/a:'
            says 'characters that XML cannot hold'
        done
    done
    printf '<!DOCTYPE a [<!ENTITY b "text">]>\n<a>&b;</a>\n' >"$work/entity.xml"
    ends_with 1 run --config "$work/entity.xml" -- true
    says 'entity.xml: a document type declaration is not supported'
    {
        printf 'set /a:b '
        head -c 10000001 /dev/zero | tr '\0' x
    } >"$input"
    ends_with 1 run -- true >"$work/log"
    says 'error: /a:b: the value is too long'
    type_in "$(printf 'set /a:b \360\237\230\200\ncommit')"
    ends_with 0 run --store "$store" -- true
    ;;
killed)
    # Whatever was reported as committed before a kill is there afterwards.
    seq 20000 | sed 's|.*|set /test:system/value &\ncommit|' >"$work/script"
    type_in show
    for delay in 0 0.02 0.05 0.1 0.15 0.2 0.3; do
        : >"$output"
        "$confsim" run --store "$store" --script "$work/script" -- true >"$output" 2>&1 &
        until grep -q '^committed' "$output"; do sleep 0.02; done
        sleep "$delay"
        kill -KILL "$!"
        wait "$!" || true
        confirmed=$(awk '/^> set/ {value = $4} /^committed/ {last = value} END {print last + 0}' \
            "$output")
        ends_with 0 run --store "$store" -- true
        stored=$(sed -n 's/.*>\([0-9]*\)<\/value>.*/\1/p' "$output")
        [ "${stored:-0}" -ge "$confirmed" ] || fail "lost: $confirmed"
    done
    ;;
hostile)
    ends_with 0 run --config running.xml --script hostile.confsim -- sh -c \
        '"$0" & until [ -e /var/tmp/activated ]; do sleep 0.05; done; "$1"; wait' \
        "$plugin" "$3/confsim_hostile"
    says 'no more plugins are accepted: there are 256'
    says 'does not read what it is sent'
    says ': register refused: There is a plugin good already.'
    says ': x refused: Method x is not served.'
    says 'plugin mute did not take over /test:system/user[name="ann"]: the plugin is deactivated'
    ;;
crowd)
    (
        ulimit -Sn 40
        ends_with 0 run --script crowd.confsim -- \
            sh -c 'ulimit -Sn 400; "$1" crowd; exec "$0"' "$plugin" "$3/confsim_hostile"
    )
    [ "$(grep -c 'no more plugins are accepted: Too many open files' "$output")" = 1 ] ||
        fail "not said once"
    ;;
covered)
    # What lies below a covered directory, or right in it, is there all the same.
    cp running.xml "$covered.config"
    echo 'show' >"$covered.script"
    for place in "$covered/store" "$covered.store"; do
        ends_with 0 run --store "$place" --config "$covered.config" --script "$covered.script" \
            -- cat "$covered.script"
        says '>info</value>'
        [ -s "$place/running.xml" ] || fail "nothing is stored in $place"
    done
    ends_with 1 run --store /var/tmp -- true
    says 'nothing would be kept'
    ;;
trace)
    ends_with 0 run --config running.xml --script trace.confsim -- "$plugin"
    says '--> good'
    says '<path>/test:system/user[name="ann"]</path>'
    masked=$(grep -cF '<password>******</password>' "$output")
    [ "$masked" = 3 ] || fail "masked in $masked places instead of 3: two pulls and a call"
    ! grep -F s3cret "$output" || fail "a secret is shown"
    ;;
signals)
    # A signal ends the script, and the program gets its time to end.
    printf 'sleep 60\necho the script goes on\n' >"$work/script"
    : >"$output"
    "$confsim" run --script "$work/script" -- sh -c \
        'trap "sleep 0.5; echo gentle end; exit 0" TERM; echo ready; while :; do sleep 0.1; done' \
        >"$output" 2>&1 &
    until grep -q '^ready' "$output"; do sleep 0.02; done
    kill -TERM "$!"
    seen=0
    wait "$!" || seen=$?
    cat "$output"
    [ "$seen" = 1 ] || fail "exit status $seen instead of 1"
    says 'gentle end'
    ! grep -F 'the script goes on' "$output" || fail "the script goes on after a signal"
    ;;
terminal)
    # What is typed is UTF-8 also in the C locale; what is not is replaced.
    printf 'echo typed:\303\274:\377:\nquit\n' >"$work/keys"
    LC_ALL=C script -qec "'$confsim' run -- true" /dev/null <"$work/keys" >"$output" || fail "$?"
    cat "$output"
    printf 'typed:\303\274:\357\277\275:\r\n' >"$work/wanted"
    grep -qaF -f "$work/wanted" "$output" || fail "the line is not what was typed"
    ;;
exits)
    # What confsim ignores, its program does not.
    type_in 'wait good 30'
    ends_with 0 run -- sh -c 'for signal in PIPE XFSZ; do
        sh -c "kill -$signal \$\$"
        echo "by SIG$signal: $?"
    done
    exec "$0"' "$plugin"
    says 'by SIGPIPE: 141'
    says 'by SIGXFSZ: 153'
    input=/dev/null
    seen=0
    "$confsim" run -- true >/dev/full || seen=$?
    [ "$seen" = 1 ] || fail "exit status $seen without room for the output"
    "$confsim" run -- true <&- || fail "exit status $? without standard input"
    ends_with 2 --nonsense
    ends_with 2 run
    ends_with 2 --timeout nan run -- true
    ends_with 0 run -- true
    ends_with 1 run --script running.xml -- true
    says 'running.xml:1: there is no command <config>'
    ends_with 1 run --config editing.confsim -- true
    ends_with 1 run -- /nothing/there
    says 'cannot run /nothing/there: No such file or directory'
    ends_with 1 run --script trace.confsim --timeout 2 -- sh -c 'exit 7'
    says 'trace.confsim:2: plugin good was not activated in time'
    says 'ended with exit status 7'
    # Inside, the profile belongs to the confsim outside.
    ends_with 1 run --script trace.confsim --timeout 10 -- "$confsim"
    says 'belongs to a daemon that is alive, at /var/tmp'
    type_in 'sleep 2'
    ends_with 0 run -- sh -c 'trap "" TERM; sleep 60'
    says 'sh does not end and is killed'
    ;;
*) fail "no case $1" ;;
esac
