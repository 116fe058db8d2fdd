#!/usr/bin/env bash
# Footprint of the agent under Wine against a bare Windows program, both run
# side by side in one lab namespace (scripts/lib/agent-lab.sh) and one
# wineserver:
#   - lindqvar-agent.exe configured for the lab authenticator, started, one
#     user reported (a posted logon the lab records), then left idle;
#   - bare_agent.exe (bench/win32/): the same hidden window registered for
#     session notifications, Winsock started, six threads and a main thread
#     waiting on a control event; nothing else.
# Reports for each: private memory (Private_Clean + Private_Dirty of
# /proc/<pid>/smaps_rollup), resident memory (Rss), CPU over IDLE_SECONDS as
# a percentage of one core (utime + stime from /proc/<pid>/stat), the exe
# size, and the agent's figures as ratios to the bare program's; then the
# agent's largest private mappings, which say where the difference lies.
# The wineserver serves both; its CPU is shown for the two together.
# Needs the mingw build (release/ outputs) and the native lab authenticator.
#   AGENT         the agent exe (default: build/mingw/release/lindqvar-agent.exe, the
#                 shipped one; build/mingw/agent/lindqvar-agent.exe is the unsplit one)
#   BARE_PUMP_MS  when set, the bare program polls its window every N ms instead of
#                 sleeping until a message arrives
#   IDLE_SECONDS  (default 60), SETTLE_SECONDS after the report (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
WORK=$ROOT/build/mingw/footprint-run
IDLE_SECONDS=${IDLE_SECONDS:-60}
SETTLE_SECONDS=${SETTLE_SECONDS:-5}
. scripts/lib/agent-lab.sh
lab_netns_enter bash ${LINDQVAR_TRACE:+-x} "$0" "$@"

BUILD=$ROOT/build/mingw
AGENT=${AGENT:-$BUILD/release/lindqvar-agent.exe}
BARE=$BUILD/release/bare_agent.exe
CONTROL=$BUILD/tests/win32/agent/agent_control.exe
LAB=$ROOT/build/native/tools/lindqvar-lab-authenticator
BARE_EVENT='Global\LindqvarBare_Ctl'
for f in "$AGENT" "$BARE" "$CONTROL" "$LAB"; do
  [ -e "$f" ] || { echo "missing $f (build the mingw and native presets first)" >&2; exit 1; }
done
BARE_PID=
trap 'lab_stop; [ -n "$BARE_PID" ] && kill "$BARE_PID" 2>/dev/null; $WS -k 2>/dev/null' EXIT
mkdir -p "$WORK"
lab_prefix
lab_start "$LAB" "$BUILD/pki" "$BUILD/pki/ca.pem"
agent_configure "127.0.0.1:$LAB_PORT"

$W "$BARE" -s "$BARE_EVENT" ${BARE_PUMP_MS:+--pump-ms "$BARE_PUMP_MS"} >"$WORK/bare.out" 2>&1 &
BARE_PID=$!
agent_start "$AGENT" || { echo "the agent did not start" >&2; exit 1; }
before=$(lab_connections)
agent_post "$CONTROL" logon 1
lab_wait_connections "$before" 30 || { echo "the lab recorded no logon" >&2; exit 1; }
sleep "$SETTLE_SECONDS"

# Both pids are the Windows processes themselves (the loader execs in place).
for p in "$AGENT_PID" "$BARE_PID"; do
  tr '\0' ' ' <"/proc/$p/cmdline" | grep -q '\.exe' || { echo "pid $p is not a Wine process" >&2; exit 1; }
done
# This prefix's wineserver (others may run on the machine).
wspid=
for p in $(pgrep -f wineserver); do
  tr '\0' '\n' <"/proc/$p/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && wspid=$p
done
[ -n "$wspid" ] || { echo "no wineserver for $WINEPREFIX" >&2; exit 1; }
kb() { awk -v f="$2" '$1 == f":" {print $2}' "/proc/$1/smaps_rollup"; }
private_kb() { echo $(($(kb "$1" Private_Clean) + $(kb "$1" Private_Dirty))); }
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)

a_priv=$(private_kb "$AGENT_PID") b_priv=$(private_kb "$BARE_PID")
a_rss=$(kb "$AGENT_PID" Rss) b_rss=$(kb "$BARE_PID" Rss)
a0=$(ticks "$AGENT_PID") b0=$(ticks "$BARE_PID") w0=$(ticks "$wspid")
sleep "$IDLE_SECONDS"
a1=$(ticks "$AGENT_PID") b1=$(ticks "$BARE_PID") w1=$(ticks "$wspid")
a_size=$(stat -c %s "$AGENT") b_size=$(stat -c %s "$BARE")

printf '\nfootprint under Wine, idle over %d s (agent: %s)\n' "$IDLE_SECONDS" "${AGENT#"$ROOT"/}"
awk -v ap="$a_priv" -v bp="$b_priv" -v ar="$a_rss" -v br="$b_rss" \
    -v ac=$((a1 - a0)) -v bc=$((b1 - b0)) -v wc=$((w1 - w0)) -v hz="$hz" -v s="$IDLE_SECONDS" \
    -v as="$a_size" -v bs="$b_size" 'BEGIN {
  ratio = "%-22s %12.2f %12.2f %9.2f\n"
  printf "%-22s %12s %12s %9s\n", "", "agent", "bare", "ratio"
  printf ratio, "private memory (MB)", ap / 1024, bp / 1024, ap / bp
  printf ratio, "resident memory (MB)", ar / 1024, br / 1024, ar / br
  acpu = 100 * ac / hz / s; bcpu = 100 * bc / hz / s
  printf "%-22s %12.2f %12.2f %9s\n", "CPU (% of a core)", acpu, bcpu,
         (bcpu > 0 ? sprintf("%.2f", acpu / bcpu) : "-")
  printf ratio, "exe size (MB)", as / 1048576, bs / 1048576, as / bs
  printf "private difference: %.2f MB (goal <= 5); wineserver for both: %.2f %% of a core\n",
         (ap - bp) / 1024, 100 * wc / hz / s
}'

# Where the agent's private memory lies: mappings grouped by file (anonymous
# ones as [anon]), largest first, beside the bare program's.
by_mapping() {
  awk '/^[0-9a-f]+-[0-9a-f]+ / {name = ($6 == "") ? "[anon]" : $6; for (i = 7; i <= NF; i++) name = name " " $i}
       $1 == "Private_Clean:" || $1 == "Private_Dirty:" {sum[name] += $2}
       END {for (n in sum) if (sum[n] > 0) printf "%d\t%s\n", sum[n], n}' "/proc/$1/smaps" |
    sed 's#\t.*/#\t#'
}
printf '\nprivate kB by mapping (agent | bare)\n'
LC_ALL=C join -t $'\t' -a 1 -e 0 -o 0,1.1,2.1 -1 2 -2 2 \
  <(by_mapping "$AGENT_PID" | LC_ALL=C sort -t $'\t' -k 2,2) \
  <(by_mapping "$BARE_PID" | LC_ALL=C sort -t $'\t' -k 2,2) |
  sort -t $'\t' -k 2,2nr | head -n "${TOP_MAPPINGS:-15}" |
  awk -F '\t' '{printf "%8d %8d  %s\n", $2, $3, $1}'

$W "$CONTROL" signal "$BARE_EVENT" >/dev/null
wait "$BARE_PID" || true
BARE_PID=
agent_stop "$CONTROL"
