#!/usr/bin/env bash
# End to end: the real lindqvar-agent.exe under Wine proves the Wine user by
# NTLM to the native lab authenticator, with the user's default credentials.
# The lab (scripts/lib/agent-lab.sh) asks for NTLM on every event and checks
# the answer against an account file with its real acceptor. Wine's NTLM
# package asks Samba's ntlm_auth for the logged-on user's cached credentials,
# which only a domain member's winbindd holds; an ntlm_auth wrapper earlier
# on PATH stands in for that cache with a known test password. Exit 77 where
# no namespace can be made.
#   agent_ntlm.sh <lindqvar-agent.exe> <agent_control.exe> <lab> <pki dir> <client CA>
set -uo pipefail
AGENT=$1 CONTROL=$2 LAB=$3 PKI=$4 CLIENT_CA=$5
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
WORK=$(cd "$(dirname "$AGENT")" && pwd)/ntlm
. "$ROOT/scripts/lib/agent-lab.sh"
if [ -z "${LINDQVAR_LAB_NETNS:-}" ] && ! lab_netns_available; then
  echo "network namespaces are not available here"
  exit 77
fi
lab_netns_enter bash "$0" "$@"

passed=0 failed=0
check() {  # check <name> <command...>
  local name=$1; shift
  if "$@"; then echo "PASS: $name"; passed=$((passed + 1)); else
    echo "FAIL: $name"; failed=$((failed + 1)); fi
}
log_has() { grep -qF -- "$1" "$WORK/FA_LINDQ.log"; }
cleanup() { lab_stop; $WS -k 2>/dev/null; }
trap cleanup EXIT

mkdir -p "$WORK/bin"
me=${USER:-root}
password="Wine-$RANDOM-$RANDOM"
umask 077
printf 'WORKGROUP:%s:%s\n' "$me" "$password" > "$WORK/accounts"
printf '%s\n' "$password" > "$WORK/password"
# The logged-on user's credential cache: ntlm_auth as Wine runs it, with the
# test password in place of --use-cached-creds.
cat > "$WORK/bin/ntlm_auth" <<WRAPPER
#!/bin/bash
args=()
for a in "\$@"; do
  if [ "\$a" = --use-cached-creds ]; then args+=("--password=\$(cat '$WORK/password')"); else args+=("\$a"); fi
done
exec /usr/bin/ntlm_auth "\${args[@]}"
WRAPPER
chmod 700 "$WORK/bin/ntlm_auth"
export PATH="$WORK/bin:$PATH"

lab_prefix
lab_start "$LAB" "$PKI" "$CLIENT_CA" 0 --ntlm-users "$WORK/accounts" || { echo "0 passed, 1 failed"; exit 1; }
agent_configure "127.0.0.1:$LAB_PORT"
agent_start "$AGENT" || { echo "the agent did not start"; cat "$WORK/FA_LINDQ.log"; exit 1; }
check "the NTLM package was prepared at start-up" grep -qF "Using package: NTLM" "$WORK/agent.out"

before=$(lab_connections)
agent_post "$CONTROL" logon 1
lab_wait_connections "$before" 40
agent_wait_log "NTLM auth" 20
last=$(grep '"event":"connection"' "$WORK/lab.jsonl" | tail -n 1)
check "the lab asked for NTLM" grep -qF "Start NTLM authentication on session 1, TID:" "$WORK/FA_LINDQ.log"
check "the lab proved WORKGROUP\\$me" \
  grep -qF "\"ntlm\":{\"key\":100001,\"proven\":true,\"user\":\"$me\",\"domain\":\"WORKGROUP\",\"result_sent\":true,\"result\":1,\"end\":\"proven\"}" <<<"$last"
check "the agent logged the success" log_has "NTLM auth succeeded"
check "the event was delivered" log_has "SendAndReceive(), succeeded to send event to authenticator"
check "no password, token or challenge in any log" \
  bash -c "! grep -l -e '$password' -e 'TlRMTVNTUA' -e 'NTLMSSP' '$WORK/FA_LINDQ.log' '$WORK/agent.out' '$WORK/lab.jsonl' '$WORK/lab.err'"

agent_stop "$CONTROL"
[ $failed = 0 ] || { echo "--- agent log"; tail -n 40 "$WORK/FA_LINDQ.log"; echo "--- lab"; tail -n 3 "$WORK/lab.jsonl"; cat "$WORK/lab.err"; }
echo "agent_ntlm: $passed passed, $failed failed"
[ $failed = 0 ]
