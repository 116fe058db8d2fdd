#!/usr/bin/env bash
# lindqvar.msi end to end under Wine, in a copy of the build's prefix:
# install with properties pointing at the lab authenticator on 127.0.0.1,
# the service runs the agent, a posted logon reaches the lab, settings
# changes are passed on (re-read, or a fresh agent), net stop ends both with
# LINDQState NOT_CONFIGURED, net start again, an upgrade keeps the settings,
# and msiexec /x leaves nothing behind. Prints the measured times.
#   msi_scenario.sh <wine-run> <lindqvar.msi> <next-version msi> <lab authenticator>
#                   <pki dir> <client CA> <agent_control.exe>
set -uo pipefail
WINE_RUN=$1 MSI=$2 MSI_NEXT=$3 LAB=$4 PKI=$5 CLIENT_CA=$6 POST=$7

# The machine of scripts/lib/agent-lab.sh (host lindqvar-ws with addresses
# on a veth pair that nothing else is connected to): the script runs again
# inside its namespaces, where they can be made; elsewhere it runs as it is
# (and the agent may have no address to report).
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
WORK=$(cd "$(dirname "$MSI")" && pwd)/msi-scenario
. "$ROOT/scripts/lib/agent-lab.sh"
if lab_netns_available; then lab_netns_enter bash "$0" "$@"; fi
build=$(cd "$(dirname "$MSI")" && pwd)
while [ "$build" != / ] && [ ! -f "$build/CMakeCache.txt" ]; do build=$(dirname "$build"); done
BASE=${LINDQVAR_WINEPREFIX:-$build/wineprefix}
SCEN=$build/wineprefix-msi
work=$(mktemp -d)
KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'
PSK="msi-scenario-key-$RANDOM$RANDOM"
passed=0 failed=0
lab_pid=

# The base prefix is made on first use; the scenario works on a copy, so a
# failed run leaves no service behind in the prefix of the other tests.
LINDQVAR_WINEPREFIX=$BASE "$WINE_RUN" cmd /c exit 0 >/dev/null 2>&1
WINEPREFIX=$BASE $WS -k 2>/dev/null
rm -rf "$SCEN" && cp -a "$BASE" "$SCEN"
export WINEPREFIX=$SCEN WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
$WS -p
# The Wine user is a domain user, as on a workstation of a domain.
$W reg add 'HKU\S-1-5-21-0-0-0-1000\Volatile Environment' /v USERDNSDOMAIN /d CORP.EXAMPLE.TEST /f >/dev/null 2>&1
DIR="$SCEN/drive_c/Program Files/Lindqvar"
AGENT_LOG="$DIR/FA_LINDQ.log"
SERVICE_LOG="$DIR/LindqvarService.log"

cleanup() {
  [ -n "$lab_pid" ] && kill "$lab_pid" 2>/dev/null && wait "$lab_pid" 2>/dev/null
  $WS -k 2>/dev/null
  if [ "$failed" = 0 ]; then rm -rf "$SCEN"; fi
  rm -rf "$work"
}
trap cleanup EXIT

T_BEGIN=$(date +%s.%N)
at() { awk -v a="$T_BEGIN" -v b="$(date +%s.%N)" 'BEGIN { printf "%6.1f", b - a }'; }
ok() { echo "$(at) PASS: $1"; passed=$((passed + 1)); }
bad() { echo "$(at) FAIL: $1"; failed=$((failed + 1)); }
expect() {  # expect <name> <command...>
  local name=$1; shift
  if "$@"; then ok "$name"; else bad "$name"; fi
}
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", b - a }'; }
# Waits up to $3 seconds for file $1 to hold $2 (fixed text) $4 times
# (default once); the moment it did is in $seen.
wait_text() {
  local file=$1 text=$2 limit=$3 count=${4:-1} i
  seen=
  for ((i = 0; i < limit * 10; i++)); do
    if [ "$(grep -cF -- "$text" "$file" 2>/dev/null)" -ge "$count" ]; then seen=$(now); return 0; fi
    sleep 0.1
  done
  return 1
}
has() { grep -qF -- "$2" "$1" 2>/dev/null; }
lacks() { ! grep -qF -- "$2" "$1" 2>/dev/null; }
reg_value() {  # "TYPE data" of a value, or nothing
  $W reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' | awk -v n="$2" '$1 == n { $1 = ""; sub(/^ +/, ""); print }'
}
no_key() { ! $W reg query "$1" >/dev/null 2>&1; }
# A verbose installer log, in whichever encoding the installer wrote it.
log_lacks() { test -s "$1" && ! tr -d '\000' <"$1" | grep -qF -- "$2"; }
service_state() { $W sc query LindqvarAgent 2>/dev/null | tr -d '\r' | awk '/STATE/ { print $4 }'; }
# Processes of this prefix running <name>.
running() {
  local p
  for p in $(pgrep -f "$1"); do
    tr '\0' '\n' < "/proc/$p/environ" 2>/dev/null | grep -qx "WINEPREFIX=$SCEN" && return 0
  done
  return 1
}
not_running() { ! running "$1"; }
# A logon record delivered with a correct digest to the lab's listener $1.
reported() { grep '"event":"connection"' "$work/lab.jsonl" | grep -E "\"listener\":\"[^\"]*:$1\"" |
             grep '"digest":"correct"' | grep -q '"logon":1'; }
wait_report() {  # wait_report <port> <seconds>; the moment in $seen
  local i
  seen=
  for ((i = 0; i < $2 * 10; i++)); do reported "$1" && { seen=$(now); return 0; }; sleep 0.1; done
  return 1
}
# A delivery takes a second or two; the wait is longer when one is expected.
REPORT_WAIT=30
post_logon() { $W "$POST" post logon 1 > "$work/post.txt" 2>&1; }

# The lab authenticator on 127.0.0.1 and ::1 (both named in its certificate,
# which the agent verifies here): the second is the "changed"
# server.
echo "$PSK" > "$work/psk"
"$LAB" --json --listen 127.0.0.1:0 --listen '[::1]:0' --ca "$CLIENT_CA" \
  --cert "$PKI/server.pem" --key "$PKI/server.key" --psk-file "$work/psk" \
  > "$work/lab.jsonl" 2> "$work/lab.err" &
lab_pid=$!
for _ in $(seq 100); do
  [ "$(grep -c '"event":"listening"' "$work/lab.jsonl")" -ge 2 ] && break
  sleep 0.05
done
ports=($(grep '"event":"listening"' "$work/lab.jsonl" | sed 's/.*"port":\([0-9]*\).*/\1/'))
if [ ${#ports[@]} -ne 2 ]; then
  echo "the lab authenticator did not start:"; cat "$work/lab.err"
  echo "0 passed, 1 failed"; exit 1
fi
port1=${ports[0]} port2=${ports[1]}

# Debug lines show the re-reads ("Brannock config:").
$W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1

# --- install: the package starts the service, the service the agent.
t0=$(now)
$W msiexec /i "Z:${MSI//\//\\}" /qn /l*v "Z:${work//\//\\}\\install.log" \
  SERVERS="127.0.0.1:$port1" PRESHAREDKEY="$PSK" ADDRESSCATEGORY=0 PREFERAZURE=1 VERIFYSERVER=1
rc=$?
t_installed=$(now)
expect "msiexec /i succeeds (exit $rc)" test "$rc" = 0
expect "the programs are under Program Files" test -f "$DIR/lindqvar-agent.exe" -a -f "$DIR/lindqvar-service.exe" -a -f "$DIR/lindqvar-diag.exe"
expect "the service runs" test "$(service_state)" = RUNNING
expect "Servers from the property" test "$(reg_value "$KEY" Servers)" = "REG_SZ 127.0.0.1:$port1"
expect "PresharedKey from the property" test "$(reg_value "$KEY" PresharedKey)" = "REG_SZ $PSK"
expect "PreferAzure is a REG_DWORD 1" test "$(reg_value "$KEY" PreferAzure)" = "REG_DWORD 0x1"
expect "Enabled defaults to a REG_DWORD 1" test "$(reg_value "$KEY" Enabled)" = "REG_DWORD 0x1"
expect "VerifyServer written when given" test "$(reg_value "$KEY" VerifyServer)" = "REG_DWORD 0x1"
expect "the service started the agent" wait_text "$SERVICE_LOG" "102 Started the agent" 20
expect "the agent starts with the service's event" running 'lindqvar-agent.exe -s Global\\LindqvarAgent_Service'
wait_text "$AGENT_LOG" "EVENT 96983" 20; t_agent_started=$seen
expect "the agent finished its start-up" wait_text "$AGENT_LOG" "m_count:" 40
t_startup=$seen
expect "the agent read the servers" has "$AGENT_LOG" "Brannock config:127.0.0.1:$port1"

# --- a posted logon reaches the lab authenticator.
post_logon; rc=$?
expect "the session-detector window took the posted logon ($(tr -d '\r\n' < "$work/post.txt"))" test "$rc" = 0
expect "the logon reached the lab authenticator" wait_report "$port1" "$REPORT_WAIT"
t_report1=$seen
expect "LINDQState became CONFIGURED_REACHABLE" test "$(reg_value "$KEY" LINDQState)" = "REG_DWORD 0x2"

# --- a change of hosts only: the agent re-reads and runs on.
$W reg add "$KEY" /v Servers /d "127.0.0.1:$port1;" /f >/dev/null 2>&1
expect "the service passed the change on" wait_text "$SERVICE_LOG" "104 The settings changed" 10
expect "the agent re-read its settings" wait_text "$AGENT_LOG" "Brannock config:127.0.0.1:$port1;" 10
sleep 1
expect "the same agent runs on" test "$(grep -c '102 Started the agent' "$SERVICE_LOG")" = 1

# --- another server (host and port: a port change of a host in force is
# no change) ends the agent; the service starts a fresh one at once (the
# first ran longer than its steady-run time).
while [ "$(since "$t_agent_started" "$(now)" | cut -d. -f1)" -lt 21 ]; do sleep 0.5; done
t_change=$(now)
$W reg add "$KEY" /v Servers /d "[::1]:$port2" /f >/dev/null 2>&1
expect "the old agent ended and a fresh one starts now" wait_text "$SERVICE_LOG" "a fresh one starts now." 20
expect "the fresh agent started" wait_text "$AGENT_LOG" "EVENT 96983" 20 2
t_fresh_started=$seen
expect "the fresh agent finished its start-up" wait_text "$AGENT_LOG" "m_count:" 40 2
t_fresh_startup=$seen
expect "the fresh agent reads the new server" has "$AGENT_LOG" "Brannock config:[::1]:$port2"
post_logon
expect "the fresh agent reported to the new server" wait_report "$port2" "$REPORT_WAIT"
t_report2=$seen

# --- net stop ends both; the agent leaves NOT_CONFIGURED behind.
$W net stop LindqvarAgent > "$work/net.txt" 2>&1
expect "net stop stops the service" test "$(service_state)" = STOPPED
expect "the agent ran its stop" wait_text "$AGENT_LOG" "EVENT 96984" 5
expect "the service saw the agent stop" has "$SERVICE_LOG" "105 The agent"
expect "LINDQState is NOT_CONFIGURED" test "$(reg_value "$KEY" LINDQState)" = "REG_DWORD 0x0"
expect "no agent runs" not_running 'lindqvar-agent.exe'
expect "no service process runs" not_running 'lindqvar-service.exe'

# --- net start: the time to the first report.
t_net_start=$(now)
$W net start LindqvarAgent > "$work/net.txt" 2>&1
expect "net start starts the service" test "$(service_state)" = RUNNING
expect "the agent finished its start-up again" wait_text "$AGENT_LOG" "m_count:" 40 3
t_net_startup=$seen
post_logon
wait_report_after() {
  local i
  seen=
  for ((i = 0; i < REPORT_WAIT * 10; i++)); do
    [ "$(grep '"event":"connection"' "$work/lab.jsonl" | grep -c '"logon":1')" -gt "$1" ] && { seen=$(now); return 0; }
    sleep 0.1
  done
  return 1
}
expect "a report after net start" wait_report_after "$(grep '"event":"connection"' "$work/lab.jsonl" | grep -c '"logon":1')"
t_net_report=$seen

# --- no secret in any log.
expect "the preshared key is in no log" lacks "$AGENT_LOG" "$PSK"
expect "the preshared key is not in the service log" lacks "$SERVICE_LOG" "$PSK"
expect "the preshared key is not in the installer's verbose log" log_lacks "$work/install.log" "$PSK"

# --- upgrade: a later version keeps the settings changed since the install.
$W reg add "$KEY" /v Servers /d "[::1]:$port2;127.0.0.1:$port1" /f >/dev/null 2>&1
$W reg add "$KEY" /v AddressCategory /t REG_DWORD /d 4 /f >/dev/null 2>&1
$W msiexec /i "Z:${MSI_NEXT//\//\\}" /qn /l*v "Z:${work//\//\\}\\upgrade.log"
rc=$?
expect "msiexec /i of the next version succeeds (exit $rc)" test "$rc" = 0
expect "the preshared key is not in the upgrade's verbose log" log_lacks "$work/upgrade.log" "$PSK"
expect "the upgrade keeps Servers" test "$(reg_value "$KEY" Servers)" = "REG_SZ [::1]:$port2;127.0.0.1:$port1"
expect "the upgrade keeps PresharedKey" test "$(reg_value "$KEY" PresharedKey)" = "REG_SZ $PSK"
expect "the upgrade keeps AddressCategory a REG_DWORD" test "$(reg_value "$KEY" AddressCategory)" = "REG_DWORD 0x4"
expect "the upgrade keeps VerifyServer" test "$(reg_value "$KEY" VerifyServer)" = "REG_DWORD 0x1"
expect "the upgraded service runs" test "$(service_state)" = RUNNING
expect "one product is installed" test "$($W reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null | grep -c 'DisplayName.*Lindqvar Agent')" = 1

# --- uninstall leaves nothing behind (the logging key is the test's own).
$W reg delete 'HKLM\software\Orvane\Velmora\Logging' /f >/dev/null 2>&1
$W msiexec /x "Z:${MSI_NEXT//\//\\}" /qn
rc=$?
expect "msiexec /x succeeds (exit $rc)" test "$rc" = 0
expect "the service is gone" test -z "$(service_state)"
expect "the program folder is gone" test ! -e "$DIR"
expect "no agent runs after removal" not_running 'lindqvar-agent.exe'
expect "the settings key is gone" no_key "$KEY"
expect "the desired status is gone" no_key 'HKLM\software\Orvane\Velmora\DesiredStatus'
expect "the event sources are gone" no_key 'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\LindqvarAgent'
expect "the agent's event source is gone" no_key 'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Lindqvar'
expect "nothing is left under software\\Orvane" no_key 'HKLM\software\Orvane'

echo
echo "Figures (seconds):"
echo "  msiexec /i: $(since "$t0" "$t_installed")"
echo "  install to the agent's start-up done (10 s start-up wait included): $(since "$t0" "$t_startup")"
[ -n "${t_report1:-}" ] && echo "  install to the first report: $(since "$t0" "$t_report1")"
echo "  settings change to the fresh agent's start: $(since "$t_change" "$t_fresh_started")"
echo "  settings change to the fresh agent's start-up done: $(since "$t_change" "$t_fresh_startup")"
[ -n "${t_report2:-}" ] && echo "  settings change to the fresh agent's first report: $(since "$t_change" "$t_report2")"
echo "  net start to the agent's start-up done: $(since "$t_net_start" "$t_net_startup")"
[ -n "${t_net_report:-}" ] && echo "  net start to the first report: $(since "$t_net_start" "$t_net_report")"
echo "  size of lindqvar.msi: $(stat -c %s "$MSI") bytes"

if [ "$failed" -ne 0 ]; then
  for f in "$SERVICE_LOG" "$AGENT_LOG" "$work/lab.jsonl" "$work/lab.err" "$work/post.txt"; do
    [ -f "$f" ] && { echo "--- $f"; tail -n 40 "$f"; }
  done
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
