#!/usr/bin/env bash
# Start-up time and memory of simulated fleets (as root):
#   bash sim/fleet-figures.sh BUILD_DIR [ROUTERS...]      (default: 50 200)
# "ready" runs from kelp-router's start to its command's; the processes'
# memory is their proportional set size, summed over the sandbox's pid
# namespace; "system" is how far MemAvailable fell meanwhile, which adds the
# kernel's part (namespaces, links, tmpfs, page tables) and any other work on
# the machine.
set -euo pipefail
build=${1:?usage: bash sim/fleet-figures.sh BUILD_DIR [ROUTERS...]}
shift
(($#)) || set -- 50 200
available() { awk '/^MemAvailable:/ {print $2}' /proc/meminfo; }
for n in "$@"; do
  export KELP_BEFORE KELP_START
  KELP_BEFORE=$(available)
  KELP_START=$(date +%s%N)
  "$build/sim/kelp-router" --fleet "$n" -- bash -c '
    ready=$(( ($(date +%s%N) - KELP_START) / 1000000 ))
    sleep 1  # the daemons settle
    pss=$(cat /proc/[0-9]*/smaps_rollup 2>/dev/null | awk "/^Pss:/ {s += \$2} END {print s}")
    processes=$(ls -d /proc/[0-9]* | wc -l)
    system=$(( KELP_BEFORE - $(awk "/^MemAvailable:/ {print \$2}" /proc/meminfo) ))
    printf "%4d routers: ready in %5d ms, %4d processes, %4d MiB in processes (%d KiB per router), %4d MiB system\n" \
      '"$n"' "$ready" "$processes" $((pss / 1024)) $((pss / '"$n"')) $((system / 1024))'
done
