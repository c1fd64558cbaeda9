#!/usr/bin/env bash
# Sourced by demonstrations whose daemon dies. Starts the script that sources it once more, in
# namespaces of its own, so that nothing of this machine is changed and nothing is left behind. In
# there it knows the build directory as $build, and a directory for its files as $work.
#
#     SCRIPT BUILD_DIR
set -euo pipefail

if (($# == 1)); then
    namespaces=(unshare --map-root-user --mount --ipc)
    "${namespaces[@]}" true 2>/dev/null || namespaces=(unshare --mount --ipc)
    exec "${namespaces[@]}" "$0" "$(realpath "$1")" inside
elif (($# != 2)); then
    printf 'usage: %s BUILD_DIR\n' "$0" >&2
    exit 2
fi
build=$1
cd "$(dirname "$0")"
for covered in /dev/shm /var/log /mnt; do
    mount -t tmpfs none "$covered"
done
work=/mnt

plugin=
confsim=
trap 'kill -KILL $plugin $confsim 2>/dev/null || true' EXIT

# start_plugin PROGRAM [ARGUMENT...]
start_plugin()
{
    "$build/examples/$1" "${@:2}" &
    plugin=$!
}

# The plugin ends by itself, and well.
end_plugin()
{
    wait "$plugin"
    plugin=
}

# start_confsim OPTION...: with the script that stands on standard input; it stays after that.
start_confsim()
{
    {
        cat
        echo 'echo all is well'
        echo 'sleep 600'
    } >"$work/script"
    : >"$work/log"
    "$build/tools/confsim/confsim" --dir "$work" --script "$work/script" "$@" >"$work/log" 2>&1 &
    confsim=$!
    until grep -q '^all is well' "$work/log"; do
        if ! kill -0 "$confsim" 2>/dev/null; then
            cat "$work/log"
            exit 1
        fi
        sleep 0.05
    done
    cat "$work/log"
}

kill_confsim()
{
    echo '=== The daemon is killed.'
    kill -KILL "$confsim"
    wait "$confsim" 2>/dev/null || true
}
