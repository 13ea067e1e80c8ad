#!/usr/bin/env bash
# The fleet part of the tour, inside kelp-router --fleet: one command on
# every router, backups in git, a staged firmware roll-out, and the backups
# as a service.
set -euo pipefail
cd "$(mktemp -d /run/fleet-tour.XXXXXX)"
step() { printf '\n\033[1m== %s\033[0m\n$ %s\n' "$1" "$2"; bash -c "$2" || true; }
step "The simulator's inventory" 'cat $KELP_INVENTORY'
step "Every router at once: router4 is down" 'kelputil fleet --timeout 3 check'
step "Back up the fleet into a git repository" 'kelputil fleet --timeout 3 backup --into backups --scripts'
step "Change router2's firewall, back up again: one commit, one host" \
  'kelputil -q -H 198.18.0.3 get-script fw > fw.scr && echo "iptables -A INPUT -j LOG" >> fw.scr &&
   kelputil -q -H 198.18.0.3 put-script fw fw.scr && kelputil fleet --timeout 3 backup --into backups --scripts'
step "router2's history" 'kelputil fleet history router2 --into backups'
step "What changed on router2" 'kelputil fleet diff router2 --into backups | grep -A8 "^diff --git a/router2/config/"'
step "A staged firmware roll-out, planned" \
  'head -c 200000 /dev/urandom > fw.bin && kelputil fleet --limit "!router4" firmware fw.bin --upgrade --batch 2 --dry-run'
step "... and carried out: router3's upgrade fails and halts it: router5 and router6 stay untouched" \
  'kelputil fleet --limit "!router4" firmware fw.bin --upgrade --batch 2 --settle 30'
step "Backups as a service: every router every 10 s, an HTTP API on loopback" \
  'kelputil serve --into served --interval 10s --timeout 3 --on-change "echo changed: \$KELPUTIL_HOST >> hooks" \
     2> serve.log & echo $! > serve.pid; sleep 11; tail -4 serve.log'
step "Its hosts, as the API lists them" \
  'curl -s http://127.0.0.1:8750/api/v1/hosts | jq -r ".hosts[] | [.name, .state, .model // \"-\"] | @tsv"'
step "router2 backed up now, out of turn, and the metrics" \
  'curl -s -d "" "http://127.0.0.1:8750/api/v1/hosts/router2/backup?wait=1" | jq -c "{name, state, commit}" &&
   curl -s http://127.0.0.1:8750/metrics | grep "^kelputil_host_up"'
step "Stopped: a clean repository" 'kill $(cat serve.pid); sleep 1; git -C served log --oneline | head -3'
printf '\nThe fleet tour is complete.\n'
