#!/usr/bin/env bash
# Checks that the fault lane is complete: the library calls nothing that calls.def does not list,
# calls.def lists no fault of a function that it does not call, and the stories use all that the
# library exports.
# usage: calls.sh LIBRARY_OBJECT EXPORTS_MAP STORY_OBJECT...
set -euo pipefail
shopt -s inherit_errexit
definitions="$(dirname "$0")/calls.def"
library=$1 map=$2
shift 2

undefined() # OBJECT...
{
    nm -u "$@" | sed -n 's/^ *[Uw] //p' | sort -u
}

listed() # KIND
{
    grep -v '^//' "$definitions" | tr '\n' ' ' | grep -oP "\b($1)\(\K[\w ]+" | tr -s ' ' '\n' |
        sort -u
}

# report TITLE: fails with what stands on standard input, if anything.
status=0
report()
{
    ! names=$(grep .) || { printf '%s:\n%s\n' "$1" "$names" && status=1; }
}

wrapped=$(undefined "$library" | sed -n 's/^__wrap_//p')
others=$(undefined "$library" | grep -vE '^__(wrap|asan|ubsan|sanitizer)_')
exported=$(sed 's@/\*.*\*/@@; /local:/,/^}/d; /^}/d' "$map" | grep -oE '[A-Za-z0-9_]+;' | tr -d ';' | sort -u)

report "called by the library, not listed in calls.def" \
    < <(comm -23 <(printf '%s\n' "$others") <(listed UNFAILING))
report "listed in calls.def, not called by the library" \
    < <(comm -13 <(printf '%s\n' "$wrapped") <(listed 'CALL|VARIADIC|TRANSFER|SPECIAL'))
report "exported, but in no story" < <(comm -23 <(printf '%s\n' "$exported") <(undefined "$@"))
exit "$status"
