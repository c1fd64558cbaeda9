#!/usr/bin/env bash
# Runs as root in a fresh root that has compilers and nothing of ours: installs the packages, follows
# the README and the guide to a first plugin, plays the examples, packages a plugin, removes everything,
# and looks for what is left.
# usage: installed.sh DIRECTORY    where the packages, README.md and scratch.sh are
set -euo pipefail
packages=$1
# shellcheck source=tests/abi/scratch.sh
source "$packages/scratch.sh"

# What packages may leave behind: the package managers' own notes, and caches.
list_files()
{
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp \
        -o -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/log \
        -o -path "$packages" \) -prune -o -print | sort
}

list_files >before
ours=("$packages"/libconfsvc1_*.deb "$packages"/libconfsvc-dev_*.deb "$packages"/libconfsvc-doc_*.deb
      "$packages"/confsim_*.deb)
time apt-get install --yes --no-install-recommends "${ours[@]}"

printf '=== The first plugin, word for word, in C and in C++\n'
pages=/usr/share/doc/libconfsvc-dev
time {
    follow_readme $pages/README.md
    follow_guide $pages/docs/guide.md
}
printf '=== The README by CMake\n'
readme_plugins $pages/README.md
cmake -S . -B build >/dev/null
cmake --build build
confsim run --script session -- build/hello

printf '=== The examples, from where they are installed\n'
examples=/usr/share/doc/libconfsvc-dev/examples
cmake -S $examples -B examples >/dev/null
cmake --build examples --parallel "$(nproc)"
$examples/demo.sh examples >demo.log || { cat demo.log; exit 1; }
tail -n 1 demo.log

printf '=== A package of a plugin\n'
mkdir -p plugin/usr/bin plugin/DEBIAN debian
cp hello plugin/usr/bin
printf 'Source: hello\n\nPackage: hello\nArchitecture: any\n' >debian/control
dpkg-shlibdeps -O plugin/usr/bin/hello | sed -n 's/^shlibs:Depends=/Depends: /p' | tee depends
grep -q 'libconfsvc1 (>= ' depends
{
    printf '%s\n' 'Package: hello' 'Version: 1' "Architecture: $(dpkg --print-architecture)" \
        'Maintainer: Nobody <nobody@example.org>' 'Description: a plugin'
    cat depends
} >plugin/DEBIAN/control
dpkg-deb --build plugin hello.deb
dpkg --install hello.deb
confsim run --script session -- /usr/bin/hello
# The library does not go from under its plugin.
if dpkg --remove libconfsvc1; then
    printf 'the library was removed while a plugin needs it\n'
    exit 1
fi

printf '=== Removed\n'
apt-get purge --yes --autoremove hello libconfsvc1 libconfsvc-dev libconfsvc-doc confsim
list_files >after
if ! diff before after; then
    printf 'these were left behind, or taken along\n'
    exit 1
fi
