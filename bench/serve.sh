#!/usr/bin/env bash
# kelputil serve holding a simulated fleet (as root):
#   bash bench/serve.sh BUILD_DIR [ROUTERS] [SECONDS]      (default: 500 150)
# The service backs up every router once a minute for SECONDS (after the
# fleet has started); meanwhile /metrics is read every second for the
# schedule's lag, and GET /api/v1/hosts is timed. At the end: the worst lag,
# the service's peak RSS, its CPU time per backup attempt and the API's
# latency (median and worst).
set -euo pipefail
build=$(realpath "${1:?usage: bash bench/serve.sh BUILD_DIR [ROUTERS] [SECONDS]}")
routers=${2:-500}
seconds=${3:-150}
export PATH=$build/tools:$PATH KELP_SECONDS=$seconds
"$build/sim/kelp-router" --fleet "$routers" -- bash -c '
  set -euo pipefail
  cd "$(mktemp -d /run/serve-bench.XXXXXX)"
  export XDG_CONFIG_HOME=$PWD KELPUTIL_PASSWORD=admin
  kelputil serve -i "$KELP_INVENTORY" --into bk --interval 60s --timeout 5 -j 16 2> log &
  pid=$!
  until grep -q "API on" log; do sleep 0.1; kill -0 $pid || { cat log; exit 1; }; done
  lag=0
  for ((i = 0; i < KELP_SECONDS; i++)); do
    sleep 1
    now=$(curl -s http://127.0.0.1:8750/metrics | awk "/^kelputil_schedule_lag_seconds/ {print \$2}")
    lag=$(awk -v a="$lag" -v b="${now:-0}" "BEGIN {print (b > a ? b : a)}")
    curl -s -o /dev/null -w "%{time_total}\n" http://127.0.0.1:8750/api/v1/hosts >> latency
  done
  attempts=$(curl -s http://127.0.0.1:8750/metrics | awk "/^kelputil_backup_attempts_total/ {s += \$2} END {print s}")
  failures=$(curl -s http://127.0.0.1:8750/metrics | awk "/^kelputil_backup_failures_total/ {s += \$2} END {print s}")
  hwm=$(awk "/^VmHWM:/ {print \$2}" /proc/$pid/status)
  ticks=$(awk "{print \$14 + \$15}" /proc/$pid/stat)
  kill -TERM $pid
  wait $pid
  sort -n latency | awk -v routers='"$routers"' -v lag="$lag" -v hwm="$hwm" -v ticks="$ticks" \
    -v hz="$(getconf CLK_TCK)" -v attempts="$attempts" -v failures="$failures" "
    { t[NR] = \$1 }
    END {
      printf \"%d routers, --interval 60s, -j 16: %d backups (%d failed)\\n\", routers, attempts, failures
      printf \"worst schedule lag %.1f s; peak RSS %d KiB; CPU %.1f ms per backup\\n\", lag, hwm, ticks * 1000 / hz / attempts
      printf \"GET /api/v1/hosts: median %.1f ms, worst %.1f ms\\n\", t[int((NR + 1) / 2)] * 1000, t[NR] * 1000
    }"'
