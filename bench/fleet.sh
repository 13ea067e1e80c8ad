#!/usr/bin/env bash
# Runs inside kelp-router --fleet: backs up every router with one fleet run
# (-j 32) and with a loop of single backups, and sets the fleet run against
# the machine's floor for that work: every CPU second spent during it (the
# routers' daemons and helpers, kelputil, the kernel) divided by the cores.
# Records go to $RAW through measure.py; also kelputil's peak memory for
# the whole fleet and for ten routers.
set -euo pipefail
M=$1 RAW=$2 REPEAT=$3
cd "$(mktemp -d /run/fleet-bench.XXXXXX)"
hz=$(getconf CLK_TCK)
cores=$(nproc)
busy() { awk '/^cpu /{print $2 + $3 + $4 + $7 + $8 + $9}' /proc/stat; }
now() { date +%s.%N; }
hosts=$(grep -c ansible_host "$KELP_INVENTORY")
# The first contact with each router, outside the figures.
kelputil -q fleet -j 32 check
for _ in $(seq "$REPEAT"); do
  rm -rf bk seq
  b0=$(busy) t0=$(now)
  /usr/bin/time -f '%M %U %S' -o rss kelputil -q fleet -j 32 backup --into bk
  t1=$(now) b1=$(busy)
  $M put "$RAW" fleet_run wall_s "$(echo "$t1 - $t0" | bc -l)"
  $M put "$RAW" fleet_run floor_s "$(echo "($b1 - $b0) / $hz / $cores" | bc -l)"
  read -r rss user sys <rss
  $M put "$RAW" fleet_run rss_kib "$rss"
  # kelputil's own CPU for one host's backup, to set the service's against.
  $M put "$RAW" fleet_run cpu_ms_per_backup "$(echo "($user + $sys) * 1000 / $hosts" | bc -l)"
  mkdir seq
  t0=$(now)
  while read -r name address; do
    kelputil -q -H "${address#ansible_host=}" backup "seq/$name.dat"
  done < <(grep ansible_host "$KELP_INVENTORY")
  t1=$(now)
  $M put "$RAW" fleet_loop wall_s "$(echo "$t1 - $t0" | bc -l)"
  rm -rf bk10
  /usr/bin/time -f %M -o rss kelputil -q fleet -j 32 --limit 'router?:router10' backup --into bk10
  $M put "$RAW" fleet_ten rss_kib "$(cat rss)"
done
$M put "$RAW" fleet_hosts count "$hosts"
