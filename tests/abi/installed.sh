#!/usr/bin/env bash
# Compiles a plugin of each interface, as C and as C++, with what is installed alone, and runs it
# with the installed confsim.
# usage: installed.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
install_tree "$2"
tee newer.c newer.cpp <"$1/tests/confsim/plugin.c" >/dev/null
tee older.c older.cpp <"$1/examples/legacy/banner.c" >/dev/null

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

read -ra flags <<<"$(pkg-config --cflags --libs libconfsvc)"
flags+=("-Wl,-rpath,$(realpath "$(pkg-config --variable=libdir libconfsvc)")")

# try COMPILER STANDARD SUFFIX: with both plugins; the argument of each is a name or a file.
try()
{
    local interface needed
    for interface in newer older; do
        printf '=== %s, %s, %s\n' "$interface" "$1" "$2"
        "$1" "-std=$2" -D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror "$interface.$3" \
            -o "$interface" "${flags[@]}"
        needed=$(readelf -d "$interface" | grep NEEDED)
        if [[ $needed != *libconfsvc.so.1* || ($3 == c && $needed =~ c\+\+|libgcc) ]]; then
            printf 'needs other libraries than it should:\n%s\n' "$needed"
            return 1
        fi
        usr/bin/confsim run --script "$interface.confsim" -- "./$interface" good
    done
}

for compilers in "gcc g++" "clang clang++"; do
    read -r c cxx <<<"$compilers"
    if command -v "$c" "$cxx" >/dev/null; then
        try "$c" c11 c
        try "$cxx" c++17 cpp
        try "$cxx" c++20 cpp
    fi
done
