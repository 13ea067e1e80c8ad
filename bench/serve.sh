#!/usr/bin/env bash
# Runs inside kelp-router --fleet (bench/run.sh's "serve" part): kelputil
# serve backs up every router once a minute for SECONDS; meanwhile /metrics is
# read every second for the schedule's lag, and GET /api/v1/hosts and
# /metrics are timed. Then /healthz is timed while 64 clients wait for
# backups of SILENT (a router that never answers) with wait=1, each asking
# again once answered. Records go to $RAW through measure.py: the worst lag,
# the service's peak RSS, its CPU time per backup attempt and the latencies.
# The CPU is counted apart for the first interval, which holds the one-time
# work (each host's first commit, its model and firmware read), and for the
# steady state after it, which sets how many routers one service holds. The
# steady state is one whole interval in which only the lag is read (every
# 5 s): the timed reads of 500 hosts' JSON are the readers' cost, not the
# backups', so they run before and after it.
#   serve.sh MEASURE RAW SECONDS SILENT
set -euo pipefail
M=$1 RAW=$2 SECONDS_TO_RUN=$3 SILENT=$4
cd "$(mktemp -d /run/serve-bench.XXXXXX)"
kelputil serve -i "$KELP_INVENTORY" --into bk --interval 60s --timeout 5 -j 16 2>log &
pid=$!
for _ in $(seq 600); do grep -q "API on" log && break; kill -0 $pid; sleep 0.1; done
grep -q "API on" log || { cat log; exit 1; }
api=http://127.0.0.1:8750
lag=0
: >hosts_ms
: >metrics_ms
attempts() { awk '/^kelputil_backup_attempts_total/ {s += $2} END {print s + 0}' "$1"; }
ticks() { awk '{print $14 + $15}' /proc/$pid/stat; }
first_at=$((SECONDS_TO_RUN > 70 ? 65 : SECONDS_TO_RUN / 2))  # the first interval and its stragglers are over
quiet_to=$((first_at + (SECONDS_TO_RUN > 130 ? 60 : (SECONDS_TO_RUN - first_at) / 2)))
for second in $(seq "$SECONDS_TO_RUN"); do
  sleep 1
  if [[ $second == "$first_at" || $second == "$quiet_to" ]]; then
    curl -s -o "at$second" "$api/metrics"
    eval "ticks_$second=\$(ticks)"
  fi
  quiet=$((second > first_at && second < quiet_to))
  ((quiet && second % 5)) && continue
  curl -s -o metrics -w '%{time_total}\n' "$api/metrics" | awk '{print $1 * 1000}' >"last_ms"
  now=$(awk '/^kelputil_schedule_lag_seconds/ {print $2}' metrics)
  lag=$(awk -v a="$lag" -v b="${now:-0}" 'BEGIN {print (b > a ? b : a)}')
  ((quiet)) && continue
  cat last_ms >>metrics_ms
  curl -s -o /dev/null -w '%{time_total}\n' "$api/api/v1/hosts" | awk '{print $1 * 1000}' >>hosts_ms
done
first_ticks=$((ticks_$first_at)) quiet_ticks=$((ticks_$quiet_to))
first_attempts=$(attempts "at$first_at") quiet_attempts=$(attempts "at$quiet_to")
touch waiting
for _ in $(seq 64); do
  (while [[ -e waiting ]]; do curl -s -o /dev/null -m 90 -d '' "$api/api/v1/hosts/$SILENT/backup?wait=1" || true; done) &
done
sleep 2
: >healthz_ms
for _ in $(seq 200); do
  curl -s -o /dev/null -w '%{time_total}\n' "$api/healthz" | awk '{print $1 * 1000}' >>healthz_ms
  sleep 0.02
done
rm waiting
curl -s "$api/metrics" >metrics
all_attempts=$(attempts metrics)
hwm=$(awk '/^VmHWM:/ {print $2}' /proc/$pid/status)
kill -TERM $pid
wait $pid
p99() { sort -n "$1" | awk '{v[NR] = $1} END {i = int(NR * 0.99 + 0.999); print v[i < 1 ? 1 : i]}'; }
$M put "$RAW" serve lag_s "$lag"
$M put "$RAW" serve interval_s 60
$M put "$RAW" serve rss_kib "$hwm"
hz=$(getconf CLK_TCK)
$M put "$RAW" serve attempts "$all_attempts"
$M put "$RAW" serve cpu_ms_first_interval "$(echo "$first_ticks * 1000 / $hz / $first_attempts" | bc -l)"
$M put "$RAW" serve cpu_ms_per_backup \
  "$(echo "($quiet_ticks - $first_ticks) * 1000 / $hz / ($quiet_attempts - $first_attempts)" | bc -l)"
$M put "$RAW" serve hosts_p99_ms "$(p99 hosts_ms)"
$M put "$RAW" serve metrics_p99_ms "$(p99 metrics_ms)"
$M put "$RAW" serve healthz_waiting_p99_ms "$(p99 healthz_ms)"
$M put "$RAW" serve_hosts count "$(grep -c ansible_host "$KELP_INVENTORY")"
