#!/usr/bin/env bash
# Plays a day in the life of the users plugin: it starts before its daemon, which is killed twice and
# comes back with another configuration and with none. Each time the accounts are what the daemon
# has. Runs in namespaces of its own, so that nothing of this machine is changed. Needs no root.
#
#     demo.sh BUILD_DIR
#
# The exit status is 0 only when every step had the outcome that it should have.
# shellcheck source=examples/daemon.sh
source "$(dirname "${BASH_SOURCE[0]}")/../daemon.sh"
accounts=$work/accounts

# Each argument is a line of the file, in order.
accounts_are()
{
    printf '%s\n' "$@" | sed '/^$/d' | diff - "$accounts"
}

start_plugin users/users-plugin "$accounts"
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
end_plugin
echo
echo 'Every step had the outcome that it should have.'
