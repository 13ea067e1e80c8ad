#!/usr/bin/env bash
# Builds everything and runs every suite: native, then with AddressSanitizer
# and UndefinedBehaviorSanitizer (which includes the alignment check: an
# unaligned load kills a MIPS process), then the fuzzers for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."
stages=${KELP_STAGES:-"native sanitize fuzz"}
bash scripts/install-deps.sh native fuzz
jobs=$(nproc)

run_suite() {  # name, cmake options...
  local name=$1
  shift
  local dir=build-ci-$name
  echo "=== $name: configure and build"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  ninja -C "$dir"
  echo "=== $name: tests"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 180
}

# A sanitizer report must never pass for an expected exit status of 1.
export ASAN_OPTIONS=detect_leaks=0:exitcode=97
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=98

for stage in $stages; do
  case $stage in
    native) run_suite native -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    sanitize) run_suite sanitize -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=address,undefined ;;
    fuzz) [ -f fuzz/run.sh ] && bash fuzz/run.sh "${KELP_FUZZ_SECONDS:-20}" ;;
    *) echo "unknown stage $stage" >&2; exit 1 ;;
  esac
done
echo "all stages passed: $stages"
