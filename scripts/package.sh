#!/usr/bin/env bash
# Builds the Debian packages of the sources that are here, also of those not committed yet, and checks
# them by lintian, and the log of the build by blhc. What was built before is replaced.
# usage: package.sh ARCHITECTURE DIRECTORY
#
# Another architecture's packages are cross-built in a root of their own, so that the system's
# packages stay as they are.
set -euo pipefail
architecture=$1
mkdir -p "$2"
result=$(realpath "$2")
cd "$(dirname "$0")/.."

version=$(dpkg-parsechangelog --show-field Version)
if ! grep -q "^project(confsvc VERSION $version " CMakeLists.txt; then
    printf 'debian/changelog has version %s, CMakeLists.txt another one\n' "$version" >&2
    exit 1
fi

scratch_dir=$(mktemp -d)
trap 'rm -rf "$scratch_dir"' EXIT
work=$scratch_dir/work
log=$scratch_dir/build.log
tree=confsvc-$version
mkdir -p "$work/$tree"
scripts/list-sources.sh '*' | tar --create --mode=u+rwX,go+rX,go-w --files-from=- |
    tar --extract --directory="$work/$tree"

native()
{
    cd "$work/$tree"
    dpkg-buildpackage --no-sign
}

# What is built for another machine does not run here, so it is not tested.
cross()
{
    scripts/fresh-root.sh "$work" "$(dpkg --print-architecture),$architecture" \
        "build-essential,crossbuild-essential-$architecture" "
            cd /work/$tree
            apt-get build-dep --yes --no-install-recommends --arch-only \
                --host-architecture $architecture .
            DEB_BUILD_OPTIONS='$DEB_BUILD_OPTIONS nocheck' dpkg-buildpackage --no-sign \
                --host-arch $architecture --build-profiles=cross --build=any
            rm -r /work/$tree"
}

export DEB_BUILD_OPTIONS="parallel=${CONFSVC_JOBS:-$(nproc)}"
if [[ $architecture == "$(dpkg --print-architecture)" ]]; then
    (native)
else
    cross
fi 2>&1 | tee "$log"

lintian --allow-root --pedantic --fail-on error,warning "$work"/*.changes
blhc "$log"
rm -f "$result"/*_"$architecture".*
if [[ -e $work/confsvc_$version.dsc ]]; then
    rm -f "$result"/*_all.deb "$result"/*.dsc "$result"/*.tar.xz
    mv "$work"/*.dsc "$work"/*.tar.xz "$result"
fi
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$result"
