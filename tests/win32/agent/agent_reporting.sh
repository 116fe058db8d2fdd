#!/usr/bin/env bash
# End to end: the real lindqvar-agent.exe under Wine reports to the native
# lab authenticator in a lab namespace (see scripts/lib/agent-lab.sh).
# agent_control.exe posts the session notifications that Wine never sends.
# A logon posted while no server listens, then the server coming up, an
# unlock, lock, remote and console connects, a resume and a logoff: the lab
# authenticator's JSON lines must show the right records, the agent's log
# the right lines, the event log file the catalogue events. With the server's
# keep-alive interval, keep-alives arrive while the user is logged on and
# stop after the logoff; the re-send timer gets the failed logon through once
# the server is up; a re-read that switches server verification on makes the
# agent refuse a server from an unrelated CA. A server serving a keep-alive
# interval whose milliseconds overflow 32 bits causes no flood. A stand-in
# device-registration tool reports the user as an Azure AD account: the
# PreferAzure setting decides which account a new logon reports, and with it
# the Azure AD account attribute. Last, a settings change while a send is held
# by a server that never answers ends the process, and LINDQState reads
# NOT_CONFIGURED once it is gone. Exit 77 where no namespace can be made.
#   agent_reporting.sh <lindqvar-agent.exe> <agent_control.exe> <lab> <pki dir> <client CA>
#                      <stand-in dsregcmd.exe>
set -uo pipefail
AGENT=$1 CONTROL=$2 LAB=$3 PKI=$4 CLIENT_CA=$5 DSREG=$6
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
WORK=$(cd "$(dirname "$AGENT")" && pwd)/reporting
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
# The records of connection number $1 as "logon:USER@DOMAIN@WORKSTATION[ipv4..][ipv6..]" lines.
records_of() {
  grep '"event":"connection"' "$WORK/lab.jsonl" | sed -n "${1}p" | python3 -c '
import json, sys
for r in json.loads(sys.stdin.read()).get("records", []):
    print("%d:%s@%s@%s%s%s fixed=%d" % (r["logon"], r["user"], r["domain"], r["workstation"],
          r.get("ipv4", []), r.get("ipv6", []), r["fixed"]))'
}
USER_UP=$(printf '%s' "${USER:-root}" | tr '[:lower:]' '[:upper:]')
WHO="$USER_UP@CORP.EXAMPLE.TEST@LINDQVAR-WS.LAB.EXAMPLE"
ME="$WHO['10.77.0.5']['fd00:77::5'] fixed=4096"
cleanup() { lab_stop; $WS -k 2>/dev/null; }
trap cleanup EXIT

mkdir -p "$WORK"
lab_prefix
# The stand-in answers with an Azure AD account for whoever runs it.
cp "$DSREG" "$WINEPREFIX/drive_c/windows/system32/dsregcmd.exe"
printf '%s\r\n' "             AzureAdJoined : YES" \
  "                  TenantId : 4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44" \
  "    Executing Account Name : AzureAD\\MaraLind, mara.lind@fabrikam.example" >"$WORK/dsreg.txt"
LINDQVAR_DSREG_OUTPUT=$($W winepath -w "$WORK/dsreg.txt" 2>/dev/null)
export LINDQVAR_DSREG_OUTPUT
# A port for the lab: taken from a first start, kept for the second.
lab_start "$LAB" "$PKI" "$CLIENT_CA" 0 || { echo "0 passed, 1 failed"; exit 1; }
port=$LAB_PORT
lab_stop
agent_configure "127.0.0.1:$port"
agent_start "$AGENT" || { echo "the agent did not start"; cat "$WORK/FA_LINDQ.log"; exit 1; }
check "start-up: no session to report under Wine" log_has "call WTSGetActiveConsoleSessionId, session ID: 1"

# 1. A logon while no server listens: the send fails, the state machine
#    still records the session as the logged-on one.
agent_post "$CONTROL" logon 1
agent_wait_log "SendAndReceive(), failed to send event to authenticator" 30
check "logon without a server fails to send" log_has "Received message WTS_SESSION_LOGON, session id:1, TICC:"
check "state is CONFIGURED_UNREACHABLE" log_has "New state: CONFIGURED_UNREACHABLE"

# The server comes up with a keep-alive interval of 2 s. The failed logon
# raised the re-send flag: the re-send timer (every 10 s) gets it through.
lab_start "$LAB" "$PKI" "$CLIENT_CA" "$port" --keepalive 2 || { echo "0 passed, 1 failed"; exit 1; }
lab_wait_connections 0 15
check "re-send after the server came up" test "$(records_of 1)" = "$(printf '%s\n' "0:$WHO[][] fixed=4096" "1:$ME")"
check "re-send line" log_has "CSessionManager::ResendLogonEvent:1002, m_bLogon:1, m_dwCurrentSession:1"
check "state is CONFIGURED_REACHABLE" log_has "New state: CONFIGURED_REACHABLE"

step() {  # step <notification> <expected records...>: some new connection carries them
  local what=$1 before; shift
  before=$(lab_connections)
  agent_post "$CONTROL" "$what" 1
  if [ $# -eq 0 ]; then
    sleep 1
    check "$what sends nothing" bash -c "! grep -q 'Before processing\|SendAndReceive' <(tail -n 3 '$WORK/FA_LINDQ.log')"
    return
  fi
  local want got n i
  want=$(printf '%s\n' "$@")
  for ((i = 0; i < 300; i++)); do
    for ((n = before + 1; n <= $(lab_connections); n++)); do
      got=$(records_of $n)
      [ "$got" = "$want" ] && break 2
    done
    sleep 0.1
  done
  check "$what reports: $*" test "$got" = "$want"
}
step unlock "1:$ME"
step lock
step remote-connect "1:$ME"
step console-connect "1:$ME"
step resume "1:$ME"
# The keep-alive timer's first wait is the default 180 s (Wine has no
# session at start to report); from then on it waits the server's 2 s.
agent_wait_log "Single Sign-On event action=5" 240
sleep 5
keepalives=$(grep -c "Single Sign-On event action=5 " "$WORK/FA_LINDQ.log")
check "keep-alives every 2 s while logged on ($keepalives)" test "$keepalives" -ge 2

# The server now serves 536870912 s, whose milliseconds wrap to 0 in 32 bits:
# the next wait stays within its range, so at most one more keep-alive comes.
lab_stop
lab_start "$LAB" "$PKI" "$CLIENT_CA" "$port" --keepalive 536870912 || { echo "0 passed, 1 failed"; exit 1; }
for ((i = 0; i < 100; i++)); do
  grep -qF '"keepalive":536870912' "$WORK/lab.jsonl" && break
  sleep 0.1
done
check "a keep-alive took the interval 536870912" grep -qF '"keepalive":536870912' "$WORK/lab.jsonl"
before=$(grep -c "Single Sign-On event action=5 " "$WORK/FA_LINDQ.log")
sleep 20
extra=$(( $(grep -c "Single Sign-On event action=5 " "$WORK/FA_LINDQ.log") - before ))
check "at most one keep-alive in the 20 s after it ($extra)" test "$extra" -le 1
step logoff "0:$ME"
check "lab table is empty after the logoff" \
  test "$(grep '"event":"table"' "$WORK/lab.jsonl" | tail -n 1)" = '{"event":"table","entries":[]}'
after=$(grep -c "Single Sign-On event action=5 " "$WORK/FA_LINDQ.log")
sleep 5
check "no keep-alive after the logoff" test "$(grep -c "Single Sign-On event action=5 " "$WORK/FA_LINDQ.log")" = "$after"
check "session log record for the logoff" \
  grep -qE "EVENT 96980 Single Sign-On event action=2 domain=CORP.EXAMPLE.TEST,Workstation Name:lindqvar-ws,IP:10.77.0.5,BRK:127.0.0.1,succeeded to send session info, TICC:[0-9]+, TID:[0-9]+ user=" "$WORK/FA_LINDQ.log"
check "wakeup record" grep -qF "EVENT 96980 Single Sign-On event action=4" "$WORK/FA_LINDQ.log"
check "no preshared key in the log" bash -c "! grep -qF '$LAB_KEY_VALUE' '$WORK/FA_LINDQ.log'"
# Wine's address-change request stays pending for ever: the wait thread runs
# (no error) and ends at the stop below.
check "address-change wait started" bash -c "! grep -qF 'NotifyAddrChange error' '$WORK/FA_LINDQ.log'"

# The stand-in's Azure AD answer: with PreferAzure 1 a new logon goes out as
# the Azure AD account with the Azure AD account attribute (the tenant id),
# with 0 as the domain account without it.
azure_logon() {  # azure_logon <PreferAzure> <expected "user@domain azure=...">
  local n reads i got=
  reads=$(grep -c "prefer azure:" "$WORK/FA_LINDQ.log")
  $W reg add "$AGENT_KEY" /v PreferAzure /t REG_DWORD /d "$1" /f >/dev/null
  $W "$CONTROL" status 1 0 >/dev/null
  $W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
  for ((i = 0; i < 100; i++)); do
    [ "$(grep -c "prefer azure:" "$WORK/FA_LINDQ.log")" -gt "$reads" ] && break
    sleep 0.1
  done
  n=$(lab_connections)
  agent_post "$CONTROL" logon 1
  lab_wait_connections "$n" 30
  got=$(grep '"event":"connection"' "$WORK/lab.jsonl" | sed -n "$((n + 1))p" | python3 -c '
import json, sys
for r in json.loads(sys.stdin.read()).get("records", []):
    if r["logon"] == 1: print("%s@%s azure=%s" % (r["user"], r["domain"], r.get("azure", "")))')
  check "PreferAzure $1 reports $2 ($got)" test "$got" = "$2"
  n=$(lab_connections)
  agent_post "$CONTROL" logoff 1
  lab_wait_connections "$n" 30
}
azure_logon 1 "MARA.LIND@FABRIKAM.EXAMPLE azure=4F1C2B7E-9D3A-4E55-8A61-0C2F7D9B1E44"
azure_logon 0 "$USER_UP@CORP.EXAMPLE.TEST azure="

# 2. Server verification switched on by a re-read: a lab authenticator with
#    a certificate from an unrelated CA is refused before the hello.
lab_stop
LAB_CERT=other-server lab_start "$LAB" "$PKI" "$CLIENT_CA" "$port" || { echo "0 passed, 1 failed"; exit 1; }
$W reg add "$AGENT_KEY" /v VerifyServer /t REG_DWORD /d 1 /f >/dev/null
$W "$CONTROL" status 1 0 >/dev/null
$W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
agent_wait_log "Server verification is on" 20
before=$(lab_connections)
agent_post "$CONTROL" unlock 1
agent_wait_log "SslClientInit(), server verification failed for authenticator 127.0.0.1 port $port" 30
check "verification refuses the other CA's server" \
  log_has "SslClientInit(), server verification failed for authenticator 127.0.0.1 port $port"
lab_wait_connections "$before" 10
check "no hello was sent to it" bash -c "grep '\"event\":\"connection\"' '$WORK/lab.jsonl' | tail -n 1 | grep -qF '\"hello_sent\":false'"

agent_stop "$CONTROL"
check "stop event" log_has "EVENT 96984 Lindqvar is stopping..., version:"

# 3. A settings change while the send is held by servers that accept TCP and
#    never answer: the process ends without waiting for the send, through the
#    end that destroys nothing, and LINDQState is NOT_CONFIGURED after it.
lab_stop
lab_start "$LAB" "$PKI" "$CLIENT_CA" "$port" --fault stall-tls || { echo "0 passed, 1 failed"; exit 1; }
agent_configure "127.0.0.1:$port;127.0.0.1:$port"
agent_start "$AGENT" || { echo "the agent did not start"; exit 1; }
# Another host and port: a change, read at the signal below.
$W reg add "$AGENT_KEY" /v Servers /d "127.0.0.2:1" /f >/dev/null
agent_post "$CONTROL" logon 1
agent_wait_log "SendAndReceive(), Local IP:" 30
$W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
for ((i = 0; i < 300; i++)); do
  kill -0 "$AGENT_PID" 2>/dev/null || break
  sleep 0.1
done
check "a settings change ends the agent during a held send" bash -c "! kill -0 $AGENT_PID 2>/dev/null"
wait "$AGENT_PID" 2>/dev/null
check "the send was still held when it ended" bash -c "! grep -qF 'SslClientInit(), failed' '$WORK/FA_LINDQ.log'"
state=$($W reg query "$AGENT_KEY" /v LINDQState 2>/dev/null | grep -o '0x[0-9a-fA-F]*')
check "LINDQState is NOT_CONFIGURED after the process is gone ($state)" test "$state" = 0x0
[ $failed = 0 ] || { echo "--- agent log"; tail -n 60 "$WORK/FA_LINDQ.log"; }
echo "agent_reporting: $passed passed, $failed failed"
[ $failed = 0 ]
