#!/usr/bin/env bash
# The agent under Wine in the lab namespace (scripts/lib/agent-lab.sh):
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
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
WORK=$ROOT/build/mingw/bench-run
ROUNDS=${ROUNDS:-10}
IDLE_SECONDS=${IDLE_SECONDS:-60}
. scripts/lib/agent-lab.sh
lab_netns_enter bash "$0" "$@"

BUILD=$ROOT/build/mingw
AGENT=$BUILD/agent/lindqvar-agent.exe
CONTROL=$BUILD/tools/agent_control.exe
DIAG=$BUILD/tools/lindqvar-diag.exe
LAB=${LAB:-$ROOT/build/native/tools/lindqvar-lab-authenticator}
trap 'lab_stop; $WS -k 2>/dev/null' EXIT
mkdir -p "$WORK"
lab_prefix
lab_start "$LAB" "$BUILD/pki" "$BUILD/pki/ca.pem"
agent_configure "127.0.0.1:$LAB_PORT"
agent_start "$AGENT"

now_ms() { date +%s%3N; }
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
# One timed step: runs "$@" and waits for the lab's next finished connection.
timed() {
  local before t0
  before=$(lab_connections)
  t0=$(now_ms)
  "$@" >/dev/null 2>&1
  lab_wait_connections "$before" 30
  echo $(($(now_ms) - t0))
}
post=() diag=()
for ((i = 0; i < ROUNDS; i++)); do
  kind=logon; ((i % 2)) && kind=logoff
  post+=("$(timed $W "$CONTROL" post "$kind" 1)")
  diag+=("$(timed $W "$DIAG" send --server "127.0.0.1:$LAB_PORT" --key-file "$WORK/psk" \
    --user bench --domain corp --workstation ws1.corp --ip 10.77.0.5)")
done
p=$(printf '%s\n' "${post[@]}" | median)
d=$(printf '%s\n' "${diag[@]}" | median)
echo "post -> recorded (ms):  ${post[*]}  median $p"
echo "diag send (ms):         ${diag[*]}  median $d"

# Idle CPU: the Windows process of the agent is the wine loader's process;
# the wineserver is this prefix's (others may run on the machine).
pid=$AGENT_PID
wspid=
for w in $(pgrep -f wineserver); do
  tr '\0' '\n' 2>/dev/null <"/proc/$w/environ" | grep -qxF "WINEPREFIX=$WINEPREFIX" && wspid=$w
done
[ -n "$wspid" ] || { echo "no wineserver for $WINEPREFIX" >&2; exit 1; }
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
agent_stop "$CONTROL"
