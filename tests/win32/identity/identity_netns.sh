#!/usr/bin/env bash
# Runs the namespace address test of identity_win32_tests.exe on a machine of
# its own (scripts/lib/agent-lab.sh), host "idtest" with these adapters:
#   v0 (44:45:53:00:00:07, 10.77.0.5)  a virtual adapter by its hardware address
#   v1 (02:00:00:00:00:08, 10.77.0.6)  its peer, an ordinary adapter
#   v2 (02:00:00:00:00:09, 10.78.0.9, fd00:77::9) and its peer v3
# and its name resolving to all of them plus local forms. Exit 77 (skipped)
# where namespaces cannot be made.
#   identity_netns.sh <identity_win32_tests.exe>
set -uo pipefail
TEST=$1
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
LAB_HOSTNAME=idtest
LAB_HOSTS='127.0.0.1 localhost
127.0.1.1 idtest
169.254.10.10 idtest
10.77.0.5 idtest
10.77.0.6 idtest
10.78.0.9 idtest
fd00:77::9 idtest'
LAB_LINKS='ip link add v0 type veth peer name v1
ip link add v2 type veth peer name v3
ip link set v0 address 44:45:53:00:00:07
ip link set v1 address 02:00:00:00:00:08
ip link set v2 address 02:00:00:00:00:09
ip addr add 10.77.0.5/24 dev v0
ip addr add 10.77.0.6/24 dev v1
ip addr add 10.78.0.9/24 dev v2
ip -6 addr add fd00:77::9/64 dev v2 nodad
for i in v0 v1 v2 v3; do ip link set $i up; done'
. "$ROOT/scripts/lib/agent-lab.sh"
lab_begin identity_netns "$PWD/identity-netns" "$0" "$@"
LINDQVAR_IDENTITY_NETNS=1 $W "$TEST" --gtest_filter='AdaptersUnderWine.*'
