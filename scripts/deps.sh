#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test the agent,
# and builds OpenSSL 3 and GoogleTest for MinGW-w64 once into a cache outside
# the checkout.
# Safe to run again: every step checks first and does nothing when done.
set -euo pipefail

CACHE_DIR=${LINDQVAR_CACHE:-$HOME/.cache/lindqvar}
OPENSSL_PREFIX="$CACHE_DIR/openssl-mingw64-sealed"
GTEST_PREFIX="$CACHE_DIR/googletest-mingw64"

# Prints deb-src stanzas for the deb sources this machine has (deb822 files
# and one-line lists alike), so that no archive host is written down here.
# The file this writes is not read back.
SRC_LIST=/etc/apt/sources.list.d/lindqvar-src.sources
derive_src_lines() {
  local f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && [ "$f" != "$SRC_LIST" ] || continue
    awk 'BEGIN { RS = ""; ORS = "\n\n" }
         /(^|\n)Types:[^\n]*[ \t]deb([ \t\n]|$)/ && !/(^|\n)Enabled:[ \t]*no/ {
           gsub(/(^|\n)#[^\n]*/, ""); sub(/^\n/, ""); sub(/Types:[^\n]*/, "Types: deb-src"); print }' "$f"
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '$1 == "deb" {
           opts = ""; i = 2
           if ($2 ~ /^\[/) { while ($i !~ /\]$/) { opts = opts " " $i; i++ } opts = opts " " $i; i++ }
           printf "Types: deb-src\nURIs: %s\nSuites: %s\nComponents:", $i, $(i + 1)
           for (j = i + 2; j <= NF; j++) printf " %s", $j
           printf "\n"
           if (match(opts, /signed-by=[^] ]*/)) printf "Signed-By: %s\n", substr(opts, RSTART + 10, RLENGTH - 10)
           printf "\n" }' "$f"
  done
}

need_pkgs=(
  build-essential cmake ninja-build pkg-config git ca-certificates python3
  libssl-dev openssl libgtest-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev clang-format clang-tidy
  g++-mingw-w64-x86-64-posix wine64 winbind iproute2 dpkg-dev
  wixl msitools osslsigncode gss-ntlmssp libkrb5-dev
)

missing=()
for p in "${need_pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"

if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  # Another run of this script may hold the package manager's lock: wait
  # for it rather than fail.
  $SUDO apt-get -o DPkg::Lock::Timeout=600 update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -q \
    --no-install-recommends "${missing[@]}"
fi

# OpenSSL 3 for x86_64-w64-mingw32, static, from Debian's own source package.
# The agent runs as LocalSystem, so this OpenSSL must never read a
# configuration file or load a module: no-autoload-config, no DSO, engine or
# module loading. Its compiled-in directories name fixed locations that only
# administrators can write (never this machine's paths: on Windows a path
# starting with "/" lies on the current drive, where users may create
# folders). The library is taken from the build tree, not installed, so no
# install prefix is compiled in either. A cache built with other options has
# another folder name and is never reused.
# One build at a time: a second run waits for the first and then finds it done.
mkdir -p "$CACHE_DIR"
exec 9>"$CACHE_DIR/openssl.lock"
flock 9
if [ ! -f "$OPENSSL_PREFIX/lib/libssl.a" ]; then
  echo "deps: building OpenSSL for MinGW-w64 into $OPENSSL_PREFIX"
  srcroot="$CACHE_DIR/openssl-src"
  mkdir -p "$srcroot"
  if ! ls -d "$srcroot"/openssl-3* >/dev/null 2>&1; then
    if ! apt-cache showsrc openssl 2>/dev/null | grep -q '^Version:'; then
      # Source lines for the archives the machine already uses: same URIs,
      # suites and components, type deb-src.
      derive_src_lines | $SUDO tee "$SRC_LIST" >/dev/null
      $SUDO apt-get -o DPkg::Lock::Timeout=600 update -q
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
    ./Configure mingw64 no-shared no-tests no-module no-dso no-engine \
      no-autoload-config \
      "--prefix=C:/Windows/System32/LindqvarNoOpenSSL" \
      --openssldir=ssl \
      --cross-compile-prefix=x86_64-w64-mingw32- >"$CACHE_DIR/openssl-build.log" 2>&1 &&
    make -s -j"$(nproc)" build_libs >>"$CACHE_DIR/openssl-build.log" 2>&1) ||
    { tail -n 40 "$CACHE_DIR/openssl-build.log"; exit 1; }
  rm -rf "$OPENSSL_PREFIX.tmp" && mkdir -p "$OPENSSL_PREFIX.tmp/lib" "$OPENSSL_PREFIX.tmp/include"
  cp "$build/libssl.a" "$build/libcrypto.a" "$OPENSSL_PREFIX.tmp/lib/"
  cp -r "$build/include/openssl" "$OPENSSL_PREFIX.tmp/include/"
  rm -rf "$OPENSSL_PREFIX" && mv "$OPENSSL_PREFIX.tmp" "$OPENSSL_PREFIX"
  rm -rf "$build"
  echo "deps: OpenSSL for MinGW-w64 ready"
fi

# GoogleTest for the Windows test programs, from Debian's sources
# (/usr/src/googletest, package googletest), with the same cross compiler:
# Debian ships it built for the machine only. Installed into the cache, so
# that a clean checkout's build does not compile it again.
if [ ! -f "$GTEST_PREFIX/lib/libgtest.a" ]; then
  echo "deps: building GoogleTest for MinGW-w64 into $GTEST_PREFIX"
  build="$CACHE_DIR/googletest-build"
  rm -rf "$build" "$GTEST_PREFIX.tmp"
  (cmake -S /usr/src/googletest -B "$build" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$(cd "$(dirname "$0")/.." && pwd)/cmake/mingw-w64-x86_64.cmake" \
      -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON \
      -DCMAKE_INSTALL_PREFIX="$GTEST_PREFIX.tmp" >"$CACHE_DIR/googletest-build.log" 2>&1 &&
    cmake --build "$build" --target install -j"$(nproc)" >>"$CACHE_DIR/googletest-build.log" 2>&1) ||
    { tail -n 40 "$CACHE_DIR/googletest-build.log"; exit 1; }
  rm -rf "$GTEST_PREFIX" && mv "$GTEST_PREFIX.tmp" "$GTEST_PREFIX"
  rm -rf "$build"
  echo "deps: GoogleTest for MinGW-w64 ready"
fi
flock -u 9
echo "deps: ok"
