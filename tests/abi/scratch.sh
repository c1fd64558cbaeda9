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
