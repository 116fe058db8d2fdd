#!/usr/bin/env bash
# Runs the namespace address test of identity_win32_tests.exe inside a new
# network, mount and host-name namespace:
#   v0 (44:45:53:00:00:07, 10.77.0.5)  a virtual adapter by its hardware address
#   v1 (02:00:00:00:00:08, 10.77.0.6)  its peer, an ordinary adapter
#   v2 (02:00:00:00:00:09, 10.78.0.9, fd00:77::9) and its peer v3
# and the host name "idtest" resolving to all of them plus local forms.
# Exit 77 (skipped) where namespaces cannot be made.
#   identity_netns.sh <identity_win32_tests.exe>
set -euo pipefail
TEST=$1
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
BUILD=$(cd "$(dirname "$TEST")" && pwd)
while [ "$BUILD" != / ] && [ ! -f "$BUILD/CMakeCache.txt" ]; do BUILD=$(dirname "$BUILD"); done
WORK=$BUILD/identity-netns
mkdir -p "$WORK"
# A prefix of its own: its wineserver must start inside the namespace.
export LINDQVAR_WINEPREFIX=$BUILD/wineprefix-netns
export WINEPREFIX=$LINDQVAR_WINEPREFIX

if ! unshare -rnmu true 2>/dev/null; then
  echo "network namespaces are not available here"
  exit 77
fi
"$ROOT/scripts/wine-run" cmd /c exit 0 >/dev/null 2>&1 || true
/usr/lib/wine/wineserver -k 2>/dev/null || true
/usr/lib/wine/wineserver -w 2>/dev/null || true

cat >"$WORK/hosts" <<'HOSTS'
127.0.0.1 localhost
127.0.1.1 idtest
169.254.10.10 idtest
10.77.0.5 idtest
10.77.0.6 idtest
10.78.0.9 idtest
fd00:77::9 idtest
HOSTS

export LINDQVAR_IDENTITY_NETNS=1
exec unshare -rnmu bash -c '
  set -e
  mount --bind "$1/hosts" /etc/hosts
  hostname idtest
  ip link set lo up
  ip link add v0 type veth peer name v1
  ip link add v2 type veth peer name v3
  ip link set v0 address 44:45:53:00:00:07
  ip link set v1 address 02:00:00:00:00:08
  ip link set v2 address 02:00:00:00:00:09
  ip addr add 10.77.0.5/24 dev v0
  ip addr add 10.77.0.6/24 dev v1
  ip addr add 10.78.0.9/24 dev v2
  ip -6 addr add fd00:77::9/64 dev v2 nodad
  for i in v0 v1 v2 v3; do ip link set $i up; done
  rc=0
  "$2/scripts/wine-run" "$3" --gtest_filter="AdaptersUnderWine.*" || rc=$?
  /usr/lib/wine/wineserver -k 2>/dev/null || true
  exit $rc
' bash "$WORK" "$ROOT" "$TEST"
