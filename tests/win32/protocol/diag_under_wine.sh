#!/usr/bin/env bash
# lindqvar-diag.exe under Wine against the native lab authenticator on
# 127.0.0.1 and ::1: check and send, a wrong key, a closed port, server
# verification (reported, and enforced from the registry), and the lab's
# view of what was delivered.
# OpenSSL files planted where a configuration could be read from must not be
# loaded.
#   diag_under_wine.sh <wine-run> <lindqvar-diag.exe> <lab authenticator> <pki dir> <client CA> <marker.dll>
set -uo pipefail
WINE_RUN=$1 DIAG=$2 LAB=$3 PKI=$4 CLIENT_CA=$5 MARKER=$6
work=$(mktemp -d)
lab_pid= foreign_pid= dribble_pid=
cleanup() {
  for pid in $lab_pid $foreign_pid $dribble_pid; do kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
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
# A second lab whose certificate comes from an unrelated CA.
"$LAB" --json --listen 127.0.0.1:0 --ca "$CLIENT_CA" \
  --cert "$PKI/other-server.pem" --key "$PKI/other-server.key" --psk-file "$work/key" \
  > "$work/foreign.jsonl" 2> "$work/foreign.err" &
foreign_pid=$!
# A third that sends every message one byte per 200 ms.
"$LAB" --json --listen 127.0.0.1:0 --ca "$CLIENT_CA" --cert "$PKI/server.pem" \
  --key "$PKI/server.key" --psk-file "$work/key" --fault dribble --dribble-ms 200 \
  > "$work/dribble.jsonl" 2> "$work/dribble.err" &
dribble_pid=$!
for _ in $(seq 100); do
  [ "$(grep -c '"event":"listening"' "$work/lab.jsonl")" -ge 2 ] &&
    grep -q '"event":"listening"' "$work/foreign.jsonl" &&
    grep -q '"event":"listening"' "$work/dribble.jsonl" && break
  sleep 0.05
done
port4=$(grep '"address":"127.0.0.1"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
port6=$(grep '"address":"::1"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
portf=$(grep '"address":"127.0.0.1"' "$work/foreign.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
portd=$(grep '"address":"127.0.0.1"' "$work/dribble.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
fingerprint() { openssl x509 -in "$1" -noout -fingerprint -sha256 | sed 's/.*=//; s/://g'; }
fp=$(fingerprint "$PKI/server.pem")
fpf=$(fingerprint "$PKI/other-server.pem")
if [ -z "$port4" ] || [ -z "$port6" ] || [ -z "$portf" ] || [ -z "$portd" ]; then
  echo "the lab authenticator did not start:"; cat "$work/lab.err"
  echo "0 passed, 1 failed"
  exit 1
fi

build=$(cd "$(dirname "$DIAG")" && pwd)
while [ "$build" != / ] && [ ! -f "$build/CMakeCache.txt" ]; do build=$(dirname "$build"); done
export LINDQVAR_WINEPREFIX=${LINDQVAR_WINEPREFIX:-$build/wineprefix}
export WINEPREFIX=$LINDQVAR_WINEPREFIX W=/usr/lib/wine/wine64
"$WINE_RUN" cmd /c exit 0 >/dev/null 2>&1  # makes the prefix on first use
. "$(dirname "$0")/../lib/openssl_plant.sh"
openssl_plant "$MARKER" "$DIAG" || bad "OpenSSL files planted"
# From drive C:, so that a path starting with "/" lies there too.
cd "$WINEPREFIX/drive_c"

run_diag() {  # run_diag <output file> <args...>; the exit code in $rc
  local out=$1; shift
  "$WINE_RUN" "$DIAG" "$@" > "$out" 2>&1
  rc=$?
}

run_diag "$work/check.txt" check --server "127.0.0.1:$port4" --server "[::1]:$port6" --key-file 'Z:'"$work/key"
expect "check reaches both servers (exit $rc)" test "$rc" -eq 0
expect "check shows the lab's fingerprint" grep -q "SHA-256 $fp" "$work/check.txt"
expect "check says the lab's certificate passes verification" \
  grep -q 'server verification: passes (the chain verifies against the built-in CA bundle, the certificate is issued for \[::1\])' "$work/check.txt"

run_diag "$work/foreign.txt" check --server "127.0.0.1:$portf" --key wine-key
expect "a server of another CA is accepted with verification off (exit $rc)" test "$rc" -eq 0
expect "its fingerprint and failure are shown all the same" \
  grep -q "SHA-256 $fpf" "$work/foreign.txt"
expect "its failure is named" grep -q 'unable to get local issuer certificate; with VerifyServer 0 the agent connects all the same' "$work/foreign.txt"
expect "check says 2 of 2 passed" grep -q '2 of 2 server(s) passed' "$work/check.txt"

run_diag "$work/send.txt" send --server "127.0.0.1:$port4" --server "[::1]:$port6" --key wine-key \
  --user carol --domain corp --workstation pc9.corp.example --ip 203.0.113.9 --ip 2001:db8::9
expect "send delivers to both servers (exit $rc)" test "$rc" -eq 0
expect "send prints the acknowledgement" grep -q 'event acknowledged: result 1, keep-alive interval 75 s' "$work/send.txt"
expect "send reports the state the agent would set" grep -q 'state after such a pass: 2 (CONFIGURED_REACHABLE)' "$work/send.txt"

run_diag "$work/wrong.txt" check --server "127.0.0.1:$port4" --key not-the-key
expect "a wrong key fails every server (exit $rc)" test "$rc" -eq 2
expect "a wrong key is named" grep -q 'please check your preshared key' "$work/wrong.txt"

# The 80-byte hello would take 16 s; the 1 s message limit ends the exchange
# (a pass that does not end within 30 s is killed and fails here).
SECONDS=0
"$WINE_RUN" "$DIAG" check --server "127.0.0.1:$portd" --server "127.0.0.1:$port4" --key wine-key \
  --timeout-ms 1000 > "$work/dribble.txt" 2>&1 &
diag_pid=$!
( sleep 30; kill "$diag_pid" 2>/dev/null ) & watchdog=$!
wait "$diag_pid"; rc=$?
kill "$watchdog" 2>/dev/null; wait "$watchdog" 2>/dev/null
expect "a dribbling server fails only its own exchange (exit $rc, ${SECONDS} s)" test "$rc" -eq 1
expect "it fails at the hello" grep -q 'failed to receive hello message from authenticator' "$work/dribble.txt"

# Nothing listens on port 1 of the loopback address: the connection is refused.
closed=1
run_diag "$work/closed.txt" check --server "127.0.0.1:$port4" --server "127.0.0.1:$closed" --key wine-key
expect "a closed port fails only its server (exit $rc)" test "$rc" -eq 1
expect "a closed port fails at the connect" grep -q 'failed to  connect to authenticator, error:-1' "$work/closed.txt"

# The agent's own settings in the registry, read the way the agent reads
# them (the test holds the registry lock of the Wine tests).
reg() { "$WINE_RUN" reg "$@" > /dev/null 2>&1; }
AGENT_KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'
reg delete 'HKLM\software\Orvane' /f
reg add "$AGENT_KEY" /v Servers /d "127.0.0.1:$port4;[::1]:$port6" /f
reg add "$AGENT_KEY" /v PresharedKey /d wine-key /f
reg add 'HKLM\software\Orvane\Velmora' /v ClientGuid /d '{5EED0000-1111-2222-3333-444455556666}' /f
run_diag "$work/registry.txt" check
registry_rc=$rc
# Server verification switched on in the registry, with a pin list of two
# (an unrelated fingerprint and the lab's) as a REG_MULTI_SZ.
reg add "$AGENT_KEY" /v VerifyServer /t REG_DWORD /d 1 /f
reg add "$AGENT_KEY" /v ServerCertificateSha256 /t REG_MULTI_SZ /d "$(printf '%064d' 0)\\0$fp" /f
run_diag "$work/verify.txt" check
verify_rc=$rc
run_diag "$work/refuse.txt" check --server "127.0.0.1:$portf" --server "127.0.0.1:$port4"
refuse_rc=$rc
reg delete 'HKLM\software\Orvane' /f
expect "check with the registry settings reaches both servers (exit $registry_rc)" test "$registry_rc" -eq 0
expect "the servers came from the registry" grep -q "Servers from the agent's settings" "$work/registry.txt"
expect "the key came from the registry" grep -q "Preshared key from the agent's settings" "$work/registry.txt"
expect "VerifyServer 1 and the pin list come from the registry (exit $verify_rc)" \
  grep -q 'Server verification on (VerifyServer), pin list of 2 fingerprint(s) (ServerCertificateSha256)' "$work/verify.txt"
expect "pinned servers pass verification" test "$verify_rc" -eq 0
expect "the server of another CA is refused, the other one reached (exit $refuse_rc)" test "$refuse_rc" -eq 1
expect "the refusal names the server and the reason" \
  grep -q "server verification failed for authenticator 127.0.0.1 port $portf: .*unable to get local issuer certificate" "$work/refuse.txt"
expect "the refusal is at the verify step" grep -q 'FAILED at verify' "$work/refuse.txt"

sleep 0.3
expect "the hello carried the endpoint client's GUID" \
  grep -q '"client_guid":"{5EED0000-1111-2222-3333-444455556666}"' "$work/lab.jsonl"
expect "the lab saw the user at both addresses" \
  grep -q '"user":"CAROL","workstation":"PC9.CORP.EXAMPLE","azure":"","addresses":\["203.0.113.9","2001:db8::9"\]' "$work/lab.jsonl"
expect "the lab checked the digest" grep -q '"digest":"correct"' "$work/lab.jsonl"

expect "nothing was loaded from the planted OpenSSL files" openssl_marker_absent

if [ "$failed" -ne 0 ]; then
  for f in "$work"/*.txt; do echo "--- $f"; cat "$f"; done
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
