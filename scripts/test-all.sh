#!/usr/bin/env bash
# Builds everything and runs every suite: native (Debug), with AddressSanitizer
# and UndefinedBehaviorSanitizer (whose checks include alignment: an unaligned
# load kills a MIPS process; the alignment stage runs it alone on request), for s390x and MIPS (big-endian, under qemu-user)
# and i386 (32-bit: natively where the kernel runs 32-bit programs, else under
# qemu-user; KELP_I386_QEMU=1 forces qemu), then the fuzzers for a bounded time.
# Stages: KELP_STAGES="native sanitize alignment s390x i386 mips fuzz" (default: all but alignment).
# A failing stage ends the run with the timings so far and a last line naming
# the stage and what failed in it.
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
timed() {  # label, command...; returns the command's status
  local label=$1 start=$SECONDS status=0
  shift
  "$@" || status=$?
  timings+=("$(printf '%-22s %4ds' "$label" $((SECONDS - start)))")
  return $status
}
failed() {  # stage, what failed in it
  echo "=== timings"
  printf '%s\n' "${timings[@]}"
  echo "FAILED: stage $1: $2" >&2
  exit 1
}
commas() { paste -sd, - | sed 's/,/, /g'; }
timed deps bash scripts/install-deps.sh "${deps[@]}" || failed deps "installing packages"
if [[ " $stages " == *" mips "* ]]; then
  timed mips-libraries bash scripts/build-mips-deps.sh build-deps/mips-linux-gnu || failed mips "building its libraries"
fi

run_suite() {  # name, cmake options...
  local name=$1
  shift
  local dir=build-ci-$name
  echo "=== $name: configure and build"
  timed "$name configure" cmake -S . -B "$dir" -G Ninja "$@" >/dev/null || failed "$name" "configure"
  timed "$name build" ninja -C "$dir" || failed "$name" build
  echo "=== $name: tests"
  if ! timed "$name tests" ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 180 \
    --no-tests=error --output-log "$dir/ctest.log"; then
    # ctest's summary: "The following tests FAILED:", then "  97 - Name (Timeout)".
    local tests
    tests=$(sed -n '/^The following tests FAILED:/,$ s/^[[:space:]]*[0-9]* - //p' "$dir/ctest.log" | commas)
    failed "$name" "${tests:-ctest failed before any test did (see above)}"
  fi
}

# Some kernels of our kind have 32-bit emulation switched off at boot, and
# every 32-bit program fails with "Exec format error": a tiny one tells.
i386_qemu() {  # prints ON or OFF, says which on stderr
  local probe=build-ci-i386/probe
  if [[ ${KELP_I386_QEMU:-} == 1 ]]; then
    echo "=== i386: under qemu-i386-static (KELP_I386_QEMU=1)" >&2
    echo ON
    return
  fi
  mkdir -p build-ci-i386
  printf 'int main(void) { return 0; }\n' | i686-linux-gnu-gcc -x c -o "$probe" - || return 1
  if "$probe" 2>/dev/null; then
    echo "=== i386: natively" >&2
    echo OFF
  else
    echo "=== i386: under qemu-i386-static (this kernel runs no 32-bit programs)" >&2
    echo ON
  fi
}

run_fuzz() {
  local summary=${KELP_FUZZ_BUILD:-build-fuzz}/fuzz-summary.tsv crashed
  rm -f "$summary"
  timed fuzz bash fuzz/run.sh "${KELP_FUZZ_SECONDS:-20}" && return
  # fuzz/run.sh's summary: target, executions, edges, crashes.
  crashed=$(awk -F'\t' '$4 != 0 { print $1 }' "$summary" 2>/dev/null | commas)
  failed fuzz "${crashed:-fuzz/run.sh failed before any target ran (see above)}"
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
    # The operator's tool is for workstations: cross stages leave it out.
    s390x) run_suite s390x "$(toolchain s390x-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_TOOL=OFF ;;
    i386)
      qemu=$(i386_qemu) || failed i386 "the 32-bit probe did not build"
      run_suite i386 "$(toolchain i686-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_TOOL=OFF \
        -DKELP_I386_QEMU="$qemu" ;;
    mips) run_suite mips "$(toolchain mips-linux-gnu)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_TOOL=OFF \
      -DKELP_MIPS_PREFIX=build-deps/mips-linux-gnu ;;
    fuzz) if [ -f fuzz/run.sh ]; then run_fuzz; fi ;;
    *) echo "unknown stage $stage" >&2; exit 1 ;;
  esac
done
echo "=== timings"
printf '%s\n' "${timings[@]}"
echo "all stages passed: $stages"
