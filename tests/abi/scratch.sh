#!/usr/bin/env bash
# Sourced by the tests that build programs of the pages or against the installed tree: enters a
# directory that goes at the end, and installs there.
set -euo pipefail
scratch_dir=$(mktemp -d)
trap 'rm -rf "$scratch_dir"' EXIT
cd "$scratch_dir"

# install_tree BUILD_DIR: installs into usr, and shows pkg-config the way there.
install_tree()
{
    cmake --install "$1" --prefix "$PWD/usr" >/dev/null
    PKG_CONFIG_PATH=$(dirname "$(find usr -name libconfsvc.pc)")
    export PKG_CONFIG_PATH
}

# block FILE LANGUAGE NUMBER|all: the text of a fenced block of a page, or of all.
block()
{
    awk -v wanted="$2" -v number="$3" '
        $0 == "```" {inside = 0}
        inside {print}
        $0 == "```" wanted && (++count == number || number == "all") {inside = 1}' "$1"
}

# readme_plugins README: its plugin in C as hello.c, and that in C++ as a project of CMake.
readme_plugins()
{
    block "$1" c 1 >hello.c
    block "$1" cpp 1 >hello.cpp
    {
        printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(hello CXX)' \
            'add_executable(hello hello.cpp)'
        block "$1" cmake 1 | sed 's/confsvc::confsvc/confsvc::cpp/'
    } >CMakeLists.txt
}

# follow PAGE NUMBER [SED_COMMAND]: does what a block of sh says, where a warning of a compiler fails.
follow()
{
    block "$1" sh "$2" | sed -E "s/^c(c|\+\+) /&-Wall -Wextra -Werror /${3:+; $3}" >commands
    [[ -s commands ]]
    sh -eux commands
}

# follow_readme README: its plugin, compiled and run in C and in C++ by its commands, through its session.
follow_readme()
{
    local as_script='s/run --/run --script session --/'
    block "$1" c 1 >hello.c
    block "$1" cpp 1 >hello.cpp
    # The session, with what a newcomer is told to see in it.
    block "$1" text 1 >pasted
    awk '
        $0 == "try commit" {print "fail commit\nexpect A greeting is needed."; next}
        {print}
        $0 == "commit" {print "expect committed"}
        $0 == "show" {print "expect <greeting>Hi</greeting>"}' pasted >session
    [[ $(grep -c '^expect' session) == 3 ]]

    follow "$1" 2 "$as_script"
    # Pasted into a pipe as it stands, it goes on to its end.
    confsim run -- ./hello <pasted | tee printed
    [[ $(tail -n 1 printed) == '> quit' ]]
    grep -q '<greeting>Hi</greeting>' printed
    rm hello
    follow "$1" 3 "$as_script"
}

# follow_guide GUIDE: its plugin, whose pieces are all blocks of a language, in C and in C++.
follow_guide()
{
    block "$1" c all >door.c
    block "$1" cpp all >door.cpp
    block "$1" text 1 >door.confsim
    follow "$1" 1
    rm door
    follow "$1" 2
}
