#!/usr/bin/env bash
# Builds everything and runs every suite: native (Debug), with AddressSanitizer
# and UndefinedBehaviorSanitizer (whose checks include alignment: an unaligned
# load kills a MIPS process; the alignment stage runs it alone on request), for s390x and MIPS (big-endian, under qemu-user)
# and i386 (32-bit, native), then the fuzzers for a bounded time.
# Stages: KELP_STAGES="native sanitize alignment s390x i386 mips fuzz" (default: all but alignment).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/leave-tmp.sh
leave_tmp scripts/test-all.sh "$@"
stages=${KELP_STAGES:-"native sanitize s390x i386 mips fuzz"}
jobs=$(nproc)

# What the chosen stages need, in one apt run.
deps=()
for stage in $stages; do
  case $stage in
    native | sanitize | alignment) deps+=(native) ;;
    fuzz) deps+=(native fuzz) ;;
    s390x | i386 | mips) deps+=("$stage") ;;
  esac
done
timings=()
timed() {  # label, command...
  local label=$1 start=$SECONDS
  shift
  "$@"
  timings+=("$(printf '%-22s %4ds' "$label" $((SECONDS - start)))")
}
timed deps bash scripts/install-deps.sh "${deps[@]}"
if [[ " $stages " == *" mips "* ]]; then
  timed mips-libraries bash scripts/build-mips-deps.sh build-deps/mips-linux-gnu
fi

run_suite() {  # name, cmake options...
  local name=$1
  shift
  local dir=build-ci-$name
  echo "=== $name: configure and build"
  timed "$name configure" cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  timed "$name build" ninja -C "$dir"
  echo "=== $name: tests"
  timed "$name tests" ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 180
}

# A sanitizer report must never pass for an expected exit status of 1.
export ASAN_OPTIONS=detect_leaks=0:exitcode=97
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=98

toolchain() { echo "-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$1.cmake"; }
for stage in $stages; do
  case $stage in
    native) run_suite native -DCMAKE_BUILD_TYPE=Debug ;;
    sanitize) run_suite sanitize -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=address,undefined ;;
    alignment) run_suite alignment -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=alignment ;;
    # Cross builds are optimised as shipped: -O2 also finds more warnings.
    s390x) run_suite s390x "$(toolchain s390x-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    i386) run_suite i386 "$(toolchain i686-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    mips) run_suite mips "$(toolchain mips-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DKELP_MIPS_PREFIX=build-deps/mips-linux-gnu ;;
    fuzz) if [ -f fuzz/run.sh ]; then timed fuzz bash fuzz/run.sh "${KELP_FUZZ_SECONDS:-20}"; fi ;;
    *) echo "unknown stage $stage" >&2; exit 1 ;;
  esac
done
echo "=== timings"
printf '%s\n' "${timings[@]}"
echo "all stages passed: $stages"
