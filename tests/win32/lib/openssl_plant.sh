# Sourced by the Wine scenarios. Plants an OpenSSL configuration file, and
# provider and engine DLLs, in every directory a build of OpenSSL inside the
# given programs could consult (the directories compiled into them, the
# classic drive-relative default, this machine's cache), and points
# OPENSSL_CONF, OPENSSL_MODULES and OPENSSL_ENGINES at them. Each names a
# marker DLL that creates C:\lindqvar-openssl-marker when loaded.
#   openssl_plant <marker.dll> <exe>...   (WINEPREFIX and W set by the caller)
#   openssl_marker_file                   the file the marker leaves
openssl_marker_file() { echo "$WINEPREFIX/drive_c/lindqvar-openssl-marker"; }

# The Unix path of a Windows path as Wine sees it ("/x" is on drive C:).
openssl_unix_path() {
  local p=${1//\\//}
  case $p in
    [A-Za-z]:/*) echo "$WINEPREFIX/drive_c/${p:3}" ;;
    /*) echo "$WINEPREFIX/drive_c${p}" ;;
  esac
}

openssl_plant() {
  local marker=$1 exe dir udir wdll first=
  shift
  local dirs=("/usr/local/ssl" "/usr/local/lib/ossl-modules" "/usr/local/lib/engines-3"
              "${LINDQVAR_CACHE:-$HOME/.cache/lindqvar}/openssl-mingw64/ssl")
  for exe in "$@"; do
    # The configuration directory is where cert.pem and ct_log_list.cnf lie.
    while IFS= read -r dir; do dirs+=("$dir"); done < <(strings -a "$exe" |
      sed -n -E -e 's#^(.*)/(cert\.pem|ct_log_list\.cnf)$#\1#p' -e '/\/(ossl-modules|engines-3)$/p' | sort -u)
  done
  mkdir -p "$WINEPREFIX/drive_c/lindqvar-plant"
  cp "$marker" "$WINEPREFIX/drive_c/lindqvar-plant/marker.dll"
  wdll='C:\lindqvar-plant\marker.dll'
  # The marker works: loading it by hand leaves the file.
  rm -f "$(openssl_marker_file)"
  $W rundll32 "$wdll",Mark >/dev/null 2>&1
  [ -f "$(openssl_marker_file)" ] || { echo "the marker DLL does not mark"; return 1; }
  rm -f "$(openssl_marker_file)"
  for dir in "${dirs[@]}"; do
    udir=$(openssl_unix_path "$dir") || continue
    [ -n "$udir" ] || continue
    mkdir -p "$udir"
    for name in legacy fips default base capi padlock loader_attic; do
      cp "$marker" "$udir/$name.dll"
    done
    cat >"$udir/openssl.cnf" <<CNF
openssl_conf = planted_init
[planted_init]
providers = planted_providers
engines = planted_engines
[planted_providers]
planted = planted_provider
default = planted_default
[planted_provider]
module = $wdll
activate = 1
[planted_default]
activate = 1
[planted_engines]
planted = planted_engine
[planted_engine]
dynamic_path = $wdll
init = 1
CNF
    [ -n "$first" ] || first=$dir
  done
  export OPENSSL_CONF="$first/openssl.cnf" OPENSSL_MODULES=$first OPENSSL_ENGINES=$first
}
