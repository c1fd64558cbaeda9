#!/usr/bin/env bash
# Prints what a shell needs to find the library, confsim and all that comes with them below a
# directory into which they were installed, as commands for that shell.
# usage: environment.sh DIRECTORY
set -euo pipefail
prefix=$(realpath "$1")
pkgconfig=$(dirname "$(find "$prefix" -name libconfsvc.pc)")
python=$(dirname "$(find "$prefix" -name confsvc_test -type d)")

# What is set already stays behind it. An empty part of MANPATH stands for the system's own pages.
# shellcheck disable=SC2016 # the shell that reads it expands it
while read -r variable directory; do
    printf 'export %s=%q${%s:+:$%s}\n' "$variable" "$directory" "$variable" "$variable"
done <<END
PATH $prefix/bin
LD_LIBRARY_PATH $(dirname "$pkgconfig")
PKG_CONFIG_PATH $pkgconfig
CMAKE_PREFIX_PATH $prefix
PYTHONPATH $python
END
# shellcheck disable=SC2016
printf 'export MANPATH=%q:${MANPATH:-}\n' "$prefix/share/man"
