#!/usr/bin/env bash
# Tries the built packages in a fresh minimal root with compilers, by installed.sh.
# usage: test.sh DIRECTORY    where the packages are
set -euo pipefail
packages=$(realpath "$1")
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
architecture=$(dpkg --print-architecture)
cp installed.sh ../abi/scratch.sh "$packages"/*_"$architecture".deb "$packages"/*_all.deb "$work"
rm "$work"/*-dbgsym_*

../../scripts/fresh-root.sh "$work" "$architecture" g++,cmake,make,pkg-config,dpkg-dev \
    'bash /work/installed.sh /work'
