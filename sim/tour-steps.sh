#!/usr/bin/env bash
# The tour: every action of the daemon, driven by kelputil, inside kelp-router.
set -euo pipefail
work=$(mktemp -d /run/tour.XXXXXX)
step() { printf '\n\033[1m== %s\033[0m\n$ %s\n' "$1" "${*:2}"; "${@:2}"; }
# A step that is a shell pipeline, shown as it is typed.
shell_step() { printf '\n\033[1m== %s\033[0m\n$ %s\n' "$1" "$2"; bash -c "$2"; }
# A reboot refuses logins until the router records that it is back.
rebooted() { for _ in $(seq 50); do (($(grep -c '^rebooted$' /run/sim/events) >= $1)) && return; sleep 0.1; done; }
step "Log in over TLS, port 857 (the first contact remembers the certificate)" kelputil check
step "Log in over the plain protocol, port 856" kelputil --plain check
step "PPP sessions (18)" kelputil ppp
step "Hotspot sessions as JSON (19)" kelputil --json hotspot
step "Back up the configuration (1)" kelputil backup "$work/backup.dat"
step "Inspect the backup offline" kelputil bundle-unpack "$work/backup.dat" "$work/backup.tar"
tar -tf "$work/backup.tar"
step "Fetch the firewall script (2)" kelputil get-script fw "$work/fw.scr"
echo "iptables -A INPUT -p tcp --dport 22 -j ACCEPT" >> "$work/fw.scr"
step "Upload it again and apply (4)" kelputil --apply put-script fw "$work/fw.scr"
step "Restore the configuration (3)" kelputil restore "$work/backup.dat"
step "Core system report (96)" kelputil report core
step "Kernel log (65)" kelputil report kernel
shell_step "Full system report (64), first lines" 'kelputil report full | head -12'
step "Kick PPP user alice (48)" kelputil kick-ppp alice
step "Kick hotspot user carol (53)" kelputil kick-hotspot carol
step "Kick hotspot address 10.0.0.102 (54)" kelputil kick-ip 10.0.0.102
shell_step "A user that is not there gives its own exit status" 'kelputil kick-ppp nobody; echo "exit status $?"'
step "Throughput, device to us (32)" kelputil throughput rx 3
step "Throughput, us to device (33)" kelputil throughput tx 3
head -c 300000 /dev/urandom > "$work/firmware.bin"
step "Upload firmware and flash it, with progress (241); the router reboots" kelputil firmware "$work/firmware.bin" --upgrade
rebooted 1
step "Ask the router to reboot" kelputil reboot
rebooted 2
step "What the router did" cat /run/sim/events
step "The router's syslog" tail -6 /run/sim/messages
rm -rf "$work"
printf '\nThe router tour is complete.\n'
