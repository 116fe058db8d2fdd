#!/usr/bin/env bash
# The NTLM relay under Wine with the system's real NTLM package:
# lindqvar-diag.exe sends an event to the native lab authenticator, which
# asks for NTLM proof and checks it with its real acceptor against an account
# file. Explicit credentials with the right password are proven, with a wrong
# one not; with the server verified, the proof still goes through while the
# package is given the server's name and the TLS channel bindings (which
# Wine's package does not put into its tokens); no password, token or
# challenge shows in any output.
#   ntlm_under_wine.sh <wine-run> <lindqvar-diag.exe> <lab authenticator> <pki dir> <client CA>
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
expect() {  # expect <name> <condition command...>
  local name=$1; shift
  if "$@"; then echo "PASS: $name"; passed=$((passed + 1)); else echo "FAIL: $name"; failed=$((failed + 1)); fi
}

password="Right-$RANDOM-$RANDOM"
echo wine-key > "$work/key"
echo "$password" > "$work/right"
echo "Wrong-$RANDOM" > "$work/wrong"
echo "WORKGROUP:ntlmtest:$password" > "$work/accounts"
"$LAB" --json --listen 127.0.0.1:0 --ca "$CLIENT_CA" --cert "$PKI/server.pem" \
  --key "$PKI/server.key" --psk-file "$work/key" --ntlm-users "$work/accounts" \
  > "$work/lab.jsonl" 2> "$work/lab.err" &
lab_pid=$!
for _ in $(seq 100); do grep -q '"event":"listening"' "$work/lab.jsonl" && break; sleep 0.05; done
port=$(grep '"address":"127.0.0.1"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/')
if [ -z "$port" ]; then
  echo "the lab authenticator did not start:"; cat "$work/lab.err"
  echo "0 passed, 1 failed"; exit 1
fi

send() {  # send <output> <password file> [diag options...]
  local out=$1 pw=$2; shift 2
  "$WINE_RUN" "$DIAG" send --verbose --server "127.0.0.1:$port" --key-file "Z:$work/key" \
    --user ntlmtest --domain workgroup --workstation lab-ws --ip 203.0.113.7 \
    --ntlm-user 'WORKGROUP\ntlmtest' --ntlm-password-file "Z:$pw" "$@" > "$out" 2>&1
  rc=$?
}

send "$work/right.txt" "$work/right"
expect "the event counts as delivered (exit $rc)" test "$rc" -eq 0
expect "diag shows the relay proven" grep -q 'NTLM relay (exchange key 100001): the server says the user is proven (result 1)' "$work/right.txt"
expect "the agent's code logged the success" grep -q 'NTLM auth succeeded' "$work/right.txt"
expect "the unverified server drew the warning" grep -q 'Server verification is off (VerifyServer 0): NTLM authentication goes to whichever server answered' "$work/right.txt"
send "$work/verified.txt" "$work/right" --verify-server
expect "a verified server gets a bound proof that is proven (exit $rc)" \
  grep -q 'NTLM relay (exchange key 100001): the server says the user is proven (result 1)' "$work/verified.txt"
expect "a verified server draws no warning" bash -c "! grep -q 'Server verification is off' '$work/verified.txt'"
send "$work/wrong.txt" "$work/wrong"
expect "a wrong password still delivers the event (exit $rc)" test "$rc" -eq 0
expect "diag shows the proof failed" grep -q 'the server says the proof FAILED (result 0)' "$work/wrong.txt"
expect "the agent's code logged the failure" grep -q 'NTLM auth failed' "$work/wrong.txt"

sleep 0.3
expect "the lab proved WORKGROUP\\ntlmtest with the right password" \
  grep -q '"ntlm":{"key":100001,"proven":true,"user":"ntlmtest","domain":"WORKGROUP","result_sent":true,"result":1,"end":"proven"}' "$work/lab.jsonl"
expect "the lab refused the wrong password" \
  grep -q '"ntlm":{"key":100001,"proven":false,"user":"ntlmtest","domain":"WORKGROUP","result_sent":true,"result":0,' "$work/lab.jsonl"
# NTLM messages start with "NTLMSSP", "TlRMTVNTUA" in base64.
expect "no password, token or challenge in any output" \
  bash -c "! grep -l -e '$password' -e 'TlRMTVNTUA' -e 'NTLMSSP' '$work'/*.txt '$work/lab.jsonl' '$work/lab.err'"

if [ "$failed" -ne 0 ]; then
  for f in "$work"/*.txt "$work/lab.jsonl" "$work/lab.err"; do echo "--- $f"; cat "$f"; done
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
