#!/usr/bin/env bash
# Builds mbedTLS, libxcrypt and GoogleTest for mips-linux-gnu into PREFIX.
# Debian 12 has no mips architecture, so the libraries come from Debian's own
# source packages of the versions installed on the host, configured the way
# Debian configures them. Each library is skipped when PREFIX already holds it.
# Usage: build-mips-deps.sh [PREFIX]   (default: build-deps/mips-linux-gnu)
# Needs: scripts/install-deps.sh mips
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
prefix=${1:-build-deps/mips-linux-gnu}
case $prefix in /*) ;; *) prefix=$top/$prefix ;; esac
toolchain=$top/cmake/toolchains/mips-linux-gnu.cmake
jobs=$(nproc)

have_mbedtls() { [[ -e $prefix/lib/libmbedtls.so && -e $prefix/lib/libmbedcrypto.so && -e $prefix/include/mbedtls/ssl.h ]]; }
have_crypt() { [[ -e $prefix/lib/libcrypt.so.1 && -e $prefix/include/crypt.h ]]; }
have_gtest() { [[ -e $prefix/lib/libgtest.a && -e $prefix/lib/libgtest_main.a ]]; }
if have_mbedtls && have_crypt && have_gtest; then
  echo "build-mips-deps: $prefix is complete"
  exit 0
fi

# The host's own package: the foreign-architecture copies are listed too.
version_of() { dpkg-query -W -f='${Version}' "$1:$(dpkg --print-architecture)"; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$prefix"

configure_cmake() {  # source dir, build dir, extra options...
  local src=$1 build=$2
  shift 2
  cmake -S "$src" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DKELP_MIPS_PREFIX="$prefix" -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
}

if ! have_mbedtls; then
  version=$(version_of libmbedtls-dev)
  (cd "$work" && apt-get source -q "mbedtls=$version" >/dev/null)
  src=$(echo "$work"/mbedtls-*/)
  # Debian's changes to the default configuration (debian/rules).
  for option in MBEDTLS_DEPRECATED_WARNING MBEDTLS_HAVEGE_C MBEDTLS_MD2_C MBEDTLS_MD4_C \
    MBEDTLS_THREADING_C MBEDTLS_THREADING_PTHREAD MBEDTLS_CMAC_C MBEDTLS_SSL_DTLS_SRTP; do
    (cd "$src" && python3 scripts/config.py set "$option")
  done
  # The headers the host compiles against must describe the same library.
  if ! cmp "$src/include/mbedtls/config.h" /usr/include/mbedtls/config.h; then
    echo "build-mips-deps: mbedTLS $version configuration differs from the host's" >&2
    exit 1
  fi
  configure_cmake "$src" "$work/mbedtls-build" -DENABLE_PROGRAMS=OFF -DENABLE_TESTING=OFF \
    -DUSE_SHARED_MBEDTLS_LIBRARY=ON -DUSE_STATIC_MBEDTLS_LIBRARY=OFF -DMBEDTLS_FATAL_WARNINGS=OFF
  cmake --build "$work/mbedtls-build" -j "$jobs" >/dev/null
  cmake --install "$work/mbedtls-build" >/dev/null
  echo "build-mips-deps: mbedTLS $version installed"
fi

if ! have_crypt; then
  version=$(version_of libcrypt-dev)
  (cd "$work" && apt-get source -q "libxcrypt=$version" >/dev/null)
  src=$(echo "$work"/libxcrypt-*/)
  (cd "$src" && autoreconf -fi >/dev/null 2>&1)
  mkdir -p "$src/build"
  (cd "$src/build" &&
    ../configure -q --host=mips-linux-gnu --prefix="$prefix" --libdir="$prefix/lib" \
      --disable-werror --disable-xcrypt-compat-files --enable-obsolete-api=glibc >/dev/null &&
    make -s -j "$jobs" >/dev/null && make -s install >/dev/null)
  echo "build-mips-deps: libxcrypt $version installed"
fi

if ! have_gtest; then
  configure_cmake /usr/src/googletest "$work/gtest-build" -DBUILD_GMOCK=OFF
  cmake --build "$work/gtest-build" -j "$jobs" >/dev/null
  cmake --install "$work/gtest-build" >/dev/null
  echo "build-mips-deps: GoogleTest $(version_of libgtest-dev) installed"
fi
have_mbedtls && have_crypt && have_gtest
