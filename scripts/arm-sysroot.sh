#!/usr/bin/env bash
# Unpacks Debian's armhf packages that the library and its tests are built with and run on, so that
# neither the system's packages nor its list of architectures change.
# usage: arm-sysroot.sh DIRECTORY
set -euo pipefail
directory=$1
done_mark=$directory/.complete
[[ ! -e $done_mark ]] || exit 0

runtime=(libc6 libstdc++6 libubsan1 libxml2 libpcre2-8-0 libcjson1)
development=(libxml2-dev libpcre2-dev libcjson-dev libgtest-dev)

rm -rf "$directory"
mkdir -p "$directory"/apt/{state/lists/partial,cache/archives/partial,development} \
    "$directory/usr/lib"
ln -s usr/lib "$directory/lib"
cd "$directory"
touch apt/status
cat >apt/apt.conf <<END
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Sandbox::User "";
Debug::NoLocking "true";
Dir::State "$PWD/apt/state";
Dir::State::status "$PWD/apt/status";
Dir::Cache "$PWD/apt/cache";
END
export APT_CONFIG=$PWD/apt/apt.conf

# A source that does not answer is no failure as long as the others have the packages.
apt-get update || true
apt-get install -y --download-only "${runtime[@]}"
(cd apt/development && apt-get download "${development[@]}")
for package in apt/cache/archives/*.deb apt/development/*.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink --no-same-owner
done
rm -r apt
touch "$done_mark"
