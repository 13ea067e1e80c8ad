#!/usr/bin/env bash
# Installs what building and testing need, from Debian 12's packages.
# Usage: install-deps.sh [native] [fuzz] [bench] [s390x] [i386] [mips] [cross] [all]
#   cross = s390x i386 mips; all = native fuzz cross
# mips installs the cross compiler and what build-mips-deps.sh needs: Debian 12
# has no mips architecture, so mbedTLS, libxcrypt and GoogleTest are built from
# source by that script.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
want=" ${*:-native} "
[[ $want == *" all "* ]] && want+=" native fuzz cross "
[[ $want == *" cross "* ]] && want+=" s390x i386 mips "

packages=()
foreign=()
[[ $want == *" native "* ]] && packages+=(g++ cmake ninja-build pkg-config libmbedtls-dev
  libcrypt-dev libgtest-dev iproute2 util-linux openssl binutils procps tar systemd
  dpkg-dev libcli11-dev nlohmann-json3-dev libgit2-dev libarchive-dev git scdoc python3-jsonschema
  man-db groff-base ansible-core chromium chromium-driver python3-selenium
  libsqlite3-dev libmicrohttpd-dev zlib1g-dev curl jq prometheus python3-voluptuous pycodestyle yamllint)
[[ $want == *" fuzz "* ]] && packages+=(clang libclang-rt-dev)
[[ $want == *" bench "* ]] && packages+=(libbenchmark-dev iperf3 socat strace)
for arch in s390x i386; do
  [[ $want == *" $arch "* ]] || continue
  triplet=$arch-linux-gnu
  [[ $arch == i386 ]] && triplet=i686-linux-gnu
  foreign+=("$arch")
  # The multiarch -dev packages must carry the host's version: Multi-Arch: same.
  packages+=(cmake ninja-build pkg-config binutils "g++-$triplet" "libmbedtls-dev:$arch"
    "libcrypt-dev:$arch" "libstdc++6:$arch" "libgtest-dev:$arch" libmbedtls-dev libcrypt-dev
    libgtest-dev openssl)
  [[ $arch == s390x ]] && packages+=(qemu-user-static)
done
if [[ $want == *" mips "* ]]; then
  packages+=(cmake ninja-build pkg-config binutils g++-mips-linux-gnu qemu-user-static
    dpkg-dev autoconf automake libtool make python3 libmbedtls-dev libcrypt-dev googletest openssl)
fi

need_update=0
for arch in "${foreign[@]}"; do
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    dpkg --add-architecture "$arch"
    need_update=1
  fi
done

# build-mips-deps.sh fetches Debian's sources: add a deb-src twin of the
# machine's own Debian entry, whatever mirror it names.
if [[ $want == *" mips "* ]] && ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ &&
  ! grep -qs '^deb-src' /etc/apt/sources.list; then
  src=/etc/apt/sources.list.d/debian.sources
  [[ -f $src ]] || { echo "no $src to derive a deb-src entry from" >&2; exit 1; }
  sed 's/^Types:.*/Types: deb-src/' "$src" >/etc/apt/sources.list.d/kelp-debian-src.sources
  need_update=1
fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
if ((${#missing[@]} || need_update)); then
  # An index of another architecture may fail to refresh; the check below tells.
  apt-get update || true
fi
if ((${#missing[@]})); then
  apt-get install -y --no-install-recommends "${missing[@]}" || true
  failed=()
  for p in "${missing[@]}"; do
    installed "$p" || failed+=("$p")
  done
  if ((${#failed[@]})); then
    echo "install-deps: not installed: ${failed[*]}" >&2
    exit 1
  fi
fi
