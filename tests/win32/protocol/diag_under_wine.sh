#!/usr/bin/env bash
# lindqvar-diag.exe under Wine against the native lab authenticator on
# 127.0.0.1 and ::1: check and send, a wrong key, a closed port, and the
# lab's view of what was delivered.
#   diag_under_wine.sh <wine-run> <lindqvar-diag.exe> <lab authenticator> <pki dir> <client CA>
set -uo pipefail
WINE_RUN=$1 DIAG=$2 LAB=$3 PKI=$4 CLIENT_CA=$5
work=$(mktemp -d)
lab_pid=
cleanup() {
  [ -n "$lab_pid" ] && kill "$lab_pid" 2>/dev/null && wait "$lab_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

passed=0 failed=0
ok() { echo "PASS: $1"; passed=$((passed + 1)); }
bad() { echo "FAIL: $1"; failed=$((failed + 1)); }
expect() {  # expect <name> <condition command...>
  local name=$1; shift
  if "$@"; then ok "$name"; else bad "$name"; fi
}

echo wine-key > "$work/key"
"$LAB" --json --listen 127.0.0.1:0 --listen '[::1]:0' --ca "$CLIENT_CA" \
  --cert "$PKI/server.pem" --key "$PKI/server.key" --psk-file "$work/key" --keepalive 75 \
  > "$work/lab.jsonl" 2> "$work/lab.err" &
lab_pid=$!
for _ in $(seq 100); do
  [ "$(grep -c '"event":"listening"' "$work/lab.jsonl")" -ge 2 ] && break
  sleep 0.05
done
port4=$(grep '"address":"127.0.0.1"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
port6=$(grep '"address":"::1"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
if [ -z "$port4" ] || [ -z "$port6" ]; then
  echo "the lab authenticator did not start:"; cat "$work/lab.err"
  echo "0 passed, 1 failed"
  exit 1
fi

run_diag() {  # run_diag <output file> <args...>; the exit code in $rc
  local out=$1; shift
  "$WINE_RUN" "$DIAG" "$@" > "$out" 2>&1
  rc=$?
}

run_diag "$work/check.txt" check --server "127.0.0.1:$port4" --server "[::1]:$port6" --key-file 'Z:'"$work/key"
expect "check reaches both servers (exit $rc)" test "$rc" -eq 0
expect "check verifies the lab's certificate" grep -q 'verified against the built-in CA bundle' "$work/check.txt"
expect "check says 2 of 2 passed" grep -q '2 of 2 server(s) passed' "$work/check.txt"

run_diag "$work/send.txt" send --server "127.0.0.1:$port4" --server "[::1]:$port6" --key wine-key \
  --user carol --domain corp --workstation pc9.corp.example --ip 203.0.113.9 --ip 2001:db8::9
expect "send delivers to both servers (exit $rc)" test "$rc" -eq 0
expect "send prints the acknowledgement" grep -q 'event acknowledged: result 1, keep-alive interval 75 s' "$work/send.txt"
expect "send reports the state the agent would set" grep -q 'state after such a pass: 2 (CONFIGURED_REACHABLE)' "$work/send.txt"

run_diag "$work/wrong.txt" check --server "127.0.0.1:$port4" --key not-the-key
expect "a wrong key fails every server (exit $rc)" test "$rc" -eq 2
expect "a wrong key is named" grep -q 'please check your preshared key' "$work/wrong.txt"

# Nothing listens on port 1 of the loopback address: the connection is refused.
closed=1
run_diag "$work/closed.txt" check --server "127.0.0.1:$port4" --server "127.0.0.1:$closed" --key wine-key
expect "a closed port fails only its server (exit $rc)" test "$rc" -eq 1
expect "a closed port fails at the connect" grep -q 'failed to  connect to authenticator, error:-1' "$work/closed.txt"

# The agent's own settings in the registry, read the way the agent reads
# them (the test holds the registry lock of the Wine tests).
build=$(cd "$(dirname "$DIAG")" && pwd)
while [ "$build" != / ] && [ ! -f "$build/CMakeCache.txt" ]; do build=$(dirname "$build"); done
export LINDQVAR_WINEPREFIX=${LINDQVAR_WINEPREFIX:-$build/wineprefix}
reg() { "$WINE_RUN" reg "$@" > /dev/null 2>&1; }
AGENT_KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'
reg delete 'HKLM\software\Orvane' /f
reg add "$AGENT_KEY" /v Servers /d "127.0.0.1:$port4;[::1]:$port6" /f
reg add "$AGENT_KEY" /v PresharedKey /d wine-key /f
reg add 'HKLM\software\Orvane\Velmora' /v ClientGuid /d '{5EED0000-1111-2222-3333-444455556666}' /f
run_diag "$work/registry.txt" check
reg delete 'HKLM\software\Orvane' /f
expect "check with the registry settings reaches both servers (exit $rc)" test "$rc" -eq 0
expect "the servers came from the registry" grep -q "Servers from the agent's settings" "$work/registry.txt"
expect "the key came from the registry" grep -q "Preshared key from the agent's settings" "$work/registry.txt"

sleep 0.3
expect "the hello carried the endpoint client's GUID" \
  grep -q '"client_guid":"{5EED0000-1111-2222-3333-444455556666}"' "$work/lab.jsonl"
expect "the lab saw the user at both addresses" \
  grep -q '"user":"CAROL","workstation":"PC9.CORP.EXAMPLE","azure":"","addresses":\["203.0.113.9","2001:db8::9"\]' "$work/lab.jsonl"
expect "the lab checked the digest" grep -q '"digest":"correct"' "$work/lab.jsonl"

if [ "$failed" -ne 0 ]; then
  for f in "$work"/*.txt; do echo "--- $f"; cat "$f"; done
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
