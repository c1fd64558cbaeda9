#!/usr/bin/env bash
# Compiles plugins of each interface, as C and as C++, with what is installed alone, and runs them
# with the installed confsim: plain ones, the one of the README, which is supervised, its twin in
# C++, and that without exceptions, which is the guide's.
# usage: installed.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
install_tree "$2"
tee newer.c newer.cpp <"$1/tests/confsim/plugin.c" >/dev/null
tee older.c older.cpp <"$1/examples/legacy/banner.c" >/dev/null
block "$1/README.md" c 1 | tee hello.c hello.cpp >/dev/null
block "$1/README.md" cpp 1 >closures.cpp
block "$1/docs/guide.md" c++ 1 >outcomes.cpp

cat >newer.confsim <<'END'
wait good
set /test:system/user[name="ann"]/value refuse
fail commit
expect code 22: this value is refused
status /test:journal/good all
expect filter all: [oper 1 more 0 prio 20 /test:system/user[name=ann] refuse was -]
call echo <a><b>1</b></a> text
expect <b>1</b>
kickoff
wait-notification
expect <by-node/>
END
cat >older.confsim <<'END'
wait banner
set /system:banner Welcome
commit
expect add /system:banner to banner: ok
wait-notification
expect <banner-changed/>
set /system:banner "Eighty-one characters are one too many: 12345678901234567890123456789012345678901"
fail commit
expect code 27: The banner is longer than 80 characters.
status /system:banner-state
expect <length>7</length>
call clear-banner <reason>night</reason>
expect <cleared>night</cleared>
END
cat >hello.confsim <<'END'
wait hello
set /hello:settings/greeting Hi
commit
delete /hello:settings
fail commit
expect code 42: A greeting is needed.
discard
kickoff hello
END
ln -s hello.confsim closures.confsim
ln -s hello.confsim outcomes.confsim

read -ra flags <<<"$(pkg-config --cflags --libs libconfsvc)"
flags+=("-Wl,-rpath,$(realpath "$(pkg-config --variable=libdir libconfsvc)")")

# try COMPILER STANDARD SUFFIX PROGRAM...: the argument of each is a name or a file.
try()
{
    local compiler=$1 standard=$2 suffix=$3 name program needed mode
    shift 3
    for name; do
        program=./$name-$compiler-$standard
        [[ $name == outcomes ]] && mode=-fno-exceptions || mode=-fexceptions
        printf '=== %s, %s, %s\n' "$name" "$compiler" "$standard"
        "$compiler" "-std=$standard" "$mode" -D_GNU_SOURCE -Wall -Wextra -Wpedantic \
            -Werror "$name.$suffix" -o "$program" "${flags[@]}"
        needed=$(readelf -d "$program" | grep NEEDED)
        if [[ $needed != *libconfsvc.so.1* || ($suffix == c && $needed =~ c\+\+|libgcc) ]]; then
            printf 'needs other libraries than it should:\n%s\n' "$needed"
            return 1
        fi
        usr/bin/confsim run --script "$name.confsim" -- "$program" good
    done
}

try_all() # C_COMPILER CXX_COMPILER
{
    local standard
    try "$1" c11 c newer older hello
    try "$2" c++17 cpp older
    for standard in c++17 c++20 c++2b; do
        try "$2" "$standard" cpp newer hello closures outcomes
    done
}

printed=()
for compilers in "gcc g++" "clang clang++"; do
    read -r c cxx <<<"$compilers"
    if command -v "$c" "$cxx" >/dev/null; then
        try_all "$c" "$cxx" >"$c.log" 2>&1 &
        printed+=("$c.log $!")
    fi
done
status=0
for each in "${printed[@]}"; do
    read -r log process <<<"$each"
    wait "$process" || status=1
    cat "$log"
done
exit "$status"
