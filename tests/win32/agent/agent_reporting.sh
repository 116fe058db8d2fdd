#!/usr/bin/env bash
# The real lindqvar-agent.exe under Wine, end to end, reporting to the native
# lab authenticator on the lab machine of scripts/lib/agent-lab.sh;
# agent_control.exe posts the session notifications that Wine never sends.
# Two runs, each with an agent of its own, side by side in ctest:
#   reporting  a logon while no server listens, got through by the re-send
#              timer once the server is up; every notification as a row with
#              what it sends; a lab that refuses the first logoff, without
#              and with ResendLogoff; PreferAzure with a stand-in device-registration
#              tool; the NTLM proof of the Wine user with its default
#              credentials; server verification switched on by a re-read;
#              the stop, and a settings change ending the agent during a
#              held send: exit codes, catalogue events, LINDQState. OpenSSL
#              files planted where a configuration could be read from are
#              never loaded; no secret reaches a log.
#   keepalive  ExcludedUsers naming the Wine user: its logon and logoff reach
#              no server, and after the value is removed and re-read its next
#              logon is reported (all within the first keep-alive wait, which
#              is 180 s as Wine has no session at start-up); keep-alives at
#              the server's 2 s while logged on, none after the logoff.
#   agent_reporting.sh <reporting|keepalive> <lindqvar-agent.exe> <agent_control.exe>
#                      <lab> <pki dir> <client CA> <stand-in dsregcmd.exe> <marker.dll>
set -uo pipefail
RUN=$1 AGENT=$2 CONTROL=$3 LAB=$4 PKI=$5 CLIENT_CA=$6 DSREG=$7 MARKER=$8
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
. "$ROOT/scripts/lib/agent-lab.sh"
lab_begin "agent_$RUN" "$PWD/$RUN" "$0" "$@"

me=${USER:-root}
ME_UP=$(tr '[:lower:]' '[:upper:]' <<<"$me")
WHO="$ME_UP@CORP.EXAMPLE.TEST@LINDQVAR-WS.LAB.EXAMPLE"
ME="$WHO 10.77.0.5,fd00:77::5"
KEEPALIVE="Single Sign-On event action=5 "
log_matches() { grep -qE -- "$1" "$WORK/FA_LINDQ.log"; }
lab_has_new() { [ "$(lab_new_count "${1:-main}")" -gt 0 ]; }
# post_reported <notification> [<what>]: posts it and waits for the lab's report of it.
post_reported() { agent_post "$1"; wait_for 30 "the report of ${2:-the $1}" lab_has_new; }
# lab_sent_alone <record>...: exactly one connection since the mark, carrying them.
lab_sent_alone() {
  [ "$(lab_new_count main)" = 1 ] && lab_sent main "$@" || { lab_records main | sed 's/^/  the lab saw: /'; false; }
}
state_is() { [ "$(reg_value "$AGENT_KEY" LINDQState)" = "REG_DWORD $1" ]; }

if [ "$RUN" = keepalive ]; then
  lab_start main --keepalive 2 || lab_end
  port=$(lab_port main)
  agent_configure "127.0.0.1:$port"
  # The Wine user by a DOMAIN\pattern among other entries.
  pattern="corp.example.*\\${me:0:1}*"
  agent_set ExcludedUsers "multi:svc-*;$pattern;OTHER\\$me"
  agent_start || lab_end
  lab_mark main
  agent_post logon
  agent_post logoff
  check_wait 20 "an excluded user's logon is set aside by the DOMAIN\\pattern entry" \
    log_has "session 1 of CORP.EXAMPLE.TEST\\$me is not reported: its user matches ExcludedUsers entry $pattern"
  wait_for 20 "the excluded user's logoff" log_has "Received message WTS_SESSION_LOGOFF"
  agent_set ExcludedUsers none
  agent_reread
  post_reported logon "the logon after the list was removed"
  # The first report of the agent's run withdraws the user from the (empty)
  # addresses reported before.
  check "the excluded logon and logoff reached no server, the logon after the re-read did" \
    lab_sent_alone "0 $WHO" "1 $ME"

  check_wait 240 "a keep-alive after the first wait" log_has "$KEEPALIVE"
  n=$(log_count "$KEEPALIVE")
  check_wait 10 "keep-alives at the server's 2 s while logged on" log_count_above "$KEEPALIVE" $((n + 1))
  lab_mark main
  post_reported logoff
  check "the logoff is reported" lab_sent main "0 $ME"
  check_wait 5 "the lab's table is empty after the logoff" \
    lab_table_empty main
  # Two rounds of the keep-alive timer with nobody logged on send nothing.
  idle="SendKeepAliveEvent:934, m_bLogon:0,"
  n=$(log_count "$KEEPALIVE") rounds=$(log_count "$idle")
  wait_for 10 "two keep-alive rounds after the logoff" log_count_above "$idle" $((rounds + 1))
  check "no keep-alive after the logoff" test "$(log_count "$KEEPALIVE")" = "$n"

  lab_end
fi

# A stand-in device-registration tool, installed for the PreferAzure rows
# only, answers with an Azure AD account for whoever runs it.
printf '%s\r\n' "             AzureAdJoined : YES" \
  "                  TenantId : 4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44" \
  "    Executing Account Name : AzureAD\\MaraLind, mara.lind@fabrikam.example" >"$WORK/dsreg.txt"
LINDQVAR_DSREG_OUTPUT=$($W winepath -w "$WORK/dsreg.txt" 2>/dev/null)
export LINDQVAR_DSREG_OUTPUT
# Wine's NTLM package asks Samba's ntlm_auth for the logged-on user's cached
# credentials, which only a domain member's winbindd holds: a wrapper earlier
# on PATH stands in for that cache with a test password the lab knows.
password="Wine-$RANDOM-$RANDOM"
mkdir -p "$WORK/bin"
(umask 077 && printf 'WORKGROUP:%s:%s\n' "$me" "$password" >"$WORK/accounts" &&
  printf '%s\n' "$password" >"$WORK/password")
cat >"$WORK/bin/ntlm_auth" <<WRAPPER
#!/bin/bash
args=()
for a in "\$@"; do
  if [ "\$a" = --use-cached-creds ]; then args+=("--password=\$(cat '$WORK/password')"); else args+=("\$a"); fi
done
exec /usr/bin/ntlm_auth "\${args[@]}"
WRAPPER
chmod 700 "$WORK/bin/ntlm_auth"
export PATH="$WORK/bin:$PATH"
. "$ROOT/tests/win32/lib/openssl_plant.sh"
openssl_plant "$MARKER" "$AGENT"
planted=$?
cd "$WINEPREFIX/drive_c"  # so that a path starting with "/" lies on drive C: too

# A logon while no server listens fails; the re-send timer (every 10 s) gets
# it through once the server is up.
lab_start main || lab_end
port=$(lab_port main)
lab_stop main
agent_configure "127.0.0.1:$port"
agent_start || lab_end
check "the NTLM package was prepared at start-up" grep -qF "Using package: NTLM" "$WORK/agent.out"
agent_post logon
check_wait 30 "a logon while no server listens fails to send" \
  log_has "SendAndReceive(), failed to send event to authenticator"
lab_start main --listen "127.0.0.1:$port" || lab_end
check_wait 30 "the re-send timer gets the failed logon through" lab_sent main "0 $WHO" "1 $ME"
check_wait 10 "LINDQState is CONFIGURED_REACHABLE" state_is 0x2

# Each notification and what it sends; one that sends nothing leaves the
# next row's report alone in the lab.
rows=(unlock "1 $ME" lock "" remote-connect "1 $ME" console-connect "1 $ME" resume "1 $ME"
      logoff "0 $ME")
lab_mark main
quiet=
for ((i = 0; i < ${#rows[@]}; i += 2)); do
  agent_post "${rows[i]}"
  [ -n "${rows[i + 1]}" ] || { quiet=" (${rows[i]} sent nothing before it)"; continue; }
  wait_for 30 "the report of ${rows[i]}" lab_has_new
  check "${rows[i]} reports ${rows[i + 1]}$quiet" lab_sent_alone "${rows[i + 1]}"
  lab_mark main
  quiet=
done
check_wait 5 "the lab's table is empty after the logoff" \
  lab_table_empty main
check_wait 10 "the logoff's delivery record" log_matches "EVENT 96980 Single Sign-On event action=2 domain=CORP.EXAMPLE.TEST,Workstation Name:lindqvar-ws,IP:10.77.0.5,BRK:127.0.0.1,succeeded to send session info, TICC:[0-9]+, TID:[0-9]+ user="
check "the resume's delivery record" log_has "EVENT 96980 Single Sign-On event action=4"

# PreferAzure decides which account a new logon reports: with 1 the Azure AD
# account with its attribute (the tenant), with 0 the domain account.
cp "$DSREG" "$WINEPREFIX/drive_c/windows/system32/dsregcmd.exe"
for row in "1 MARA.LIND@FABRIKAM.EXAMPLE@LINDQVAR-WS.LAB.EXAMPLE 10.77.0.5,fd00:77::5 azure=4F1C2B7E-9D3A-4E55-8A61-0C2F7D9B1E44" \
           "0 $ME"; do
  agent_set PreferAzure "dword:${row%% *}"
  agent_reread
  lab_mark main
  post_reported logon
  check "PreferAzure ${row%% *} reports 1 ${row#* }" lab_sent_alone "1 ${row#* }"
  lab_mark main
  post_reported logoff
done
rm "$WINEPREFIX/drive_c/windows/system32/dsregcmd.exe"

# ResendLogoff (after the rows that count reports: a refused logoff leaves
# the re-send timer pending, and a round of it may repeat the next logon),
# with a lab that refuses the first logoff and accepts the rest:
# without it the refused logoff is never sent again and the user stays in
# the lab's table; with it the re-send timer (every 10 s) gets it through.
# The timer logs each of its rounds while the failed report is pending; two
# of them leave time for a kept logoff to go.
round="CSessionManager::ResendLogonEvent:1002, m_bLogon:0,"
kept="CORP.EXAMPLE.TEST\\$me at 10.77.0.5,fd00:77::5"
for setting in none dword:1; do
  agent_set ResendLogoff "$setting"
  agent_reread
  lab_start main --listen "127.0.0.1:$port" --fault refuse-logoff --fault-connections 1 || lab_end
  post_reported logon
  lab_mark main
  agent_post logoff
  check_wait 30 "ResendLogoff ${setting#dword:}: the lab refused the logoff" \
    grep -qF '"end":"refused a logoff"' "$WORK/main.jsonl"
  if [ "$setting" = none ]; then
    n=$(log_count "$round")
    wait_for 40 "two re-send rounds" log_count_above "$round" $((n + 1))
    check "without ResendLogoff the logoff is not sent again" test "$(lab_new_count main)" = 1
    check "without ResendLogoff the user stays in the lab's table" \
      grep -qF "\"user\":\"$ME_UP\"" <<<"$(lab_table main)"
    check "without ResendLogoff nothing is kept" bash -c "! grep -qF 'ResendLogoff:' '$WORK/FA_LINDQ.log'"
  else
    check_wait 40 "with ResendLogoff the re-sent logoff empties the lab's table" \
      lab_table_empty main
    check "the lab saw the logoff twice" test "$(lab_records main | grep -cxF "0 $ME")" = 2
    for line in "kept the logoff of $kept, session 1, that reached no server (1 kept)" \
                "re-sent the logoff of $kept, try 1 of 20: delivered" "dropped the logoff of $kept: delivered"; do
      check "the log says: $line" log_has "ResendLogoff: $line"
    done
  fi
done
agent_set ResendLogoff none
agent_reread
lab_start main --listen "127.0.0.1:$port" || lab_end

# The lab asks for NTLM proof of every event's user and checks it with its
# real acceptor.
lab_stop
lab_start ntlm --listen "127.0.0.1:$port" --ntlm-users "$WORK/accounts" || lab_end
agent_post logon
check_wait 40 "the lab proved WORKGROUP\\$me by NTLM" grep -qF \
  "\"ntlm\":{\"key\":100001,\"proven\":true,\"user\":\"$me\",\"domain\":\"WORKGROUP\",\"result_sent\":true,\"result\":1,\"end\":\"proven\"}" "$WORK/ntlm.jsonl"
check_wait 10 "the agent logged the proof" log_has "NTLM auth succeeded"

# Server verification switched on by a re-read: a server with a certificate
# from an unrelated CA is refused before the hello.
lab_stop
lab_start foreign --as other-server --listen "127.0.0.1:$port" || lab_end
agent_set VerifyServer dword:1
agent_reread
agent_post unlock
check_wait 30 "verification refuses the other CA's server" \
  log_has "SslClientInit(), server verification failed for authenticator 127.0.0.1 port $port"
wait_for 10 "the refused connection in the lab" lab_has_new foreign
check "no hello was sent to it" bash -c "! grep -q '\"hello_sent\":true' '$WORK/foreign.jsonl'"

agent_stop
check "the stop ends the agent with exit code 0 (${AGENT_RC:-still running})" test "$AGENT_RC" = 0
check "the stop event" log_has "EVENT 96984 Lindqvar is stopping..., version:"
check "LINDQState is NOT_CONFIGURED after the stop" state_is 0x0
check "no preshared key, password or NTLM message in any log" bash -c "! grep -l -e '$LAB_KEY_VALUE' \
  -e '$password' -e TlRMTVNTUA -e NTLMSSP '$WORK/FA_LINDQ.log' '$WORK/agent.out' '$WORK'/main.* '$WORK'/ntlm.*"

# A settings change while the send is held by servers that accept TCP and
# never answer: the process ends without waiting for the send or running the
# stop, with exit code 0, and LINDQState is NOT_CONFIGURED after it.
lab_stop
lab_start stall --listen "127.0.0.1:$port" --fault stall-tls || lab_end
agent_configure "127.0.0.1:$port;127.0.0.1:$port"
agent_start || lab_end
agent_set Servers "127.0.0.2:1"  # another host and port: a change
agent_post logon
wait_for 30 "the held send" log_has "SendAndReceive(), Local IP:"
$W "$CONTROL" signal "$AGENT_EVENT" >/dev/null
agent_wait_end 30
check "a settings change ends the agent during a held send, exit code 0 (${AGENT_RC:-still running})" \
  test "$AGENT_RC" = 0
check "the send was still held when it ended" bash -c "! grep -qF 'SslClientInit(), failed' '$WORK/FA_LINDQ.log'"
check "no stop event on a change" bash -c "! grep -qF 'EVENT 96984' '$WORK/FA_LINDQ.log'"
check "LINDQState is NOT_CONFIGURED after the process is gone" state_is 0x0
check "nothing was loaded from the planted OpenSSL files" test "$planted" = 0 -a ! -f "$(openssl_marker_file)"
lab_end
