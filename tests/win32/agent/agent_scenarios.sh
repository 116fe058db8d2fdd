#!/usr/bin/env bash
# The real lindqvar-agent.exe under Wine, driven the way the endpoint
# client's service drives it: settings in the registry, "-s" and a named
# event, the desired status set and the event signalled by agent_control.exe.
# OpenSSL files planted where a configuration could be read from must not be
# loaded.
#   agent_scenarios.sh <lindqvar-agent.exe> <agent_control.exe> <marker.dll>
set -uo pipefail
AGENT=$1
CONTROL=$2
MARKER=$3
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
WORK=$(dirname "$AGENT")/scenarios
W=/usr/lib/wine/wine64
WS=/usr/lib/wine/wineserver
export LINDQVAR_WINEPREFIX=${LINDQVAR_WINEPREFIX:-$(cd "$(dirname "$AGENT")/.." && pwd)/wineprefix}
export WINEPREFIX=$LINDQVAR_WINEPREFIX
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# The first run creates the prefix.
"$ROOT/scripts/wine-run" cmd /c exit 0 >/dev/null 2>&1
$WS -p  # keep one server for all the programs below
. "$HERE/../lib/openssl_plant.sh"
planted=0
openssl_plant "$MARKER" "$AGENT" && planted=1
# From drive C:, so that a path starting with "/" lies there too.
cd "$WINEPREFIX/drive_c"

mkdir -p "$WORK"
LOG="$WORK/FA_LINDQ.log"
LOGDIR=$($W winepath -w "$WORK" 2>/dev/null)
KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'
EVENT='Global\LindqvarAgent_Ctl_7'
passed=0
failed=0

reg() { $W reg "$@" >/dev/null 2>&1; }
fail() { echo "FAIL [$scenario]: $*"; ok=0; }
expect_log() { grep -qF -- "$1" "$LOG" || fail "log lacks: $1"; }
expect_no_log() { ! grep -qF -- "$1" "$LOG" || fail "log has: $1"; }
state() {
  local v
  v=$($W reg query "$KEY" /v LINDQState 2>/dev/null | tr -d '\r' | awk '/LINDQState/{print $3}')
  [ -n "$v" ] && printf '%d' "$v"
}

setup() {
  scenario=$1
  ok=1
  reg delete 'HKLM\software\Orvane' /f
  reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogDirectory /d "$LOGDIR" /f
  reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogLevel /t REG_DWORD /d 2 /f
  reg add "$KEY" /v Servers /d '127.0.0.1:9;localhost.localdomain' /f
  reg add "$KEY" /v PresharedKey /d 'lab-key' /f
  rm -f "$LOG"
}

finish() {
  if [ $ok = 1 ]; then echo "ok   [$scenario]"; passed=$((passed + 1)); else
    failed=$((failed + 1))
    [ -f "$LOG" ] && sed 's/^/    | /' "$LOG" | tail -n 30
  fi
}

start_agent() {
  $W "$AGENT" "$@" >"$WORK/agent.out" 2>&1 &
  agent_pid=$!
}

# Waits for the agent to end; its exit code, or 124 after $1 seconds.
wait_agent() {
  local limit=$1 i
  for ((i = 0; i < limit * 10; i++)); do
    kill -0 "$agent_pid" 2>/dev/null || { wait "$agent_pid"; return $?; }
    sleep 0.1
  done
  kill "$agent_pid" 2>/dev/null
  return 124
}

wait_log() {
  local text=$1 limit=$2 i
  for ((i = 0; i < limit * 10; i++)); do
    grep -qF -- "$text" "$LOG" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

control() { $W "$CONTROL" "$@" >/dev/null 2>&1 || fail "agent_control $*"; }

# 1. Without "-s" the agent ends at once with 0 and starts nothing.
setup no-switch
start_agent -S "$EVENT"
wait_agent 20; rc=$?
[ $rc = 0 ] || fail "exit code $rc"
[ ! -f "$LOG" ] || fail "a log was written"
finish

# 2. Stop: status 3, then the event. Start and stop events, state 0, code 0.
setup stop
start_agent " -s" "  $EVENT "
wait_log "EVENT 96983 Lindqvar is starting..., version:" 20 || fail "no start event"
control status 7 3
control signal "$EVENT"
wait_agent 60; rc=$?
[ $rc = 0 ] || fail "exit code $rc"
expect_log "Brannock config:127.0.0.1:9;localhost.localdomain"
expect_log "Successfully updated LINDQState in registry. New state: CONFIGURED_UNREACHABLE"
expect_log "EVENT 96984 Lindqvar is stopping..., version:"
[ "$(state)" = 0 ] || fail "LINDQState is '$(state)', not 0"
finish

# 2a. Through start-up (TLS initialised, a server tried) and stop, nothing
#     was loaded from the planted OpenSSL files.
scenario=sealed-openssl ok=1
[ $planted = 1 ] || fail "the OpenSSL files were not planted"
openssl_marker_absent || fail "the agent loaded a planted OpenSSL file"
finish

# 3. Re-reads whose entries all match one in force (by port, or failing
#    that by host) keep the agent; an entry with a new host on a new port
#    ends it without the stop event.
setup reread
start_agent -s "$EVENT"
wait_log "m_count:" 30 || fail "start-up did not finish"
control status 7 0
reg add "$KEY" /v Servers /d '127.0.0.2:9;localhost.localdomain' /f  # hosts only: no change
control signal "$EVENT"
wait_log "Brannock config:127.0.0.2:9;localhost.localdomain" 20 || fail "no re-read"
sleep 1
kill -0 "$agent_pid" 2>/dev/null || fail "ended after an unchanged re-read"
reg add "$KEY" /v Servers /d '127.0.0.2:10;localhost.localdomain' /f  # the port of a host in force
control signal "$EVENT"
wait_log "Brannock config:127.0.0.2:10;localhost.localdomain" 20 || fail "no second re-read"
sleep 1
kill -0 "$agent_pid" 2>/dev/null || fail "ended after a port change of a host in force"
reg add "$KEY" /v Servers /d '127.0.0.3:11;localhost.localdomain' /f  # new host, new port
control signal "$EVENT"
wait_agent 30; rc=$?
[ $rc = 0 ] || fail "exit code $rc"
expect_log "Brannock config:127.0.0.3:11;localhost.localdomain"
expect_no_log "EVENT 96984"
[ "$(state)" = 0 ] || fail "LINDQState is '$(state)', not 0"
finish

# 4. A changed preshared key ends the agent the same way.
setup key-change
start_agent -s "$EVENT"
wait_log "m_count:" 30 || fail "start-up did not finish"
control status 7 0
reg add "$KEY" /v PresharedKey /d 'other-key' /f
control signal "$EVENT"
wait_agent 30; rc=$?
[ $rc = 0 ] || fail "exit code $rc"
expect_no_log "EVENT 96984"
expect_no_log "other-key"
expect_no_log "lab-key"
finish

# 5. No settings key: its message, state left NOT_CONFIGURED, threads still
#    run and stop on request.
setup missing-key
reg delete "$KEY" /f
start_agent -s "$EVENT"
wait_log "Failed to open registry software\\Orvane\\Velmora\\FA_LINDQ" 30 ||
  fail "no missing-key message"
control status 7 3
control signal "$EVENT"
wait_agent 60; rc=$?
[ $rc = 0 ] || fail "exit code $rc"
expect_no_log "Brannock config:"
expect_log "EVENT 96984 Lindqvar is stopping..., version:"
finish

reg delete 'HKLM\software\Orvane' /f
$WS -k
echo "agent_scenarios: $passed passed, $failed failed"
[ $failed = 0 ]
