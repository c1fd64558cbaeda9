#!/usr/bin/env bash
# Tries the packages for armhf as far as qemu goes: unpacks them beside the other packages that a
# plugin needs, builds the README's plugin there by pkg-config and by CMake, and runs both with this
# machine's confsim.
# usage: emulated.sh SYSROOT PACKAGES CONFSIM
set -euo pipefail
sysroot=$(realpath "$1") packages=$(realpath "$2") confsim=$(realpath "$3")
source_dir=$(realpath "$(dirname "$0")/../..")
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/../abi/scratch.sh"

cp -a --link "$sysroot" root
for package in "$packages"/{libconfsvc1,libconfsvc-dev}_*_armhf.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink --no-same-owner -C root
done
readme_plugins "$source_dir/README.md"

library_dir=root/usr/lib/arm-linux-gnueabihf
export PKG_CONFIG_SYSROOT_DIR=$PWD/root PKG_CONFIG_LIBDIR=$PWD/$library_dir/pkgconfig
# shellcheck disable=SC2046 # several options
arm-linux-gnueabihf-gcc hello.c -o hello $(pkg-config --cflags --libs libconfsvc) \
    -L"$library_dir" "-Wl,-rpath-link,$library_dir"
cmake -S . -B build -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/arm-linux-gnueabihf.cmake" \
    -DCONFSVC_ARM_SYSROOT="$PWD/root" >/dev/null
cmake --build build

printf '%s\n' 'wait hello' 'set /hello:settings/greeting Hi' commit 'expect committed' >session
for plugin in ./hello build/hello; do
    file=$(readelf --file-header "$plugin")
    grep -q 'Machine: *ARM' <<<"$file"
    "$confsim" run --script session -- qemu-arm -L "$PWD/root" "$plugin"
done
