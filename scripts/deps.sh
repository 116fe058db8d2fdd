#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test the agent,
# and builds OpenSSL 3 for MinGW-w64 once into a cache outside the checkout.
# Safe to run again: every step checks first and does nothing when done.
set -euo pipefail

CACHE_DIR=${LINDQVAR_CACHE:-$HOME/.cache/lindqvar}
OPENSSL_PREFIX="$CACHE_DIR/openssl-mingw64"

need_pkgs=(
  build-essential cmake ninja-build pkg-config git ca-certificates python3
  libssl-dev openssl libgtest-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev
  g++-mingw-w64-x86-64-posix wine64 winbind iproute2 dpkg-dev
  wixl msitools gss-ntlmssp libkrb5-dev
)

missing=()
for p in "${need_pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"

if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# OpenSSL 3 for x86_64-w64-mingw32, static, from Debian's own source package.
if [ ! -f "$OPENSSL_PREFIX/lib64/libssl.a" ] && [ ! -f "$OPENSSL_PREFIX/lib/libssl.a" ]; then
  echo "deps: building OpenSSL for MinGW-w64 into $OPENSSL_PREFIX"
  srcroot="$CACHE_DIR/openssl-src"
  mkdir -p "$srcroot"
  if ! ls -d "$srcroot"/openssl-3* >/dev/null 2>&1; then
    if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
      cat <<'SRC' | $SUDO tee /etc/apt/sources.list.d/lindqvar-src.sources >/dev/null
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg

Types: deb-src
URIs: http://deb.debian.org/debian-security
Suites: bookworm-security
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
      $SUDO apt-get update -q
    fi
    # Only the upstream tarball is needed. Try the versions the archive lists,
    # newest first: a security update's files are sometimes missing.
    for v in $(apt-cache showsrc openssl | awk '/^Version:/{print $2}' | sort -rV); do
      (cd "$srcroot" && apt-get source -q --download-only "openssl=$v" >/dev/null 2>&1) || true
      ls "$srcroot"/openssl_3*.orig.tar.gz >/dev/null 2>&1 && break
    done
    tarball=$(ls "$srcroot"/openssl_3*.orig.tar.gz | sort -V | tail -n1)
    tar -xzf "$tarball" -C "$srcroot"
  fi
  src=$(ls -d "$srcroot"/openssl-3* | head -n1)
  build="$CACHE_DIR/openssl-build"
  rm -rf "$build" && cp -a "$src" "$build"
  (cd "$build" &&
    ./Configure mingw64 no-shared no-tests no-module \
      --cross-compile-prefix=x86_64-w64-mingw32- \
      --prefix="$OPENSSL_PREFIX" --libdir=lib >"$CACHE_DIR/openssl-build.log" 2>&1 &&
    make -s -j"$(nproc)" build_libs >>"$CACHE_DIR/openssl-build.log" 2>&1 &&
    make -s install_dev >>"$CACHE_DIR/openssl-build.log" 2>&1) ||
    { tail -n 40 "$CACHE_DIR/openssl-build.log"; exit 1; }
  rm -rf "$build"
  echo "deps: OpenSSL for MinGW-w64 ready"
fi
echo "deps: ok"
