#!/usr/bin/env bash
# Sourced by the tests that build against the installed tree: enters a directory that goes at the
# end, and installs there.
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
