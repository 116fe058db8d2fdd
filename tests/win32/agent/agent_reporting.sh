#!/usr/bin/env bash
# End to end: the real lindqvar-agent.exe under Wine reports to the native
# lab authenticator in a lab namespace (see scripts/lib/agent-lab.sh).
# agent_control.exe posts the session notifications that Wine never sends.
# A logon posted while no server listens, then the server coming up, an
# unlock, lock, remote and console connects, a resume and a logoff: the lab
# authenticator's JSON lines must show the right records, the agent's log
# the right lines, the event log file the catalogue events. Exit 77 where no
# namespace can be made.
#   agent_reporting.sh <lindqvar-agent.exe> <agent_control.exe> <lab> <pki dir> <client CA>
set -uo pipefail
AGENT=$1 CONTROL=$2 LAB=$3 PKI=$4 CLIENT_CA=$5
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

lab_start "$LAB" "$PKI" "$CLIENT_CA" "$port" || { echo "0 passed, 1 failed"; exit 1; }
step() {  # step <notification> <expected records...>
  local what=$1 before; shift
  before=$(lab_connections)
  agent_post "$CONTROL" "$what" 1
  if [ $# -eq 0 ]; then
    sleep 2
    check "$what sends nothing" test "$(lab_connections)" = "$before"
    return
  fi
  lab_wait_connections "$before" 30
  local got want
  got=$(records_of $((before + 1)))
  want=$(printf '%s\n' "$@")
  check "$what reports: $*" test "$got" = "$want"
  [ "$got" = "$want" ] || printf '    got: %s\n' "$got"
}
# The first event that reaches a server with addresses withdraws the
# (empty) previous set first.
step unlock "0:$WHO[][] fixed=4096" "1:$ME"
check "state is CONFIGURED_REACHABLE" log_has "New state: CONFIGURED_REACHABLE"
step lock
step remote-connect "1:$ME"
step console-connect "1:$ME"
step resume "1:$ME"
step logoff "0:$ME"
check "lab table is empty after the logoff" \
  test "$(grep '"event":"table"' "$WORK/lab.jsonl" | tail -n 1)" = '{"event":"table","entries":[]}'
check "session log record for the logoff" \
  grep -qE "EVENT 96980 Single Sign-On event action=2 domain=CORP.EXAMPLE.TEST,Workstation Name:lindqvar-ws,IP:10.77.0.5,BRK:127.0.0.1,succeeded to send session info, TICC:[0-9]+, TID:[0-9]+ user=" "$WORK/FA_LINDQ.log"
check "wakeup record" grep -qF "EVENT 96980 Single Sign-On event action=4" "$WORK/FA_LINDQ.log"
check "no preshared key in the log" bash -c "! grep -qF '$LAB_KEY_VALUE' '$WORK/FA_LINDQ.log'"

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
[ $failed = 0 ] || { echo "--- agent log"; tail -n 60 "$WORK/FA_LINDQ.log"; }
echo "agent_reporting: $passed passed, $failed failed"
[ $failed = 0 ]
