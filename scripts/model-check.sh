#!/usr/bin/env bash
# Runs the model-checked random test of the poll and write paths (tests/model) for as many configurations as
# asked, or for a time budget, from a first seed that differs per run unless ZELT_MODEL_SEED names one, and
# prints a summary. Every failing configuration is printed with the command that replays it alone.
# Usage: scripts/model-check.sh [COUNT|--seconds N] [BUILD_DIR]     (default: 200 configurations, build)
#   env: ZELT_MODEL_SEED (first seed), ZELT_MODEL_MAX_DEVICES, ZELT_MODEL_MAX_ITEMS, ZELT_MODEL_FAULT_PERCENT
set -euo pipefail
cd "$(dirname "$0")/.."

count=200
seconds=""
if [ "${1:-}" = "--seconds" ]; then
    seconds=${2:?"--seconds needs a number"}
    shift 2
elif [[ "${1:-}" =~ ^[0-9]+$ ]]; then
    count=$1
    shift
fi
build_dir=${1:-build}

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
    cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build_dir" --target model_tests -j"$(nproc)" >/dev/null

seed=${ZELT_MODEL_SEED:-$(date +%s)}
log="$build_dir/model-check.log"
if [ -n "$seconds" ]; then
    echo "model-check: configurations from seed $seed for $seconds s (log: $log)"
    selection=(ZELT_MODEL_SECONDS="$seconds")
else
    echo "model-check: $count configurations from seed $seed (log: $log)"
    selection=(ZELT_MODEL_CONFIGS="$count")
fi

status=0
env ZELT_MODEL_SEED="$seed" "${selection[@]}" "$build_dir/tests/model_tests" --gtest_filter='RandomModel.*' \
    >"$log" 2>&1 || status=$?

# Failing configurations, one line each, then the summary the test printed.
grep '^model failure: ' "$log" | sed 's/^model failure: /  /' || true
if grep -q '^model: the process is dying' "$log"; then
    echo "model-check: the test process died; see $log:"
    grep -A1 '^model: the process is dying' "$log" | tail -1
fi
summary=$(grep '^model summary:' "$log" | tail -1 || true)
if [ -z "$summary" ]; then
    echo "model-check: no summary (exit status $status); see $log"
    exit "${status:-1}"
fi
echo "$summary" | sed -E 's/^model summary: (configurations [0-9]+, polls [0-9]+, writes [0-9]+, violations [0-9]+).*/model-check: \1/'
grep '^model violations by check:' "$log" | tail -1 | sed 's/^model /model-check: /'
exit "$status"
