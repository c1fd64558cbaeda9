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
