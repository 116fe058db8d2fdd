#!/usr/bin/env bash
# The agent under Wine on the lab machine (scripts/lib/agent-lab.sh):
#   1. latency from posting WTS_SESSION_LOGON (or LOGOFF) to the lab
#      authenticator finishing that connection, against one
#      `lindqvar-diag.exe send` to the same server in the same run (both
#      include starting one Wine program: agent_control.exe for the post,
#      lindqvar-diag.exe for the send); median of ROUNDS rounds each;
#   2. the idle agent's CPU over IDLE_SECONDS (six threads), as a
#      percentage of one core, from /proc (the agent process alone, and
#      the wineserver beside it).
# Ends with one line "agent_wine_bench: ..." holding the latency, its
# anchor (the diag send) and their ratio, the line to compare between runs.
# Needs the mingw and native builds (scripts/run-agent makes both).
#   ROUNDS (default 10), IDLE_SECONDS (default 60)
set -uo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
ROUNDS=${ROUNDS:-10}
IDLE_SECONDS=${IDLE_SECONDS:-60}
. scripts/lib/agent-lab.sh
BUILD=$ROOT/build/mingw
AGENT=$BUILD/agent/lindqvar-agent.exe CONTROL=$BUILD/tools/agent_control.exe
DIAG=$BUILD/tools/lindqvar-diag.exe PKI=$BUILD/pki CLIENT_CA=$BUILD/pki/ca.pem
LAB=${LAB:-$ROOT/build/native/tools/lindqvar-lab-authenticator}
lab_begin agent_wine_bench "$BUILD/bench-run" "$0" "$@"
lab_start main || exit 1
agent_configure "127.0.0.1:$(lab_port main)"
agent_start || exit 1

now_ms() { date +%s%3N; }
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
# One timed step: runs "$@" and waits for the lab's next finished connection.
lab_has_new() { [ "$(lab_new_count main)" -gt 0 ]; }
timed() {
  local t0
  lab_mark main
  t0=$(now_ms)
  "$@" >/dev/null 2>&1
  wait_for 30 "the lab's next connection" lab_has_new >&2 || return 1
  echo $(($(now_ms) - t0))
}
post=() diag=()
for ((i = 0; i < ROUNDS; i++)); do
  kind=logon; ((i % 2)) && kind=logoff
  t=$(timed $W "$CONTROL" post "$kind" 1) || exit 1
  post+=("$t")
  t=$(timed $W "$DIAG" send --server "127.0.0.1:$(lab_port main)" --key-file "$WORK/psk" \
    --user bench --domain corp --workstation ws1.corp --ip 10.77.0.5) || exit 1
  diag+=("$t")
done
p=$(printf '%s\n' "${post[@]}" | median)
d=$(printf '%s\n' "${diag[@]}" | median)
echo "post -> recorded (ms):  ${post[*]}  median $p"
echo "diag send (ms):         ${diag[*]}  median $d"

# Idle CPU: the Windows process of the agent is the wine loader's process.
pid=$AGENT_PID
wspid=$(lab_wineserver_pid)
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)
a0=$(ticks "$pid") w0=$(ticks "$wspid")
sleep "$IDLE_SECONDS"
a1=$(ticks "$pid") w1=$(ticks "$wspid")
awk -v a=$((a1 - a0)) -v w=$((w1 - w0)) -v hz="$hz" -v s="$IDLE_SECONDS" 'BEGIN {
  printf "idle CPU over %d s: agent %.2f %% of a core, wineserver %.2f %% (goal: agent <= 0.5 %%)\n",
         s, 100 * a / hz / s, 100 * w / hz / s }'
awk -v p="$p" -v d="$d" -v n="$ROUNDS" 'BEGIN {
  printf "agent_wine_bench: post -> recorded %.1f ms, diag send %.1f ms (medians of %d), ratio %.2f (goal <= 1.2)\n",
         p, d, n, p / d }'
agent_stop
