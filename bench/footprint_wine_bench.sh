#!/usr/bin/env bash
# Footprint of the agent under Wine against a bare Windows program, both run
# side by side on the lab machine of scripts/lib/agent-lab.sh with one
# wineserver:
#   - lindqvar-agent.exe configured for the lab authenticator, started, one
#     user reported (a posted logon the lab records), then left idle;
#   - bare_agent.exe (bench/win32/): the same hidden window registered for
#     session notifications, Winsock started, six threads and a main thread
#     waiting on a control event; nothing else.
# Reports for each, from /proc/<pid>/smaps_rollup and /proc/<pid>/stat:
#   private memory      Private_Dirty: pages only this process holds and has
#                       written (heap, stacks, data, relocated pages, an image
#                       read rather than mapped); what Windows counts as a
#                       process's private bytes, and what no other process
#                       can share
#   private file pages  Private_Clean: pages of files (the exe, DLLs) that only
#                       this process maps; page cache, dropped under pressure
#                       and shared with any other process mapping the file
#   resident memory     Rss
#   CPU                 utime + stime over IDLE_SECONDS, % of one core
#   exe size
# with the agent's figures as ratios to the bare program's; then both
# processes' private pages by mapping, which say where the difference lies;
# last, one line "footprint_wine_bench: ..." with the private memory of both
# and their ratio, the line to compare between runs.
# The wineserver serves both; its CPU is shown for the two together.
# Needs the mingw build (release/ outputs) and the native lab authenticator.
#   AGENT         the agent exe (default: build/mingw/release/lindqvar-agent.exe, the
#                 shipped one; build/mingw/agent/lindqvar-agent.exe is the unsplit one)
#   BARE_PUMP_MS  when set, the bare program polls its window every N ms instead of
#                 sleeping until a message arrives
#   IDLE_SECONDS  (default 60), SETTLE_SECONDS after the report (default 5)
set -uo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
IDLE_SECONDS=${IDLE_SECONDS:-60}
export SETTLE_SECONDS=${SETTLE_SECONDS:-5}
. scripts/lib/agent-lab.sh
BUILD=$ROOT/build/mingw
AGENT=${AGENT:-$BUILD/release/lindqvar-agent.exe}
BARE=$BUILD/release/bare_agent.exe
CONTROL=$BUILD/tools/agent_control.exe PKI=$BUILD/pki CLIENT_CA=$BUILD/pki/ca.pem
LAB=${LAB:-$ROOT/build/native/tools/lindqvar-lab-authenticator}
BARE_EVENT='Global\LindqvarBare_Ctl'
for f in "$AGENT" "$BARE" "$CONTROL" "$LAB"; do
  [ -e "$f" ] || { echo "missing $f (build the mingw and native presets first)" >&2; exit 1; }
done
lab_begin footprint_wine_bench "$BUILD/footprint-run" ${LINDQVAR_TRACE:+-x} "$0" "$@"
lab_start main || exit 1
agent_configure "127.0.0.1:$(lab_port main)"

$W "$BARE" -s "$BARE_EVENT" ${BARE_PUMP_MS:+--pump-ms "$BARE_PUMP_MS"} >"$WORK/bare.out" 2>&1 &
BARE_PID=$!
trap 'kill "$BARE_PID" 2>/dev/null || true; lab_cleanup' EXIT
agent_start || exit 1
agent_post logon
wait_for 30 "the agent's record of the reported logon" log_has "succeeded to send session info" || exit 1
sleep "$SETTLE_SECONDS"

# Both pids are the Windows processes themselves (the loader execs in place).
for p in "$AGENT_PID" "$BARE_PID"; do
  grep -qa '\.exe' "/proc/$p/cmdline" || { echo "pid $p is not a Wine process" >&2; exit 1; }
done
wspid=$(lab_wineserver_pid)
[ -n "$wspid" ] || { echo "no wineserver for $WINEPREFIX" >&2; exit 1; }
set -e
kb() { awk -v f="$2" '$1 == f":" {print $2}' "/proc/$1/smaps_rollup"; }
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)

# Memory is taken at the end of the idle period; the agent's private memory
# just after its report is shown beside it.
a_early=$(kb "$AGENT_PID" Private_Dirty)
a0=$(ticks "$AGENT_PID") b0=$(ticks "$BARE_PID") w0=$(ticks "$wspid")
sleep "$IDLE_SECONDS"
a1=$(ticks "$AGENT_PID") b1=$(ticks "$BARE_PID") w1=$(ticks "$wspid")
a_priv=$(kb "$AGENT_PID" Private_Dirty) b_priv=$(kb "$BARE_PID" Private_Dirty)
a_file=$(kb "$AGENT_PID" Private_Clean) b_file=$(kb "$BARE_PID" Private_Clean)
a_rss=$(kb "$AGENT_PID" Rss) b_rss=$(kb "$BARE_PID" Rss)
a_size=$(stat -c %s "$AGENT") b_size=$(stat -c %s "$BARE")

printf '\nfootprint under Wine, idle over %d s (agent: %s)\n' "$IDLE_SECONDS" "${AGENT#"$ROOT"/}"
awk -v ae="$a_early" -v ap="$a_priv" -v bp="$b_priv" -v af="$a_file" -v bf="$b_file" -v ar="$a_rss" -v br="$b_rss" \
    -v ac=$((a1 - a0)) -v bc=$((b1 - b0)) -v wc=$((w1 - w0)) -v hz="$hz" -v s="$IDLE_SECONDS" \
    -v as="$a_size" -v bs="$b_size" 'BEGIN {
  ratio = "%-22s %12.2f %12.2f %9.2f\n"
  printf "%-22s %12s %12s %9s\n", "", "agent", "bare", "ratio"
  printf ratio, "private memory (MB)", ap / 1024, bp / 1024, ap / bp
  printf ratio, "private file pages (MB)", af / 1024, bf / 1024, af / bf
  printf ratio, "resident memory (MB)", ar / 1024, br / 1024, ar / br
  acpu = 100 * ac / hz / s; bcpu = 100 * bc / hz / s
  printf "%-22s %12.2f %12.2f %9s\n", "CPU (% of a core)", acpu, bcpu,
         (bcpu > 0 ? sprintf("%.2f", acpu / bcpu) : "-")
  printf ratio, "exe size (MB)", as / 1048576, bs / 1048576, as / bs
  printf "agent private memory %d s after its report: %.2f MB\n", ENVIRON["SETTLE_SECONDS"], ae / 1024
  printf "wineserver, serving both: %.2f %% of a core\n", 100 * wc / hz / s
}'

# Where the difference lies: private pages grouped by mapping (by file, or
# [anon] and [heap]), largest first: written (dirty) and file (clean) kB.
by_mapping() {
  awk '/^[0-9a-f]+-[0-9a-f]+ / {name = ($6 == "") ? "[anon]" : $6; for (i = 7; i <= NF; i++) name = name " " $i}
       $1 == "Private_Dirty:" {dirty[name] += $2; seen[name] = 1}
       $1 == "Private_Clean:" {clean[name] += $2; seen[name] = 1}
       END {for (n in seen) if (dirty[n] + clean[n] > 0) printf "%d %d\t%s\n", dirty[n], clean[n], n}' \
    "/proc/$1/smaps" | sed 's#\t.*/#\t#' | LC_ALL=C sort -t $'\t' -k 2,2
}
printf '\nprivate kB by mapping   agent: written file   bare: written file\n'
LC_ALL=C join -t $'\t' -a 1 -e '0 0' -o 0,1.1,2.1 -1 2 -2 2 \
  <(by_mapping "$AGENT_PID") <(by_mapping "$BARE_PID") |
  awk -F '\t' '{split($2, a, " "); split($3, b, " ")
                printf "%d\t%-28s %8d %8d %8d %8d\n", a[1] + a[2], $1, a[1], a[2], b[1], b[2]}' |
  sort -t $'\t' -k 1,1nr | awk -v n="${TOP_MAPPINGS:-16}" 'NR <= n' | cut -f 2-

modules() { awk '$6 ~ /\.(dll|drv|so)/ {n = $6; sub(/.*\//, "", n); print n}' "/proc/$1/maps" | sort -u; }
printf '\nloaded only by the agent: %s\n' \
  "$(comm -23 <(modules "$AGENT_PID") <(modules "$BARE_PID") | tr '\n' ' ')"

# The figure and its ratio to the anchor, the bare program, in one line.
awk -v ap="$a_priv" -v bp="$b_priv" 'BEGIN {
  printf "footprint_wine_bench: agent private memory %.2f MB, bare program %.2f MB, ratio %.2f (%+.2f MB; goal <= +2.5 MB)\n",
         ap / 1024, bp / 1024, ap / bp, (ap - bp) / 1024 }'

$W "$CONTROL" signal "$BARE_EVENT" >/dev/null
wait "$BARE_PID" || true
agent_stop
