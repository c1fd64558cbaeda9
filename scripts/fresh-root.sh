#!/usr/bin/env bash
# Runs a command as root in a root of its own: what a fresh minimal system has, the given packages,
# and a copy of a directory as /work, which is copied back afterwards. Needs root, or the right to
# have namespaces. The root goes in the end, and all that was mounted there with its namespace.
# usage: fresh-root.sh DIRECTORY ARCHITECTURE[,FOREIGN] PACKAGE[,PACKAGE...] COMMAND
set -euo pipefail
directory=$1 architectures=$2 packages=$3
export FRESH_ROOT_COMMAND=$4

# Those who are not root get the namespace from mmdebstrap.
private=()
if ((EUID == 0)); then
    private=(unshare --mount)
fi
# confsim makes its mounts private, which asks for a root that is a mount itself.
# shellcheck disable=SC2016,SC1091 # mmdebstrap's shell expands it
exec "${private[@]}" mmdebstrap --variant=minbase --architectures="$architectures" \
    --include="$packages" \
    --customize-hook='mkdir "$1/work"' --customize-hook="sync-in $directory /work" \
    --customize-hook='exec env --ignore-environment PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        DEBIAN_FRONTEND=noninteractive unshare --mount sh -euc "
            mount --rbind \$0 \$0
            exec chroot \$0 sh -euc \"\$1\"" "$1" "$FRESH_ROOT_COMMAND"' \
    --customize-hook="sync-out /work $directory" \
    "$(. /etc/os-release && printf %s "$VERSION_CODENAME")" /dev/null http://deb.debian.org/debian
