#!/usr/bin/env bash
# lindqvar-diag.exe under Wine against native lab authenticators on the lab
# machine of scripts/lib/agent-lab.sh (127.0.0.1 and ::1): check and send, a
# dribbling server and a closed port, server verification (reported, and
# enforced from the registry), the agent's settings read from
# the registry, and the NTLM relay with the system's real NTLM package
# against the lab's real acceptor (right and wrong password, with and without
# server verification). Then `report` on the lab machine, whose name also
# resolves to a loopback address and to the address of an adapter with a
# virtual hardware address (44:45:53): in text and JSON, and with the Wine
# user on ExcludedUsers. Each run is a row: its exit code and what its
# output holds. Then what the labs saw, that no secret shows in any output,
# and that OpenSSL files planted where a configuration could be read from
# were never loaded.
#   diag_under_wine.sh <lindqvar-diag.exe> <lab authenticator> <pki dir> <client CA> <marker.dll>
set -uo pipefail
DIAG=$1 LAB=$2 PKI=$3 CLIENT_CA=$4 MARKER=$5
ROOT=$(cd "$(dirname "$0")/../../.." && pwd)
LAB_HOSTS='127.0.0.1 localhost
10.77.0.5 lindqvar-ws.lab.example lindqvar-ws
fd00:77::5 lindqvar-ws.lab.example lindqvar-ws
127.0.1.1 lindqvar-ws
10.79.0.1 lindqvar-ws'
LAB_LINKS='ip link add v0 type veth peer name v1
ip link add v2 type veth peer name v3
ip link set v2 address 44:45:53:00:00:07
ip addr add 10.77.0.5/24 dev v0
ip -6 addr add fd00:77::5/64 dev v0 nodad
ip addr add 10.79.0.1/24 dev v2
for i in v0 v1 v2 v3; do ip link set $i up; done'
. "$ROOT/scripts/lib/agent-lab.sh"
lab_begin diag_under_wine "$PWD/diag-under-wine" "$0" "$@"

password="Right-$RANDOM-$RANDOM"
echo "$password" >"$WORK/right"
echo "Wrong-$RANDOM" >"$WORK/wrong"
echo "WORKGROUP:ntlmtest:$password" >"$WORK/accounts"
lab_start main --listen 127.0.0.1:0 --listen '[::1]:0' --keepalive 75 || lab_end
lab_start foreign --as other-server || lab_end
# Every message one byte per 500 ms: the 80-byte hello would take 40 s.
lab_start dribble --fault dribble --dribble-ms 500 || lab_end
lab_start ntlm --ntlm-users "$WORK/accounts" || lab_end
port4=$(lab_port main) port6=$(lab_port main ::1) portf=$(lab_port foreign)
portd=$(lab_port dribble) portn=$(lab_port ntlm)
fingerprint() { openssl x509 -in "$1" -noout -fingerprint -sha256 | sed 's/.*=//; s/://g'; }
fp=$(fingerprint "$PKI/server.pem")
. "$ROOT/tests/win32/lib/openssl_plant.sh"
openssl_plant "$MARKER" "$DIAG"
planted=$?
cd "$WINEPREFIX/drive_c"  # so that a path starting with "/" lies on drive C: too
KEY=(--key-file "Z:$WORK/psk")

# row <name> <exit code> [<seconds>] <diag arguments...> -- <texts the output holds>:
# a text (an extended regular expression) after "!" must not be in it. A run
# is killed after 60 s, or the seconds given.
row() {
  local name=$1 want=$2 limit=60 args=() rc text
  shift 2
  [[ $1 =~ ^[0-9]+$ ]] && { limit=$1; shift; }
  while [ "$1" != -- ]; do args+=("$1"); shift; done
  shift
  timeout "$limit" $W "$DIAG" "${args[@]}" >"$WORK/$name.txt" 2>&1
  rc=$?
  check "$name: exit code $want ($rc)" test "$rc" = "$want"
  for text in "$@"; do
    if [ "${text:0:1}" = '!' ]; then check "$name: nothing like '${text:1}'" bash -c '! grep -qE -- "$1" "$2"' _ "${text:1}" "$WORK/$name.txt"
    else check "$name: '$text'" grep -qE -- "$text" "$WORK/$name.txt"; fi
  done
}
ntlm=(send --verbose --server "127.0.0.1:$portn" "${KEY[@]}" --user ntlmtest --domain workgroup
      --workstation lab-ws --ip 203.0.113.7 --ntlm-user 'WORKGROUP\ntlmtest' --ntlm-password-file)
PROVEN='NTLM relay \(exchange key 100001\): the server says the user is proven \(result 1\)'
UNVERIFIED='Server verification is off \(VerifyServer 0\): NTLM authentication goes to whichever server answered'

row check 0 check --server "127.0.0.1:$port4" --server "[::1]:$port6" "${KEY[@]}" -- \
  "SHA-256 $fp" '2 of 2 server\(s\) passed' \
  'server verification: passes \(the chain verifies against the built-in CA bundle, the certificate is issued for \[::1\]\)'
row send 0 send --server "127.0.0.1:$port4" --server "[::1]:$port6" --key "$LAB_KEY_VALUE" \
  --user carol --domain corp --workstation pc9.corp.example --ip 203.0.113.9 --ip 2001:db8::9 -- \
  'event acknowledged: result 1, keep-alive interval 75 s' 'state after such a pass: 2 \(CONFIGURED_REACHABLE\)'
# The 1 s message limit ends the dribbling exchange long before its hello.
row dribble 1 20 check --server "127.0.0.1:$portd" --server "127.0.0.1:$port4" "${KEY[@]}" \
  --timeout-ms 1000 -- 'failed to receive hello message from authenticator'
# Nothing listens on port 1 of the loopback address: the connection is refused.
row closed-port 1 check --server "127.0.0.1:$port4" --server 127.0.0.1:1 "${KEY[@]}" -- \
  'failed to  connect to authenticator, error:-1'
row ntlm-right 0 "${ntlm[@]}" "Z:$WORK/right" -- "$PROVEN" 'NTLM auth succeeded' "$UNVERIFIED"
# With the server verified the package is also given the server's name and
# the TLS channel bindings (which Wine's package does not put into tokens).
row ntlm-verified 0 "${ntlm[@]}" "Z:$WORK/right" --verify-server -- "$PROVEN" "!Server verification is off"
row ntlm-wrong 0 "${ntlm[@]}" "Z:$WORK/wrong" -- 'the server says the proof FAILED \(result 0\)' \
  'NTLM auth failed'

# The agent's own settings from the registry, read the way the agent reads
# them; then server verification on, with a pin list of two (an unrelated
# fingerprint and the lab's) as a REG_MULTI_SZ.
agent_set Servers "127.0.0.1:$port4;[::1]:$port6"
agent_set PresharedKey "$LAB_KEY_VALUE"
$W reg add 'HKLM\software\Orvane\Velmora' /v ClientGuid /d '{5EED0000-1111-2222-3333-444455556666}' /f >/dev/null 2>&1
row registry 0 check -- "Servers from the agent's settings" "Preshared key from the agent's settings"
agent_set VerifyServer dword:1
agent_set ServerCertificateSha256 "multi:$(printf '%064d' 0);$fp"
row pinned 0 check -- \
  'Server verification on \(VerifyServer\), pin list of 2 fingerprint\(s\) \(ServerCertificateSha256\)'
row refused 1 check --server "127.0.0.1:$portf" --server "127.0.0.1:$port4" -- 'FAILED at verify' \
  "server verification failed for authenticator 127.0.0.1 port $portf: .*unable to get local issuer certificate"

# What the agent would report on this machine, from the same settings.
me=$(tr '[:lower:]' '[:upper:]' <<<"${USER:-root}")
row report 0 report -- 'service LindqvarAgent: not-installed' 'preshared key: set' \
  'server 1: 127\.0\.0\.1 port [0-9]+: resolves to 127\.0\.0\.1; the agent connects to 127\.0\.0\.1' \
  'sent     10\.77\.0\.5' 'sent     fd00:77::5' 'left out 127\.0\.1\.1: loopback' \
  'left out 10\.79\.0\.1: virtual adapter "v2"' \
  "session 1 \(console session, not listed by the system; current\): CORP\.EXAMPLE\.TEST\\\\$me from the domain lookup" \
  "the agent reports session 1: user $me, domain CORP\.EXAMPLE\.TEST, workstation LINDQVAR-WS\.LAB\.EXAMPLE, addresses 10\.77\.0\.5, fd00:77::5"
row report-json 0 report --json -- '"presharedKey": "set"'
check "report --json is JSON holding the user, the addresses and the loopback's reason" python3 -c '
import json, sys
r = json.load(open(sys.argv[1]))
s = [x for x in r["sessions"] if x["current"]][0]
assert (s["user"], s["domain"], s["source"]) == (sys.argv[2], "CORP.EXAMPLE.TEST", "domain"), s
assert (r["addresses"]["ipv4"], r["addresses"]["ipv6"]) == (["10.77.0.5"], ["fd00:77::5"]), r["addresses"]
assert {"address": "127.0.1.1", "reason": "loopback"}.items() <= r["addresses"]["leftOut"][0].items()
assert r["now"]["reports"] and r["now"]["record"]["workstation"] == "LINDQVAR-WS.LAB.EXAMPLE", r["now"]
' "$WORK/report-json.txt" "$me"
agent_set ExcludedUsers "multi:svc_*;corp.example.test\\${me:0:2}*"
row report-excluded 7 report -- "EXCLUDED by the ExcludedUsers entry corp\.example\.test\\\\${me:0:2}\*" \
  'nothing is reported: the current session 1 is excluded'
agent_set ExcludedUsers none

check_wait 5 "the hello carried the endpoint client's GUID" \
  grep -qF '"client_guid":"{5EED0000-1111-2222-3333-444455556666}"' "$WORK/main.jsonl"
check_wait 5 "the lab saw the user at both addresses, with a correct digest" grep -qE \
  '"digest":"correct".*"user":"CAROL","workstation":"PC9.CORP.EXAMPLE","ipv4":\["203.0.113.9"\],"ipv6":\["2001:db8::9"\]' \
  "$WORK/main.jsonl"
check_wait 5 "the lab proved WORKGROUP\\ntlmtest with the right password" grep -qF \
  '"ntlm":{"key":100001,"proven":true,"user":"ntlmtest","domain":"WORKGROUP","result_sent":true,"result":1,"end":"proven"}' \
  "$WORK/ntlm.jsonl"
check_wait 5 "the lab refused the wrong password" grep -qF \
  '"ntlm":{"key":100001,"proven":false,"user":"ntlmtest","domain":"WORKGROUP","result_sent":true,"result":0,' \
  "$WORK/ntlm.jsonl"
# NTLM messages start with "NTLMSSP", "TlRMTVNTUA" in base64.
check "no password, token or challenge in any output" bash -c "! grep -l -e '$password' \
  -e TlRMTVNTUA -e NTLMSSP '$WORK'/*.txt '$WORK'/*.jsonl '$WORK'/*.err"
check "nothing was loaded from the planted OpenSSL files" test "$planted" = 0 -a ! -f "$(openssl_marker_file)"
LAB_LOGS=("$WORK"/*.txt)
lab_end
