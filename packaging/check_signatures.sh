#!/usr/bin/env bash
# Checks the Authenticode signatures of a Windows build: the three programs
# as staged for the package and the package itself verify against the CA,
# and so do the programs extracted from the package (it must carry the
# signed programs, not copies taken before signing).
#   packaging/check_signatures.sh <mingw build dir> [CA file, default <build>/pki/ca.pem]
# Nothing is fetched: CRL distribution points are not followed.
set -uo pipefail
build=${1:?usage: check_signatures.sh <build dir> [CA file]}
ca=${2:-$build/pki/ca.pem}
msi=$build/packaging/lindqvar.msi
programs=(lindqvar-agent.exe lindqvar-service.exe lindqvar-diag.exe)
bad=0

verify() {
  local out
  if ! out=$(osslsigncode verify -ignore-cdp -CAfile "$ca" -in "$1" 2>&1); then
    echo "signature does not verify against $ca: $1"
    grep -iE 'error|fail|no signature' <<<"$out" | head -n 3
    bad=1
  fi
}

for p in "${programs[@]}"; do verify "$build/packaging/stage/$p"; done
verify "$msi"
tmp=$(mktemp -d) && trap 'rm -rf "$tmp"' EXIT
msiextract -C "$tmp" "$msi" >/dev/null || { echo "msiextract failed on $msi"; exit 1; }
for p in "${programs[@]}"; do
  f=$(find "$tmp" -type f -name "$p")
  if [ -z "$f" ]; then
    echo "$p is not in $msi"
    bad=1
  else
    verify "$f"
  fi
done
[ $bad = 0 ] && echo "check_signatures: ${#programs[@]} programs and the package are signed; the package holds the signed programs"
exit $bad
