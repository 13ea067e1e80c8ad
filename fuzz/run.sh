#!/bin/sh
# Builds the fuzz targets (clang, ASan + UBSan) and runs each for a while on
# a scratch copy of its seed corpus. Needs root: every target enters its own
# mount namespace.
#
#   fuzz/run.sh [--markdown] [seconds-per-target]     (default 30)
#
# Exits non-zero when the build fails or any target crashes; crashing inputs
# land in $KELP_FUZZ_BUILD/fuzz-artifacts/<target>/.
set -eu

markdown=0
if [ "${1:-}" = "--markdown" ]; then
    markdown=1
    shift
fi
seconds=${1:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KELP_FUZZ_BUILD:-$root/build-fuzz}

# Input size caps: a few frames at most, and below a pipe's 64 KiB for fifo.
targets="auth:64 request:8192 frames:8192 bundle:4096 ppp_info:4096 hotspot:4096 kick:2048 fifo:8192 tokens:2048 basename:512 client:8192"

if [ "$(id -u)" != 0 ]; then
    echo "fuzz/run.sh: needs root (private mounts over /tmp, /run, /etc/passwd)" >&2
    exit 2
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DKELP_FUZZ=ON -DKELP_TESTS=OFF -DKELP_CLIENT=ON -DKELP_TOOL=OFF \
    -DKELP_SANITIZE=address,undefined >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null

summary=$build/fuzz-summary.tsv
: >"$summary"
failed=0
for entry in $targets; do
    name=${entry%%:*}
    max_len=${entry#*:}
    corpus=$build/fuzz-corpus/$name
    artifacts=$build/fuzz-artifacts/$name
    log=$build/fuzz-logs/$name.log
    rm -rf "$corpus" "$artifacts"
    mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
    cp "$root/fuzz/corpus/$name/"* "$corpus/"
    status=0
    "$build/fuzz/fuzz_$name" "$corpus" -max_total_time="$seconds" -max_len="$max_len" -timeout=20 \
        -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$artifacts/" >"$log" 2>&1 || status=$?
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    edges=$(grep -E '^#[0-9]+.* cov: ' "$log" | tail -n 1 | sed 's/.* cov: \([0-9]*\).*/\1/')
    crashes=$(find "$artifacts" -type f | wc -l)
    if [ "$status" != 0 ] && [ "$crashes" = 0 ]; then crashes=1; fi  # died without an artifact
    [ "$crashes" = 0 ] || failed=1
    printf '%s\t%s\t%s\t%s\n' "fuzz_$name" "${execs:-?}" "${edges:-?}" "$crashes" >>"$summary"
    printf '%-14s execs %-9s edges %-5s crashes %s\n' "fuzz_$name" "${execs:-?}" "${edges:-?}" "$crashes"
    if [ "$crashes" != 0 ]; then
        ls "$artifacts" | sed 's/^/    /'
        echo "    log: $log"
    fi
done

if [ "$markdown" = 1 ]; then
    echo
    "$root/fuzz/report.sh" "$summary"
fi
exit "$failed"
