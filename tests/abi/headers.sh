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

# A user's file: the header between the given lines, then both truth values in use.
use_header()
{
    printf '%s\n' "$1" "#include \"$2\"" "$3" 'bool_t is_other(bool_t given);' \
        'bool_t is_other(bool_t given) { const bool_t no = false; return given == true ? no : true; }'
}

count=0
failed=0

# check TITLE TEXT COMPILER LANGUAGE:STANDARD FLAG...: compiles the text.
check()
{
    local title="$1 as $4, $3" text=$2 compiler=$3 language=$4
    shift 4
    count=$((count + 1))
    if ! "$compiler" -x "${language%:*}" "-std=${language#*:}" "${flags[@]}" "${system[@]}" "$@" - \
        <<<"$text"; then
        printf 'does not compile: %s\n' "$title"
        failed=$((failed + 1))
    fi
}

# Every form of the C++ interface; each of its headers stands alone.
forms=$(cat "$source_dir/tests/abi/forms.cpp")
for compiler in gcc clang; do
    command -v "$compiler" >/dev/null || continue
    for standard in c++17 c++20 c++2b; do
        for mode in -fexceptions '-fno-exceptions -fno-rtti'; do
            read -ra modes <<<"$mode"
            check "forms with $mode" "$forms" "$compiler" "c++:$standard" "${modes[@]}"
        done
    done
    for header in "$source_dir"/include/confsvc/*.hpp; do
        check "$(basename "$header")" "#include \"confsvc/$(basename "$header")\"" \
            "$compiler" c++:c++17
    done
done

layout=$(cat "$source_dir/tests/abi/layout.c")
stdbool='#include <stdbool.h>'
for compiler in gcc clang; do
    command -v "$compiler" >/dev/null || continue
    for language in c:c11 c++:c++17 c++:c++20; do
        for header in "$source_dir"/include/*.h; do
            check "$(basename "$header")" "$(use_header '' "$(basename "$header")" '')" \
                "$compiler" "$language"
        done
        # The header that all others take their truth values from.
        check "after stdbool.h" "$(use_header "$stdbool" conf_def.h '')" "$compiler" "$language"
        check "before stdbool.h" "$(use_header '' conf_def.h "$stdbool")" "$compiler" "$language"
        check layout "$layout" "$compiler" "$language"
    done
done

# clang compiles for any target; the C library's headers of this machine do for a look at layouts.
# They ask for a list of stubs that only a 32-bit C library has, hence an empty one.
if command -v clang >/dev/null && [[ $(uname -m) == x86_64 ]]; then
    mkdir -p "$work_dir/stubs/gnu"
    : >"$work_dir/stubs/gnu/stubs-32.h"
    for target in i686-linux-gnu armv7-linux-gnueabihf aarch64-linux-gnu; do
        for language in c:c11 c++:c++17; do
            check "layout for $target" "$layout" clang "$language" "--target=$target" \
                -isystem "$work_dir/stubs" -idirafter "/usr/include/$(gcc -print-multiarch)" \
                -idirafter /usr/include -DU_SHOW_CPLUSPLUS_API=0
        done
    done
fi

printf '%d compilations, %d failed\n' "$count" "$failed"
((count > 0 && failed == 0))
