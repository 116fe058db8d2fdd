#!/usr/bin/env bash
# lindqvar.msi end to end under Wine on the lab machine of
# scripts/lib/agent-lab.sh: install with properties pointing at the lab
# authenticator on 127.0.0.1, the service runs the agent, a posted logon
# reaches the lab, settings changes are passed on (re-read, or a fresh
# agent), net stop ends both with LINDQState NOT_CONFIGURED, net start again,
# faults survived (the agent killed inside a held send: the service starts a
# fresh one, which reports the user still logged on; the service killed: its
# job ends the agent, and net start brings both back),
# an upgrade keeps the settings changed since (ResendLogoff too, absent after
# the install without its property) and writes ExcludedUsers (absent likewise),
# and msiexec /x leaves nothing behind.
#   msi_scenario.sh <lindqvar.msi> <next-version msi> <lab authenticator> <pki dir>
#                   <client CA> <agent_control.exe>
set -uo pipefail
MSI=$1 MSI_NEXT=$2 LAB=$3 PKI=$4 CLIENT_CA=$5 CONTROL=$6
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
. "$ROOT/scripts/lib/agent-lab.sh"
lab_begin msi_scenario "$PWD/msi-scenario" "$0" "$@"
DIR="$WINEPREFIX/drive_c/Program Files/Lindqvar"
AGENT_LOG="$DIR/FA_LINDQ.log"
SERVICE_LOG="$DIR/LindqvarService.log"
LAB_LOGS=("$AGENT_LOG" "$SERVICE_LOG")

service_state() { $W sc query LindqvarAgent 2>/dev/null | tr -d '\r' | awk '/STATE/ { print $4 }'; }
# Processes of this prefix running <name>; wine_kill sends them SIGKILL.
running() { [ -n "$(lab_pids "$1")" ]; }
not_running() { ! running "$1"; }
wine_kill() { kill -KILL $(lab_pids "$1") 2>/dev/null; }
# file_count_at_least <file> <text> <n>
file_count_at_least() { [ "$(grep -cF -- "$2" "$1" 2>/dev/null)" -ge "$3" ]; }
# Logon records delivered with a correct digest (to the listener on port $1).
logons() { grep '"event":"connection"' "$WORK/main.jsonl" | grep -E "\"listener\":\"[^\"]*:${1:-[0-9]+}\"" |
           grep '"digest":"correct"' | grep -c '"logon":1'; }
logons_above() { [ "$(logons "$1")" -gt "$2" ]; }
# post_logon [port]: a posted logon that the lab receives (from that listener).
post_logon() {
  local before
  before=$(logons "${1:-}")
  $W "$CONTROL" post logon 1 >"$WORK/post.txt" 2>&1 || return 1
  wait_for 30 "a logon report" logons_above "${1:-}" "$before"
}
value_is() {
  local v
  v=$(reg_value "$AGENT_KEY" "$1")
  [ "$v" = "$2" ] || { echo "  $1 is: $v"; return 1; }
}
# value_row <when> <name>=<"TYPE data", or nothing for an absent value>
value_row() {
  local data=${2#*=}
  check "$1 ${2%%=*} is ${data:-absent}" value_is "${2%%=*}" "$data"
}
no_key() { ! $W reg query "$1" >/dev/null 2>&1; }
msi() { $W msiexec "$1" "Z:${2//\//\\}" /qn "${@:3}"; }

# On 127.0.0.1 and ::1, both named in its certificate, which the agent
# verifies here; the second is the "changed" server.
lab_start main --listen 127.0.0.1:0 --listen '[::1]:0' || lab_end
port1=$(lab_port main) port2=$(lab_port main ::1)
# Debug lines show the re-reads ("Brannock config:").
$W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1

msi /i "$MSI" /l*v "Z:${WORK//\//\\}\\install.log" SERVERS="127.0.0.1:$port1" \
  PRESHAREDKEY="$LAB_KEY_VALUE" ADDRESSCATEGORY=0 PREFERAZURE=1 VERIFYSERVER=1
rc=$?
check "msiexec /i succeeds (exit $rc)" test $rc = 0
check "the programs are under Program Files" \
  test -f "$DIR/lindqvar-agent.exe" -a -f "$DIR/lindqvar-service.exe" -a -f "$DIR/lindqvar-diag.exe"
for row in "Servers=REG_SZ 127.0.0.1:$port1" "PresharedKey=REG_SZ $LAB_KEY_VALUE" \
           "PreferAzure=REG_DWORD 0x1" "Enabled=REG_DWORD 0x1" "VerifyServer=REG_DWORD 0x1" \
           "ExcludedUsers=" "ResendLogoff="; do
  value_row "after the install" "$row"
done
check "the service runs" test "$(service_state)" = RUNNING
check_wait 20 "the service started the agent" file_has "$SERVICE_LOG" "102 Started the agent"
check "the agent runs with the service's event" running 'lindqvar-agent.exe -s Global\\LindqvarAgent_Service'
wait_for 20 "the agent's start event" file_has "$AGENT_LOG" "EVENT 96983"
agent_started=$SECONDS
check_wait 40 "the agent finished its start-up" file_has "$AGENT_LOG" "m_count:"
check "the agent read the servers" file_has "$AGENT_LOG" "Brannock config:127.0.0.1:$port1"
check "a posted logon reaches the lab" post_logon "$port1"
check "LINDQState became CONFIGURED_REACHABLE" value_is LINDQState "REG_DWORD 0x2"

# A change of hosts only: the agent re-reads and runs on.
agent_set Servers "127.0.0.1:$port1;"
check_wait 10 "the service passed the change on" file_has "$SERVICE_LOG" "104 The settings changed"
check_wait 10 "the agent re-read its settings" file_has "$AGENT_LOG" "Brannock config:127.0.0.1:$port1;"
# Another server (host and port: a port change of a host in force is no
# change) ends the agent; the service starts a fresh one at once, as the first
# ran longer than its steady-run time (20 s).
steady() { [ $((SECONDS - agent_started)) -gt 20 ]; }
wait_for 30 "the agent's steady-run time" steady
agent_set Servers "[::1]:$port2"
check_wait 20 "the old agent ended and a fresh one starts now" file_has "$SERVICE_LOG" "a fresh one starts now."
# The service logs the restart before it starts the fresh agent: wait for the
# second start, then make sure there was no third.
check_wait 20 "the service started the fresh agent" file_count_at_least "$SERVICE_LOG" "102 Started the agent" 2
check "the agent ran on through the change of hosts only" \
  test "$(grep -c '102 Started the agent' "$SERVICE_LOG")" = 2
check_wait 40 "the fresh agent finished its start-up" file_count_at_least "$AGENT_LOG" "m_count:" 2
check "the fresh agent reads the new server" file_has "$AGENT_LOG" "Brannock config:[::1]:$port2"
check "the fresh agent reports to the new server" post_logon "$port2"

# net stop ends both; the agent leaves NOT_CONFIGURED behind.
$W net stop LindqvarAgent >"$WORK/net.txt" 2>&1
check "net stop stops the service" test "$(service_state)" = STOPPED
check_wait 5 "the agent ran its stop" file_has "$AGENT_LOG" "EVENT 96984"
check "the service saw the agent stop" file_has "$SERVICE_LOG" "105 The agent"
check "LINDQState is NOT_CONFIGURED" value_is LINDQState "REG_DWORD 0x0"
check_wait 30 "no agent or service process runs" not_running 'lindqvar-(agent|service).exe' ||
  ps -o pid,stat,etime,args -p "$(pgrep -d, -f 'lindqvar-(agent|service).exe')"
$W net start LindqvarAgent >"$WORK/net.txt" 2>&1
check "net start starts the service" test "$(service_state)" = RUNNING
check_wait 40 "the agent finished its start-up again" file_count_at_least "$AGENT_LOG" "m_count:" 3
check "a report after net start" post_logon
# The agent killed inside a send that the lab holds: the service starts a
# fresh agent, which reports the user still logged on. (Wine's session
# enumeration is empty, so its start-up finds the console session but no
# entry for it; the user's next notification, an unlock, is reported.)
lab_start main --listen "127.0.0.1:$port1" --listen "[::1]:$port2" --fault stall --fault-connections 1 || lab_end
sends=$(grep -c "SendAndReceive(), Local IP:" "$AGENT_LOG") starts=$(grep -c "102 Started the agent" "$SERVICE_LOG")
ends=$(grep -c "ended by itself" "$SERVICE_LOG")
$W "$CONTROL" post logon 1 >/dev/null 2>&1
check_wait 30 "the lab holds the agent's send" file_count_at_least "$AGENT_LOG" "SendAndReceive(), Local IP:" $((sends + 1))
sleep 1
wine_kill 'lindqvar-agent.exe'
check_wait 20 "the service saw the agent end" file_count_at_least "$SERVICE_LOG" "ended by itself" $((ends + 1))
check_wait 30 "the service starts a fresh agent" file_count_at_least "$SERVICE_LOG" "102 Started the agent" $((starts + 1))
check_wait 40 "the fresh agent finished its start-up and looked for the console session" \
  file_count_at_least "$AGENT_LOG" "current active session 1" 4
$W "$CONTROL" post unlock 1 >/dev/null 2>&1
check_wait 30 "the fresh agent reports the user still logged on" logons_above "$port2" 0
# The service killed: the job it runs the agent in ends the agent with it.
wine_kill 'lindqvar-service.exe'
check_wait 20 "the agent ends with its killed service" not_running 'lindqvar-agent.exe'
$W net start LindqvarAgent >"$WORK/net.txt" 2>&1
check_wait 20 "net start brings the service back" test "$(service_state)" = RUNNING
check_wait 40 "and with it an agent" file_count_at_least "$AGENT_LOG" "current active session 1" 5
for f in "$AGENT_LOG" "$SERVICE_LOG" "$WORK/install.log"; do
  check "the preshared key is not in ${f##*/}" file_lacks "$f" "$LAB_KEY_VALUE"
done

# An upgrade keeps the settings changed since the install, and writes
# ExcludedUsers from its property as a multi-string.
agent_set Servers "[::1]:$port2;127.0.0.1:$port1"
agent_set AddressCategory dword:4
agent_set ResendLogoff dword:1
msi /i "$MSI_NEXT" /l*v "Z:${WORK//\//\\}\\upgrade.log" EXCLUDEDUSERS='svc-*;CORP\helpdesk'
rc=$?
check "msiexec /i of the next version succeeds (exit $rc)" test $rc = 0
check "the preshared key is not in the upgrade's log" file_lacks "$WORK/upgrade.log" "$LAB_KEY_VALUE"
for row in "Servers=REG_SZ [::1]:$port2;127.0.0.1:$port1" "PresharedKey=REG_SZ $LAB_KEY_VALUE" \
           "AddressCategory=REG_DWORD 0x4" "VerifyServer=REG_DWORD 0x1" "ResendLogoff=REG_DWORD 0x1" \
           'ExcludedUsers=REG_MULTI_SZ svc-*;CORP\helpdesk'; do
  value_row "after the upgrade" "$row"
done
check "the upgraded service runs" test "$(service_state)" = RUNNING
check "one product is installed" test "$($W reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' \
  /s 2>/dev/null | grep -c 'DisplayName.*Lindqvar Agent')" = 1

# msiexec /x leaves nothing behind (the logging key is the test's own).
$W reg delete 'HKLM\software\Orvane\Velmora\Logging' /f >/dev/null 2>&1
msi /x "$MSI_NEXT"
rc=$?
check "msiexec /x succeeds (exit $rc)" test $rc = 0
check "the service is gone" test -z "$(service_state)"
check "the program folder is gone" test ! -e "$DIR"
check "no agent runs after removal" not_running lindqvar-agent.exe
for key in 'HKLM\software\Orvane' 'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\LindqvarAgent' \
           'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Lindqvar'; do
  check "$key is gone" no_key "$key"
done
lab_end
