# Shared by scripts/run-agent and the end-to-end scenario under Wine: a lab
# machine in a network namespace of its own, the native lab authenticator on
# its 127.0.0.1, and lindqvar-agent.exe under Wine configured for it.
#
# The namespace gives the machine what the agent reports: the host name
# "lindqvar-ws" (DNS domain lab.example) resolving to 10.77.0.5 and
# fd00:77::5 on a veth pair that nothing else is connected to, so no packet
# leaves the namespace. The Wine user is made a domain user of
# CORP.EXAMPLE.TEST through its USERDNSDOMAIN.
#
# Written to work with and without `set -e`. The caller sets ROOT (the checkout) and WORK (a directory for logs and the
# prefix) and then calls, in order: lab_netns_enter "$0" "$@" (re-runs the
# caller inside the namespace; returns there), lab_prefix, lab_start,
# agent_configure, agent_start, ... agent_stop, lab_stop.

W=/usr/lib/wine/wine64
WS=/usr/lib/wine/wineserver
LAB_KEY_VALUE='lab-preshared-key'
AGENT_EVENT='Global\LindqvarAgent_Ctl_1'
AGENT_KEY='HKLM\software\Orvane\Velmora\FA_LINDQ'

# True when network namespaces can be made here.
lab_netns_available() { unshare -rnmu true 2>/dev/null; }

# Re-runs "$@" (the calling script and its arguments) inside a new network,
# mount and host-name namespace set up as above. Returns only inside it.
lab_netns_enter() {
  [ -n "${LINDQVAR_LAB_NETNS:-}" ] && return 0
  mkdir -p "$WORK"
  cat >"$WORK/hosts" <<'HOSTS'
127.0.0.1 localhost
10.77.0.5 lindqvar-ws.lab.example lindqvar-ws
fd00:77::5 lindqvar-ws.lab.example lindqvar-ws
HOSTS
  export LINDQVAR_LAB_NETNS=1
  exec unshare -rnmu bash -c '
    set -e
    mount --bind "$1" /etc/hosts
    hostname lindqvar-ws
    ip link set lo up
    ip link add v0 type veth peer name v1
    ip addr add 10.77.0.5/24 dev v0
    ip -6 addr add fd00:77::5/64 dev v0 nodad
    ip link set v0 up
    ip link set v1 up
    shift
    exec "$@"
  ' bash "$WORK/hosts" "$@"
}

# A Wine prefix of this work directory; its wineserver runs inside the
# namespace. The Wine user becomes a domain user.
lab_prefix() {
  export LINDQVAR_WINEPREFIX=$WORK/wineprefix
  export WINEPREFIX=$LINDQVAR_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  $WS -k 2>/dev/null || true
  "$ROOT/scripts/wine-run" cmd /c exit 0 >/dev/null 2>&1
  $WS -p || true
  $W reg add 'HKU\S-1-5-21-0-0-0-1000\Volatile Environment' /v USERDNSDOMAIN \
    /d CORP.EXAMPLE.TEST /f >/dev/null 2>&1
}

# lab_start <lab binary> <pki dir> <client CA> [port] [extra options...]
# Starts the lab authenticator with JSON output into $WORK/lab.jsonl (anew)
# and sets LAB_PID and LAB_PORT. It presents <pki dir>/$LAB_CERT.pem
# (default "server").
lab_start() {
  local lab=$1 pki=$2 ca=$3 port=${4:-0} cert=${LAB_CERT:-server}
  shift 4 2>/dev/null || shift $#
  printf '%s\n' "$LAB_KEY_VALUE" >"$WORK/psk"
  : >"$WORK/lab.jsonl"
  "$lab" --json --listen "127.0.0.1:$port" --ca "$ca" --cert "$pki/$cert.pem" \
    --key "$pki/$cert.key" --psk-file "$WORK/psk" "$@" >>"$WORK/lab.jsonl" 2>"$WORK/lab.err" &
  LAB_PID=$!
  local i
  for ((i = 0; i < 100; i++)); do
    LAB_PORT=$({ grep '"event":"listening"' "$WORK/lab.jsonl" || true; } | tail -n 1 |
      sed 's/.*"port":\([0-9]*\).*/\1/')
    [ -n "$LAB_PORT" ] && return 0
    sleep 0.05
  done
  cat "$WORK/lab.err" >&2
  return 1
}

lab_stop() {
  [ -n "${LAB_PID:-}" ] || return 0
  kill "$LAB_PID" 2>/dev/null && wait "$LAB_PID" 2>/dev/null
  LAB_PID=
}

# The number of finished connections the lab authenticator has reported.
lab_connections() { grep -c '"event":"connection"' "$WORK/lab.jsonl" 2>/dev/null || true; }

# Waits up to $2 seconds for more than $1 connections.
lab_wait_connections() {
  local have=$1 limit=$2 i
  for ((i = 0; i < limit * 10; i++)); do
    [ "$(lab_connections)" -gt "$have" ] && return 0
    sleep 0.1
  done
  return 1
}

# agent_configure <servers>: settings, logging into $WORK, desired status 0.
agent_configure() {
  local logdir
  logdir=$($W winepath -w "$WORK" 2>/dev/null)
  $W reg delete 'HKLM\software\Orvane' /f >/dev/null 2>&1 || true
  $W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogDirectory /d "$logdir" /f >/dev/null
  $W reg add 'HKLM\software\Orvane\Velmora\Logging' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null
  $W reg add "$AGENT_KEY" /v Servers /d "$1" /f >/dev/null
  $W reg add "$AGENT_KEY" /v PresharedKey /d "$LAB_KEY_VALUE" /f >/dev/null
  $W reg add 'HKLM\software\Orvane\Velmora\DesiredStatus\25' /v 1 /t REG_DWORD /d 0 /f >/dev/null
  rm -f "$WORK/FA_LINDQ.log"
}

# agent_start <lindqvar-agent.exe>: sets AGENT_PID; returns once the agent's
# start-up sequence has run (it waits 10 s first) and its window exists.
agent_start() {
  $W "$1" -s "$AGENT_EVENT" >"$WORK/agent.out" 2>&1 &
  AGENT_PID=$!
  agent_wait_log "m_count:" 40
}

# agent_wait_log <text> <seconds>
agent_wait_log() {
  local i
  for ((i = 0; i < $2 * 10; i++)); do
    grep -qF -- "$1" "$WORK/FA_LINDQ.log" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

# agent_post <agent_control.exe> <notification> [session]
agent_post() { $W "$1" post "${@:2}" >/dev/null; }

# agent_stop <agent_control.exe>: desired status 3, the event, and the wait.
agent_stop() {
  $W "$1" status 1 3 >/dev/null
  $W "$1" signal "$AGENT_EVENT" >/dev/null
  wait "$AGENT_PID"
}
