#!/usr/bin/env bash
# Kills the daemon of the interfaces plugin twice. It comes back with another configuration and with
# none, and each time the interfaces are those that it has. They are only recorded. Needs no root.
#
#     restart.sh BUILD_DIR
#
# The exit status is 0 only when every step had the outcome that it should have.
# shellcheck source=examples/daemon.sh
source "$(dirname "${BASH_SOURCE[0]}")/../daemon.sh"

start_plugin interfaces/interfaces-plugin --record-only
echo '=== The daemon begins with three interfaces, and gets a fourth.'
start_confsim --config interfaces.xml <<'END_OF_SCRIPT'
wait interfaces
set /ietf-interfaces:interfaces/interface[name='lan2']/mtu 1300
commit
status /ietf-interfaces:interfaces-state lan0
expect <mtu>1400</mtu>
status /ietf-interfaces:interfaces-state lan2
expect <mtu>1300</mtu>
END_OF_SCRIPT

kill_confsim
echo '=== It comes back without lan1 and lan2, and with another mtu for lan0.'
cat >"$work/fewer.xml" <<'END_OF_FILE'
<interfaces xmlns="urn:ietf:params:xml:ns:yang:ietf-interfaces">
  <interface><name>mgmt0</name></interface>
  <interface><name>lan0</name><mtu>9000</mtu></interface>
</interfaces>
END_OF_FILE
start_confsim --config "$work/fewer.xml" <<'END_OF_SCRIPT'
wait interfaces
status /ietf-interfaces:interfaces-state mgmt0
expect <name>mgmt0</name>
status /ietf-interfaces:interfaces-state lan0
expect <mtu>9000</mtu>
status /ietf-interfaces:interfaces-state lan1
expect-not <name>
status /ietf-interfaces:interfaces-state lan2
expect-not <name>
END_OF_SCRIPT

kill_confsim
echo '=== It comes back with nothing at all.'
start_confsim <<'END_OF_SCRIPT'
wait interfaces
status /ietf-interfaces:interfaces-state mgmt0
expect-not <name>
status /ietf-interfaces:interfaces-state lan0
expect-not <name>
kickoff interfaces
expect interfaces: ok
END_OF_SCRIPT
end_plugin
echo
echo 'Every step had the outcome that it should have.'
