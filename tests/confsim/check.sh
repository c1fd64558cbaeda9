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
    says '/test:state/disk[name="a"] holds both a text and other nodes'
    says '/test:system holds both a text and other nodes'
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
    while IFS='|' read -r text complaint; do
        echo "$text" >"$work/bad.xml"
        ends_with 1 run --config "$work/bad.xml" -- true
        says "bad.xml: $complaint"
    done <<'END'
<!DOCTYPE a [<!ENTITY b "text">]><a>&b;</a>|a document type declaration is not supported
<config>text<a/></config>|there is a text right inside of <config>
<a><b><name>x</name>text</b></a>|/a:a/b[name="x"] holds both a text and other nodes
END
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
    ends_with 0 run --config running.xml --script hostile.confsim --most-plugins 256 -- sh -c \
        '"$0" & until [ -e /var/tmp/activated ]; do sleep 0.05; done; "$1"; wait' \
        "$plugin" "$3/confsim_hostile"
    says 'no more plugins are accepted: there are 256'
    says 'does not read what it is sent'
    says ': register refused: There is a plugin good already.'
    says '* a notification is not XML: all as expected'
    says ': x refused: Method x is not served.'
    says 'plugin mute did not take over /test:system/user[name="ann"]: the plugin is deactivated'
    ;;
crowd)
    # Those who are kept waiting cost no time: all together, in percent of what has passed.
    busy=$(bash -c 'TIMEFORMAT=%P; ulimit -n 40; time "$@" 2>&1 </dev/null | cat >"$0"' \
        "$output" "$confsim" run --script crowd.confsim -- \
        sh -c '"$1" crowd; exec "$0"' "$plugin" "$3/confsim_hostile" 2>&1)
    cat "$output"
    says 'plugin good is activated'
    [ "${busy%.*}" -lt 25 ] || fail "busy for $busy % of the time"
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
    # With --mask all else, too.
    printf '<system xmlns="urn:test"><password>s3cret\ns3cret</password></system>' >"$work/lines.xml"
    type_in "$(printf '%s\n' 'wait good' 'show' 'commit' \
        'set /test:system/user[name="ann"]/password s3cret' 'fail set password s3cret' 'commit' \
        'call echo <a><password>s3cret</password><secret><![CDATA[s3cret]]></secret></a>' \
        'expect <secret>******</secret>' 'set /test:system/password "s3cret')"
    ends_with 1 run --mask --config "$work/lines.xml" -- "$plugin"
    says 'stdin:9: a quote has no end'
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
    LC_ALL=C XDG_STATE_HOME=$work script -qec "'$confsim' run -- true" /dev/null <"$work/keys" >"$output" || fail "$?"
    cat "$output"
    printf 'typed:\303\274:\357\277\275:\r\n' >"$work/wanted"
    grep -qaF -f "$work/wanted" "$output" || fail "the line is not what was typed"
    ;;
ends)
    # How the program ends, by itself or when the daemon has hung up. Each line: the exit status of
    # confsim, the commands, and what the program does.
    while IFS='|' read -r status commands program; do
        type_in "$commands"
        ends_with "$status" run -- sh -c "$program" "$plugin"
    done <<'END'
1|try expect-exit none 30|exit 3
1|try expect-exit none 30|kill -SEGV $$
1|expect-exit 0 30|exit 3
0|expect-exit 3 30|exit 3
0|expect-exit SEGV 30|kill -SEGV $$
1|fail expect-exit 0 0|"$0"; kill -SEGV $$
1|wait good 30|"$0"; exit 23
0|wait good 30|"$0"; exit 1
END
    type_in 'try expect-exit none 30'
    ends_with 1 run -- sh -c 'exit 3'
    says 'confsim: sh ended with exit status 3'
    ends_with 0 run --ignore-exit -- sh -c 'exit 3'
    ;;
leak)
    # What a sanitizer finds after the last message is a reason to fail.
    type_in "$(printf 'wait good 30\ncall echo <leak/>')"
    ends_with 1 run -- "$plugin"
    says 'detected memory leaks'
    says 'ended with exit status 23'
    ;;
leftovers)
    # A daemon that ignores signals ends with confsim, also when that is killed, or can have no PID
    # namespace, as where it could not mount its /proc. It would end by itself after a while.
    cat >"$work/daemon" <<'END'
trap '' TERM HUP INT
for each in $(seq 200); do
    echo "$each" >>"$1"
    sleep 0.05
done
END
    type_in 'sleep 60'
    for end in KILL TERM covered; do
        daemon=$work/lives.$end
        signal=$end
        set -- "$confsim" run -- sh -c 'setsid sh "$0" "$1" & trap "" TERM; wait' \
            "$work/daemon" "$daemon"
        if [ "$end" = covered ]; then
            signal=TERM
            set -- unshare -Urm sh -c 'mount -t tmpfs none /proc/sys && exec "$@"' sh "$@"
        fi
        "$@" >"$output" 2>&1 <"$input" &
        until [ -s "$daemon" ]; do sleep 0.02; done
        kill -"$signal" "$!"
        wait "$!" || true
        cat "$output"
        sleep 0.2
        ticks=$(wc -l <"$daemon")
        sleep 0.5
        [ "$(wc -l <"$daemon")" = "$ticks" ] || fail "it survives: $end"
    done
    says 'no PID namespace'
    # In there, ids and /proc agree, and confsim tells both ids.
    type_in "$(printf 'wait good 30\nplugins')"
    ends_with 0 run -- sh -c 'echo "known as $(cut -d" " -f1 /proc/$$/stat)"; exec "$0"' "$plugin"
    says 'known as 2'
    grep -q '^good: activated, pid [0-9]* (2 inside)$' "$output" || fail 'not both ids'
    ;;
model)
    routes=../../examples/routes
    ends_with 0 run --yang $routes/routes.yang --config $routes/routes.xml --store "$store" \
        --script model.confsim -- true
    # The other notation, of what was stored.
    type_in "$(printf '%s\n' 'show --json' "expect '\"next-hop\": \"west\"'")"
    ends_with 0 run --yang $routes/routes.yang --store "$store" -- true
    sed -n '/^{/,/^}/p' "$output" >"$work/same.json"
    type_in "$(printf '%s\n' "load $work/same.json" diff 'expect no difference')"
    ends_with 0 run --yang $routes/routes.yang --store "$store" -- true
    # Values with prefixes, and lists of leaves.
    head='module m { yang-version 1.1; namespace urn:m; prefix p;'
    echo "$head identity base; identity one { base base; } leaf-list all { type string; }
        leaf kind { type identityref { base base; } } }" >"$work/m.yang"
    type_in "$(printf '%s\n' 'set /m:kind one' 'set /m:all b' 'set /m:all a' 'show candidate' \
        'expect <kind xmlns="urn:m" xmlns:p="urn:m">p:one</kind>' commit 'delete /m:all[.=b]' \
        diff 'expect remove /m:all[.="b"]')"
    ends_with 0 run --yang "$work/m.yang" --store "$work/second" -- true
    type_in "$(printf '%s\n' 'set /m:kind m:one' diff 'expect no difference')"
    ends_with 0 run --yang "$work/m.yang" --store "$work/second" -- true
    # A plugin of another model.
    type_in 'wait good 30'
    ends_with 0 run --yang $routes/routes.yang -- "$plugin"
    says '* warning: plugin good breaks the model: the model has no /test:system'
    type_in 'wait good 1'
    ends_with 1 run --strict --yang $routes/routes.yang -- "$plugin"
    says '* error: plugin good breaks the model: the model has no /test:system'
    # Modules that nobody can use.
    deep() { yes 'container c {' | head -n "$1"; yes '}' | head -n "$1"; }
    twice() { echo "grouping g$1 { container a { uses g$2; } container b { uses g$2; } }"; }
    for text in "$(deep 400)" "$(deep 60000)" \
        "grouping g0 { leaf l { type string; } } $(for i in $(seq 40); do twice "$i" $((i - 1)); done) uses g40;" \
        'grouping g { uses g; } uses g;' 'import nothing { prefix n; }' 'leaf l { type nothing; }'; do
        echo "$head $text }" >"$work/m.yang"
        (ulimit -t 3 && ends_with 1 run --yang "$work/m.yang" -- true)
        grep -E 'm.yang: |nested too deep|too big|takes too long' "$output" || fail 'no clear error'
    done
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
    ends_with 0 --version
    ends_with 2 --nonsense
    ends_with 2 run
    ends_with 2 --timeout nan run -- true
    ends_with 0 run -- true
    ends_with 1 run --script running.xml -- true
    says 'running.xml:1: there is no command <config>'
    ends_with 1 run --config editing.confsim -- true
    ends_with 1 run -- /nothing/there
    says 'cannot run /nothing/there: No such file or directory'
    ends_with 1 run --script trace.confsim --timeout 0.1 -- sh -c 'exit 7'
    says 'trace.confsim:2: plugin good was not activated in time'
    says 'ended with exit status 7'
    # Inside, the profile belongs to the confsim outside.
    type_in 'expect-exit 1 30'
    ends_with 0 run -- "$confsim"
    says 'belongs to a daemon that is alive, at /var/tmp'
    type_in 'wait good 30'
    ends_with 0 run -- sh -c 'trap "" TERM; "$0"; sleep 60' "$plugin"
    says 'sh does not end and is killed'
    ;;
*) fail "no case $1" ;;
esac
