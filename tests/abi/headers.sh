#!/usr/bin/env bash
# Compiles every public header by itself, as C and as C++, with each compiler that is there, and the
# layout assertions for the host and for targets with 32-bit pointers.
# usage: headers.sh SOURCE_DIR WORK_DIR
set -euo pipefail
source_dir=$1
work_dir=$2

libxml=$(pkg-config --cflags-only-I libxml-2.0)
flags=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fsyntax-only
       -I "$source_dir/include")
read -ra system <<<"${libxml//-I/-isystem }"

compilers=()
for compiler in gcc clang; do
    if command -v "$compiler" >/dev/null; then
        compilers+=("$compiler")
    fi
done

# A user's file: the header in the given surroundings, then both truth values in use.
use_header()
{
    local before=$1 header=$2 after=$3
    cat <<END
$before
#include "$header"
$after
bool_t is_other(bool_t given);
bool_t is_other(bool_t given)
{
    bool_t yes = true;
    const bool_t no = false;
    if (given == false)
        yes = false;
    return yes != true ? no : given;
}
END
}

count=0
failed=0

# check TITLE TEXT COMMAND...: compiles the text, given on standard input.
check()
{
    local title=$1 text=$2
    shift 2
    count=$((count + 1))
    if ! "$@" <<<"$text"; then
        printf 'does not compile: %s\n' "$title"
        failed=$((failed + 1))
    fi
}

layout=$(cat "$source_dir/tests/abi/layout.c")
stdbool='#include <stdbool.h>'
for compiler in "${compilers[@]}"; do
    for language in c:c11 c++:c++17 c++:c++20; do
        kind="as $language, $compiler"
        as=("$compiler" -x "${language%:*}" -std="${language#*:}" "${flags[@]}" "${system[@]}" -)
        for header in "$source_dir"/include/*.h; do
            name=$(basename "$header")
            check "$name $kind" "$(use_header '' "$name" '')" "${as[@]}"
        done
        name=conf_def.h # the one that all others take their truth values from
        check "$name after stdbool.h $kind" "$(use_header "$stdbool" "$name" '')" "${as[@]}"
        check "$name before stdbool.h $kind" "$(use_header '' "$name" "$stdbool")" "${as[@]}"
        check "layout $kind" "$layout" "${as[@]}"
    done
done

# clang compiles for any target; the C library's headers of this machine do for a look at layouts.
# They ask for a list of stubs that only a 32-bit C library has, hence an empty one.
if command -v clang >/dev/null && [[ $(uname -m) == x86_64 ]]; then
    mkdir -p "$work_dir/stubs/gnu"
    : >"$work_dir/stubs/gnu/stubs-32.h"
    foreign=(-isystem "$work_dir/stubs" -idirafter "/usr/include/$(gcc -print-multiarch)"
             -idirafter /usr/include -DU_SHOW_CPLUSPLUS_API=0)
    for target in i686-linux-gnu armv7-linux-gnueabihf aarch64-linux-gnu; do
        for language in c:c11 c++:c++17; do
            check "layout as $language for $target" "$layout" clang --target="$target" \
                -x "${language%:*}" -std="${language#*:}" "${flags[@]}" "${system[@]}" "${foreign[@]}" -
        done
    done
fi

printf '%d compilations, %d failed\n' "$count" "$failed"
((count > 0 && failed == 0))
