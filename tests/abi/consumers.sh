#!/usr/bin/env bash
# Builds plugins in each way in which a project of its own takes the library in: installed and moved,
# by CMake and by pkg-config; as a part of its own build, by add_subdirectory and by FetchContent.
# What is installed beside it is whole: the links of the pages lead somewhere, the examples build.
# usage: consumers.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
source_dir=$1
install_tree "$2"
library_dir=$(dirname "$PKG_CONFIG_PATH")
export PKG_CONFIG_PATH=$PWD/moved/${PKG_CONFIG_PATH#*/} LD_LIBRARY_PATH=$PWD/moved/${library_dir#*/}
mv usr moved
if grep -rIl "$PWD/usr" moved; then
    printf 'these files name the place where they were installed first\n'
    exit 1
fi

# project DIRECTORY LINE...: a project of a plugin in C and one in C++, with the lines that find the
# library.
project()
{
    local directory=$1
    shift
    mkdir "$directory"
    cp "$source_dir/examples/legacy/banner.c" "$source_dir/examples/users/users.cpp" "$directory"
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(plugins C CXX)' "$@" \
        'add_executable(banner banner.c)' 'target_compile_definitions(banner PRIVATE _GNU_SOURCE)' \
        'target_link_libraries(banner PRIVATE confsvc::confsvc)' 'add_executable(users users.cpp)' \
        'target_link_libraries(users PRIVATE confsvc::cpp)' >"$directory/CMakeLists.txt"
}

# configure DIRECTORY OPTION...: the output is shown only where CMake fails.
configure()
{
    cmake -S "$1" -B "$1/build" -G Ninja "${@:2}" >log 2>&1 || { cat log; return 1; }
}

# play DIRECTORY: runs what was built there with the installed confsim.
play()
{
    local plugin
    for plugin in banner users; do
        moved/bin/confsim run --script <(printf 'wait %s\n' "$plugin") -- "$1/$plugin" "$plugin.state"
    done
}

printf '=== find_package\n'
project found 'find_package(confsvc 1.0 CONFIG REQUIRED)'
cat >>found/CMakeLists.txt <<'END'
enable_testing()
confsvc_add_plugin_test(NAME banner PLUGIN banner TRACE jsonl ARGUMENTS banner.state)
END
printf 'wait banner\n' >found/banner.confsim
configure found -DCMAKE_PREFIX_PATH="$PWD/moved"
cmake --build found/build
play found/build
ctest --test-dir found/build --output-on-failure
grep 'testcase .*banner' found/build/banner.junit.xml
grep -q '"method":"activate"' found/build/banner.jsonl
if grep -rI "$source_dir" moved/lib*; then
    printf 'the installed files name the sources\n'
    exit 1
fi

# Version 2 stands for another soname: what asks for it must not get this one.
project other 'find_package(confsvc 2.0 CONFIG REQUIRED)'
if configure other -DCMAKE_PREFIX_PATH="$PWD/moved" >/dev/null || ! grep -q 'version: 1\.' log; then
    printf 'a project that asks for version 2.0 was not refused for its version\n'
    exit 1
fi

printf '=== pages and examples\n'
links=0
while IFS=: read -r page link; do
    target=$(sed -E 's/^\]\(//; s/[#)].*//' <<<"$link")
    links=$((links + 1))
    [[ -e $(dirname "$page")/$target ]] || { printf '%s: dead link %s\n' "$page" "$target"; exit 1; }
done < <(grep -rEo '\]\([a-zA-Z0-9_./][^: )]*\)' moved/share/doc --include='*.md')
((links > 10))
cmake -S moved/share/doc/confsvc/examples -B examples -G Ninja -DCMAKE_PREFIX_PATH="$PWD/moved" \
    >log 2>&1 || { cat log; exit 1; }
cmake --build examples

printf '=== the project to copy, by the commands of its workflow\n'
cp -r moved/share/doc/confsvc/examples/starter starter
played=0
while read -r command; do
    case $command in
    './ci.sh install'* | './ci.sh chaos 500') ;; # packages, which are tested as such, and the nights
    './ci.sh '*)
        (cd starter && CMAKE_PREFIX_PATH="$OLDPWD/moved" PATH="$OLDPWD/moved/bin:$PATH" \
            $command </dev/null) || exit 1
        played=$((played + 1))
        ;;
    *)
        printf 'the workflow runs what nobody else can: %s\n' "$command"
        exit 1
        ;;
    esac
done < <(sed -n 's/^ *- run: //p' starter/.github/workflows/plugin.yml)
((played == 2))
grep -q 'testcase .*it refuses a greeting that is too long' starter/build/hello.junit.xml

printf '=== pkg-config\n'
mkdir bare
# shellcheck disable=SC2046 # several options
cc -D_GNU_SOURCE found/banner.c -o bare/banner $(pkg-config --cflags --libs libconfsvc)
# shellcheck disable=SC2046
c++ -std=c++17 found/users.cpp -o bare/users $(pkg-config --cflags --libs libconfsvc)
play bare

printf '=== add_subdirectory\n'
project within "add_subdirectory($source_dir confsvc)"
configure within -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCONFSVC_TOOLS=OFF
cmake --build within/build
LD_LIBRARY_PATH=within/build/confsvc/src/lib play within/build
cmake --install within/build --prefix "$PWD/empty"

printf '=== FetchContent\n'
project fetched 'include(FetchContent)' "FetchContent_Declare(confsvc SOURCE_DIR $source_dir)" \
    'FetchContent_MakeAvailable(confsvc)'
configure fetched

# Whoever takes the library in gets neither its tests nor its examples, nor installs it unasked.
for build in within fetched; do
    if find "$build/build" \( -path '*confsvc*/tests' -o -path '*confsvc*/examples' \
        -o -name CTestTestfile.cmake -o -name 'libconfsvc_static.a' \) | grep .; then
        printf 'these are no business of the project in %s\n' "$build"
        exit 1
    fi
done
if find empty -type f 2>/dev/null | grep .; then
    printf 'these were installed unasked\n'
    exit 1
fi
