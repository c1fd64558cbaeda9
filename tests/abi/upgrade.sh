#!/usr/bin/env bash
# Changes the library under plugins: one that was built against the first interface runs with today's
# library, and one that uses later calls is refused by a library of the first interface, in the
# loader's words, before it has done anything.
# usage: upgrade.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
source_dir=$1
build_dir=$2
confsim=$build_dir/tools/confsim/confsim
mkdir first today
cp "$build_dir/src/lib/libconfsvc.so.1" today
ln -s libconfsvc.so.1 today/libconfsvc.so

# The first interface is the first version node; what is behind the others leaves the library.
sed '/^};/q' "$source_dir/src/lib/libconfsvc.map" >first.map
mapfile -t objects < <(find "$build_dir/src/lib/CMakeFiles/confsvc_objects.dir" -name '*.o')
# shellcheck disable=SC2046 # several options
gcc -shared "${objects[@]}" -o first/libconfsvc.so.1 -Wl,-soname=libconfsvc.so.1 \
    -Wl,--version-script=first.map -Wl,--gc-sections $(pkg-config --libs libxml-2.0 libpcre2-8 libcjson)
ln -s libconfsvc.so.1 first/libconfsvc.so

# compile SOURCE PROGRAM LIBRARY_DIR
compile()
{
    # shellcheck disable=SC2046 # several options
    cc -D_GNU_SOURCE -I"$source_dir/include" $(pkg-config --cflags libxml-2.0) "$1" -o "$2" \
        -L"$3" -lconfsvc $(pkg-config --libs libxml-2.0)
}

block "$source_dir/README.md" c 1 >hello.c
compile "$source_dir/examples/legacy/banner.c" banner first
compile hello.c hello today
if compile hello.c none first 2>/dev/null; then
    printf 'the library of the first interface has later calls\n'
    exit 1
fi
for library in first today; do
    LD_LIBRARY_PATH=$library "$confsim" run --script <(
        printf '%s\n' 'wait banner' 'set /system:banner Welcome' commit 'expect to banner: ok'
    ) -- ./banner state
done
LD_LIBRARY_PATH=today "$confsim" run --script <(echo 'wait hello') -- ./hello
if LD_LIBRARY_PATH=first ./hello 2>refused; then
    printf 'a library without the calls was loaded\n'
    exit 1
fi
cat refused
grep -q "libconfsvc.so.1: version .CONFSVC_1.1' not found (required by ./hello)" refused
