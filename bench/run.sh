#!/usr/bin/env bash
# Measures kelputild against plain tools doing the same work (iperf3, socat,
# openssl, /bin/true) in a private network and mount namespace, and prints one
# table of medians and ratios; a copy goes to <build>/bench/results.json.
#   bash bench/run.sh
# Environment: BENCH_REPEAT (3), BENCH_THR_REPEAT throughput rounds (7),
# BENCH_THR_SECONDS per throughput run (5), BENCH_FW_REPEAT firmware rounds (7), BENCH_SESSIONS (200), BENCH_FLEET
# routers (200), BENCH_SERVE routers (500) and BENCH_SERVE_SECONDS (180: three
# intervals), BENCH_BUILD (build-bench), BENCH_ONLY (parts: throughput bulk
# syscalls sessions memory bundle fleet serve; default all).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
export BENCH_REPEAT=${BENCH_REPEAT:-3} BENCH_SESSIONS=${BENCH_SESSIONS:-200}
export BENCH_THR_REPEAT=${BENCH_THR_REPEAT:-7} BENCH_THR_SECONDS=${BENCH_THR_SECONDS:-5}
export BENCH_FW_REPEAT=${BENCH_FW_REPEAT:-7}
export BENCH_BUILD=${BENCH_BUILD:-$ROOT/build-bench} BENCH_FLEET=${BENCH_FLEET:-200}
export BENCH_SERVE=${BENCH_SERVE:-500} BENCH_SERVE_SECONDS=${BENCH_SERVE_SECONDS:-180}
B=$BENCH_BUILD
PY=/usr/bin/python3  # Debian's, which still has the crypt module
M="$PY $ROOT/bench/measure.py"

if [[ ${1:-} != --inside ]]; then
  [[ $(id -u) == 0 ]] || { echo "run as root (namespaces, mounts)" >&2; exit 1; }
  need=()
  for p in g++ cmake ninja-build pkg-config libmbedtls-dev libcrypt-dev libbenchmark-dev iperf3 socat \
    strace openssl binutils iproute2 util-linux python3 time libcli11-dev nlohmann-json3-dev libgit2-dev \
    libarchive-dev bc libsqlite3-dev libmicrohttpd-dev zlib1g-dev curl; do
    dpkg-query -W -f='${db:Status-Abbrev}\n' "$p" 2>/dev/null | grep -q '^ii' || need+=("$p")
  done
  if ((${#need[@]})); then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update || true
    apt-get install -y --no-install-recommends "${need[@]}"
  fi
  # The simulator is not needed here; only what is measured is built.
  cmake -S . -B "$B" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELP_BENCH=ON -DKELP_TESTS=OFF \
    -DKELP_CLIENT=ON >/dev/null
  ninja -C "$B" kelputild kelputil kelputil-store kelputil-serve kelp-router bundle_bench bench_fixed_steps \
    >"$B/build.log" ||
    { cat "$B/build.log"; exit 1; }
  exec timeout 1800 unshare -m -n --propagation private bash "$ROOT/bench/run.sh" --inside
fi

# --- inside the namespaces: a router-like sandbox -------------------------
mount -t tmpfs -o mode=1777 tmpfs /tmp
mount -t tmpfs -o mode=0755 tmpfs /run
W=/run/bench
export BENCH_WORK=$W
mkdir -p "$W/bin"
password=bench-$RANDOM
hash=$($PY -W ignore -c 'import crypt, sys; print(crypt.crypt(sys.argv[1], "ab"))' "$password")
{ grep -v '^admin:' /etc/passwd; echo "admin:$hash:0:0:admin:/:/bin/sh"; } >"$W/passwd"
mount --bind "$W/passwd" /etc/passwd
# The daemon drops the page cache before each upload: machine-wide, so it
# would slow everybody else on a shared host and make figures depend on them.
mount --bind /dev/null /proc/sys/vm/drop_caches
ip link set lo up
export KELPUTIL_PASSWORD=$password
export XDG_CONFIG_HOME=$W/config  # the trust file stays in the sandbox

head -c $((512 << 10)) /dev/urandom >"$W/config.bin"
for _ in $(seq 64); do cat "$W/config.bin"; done >"$W/fw.bin"  # 32 MiB
head -c $((1 << 20)) "$W/fw.bin" >"$W/fw1.bin"
printf '#!/bin/sh\ncat %s/config.bin > /tmp/saved-configs\n' "$W" >"$W/bin/do-prepconfigs"
chmod +x "$W/bin/do-prepconfigs"
export PATH=$W/bin:$PATH
ln -sf "$B/src/kelputild" "$W/kelputild-tls"
cd "$W"

D=$B/src/kelputild
C=$B/bin/kelputil
FIXED=$B/bench/bench_fixed_steps
RAW=$B/bench/raw.jsonl
mkdir -p "$B/bench"
: >"$RAW"
# Other work on the machine moves every figure: keep the load next to them.
load() { $M put "$RAW" load load "$(cut -d' ' -f1 /proc/loadavg)"; }
load
CERT=$ROOT/src/daemon/core/default_cert/cert.pem
KEY=$ROOT/src/daemon/core/default_cert/key.pem
sock() { echo "socat -u $1 $2"; }
# BENCH_ONLY="sessions fleet" measures those parts alone.
part() { [[ -z ${BENCH_ONLY:-} || " $BENCH_ONLY " == *" $1 "* ]]; }
step() { printf '%s %s\n' "$(date +%T)" "$*" >&2; }

# Throughput swings with whatever else the machine does: ours and iperf3's
# runs alternate within each round (which goes first alternates too), so that
# each round's pair saw the same machine, and the table gives the median of
# the pairs' ratios with their spread.
if part throughput; then
TR=$BENCH_THR_REPEAT TS=$BENCH_THR_SECONDS
step "throughput: ${TR} rounds x rx/tx x (daemon, iperf3) x (64K, default buffers)," \
  "tx iperf3 -w 65535 too, ${TS} s each"
thr_ours() {  # round, direction, figure suffix, window option
  $M pair "$RAW" "thr_${2}_ours$3" --round "$1" --port 856 --server "$D" \
    --client "$C --json --plain throughput $4 $2 $TS"
}
thr_iperf() {  # round, direction, figure suffix, window options
  local rev=""
  [[ $2 == rx ]] && rev=-R  # rx: the server side (the device) sends
  $M pair "$RAW" "thr_${2}_iperf$3" --round "$1" --port 5201 --server "iperf3 -s -1 -p 5201" \
    --client "iperf3 -c 127.0.0.1 -p 5201 -t $TS $4 $rev -J"
}
# The device's 65535-byte receive buffer, set before it listens, makes its
# window scale 0; iperf3 -w 64K asks for 65536 and gets scale 1, twice the
# window. Receiving, the device is also set against iperf3 at its own size.
thr_iperf_device() { [[ $2 == rx ]] || thr_iperf "$1" tx _d "-w 65535 -l 128K"; }
for r in $(seq "$TR"); do
  for d in rx tx; do
    if ((r % 2)); then
      thr_ours "$r" $d "" "--window 64K"; thr_iperf "$r" $d _w "-w 64K -l 128K"; thr_iperf_device "$r" $d
      thr_ours "$r" $d _auto ""; thr_iperf "$r" $d "" ""
    else
      thr_iperf_device "$r" $d; thr_iperf "$r" $d _w "-w 64K -l 128K"; thr_ours "$r" $d "" "--window 64K"
      thr_iperf "$r" $d "" ""; thr_ours "$r" $d _auto ""
    fi
  done
done
fi

if part bulk; then
step "bulk: firmware 32 MiB against socat and the router's fixed steps, ${BENCH_FW_REPEAT} rounds;" \
  "backup 512 KiB against socat, ${BENCH_REPEAT} times"
# The floor of an upload: socat's copy of the image (which writes it once)
# plus what the router does besides taking it in (its free-space probe writes
# it a second time, and two syncs), run through the daemon's own code. The
# three run back to back in each round, in an order that turns.
fw_ours() {
  $M pair "$RAW" fw_ours --round "$1" --port 856 --server "$D" --client "$C -q --plain firmware $W/fw.bin"
  rm -f /tmp/firmware.bin
}
fw_socat() {
  $M pair "$RAW" fw_socat --round "$1" --port 9000 \
    --server "$(sock TCP-LISTEN:9000,reuseaddr OPEN:$W/recv.bin,creat,trunc)" \
    --client "$(sock OPEN:$W/fw.bin TCP:127.0.0.1:9000)"
}
fw_fixed() { $M pair "$RAW" fw_fixed --round "$1" --client "$FIXED $((32 << 20))"; }
for r in $(seq "$BENCH_FW_REPEAT"); do
  case $((r % 3)) in
    1) fw_ours "$r"; fw_socat "$r"; fw_fixed "$r" ;;
    2) fw_socat "$r"; fw_fixed "$r"; fw_ours "$r" ;;
    0) fw_fixed "$r"; fw_ours "$r"; fw_socat "$r" ;;
  esac
done
for r in $(seq "$BENCH_REPEAT"); do
  $M pair "$RAW" backup_ours --port 856 --server "$D" --client "$C -q --plain backup $W/backup.dat"
  $M pair "$RAW" backup_socat --port 9000 --server "$(sock OPEN:$W/config.bin TCP-LISTEN:9000,reuseaddr)" \
    --client "$(sock TCP:127.0.0.1:9000 OPEN:$W/recv.bin,creat,trunc)"
done
fi

if part syscalls; then
step "system calls: one run of each under strace -c -f"
st() { echo "strace -c -f -o $W/$1.st"; }
$M pair "$RAW" strace_fw --port 856 --server "$(st d) $D" --client "$(st c) $C -q --plain firmware $W/fw.bin"
rm -f /tmp/firmware.bin
$M strace "$RAW" st_fw_daemon "$W/d.st" $((32 << 20))
$M strace "$RAW" st_fw_client "$W/c.st" $((32 << 20))
$M pair "$RAW" strace_fw_socat --port 9000 \
  --server "$(st d) $(sock TCP-LISTEN:9000,reuseaddr OPEN:$W/recv.bin,creat,trunc)" \
  --client "$(st c) $(sock OPEN:$W/fw.bin TCP:127.0.0.1:9000)"
$M strace "$RAW" st_fw_socat_receiver "$W/d.st" $((32 << 20))
$M strace "$RAW" st_fw_socat_sender "$W/c.st" $((32 << 20))
$M pair "$RAW" strace_backup --port 856 --server "$(st d) $D" --client "$(st c) $C -q --plain backup $W/backup.dat"
$M strace "$RAW" st_backup_daemon "$W/d.st" $((512 << 10))
$M strace "$RAW" st_backup_client "$W/c.st" $((512 << 10))
$M pair "$RAW" strace_backup_socat --port 9000 \
  --server "$(st d) $(sock OPEN:$W/config.bin TCP-LISTEN:9000,reuseaddr)" \
  --client "$(st c) $(sock TCP:127.0.0.1:9000 OPEN:$W/recv.bin,creat,trunc)"
$M strace "$RAW" st_backup_socat_sender "$W/d.st" $((512 << 10))
$M strace "$RAW" st_backup_socat_receiver "$W/c.st" $((512 << 10))
fi

if part sessions; then
N=$BENCH_SESSIONS
step "connection cost: $N sessions each (plain, TLS, /bin/true, openssl), in 10 alternating rounds"
for r in $(seq 10); do
  $M pair "$RAW" sess_plain --count $((N / 10)) --from-server --port 856 --server "$D" --client "$C -q --plain check"
  $M pair "$RAW" sess_true --count $((N / 10)) --client /bin/true
  $M pair "$RAW" sess_tls --count $((N / 10)) --from-server --port 857 --server "$W/kelputild-tls" --client "$C -q check"
done
# The daemon speaks TLS 1.2 (mbedTLS 2.28): the baseline does the same.
$M pair "$RAW" sess_openssl --count "$N" --from-server --port 4433 \
  --server "openssl s_server -accept 4433 -naccept 1 -cert $CERT -key $KEY" \
  --client "openssl s_client -connect 127.0.0.1:4433 -tls1_2 -brief"
fi

if part memory; then
step "peak memory: ${BENCH_REPEAT} x (32 MiB and 1 MiB upload, TLS and plain login, baselines)"
for r in $(seq "$BENCH_REPEAT"); do
  $M pair "$RAW" mem_fw --rss --port 856 --server "$D" --client "$C -q --plain firmware $W/fw.bin"
  $M pair "$RAW" mem_fw1 --rss --port 856 --server "$D" --client "$C -q --plain firmware $W/fw1.bin"
  rm -f /tmp/firmware.bin
  $M pair "$RAW" mem_tls --rss --port 857 --server "$W/kelputild-tls" --client "$C -q check"
  $M pair "$RAW" mem_plain --rss --port 856 --server "$D" --client "$C -q --plain check"
  $M pair "$RAW" mem_openssl --rss --port 4433 \
    --server "openssl s_server -accept 4433 -naccept 1 -cert $CERT -key $KEY" \
    --client "openssl s_client -connect 127.0.0.1:4433 -tls1_2 -brief"
  $M pair "$RAW" mem_socat --rss --port 9000 \
    --server "$(sock TCP-LISTEN:9000,reuseaddr OPEN:$W/recv.bin,creat,trunc)" \
    --client "$(sock OPEN:$W/fw.bin TCP:127.0.0.1:9000)"
done
fi

if part bundle; then
step "size and bundle"
strip -o "$W/kelputild.stripped" "$D"
$M put "$RAW" size_daemon kib "$(($(stat -c %s "$W/kelputild.stripped") / 1024))"
taskset -c 0 "$B/bench/bundle_bench" --benchmark_repetitions="$BENCH_REPEAT" --benchmark_min_time=0.5 \
  --benchmark_format=json >"$W/gbench.json" 2>/dev/null
$M gbench "$RAW" "$W/gbench.json"
# The same 512 KiB, 64 times over, so that openssl's start-up is amortised.
key=000102030405060708090a0b0c0d0e0f  # openssl's RC4 wants 16 bytes
for r in $(seq "$BENCH_REPEAT"); do
  $M pair "$RAW" ossl_md5 --bytes $((32 << 20)) --client "openssl md5 $W/fw.bin"
  $M pair "$RAW" ossl_rc4 --bytes $((32 << 20)) \
    --client "openssl enc -rc4 -provider legacy -provider default -K $key -in $W/fw.bin -out /dev/null"
done
fi

if part fleet; then
step "fleet: backup of $BENCH_FLEET simulated routers, -j 32 and one by one, ${BENCH_REPEAT} times"
PATH=$B/bin:$PATH "$B/sim/kelp-router" --password "$password" --fleet "$BENCH_FLEET" \
  -- bash "$ROOT/bench/fleet.sh" "$M" "$RAW" "$BENCH_REPEAT"
fi

if part serve; then
step "serve: $BENCH_SERVE simulated routers at --interval 60s for $BENCH_SERVE_SECONDS s"
# The last router is silent: clients waiting for its backups load the API.
PATH=$B/bin:$PATH "$B/sim/kelp-router" --password "$password" --fleet "$BENCH_SERVE" \
  --fault "silent:$BENCH_SERVE" -- bash "$ROOT/bench/serve.sh" "$M" "$RAW" "$BENCH_SERVE_SECONDS" "router$BENCH_SERVE"
fi

load
step "done"
echo
$M table "$RAW" "$B/bench/results.json"
echo
echo "(medians of $BENCH_REPEAT runs, $BENCH_SESSIONS sessions; raw records: $RAW)"
