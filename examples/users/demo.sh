#!/usr/bin/env bash
# Plays a day in the life of the users plugin: it starts before its daemon, which is killed twice and
# comes back with another configuration and with none. Each time the accounts are what the daemon
# has. Runs in namespaces of its own, so that nothing of this machine is changed. Needs no root.
#
#     demo.sh BUILD_DIR
#
# The exit status is 0 only when every step had the outcome that it should have.
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
cd "$(dirname "${BASH_SOURCE[0]}")"
for covered in /dev/shm /var/log /mnt; do
    mount -t tmpfs none "$covered"
done
work=/mnt # everything in here goes with the namespace
accounts=$work/accounts

users=
confsim=
trap 'kill -KILL $users $confsim 2>/dev/null || true' EXIT

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

# Each argument is a line of the file, in order.
accounts_are()
{
    printf '%s\n' "$@" | sed '/^$/d' | diff - "$accounts"
}

"$build/examples/users/users-plugin" "$accounts" &
users=$!
echo '=== The plugin waits for a daemon, which begins with two users.'
start_confsim --config users.xml <<'END'
wait users
status /demo-users:accounts
expect <name>ann</name>
expect <name>bob</name>
expect-not hash
set /demo-users:users/user[name='eve']/password $6$salt$third-hash
commit
set /demo-users:users/user[name='mallory']/password plain-text
set /demo-users:users/user[name='bob']/role admin
fail commit
expect a password is configured as a hash
expect-not plain-text
status /demo-users:accounts
expect <role>guest</role>
expect-not mallory
discard
set /demo-users:users/user[name='bob']/role king
fail commit
expect role is none of guest, operator, admin
END
accounts_are "ann:\$6\$salt\$one-hash:admin" "bob:\$6\$salt\$other-hash:guest" \
    "eve:\$6\$salt\$third-hash:guest"

kill_confsim
echo '=== It comes back without the users ann and eve, and with another role for bob.'
cat >"$work/fewer.xml" <<'END'
<users xmlns="urn:demo-users">
  <user><name>bob</name><role>operator</role><password>$6$salt$other-hash</password></user>
  <user><name>dan</name><role>admin</role><password>plain-text</password></user>
</users>
END
start_confsim --config "$work/fewer.xml" <<'END'
wait users
status /demo-users:accounts
expect <role>operator</role>
expect-not ann
expect-not dan
END
accounts_are "bob:\$6\$salt\$other-hash:operator"

kill_confsim
echo '=== It comes back with nothing at all.'
start_confsim <<'END'
wait users
status /demo-users:accounts
expect-not <name>
END
accounts_are ''

kill_confsim
echo '=== A last time, to kick the plugin off.'
start_confsim <<'END'
wait users
kickoff users
expect users: ok
END
wait "$users"
users=
echo
echo 'Every step had the outcome that it should have.'
