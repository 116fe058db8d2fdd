# The harness of every scenario under Wine, of scripts/run-agent and of the
# Wine benchmarks: a lab machine in a network namespace of its own with a
# Wine prefix of its own, lab authenticators on its loopback addresses,
# lindqvar-agent.exe under Wine configured for them and driven through
# agent_control.exe, waits that end at a deadline and name what they waited
# for, and the count of checks.
#
# The machine: host "lindqvar-ws" (DNS domain lab.example) at 10.77.0.5 and
# fd00:77::5 on a veth pair that nothing else is connected to, so no packet
# leaves the namespace; the Wine user is a domain user of CORP.EXAMPLE.TEST
# through its USERDNSDOMAIN. A script may describe another machine in
# LAB_HOSTNAME, LAB_HOSTS (the hosts file) and LAB_LINKS (the `ip` commands
# that make its adapters) before lab_begin.
#
# The caller sets ROOT (the checkout) and, as it needs them, AGENT, CONTROL
# (agent_control.exe), LAB (the native lab authenticator), PKI (its
# certificates) and CLIENT_CA, then:
#   lab_begin <name> <work dir> "$0" "$@"   re-runs the script in the namespace
#                                           (exit 77, "skipped", where none can
#                                           be made); a fresh prefix; clean-up
#   lab_start main [--keepalive 2 ...]      a lab authenticator ("main")
#   agent_configure "127.0.0.1:$(lab_port main)"; agent_start
#   lab_mark main; agent_post logon
#   check_wait 30 "the logon is reported" lab_sent main "1 $ME"
#   lab_end                                 "<name>: N passed, N failed", the
#                                           logs on failure, the exit status
# Written for `set -u` and without `set -e`.

W=/usr/lib/wine/wine64
WS=/usr/lib/wine/wineserver
LAB_KEY_VALUE='lab-preshared-key'
AGENT_EVENT='Global\LindqvarAgent_Ctl_1'
AGENT_KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'
LAB_HOSTNAME=${LAB_HOSTNAME:-lindqvar-ws}
LAB_HOSTS=${LAB_HOSTS:-'127.0.0.1 localhost
10.77.0.5 lindqvar-ws.lab.example lindqvar-ws
fd00:77::5 lindqvar-ws.lab.example lindqvar-ws'}
LAB_LINKS=${LAB_LINKS:-'ip link add v0 type veth peer name v1
ip addr add 10.77.0.5/24 dev v0
ip -6 addr add fd00:77::5/64 dev v0 nodad
ip link set v0 up
ip link set v1 up'}
passed=0 failed=0
AGENT_PID= AGENT_RC=
LAB_LOGS=()  # more files lab_end shows on a failure
declare -A LAB_PIDS=() LAB_MARKS=()

# --- checks and waits --------------------------------------------------------

# check <name> <command...>: one counted check.
check() {
  local name=$1
  shift
  if "$@"; then echo "PASS: $name"; passed=$((passed + 1)); else
    echo "FAIL: $name"; failed=$((failed + 1)); fi
}

# wait_for <seconds> <what> <command...>: runs the command every 0.1 s until
# it succeeds; at the deadline says what it waited for and fails.
wait_for() {
  local limit=$1 what=$2 end=$((SECONDS + $1))
  shift 2
  until "$@"; do
    if [ $SECONDS -ge $end ]; then echo "timed out after $limit s waiting for: $what"; return 1; fi
    sleep 0.1
  done
}

# check_wait <seconds> <name> <command...>: a check that waits for its command.
check_wait() { check "$2" wait_for "$1" "$2" "${@:3}"; }

# file_has <file> <text>; file_lacks <file> <text>: fixed text, any encoding
# (Wine's installer writes UTF-16). Here-strings, not pipes: with pipefail a
# pipe into grep -q fails when grep stops reading early.
file_has() { grep -qF -- "$2" <<<"$(tr -d '\000' <"$1" 2>/dev/null)"; }
file_lacks() { [ -s "$1" ] && ! file_has "$1" "$2"; }
log_has() { grep -qF -- "$1" "$WORK/FA_LINDQ.log" 2>/dev/null; }
log_count() { grep -cF -- "$1" "$WORK/FA_LINDQ.log" 2>/dev/null; }
# log_count_above <text> <n>: more than n lines hold the text.
log_count_above() { [ "$(log_count "$1")" -gt "$2" ]; }

# --- the machine ---------------------------------------------------------------

lab_netns_available() { unshare -rnmu true 2>/dev/null; }

# lab_begin <name> <work dir> <script> [args...]
lab_begin() {
  SCENARIO=$1 WORK=$2
  shift 2
  mkdir -p "$WORK"
  if [ -z "${LINDQVAR_LAB_NETNS:-}" ]; then
    lab_netns_available || { echo "network namespaces are not available here"; exit 77; }
    printf '%s\n' "$LAB_HOSTS" >"$WORK/hosts"
    export LINDQVAR_LAB_NETNS=1
    exec unshare -rnmu bash -c '
      set -e
      mount --bind "$1" /etc/hosts
      hostname "$2"
      ip link set lo up
      eval "$3"
      shift 3
      exec bash "$@"' bash "$WORK/hosts" "$LAB_HOSTNAME" "$LAB_LINKS" "$@"
  fi
  trap lab_cleanup EXIT
  lab_prefix
}

# A fresh copy of the pristine prefix (scripts/wine-run makes both), its
# wineserver started in the namespace; the Wine user becomes a domain user.
lab_prefix() {
  export LINDQVAR_WINEPREFIX=${LINDQVAR_WINEPREFIX:-$WORK/wineprefix}
  export WINEPREFIX=$LINDQVAR_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  $WS -k 2>/dev/null
  rm -rf "$WINEPREFIX"
  "$ROOT/scripts/wine-run" cmd /c exit 0 >/dev/null 2>&1
  $WS -p
  $W reg add 'HKU\S-1-5-21-0-0-0-1000\Volatile Environment' /v USERDNSDOMAIN \
    /d CORP.EXAMPLE.TEST /f >/dev/null 2>&1
}

# lab_pids <pattern>: the processes of this prefix whose command line matches.
lab_pids() {
  local p
  for p in $(pgrep -f "$1"); do
    grep -qzxF "WINEPREFIX=$WINEPREFIX" "/proc/$p/environ" 2>/dev/null && echo "$p"
  done
}
# The pid of this prefix's wineserver (others may run on the machine).
lab_wineserver_pid() { lab_pids wineserver | head -n 1; }

lab_cleanup() {
  [ -n "$AGENT_PID" ] && kill "$AGENT_PID" 2>/dev/null
  lab_stop
  $WS -k 2>/dev/null
  return 0
}

# lab_end: the scenario's count, the logs when something failed, and its status.
lab_end() {
  local f
  if [ $failed != 0 ]; then
    for f in "$WORK/FA_LINDQ.log" "$WORK"/*.jsonl "$WORK"/*.err "$WORK/agent.out" ${LAB_LOGS[@]+"${LAB_LOGS[@]}"}; do
      [ -s "$f" ] && { echo "--- $f"; tail -n 40 "$f"; }
    done
  fi
  echo "$SCENARIO: $passed passed, $failed failed"
  [ $failed = 0 ]
  exit
}

# --- lab authenticators ----------------------------------------------------------

# lab_start <name> [--as <certificate>] [lab options...]: a lab authenticator
# presenting $PKI/<certificate>.pem (default "server"), on 127.0.0.1 unless
# the options hold --listen, writing JSON lines into $WORK/<name>.jsonl
# (anew). Returns once it listens on every address.
lab_start() {
  local name=$1 cert=server listen=(--listen 127.0.0.1:0) want=1
  shift
  [ "${1:-}" = --as ] && { cert=$2; shift 2; }
  if [[ " $* " == *" --listen "* ]]; then
    listen=()
    want=$(grep -o -- '--listen' <<<"$*" | wc -l)
  fi
  lab_stop "$name"
  printf '%s\n' "$LAB_KEY_VALUE" >"$WORK/psk"
  # Not with the OpenSSL variables of tests/win32/lib/openssl_plant.sh, which
  # are for the Windows programs.
  env -u OPENSSL_CONF -u OPENSSL_MODULES -u OPENSSL_ENGINES \
    "$LAB" --json "${listen[@]}" --ca "$CLIENT_CA" --cert "$PKI/$cert.pem" --key "$PKI/$cert.key" \
    --psk-file "$WORK/psk" "$@" >"$WORK/$name.jsonl" 2>"$WORK/$name.err" &
  LAB_PIDS[$name]=$!
  LAB_MARKS[$name]=0
  wait_for 10 "lab authenticator $name listening" lab_listening "$name" "$want"
}
lab_listening() { [ "$(grep -c '"event":"listening"' "$WORK/$1.jsonl" 2>/dev/null)" -ge "$2" ] 2>/dev/null; }

# lab_stop [name]: that lab authenticator, or all of them.
lab_stop() {
  local n
  for n in ${1:-${!LAB_PIDS[@]}}; do
    [ -n "${LAB_PIDS[$n]:-}" ] || continue
    kill "${LAB_PIDS[$n]}" 2>/dev/null && wait "${LAB_PIDS[$n]}" 2>/dev/null
    unset "LAB_PIDS[$n]"
  done
}

# lab_port <name> [address]: where it listens (default on 127.0.0.1).
lab_port() {
  grep '"event":"listening"' "$WORK/$1.jsonl" | grep -F "\"address\":\"${2:-127.0.0.1}\"" |
    head -n 1 | sed 's/.*"port":\([0-9]*\).*/\1/'
}

lab_connections() { grep -c '"event":"connection"' "$WORK/$1.jsonl" 2>/dev/null; }
# lab_mark <name>: later looks (lab_new, lab_sent, lab_quiet) see only the
# connections finished after this.
lab_mark() { LAB_MARKS[$1]=$(lab_connections "$1"); }
lab_new() { grep '"event":"connection"' "$WORK/$1.jsonl" | tail -n +$((LAB_MARKS[$1] + 1)); }
lab_new_count() { lab_new "$1" | grep -c .; }
# lab_quiet <name>: no connection since the mark.
lab_quiet() { [ "$(lab_new_count "$1")" = 0 ]; }
# Each new connection as one line: its session records, joined by " + ",
# each "<logon> <USER>@<DOMAIN>@<WORKSTATION>", then " <addresses>"
# (comma-separated) and " azure=<account>" where it has them.
lab_records() {
  lab_new "$1" | python3 -c '
import json, sys
def text(r):
    a = ",".join(r["ipv4"] + r["ipv6"])
    return "%d %s@%s@%s%s%s" % (r["logon"], r["user"], r["domain"], r["workstation"],
                                " " + a if a else "", " azure=" + r["azure"] if "azure" in r else "")
for line in sys.stdin:
    print(" + ".join(text(r) for r in json.loads(line)["records"]))'
}
# lab_sent <name> <record>...: a connection since the mark carried exactly these.
lab_sent() {
  local name=$1 want
  shift
  want=$(printf ' + %s' "$@")
  grep -qxF -- "${want:3}" <<<"$(lab_records "$name")"
}
# lab_table <name>: the last table the lab printed, as JSON.
lab_table() { grep '"event":"table"' "$WORK/$1.jsonl" | tail -n 1; }
# lab_table_empty <name>: the lab's last table has nobody (a function, so
# that a bounded wait reads the table afresh on every try).
lab_table_empty() { [ "$(lab_table "$1")" = '{"event":"table","entries":[]}' ]; }

# --- the agent -----------------------------------------------------------------

# agent_configure <servers>: the agent's settings anew (logging into $WORK
# with debug lines, the lab's key, desired status 0).
agent_configure() {
  local logdir
  logdir=$($W winepath -w "$WORK" 2>/dev/null)
  $W reg delete 'HKLM\software\Orvane' /f >/dev/null 2>&1
  $W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogDirectory /d "$logdir" /f >/dev/null
  $W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null
  $W reg add 'HKLM\software\Orvane\Velmora\DesiredStatus\25' /v 1 /t REG_DWORD /d 0 /f >/dev/null
  agent_set Servers "$1"
  agent_set PresharedKey "$LAB_KEY_VALUE"
  rm -f "$WORK/FA_LINDQ.log"
}

# agent_set <value name> <data>: one value of the settings key. Data
# "dword:N" is a REG_DWORD, "multi:a;b" a REG_MULTI_SZ of the strings a and
# b, "none" deletes the value, anything else is a REG_SZ.
agent_set() {
  case $2 in
    dword:*) $W reg add "$AGENT_KEY" /v "$1" /t REG_DWORD /d "${2#dword:}" /f ;;
    multi:*) $W reg add "$AGENT_KEY" /v "$1" /t REG_MULTI_SZ /s ';' /d "${2#multi:}" /f ;;
    none) $W reg delete "$AGENT_KEY" /v "$1" /f ;;
    *) $W reg add "$AGENT_KEY" /v "$1" /d "$2" /f ;;
  esac >/dev/null 2>&1
}

# reg_value <key> <value name>: "TYPE data", or nothing when it is absent.
reg_value() {
  $W reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' |
    awk -v n="$2" '$1 == n { $1 = ""; sub(/^ +/, ""); print }'
}

# agent_start [exe]: starts the agent ($AGENT) the way the endpoint client's
# service does and returns once its start-up sequence (after its 10 s wait)
# has run and its window exists.
agent_start() {
  $W "${1:-$AGENT}" -s "$AGENT_EVENT" >"$WORK/agent.out" 2>&1 &
  AGENT_PID=$!
  wait_for 60 "the agent's start-up" log_has "m_count:"
}

# agent_post <notification> [session]: posted to the agent's window.
agent_post() { $W "$CONTROL" post "$1" "${2:-1}" >/dev/null; }

# agent_reread: the parent's signal to re-read the settings; returns once
# the agent has read them.
agent_reread() {
  local reads
  reads=$(log_count "Brannock config:")
  $W "$CONTROL" status 1 0 >/dev/null
  $W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
  wait_for 20 "the agent re-reading its settings" log_count_above "Brannock config:" "$reads"
}

# agent_wait_end <seconds>: waits for the agent's process to end; its exit
# code in AGENT_RC (empty when it did not end).
agent_wait_end() {
  AGENT_RC=
  wait_for "$1" "the agent's process to end" agent_ended || return 1
  wait "$AGENT_PID"
  AGENT_RC=$?
  AGENT_PID=
}
agent_ended() { ! kill -0 "$AGENT_PID" 2>/dev/null; }

# agent_stop: desired status 3, the signal, and the end (AGENT_RC).
agent_stop() {
  $W "$CONTROL" status 1 3 >/dev/null
  $W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
  agent_wait_end 60
}
