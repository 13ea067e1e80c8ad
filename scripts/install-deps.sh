#!/usr/bin/env bash
# Installs what building and testing need, from Debian 12's packages.
# Usage: install-deps.sh [native] [fuzz] [cross] [bench]
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
want=" ${*:-native} "
packages=(g++ cmake ninja-build pkg-config libmbedtls-dev libcrypt-dev libgtest-dev
  iproute2 util-linux openssl binutils procps tar)
[[ $want == *" fuzz "* ]] && packages+=(clang libclang-rt-dev)
[[ $want == *" bench "* ]] && packages+=(libbenchmark-dev iperf3 socat strace)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  # An index of another architecture may fail to refresh; the installs below still tell.
  apt-get update || true
  apt-get install -y --no-install-recommends "${missing[@]}"
fi
