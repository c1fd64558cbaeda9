#!/bin/sh
# Orders each fault for a plugin that is right, which must be there afterwards as before, and for one
# that is wrong in a way that the fault brings to light: faults.sh CONFSIM CONFSIM_ODD
# Sessions wait most of their time, so all of them run at once.
set -eu
confsim=$1
odd=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
sessions=0
running=

# plays STATUS PLUGIN SCRIPT: the commands of the script, separated by semicolons, between a
# beginning and an end at which the plugin serves.
plays()
{
    output=$work/$sessions
    {
        echo 'wait odd 30'
        echo "$3" | tr ';' '\n'
        printf 'wait odd 3\ncall echo <x/>\nfaults\nkickoff\n'
    } >"$output.script"
    (
        seen=0
        "$confsim" run --ignore-exit --timeout 2 --script "$output.script" -- "$odd" "$2" \
            >"$output" 2>&1 || seen=$?
        [ "$seen" = "$1" ] && exit 0
        cat "$output"
        echo "exit status $seen instead of $1, way $2: $3"
        exit 1
    ) &
    running="$running $!"
    sessions=$((sessions + 1))
}

# How a plugin is wrong, and what happens to it.
while IFS='|' read -r wrong script; do
    plays 0 right "$script"
    plays 1 "$wrong" "$script"
done <<'END'
naive|fault odd drop;sleep 1.5;faults;expect odd: drop, 1 time
naive|fault odd delay 2;sleep 2.5
naive|fault odd duplicate;sleep 0.3
naive|fault odd truncate 20;sleep 1.5
naive|fault odd corrupt 0;sleep 1.5
naive|fault odd corrupt 12;sleep 1.5
naive|fault odd split 20;sleep 0.3
naive|fault odd disconnect-at 20;sleep 0.3
naive|fault odd refuse pull 22 not now;sleep 0.3
naive|fault all silence pull;sleep 1.5
naive|fault odd late pull 2;sleep 2.5
naive|fault all always split 5;sleep 0.3;fault all off;sleep 0.3
naive|stop 1.5;sleep 0.3
naive|restart;sleep 0.3
naive|restart 0.3;sleep 0.3
naive|kill odd;sleep 0.3
naive|full;sleep 0.3
rejoins|unreadable-profile;kill odd;sleep 0.3;unreadable-profile off
END

# What no plugin is harmed by; a request that a fault has taken away does not hold up the next.
while IFS='|' read -r way script; do
    plays 0 "$way" "$script"
done <<'END'
right|set /test:system/user[name="a"]/value 1;commit;faults;expect no faults
naive|set /test:system/user[name="a"]/value 1;commit;faults;expect no faults
rejoins|kill odd;restart
naive|fault odd off;fault other drop;sleep 0.3;faults;expect other: drop, still to come
naive|fault odd silence push;fault odd always silence push;fault all off;faults;expect no faults
naive|full;full off;sleep 0.3;wait-notification;expect <tick/>
naive|fail fault odd drop 1;fail fault odd refuse pull;fail fault odd delay x;fail fault odd fly
naive|unreadable-profile;unreadable-profile off;sleep 0.3
right|set /test:system/user[name="a"]/value 1;fault odd always drop;fail commit;fault odd off;commit
right|set /test:system/user[name="a"]/value 1;fault odd truncate 3;try commit;commit
END

failed=0
for each in $running; do
    wait "$each" || failed=1
done
exit "$failed"
