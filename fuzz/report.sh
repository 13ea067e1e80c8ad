#!/bin/sh
# The last fuzz/run.sh summary as a Markdown table (for the README).
#   fuzz/report.sh [summary.tsv]
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
summary=${1:-${KELP_FUZZ_BUILD:-$root/build-fuzz}/fuzz-summary.tsv}
echo "| target | execs | edges | crashes |"
echo "|---|--:|--:|--:|"
awk -F '\t' '{ printf "| %s | %s | %s | %s |\n", $1, $2, $3, $4 }' "$summary"
