#!/usr/bin/env bash
# Compares what the shared library shows to the outside with what it is meant to show: its symbols,
# with their list and the headers; the libraries that it needs; and that it runs
# no code when it is loaded.
# usage: exported-symbols.sh LIBRARY SOURCE_DIR
set -euo pipefail
library=$1
source_dir=$2
headers=("$source_dir"/include/*.h)
status=0

# same TITLE WANTED ACTUAL: compares two lists, one name a line.
same()
{
    local difference
    if ! difference=$(diff <(printf '%s\n' "$2") <(printf '%s\n' "$3")); then
        printf '%s (< missing, > too much):\n%s\n' "$1" "$(grep '^[<>]' <<<"$difference")"
        status=1
    fi
}

without_comments()
{
    sed -E 's@/\*.*\*/@@; /^ *\/\*/,/\*\//d' "$@"
}

listed=$(without_comments "$source_dir/src/lib/libconfsvc.map" |
    sed -n '/global:/,/local:\|}/p' | grep -v '[:}]' | tr -d ' \n' | tr ';' '\n' | sort)
exported=$(nm -D --defined-only "$library" |
    awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort)
same "exported symbols" "$listed" "$exported"

# Every exported symbol is declared, and every declared function is exported.
text=$(without_comments "${headers[@]}")
words=$(grep -oE '[A-Za-z_0-9]+' <<<"$text" | sort -u)
undeclared=$(comm -23 <(printf '%s\n' "$exported") <(printf '%s\n' "$words"))
if [[ -n $undeclared ]]; then
    printf 'exported, but in no header:\n%s\n' "$undeclared"
    status=1
fi
declared=$(grep -E '^[a-z].*[ *][A-Za-z_0-9]+\(' <<<"$text" | grep -vE '^(typedef|extern "C")' |
    sed -E 's/^[^(]*[ *]([A-Za-z_0-9]+)\(.*/\1/' | sort)
missing=$(comm -23 <(printf '%s\n' "$declared") <(printf '%s\n' "$exported"))
if [[ -n $missing ]]; then
    printf 'declared, but not exported:\n%s\n' "$missing"
    status=1
fi

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p' |
    sed 's/\.so.*//' | grep -v '^ld-linux' | sort)
same "needed libraries" $'libc\nlibcjson\nlibpcre2-8\nlibxml2' "$needed"

# One entry is the C compiler's own; a second one would be a constructor of ours.
pointer=$(readelf -h "$library" | grep -q ELF64 && echo 8 || echo 4)
constructors=$(readelf -SW "$library" | sed -n 's/^ *\[ *[0-9]*\] //p' |
    awk '$1 == ".init_array" {print $5}')
if ((16#${constructors:-0} > pointer)); then
    printf 'code runs when the library is loaded: .init_array has %d bytes\n' \
        $((16#$constructors))
    status=1
fi

printf '%d symbols\n' "$(wc -l <<<"$exported")"
exit "$status"
