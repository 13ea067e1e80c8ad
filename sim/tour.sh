#!/usr/bin/env bash
# Builds everything, starts the simulated router and walks through every
# action with kelputil, then a small simulated fleet. With --shell, opens a
# shell inside the router instead.
#   bash sim/tour.sh [--shell] [--password PW]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/leave-tmp.sh
leave_tmp sim/tour.sh "$@"
bash scripts/install-deps.sh native
cmake -S . -B build-sim -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_TESTS=OFF >/dev/null
ninja -C build-sim kelputild kelputil kelp-router
password=admin
command=(bash "$PWD/sim/tour-steps.sh")
while (($#)); do
  case $1 in
    --shell) command=() ;;
    --password) password=$2; shift ;;
    *) echo "usage: bash sim/tour.sh [--shell] [--password PW]" >&2; exit 1 ;;
  esac
  shift
done
export PATH="$PWD/build-sim/bin:$PATH"
if ((${#command[@]} == 0)); then
  echo "Inside the simulated router: try 'kelputil ppp' (password: $password), 'exit' to leave."
  exec build-sim/sim/kelp-router --password "$password"
fi
export KELPUTIL_PASSWORD=$password
build-sim/sim/kelp-router --password "$password" -- "${command[@]}"
exec build-sim/sim/kelp-router --password "$password" --fleet 6 --fault down:4 --fault upgrade-fails:3 \
  -- bash "$PWD/sim/tour-fleet.sh"
